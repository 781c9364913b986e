#include "devlib/haldenflash/imagetable.h"

#include "devlib/haldenflash/haldenflash.h"

#include <cstdio>

namespace
{

const char *VerdictWord(const UInt8 *reply)
{
    return reply[kVerdict] == kBlockAck ? "ACK" : "NACK";
}

} // namespace

const DeviceRow kMicroDevice = {
    .wanted = &gbDoMicro,
    .port = 1,
    .blockSize = 512,
    .fixedBlocks = 12,
    .verdictTime = 50000,
    .refused = AfterRefusal::kEmptyFrame,
    .silence = kNoError,
    .allSent = kEndOfFile,
    .working = WorkingLine::kEachVerdict,
    .printVerdict =
        [](const UInt8 *reply, Int32 count) {
            std::printf("####### GOT A [%s] FROM HALDEN MICRO CONTROLLER -- byteRead[%d]....\n", VerdictWord(reply),
                        count);
        },
    .printShortWrite =
        [](Int32 block, Int32 sent, Int32 size) {
            std::printf("sendMicroFlashDataBlock() -- failure sending flash data block[%d] from Kora to Halden "
                        "...sentBytes = %d -- NewMsgSize = %d\n",
                        block, sent, size);
        },
};

const DeviceRow kCameraDevice = {
    .wanted = &gbDoFarsight,
    .port = 0,
    .blockSize = 64512,
    .fixedBlocks = 0,
    .verdictTime = 4000000,
    .refused = AfterRefusal::kEnd,
    .silence = kFuncReturnedError,
    .allSent = kNoError,
    .working = WorkingLine::kEachBlock,
    .printVerdict =
        [](const UInt8 *reply, Int32 count) {
            std::printf("####### GOT A [%s] FARSIGHT -- byteRead[%d]....\n", VerdictWord(reply), count);
            for (Int32 i = 0; i < count; i++)
                std::printf("~~~~~~ ackNackBuff[%d] = 0x%x ...\n", i, reply[i]);
        },
    .printShortWrite = [](Int32 /*block*/, Int32 sent, Int32 size) { PrintShortStatusRequest(sent, size); },
};

const ImageRow kImages[3] = {
    {
        .device = kMicroDevice,
        .file = "haldenmicro.bin",
        .fileSize = &progressCtrlT::nMicroFileSize,
        .messageType = KORA_HALDEN_MESSAGE_TYPE_REFLASH_MICRO_BLOCK,
        .printBlock =
            [](Int32 block, Int32 iteration) {
                std::printf("Flashing Halden Micro Controller Image block[%d] Iteration[%d] ...\n", block, iteration);
            },
        .printWorking = [](const char *file,
                           Int32 /*nextBlock*/) { std::printf("Still working on micro file [%s] ...\n", file); },
        .printUnknownVerdict =
            [](UInt8 verdict) {
                std::printf("UNKNOWN RESPONSE FROM FARSIGHT DURING HALDEN MICRO IMAGE FLASHING: AckNack:0x%.2x ...\n",
                            verdict);
            },
        .printReadError =
            [](const ImageRow &row, Int32 err) {
                std::printf("\nReading %d bytes from Micro program file: %s failed, err: %d, ABORT Micro "
                            "programming....\n",
                            row.device.blockSize, row.file, err);
            },
    },
    {
        .device = kCameraDevice,
        .file = "farsightcam.bin",
        .fileSize = &progressCtrlT::nCamFileSize,
        .messageType = KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_CAMERA,
        .printBlock =
            [](Int32 block, Int32 iteration) {
                std::printf("Flashing FarSight Camera Image block[%d] Iteration[%d] ...\n", block, iteration);
            },
        .printWorking =
            [](const char *file, Int32 nextBlock) {
                std::printf("Still working on camera file [%s] block [%d] ...\n", file, nextBlock);
            },
        .printUnknownVerdict =
            [](UInt8 verdict) {
                std::printf("UNKNOWN RESPONSE FROM FARSIGHT DURING CAMERA IMAGE FLASHING: AckNack:0x%.2x ...\n",
                            verdict);
            },
        .printReadError =
            [](const ImageRow &row, Int32 err) {
                std::printf("\nReading %d bytes from file: %s failed, err: %d, ABORT FarSight camera image "
                            "programming....\n",
                            row.device.blockSize, row.file, err);
            },
    },
    {
        .device = kCameraDevice,
        .file = "farsightsys.bin",
        .fileSize = &progressCtrlT::nSysFileSize,
        .messageType = KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_SYSTEM,
        .printBlock =
            [](Int32 block, Int32 iteration) {
                std::printf("Flashing FarSight System Image block[%d] Iteration[%d] ...\n", block, iteration);
            },
        .printWorking =
            [](const char *file, Int32 nextBlock) {
                std::printf("Still working on system file [%s] block [%d] ...\n", file, nextBlock);
            },
        .printUnknownVerdict =
            [](UInt8 verdict) {
                std::printf("UNKNOWN RESPONSE FROM FARSIGHT DURING SYSTEM IMAGE FLASHING: AckNack:0x%.2x ...\n",
                            verdict);
            },
        .printReadError =
            [](const ImageRow &row, Int32 err) {
                std::printf("\nReading %d bytes from file: %s failed, err: %d, ABORT FarSight system image "
                            "programming....\n",
                            row.device.blockSize, row.file, err);
            },
    },
};

void PrintShortStatusRequest(Int32 sent, Int32 size)
{
    std::printf("RequestHaldenSystemStatus() -- failure sending system status from Kora to Halden ...sentBytes = %d -- "
                "NewMsgSize = %d\n",
                sent, size);
}
