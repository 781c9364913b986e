// The pauses of an update.
#pragma once

#include "Common/types.h"

constexpr Int32 kDropPause = 500000;    // microseconds, after a byte that is not the reply's
constexpr Int32 kRestartTime = 3000000; // microseconds that a device takes to restart

// Waits for a time in microseconds. A wait that a signal interrupts starts over. A negative time is a programming error
// and stops the program.
void Delay(Int32 delay_usecs);
