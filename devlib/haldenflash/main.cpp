// haldenflash: brings the Halden microcontroller and the FarSight camera to the images in the working directory.

#include "devlib/haldenflash/haldenflash.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace
{

// Opens the standard descriptors that are closed. Otherwise a serial port would get the number of one of them, and the
// trace would go onto the line.
void OccupyStandardDescriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        if (fcntl(fd, F_GETFD) < 0)
            open("/dev/null", O_RDWR); // takes the lowest free descriptor: this one
}

} // namespace

int main(int argc, char *argv[])
{
    OccupyStandardDescriptors();
    // A supervisor that goes away must not stop a transfer half-way. Whoever follows the trace sees it line by line.
    // The buffer is ours: the C library would have to allocate one at every start.
    static char line[1024];
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, line, _IOLBF, sizeof line);
    return RunHaldenflash(argc, argv);
}
