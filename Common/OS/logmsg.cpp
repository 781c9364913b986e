#include "Common/OS/logmsg.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/logmsg_inner.h"
#include "Common/OS/osassert.h"
#include "Common/OS/syslog.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <utility>

namespace
{

constexpr std::size_t kBufferSize = 1024;
constexpr std::size_t kLineSize = 512;
constexpr std::size_t kSummarySize = 64;

constexpr std::size_t kLevelSize = 6;
constexpr char gLogMsgLevelStr[][kLevelSize + 1] = {"CRIT  ", "CRIT  ", "CRIT  ", "ERROR ",
                                                    "WARN  ", "INFO  ", "INFO  ", "DEBUG "};

struct LineT {
    char text[kLineSize];
    std::size_t length;
};

// Under the interrupt lock.
LineT gCurLine;  // the line being assembled
LineT gLastLine; // the last completed one
Int32 gSpewCount;

std::atomic<Int32> gConfigLoaded;
std::atomic<Int32> gEchoToSyslog;

// ---- Lines

// Writes at most room - 1 characters of "<component>: " and returns how many.
std::size_t AddComponent(const char *component, char *text, std::size_t room)
{
    constexpr std::size_t kSeparatorSize = 2;
    const std::size_t length = strnlen(component, room - 1 - kSeparatorSize);
    std::memcpy(text, component, length);
    std::memcpy(text + length, ": ", kSeparatorSize);
    return length + kSeparatorSize;
}

// Writes level word, processor tag and component. Returns their length. There is still room for the terminator of the
// message.
std::size_t AddHeader(Int32 level, const char *component, char (&buffer)[kBufferSize])
{
    auto length = static_cast<std::size_t>(addLevel(level, buffer));
    length += static_cast<std::size_t>(addProcID(buffer + length));
    if (component != nullptr)
        length += AddComponent(component, buffer + length, kBufferSize - length);
    return length;
}

// Appends what fits and cuts the rest.
void Append(LineT &line, const char *text, std::size_t length)
{
    const std::size_t taken = std::min(length, kLineSize - 1 - line.length);
    std::memcpy(line.text + line.length, text, taken);
    line.length += taken;
    line.text[line.length] = '\0';
}

// Puts text, which is shorter than a line may be, in place of the line.
void SetLine(LineT &line, const char *text, std::size_t length)
{
    line.length = 0;
    Append(line, text, length);
}

bool IsRepeated(const char *line, std::size_t length)
{
    return gLastLine.length == length && std::memcmp(gLastLine.text, line, length) == 0;
}

// Queues the summary of a line that came count times; the printed one is among them. Returns false if the ring lost it.
// The settings are not read, because the interrupt lock is held.
bool QueueRepeatSummary(Int32 count)
{
    char summary[kSummarySize];
    Int32 length = addLevel(kLogDebug, summary);
    length += addProcID(summary + length);
    std::snprintf(summary + length, sizeof(summary) - static_cast<std::size_t>(length),
                  "...last line repeated %d times\n", count);
    return IsFilteredOut(summary) || syslogQueue(summary);
}

struct AssembledT {
    std::size_t length; // of the completed line that is to be printed; 0: there is none
    bool overflowed;    // the summary in front of it was lost in a full ring
};

// Adds a piece to the open line. buffer holds header and text, length characters in all. A completed line takes their
// place. It leaves gCurLine at once, so the next piece begins a new line even if this task is deleted. Under the lock
// nothing prints, waits for output or can be cancelled.
AssembledT Assemble(char (&buffer)[kBufferSize], std::size_t headerLength, std::size_t length)
{
    const InterruptsOffHold hold;
    const std::size_t skipped = gCurLine.length > 0 ? headerLength : 0;
    Append(gCurLine, buffer + skipped, length - skipped);
    if (std::memchr(buffer, '\n', length) == nullptr)
        return {};
    const std::size_t completed = gCurLine.length;
    std::memcpy(buffer, gCurLine.text, completed + 1);
    SetLine(gCurLine, "", 0);
    if (gSpewFilter != 0 && IsRepeated(buffer, completed)) {
        gSpewCount++;
        return {};
    }
    bool overflowed = false;
    if (gSpewFilter != 0 && gSpewCount > 0)
        overflowed = !QueueRepeatSummary(std::exchange(gSpewCount, 0) + 1);
    SetLine(gLastLine, buffer, completed);
    return {completed, overflowed};
}

} // namespace

Int32 addLevel(Int32 level, char *str)
{
    os_assert(str, "str");
    std::memcpy(str, gLogMsgLevelStr[std::clamp<Int32>(level, kLogEmerg, kLogDebug)], kLevelSize + 1);
    return kLevelSize;
}

Int32 addProcID(char *str)
{
    os_assert(str, "str");
    const UInt32 processor = GetProcessorNum();
    if (processor != 0)
        return std::sprintf(str, "pc[%x]: ", processor);
    constexpr char kHostTag[] = "pc[0]: "; // every line has it: formatting would cost more than the rest of the header
    std::memcpy(str, kHostTag, sizeof(kHostTag));
    return sizeof(kHostTag) - 1;
}

Int32 va_logmsg(va_list ap, Int32 level, const char *component, const char *fmt)
{
    if (fmt == nullptr)
        return 0;
    const bool known = level >= kLogEmerg && level <= kLogDebug;
    char buffer[kBufferSize];
    const std::size_t headerLength = AddHeader(known ? level : kLogDebug, component, buffer);
    buffer[headerLength] = '\0';
    const int formatted = std::vsnprintf(buffer + headerLength, kBufferSize - headerLength, fmt, ap);
    const std::size_t length = headerLength + std::strlen(buffer + headerLength);
    const AssembledT line = Assemble(buffer, headerLength, length);
    if (line.length > 0)
        logmsg_print(buffer, static_cast<Int32>(line.length));
    if (line.overflowed)
        syslogReportOverflow();
    return static_cast<Int32>(headerLength) + formatted;
}

Int32 logmsg(Int32 level, const char *component, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const Int32 length = va_logmsg(ap, level, component, fmt);
    va_end(ap);
    return length;
}

Int32 logcrit(const char *component, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const Int32 length = va_logmsg(ap, kLogEmerg, component, fmt);
    va_end(ap);
    return length;
}

Int32 logerr(const char *component, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const Int32 length = va_logmsg(ap, kLogError, component, fmt);
    va_end(ap);
    return length;
}

Int32 logwarn(const char *component, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const Int32 length = va_logmsg(ap, kLogWarning, component, fmt);
    va_end(ap);
    return length;
}

Int32 loginfo(const char *component, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const Int32 length = va_logmsg(ap, kLogInfo, component, fmt);
    va_end(ap);
    return length;
}

Int32 logdebug(const char *component, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const Int32 length = va_logmsg(ap, kLogDebug, component, fmt);
    va_end(ap);
    return length;
}

Int32 logmsg_print(const char *msg, Int32 len)
{
    os_assert(msg, "msg");
    if (msg[0] == '\0')
        return 0;
    // Set before the settings are read: reading them logs.
    if (gConfigLoaded == 0 && gConfigLoaded.exchange(1) == 0) {
        const CancelOffHold cancelOff; // they are read once
        LoadSettings();
    }
    if (IsFilteredOut(msg))
        return 0;
    syslogAdd(msg, len);
    return len;
}

Int32 logmsg_set_syslog_echo(Int32 on)
{
    gEchoToSyslog = on;
    return 0;
}

Int32 logmsg_get_syslog_echo()
{
    return gEchoToSyslog;
}
