// The camera's update. The device may answer anything, and the board may do anything. The input is the sizes of the two
// images, q for a query or v to y for a camera that first answers up to the blocks, and the script.
#include "fuzz/board.h"

#include "devlib/haldenflash/farsightupdate.h"
#include "devlib/haldenflash/haldenflash.h"

#include <vector>

namespace
{

using bench::Bytes;

constexpr std::size_t kBlockSize = 64512;

struct Image {
    const char *file;
    const char *versionFile;
    UInt8 type;
    std::size_t blocks;
    bool outdated;
    const Board::FileUse *use;
};

// A file that is missing or cannot be read has no blocks. Behind a file that cannot be read the other one is not looked
// at.
void CountBlocks(Replay &replay, Board &board, Image (&images)[2])
{
    for (Image &image : images) {
        const Board::FileUse &use = replay.Uses(image.file);
        if (use.failed)
            return;
        image.blocks = use.opened ? (board.ContentsOf(use).size() + kBlockSize - 1) / kBlockSize : 0;
    }
}

// Sends one image. Returns false when that ends the update.
bool SendsImage(Replay &replay, const Image &image, const std::string &content)
{
    std::size_t at = 0;
    for (std::size_t number = 0; number < image.blocks;) {
        if (image.use->failed && replay.Ended())
            return false;
        const auto data = content.substr(std::min(at, content.size()), kBlockSize);
        Bytes block = {static_cast<UInt8>(number >> 8), static_cast<UInt8>(number)};
        block.insert(block.end(), data.begin(), data.end());
        at += data.size();
        if (!replay.SendsFrame(image.type, block))
            return false;
        const Bytes verdict = replay.Takes(2);
        if (verdict.size() < 2 || verdict[1] == 0x0F)
            return false;
        number += verdict[1] == 0x06 ? 1 : 0;
    }
    return true;
}

// Announces the images and sends them.
int ExpectedTransfer(Replay &replay, Board &board, std::vector<Image> images)
{
    Bytes mode = {0x87, 0x43, 0x72, 5, 0, 0, 0, 0};
    if (images.size() == 1)
        mode[3] = images[0].type == 0x88 ? 3 : 1;
    std::size_t blocks = 0;
    for (Image &image : images) {
        image.use = &replay.Uses(image.file);
        if (!image.use->opened)
            return -1;
        mode[image.type == 0x88 ? 5 : 7] = static_cast<UInt8>(image.blocks);
        blocks += image.blocks;
    }
    if (blocks > 0 && (!replay.Sends(mode) || replay.Takes(4).size() < 4))
        return -1;
    for (const Image &image : images)
        if (!SendsImage(replay, image, board.ContentsOf(*image.use)))
            return -1;
    if (std::all_of(images.begin(), images.end(), [](const Image &image) { return image.blocks > 0; }))
        return 0;
    while (replay.Takes(2).size() == 2) // an image without a block waits for the verdict on it
        continue;
    return -1;
}

int ExpectedUpdate(Replay &replay, Board &board)
{
    Image images[] = {{"farsightcam.bin", "farsightcamver", 0x88, 0, false, nullptr},
                      {"farsightsys.bin", "farsightsysver", 0x89, 0, false, nullptr}};
    CountBlocks(replay, board, images);
    Int32 versions[2];
    for (std::size_t i = 0; i < 2; i++) {
        const Board::FileUse &use = replay.Uses(images[i].versionFile);
        if (!use.opened || use.failed)
            return -1;
        versions[i] = 0x1234;
    }
    if (!replay.Sends({0x82, 0x06, 0x77}))
        return -1;
    Bytes reply;
    do {
        reply = replay.Takes(1);
        if (reply.empty())
            return -1;
    } while (reply[0] != 0xA0);
    reply = replay.Takes(12);
    if (reply.size() < 12)
        return -1;
    std::vector<Image> outdated;
    for (std::size_t i = 0; i < 2; i++)
        if (static_cast<Int16>(Version(std::string(&reply[i == 0 ? 8 : 4], &reply[i == 0 ? 8 : 4] + 4))) != versions[i])
            outdated.push_back(images[i]);
    CHECK(gbUpdateRequired == (gbQueryOnly != 0 && !outdated.empty() ? 1 : 0));
    return outdated.empty() || gbQueryOnly != 0 ? 0 : ExpectedTransfer(replay, board, outdated);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const char *data, std::size_t size)
{
    constexpr std::size_t kSizes[] = {1, 700, kBlockSize, kBlockSize + 1, 2 * kBlockSize, 150000, 0};
    constexpr const char *kReplies[] = {"\xA0....00000000mode", "\xA0....12340000mode", "\xA0....00001234mode",
                                        "\xA0....12341234"};
    if (size < 2)
        return 0;
    SetUpPorts();
    Board::Files files = {{"farsightcamver", "1234\n"}, {"farsightsysver", "1234"}};
    const std::size_t cam = data[0] & 7, sys = data[0] >> 3 & 7;
    if (cam < std::size(kSizes))
        files["farsightcam.bin"] = Noise(kSizes[cam]);
    if (sys < std::size(kSizes))
        files["farsightsys.bin"] = Noise(kSizes[sys]);
    gbQueryOnly = data[1] == 'q' ? 1 : 0;
    gbUpdateRequired = 0;
    std::string script(data + 2, size - 2);
    if (data[1] >= 'v' && data[1] <= 'y')
        script.insert(0, kReplies[data[1] - 'v']);
    Board board(files, script);
    const int result = flash_farsight(0, nullptr);
    CHECK(result ==
          ExpectedResult(board, "/dev/fpgaserial0", [&](Replay &replay) { return ExpectedUpdate(replay, board); }));
    return 0;
}
