// Update of the Halden microcontroller on serial port 1 from "haldenmicro.bin".
// Everything runs on the caller's thread; the port is released on every way out.
// A null record, block or list of arguments is a programming error and stops the program.
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
// Returns 0 (done, not needed, or query only) or -1.
int flash_micro(int argc, char *const argv[]);

// 1 when the version byte of the image is there, is not 0, and differs from curMicroVer.
Boolean HaldenMicroUpdateNeeded(UInt8 curMicroVer);

// Asks for a status. Returns kNoError, the builder's error, or kFuncReturnedError (short write).
eErrorT RequestHaldenSystemStatus(HALDEN_SYSTEM_STATUS_TYPE statusType);

// Sends the image block by block. Returns kNoError or kEndOfFile when done, otherwise the failure.
// The image is closed when it returns.
eErrorT HaldenSerialProgMicro(CONTROLLER_FLASH_TYPE flashTarget);

// Moves to the next block or counts a retry, as the verdict says. Returns kNoError.
eErrorT SetupNextMicroDataBlock(HaldenMicroUpdateInfoS *updateInfo, UInt8 AckNack);

// Sends the current block. Returns kNoError (also when the retries are used up and nothing was sent), kEndOfFile after
// the last block, or kFuncReturnedError; the image is closed in both cases.
eErrorT SendNextMicroDataBlock(HaldenMicroUpdateInfoS *updateInfo);

// Sends one block: two bytes of number, high byte first, and the data. msgPtr holds two bytes or more even when msgSize
// is 0. Returns kNoError, the builder's error, or kFuncReturnedError.
eErrorT sendMicroFlashDataBlock(const UInt8 *msgPtr, Int32 msgSize);
