#include "devlib/haldenflash/microupdate.h"

#include "Common/OS/osassert.h"
#include "devlib/haldenflash/haldenflash.h"
#include "devlib/haldenflash/image.h"
#include "devlib/haldenflash/updateport.h"
#include "devlib/serialapi.h"
#include "softupdate/progressctrl/progressctrl.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

HaldenMicroUpdateInfoS gMicroUpdateInfo;

namespace
{

constexpr int kMicroPort = 1;
constexpr char kMicroImage[] = "haldenmicro.bin";
constexpr Int32 kReplyTimeout = 50000; // microseconds
constexpr Int32 kTotalBlocks = 12;     // whatever the size of the image
constexpr Int32 kBlockSize = 512;
constexpr Int32 kFreshBlock = 3; // BlockRetries of a block that was not refused yet
constexpr Int32 kMaxFrameSize = 2048;

constexpr UInt8 kReplyDelimiter = 0xFF;
constexpr UInt8 kReplyType = 0x14;
constexpr Int32 kReplySize = 15;
constexpr Int32 kReplyStartSize = 2; // delimiter and type
constexpr Int32 kReplyVersion = 4;   // position of the version

bool ReadByte(UInt8 *byte)
{
    return ReadReply(kMicroPort, byte, 1, kReplyTimeout) == 1;
}

// Reads up to the delimiter and the type of the version reply, which end up in reply[0] and
// reply[1], and drops what comes before; a device that chatters for ever keeps it here.
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
    const Int32 count = ReadReply(kMicroPort, reply + kReplyStartSize, kReplySize - kReplyStartSize, kReplyTimeout);
    if (count <= 0) {
        std::puts("######### Failed reading the rest of version response from Halden Micro Controller ...");
        return kFuncReturnedError;
    }
    std::printf("####### GOT RESPONSE BACK FROM HALDEN MICRO CONTROLLER -- byteRead[%d]....\n", count);
    PrintReply(reply, count);
    *version = reply[kReplyVersion];
    std::printf("####### CURRENT HALDEN MICRO CONTROLLER VERSION: 0x%.2x ....\n", *version);
    // Deliberately looks at the byte that is known to be the reply's type, so it never fires. At any
    // other position a version that happens to be 0F would be flashed over.
    if (reply[1] == kBlockNack) {
        std::puts("########### Micro Controller responded with a NACK instead of its version ...Attempt to reflash "
                  "...");
        *version = 0xFF;
    }
    return kNoError;
}

// Runs the exchange on the enabled port. Returns 0 or -1; *updated is set when blocks were sent.
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

// Sends a fresh block, or, after a refusal, an empty frame: a refused block's data is deliberately
// not sent again, and the device's next verdict is about the empty frame.
eErrorT SendBlock(HaldenMicroUpdateInfoS *updateInfo)
{
    static UInt8 block[kBlockHeaderSize + kBlockSize];
    Int32 count = 0;
    Int32 size = 0;
    if (updateInfo->BlockRetries == kFreshBlock) {
        count = FillBlock(block, updateInfo->currentBlock, kBlockSize, updateInfo->micro_file, kMicroImage,
                          "\nReading %d bytes from Micro program file: %s failed, err: %d, ABORT Micro "
                          "programming....\n");
        size = kBlockHeaderSize + count;
    }
    eErrorT result = kFuncReturnedError;
    if (count >= 0) {
        std::printf("Flashing Halden Micro Controller Image block[%d] Iteration[%d] ...\n", updateInfo->currentBlock,
                    kFreshBlock + 1 - updateInfo->BlockRetries);
        if (sendMicroFlashDataBlock(block, size) == kNoError)
            result = kNoError;
    }
    if (result == kNoError)
        updateProgress(count);
    else
        CloseImage(&updateInfo->micro_file);
    return result;
}

// Reads the device's verdict on a block. Without one the image is closed, which ends the update,
// deliberately as a success: a failure would change the exit status that supervisors know.
UInt8 ReadVerdict(HaldenMicroUpdateInfoS *updateInfo)
{
    UInt8 verdict[2] = {};
    const Int32 count = ReadReply(kMicroPort, verdict, sizeof verdict, kReplyTimeout);
    if (count != static_cast<Int32>(sizeof verdict) && CloseImage(&updateInfo->micro_file) != 0)
        updateInfo->currentBlock = 0;
    std::printf("####### GOT A [%s] FROM HALDEN MICRO CONTROLLER -- byteRead[%d]....\n",
                verdict[1] == kBlockAck ? "ACK" : "NACK", count);
    return verdict[1];
}

} // namespace

int flash_micro(int argc, char *const argv[])
{
    os_assert(argv != nullptr || argc == 0, "argv");
    std::printf("########### Flashing Halden Micro Controller ...");
    PrintArguments(argc, argv);
    const eErrorT err = OpenUpdatePort(kMicroPort);
    if (err != kNoError) {
        std::printf("ERROR: flash_micro() -- Failed open port: %d, err: %d\n", kMicroPort, err);
        return -1;
    }
    if (Serial_Enable(kMicroPort, SERIAL_DIRECTION_BOTH) != kNoError) {
        std::printf("ERROR: flash_micro() -- Failed to enable serial port[%d] ...\n", kMicroPort);
        CloseUpdatePort(kMicroPort);
        return -1;
    }
    bool updated = false;
    int result = UpdateMicro(&updated);
    if (ReleaseUpdatePort(kMicroPort) != 0)
        result = -1;
    if (updated)
        Delay(kRestartTime);
    return result;
}

Boolean HaldenMicroUpdateNeeded(UInt8 curMicroVer)
{
    FILE *image = OpenImage(kMicroImage);
    if (image == nullptr) {
        std::printf("\nCould not open Halden Microcontroller BIN file: %s, Exit HaldenMicroUpdateNeeded()...\n",
                    kMicroImage);
        return 0;
    }
    UInt8 version = 0;
    const Int32 count = std::max(ReadImage(image, &version, 1), 0);
    CloseImage(&image);
    if (count != 1 || version == 0) {
        std::printf("\nFailed reading the version of Halden Microcontroller BIN file: %s, numRead = %d, data_ver = "
                    "0x%x -- Exit HaldenMicroUpdateNeeded()...\n",
                    kMicroImage, count, version);
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
    static UInt8 frame[kMaxFrameSize];
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
    const int sent = genericWriteRs232Port(kMicroPort, frame, frameSize);
    if (sent != frameSize) {
        std::printf("RequestHaldenSystemStatus() -- failure sending system status from Kora to Halden ...sentBytes = "
                    "%d -- NewMsgSize = %d\n",
                    sent, frameSize);
        return kFuncReturnedError;
    }
    return kNoError;
}

eErrorT HaldenSerialProgMicro(CONTROLLER_FLASH_TYPE)
{
    FILE *image = OpenImage(kMicroImage);
    if (image == nullptr) {
        std::printf("\nCould not open Halden Microcontroller BIN file: %s, Exit programming...\n", kMicroImage);
        return kFileOpenError;
    }
    gMicroUpdateInfo = {image, -1, kTotalBlocks, kFreshBlock};
    UInt8 verdict = kBlockAck;
    eErrorT result = kNoError;
    do {
        SetupNextMicroDataBlock(&gMicroUpdateInfo, verdict);
        result = SendNextMicroDataBlock(&gMicroUpdateInfo);
        if (result != kNoError)
            break;
        verdict = ReadVerdict(&gMicroUpdateInfo);
    } while (gMicroUpdateInfo.micro_file != nullptr);
    if (result != kNoError && result != kEndOfFile)
        std::printf("#### Failed sending the halden micro controller data block: %d ...\n",
                    gMicroUpdateInfo.currentBlock);
    // Printed after a failure too; the result tells.
    std::puts("####### SUCCESSFULLY UPDATED HALDEN MICRO CONTROLLER ....");
    return result;
}

eErrorT SetupNextMicroDataBlock(HaldenMicroUpdateInfoS *updateInfo, UInt8 AckNack)
{
    os_assert(updateInfo != nullptr, "updateInfo");
    if (updateInfo->micro_file == nullptr)
        return kNoError;
    std::printf("Still working on micro file [%s] ...\n", kMicroImage);
    if (AckNack == kBlockAck) {
        updateInfo->BlockRetries = kFreshBlock;
        updateInfo->currentBlock++;
    } else if (AckNack == kBlockNack) {
        updateInfo->BlockRetries--;
    } else { // the camera's name is part of the text
        std::printf("UNKNOWN RESPONSE FROM FARSIGHT DURING HALDEN MICRO IMAGE FLASHING: AckNack:0x%.2x ...\n", AckNack);
    }
    return kNoError;
}

eErrorT SendNextMicroDataBlock(HaldenMicroUpdateInfoS *updateInfo)
{
    os_assert(updateInfo != nullptr, "updateInfo");
    if (updateInfo->micro_file != nullptr && updateInfo->currentBlock < updateInfo->totalBlock &&
        updateInfo->BlockRetries != 0)
        return SendBlock(updateInfo);
    if (updateInfo->currentBlock == updateInfo->totalBlock && updateInfo->currentBlock >= 1) {
        if (CloseImage(&updateInfo->micro_file) == 0)
            std::printf("########## Can't close the file: %s ...\n", kMicroImage);
        updateInfo->currentBlock = 0;
        return kEndOfFile;
    }
    // The retries are used up. Deliberately no failure: nothing is sent, so the verdict stays out, and
    // that ends the update.
    return kNoError;
}

eErrorT sendMicroFlashDataBlock(const UInt8 *msgPtr, Int32 msgSize)
{
    static UInt8 frame[kMaxFrameSize];
    os_assert(msgPtr != nullptr, "msgPtr");
    const Int32 blockNumber = msgPtr[0] << 8 | msgPtr[1];
    Int32 frameSize = 0;
    std::printf("sending dataBlockNumber: %d -- msgSize:%d ...\n", blockNumber, msgSize);
    const eErrorT err =
        buildKoraToHaldenMsg(KORA_HALDEN_MESSAGE_TYPE_REFLASH_MICRO_BLOCK, msgSize, msgPtr, &frameSize, frame);
    if (err != kNoError || frameSize == 0) {
        std::printf("sendMicroFlashDataBlock [%d] request() -- failure building flash data block[%d] message ...rc = "
                    "0x%x -- NewMsgSize = %d\n",
                    KORA_HALDEN_MESSAGE_TYPE_REFLASH_MICRO_BLOCK, blockNumber, static_cast<UInt32>(err), frameSize);
        return err;
    }
    const int sent = genericWriteRs232Port(kMicroPort, frame, frameSize);
    if (sent != frameSize) {
        std::printf("sendMicroFlashDataBlock() -- failure sending flash data block[%d] from Kora to Halden "
                    "...sentBytes = %d -- NewMsgSize = %d\n",
                    blockNumber, sent, frameSize);
        return kFuncReturnedError;
    }
    return kNoError;
}
