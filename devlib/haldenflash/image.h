// The image and version files in the working directory. Every read is one system call where the
// system gives all that was asked for.
#pragma once

#include "Common/types.h"

constexpr int kNoImage = -1;

// Opens a file for reading. Returns its descriptor, which the caller owns, or kNoImage.
int OpenImage(const char *name);

// Reads up to size bytes from the current offset on; fewer only at the end of the file. Returns the
// count, or -1 on a read error; a file that ends before its size is one.
Int32 ReadImage(int image, void *buffer, Int32 size);

constexpr Int32 kBlockHeaderSize = 2; // the block number, high byte first

// Fills a block with its number and the next blockSize bytes of an image, zeros behind its end, and
// prints what was read. Returns the count of image bytes, or -1 on a read error, which is printed
// with readError (conversions: bytes asked for, name, -1).
Int32 FillBlock(UInt8 *block, Int32 number, Int32 blockSize, int image, const char *name, const char *readError);

// Closes an image and sets *image to kNoImage. Returns 1, or 0 when the close failed: the descriptor is gone
// all the same, and a procedure that went on with it would never end. kNoImage is left alone, with result 1.
Boolean CloseImage(int *image);
