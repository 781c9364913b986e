// The serial port of an update, and what both procedures print about their replies.
#pragma once

#include "Common/types.h"

constexpr Int32 kDropPause = 500000;    // microseconds, after a byte that is not the reply's
constexpr Int32 kRestartTime = 3000000; // microseconds that a device takes to restart

// Opens a port with the settings that both devices use: 115200 bit/s, 8 data bits, even parity, one
// stop bit, no flow control. Results as Serial_Open.
eErrorT OpenUpdatePort(int port);

// Closes a port. Returns 0, or -1 with the failure printed.
int CloseUpdatePort(int port);

// Disables both directions and closes a port. Returns 0, or -1 with every failure printed; the port
// is closed in any case if it can be.
int ReleaseUpdatePort(int port);

// Reads from a port within a time limit in microseconds. Returns what Serial_Read does.
Int32 ReadReply(int port, UInt8 *buffer, Int32 size, Int32 microseconds);

// Prints the first count bytes of a reply, one line each.
void PrintReply(const UInt8 *buffer, Int32 count);
