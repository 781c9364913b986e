// The image and version files in the working directory. They are close-on-exec. A stream is only the handle here:
// reads go past its buffer. A read is one system call if the system gives all that was asked for.
// Owner: the caller owns each file that it opened. A null handle is no file, so a zeroed update record has none open.
// A null argument anywhere else is a programming error and stops the program.
#pragma once

#include "Common/types.h"

#include <cstdio>

// Opens a file for reading. Returns null when it cannot be opened.
FILE *OpenImage(const char *name);

// Reads up to size bytes from the current offset on; fewer only at the end of the file, whatever size the file claims
// to have. A read that a signal interrupts goes on. Returns the count, or -1 on a read error.
Int32 ReadBytes(FILE *file, void *buffer, Int32 size);

// The same of an image. A regular file that ends before the size it claims is a read error, too.
Int32 ReadImage(FILE *image, void *buffer, Int32 size);

// Closes a file and sets *image to null. Returns 1, or 0 when the close failed: the file is gone all the same, and a
// procedure that went on with it would never end. A null handle is left alone, with result 1.
Boolean CloseImage(FILE **image);
