#include "devlib/haldenflash/farsightupdate.h"

#include "Common/OS/osassert.h"
#include "devlib/haldenflash/haldenflash.h"
#include "devlib/haldenflash/image.h"
#include "devlib/haldenflash/updateport.h"
#include "devlib/serialapi.h"
#include "softupdate/progressctrl/progressctrl.h"

#include <cstdio>
#include <cstring>

FarSightUpdateInfoS gFarsightUpdateInfo;

namespace
{

constexpr int kCameraPort = 0;
constexpr Int32 kMessageTimeout = 10000;   // microseconds, this and the next two
constexpr Int32 kVerdictTimeout = 4000000; // the camera programs a block before it answers
constexpr Int32 kReplyPause = 3000000;     // before a reply to a raw message is read
constexpr Int32 kBlockSize = 64512;
constexpr Int32 kFreshBlock = 3; // retries of a block that was not refused yet
constexpr Int32 kMaxFrameSize = 131072;
constexpr Int32 kCountChunk = 524288;
constexpr Int32 kVersionTextSize = 8;

// Raw messages, which are not framed.
constexpr UInt8 tlvrgettypebuffer[3] = {0x82, 0x06, 0x77};
constexpr UInt8 kTypeReplyStart = 0xA0;
constexpr Int32 kTypeReplySize = 13;
constexpr Int32 kReplySystemVersion = 5; // position and size of the versions in the reply
constexpr Int32 kReplyCameraVersion = 9;
constexpr Int32 kReplyVersionSize = 4;
constexpr Int32 kFlashModeSize = 8;
constexpr Int32 kFlashModeReplySize = 4;
constexpr UInt8 kFlashModeSystem = 1; // what will be sent
constexpr UInt8 kFlashModeCamera = 3;
constexpr UInt8 kFlashModeBoth = 5;

// One of the camera's two images: what it is called and what is printed about it.
struct ImageRow {
    const char *file;
    CONTROLLER_FLASH_TYPE flashType;
    KORA_HALDEN_MESAGE_TYPE messageType;
    const char *outdated; // conversions: the camera's version, the file's
    const char *upToDate;
    const char *working;        // file, block
    const char *unknownVerdict; // verdict
    const char *readError;      // bytes asked for, file, result
    const char *flashing;       // block, try
};

constexpr ImageRow kCamera = {
    .file = "farsightcam.bin",
    .flashType = CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_FW,
    .messageType = KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_CAMERA,
    .outdated = "Current FarSight Camera FW Version[%x] -- Newer FarSight Camera FW Version[%x] ... Upgrading "
                "FarSight Camera FW ...\n",
    .upToDate = "FarSight Camera Firmware is Already up to date ...",
    .working = "Still working on camera file [%s] block [%d] ...\n",
    .unknownVerdict = "UNKNOWN RESPONSE FROM FARSIGHT DURING CAMERA IMAGE FLASHING: AckNack:0x%.2x ...\n",
    .readError = "\nReading %d bytes from file: %s failed, err: %d, ABORT FarSight camera image programming....\n",
    .flashing = "Flashing FarSight Camera Image block[%d] Iteration[%d] ...\n",
};

constexpr ImageRow kSystem = {
    .file = "farsightsys.bin",
    .flashType = CONTROLLER_FLASH_TYPE_FARSIGT_SYSTEM_FW,
    .messageType = KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_SYSTEM,
    .outdated = "Current FarSight System FW Version[%x] -- Newer FarSight System FW Version[%x] ... Upgrading "
                "FarSight System FW ...\n",
    .upToDate = "FarSight System Firmware is Already up to date ...",
    .working = "Still working on system file [%s] block [%d] ...\n",
    .unknownVerdict = "UNKNOWN RESPONSE FROM FARSIGHT DURING SYSTEM IMAGE FLASHING: AckNack:0x%.2x ...\n",
    .readError = "\nReading %d bytes from file: %s failed, err: %d, ABORT FarSight system image programming....\n",
    .flashing = "Flashing FarSight System Image block[%d] Iteration[%d] ...\n",
};

// One image's half of the update record.
struct ImageState {
    const ImageRow &row;
    FILE **file;
    Int32 *currentBlock;
    Int32 totalBlock;
    Int32 *retries;
};

ImageState CameraState(FarSightUpdateInfoS *info)
{
    return {kCamera, &info->farsight_cam_file, &info->currentCamBlock, info->totalCamBlock, &info->camBlockRetries};
}

ImageState SystemState(FarSightUpdateInfoS *info)
{
    return {kSystem, &info->farsight_sys_file, &info->currentSysBlock, info->totalSysBlock, &info->sysBlockRetries};
}

// An image whose last block is done, or that is given up.
void EndImage(const ImageState &image)
{
    if (*image.file != nullptr && CloseImage(image.file) != 0)
        *image.currentBlock = 0;
}

// ---- Versions

// The version that a file names. Returns kNoError, or kFileOpenError (printed) when it cannot be opened or read.
eErrorT ReadVersionFile(const char *name, Int32 *version)
{
    char text[kVersionTextSize + 1] = {};
    FILE *file = OpenImage(name);
    const Int32 count = file != nullptr ? ReadBytes(file, text, kVersionTextSize) : -1;
    CloseImage(&file);
    if (count < 0) {
        std::printf("\nCould not open file: %s, Exit programming...\n", name);
        return kFileOpenError;
    }
    *version = axxtoi(text);
    return kNoError;
}

eErrorT PrintReplyFailure()
{
    std::puts("######### Failed reading device type response back from FarSight camera ...");
    return kFuncReturnedError;
}

eErrorT SendRawMessage(const UInt8 *message, Int32 size)
{
    const int sent = Serial_Write(kCameraPort, reinterpret_cast<const char *>(message), size, kMessageTimeout);
    if (sent == size)
        return kNoError;
    std::printf("ERROR: flash_farsight() -- driver cannot send all the entire message of [%d] bytes -- It sent [%d] "
                "bytes ...\n",
                size, sent);
    return kFuncReturnedError;
}

// Reads up to the byte that begins the device-type reply, and drops what comes before it; a camera
// that chatters for ever keeps it here.
eErrorT FindTypeReply(UInt8 *reply)
{
    for (;;) {
        if (ReadReply(kCameraPort, reply, 1, kMessageTimeout) != 1)
            return PrintReplyFailure();
        if (reply[0] == kTypeReplyStart)
            return kNoError;
        std::printf("#### Got [%x] ...drop this byte ...until we get the ACK byte ...\n", reply[0]);
        Delay(kDropPause);
    }
}

eErrorT ReadTypeReply(UInt8 *reply)
{
    if (FindTypeReply(reply) != kNoError)
        return kFuncReturnedError;
    std::printf("#### First Byte of Response, readBuff[0]=0x%.2x ... Read the rest of the camera response ...\n",
                reply[0]);
    const Int32 count = ReadReply(kCameraPort, reply + 1, kTypeReplySize - 1, kMessageTimeout);
    if (count != kTypeReplySize - 1)
        return PrintReplyFailure();
    std::printf("####### GOT THE CORRECT DEVICE TYPE RESPONSE BACK FROM FARSIGHT CAMERA -- byteRead[%d]....\n", count);
    PrintReply(reply, kTypeReplySize);
    return kNoError;
}

// A version of the reply, deliberately taken as a signed 16-bit value: from 8000 on it equals no
// version of a file, and such a camera is always updated.
Int32 ReplyVersion(const UInt8 *reply, Int32 position)
{
    char text[kReplyVersionSize + 1] = {};
    std::memcpy(text, reply + position, kReplyVersionSize);
    return static_cast<Int16>(axxtoi(text));
}

eErrorT ReadCameraVersions(Int32 *camVersion, Int32 *sysVersion)
{
    const eErrorT err = SendRawMessage(tlvrgettypebuffer, sizeof tlvrgettypebuffer);
    if (err != kNoError)
        return err;
    Delay(kReplyPause);
    std::puts("############# Trying to read the camera response HERE HERE HERE ....");
    UInt8 reply[kTypeReplySize] = {};
    if (ReadTypeReply(reply) != kNoError)
        return kFuncReturnedError;
    *sysVersion = ReplyVersion(reply, kReplySystemVersion);
    *camVersion = ReplyVersion(reply, kReplyCameraVersion);
    return kNoError;
}

// Any difference counts, older or newer. An image that is up to date counts as done.
bool ImageNeeded(const ImageRow &row, Int32 currentVersion, Int32 newVersion, Int32 fileSize)
{
    if (currentVersion != newVersion) {
        std::printf(row.outdated, static_cast<UInt32>(currentVersion), static_cast<UInt32>(newVersion));
        return true;
    }
    std::puts(row.upToDate);
    updateProgress(fileSize);
    return false;
}

// ---- Images

// Counts the blocks of one image by reading it through. One that does not open counts 0.
eErrorT CountBlocks(const ImageRow &row, Int32 *numBlocks)
{
    static UInt8 chunk[kCountChunk];
    FILE *image = OpenImage(row.file);
    if (image == nullptr)
        return kNoError;
    Int64 size = 0;
    Int32 count = 0;
    do {
        count = ReadImage(image, chunk, sizeof chunk);
        size += count > 0 ? count : 0;
    } while (count == kCountChunk);
    CloseImage(&image);
    if (count < 0) {
        std::printf("ERROR reading: %s ...\n", row.file);
        return kFuncReturnedError;
    }
    std::printf("[%s] image size: %d ...\n", row.file, static_cast<Int32>(size));
    *numBlocks = static_cast<Int32>((size + kBlockSize - 1) / kBlockSize);
    return kNoError;
}

// Opens an image if it is needed. Returns kNoError or kFileOpenError (printed).
eErrorT OpenNeededImage(const ImageRow &row, bool needed, FILE **file)
{
    if (!needed)
        return kNoError;
    *file = OpenImage(row.file);
    if (*file != nullptr)
        return kNoError;
    std::printf("\nCould not open file: %s, Exit programming...\n", row.file);
    return kFileOpenError;
}

// Announces what will be sent, and how many blocks of it, unless that is nothing.
eErrorT EnterFlashMode(bool camNeeded, bool sysNeeded, Int32 camNumBlocks, Int32 sysNumBlocks)
{
    UInt8 flashMode[kFlashModeSize] = {0x87, 0x43, 0x72};
    flashMode[3] = kFlashModeBoth;
    if (!camNeeded || !sysNeeded)
        flashMode[3] = camNeeded ? kFlashModeCamera : kFlashModeSystem;
    const UInt32 camCount = camNeeded ? static_cast<UInt32>(camNumBlocks) : 0;
    const UInt32 sysCount = sysNeeded ? static_cast<UInt32>(sysNumBlocks) : 0;
    flashMode[4] = static_cast<UInt8>(camCount >> 8);
    flashMode[5] = static_cast<UInt8>(camCount);
    flashMode[6] = static_cast<UInt8>(sysCount >> 8);
    flashMode[7] = static_cast<UInt8>(sysCount);
    if ((flashMode[4] | flashMode[5] | flashMode[6] | flashMode[7]) == 0)
        return kNoError;
    const eErrorT err = SendRawMessage(flashMode, sizeof flashMode);
    if (err != kNoError)
        return err;
    std::puts("############# Trying to read the camera response for flashmode ....");
    Delay(kReplyPause);
    UInt8 reply[kFlashModeReplySize] = {};
    if (ReadReply(kCameraPort, reply, sizeof reply, kMessageTimeout) != kFlashModeReplySize)
        return PrintReplyFailure();
    PrintReply(reply, sizeof reply);
    return kNoError;
}

// ---- Blocks

// Sends a fresh block. After a refusal there is nothing to send, which the sender refuses: a refused
// block ends the update.
eErrorT SendBlock(const ImageState &image)
{
    static UInt8 block[kBlockHeaderSize + kBlockSize];
    Int32 count = 0;
    Int32 size = 0;
    if (*image.retries == kFreshBlock) {
        count = FillBlock(block, *image.currentBlock, kBlockSize, *image.file, image.row.file, image.row.readError);
        size = kBlockHeaderSize + count;
    }
    eErrorT result = kFuncReturnedError;
    if (count >= 0) {
        std::printf(image.row.flashing, *image.currentBlock, kFreshBlock + 1 - *image.retries);
        if (sendFarSightFlashDataBlock(block, size, image.row.flashType) == kNoError)
            result = kNoError;
    }
    if (result == kNoError)
        updateProgress(count);
    else
        CloseImage(image.file);
    return result;
}

bool HasBlockToSend(const ImageState &image)
{
    return *image.file != nullptr && *image.currentBlock < image.totalBlock && *image.retries != 0;
}

void EndImageIfDone(const ImageState &image)
{
    if (*image.currentBlock == image.totalBlock && image.totalBlock > 0)
        EndImage(image);
}

// Takes a verdict over for one image.
void ApplyVerdict(const ImageState &image, UInt8 AckNack)
{
    if (AckNack == kBlockAck) {
        *image.retries = kFreshBlock;
        ++*image.currentBlock;
        std::printf(image.row.working, image.row.file, *image.currentBlock);
    } else if (AckNack == kBlockNack) {
        --*image.retries;
    } else {
        std::printf(image.row.unknownVerdict, AckNack);
    }
}

// Reads the camera's verdict on a block. Without one both images are closed and *result is -1.
UInt8 ReadVerdict(FarSightUpdateInfoS *updateInfo, eErrorT *result)
{
    UInt8 ackNackBuff[2] = {};
    const Int32 count = ReadReply(kCameraPort, ackNackBuff, sizeof ackNackBuff, kVerdictTimeout);
    if (count != static_cast<Int32>(sizeof ackNackBuff)) {
        EndImage(CameraState(updateInfo));
        EndImage(SystemState(updateInfo));
        *result = kFuncReturnedError;
    }
    std::printf("####### GOT A [%s] FARSIGHT -- byteRead[%d]....\n", ackNackBuff[1] == kBlockAck ? "ACK" : "NACK",
                count);
    for (Int32 i = 0; i < count; i++)
        std::printf("~~~~~~ ackNackBuff[%d] = 0x%x ...\n", i, ackNackBuff[i]);
    return ackNackBuff[1];
}

bool ImageOpen(const FarSightUpdateInfoS *updateInfo)
{
    return updateInfo->farsight_cam_file != nullptr || updateInfo->farsight_sys_file != nullptr;
}

// Sends every block of the open images, camera image first.
eErrorT SendImages(FarSightUpdateInfoS *updateInfo)
{
    UInt8 verdict = kBlockAck;
    eErrorT result = kNoError;
    do {
        SetupNextFarSightDataBlock(updateInfo, verdict);
        result = SendNextFarSightDataBlock(updateInfo);
        if (result != kNoError) {
            std::printf("#### Failed sending the farsight data block -- camCurrBlock:%d sysCurrBlock:%d ...\n",
                        updateInfo->currentCamBlock, updateInfo->currentSysBlock);
            break;
        }
        if (!ImageOpen(updateInfo))
            break;
        verdict = ReadVerdict(updateInfo, &result);
    } while (ImageOpen(updateInfo));
    return result;
}

// Brings the needed images to the camera; they are closed on every way out.
eErrorT FlashImages(bool camNeeded, bool sysNeeded, Int32 camNumBlocks, Int32 sysNumBlocks)
{
    FILE *camFile = nullptr;
    FILE *sysFile = nullptr;
    eErrorT result = OpenNeededImage(kCamera, camNeeded, &camFile);
    if (result == kNoError)
        result = OpenNeededImage(kSystem, sysNeeded, &sysFile);
    if (result == kNoError)
        result = EnterFlashMode(camNeeded, sysNeeded, camNumBlocks, sysNumBlocks);
    if (result != kNoError) {
        CloseImage(&camFile);
        CloseImage(&sysFile);
        return result;
    }
    std::printf("FarSight FW update with, camNumBlocks:%d -- sysNUmBlocks:%d ...\n", camNumBlocks, sysNumBlocks);
    gFarsightUpdateInfo = {camFile, -1, camNumBlocks, kFreshBlock, sysFile, -1, sysNumBlocks, kFreshBlock};
    result = SendImages(&gFarsightUpdateInfo);
    CloseImage(&gFarsightUpdateInfo.farsight_cam_file);
    CloseImage(&gFarsightUpdateInfo.farsight_sys_file);
    return result;
}

} // namespace

int flash_farsight(int argc, char *const argv[])
{
    os_assert(argv != nullptr || argc == 0, "argv");
    std::puts("########### Flashing Halden FarSight Firmware ....");
    PrintArguments(argc, argv);
    eErrorT err = OpenUpdatePort(kCameraPort);
    if (err != kNoError) {
        std::printf("ERROR: flash_farsight() -- Failed open port: %d, err: %d\n", kCameraPort, err);
        return -1;
    }
    if (Serial_Enable(kCameraPort, SERIAL_DIRECTION_BOTH) != kNoError) {
        std::printf("ERROR: flash_farsight() -- Failed to enable serial port[%d] ...\n", kCameraPort);
        CloseUpdatePort(kCameraPort);
        return -1;
    }
    err = HaldenSerialProgFarSight(CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_SYSTEM_FW);
    if (err != kNoError)
        std::printf("ERROR: flash_farsight() -- Failed flashing farsight images -- err:%x ...\n",
                    static_cast<UInt32>(err));
    const int released = ReleaseUpdatePort(kCameraPort);
    return err == kNoError && released == 0 ? 0 : -1;
}

eErrorT HaldenSerialProgFarSight(CONTROLLER_FLASH_TYPE flashType)
{
    Int32 camNumBlocks = 0;
    Int32 sysNumBlocks = 0;
    GetFarSightCameraImageBlockNumber(CAMERA_FW_TYPE_ALL, &camNumBlocks, &sysNumBlocks);
    Int32 newCamVersion = 0;
    Int32 newSysVersion = 0;
    Int32 camVersion = 0;
    Int32 sysVersion = 0;
    eErrorT result = ReadVersionFile("farsightcamver", &newCamVersion);
    if (result == kNoError)
        result = ReadVersionFile("farsightsysver", &newSysVersion);
    if (result == kNoError)
        result = ReadCameraVersions(&camVersion, &sysVersion);
    if (result != kNoError)
        return result;
    // Both comparisons print and count progress, whatever is to be flashed.
    bool camNeeded = ImageNeeded(kCamera, camVersion, newCamVersion, gProgressCtrl.nCamFileSize);
    bool sysNeeded = ImageNeeded(kSystem, sysVersion, newSysVersion, gProgressCtrl.nSysFileSize);
    const bool both = flashType == CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_SYSTEM_FW;
    camNeeded &= both || flashType == kCamera.flashType;
    sysNeeded &= both || flashType == kSystem.flashType;
    if (!camNeeded && !sysNeeded)
        return kNoError;
    if (gbQueryOnly != 0) {
        gbUpdateRequired = 1;
        return kNoError;
    }
    result = FlashImages(camNeeded, sysNeeded, camNumBlocks, sysNumBlocks);
    Delay(kRestartTime);
    std::puts("####### FarSight come up after update ....");
    return result;
}

eErrorT GetFarSightCameraImageBlockNumber(CameraFirmwareTypeT imageType, Int32 *camNumBlock, Int32 *sysNumBlock)
{
    os_assert(camNumBlock != nullptr, "camNumBlock");
    os_assert(sysNumBlock != nullptr, "sysNumBlock");
    std::puts("GetFarSightCameraImageBlockNumber()...");
    *camNumBlock = 0;
    *sysNumBlock = 0;
    const bool all = imageType == CAMERA_FW_TYPE_ALL;
    if (!all && imageType != CAMERA_FW_TYPE_CAMERA && imageType != CAMERA_FW_TYPE_SYSTEM) {
        std::printf("Invalid FarSight Camera Image[%d] ...\n", imageType);
        return kBadParameter;
    }
    eErrorT result = kNoError;
    if (all || imageType == CAMERA_FW_TYPE_CAMERA)
        result = CountBlocks(kCamera, camNumBlock);
    if (result == kNoError && (all || imageType == CAMERA_FW_TYPE_SYSTEM))
        result = CountBlocks(kSystem, sysNumBlock);
    return result;
}

eErrorT SetupNextFarSightDataBlock(FarSightUpdateInfoS *updateInfo, UInt8 AckNack)
{
    os_assert(updateInfo != nullptr, "updateInfo");
    const ImageState camera = CameraState(updateInfo);
    const ImageState system = SystemState(updateInfo);
    // An empty camera image has no block that a verdict could be about: it is the system image's, which
    // would stay at its first block for ever otherwise. The update still fails in the end: the camera
    // image stays open, and no verdict on it ever comes.
    const bool emptyCamera = camera.totalBlock == 0 && *camera.currentBlock == 0 && *system.file != nullptr;
    if (*camera.file != nullptr && !emptyCamera) {
        ApplyVerdict(camera, AckNack);
        // The verdict on the last camera block also moves the system image to its first block.
        if (AckNack != kBlockAck || *camera.currentBlock != camera.totalBlock)
            return kNoError;
    }
    if (*system.file != nullptr)
        ApplyVerdict(system, AckNack);
    return kNoError;
}

eErrorT SendNextFarSightDataBlock(FarSightUpdateInfoS *updateInfo)
{
    os_assert(updateInfo != nullptr, "updateInfo");
    const ImageState camera = CameraState(updateInfo);
    const ImageState system = SystemState(updateInfo);
    if (HasBlockToSend(camera))
        return SendBlock(camera);
    EndImageIfDone(camera);
    if (HasBlockToSend(system))
        return SendBlock(system);
    EndImageIfDone(system);
    return kNoError;
}

eErrorT sendFarSightFlashDataBlock(const UInt8 *msgPtr, Int32 msgSize, CONTROLLER_FLASH_TYPE flashType)
{
    static UInt8 frame[kMaxFrameSize];
    if (msgSize == 0) {
        std::puts("########### zero size data block ....");
        return kBadParameter;
    }
    os_assert(msgPtr != nullptr, "msgPtr");
    const Int32 blockNumber = msgPtr[0] << 8 | msgPtr[1];
    std::printf("sending dataBlockNumber: %d -- msgSize:%d ...\n", blockNumber, msgSize);
    if (flashType != kCamera.flashType && flashType != kSystem.flashType) {
        std::printf("Error, sendFarSightFlashDataBlock() -- Wrong flashType:%d ...\n", flashType);
        return kBadParameter;
    }
    const ImageRow &row = flashType == kCamera.flashType ? kCamera : kSystem;
    // The next two texts name the microcontroller's update and the status request; who searches traces knows them so.
    Int32 frameSize = 0;
    const eErrorT err = buildKoraToHaldenMsg(row.messageType, msgSize, msgPtr, &frameSize, frame);
    if (err != kNoError) {
        std::printf("sendMicroFlashDataBlock [%d] request() -- failure building flash data block[%d] message ...rc = "
                    "0x%x -- NewMsgSize = %d\n",
                    row.messageType, blockNumber, static_cast<UInt32>(err), frameSize);
        return kFuncReturnedError;
    }
    const int sent = genericWriteRs232Port(kCameraPort, frame, frameSize);
    if (sent != frameSize) {
        std::printf("RequestHaldenSystemStatus() -- failure sending system status from Kora to Halden ...sentBytes = "
                    "%d -- NewMsgSize = %d\n",
                    sent, frameSize);
        return kFuncReturnedError;
    }
    return kNoError;
}
