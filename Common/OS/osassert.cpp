#include "Common/OS/osassert.h"

#include "Common/OS/linux/mutexhold.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace
{

// A slow reader of our output, or another thread that prints, gets one second: the tries times their length.
constexpr int kTries = 100;
constexpr int kPause = 10;

// Writes to a descriptor do not wait for the length of a scope.
class NoWaitHold
{
public:
    explicit NoWaitHold(int fd) : fd_(fd), before_(fcntl(fd, F_GETFL)) { fcntl(fd_, F_SETFL, before_ | O_NONBLOCK); }
    ~NoWaitHold() { fcntl(fd_, F_SETFL, before_); }
    NoWaitHold(const NoWaitHold &) = delete;
    NoWaitHold &operator=(const NoWaitHold &) = delete;

private:
    int fd_, before_;
};

bool AwaitRoom(int fd, int milliseconds)
{
    pollfd room = {fd, POLLOUT, 0};
    return poll(&room, 1, milliseconds) == 1;
}

// A try: another thread may hold the stream for good, in a write that nobody reads.
void FlushOutput()
{
    int tries = 0;
    while (ftrylockfile(stdout) != 0)
        if (poll(nullptr, 0, kPause), ++tries == kTries)
            return;
    const NoWaitHold hold(fileno(stdout));
    AwaitRoom(fileno(stdout), kTries * kPause);
    std::fflush(stdout);
    funlockfile(stdout);
}

// Does not use a stream, because another thread may hold its lock.
void WriteError(const char *text, std::size_t size)
{
    const NoWaitHold hold(STDERR_FILENO);
    for (int tries = 0; size > 0 && tries < kTries; tries++) {
        const ssize_t count = AwaitRoom(STDERR_FILENO, kPause) ? write(STDERR_FILENO, text, size) : 0;
        text += std::max<ssize_t>(count, 0);
        size -= static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

void BlockBrokenPipe()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

} // namespace

void os_assert_failed(const char *text, const char *file, int line, const char *function)
{
    static std::atomic_flag stopping;
    const CancelOffHold whole;
    while (stopping.test_and_set()) // the first one's message is enough
        pause();
    BlockBrokenPipe();
    FlushOutput();
    char message[1024];
    const int size = std::snprintf(message, sizeof message, "Assertion failed: %s, file %s, line %d, function %s\n",
                                   text, file, line, function);
    WriteError(message, std::min(static_cast<std::size_t>(size), sizeof message - 1));
    std::abort();
}
