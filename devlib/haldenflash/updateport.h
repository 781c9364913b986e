// The serial port of an update: opened, enabled, read, written and given back. Failures are printed.
#pragma once

#include "Common/types.h"

// Opens a port with the settings that both devices use, and enables both directions: 115200 bit/s, 8 data bits, even
// parity, one stop bit, no flow control. The caller's functions print what failed.
// 0   open and enabled.
// -1  it could not be opened or enabled. It is closed.
int OpenUpdatePort(int port, void (*printOpenFailure)(int port, eErrorT err), void (*printEnableFailure)(int port));

// Disables both directions and closes a port.
// 0   disabled and closed. A port that nobody enabled counts as disabled.
// -1  one of the two failed. The port is closed if that is possible.
int ReleaseUpdatePort(int port);

// Writes to a serial port, without a time-out and without a second try. Returns the result of Serial_Write. A result
// other than buflen is printed.
int genericWriteRs232Port(int portNum, const UInt8 *buf, int buflen);

// Reads from a port within a time limit in microseconds. Returns the result of Serial_Read.
Int32 ReadReply(int port, UInt8 *buffer, Int32 size, Int32 microseconds);

// Prints the first count bytes of a reply, one line each.
void PrintReply(const UInt8 *buffer, Int32 count);
