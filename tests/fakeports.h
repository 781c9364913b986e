// Stands in for the board, inside the test executable: `open` of a device file leads to a
// pseudo-terminal and of the command relay to pipes, `ioctl` answers the FPGA driver's two requests,
// the terminal calls work on one record. To be included by one file of an executable.
#pragma once

#include "Common/OS/linux/mutexhold.h"
#include "devlib/devmgr_serial.h"

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <pthread.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

struct FakePorts {
    std::atomic<bool> hold{false};           // while it is set, no open of a device file returns
    std::atomic<bool> cancel{false};         // the next open of one finds its thread cancelled when it returns
    std::map<std::string, int> failures;     // per call: n fails the next n, -n the n-th from now
    std::vector<std::string> opened;         // device files, failed opens included
    std::vector<fpgaserial_config_t> config; // sent to the FPGA driver
    std::vector<unsigned long> reception;    // arguments of its other request
    termios line{};                          // settings of every port
    int master = -1;                         // the far end of the port opened last
    int commands[2] = {-1, -1};              // pipe with what the relay was told
    std::string answer = "0\n";              // what the relay replies

    bool Fails(const char *call)
    {
        int &count = failures[call];
        return count < 0 ? ++count == 0 : count > 0 && count-- > 0;
    }
    void Send(const std::string &text) const { EXPECT_LT(0, write(master, text.data(), text.size())); }
    std::string Receive(std::size_t size, int fd) const
    {
        std::string text(size, '\0');
        for (ssize_t got = 0, n = 1; n > 0 && got < static_cast<ssize_t>(size); got += n)
            n = read(fd, text.data() + got, size - static_cast<std::size_t>(got));
        text.resize(std::strlen(text.c_str())); // of which no more came
        return text;
    }
};
inline FakePorts fake;

// The call of that name that this file stands in front of.
template <class Call> Call *Next(Call * /*type*/, const char *name)
{
    return reinterpret_cast<Call *>(dlsym(RTLD_NEXT, name));
}

inline int OpenPty()
{
    fake.master = posix_openpt(O_RDWR | O_NOCTTY);
    unlockpt(fake.master);
    const int fd = Next(&open, "open")(ptsname(fake.master), O_RDWR | O_NOCTTY);
    termios raw{};
    cfmakeraw(&raw);
    Next(&tcsetattr, "tcsetattr")(fd, TCSANOW, &raw);
    return fd;
}

inline int OpenAnswer()
{
    const CancelOffHold whole; // a deletion hits the program's calls, not the stand-in's
    int ends[2];
    EXPECT_EQ(0, pipe(ends));
    EXPECT_LT(0, write(ends[1], fake.answer.data(), fake.answer.size()));
    close(ends[1]);
    return ends[0];
}

// NOLINTBEGIN(misc-definitions-in-headers): one file of an executable includes this
extern "C" {
int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(args, unsigned) : 0;
    va_end(args);
    if (std::strcmp(path, "/tmp/plaunch") == 0)
        return fake.Fails("relay") ? -1 : (flags & O_ACCMODE) == O_RDONLY ? OpenAnswer() : dup(fake.commands[1]);
    if (std::strncmp(path, "/dev/fpga", 9) != 0 && std::strncmp(path, "/dev/tty", 8) != 0)
        return Next(&open, "open")(path, flags, mode);
    fake.opened.emplace_back(path);
    while (fake.hold)
        usleep(1000);
    const int fd = fake.Fails("open") ? -1 : OpenPty();
    if (fake.cancel.exchange(false))
        pthread_cancel(pthread_self());
    return fd;
}

int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    if (request != kFpgaSerialSetConfig && request != kFpgaSerialDisableRx)
        return Next(&ioctl, "ioctl")(fd, request, argument);
    if (request == kFpgaSerialSetConfig)
        fake.config.push_back(*static_cast<fpgaserial_config_t *>(argument));
    else
        fake.reception.push_back(reinterpret_cast<unsigned long>(argument));
    return fake.Fails("ioctl") ? -1 : 0;
}

int tcgetattr(int /*fd*/, termios *settings) noexcept
{
    *settings = fake.line;
    return fake.Fails("tcgetattr") ? -1 : 0;
}

int tcsetattr(int /*fd*/, int actions, const termios *settings) noexcept
{
    if (actions != TCSANOW || fake.Fails("tcsetattr"))
        return -1;
    fake.line = *settings;
    return 0;
}

int cfsetispeed(termios *settings, speed_t speed) noexcept
{
    settings->c_ispeed = speed;
    return fake.Fails("cfsetispeed") ? -1 : 0;
}
}
// NOLINTEND(misc-definitions-in-headers)
