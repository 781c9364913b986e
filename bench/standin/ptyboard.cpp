#include "bench/standin/ptyboard.h"

#include "Common/OS/linux/mutexhold.h"
#include "bench/rig/descriptor.h"
#include "bench/standin/real.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

bench::PtyBoard &fake = *new bench::PtyBoard; // for good: tasks outlive main

namespace bench
{

namespace
{

// This board stands in front of these two, too.
constinit Real<int(const char *, int)> gRealOpen("open");
constinit Real<int(int, int, const termios *)> gRealSetLine("tcsetattr");

} // namespace

bool PtyBoard::Fails(const char *call)
{
    int &count = failures[call];
    return count < 0 ? ++count == 0 : count > 0 && count-- > 0;
}

void PtyBoard::Send(const std::string &text) const
{
    Checked(static_cast<int>(write(master, text.data(), text.size())), "send");
}

std::string PtyBoard::Receive(std::size_t size, int fd) const
{
    std::string text(size, '\0');
    for (ssize_t got = 0, n = 1; n > 0 && got < static_cast<ssize_t>(size); got += n)
        n = read(fd, text.data() + got, size - static_cast<std::size_t>(got));
    text.resize(std::strlen(text.c_str())); // cut behind the bytes that came
    return text;
}

std::optional<int> PtyBoard::Open(const char *path, int flags)
{
    if (std::strcmp(path, "/tmp/plaunch") == 0)
        return OpenRelay(flags);
    if (std::strncmp(path, "/dev/fpga", 9) == 0 || std::strncmp(path, "/dev/tty", 8) == 0)
        return OpenPort(path);
    return std::nullopt;
}

int PtyBoard::OpenRelay(int flags)
{
    if (Fails("relay"))
        return -1;
    if ((flags & O_ACCMODE) != O_RDONLY)
        return dup(commands[1]);
    const CancelOffHold whole; // a deletion must not end the calls of the stand-in half-way
    int ends[2];
    Checked(pipe(ends), "relay");
    Checked(static_cast<int>(write(ends[1], answer.data(), answer.size())), "relay");
    close(ends[1]);
    return ends[0];
}

int PtyBoard::OpenPort(const char *path)
{
    opened.emplace_back(path);
    while (hold)
        usleep(1000);
    const int fd = Fails("open") ? -1 : OpenPty();
    if (cancel.exchange(false))
        pthread_cancel(pthread_self());
    return fd;
}

int PtyBoard::OpenPty()
{
    master = posix_openpt(O_RDWR | O_NOCTTY);
    unlockpt(master);
    const int fd = gRealOpen(ptsname(master), O_RDWR | O_NOCTTY);
    termios raw{};
    cfmakeraw(&raw);
    gRealSetLine(fd, TCSANOW, &raw);
    return fd;
}

} // namespace bench
