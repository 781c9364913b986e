#include "devlib/haldenflash/image.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace
{

// Whether what has been read is all that there is. A file that ends before its size is one that could not
// be read: sent as it is, the device would end up with a part of an image that calls itself whole.
bool AtEnd(int image)
{
    struct stat status;
    return fstat(image, &status) != 0 || !S_ISREG(status.st_mode) || lseek(image, 0, SEEK_CUR) >= status.st_size;
}

} // namespace

int OpenImage(const char *name)
{
    const int fd = open(name, O_RDONLY);
    return fd < 0 ? kNoImage : fd;
}

Int32 ReadImage(int image, void *buffer, Int32 size)
{
    Int32 done = 0;
    while (done < size) {
        const ssize_t count = read(image, static_cast<char *>(buffer) + done, static_cast<size_t>(size - done));
        if (count > 0)
            done += static_cast<Int32>(count);
        else if (count == 0 && AtEnd(image))
            break;
        else if (count == 0 || errno != EINTR)
            return -1;
    }
    return done;
}

Int32 FillBlock(UInt8 *block, Int32 number, Int32 blockSize, int image, const char *name, const char *readError)
{
    std::memset(block, 0, size_t{kBlockHeaderSize} + static_cast<size_t>(blockSize));
    block[0] = static_cast<UInt8>(number >> 8);
    block[1] = static_cast<UInt8>(number);
    const Int32 count = ReadImage(image, block + kBlockHeaderSize, blockSize);
    std::printf("bytes read: %d ...\n", count);
    if (count < 0)
        std::printf(readError, blockSize, name, count);
    else if (count < blockSize)
        std::printf("\nLast block read_cnt: %d of file: %s \n", count, name);
    return count;
}

Boolean CloseImage(int *image)
{
    const int fd = std::exchange(*image, kNoImage);
    return fd == kNoImage || close(fd) == 0 ? 1 : 0;
}
