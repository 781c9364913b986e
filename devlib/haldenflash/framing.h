// The frame around a message: FF, type, length, data, 24-bit checksum. Behind the FF every byte is stuffed, so that an
// FF on the line always starts a frame.
// Nothing here knows a port, and nothing is printed.
#pragma once

#include "Common/types.h"

// Stuffs the byte that was just written at startOfMessage[*index], and moves *index behind it. FF becomes FE 01, and FE
// becomes FE 00. Only for those two is the next byte written. A null argument is a programming error and stops the
// program.
void encryptOneByte(UInt8 *startOfMessage, Int32 *index);

// Builds the frame of a message of `size` data bytes (at most 65532) at `frame`, which has room for 2 * (size + 6) + 1
// bytes. Nothing behind the frame is written. Only data of size 0 may be null. Returns the frame's size.
Int32 BuildFrame(UInt8 type, const UInt8 *data, Int32 size, UInt8 *frame);
