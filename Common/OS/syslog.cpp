#include "Common/OS/syslog.h"

#include "Common/OS/linux/hostsyslog.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

namespace
{

// ---- The ring holds lines back to back, each with its NUL. A line is never split. Behind the last line that fits are
// at least two NULs of filling.
constexpr Int32 kRingSize = 0x80000;
constexpr Int32 kRingLimit = kRingSize - 2; // no line ends behind it

char buf[kRingSize + 10];

// Index of the next line to store, or kLapping. Only adders move it, under log_Semaphore. The store is a release: the
// line is complete when the writer acquires the index behind it.
std::atomic<Int32> log_buffer_tail;
constexpr Int32 kLapping = -1; // an adder overwrites lines that wait for the writer: nothing can be taken

// Index of the next line to print. The bits above it are the number of laps.
// - The writer moves the index when it has copied the line.
// - An adder that laps the writer counts the lap and sets the index to 0. It may overwrite the line that the writer
//   copies. The writer then fails to move the index, and throws its copy away.
// - Both moves are read-modify-write: the second one acquires what the first one released. So an adder that does not
//   lap overwrites no line before the writer has copied it.
std::atomic<UInt32> log_buffer_head;
constexpr UInt32 kLap = 0x100000;

std::atomic<Int32> syslogLevel{kLogDebug};
std::atomic<UInt32> log_Semaphore;
std::atomic<UInt32> logTaskID;

constexpr UInt32 kLineEvent = 1;
constexpr UInt32 kAllEvents = 0xFFFF;

// Deliberate: there are three blanks where a line has two. Programs that watch for this line compare it.
constexpr char OVERFLOW_MSG[] = "WARN   pc[0]: SYSLOG QUEUE OVERFLOW\n";
constexpr Int32 kOverflowSize = sizeof(OVERFLOW_MSG);

// ---- Settings of the classic call set, which nothing consults.
const char *LogTag;
Int32 LogStat;
Int32 LogFacility = 8;
Int32 LogMask = 0x1F;
Int32 LogLocalMask = 0xFF;
Int32 LogFile = -1;
Int32 connected;
char syslogHostname[256];

struct CodeRow {
    const char *c_name;
    Int32 c_val;
};
[[maybe_unused]] constexpr CodeRow prioritynames[] = {
    {"alert", 1}, {"crit", 2},   {"debug", 7},   {"emerg", 0},  {"err", 3},
    {"info", 6},  {"notice", 5}, {"warning", 4}, {nullptr, -1},
};
[[maybe_unused]] constexpr CodeRow facilitynames[] = {
    {"auth", 4 << 3},     {"authpriv", 10 << 3}, {"cron", 9 << 3},    {"daemon", 3 << 3},  {"ftp", 11 << 3},
    {"kern", 0 << 3},     {"lpr", 6 << 3},       {"mail", 2 << 3},    {"mark", 24 << 3},   {"news", 7 << 3},
    {"security", 4 << 3}, {"syslog", 5 << 3},    {"user", 1 << 3},    {"uucp", 8 << 3},    {"local0", 16 << 3},
    {"local1", 17 << 3},  {"local2", 18 << 3},   {"local3", 19 << 3}, {"local4", 20 << 3}, {"local5", 21 << 3},
    {"local6", 22 << 3},  {"local7", 23 << 3},   {nullptr, -1},
};

// ---- Adding

void Store(Int32 at, const char *line, Int32 size)
{
    std::memcpy(buf + at, line, static_cast<std::size_t>(size - 1));
    buf[at + size - 1] = '\0';
    log_buffer_tail.store(at + size, std::memory_order_release);
}

Int32 IndexOf(UInt32 head)
{
    return static_cast<Int32>(head % kLap);
}

// Starts again at the front. This does not ask whether there is room: a writer that is almost a whole ring behind loses
// all lines before this one.
void WrapLine(const char *line, Int32 size)
{
    const Int32 tail = log_buffer_tail.load(std::memory_order_relaxed);
    const UInt32 head = log_buffer_head.load(std::memory_order_acquire);
    if (IndexOf(head) > tail || IndexOf(head) <= size) {
        log_buffer_tail.store(kLapping, std::memory_order_relaxed); // seen by a writer that has seen the lap
        log_buffer_head.exchange(head - head % kLap + kLap, std::memory_order_acq_rel);
    }
    std::memset(buf + tail, 0, static_cast<std::size_t>(kRingSize - tail));
    Store(0, line, size);
}

// size counts the NUL. Returns false when the ring is full and the line is lost.
bool StoreLine(const char *line, Int32 size)
{
    const Int32 tail = log_buffer_tail.load(std::memory_order_relaxed);
    const Int32 head = IndexOf(log_buffer_head.load(std::memory_order_acquire));
    if (tail + size > kRingLimit) {
        WrapLine(line, size);
    } else if (head > tail && head <= tail + size) {
        if (tail + kOverflowSize < head)
            Store(tail, OVERFLOW_MSG, kOverflowSize);
        return false;
    } else {
        Store(tail, line, size);
    }
    return true;
}

// ---- Printing, in the writer task only

// The writer's copy of the line that it prints: once the head has passed a line, new ones may overwrite it. Only the
// pages that the longest line needs are ever touched.
char printedLine[kRingSize];

// The writer is at filling. Behind the tail there is never anything but filling.
void StopIfCorrupt(Int32 next, Int32 tail)
{
    if (tail <= next)
        return;
    std::printf("syslog: empty string @ 0x%x\n", AddressWord(buf + next));
    os_assert(false, "0");
}

// Copies the next line to printedLine. Returns false if there is no line, or while a lap is under way: its adder sends
// an event afterwards. The copy is empty in these cases:
// - A pass begins on the filling.
// - A lap came between. The copy might be half of one line and half of another.
bool TakeLine()
{
    UInt32 head = log_buffer_head.load(std::memory_order_acquire);
    const Int32 tail = log_buffer_tail.load(std::memory_order_acquire);
    const Int32 at = IndexOf(head);
    if (tail == kLapping || tail == at)
        return false;
    const std::size_t size = std::strlen(buf + at) + 1;
    std::memcpy(printedLine, buf + at, size);
    const Int32 next = at + static_cast<Int32>(size);
    const bool filling = next != tail && buf[next] == '\0';
    const UInt32 moved = head - head % kLap + static_cast<UInt32>(filling ? 0 : next);
    if (!log_buffer_head.compare_exchange_strong(head, moved, std::memory_order_acq_rel))
        printedLine[0] = '\0';
    else if (filling)
        StopIfCorrupt(next, tail);
    return true;
}

// Fills stamp with what the format puts in front of a line, nothing for no date and no time.
void MakeStamp(char (&stamp)[64], Int32 format)
{
    constexpr std::size_t kPartSize = 28;
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm utc = {};
    gmtime_r(&now.tv_sec, &utc);
    char *end = stamp;
    if ((format & kLogFormatDate) != 0)
        end += std::strftime(end, kPartSize, "%F", &utc);
    if ((format & kLogFormatTime) != 0) {
        end += std::strftime(end, kPartSize, " %H:%M:%S", &utc);
        // What ".%0.3u" prints; compilers refuse the zero beside a precision, where it changes nothing.
        end += std::sprintf(end, ".%.3u", static_cast<UInt32>(now.tv_usec / 1000));
    }
    if (end != stamp)
        *end++ = ' ';
    *end = '\0';
}

// One print of three pieces: nothing that another task prints comes between them.
void PrintLine(const char *line)
{
    constexpr std::size_t kLevelEnd = 6, kTagEnd = 13;
    const Int32 format = logmsg_get_format();
    char stamp[64];
    MakeStamp(stamp, format);
    const std::size_t length = std::strlen(line);
    const char *tag = line + std::min(length, kLevelEnd);
    const char *text = line + std::min(length, kTagEnd);
    const char *level = (format & kLogFormatLevel) != 0 ? line : "";
    std::printf("%s%.6s%.7s%s", stamp, level, tag, text);
    if (logmsg_get_syslog_echo() != 0) {
        constexpr Int32 kUucp = 64; // deliberate: the host's log is routed by this facility
        HostSyslog(mapLogLevel(line[0]) | kUucp, tag);
    }
}

} // namespace

void syslogAdd(const char *msg, Int32 /*msglen*/)
{
    if (!syslogQueue(msg))
        syslogReportOverflow();
}

bool syslogQueue(const char *msg)
{
    os_assert(msg, "msg");
    const UInt32 semaphore = log_Semaphore;
    if (semaphore == 0 || msg[0] == '\0' || mapLogLevel(msg[0]) > syslogLevel)
        return true;
    // A line that the whole ring could not hold is cut.
    const auto length = static_cast<Int32>(strnlen(msg, kRingLimit - 1));
    bool stored = false;
    {
        const SemaphoreHold hold(semaphore);
        stored = StoreLine(msg, length + 1);
    }
    // For every line: the event of the one before may still be on its way, from a task that was interrupted.
    if (const UInt32 writer = logTaskID; writer != 0)
        ev_send(writer, kLineEvent);
    return stored;
}

void syslogReportOverflow()
{
    // The C library's stream is not used. If another task's message is stalled in it, this task would wait for its lock
    // and could not be deleted.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, OVERFLOW_MSG, kOverflowSize - 1);
}

Int32 mapLogLevel(char levelChar)
{
    switch (levelChar) {
    case 'C':
        return kLogCrit;
    case 'E':
        return kLogError;
    case 'W':
        return kLogWarning;
    case 'I':
        return kLogInfo;
    default:
        return kLogDebug;
    }
}

void syslogSetLogLevel(Int32 level)
{
    syslogLevel = level;
}

void InitSyslogInterface()
{
    buf[0] = '\0';
    log_buffer_head = 0;
    log_buffer_tail = 0;
    UInt32 semaphore = 0;
    sm_create("logw", 1, 2, &semaphore);
    log_Semaphore = semaphore;
    UInt32 task = 0;
    if (t_create("logw", 0, 2048, 0, 0, &task) != 0) {
        logcrit("log", "can't create log writer task\n");
        return;
    }
    logTaskID = task;
    if (t_start(task, 0, logWriterThread, nullptr) != 0)
        logcrit("log", "can't start log writer task\n");
}

void logWriterThread(UInt32, UInt32, UInt32, UInt32)
{
    for (;;) {
        syslogDrainQueue(); // first for the lines that came before there was a task to send the event to
        UInt32 events = 0;
        const UInt32 result = ev_receive(kAllEvents, kEvAny, 0, &events);
        if (result != 0)
            tm_wkafter(1); // the task does not find itself any more: no events, but no spinning
    }
}

void syslogDrainQueue()
{
    bool any = false;
    while (TakeLine()) {
        if (printedLine[0] != '\0')
            PrintLine(printedLine);
        any = true;
    }
    if (any)
        std::fflush(stdout);
}

void cm_syslog(Int32 pri, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    va_logmsg(ap, pri, nullptr, fmt);
    va_end(ap);
}

void openlog(const char *ident, Int32 logstat, Int32 logfac)
{
    constexpr Int32 kFacilityMask = 0x3F8;
    if (ident != nullptr)
        LogTag = ident;
    LogStat = logstat;
    if (logfac != 0 && (logfac & ~kFacilityMask) == 0)
        LogFacility = logfac;
}

void closelog()
{
    if (connected != 0) {
        LogFile = -1;
        connected = 0;
    }
}

Int32 setlogmask(Int32 pmask)
{
    const Int32 old = LogMask;
    if (pmask != 0)
        LogMask = pmask;
    return old;
}

Int32 setloglocalmask(Int32 pmask)
{
    const Int32 old = LogLocalMask;
    if (pmask != 0)
        LogLocalMask = pmask;
    return old;
}

Int32 getlogmask()
{
    return LogMask;
}

Int32 getloglocalmask()
{
    return LogLocalMask;
}

void setlogfacility(Int32 facility)
{
    LogFacility = facility;
}

Int32 getlogfacility()
{
    return LogFacility;
}

Int32 setlogaddr(const char * /*hostname*/)
{
    return -1;
}

const char *getlogaddr()
{
    return syslogHostname;
}
