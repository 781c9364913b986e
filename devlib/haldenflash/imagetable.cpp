#include "devlib/haldenflash/imagetable.h"

#include "devlib/haldenflash/haldenflash.h"

#include <cstdio>

namespace
{

void PrintShortMicroWrite(Int32 block, Int32 sent, Int32 size)
{
    std::printf("sendMicroFlashDataBlock() -- failure sending flash data block[%d] from Kora to Halden ...sentBytes = "
                "%d -- NewMsgSize = %d\n",
                block, sent, size);
}

void PrintShortRequest(Int32 /*block*/, Int32 sent, Int32 size)
{
    PrintShortStatusRequest(sent, size);
}

} // namespace

const ImageRow kImages[3] = {
    {
        .file = "haldenmicro.bin",
        .wanted = &gbDoMicro,
        .fileSize = &progressCtrlT::nMicroFileSize,
        .port = 1,
        .messageType = KORA_HALDEN_MESSAGE_TYPE_REFLASH_MICRO_BLOCK,
        .blockSize = 512,
        .fixedBlocks = 12,
        .verdictTime = 50000,
        .refused = AfterRefusal::kEmptyFrame,
        .silence = kNoError,
        .allSent = kEndOfFile,
        .working = WorkingLine::kEachVerdict,
        .listsVerdict = false,
        .name = "micro",
        .title = "Halden Micro Controller",
        .capitals = "HALDEN MICRO",
        .answers = "FROM HALDEN MICRO CONTROLLER",
        .readFrom = "Micro program ",
        .aborted = "Micro",
        .printShortWrite = PrintShortMicroWrite,
    },
    {
        .file = "farsightcam.bin",
        .wanted = &gbDoFarsight,
        .fileSize = &progressCtrlT::nCamFileSize,
        .port = 0,
        .messageType = KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_CAMERA,
        .blockSize = 64512,
        .fixedBlocks = 0,
        .verdictTime = 4000000,
        .refused = AfterRefusal::kEnd,
        .silence = kFuncReturnedError,
        .allSent = kNoError,
        .working = WorkingLine::kEachBlock,
        .listsVerdict = true,
        .name = "camera",
        .title = "FarSight Camera",
        .capitals = "CAMERA",
        .answers = "FARSIGHT",
        .readFrom = "",
        .aborted = "FarSight camera image",
        .printShortWrite = PrintShortRequest,
    },
    {
        .file = "farsightsys.bin",
        .wanted = &gbDoFarsight,
        .fileSize = &progressCtrlT::nSysFileSize,
        .port = 0,
        .messageType = KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_SYSTEM,
        .blockSize = 64512,
        .fixedBlocks = 0,
        .verdictTime = 4000000,
        .refused = AfterRefusal::kEnd,
        .silence = kFuncReturnedError,
        .allSent = kNoError,
        .working = WorkingLine::kEachBlock,
        .listsVerdict = true,
        .name = "system",
        .title = "FarSight System",
        .capitals = "SYSTEM",
        .answers = "FARSIGHT",
        .readFrom = "",
        .aborted = "FarSight system image",
        .printShortWrite = PrintShortRequest,
    },
};

void PrintShortStatusRequest(Int32 sent, Int32 size)
{
    std::printf("RequestHaldenSystemStatus() -- failure sending system status from Kora to Halden ...sentBytes = %d -- "
                "NewMsgSize = %d\n",
                sent, size);
}
