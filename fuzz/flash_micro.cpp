// The microcontroller's update. The device may answer anything, and the board may do anything. The input is the size of
// the image, its version, q for a query or v for a device that first sends its version, and the script.
#include "fuzz/board.h"

#include "devlib/haldenflash/haldenflash.h"
#include "devlib/haldenflash/microupdate.h"

#include <optional>

namespace
{

using bench::Bytes;

// The version in the part of a reply that the device sent. Nothing if that part has no version.
std::optional<UInt8> TakeVersion(Replay &replay)
{
    for (;;) {
        const Bytes first = replay.Takes(1);
        if (first.empty())
            return std::nullopt;
        if (first[0] != 0xFF)
            continue;
        const Bytes second = replay.Takes(1);
        if (second.empty())
            return std::nullopt;
        if (second[0] == 0x14)
            break;
    }
    Bytes rest = replay.Takes(13);
    if (rest.empty())
        return std::nullopt;
    rest.resize(13);
    return rest[2];
}

int ExpectedTransfer(Replay &replay, Board &board)
{
    const Board::FileUse &image = replay.Uses("haldenmicro.bin");
    if (!image.opened)
        return -1;
    const std::string &content = board.ContentsOf(image);
    UInt8 number = 0;
    int refusals = 0;
    for (std::size_t at = 0; number < 12;) {
        Bytes block;
        if (refusals == 0) {
            if (image.failed && replay.Ended())
                return -1;
            const auto data = content.substr(std::min(at, content.size()), 512);
            block = {0, number};
            block.insert(block.end(), data.begin(), data.end());
            at += data.size();
        }
        if (refusals != 3 && !replay.SendsFrame(0x48, block)) // behind the third only a verdict is waited for
            return -1;
        const Bytes verdict = replay.Takes(2);
        if (verdict.size() < 2)
            return 0; // the device fell silent
        refusals += verdict[1] == 0x0F ? 1 : 0;
        if (verdict[1] == 0x06) {
            refusals = 0;
            number++;
        }
    }
    return 0;
}

int ExpectedUpdate(Replay &replay, Board &board)
{
    if (!replay.SendsFrame(0x44, {1}))
        return -1;
    const std::optional<UInt8> version = TakeVersion(replay);
    if (!version)
        return -1;
    const Board::FileUse &image = replay.Uses("haldenmicro.bin");
    const auto available = image.read == 0 ? 0 : static_cast<UInt8>(board.ContentsOf(image)[0]);
    const bool needed = available != 0 && available != *version;
    CHECK(gbUpdateRequired == (needed ? 1 : 0));
    return needed && gbQueryOnly == 0 ? ExpectedTransfer(replay, board) : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const char *data, std::size_t size)
{
    constexpr std::size_t kSizes[] = {6144, 7000, 6143, 513, 512, 511, 1, 0};
    if (size < 3)
        return 0;
    SetUpPorts();
    Board::Files files;
    const UInt8 choice = static_cast<UInt8>(data[0]);
    if (choice < 0xF8)
        files["haldenmicro.bin"] = data[1] + Noise(kSizes[choice % std::size(kSizes)]);
    gbQueryOnly = data[2] == 'q' ? 1 : 0;
    gbUpdateRequired = 0;
    std::string script(data + 3, size - 3);
    if (data[2] == 'v')
        script.insert(0, "\xFF\x14VERSION-REPLY");
    Board board(files, script);
    const int result = flash_micro(0, nullptr);
    CHECK(result ==
          ExpectedResult(board, "/dev/fpgaserial1", [&](Replay &replay) { return ExpectedUpdate(replay, board); }));
    return 0;
}
