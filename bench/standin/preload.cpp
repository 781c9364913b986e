// Leads a program that opens "/dev/fpgaserial<N>", its command relay or its configuration to other files, and plays the
// FPGA serial driver. It needs only the C library, allocates nothing, and holds no lock and no descriptor between
// calls. <sys/ioctl.h> is not included, on purpose: it declares that ioctl never throws. Such a function would need the
// C++ library, and a cancellation could not unwind it.
#include "bench/standin/preload.h"
#include "bench/standin/real.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

extern "C" int ioctl(int fd, unsigned long request, ...);
// The functions have other names here, because stat and stat64 are structures too.
extern "C" int StatPlace(const char *path, void *status) asm("stat");
extern "C" int StatPlace64(const char *path, void *status) asm("stat64");

namespace
{

using bench::Real;

constexpr int kPorts = 10;
constexpr int kDescriptors = 1024;
constexpr char kRelay[] = "/tmp/plaunch"; // of commands
constexpr char kOpt[] = "/opt/talvora";   // configuration
constexpr std::size_t kPlace = PATH_MAX + 1;

// The orders from the environment. They are written once, before main. A path that is not ordered is "". The system
// answers that with ENOENT.
struct Orders {
    bool on, capture;
    const char *relay, *opt;
    std::int64_t waitDivisor;
    long halfRead, halfWrite, lostClose; // ordinals
    struct {
        const char *path;
        int terminal; // 0: none
        long refusedOpens, refusedRequest, cutWrite;
        int openError;
        long cutTo; // bytes; -1: the write is refused
    } ports[kPorts];
};
Orders gOrders;
bench::EventLog *gLog;

struct Counts {
    std::atomic<long> opens, requests, writes;
};
Counts gCounts[kPorts];
std::atomic<long> gBaud[kPorts];            // bit/s of the line; 0: writes return as soon as they can
std::atomic<long> gReads, gWrites, gCloses; // of all files

// Port of a redirected descriptor plus one; 0 for any other descriptor.
std::atomic<unsigned char> gPortOf[kDescriptors];

constinit Real<int(const char *, int, ...)> gRealOpen("open"), gRealOpen64("open64");
constinit Real<FILE *(const char *, const char *)> gRealFopen("fopen"), gRealFopen64("fopen64");
constinit Real<int(const char *, void *)> gRealStat("stat"), gRealStat64("stat64");
constinit Real<int(int)> gRealClose("close");
constinit Real<int(FILE *)> gRealFclose("fclose");
constinit Real<ssize_t(int, void *, std::size_t)> gRealRead("read");
constinit Real<ssize_t(int, const void *, std::size_t)> gRealWrite("write");
constinit Real<int(int, unsigned long, ...)> gRealIoctl("ioctl");
constinit Real<int(int, fd_set *, fd_set *, fd_set *, timeval *)> gRealSelect("select");

// Notes an event with its time, which the C library tells without a system call. Leaves out what only a capture needs
// if there is none. Does not change errno.
[[gnu::format(printf, 1, 2)]] void Log(const char *format, ...)
{
    if (format[0] == '\t' && !gOrders.capture)
        return;
    const int error = errno;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char line[160];
    const int head = snprintf(line, sizeof line, "%lld ", now.tv_sec * 1000000LL + now.tv_nsec / 1000);
    va_list arguments;
    va_start(arguments, format);
    const auto size = static_cast<std::uint32_t>(
        head + vsnprintf(line + head, sizeof line - static_cast<std::size_t>(head), format, arguments));
    va_end(arguments);
    const std::uint32_t at = gLog->used.fetch_add(size);
    if (at + size <= sizeof gLog->text)
        memcpy(gLog->text + at, line, size);
    errno = error;
}

// The name of the latest error. It is looked at before anything else is called.
const char *ErrorName(int error)
{
    const char *name = strerrorname_np(error);
    return name == nullptr ? "?" : name;
}

// Returns null if the file is no event log.
bench::EventLog *MapLog(const char *path)
{
    const int fd = gRealOpen(path, O_RDWR | O_CLOEXEC, mode_t{0});
    if (fd < 0)
        return nullptr;
    void *log = mmap(nullptr, sizeof(bench::EventLog), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    gRealClose(fd);
    return log == MAP_FAILED ? nullptr : static_cast<bench::EventLog *>(log);
}

// Reads "<number>" or "<number>:<second>". Returns the first number. The second one stays if it is not there.
template <class Second> long Numbers(const char *text, Second &second)
{
    const char *colon = strchr(text, ':');
    if (colon != nullptr)
        second = static_cast<Second>(strtol(colon + 1, nullptr, 10));
    return strtol(text, nullptr, 10);
}

// The value of a variable, or "" if there is no such variable. The text stays there for the life of the process.
const char *Variable(const char *name)
{
    const char *text = getenv(name);
    return text == nullptr ? "" : text;
}

const char *PortVariable(const char *name, int port)
{
    char numbered[40];
    snprintf(numbered, sizeof numbered, "%s%d", name, port);
    return Variable(numbered);
}

long PortNumber(const char *name, int port)
{
    return strtol(PortVariable(name, port), nullptr, 10);
}

[[gnu::constructor]] void ReadOrders()
{
    const char *log = Variable(bench::kPreloadLog);
    gLog = log[0] != '\0' ? MapLog(log) : nullptr;
    if (gLog == nullptr)
        return;
    gOrders.capture = getenv(bench::kPreloadCapture) != nullptr;
    gOrders.relay = Variable(bench::kPreloadRelay);
    gOrders.opt = Variable(bench::kPreloadOpt);
    gOrders.waitDivisor = strtol(Variable(bench::kPreloadWaitDivisor), nullptr, 10);
    if (gOrders.waitDivisor < 1)
        gOrders.waitDivisor = 1;
    gOrders.halfRead = strtol(Variable(bench::kPreloadHalfRead), nullptr, 10);
    gOrders.halfWrite = strtol(Variable(bench::kPreloadHalfWrite), nullptr, 10);
    gOrders.lostClose = strtol(Variable(bench::kPreloadLostClose), nullptr, 10);
    for (int port = 0; port < kPorts; ++port) {
        auto &orders = gOrders.ports[port];
        orders.path = PortVariable(bench::kPreloadPort, port);
        orders.terminal = static_cast<int>(PortNumber(bench::kPreloadTerminal, port));
        if (orders.terminal != 0)
            fcntl(orders.terminal, F_SETFD, FD_CLOEXEC);
        orders.openError = EBUSY;
        orders.refusedOpens = Numbers(PortVariable(bench::kPreloadOpens, port), orders.openError);
        orders.refusedRequest = PortNumber(bench::kPreloadRequest, port);
        orders.cutTo = -1;
        orders.cutWrite = Numbers(PortVariable(bench::kPreloadWrite, port), orders.cutTo);
        gBaud[port] = PortNumber(bench::kPreloadBaud, port);
    }
    gOrders.on = true;
}

// Port that a path designates, -1 if none.
int PortOfPath(const char *path)
{
    constexpr char kPrefix[] = "/dev/fpgaserial";
    constexpr std::size_t kLength = sizeof kPrefix - 1;
    if (!gOrders.on || strncmp(path, kPrefix, kLength) != 0)
        return -1;
    const char digit = path[kLength];
    return digit >= '0' && digit <= '9' && path[kLength + 1] == '\0' ? digit - '0' : -1;
}

// Port that a descriptor was redirected to, -1 if none.
int PortOfDescriptor(int fd)
{
    return fd >= 0 && fd < kDescriptors ? gPortOf[fd] - 1 : -1;
}

int OpenPort(int port, int flags)
{
    const auto &orders = gOrders.ports[port];
    int fd = -1;
    if (++gCounts[port].opens <= orders.refusedOpens)
        errno = orders.openError;
    else
        fd = gRealOpen(orders.path, flags | O_NOCTTY, mode_t{0});
    if (fd < 0)
        Log("open %d refused\t%s\n", port, ErrorName(errno));
    else
        Log("open %d\n", port);
    if (fd >= 0 && fd < kDescriptors)
        gPortOf[fd] = static_cast<unsigned char>(port + 1);
    return fd;
}

// Answer the driver's own requests with an error, or with 0. terminal is 0 if there is none.
int ConfigurePort(int port, const bench::DriverConfig &config, int terminal, int error)
{
    if (error == 0 && terminal != 0)
        error = bench::ConfigureTerminal(terminal, config);
    if (error == 0 && terminal != 0 && (config.mask & 1) != 0)
        gBaud[port] = static_cast<long>(config.baud);
    Log("config %d: mask %u baud %u parity %u stop %u flow %u data %u%s%s\n", port, config.mask, config.baud,
        config.parity, config.stop, config.flow, config.data, error != 0 ? " refused\t" : "",
        error != 0 ? ErrorName(error) : "");
    return error;
}

int EnablePort(int port, bool enable, int terminal, int error)
{
    if (error == 0 && terminal != 0)
        error = bench::SwitchReceiver(terminal, enable);
    Log("rx %d %s%s%s\n", port, enable ? "enabled" : "disabled", error != 0 ? " refused\t" : "",
        error != 0 ? ErrorName(error) : "");
    return error;
}

// When the bench has gone, the line has hung up. The terminal is then no longer ours, although it is still open.
bool HasHungUp(int fd)
{
    termios settings;
    return tcgetattr(fd, &settings) != 0;
}

int RequestPort(int fd, int port, std::uint32_t request, const void *argument)
{
    const int terminal = gOrders.ports[port].terminal;
    const bool refused = ++gCounts[port].requests == gOrders.ports[port].refusedRequest;
    int error = refused || (terminal != 0 && HasHungUp(fd)) ? EIO : 0;
    if (request == bench::kSetConfig) {
        bench::DriverConfig config = {};
        memcpy(&config, argument, sizeof config);
        error = ConfigurePort(port, config, terminal, error);
    } else {
        // Callers pass a 32-bit integer, which is 0 to enable. The bits above it may be anything.
        const bool enable = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(argument)) == 0;
        error = EnablePort(port, enable, terminal, error);
    }
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}

std::int64_t Microseconds(const timeval &time)
{
    return std::int64_t{time.tv_sec} * 1000000 + time.tv_usec;
}

timeval TimeOf(std::int64_t microseconds)
{
    timeval time;
    time.tv_sec = static_cast<decltype(time.tv_sec)>(microseconds / 1000000);
    time.tv_usec = static_cast<decltype(time.tv_usec)>(microseconds % 1000000);
    return time;
}

// Notes what the system did with a write, if that is less than it was asked for.
void LogShort(int port, ssize_t written, std::size_t size)
{
    if (written < 0)
        Log("\twrite %d refused %s\n", port, ErrorName(errno));
    else if (static_cast<std::size_t>(written) < size)
        Log("\twrite %d: %zd of %zu bytes\n", port, written, size);
}

// Writes, and returns when the line has carried all bytes. A real terminal gets them through the bench, so it does not
// have all of them from the start.
ssize_t WriteLine(int port, int fd, const void *data, std::size_t size)
{
    const long baud = gBaud[port];
    timespec until = {};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const ssize_t written = gRealWrite(fd, data, size);
    LogShort(port, written, size);
    if (baud <= 0 || written <= 0)
        return written;
    const std::int64_t nanoseconds = until.tv_nsec + std::int64_t{written} * 11 * 1000000000 / baud;
    until.tv_sec += static_cast<time_t>(nanoseconds / 1000000000);
    until.tv_nsec = static_cast<decltype(until.tv_nsec)>(nanoseconds % 1000000000);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR)
        ;
    if (gOrders.ports[port].terminal != 0)
        tcdrain(gOrders.ports[port].terminal);
    return written;
}

bool IsRelay(const char *path)
{
    return gOrders.on && strcmp(path, kRelay) == 0;
}

// Where a path leads. place is room for the result. A result that is cut is still too long for the system, which
// refuses it (ENAMETOOLONG).
const char *PlaceOf(const char *path, char (&place)[kPlace])
{
    constexpr std::size_t kLength = sizeof kOpt - 1;
    if (IsRelay(path))
        return gOrders.relay;
    if (!gOrders.on || strncmp(path, kOpt, kLength) != 0 || (path[kLength] != '/' && path[kLength] != '\0'))
        return path;
    if (gOrders.opt[0] == '\0')
        return "";
    snprintf(place, sizeof place, "%s%s", gOrders.opt, path + kLength);
    return place;
}

// The mode is there only if the flags ask for it.
int Open(Real<int(const char *, int, ...)> &real, const char *path, int flags, va_list &arguments)
{
    const int port = PortOfPath(path);
    if (port >= 0)
        return OpenPort(port, flags);
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    char place[kPlace];
    const int fd = real(PlaceOf(path, place), flags, creates ? va_arg(arguments, mode_t) : mode_t{0});
    if (IsRelay(path) && fd < 0)
        Log("open relay refused\t%s\n", ErrorName(errno));
    else if (IsRelay(path))
        Log("open relay\n");
    return fd;
}

// The result of a close of any kind. The result may be ordered to be a failure.
int Closed(int result)
{
    if (++gCloses != gOrders.lostClose)
        return result;
    Log("lost close\n");
    errno = EIO;
    return -1; // EOF, for a stream
}

template <class Function, class... Rest> auto AtPlace(Real<Function> &real, const char *path, Rest... rest)
{
    char place[kPlace];
    return real(PlaceOf(path, place), rest...);
}

} // namespace

extern "C" int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const int fd = Open(gRealOpen, path, flags, arguments);
    va_end(arguments);
    return fd;
}

extern "C" int open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const int fd = Open(gRealOpen64, path, flags, arguments);
    va_end(arguments);
    return fd;
}

extern "C" FILE *fopen(const char *path, const char *mode)
{
    return AtPlace(gRealFopen, path, mode);
}

extern "C" FILE *fopen64(const char *path, const char *mode)
{
    return AtPlace(gRealFopen64, path, mode);
}

extern "C" int StatPlace(const char *path, void *status)
{
    return AtPlace(gRealStat, path, status);
}

extern "C" int StatPlace64(const char *path, void *status)
{
    return AtPlace(gRealStat64, path, status);
}

extern "C" int close(int fd)
{
    const int port = PortOfDescriptor(fd);
    if (port >= 0) {
        gPortOf[fd] = 0;
        Log("close %d\n", port);
    }
    const int result = Closed(gRealClose(fd));
    if (port >= 0 && result < 0)
        Log("\tclose %d refused %s\n", port, ErrorName(errno));
    return result;
}

extern "C" int fclose(FILE *stream)
{
    return Closed(gRealFclose(stream));
}

extern "C" ssize_t read(int fd, void *data, std::size_t size)
{
    if (++gReads == gOrders.halfRead) {
        size = (size + 1) / 2;
        Log("half read\n");
    }
    const ssize_t count = gRealRead(fd, data, size);
    if (const int port = PortOfDescriptor(fd); port >= 0 && count < 0)
        Log("\tread %d refused %s\n", port, ErrorName(errno));
    return count;
}

extern "C" ssize_t write(int fd, const void *data, std::size_t size)
{
    if (++gWrites == gOrders.halfWrite) {
        size = (size + 1) / 2;
        Log("half write\n");
    }
    const int port = PortOfDescriptor(fd);
    if (port < 0)
        return gRealWrite(fd, data, size);
    Log("\twrite %d\n", port);
    const auto &orders = gOrders.ports[port];
    if (++gCounts[port].writes != orders.cutWrite)
        return WriteLine(port, fd, data, size);
    if (orders.cutTo < 0) {
        Log("write %d refused\tEIO\n", port);
        errno = EIO;
        return -1;
    }
    const std::size_t kept =
        size < static_cast<std::size_t>(orders.cutTo) ? size : static_cast<std::size_t>(orders.cutTo);
    Log("write %d: %zu of %zu bytes\n", port, kept, size);
    return WriteLine(port, fd, data, kept);
}

extern "C" int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    const int port = PortOfDescriptor(fd);
    const auto code = static_cast<std::uint32_t>(request); // may come with its sign extended
    if (port >= 0 && (code == bench::kSetConfig || code == bench::kDisableRx))
        return RequestPort(fd, port, code, argument);
    return gRealIoctl(fd, request, argument);
}

extern "C" int select(int count, fd_set *reading, fd_set *writing, fd_set *exceptional, timeval *timeout)
{
    const bool pure = timeout != nullptr && reading == nullptr && writing == nullptr && exceptional == nullptr;
    if (!gOrders.on || !pure || gettid() != getpid()) // the waits of other tasks are unchanged
        return gRealSelect(count, reading, writing, exceptional, timeout);
    const std::int64_t asked = Microseconds(*timeout);
    Log("wait %lld\n", static_cast<long long>(asked));
    timeval left = TimeOf(asked / gOrders.waitDivisor);
    const int result = gRealSelect(count, reading, writing, exceptional, &left);
    *timeout = TimeOf(Microseconds(left) * gOrders.waitDivisor);
    return result;
}
