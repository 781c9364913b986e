// Builds a number of frames of a camera block's size and ends, for an emulator to count instructions. The block is
// random, or the start of a file.
// usage: frames COUNT [FILE]
#include "devlib/haldenflash/messages.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <random>

int main(int argc, char *argv[])
{
    static std::array<UInt8, 64512> block;
    static std::array<UInt8, 2 * block.size() + 64> frame;
    std::generate(block.begin(), block.end(), [random = std::mt19937(1)]() mutable { return random() >> 24; });
    if (argc == 3) {
        std::FILE *file = std::fopen(argv[2], "rb");
        if (file == nullptr || std::fread(block.data(), 1, block.size(), file) != block.size())
            return 1;
    }
    for (int left = argc >= 2 ? std::atoi(argv[1]) : 0; left > 0; left--) {
        Int32 size = 0;
        buildKoraToHaldenMsg(KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_CAMERA, block.size(), block.data(), &size,
                             frame.data());
    }
    return 0;
}
