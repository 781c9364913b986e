// The image and version files in the working directory. Every read is one system call where the
// system gives all that was asked for.
#pragma once

#include "Common/types.h"

constexpr int kNoImage = -1;

// Opens a file for reading. Returns its descriptor, which the caller owns, or kNoImage.
int OpenImage(const char *name);

// Reads up to size bytes from the current offset on; fewer only at the end of the file. Returns the
// count, or -1 on a read error.
Int32 ReadImage(int image, void *buffer, Int32 size);

// Closes an image. Returns 1 and sets *image to kNoImage when the close succeeded, else 0 with
// *image unchanged. kNoImage is left alone, with result 1.
Boolean CloseImage(int *image);
