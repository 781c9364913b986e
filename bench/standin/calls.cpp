// The calls of the C library that go to a board inside the program. A task may be cancelled in one of them. Nothing
// here has to be undone then.
#include "bench/standin/board.h"
#include "bench/standin/real.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

using bench::Board;
using bench::Real;

constinit Real<int(const char *, int, ...)> gRealOpen("open"), gRealOpen64("open64");
constinit Real<int(int)> gRealClose("close");
constinit Real<ssize_t(int, void *, std::size_t)> gRealRead("read");
constinit Real<ssize_t(int, const void *, std::size_t)> gRealWrite("write");
constinit Real<int(int, unsigned long, ...)> gRealIoctl("ioctl");
constinit Real<int(int, fd_set *, fd_set *, fd_set *, timeval *)> gRealSelect("select");
constinit Real<int(const timespec *, timespec *)> gRealNanosleep("nanosleep");
constinit Real<int(int, termios *)> gRealGetLine("tcgetattr");
constinit Real<int(int, int, const termios *)> gRealSetLine("tcsetattr");
constinit Real<int(termios *, speed_t)> gRealSetSpeed("cfsetispeed");
constinit Real<FILE *(const char *, const char *)> gRealFopen64("fopen64");
constinit Real<int(FILE *)> gRealFclose("fclose"), gRealFileno("fileno");
constinit Real<int(int, struct stat64 *)> gRealFstat64("fstat64");
constinit Real<off64_t(int, off64_t, int)> gRealLseek64("lseek64");

// The mode is there only if the flags ask for it.
int Open(Real<int(const char *, int, ...)> &real, const char *path, int flags, va_list &arguments)
{
    // The analyser overlooks va_start. NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : mode_t{0};
    Board *board = Board::Here();
    const std::optional<int> fd = board != nullptr ? board->Open(path, flags) : std::nullopt;
    return fd ? *fd : real(path, flags, mode);
}

// The board if it has files, else null.
Board *BoardWithFiles()
{
    Board *board = Board::Here();
    return board != nullptr && board->HasFiles() ? board : nullptr;
}

// The number of a file on the board. No stream of the system has such a low address. -1: the stream is the system's.
int NumberOf(FILE *stream)
{
    const auto address = reinterpret_cast<std::intptr_t>(stream);
    return BoardWithFiles() != nullptr && address < (1 << 20) ? static_cast<int>(address) : -1;
}

} // namespace

extern "C" {

int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const int fd = Open(gRealOpen, path, flags, arguments);
    va_end(arguments);
    return fd;
}

int open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const int fd = Open(gRealOpen64, path, flags, arguments);
    va_end(arguments);
    return fd;
}

int close(int fd)
{
    Board *board = Board::Here();
    const std::optional<int> result = board != nullptr ? board->Close(fd) : std::nullopt;
    return result ? *result : gRealClose(fd);
}

ssize_t read(int fd, void *buffer, std::size_t size)
{
    Board *board = Board::Here();
    const std::optional<ssize_t> count = board != nullptr ? board->Read(fd, buffer, size) : std::nullopt;
    return count ? *count : gRealRead(fd, buffer, size);
}

ssize_t write(int fd, const void *data, std::size_t size)
{
    Board *board = Board::Here();
    const std::optional<ssize_t> count = board != nullptr ? board->Write(fd, data, size) : std::nullopt;
    return count ? *count : gRealWrite(fd, data, size);
}

int select(int count, fd_set *reads, fd_set *writes, fd_set *others, timeval *limit)
{
    Board *board = Board::Here();
    const std::optional<int> ready = board != nullptr ? board->Select(count, reads, writes, limit) : std::nullopt;
    return ready ? *ready : gRealSelect(count, reads, writes, others, limit);
}

int nanosleep(const timespec *time, timespec *left)
{
    const Board *board = Board::Here();
    return board != nullptr && board->SkipsPauses() ? 0 : gRealNanosleep(time, left);
}

int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    Board *board = Board::Here();
    const std::optional<int> result = board != nullptr ? board->Request(request, argument) : std::nullopt;
    return result ? *result : gRealIoctl(fd, request, argument);
}

int tcgetattr(int fd, termios *settings) noexcept
{
    Board *board = Board::Here();
    return board != nullptr ? board->GetLine(settings) : gRealGetLine(fd, settings);
}

int tcsetattr(int fd, int actions, const termios *settings) noexcept
{
    Board *board = Board::Here();
    return board != nullptr ? board->SetLine(actions, settings) : gRealSetLine(fd, actions, settings);
}

int cfsetispeed(termios *settings, speed_t speed) noexcept
{
    Board *board = Board::Here();
    return board != nullptr ? board->SetSpeed(settings, speed) : gRealSetSpeed(settings, speed);
}

FILE *fopen64(const char *path, const char *mode)
{
    Board *board = BoardWithFiles();
    if (board == nullptr)
        return gRealFopen64(path, mode);
    const int fd = board->Open(path, 0).value_or(-1);
    return fd < 0 ? nullptr : reinterpret_cast<FILE *>(static_cast<std::intptr_t>(fd));
}

int fileno(FILE *stream) noexcept
{
    const int number = NumberOf(stream);
    return number >= 0 ? number : gRealFileno(stream);
}

int fclose(FILE *stream)
{
    const int number = NumberOf(stream);
    return number >= 0 ? close(number) : gRealFclose(stream);
}

int fstat64(int fd, struct stat64 *status) noexcept
{
    Board *board = BoardWithFiles();
    return board != nullptr ? board->Status(fd, status) : gRealFstat64(fd, status);
}

off64_t lseek64(int fd, off64_t offset, int from) noexcept
{
    Board *board = BoardWithFiles();
    return board != nullptr ? board->Position(fd) : gRealLseek64(fd, offset, from);
}

} // extern "C"
