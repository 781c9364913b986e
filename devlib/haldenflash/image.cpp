#include "devlib/haldenflash/image.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

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
        else if (count == 0)
            break;
        else if (errno != EINTR)
            return -1;
    }
    return done;
}

Boolean CloseImage(int *image)
{
    if (*image != kNoImage && close(*image) != 0)
        return 0;
    *image = kNoImage;
    return 1;
}
