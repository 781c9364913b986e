// The image and version files in the working directory. They are close-on-exec. A stream is only the handle here:
// reads go past its buffer. A read is one system call if the system gives all that was asked for.
// Owner:   the caller owns each file that it opened. A null handle is no file, so a zeroed update record has no file
//          open.
// Locking: the files have no lock. One thread uses a file at a time.
// Errors:  a null argument anywhere else is a programming error and stops the program.
#pragma once

#include "Common/types.h"

#include <cstdio>

// Opens a file for reading. Returns null when it cannot be opened.
FILE *OpenImage(const char *name);

// Reads size bytes from the current offset on, and fewer only at the end of the file. The size that the file claims to
// have does not matter. A read that a signal interrupts goes on. Returns the count, or -1 on a read error.
Int32 ReadBytes(FILE *file, void *buffer, Int32 size);

// The same for an image. It is a read error, too, if a regular file ends before the size that it claims.
Int32 ReadImage(FILE *image, void *buffer, Int32 size);

// Closes a file. *image is null afterwards, whatever the result: the descriptor is gone even if the close fails.
// 1  closed. Or the handle was null already.
// 0  the close failed.
Boolean CloseImage(FILE **image);
