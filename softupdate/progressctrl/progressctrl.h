// Progress reporting: bytes done become a percentage, the percentage a position in the caller's range, and a position
// that grew is written as a decimal number to the supervisor's pipe.
// Locking: none; one thread reports.
// A null path is a programming error and stops the program.
#pragma once

#include "Common/types.h"

struct progressCtrlT {
    Boolean bDoUpdate;  // progress reporting is on
    Int32 nPercentDone; // last percentage computed
    Int32 nTotBytesToDo;
    Int32 nTotBytesDone;
    Int32 nRangeLowerLimit;
    Int32 nRangeUpperLimit;
    Int32 nMicroFileSize; // "haldenmicro.bin", bytes
    Int32 nSysFileSize;   // "farsightsys.bin"
    Int32 nCamFileSize;   // "farsightcam.bin"
    const char *pszCommPipe;
};

extern progressCtrlT gProgressCtrl;

// Counts bytes as done and reports the percentage reached. Does nothing while reporting is off or the total is 0.
void updateProgress(Int32 nBytesDone);

// Sets the pipe (cut at 255 characters) and the range, and starts over. Returns 0.
int progressCtrlInit(const char *pszCommPipe, Int32 nRangeLowerLimit, Int32 nRangeUpperLimit);

// Writes the position of a percentage unless it has not grown; the first position is above 0. The pipe is opened for
// each number, and the open waits for a reader. Returns 0, or 1 when the pipe could not be opened (printed; that
// position is not tried again).
int progressCtrlSetPos(Int32 nPos);
