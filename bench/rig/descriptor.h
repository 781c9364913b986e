// A file descriptor with an owner, and the check that system calls share.
#pragma once

#include <cerrno>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace bench
{

class Descriptor
{
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { Close(); }

    int get() const { return fd_; }
    void Close()
    {
        if (fd_ >= 0)
            ::close(std::exchange(fd_, -1));
    }

private:
    int fd_ = -1;
};

// Whether that result of a read of a non-blocking terminal says that the terminal is gone.
inline bool HungUp(ssize_t count)
{
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
}

// Returns the result of a system call; throws std::system_error when it is negative.
inline int Checked(int result, const char *what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

} // namespace bench
