// A full pipe: whoever writes to it waits. It stands in for a reader that reads nothing.
#pragma once

#include "bench/rig/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace bench
{

// Leads a descriptor of this process into a pipe that is full, for the length of a scope.
class FullPipe
{
public:
    explicit FullPipe(int fd) : fd_(fd), before_(dup(fd))
    {
        Checked(pipe2(ends_, O_NONBLOCK), "pipe");
        for (char bytes[4096] = {}; write(ends_[1], bytes, sizeof bytes) > 0;) {
        }
        Checked(fcntl(ends_[1], F_SETFL, 0), "pipe"); // whoever writes waits
        dup2(ends_[1], fd_);
    }
    ~FullPipe()
    {
        dup2(before_, fd_);
        for (const int fd : {before_, ends_[0], ends_[1]})
            close(fd);
    }
    FullPipe(const FullPipe &) = delete;
    FullPipe &operator=(const FullPipe &) = delete;

    void Drain() const
    {
        for (char bytes[4096]; read(ends_[0], bytes, sizeof bytes) > 0;) {
        }
    }

private:
    int fd_, before_, ends_[2] = {-1, -1};
};

} // namespace bench
