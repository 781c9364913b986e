// Update of the Halden microcontroller on serial port 1 from "haldenmicro.bin".
// Owner:   the port and the image are released on every way out.
// Locking: the update has no lock. It runs on the caller's thread, one at a time.
// Errors:  a null record, block or list of arguments is a programming error and stops the program.
#pragma once

#include "Common/types.h"
#include "devlib/haldenflash/imagetable.h"

#include <cstdio>

struct HaldenMicroUpdateInfoS {
    FILE *micro_file; // the open image; null ends the send loop
    Int32 currentBlock;
    Int32 totalBlock;   // always 12
    Int32 BlockRetries; // 3 for a fresh block, one less after each refusal
};

extern HaldenMicroUpdateInfoS gMicroUpdateInfo;

// Brings the microcontroller to the image if their versions differ. argc and argv are printed.
// 0   the update is done or was not needed, or only a query was asked for.
// -1  the update failed. The microcontroller may hold a part of the image.
int flash_micro(int argc, char *const argv[]);

// Compares the first byte of the image, which is its version, with curMicroVer.
// 1  they differ.
// 0  they are the same. Or there is no image, it is empty, or its version is 0, which is printed.
Boolean HaldenMicroUpdateNeeded(UInt8 curMicroVer);

// Asks for a status on the open port.
// kNoError            the request was sent.
// kFuncReturnedError  the write was short or failed, which is printed.
eErrorT RequestHaldenSystemStatus(HALDEN_SYSTEM_STATUS_TYPE statusType);

// Sends the image block by block. flashTarget is ignored. The image is closed when the call returns.
// kEndOfFile          all blocks were sent.
// kNoError            a verdict did not come, or a block was refused three times. Supervisors know both as a success.
// kFileOpenError      the image did not open. Nothing was sent.
// kFuncReturnedError  a block was not read or not sent. The microcontroller may hold a part of the image.
eErrorT HaldenSerialProgMicro(CONTROLLER_FLASH_TYPE flashTarget);

// Moves to the next block or counts a retry, as the verdict says. Always returns kNoError.
eErrorT SetupNextMicroDataBlock(HaldenMicroUpdateInfoS *updateInfo, UInt8 AckNack);

// Sends the current block.
// kNoError            sent. Or there is nothing to send: the retries are used up, or no image is open.
// kEndOfFile          the last block is done. The image is closed.
// kFuncReturnedError  the block was not read or not sent. The image is closed.
eErrorT SendNextMicroDataBlock(HaldenMicroUpdateInfoS *updateInfo);

// Sends one block: two bytes of number, high byte first, and the data. A msgSize of 0 sends an empty frame. msgPtr has
// the number even then.
// kNoError            sent.
// kFuncReturnedError  the write was short or failed. The microcontroller may have got a part of the frame.
eErrorT sendMicroFlashDataBlock(const UInt8 *msgPtr, Int32 msgSize);
