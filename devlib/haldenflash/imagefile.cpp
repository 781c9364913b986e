#include "devlib/haldenflash/imagefile.h"

#include "Common/OS/osassert.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace
{

// Whether the whole file has been read. A file that ends before its size counts as unreadable: otherwise the device
// would get a part of an image that calls itself whole.
bool AtEnd(FILE *image)
{
    const int fd = fileno(image);
    struct stat status;
    return fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || lseek(fd, 0, SEEK_CUR) >= status.st_size;
}

} // namespace

FILE *OpenImage(const char *name)
{
    os_assert(name != nullptr, "name");
    return std::fopen(name, "re");
}

// Reads from the descriptor. A stream would read in pieces of its buffer, and would keep an interruption as an error.
Int32 ReadBytes(FILE *file, void *buffer, Int32 size)
{
    os_assert(file != nullptr, "file");
    os_assert(buffer != nullptr, "buffer");
    Int32 done = 0;
    while (done < size) {
        const ssize_t count = read(fileno(file), static_cast<char *>(buffer) + done, static_cast<size_t>(size - done));
        if (count == 0)
            break;
        if (count > 0)
            done += static_cast<Int32>(count);
        else if (errno != EINTR)
            return -1;
    }
    return done;
}

Int32 ReadImage(FILE *image, void *buffer, Int32 size)
{
    const Int32 count = ReadBytes(image, buffer, size);
    return count < 0 || count == size || AtEnd(image) ? count : -1;
}

// The handle is cleared even if the close fails: the descriptor is gone, and an update that went on would never end.
Boolean CloseImage(FILE **image)
{
    os_assert(image != nullptr, "image");
    FILE *file = std::exchange(*image, nullptr);
    return file == nullptr || std::fclose(file) == 0 ? 1 : 0;
}
