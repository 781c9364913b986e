#include "devlib/haldenflash/microupdate.h"

#include "Common/OS/osassert.h"
#include "devlib/haldenflash/delay.h"
#include "devlib/haldenflash/haldenflash.h"
#include "devlib/haldenflash/imagefile.h"
#include "devlib/haldenflash/transfer.h"
#include "devlib/haldenflash/updateport.h"
#include "softupdate/progressctrl/progressctrl.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

HaldenMicroUpdateInfoS gMicroUpdateInfo;

namespace
{

constexpr const ImageRow &kMicro = kImages[CONTROLLER_FLASH_TYPE_HALDENMICRO];
constexpr Int32 kReplyTimeout = 50000; // microseconds

constexpr UInt8 kReplyDelimiter = 0xFF;
constexpr UInt8 kReplyType = 0x14;
constexpr Int32 kReplySize = 15;
constexpr Int32 kReplyStartSize = 2; // delimiter and type
constexpr Int32 kReplyVersion = 4;   // position of the version

bool ReadByte(UInt8 *byte)
{
    return ReadReply(kMicroDevice.port, byte, 1, kReplyTimeout) == 1;
}

// Reads until the delimiter and the type of the version reply are in reply[0] and reply[1]. The bytes before them are
// dropped. The call does not return while a device sends other bytes.
eErrorT FindVersionReply(UInt8 *reply)
{
    for (;;) {
        std::memset(reply, 0, kReplySize);
        if (!ReadByte(&reply[0])) {
            std::puts("######### Failed reading while searching for DELIMITER character in response message from "
                      "Halden Micro Controller ...");
            return kFuncReturnedError;
        }
        if (reply[0] != kReplyDelimiter) {
            std::printf("##### Drop first byte:%x ...\n", reply[0]);
            Delay(kDropPause);
            continue;
        }
        if (!ReadByte(&reply[1])) {
            std::puts("######### Failed reading while searching for message 0x14 in response message from Halden "
                      "Micro Controller ...");
            return kFuncReturnedError;
        }
        if (reply[1] == kReplyType)
            return kNoError;
        // The dropped byte is not taken for a new delimiter itself.
        std::printf("##### Drop 2nd byte:%x ...and start all over again for searching the new delimiter "
                    "character...\n",
                    reply[1]);
        Delay(kDropPause);
    }
}

// Asks for the version. A reply that breaks off leaves the version 0.
eErrorT ReadMicroVersion(UInt8 *version)
{
    const eErrorT err = RequestHaldenSystemStatus(HALDEN_SYSTEM_STATUS_TYPE_SYSTEM_VERSION);
    if (err != kNoError) {
        std::printf("#### Failed query Halden Micro Controller version: err:%d ...\n", err);
        return kFuncReturnedError;
    }
    UInt8 reply[kReplySize];
    if (FindVersionReply(reply) != kNoError)
        return kFuncReturnedError;
    const Int32 count =
        ReadReply(kMicroDevice.port, reply + kReplyStartSize, kReplySize - kReplyStartSize, kReplyTimeout);
    if (count <= 0) {
        std::puts("######### Failed reading the rest of version response from Halden Micro Controller ...");
        return kFuncReturnedError;
    }
    std::printf("####### GOT RESPONSE BACK FROM HALDEN MICRO CONTROLLER -- byteRead[%d]....\n", count);
    PrintReply(reply, count);
    *version = reply[kReplyVersion];
    std::printf("####### CURRENT HALDEN MICRO CONTROLLER VERSION: 0x%.2x ....\n", *version);
    // Deliberate: this byte is known to be the reply's type, so the condition is never true. At another position a
    // version 0F would be taken for a refusal, and flashed over.
    if (reply[1] == kBlockNack) {
        std::puts("########### Micro Controller responded with a NACK instead of its version ...Attempt to reflash "
                  "...");
        *version = 0xFF;
    }
    return kNoError;
}

// Runs the exchange on the enabled port. Returns 0 or -1. *updated is set when blocks were sent.
int UpdateMicro(bool *updated)
{
    UInt8 version = 0;
    if (ReadMicroVersion(&version) != kNoError)
        return -1;
    gbUpdateRequired = HaldenMicroUpdateNeeded(version);
    if (gbUpdateRequired == 0) {
        updateProgress(gProgressCtrl.nMicroFileSize);
        return 0;
    }
    if (gbQueryOnly != 0)
        return 0;
    std::puts("ATTEMPTING TO SEND THE FIRST DATA BLOCK OF MICRO CONTROLLER ...");
    const eErrorT err = HaldenSerialProgMicro(CONTROLLER_FLASH_TYPE_HALDENMICRO);
    *updated = err == kNoError || err == kEndOfFile;
    return *updated ? 0 : -1;
}

Transfer MicroTransfer(HaldenMicroUpdateInfoS *info)
{
    return {kMicro, &info->micro_file, &info->currentBlock, info->totalBlock, &info->BlockRetries};
}

void PrintOpenFailure(int port, eErrorT err)
{
    std::printf("ERROR: flash_micro() -- Failed open port: %d, err: %d\n", port, err);
}

void PrintEnableFailure(int port)
{
    std::printf("ERROR: flash_micro() -- Failed to enable serial port[%d] ...\n", port);
}

void PrintSendFailure()
{
    std::printf("#### Failed sending the halden micro controller data block: %d ...\n", gMicroUpdateInfo.currentBlock);
}

} // namespace

int flash_micro(int argc, char *const argv[])
{
    os_assert(argv != nullptr || argc == 0, "argv");
    std::printf("########### Flashing Halden Micro Controller ...");
    PrintArguments(argc, argv);
    if (OpenUpdatePort(kMicroDevice.port, PrintOpenFailure, PrintEnableFailure) != 0)
        return -1;
    bool updated = false;
    int result = UpdateMicro(&updated);
    if (ReleaseUpdatePort(kMicroDevice.port) != 0)
        result = -1;
    if (updated)
        Delay(kRestartTime);
    return result;
}

Boolean HaldenMicroUpdateNeeded(UInt8 curMicroVer)
{
    FILE *image = OpenImage(kMicro.file);
    if (image == nullptr) {
        std::printf("\nCould not open Halden Microcontroller BIN file: %s, Exit HaldenMicroUpdateNeeded()...\n",
                    kMicro.file);
        return 0;
    }
    UInt8 version = 0;
    const Int32 count = std::max(ReadImage(image, &version, 1), 0);
    CloseImage(&image);
    if (count != 1 || version == 0) {
        std::printf("\nFailed reading the version of Halden Microcontroller BIN file: %s, numRead = %d, data_ver = "
                    "0x%x -- Exit HaldenMicroUpdateNeeded()...\n",
                    kMicro.file, count, version);
        return 0;
    }
    std::printf("#### READ MICRO VERSION IN THE IMAGE: 0x%x ...\n", version);
    std::printf("updatedMicroVersion: 0x%.2x -- currentMicroVersion: 0x%.2x ...\n", version, curMicroVer);
    if (version == curMicroVer)
        return 0;
    std::puts("Halden Micro controller update is NEEDED.");
    return 1;
}

eErrorT RequestHaldenSystemStatus(HALDEN_SYSTEM_STATUS_TYPE statusType)
{
    UInt8 frame[32] = {};
    const UInt8 data = statusType;
    Int32 frameSize = 0;
    const eErrorT err =
        buildKoraToHaldenMsg(KORA_HALDEN_MESSAGE_TYPE_REQUEST_SYSTEM_STATUS, sizeof data, &data, &frameSize, frame);
    if (err != kNoError) {
        std::printf("RequestHaldenSystemStatus [%d] request() -- failure building system status message ...rc = 0x%x "
                    "-- NewMsgSize = %d\n",
                    statusType, static_cast<UInt32>(err), frameSize);
        return err;
    }
    const int sent = genericWriteRs232Port(kMicroDevice.port, frame, frameSize);
    if (sent == frameSize)
        return kNoError;
    PrintShortStatusRequest(sent, frameSize);
    return kFuncReturnedError;
}

eErrorT HaldenSerialProgMicro(CONTROLLER_FLASH_TYPE)
{
    FILE *image = OpenImage(kMicro.file);
    if (image == nullptr) {
        std::printf("\nCould not open Halden Microcontroller BIN file: %s, Exit programming...\n", kMicro.file);
        return kFileOpenError;
    }
    gMicroUpdateInfo = {image, -1, kMicroDevice.fixedBlocks, kFreshBlock};
    const Transfer micro[] = {MicroTransfer(&gMicroUpdateInfo)};
    const eErrorT result = SendImages(micro, PrintSendFailure);
    // Deliberately printed after a failure too; the result tells.
    std::puts("####### SUCCESSFULLY UPDATED HALDEN MICRO CONTROLLER ....");
    return result;
}

eErrorT SetupNextMicroDataBlock(HaldenMicroUpdateInfoS *updateInfo, UInt8 AckNack)
{
    os_assert(updateInfo != nullptr, "updateInfo");
    const Transfer micro[] = {MicroTransfer(updateInfo)};
    TakeVerdict(micro, AckNack);
    return kNoError;
}

eErrorT SendNextMicroDataBlock(HaldenMicroUpdateInfoS *updateInfo)
{
    os_assert(updateInfo != nullptr, "updateInfo");
    const Transfer micro[] = {MicroTransfer(updateInfo)};
    return SendNextBlock(micro);
}

eErrorT sendMicroFlashDataBlock(const UInt8 *msgPtr, Int32 msgSize)
{
    const eErrorT err = AnnounceBlock(kMicroDevice, msgPtr, msgSize);
    return err == kNoError ? SendAnnouncedBlock(kMicro, msgPtr, msgSize) : err;
}
