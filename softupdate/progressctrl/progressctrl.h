// Progress reports to the supervisor. The bytes done become a percentage. The percentage becomes a position in the
// caller's range. A position that has grown is written to the supervisor's pipe, as a decimal number.
// Owner:   the caller sets gProgressCtrl. The path is copied.
// Locking: the module has no lock. One thread reports.
// Errors:  a null path is a programming error and stops the program.
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

// Adds to the bytes done, and reports the new percentage. Does nothing while reporting is off or the total is 0.
void updateProgress(Int32 nBytesDone);

// Sets the pipe and the range, and starts over. A path is cut at 255 characters. Always returns 0.
int progressCtrlInit(const char *pszCommPipe, Int32 nRangeLowerLimit, Int32 nRangeUpperLimit);

// Writes the position of a percentage if it is greater than the last one; the first one is greater than 0. The pipe is
// opened for each number. The open waits for a reader.
// 0  written, or not greater. A write that fails counts as written.
// 1  the pipe could not be opened, which is printed. That position is not tried again.
int progressCtrlSetPos(Int32 nPos);
