#include "devlib/haldenflash/farsightupdate.h"

#include "Common/OS/osassert.h"
#include "devlib/haldenflash/delay.h"
#include "devlib/haldenflash/haldenflash.h"
#include "devlib/haldenflash/hextext.h"
#include "devlib/haldenflash/imagefile.h"
#include "devlib/haldenflash/transfer.h"
#include "devlib/haldenflash/updateport.h"
#include "devlib/serialapi.h"
#include "softupdate/progressctrl/progressctrl.h"

#include <cstdio>
#include <cstring>

FarSightUpdateInfoS gFarsightUpdateInfo;

namespace
{

constexpr const ImageRow &kCamera = kImages[CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_FW];
constexpr const ImageRow &kSystem = kImages[CONTROLLER_FLASH_TYPE_FARSIGT_SYSTEM_FW];
constexpr Int32 kMessageTimeout = 10000; // these two in microseconds
constexpr Int32 kReplyPause = 3000000;   // before a reply to a raw message is read
constexpr Int32 kCountChunk = 524288;
constexpr Int32 kVersionTextSize = 8;

// Raw messages, which are not framed.
constexpr UInt8 tlvrgettypebuffer[3] = {0x82, 0x06, 0x77};
constexpr UInt8 kTypeReplyStart = 0xA0;
constexpr Int32 kTypeReplySize = 13;
constexpr Int32 kReplyVersionSize = 4; // of each of the two versions in the reply
constexpr Int32 kFlashModeSize = 8;
constexpr Int32 kFlashModeReplySize = 4;
constexpr UInt8 kFlashModeSystem = 1; // what will be sent
constexpr UInt8 kFlashModeCamera = 3;
constexpr UInt8 kFlashModeBoth = 5;

Transfer CameraTransfer(FarSightUpdateInfoS *info)
{
    return {kCamera, &info->farsight_cam_file, &info->currentCamBlock, info->totalCamBlock, &info->camBlockRetries};
}

Transfer SystemTransfer(FarSightUpdateInfoS *info)
{
    return {kSystem, &info->farsight_sys_file, &info->currentSysBlock, info->totalSysBlock, &info->sysBlockRetries};
}

// ---- Versions

// Where the versions of an image are found, and what is printed about them.
struct VersionRow {
    const ImageRow &image;
    const char *file;    // has the version of the new image
    Int32 replyPosition; // of the current version in the device-type reply
    void (*printUpgrade)(UInt32 current, UInt32 newer);
    const char *upToDate;
};
constexpr VersionRow kCameraVersion = {
    .image = kCamera,
    .file = "farsightcamver",
    .replyPosition = 9,
    .printUpgrade =
        [](UInt32 current, UInt32 newer) {
            std::printf("Current FarSight Camera FW Version[%x] -- Newer FarSight Camera FW Version[%x] ... Upgrading "
                        "FarSight Camera FW ...\n",
                        current, newer);
        },
    .upToDate = "FarSight Camera Firmware is Already up to date ...",
};
constexpr VersionRow kSystemVersion = {
    .image = kSystem,
    .file = "farsightsysver",
    .replyPosition = 5,
    .printUpgrade =
        [](UInt32 current, UInt32 newer) {
            std::printf("Current FarSight System FW Version[%x] -- Newer FarSight System FW Version[%x] ... Upgrading "
                        "FarSight System FW ...\n",
                        current, newer);
        },
    .upToDate = "FarSight System Firmware is Already up to date ...",
};

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
    const int sent = Serial_Write(kCameraDevice.port, reinterpret_cast<const char *>(message), size, kMessageTimeout);
    if (sent == size)
        return kNoError;
    std::printf("ERROR: flash_farsight() -- driver cannot send all the entire message of [%d] bytes -- It sent [%d] "
                "bytes ...\n",
                size, sent);
    return kFuncReturnedError;
}

// Reads until the byte that begins the device-type reply is in reply[0]. The bytes before it are dropped. The call does
// not return while a camera sends other bytes.
eErrorT FindTypeReply(UInt8 *reply)
{
    for (;;) {
        if (ReadReply(kCameraDevice.port, reply, 1, kMessageTimeout) != 1)
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
    const Int32 count = ReadReply(kCameraDevice.port, reply + 1, kTypeReplySize - 1, kMessageTimeout);
    if (count != kTypeReplySize - 1)
        return PrintReplyFailure();
    std::printf("####### GOT THE CORRECT DEVICE TYPE RESPONSE BACK FROM FARSIGHT CAMERA -- byteRead[%d]....\n", count);
    PrintReply(reply, kTypeReplySize);
    return kNoError;
}

// A version of the reply. Deliberately a signed 16-bit value: a version from 8000 on equals no version of a file, so
// such a camera is always updated.
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
    *sysVersion = ReplyVersion(reply, kSystemVersion.replyPosition);
    *camVersion = ReplyVersion(reply, kCameraVersion.replyPosition);
    return kNoError;
}

// Any difference counts, whether the file is older or newer. An image that is up to date counts as done.
bool ImageNeeded(const VersionRow &row, Int32 currentVersion, Int32 newVersion)
{
    if (currentVersion != newVersion) {
        row.printUpgrade(static_cast<UInt32>(currentVersion), static_cast<UInt32>(newVersion));
        return true;
    }
    std::puts(row.upToDate);
    updateProgress(gProgressCtrl.*row.image.fileSize);
    return false;
}

// ---- Images

// Counts the blocks of one image by reading all of it. An image that does not open leaves the count as it is.
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
    *numBlocks = static_cast<Int32>((size + row.device.blockSize - 1) / row.device.blockSize);
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

// Announces which images will be sent, and how many blocks of each. Without a block nothing is announced.
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
    if (ReadReply(kCameraDevice.port, reply, sizeof reply, kMessageTimeout) != kFlashModeReplySize)
        return PrintReplyFailure();
    PrintReply(reply, sizeof reply);
    return kNoError;
}

// ---- Blocks

void PrintOpenFailure(int port, eErrorT err)
{
    std::printf("ERROR: flash_farsight() -- Failed open port: %d, err: %d\n", port, err);
}

void PrintEnableFailure(int port)
{
    std::printf("ERROR: flash_farsight() -- Failed to enable serial port[%d] ...\n", port);
}

void PrintSendFailure()
{
    std::printf("#### Failed sending the farsight data block -- camCurrBlock:%d sysCurrBlock:%d ...\n",
                gFarsightUpdateInfo.currentCamBlock, gFarsightUpdateInfo.currentSysBlock);
}

// Brings the needed images to the camera. They are closed on every way out.
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
    const Transfer images[] = {CameraTransfer(&gFarsightUpdateInfo), SystemTransfer(&gFarsightUpdateInfo)};
    result = SendImages(images, PrintSendFailure);
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
    if (OpenUpdatePort(kCameraDevice.port, PrintOpenFailure, PrintEnableFailure) != 0)
        return -1;
    const eErrorT err = HaldenSerialProgFarSight(CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_SYSTEM_FW);
    if (err != kNoError)
        std::printf("ERROR: flash_farsight() -- Failed flashing farsight images -- err:%x ...\n",
                    static_cast<UInt32>(err));
    const int released = ReleaseUpdatePort(kCameraDevice.port);
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
    eErrorT result = ReadVersionFile(kCameraVersion.file, &newCamVersion);
    if (result == kNoError)
        result = ReadVersionFile(kSystemVersion.file, &newSysVersion);
    if (result == kNoError)
        result = ReadCameraVersions(&camVersion, &sysVersion);
    if (result != kNoError)
        return result;
    // Both comparisons print and count progress, whatever is to be flashed.
    bool camNeeded = ImageNeeded(kCameraVersion, camVersion, newCamVersion);
    bool sysNeeded = ImageNeeded(kSystemVersion, sysVersion, newSysVersion);
    const bool both = flashType == CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_SYSTEM_FW;
    camNeeded &= both || flashType == CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_FW;
    sysNeeded &= both || flashType == CONTROLLER_FLASH_TYPE_FARSIGT_SYSTEM_FW;
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
    const Transfer images[] = {CameraTransfer(updateInfo), SystemTransfer(updateInfo)};
    TakeVerdict(images, AckNack);
    return kNoError;
}

eErrorT SendNextFarSightDataBlock(FarSightUpdateInfoS *updateInfo)
{
    os_assert(updateInfo != nullptr, "updateInfo");
    const Transfer images[] = {CameraTransfer(updateInfo), SystemTransfer(updateInfo)};
    return SendNextBlock(images);
}

eErrorT sendFarSightFlashDataBlock(const UInt8 *msgPtr, Int32 msgSize, CONTROLLER_FLASH_TYPE flashType)
{
    const eErrorT err = AnnounceBlock(kCameraDevice, msgPtr, msgSize);
    if (err != kNoError)
        return err;
    if (flashType == CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_FW || flashType == CONTROLLER_FLASH_TYPE_FARSIGT_SYSTEM_FW)
        return SendAnnouncedBlock(kImages[flashType], msgPtr, msgSize);
    std::printf("Error, sendFarSightFlashDataBlock() -- Wrong flashType:%d ...\n", flashType);
    return kBadParameter;
}
