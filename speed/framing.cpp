// Compares building a camera block's frame with memcpy and with a plain loop over its bytes. With "--frames N" the
// program builds N frames and ends, so that valgrind can count for two values of N.
#include "devlib/haldenflash/messages.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace
{

using Block = std::vector<UInt8>;
constexpr std::size_t kBlockSize = 64512;
constexpr std::size_t kFrameSize = 131072;

Block RandomBlock()
{
    Block block(kBlockSize);
    std::generate(block.begin(), block.end(), [random = std::mt19937(1)]() mutable { return random() >> 24; });
    return block;
}

Int32 Frame(const Block &block, UInt8 *frame)
{
    Int32 size = 0;
    buildKoraToHaldenMsg(KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_CAMERA, kBlockSize, block.data(), &size, frame);
    return size;
}

// The yardstick: appends each byte by the escape rule and adds it up.
Int32 FramePlainly(const Block &block, UInt8 *frame)
{
    UInt32 sum = 0;
    Int32 end = 0;
    for (const UInt8 byte : block) {
        if (byte >= 0xFE) {
            frame[end++] = 0xFE;
            frame[end++] = byte == 0xFF;
        } else {
            frame[end++] = byte;
        }
        sum += byte;
    }
    benchmark::DoNotOptimize(sum);
    return end;
}

Int32 Copy(const Block &block, UInt8 *frame)
{
    std::memcpy(frame, block.data(), kBlockSize);
    return kBlockSize;
}

void Build(benchmark::State &state, Int32 (*build)(const Block &, UInt8 *), const Block &block)
{
    std::vector<UInt8> frame(kFrameSize);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(build(block, frame.data()));
        benchmark::ClobberMemory();
    }
}
BENCHMARK_CAPTURE(Build, memcpy, Copy, RandomBlock())->Name("framing_memcpy");
BENCHMARK_CAPTURE(Build, random, Frame, RandomBlock())->Name("framing_random");
BENCHMARK_CAPTURE(Build, FF, Frame, Block(kBlockSize, 0xFF))->Name("framing_FF");
BENCHMARK_CAPTURE(Build, FE, Frame, Block(kBlockSize, 0xFE))->Name("framing_FE");
BENCHMARK_CAPTURE(Build, plain_random, FramePlainly, RandomBlock())->Name("plain_random");
BENCHMARK_CAPTURE(Build, plain_FF, FramePlainly, Block(kBlockSize, 0xFF))->Name("plain_FF");
BENCHMARK_CAPTURE(Build, plain_FE, FramePlainly, Block(kBlockSize, 0xFE))->Name("plain_FE");

} // namespace

int main(int argc, char *argv[])
{
    if (argc == 3 && std::strcmp(argv[1], "--frames") == 0) {
        const Block block = RandomBlock();
        std::vector<UInt8> frame(kFrameSize);
        for (int i = std::atoi(argv[2]); i > 0; i--)
            Frame(block, frame.data());
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
