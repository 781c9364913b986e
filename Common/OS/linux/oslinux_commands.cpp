#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <sys/uio.h>
#include <unistd.h>

namespace
{

constexpr char kRelayPath[] = "/tmp/plaunch";
constexpr std::size_t kRelayLine = 127;

// ---- Descriptors and streams that are closed at the end of their scope, also in a cancelled task

class OpenFile
{
public:
    OpenFile(const char *path, int flags) : fd_(open(path, flags | O_CLOEXEC)) {}
    ~OpenFile()
    {
        CancelOffHold hold;
        if (fd_ >= 0)
            close(fd_);
    }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

struct StreamCloser {
    void operator()(FILE *stream) const
    {
        CancelOffHold hold;
        pclose(stream);
    }
    void operator()(DIR *directory) const
    {
        CancelOffHold hold;
        closedir(directory);
    }
};
using CommandOutput = std::unique_ptr<FILE, StreamCloser>;
using Directory = std::unique_ptr<DIR, StreamCloser>;

// Reads until a line feed, size characters or the end. Stores the characters before the line feed, with a terminator;
// text has room for size + 1. A FIFO may deliver a line in pieces.
void ReadLine(int fd, char *text, std::size_t size)
{
    std::size_t length = 0;
    ssize_t got = 1;
    while (got > 0 && length < size && std::memchr(text, '\n', length) == nullptr) {
        got = read(fd, text + length, size - length);
        if (got > 0)
            length += static_cast<std::size_t>(got);
    }
    text[length] = '\0';
    text[std::strcspn(text, "\n")] = '\0';
}

// ---- Command relay

// Returns 0 if there is no memory for it.
UInt32 RelaySemaphore()
{
    static pthread_mutex_t scallmutex = PTHREAD_MUTEX_INITIALIZER;
    static UInt32 scall;
    MutexHold hold(&scallmutex);
    if (scall == 0)
        sm_create("scall", 1, 0, &scall);
    return scall;
}

// Does not use dprintf: its stream is on the stack, and a task that is deleted in it would leave it in the C library's
// list.
bool SendCommand(const char *command)
{
    const OpenFile relay(kRelayPath, O_WRONLY);
    const std::size_t length = std::strlen(command);
    const iovec line[] = {{const_cast<char *>(command), length}, {const_cast<char *>("\n"), 1}};
    if (relay.fd() < 0)
        return false;
    const ssize_t written = writev(relay.fd(), line, std::size(line));
    const bool isWhole = written == static_cast<ssize_t>(length + 1);
    if (written >= 0 && !isWhole)
        errno = EIO; // the system gave no reason
    return isWhole;
}

// The C library's long may be wider than the result. The result then stops at its own limits.
Int32 DecimalValue(const char *line)
{
    return static_cast<Int32>(std::clamp<long>(std::strtol(line, nullptr, 10), INT32_MIN, INT32_MAX));
}

bool ReceiveResult(Int32 *result)
{
    const OpenFile relay(kRelayPath, O_RDONLY);
    if (relay.fd() < 0)
        return false;
    char line[kRelayLine + 1];
    ReadLine(relay.fd(), line, kRelayLine);
    *result = line[0] != '\0' ? DecimalValue(line) : -1;
    return true;
}

// Sends one command at a time. Returns 0, or the reason of a failure. The result is then unchanged.
int AskRelay(const char *command, Int32 *result)
{
    const SemaphoreHold hold(RelaySemaphore());
    if (hold.result() != 0)
        return ENOMEM; // why there is no semaphore
    return SendCommand(command) && ReceiveResult(result) ? 0 : errno;
}

} // namespace

Int32 system_pthread(const char *command)
{
    os_assert(command, "command");
    Int32 result = -1;
    const int error = AskRelay(command, &result);
    if (error == 0)
        loginfo("system_pthread", "%s [%d]\n", command, result);
    else
        logerr("system_pthread", "%s [%d %s]\n", command, error, std::strerror(error));
    return result;
}

Int32 read_command(const char *command, char *out, UInt32 size)
{
    os_assert(command, "command");
    os_assert(out, "out");
    if (size == 0)
        return -1;
    out[0] = '\0';
    const CommandOutput output(popen(command, "re"));
    if (output == nullptr || std::fgets(out, static_cast<int>(size), output.get()) == nullptr)
        return -1;
    trim_str(out);
    return 0;
}

Boolean is_NFS()
{
    constexpr Int32 kNotAsked = -1;
    static std::atomic<Int32> answer{kNotAsked};
    if (answer == kNotAsked) {
        char line[128];
        const Int32 result = read_command("mount | grep 'on / type nfs'", line, sizeof(line));
        answer = result == 0 && line[0] != '\0' ? 1 : 0;
    }
    return static_cast<Boolean>(answer.load());
}

Int32 find_pid(const char *name)
{
    os_assert(name, "name");
    constexpr std::size_t kNameLength = 15; // the kernel keeps no more of a command's name
    const Directory processes(opendir("/proc"));
    if (processes == nullptr)
        return -1;
    while (const dirent *entry = readdir(processes.get())) {
        const Int32 pid = DecimalValue(entry->d_name); // 0 for what is no process
        char path[sizeof("/proc//comm") + 10];
        std::snprintf(path, sizeof(path), "/proc/%d/comm", pid);
        const OpenFile comm(path, O_RDONLY);
        if (comm.fd() < 0)
            continue;
        char line[kNameLength + 1];
        ReadLine(comm.fd(), line, kNameLength);
        if (std::strncmp(line, name, kNameLength) == 0)
            return pid;
    }
    return -1;
}

Int32 read_env(const char *name, char *out, UInt32 size)
{
    os_assert(name, "name");
    os_assert(out, "out");
    const char *value = std::getenv(name);
    if (size > 0)
        std::snprintf(out, size, "%s", value != nullptr ? value : "");
    return value != nullptr ? 0 : -1;
}
