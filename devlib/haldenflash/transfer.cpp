#include "devlib/haldenflash/transfer.h"

#include "Common/OS/osassert.h"
#include "devlib/haldenflash/framing.h"
#include "devlib/haldenflash/imagefile.h"
#include "devlib/haldenflash/updateport.h"
#include "softupdate/progressctrl/progressctrl.h"

#include <algorithm>
#include <cstring>

namespace
{

constexpr Int32 kNumberSize = 2; // of a block, before its data
constexpr Int32 kMaxBlockSize = 64512;
constexpr Int32 kMaxFrameSize = 131072;
constexpr int kPorts = 2; // with their own buffers: two tasks may update the two devices at the same time

Int32 BlockNumber(const UInt8 *block)
{
    return block[0] << 8 | block[1];
}

// Closes an image. Returns false if that failed. The current block is then unchanged.
bool EndImage(const Transfer &image)
{
    if (*image.file == nullptr)
        return true;
    if (CloseImage(image.file) == 0)
        return false;
    *image.currentBlock = 0;
    return true;
}

// Closes an image whose last block is done.
eErrorT FinishImage(const Transfer &image)
{
    const bool closed = EndImage(image);
    if (image.row.device.allSent == kNoError)
        return kNoError;
    if (!closed)
        std::printf("########## Can't close the file: %s ...\n", image.row.file);
    *image.currentBlock = 0;
    return image.row.device.allSent;
}

// Fills a block with its number and the next bytes of the image. Behind the end of the image come zeros. Prints the
// count. Returns the count of image bytes, or -1 on a read error, which is printed.
Int32 FillBlock(UInt8 *block, const Transfer &image)
{
    const ImageRow &row = image.row;
    std::memset(block, 0, size_t{kNumberSize} + static_cast<size_t>(row.device.blockSize));
    block[0] = static_cast<UInt8>(*image.currentBlock >> 8);
    block[1] = static_cast<UInt8>(*image.currentBlock);
    const Int32 count = ReadImage(*image.file, block + kNumberSize, row.device.blockSize);
    std::printf("bytes read: %d ...\n", count);
    if (count < 0)
        row.printReadError(row, count);
    else if (count < row.device.blockSize)
        std::printf("\nLast block read_cnt: %d of file: %s \n", count, row.file);
    return count;
}

// Sends a fresh block with the next bytes of the image. Deliberate: the retry of a refused block is an empty frame. It
// is announced with the number of the last block on that port.
eErrorT SendBlock(const Transfer &image)
{
    static UInt8 blocks[kPorts][kNumberSize + kMaxBlockSize];
    UInt8 *block = blocks[image.row.device.port];
    const bool isFresh = *image.retries == kFreshBlock;
    const Int32 count = isFresh ? FillBlock(block, image) : 0;
    const Int32 size = isFresh ? kNumberSize + count : 0;
    bool sent = false;
    if (count >= 0) {
        image.row.printBlock(*image.currentBlock, kFreshBlock + 1 - *image.retries);
        sent = AnnounceBlock(image.row.device, block, size) == kNoError &&
               SendAnnouncedBlock(image.row, block, size) == kNoError;
    }
    if (sent)
        updateProgress(count);
    else
        CloseImage(image.file);
    return sent ? kNoError : kFuncReturnedError;
}

// Applies a verdict to one image.
void ApplyVerdict(const Transfer &image, UInt8 verdict)
{
    const ImageRow &row = image.row;
    if (row.device.working == WorkingLine::kEachVerdict)
        row.printWorking(row.file, *image.currentBlock);
    if (verdict == kBlockAck) {
        *image.retries = kFreshBlock;
        ++*image.currentBlock;
        if (row.device.working == WorkingLine::kEachBlock)
            row.printWorking(row.file, *image.currentBlock);
    } else if (verdict == kBlockNack) {
        --*image.retries;
    } else {
        // Deliberate: the same number is sent again, with the next bytes of the image, as often as this happens.
        row.printUnknownVerdict(verdict);
    }
}

// Waits for the verdict on a block. If none comes, the images are closed, and the result is the device's for silence.
eErrorT ReadVerdict(Transfers images, UInt8 *verdict)
{
    const DeviceRow &device = images[0].row.device;
    UInt8 reply[kVerdictReplySize] = {};
    const Int32 count = ReadReply(device.port, reply, sizeof reply, device.verdictTime);
    if (count != kVerdictReplySize)
        for (const Transfer &image : images)
            EndImage(image);
    *verdict = reply[kVerdict];
    device.printVerdict(reply, count);
    return count == kVerdictReplySize ? kNoError : device.silence;
}

bool IsOpen(const Transfer &image)
{
    return *image.file != nullptr;
}

// Deliberate: whether a verdict is about the next image, because this one is empty. An empty image has no block. If it
// took the verdicts, the next image would stay at its first block for ever. The update still fails in the end: the
// empty image stays open, and no verdict on it ever comes.
bool LeavesVerdict(const Transfer &image, Transfers next)
{
    return image.totalBlock == 0 && *image.currentBlock == 0 && !next.empty() && IsOpen(next[0]);
}

} // namespace

eErrorT SendImages(Transfers images, void (*printFailure)())
{
    UInt8 verdict = kBlockAck;
    eErrorT result = kNoError;
    do {
        TakeVerdict(images, verdict);
        result = SendNextBlock(images);
        if (result != kNoError && result != kEndOfFile)
            printFailure();
        if (result != kNoError || std::ranges::none_of(images, IsOpen))
            return result;
        result = ReadVerdict(images, &verdict);
    } while (std::ranges::any_of(images, IsOpen));
    return result;
}

void TakeVerdict(Transfers images, UInt8 verdict)
{
    for (size_t i = 0; i < images.size(); i++) {
        const Transfer &image = images[i];
        if (!IsOpen(image) || LeavesVerdict(image, images.subspan(i + 1)))
            continue;
        ApplyVerdict(image, verdict);
        if (verdict != kBlockAck || *image.currentBlock != image.totalBlock)
            return;
    }
}

eErrorT SendNextBlock(Transfers images)
{
    for (const Transfer &image : images) {
        if (IsOpen(image) && *image.currentBlock < image.totalBlock && *image.retries != 0)
            return SendBlock(image);
        if (*image.currentBlock != image.totalBlock || image.totalBlock < 1)
            continue;
        const eErrorT result = FinishImage(image);
        if (result != kNoError)
            return result;
    }
    // Deliberately also behind the third refusal of a block: nothing is sent, so silence ends the update.
    return kNoError;
}

eErrorT AnnounceBlock(const DeviceRow &device, const UInt8 *msgPtr, Int32 msgSize)
{
    if (msgSize == 0 && device.refused == AfterRefusal::kEnd) {
        std::puts("########### zero size data block ....");
        return kBadParameter;
    }
    os_assert(msgPtr != nullptr, "msgPtr");
    std::printf("sending dataBlockNumber: %d -- msgSize:%d ...\n", BlockNumber(msgPtr), msgSize);
    return kNoError;
}

// The lines of both devices name the microcontroller's function. Programs that search traces know them so.
eErrorT SendAnnouncedBlock(const ImageRow &row, const UInt8 *msgPtr, Int32 msgSize)
{
    static UInt8 frames[kPorts][kMaxFrameSize];
    UInt8 *frame = frames[row.device.port];
    Int32 frameSize = 0;
    const eErrorT err = buildKoraToHaldenMsg(row.messageType, msgSize, msgPtr, &frameSize, frame);
    if (err != kNoError) {
        std::printf("sendMicroFlashDataBlock [%d] request() -- failure building flash data block[%d] message ...rc = "
                    "0x%x -- NewMsgSize = %d\n",
                    row.messageType, BlockNumber(msgPtr), static_cast<UInt32>(err), frameSize);
        return err;
    }
    const int sent = genericWriteRs232Port(row.device.port, frame, frameSize);
    if (sent == frameSize)
        return kNoError;
    row.device.printShortWrite(BlockNumber(msgPtr), sent, frameSize);
    return kFuncReturnedError;
}
