#include "Common/OS/logmsg.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/osassert.h"
#include "Common/OS/syslog.h"
#include "Common/framework/config.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <utility>

namespace
{

constexpr std::size_t kBufferSize = 1024;
constexpr std::size_t kLineSize = 512;
constexpr std::size_t kSummarySize = 64;
constexpr std::size_t kWordsSize = 24;
constexpr std::size_t kFilterSize = 370;
constexpr Int32 kFilterSlots = 10;

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

std::atomic<Int32> gSpewFilter;
std::atomic<Int32> gLastLineWasFiltered;
std::atomic<Int32> gConfigLoaded;
std::atomic<Int32> gLogFormat{kLogFormatProc};
std::atomic<Int32> gEchoToSyslog;

using FilterSlotT = char[kFilterSize];
FilterSlotT gShowFilters[kFilterSlots];
FilterSlotT gCullFilters[kFilterSlots];
std::atomic<Int32> gNumShowFilters;
std::atomic<Int32> gNumCullFilters;

struct FilterTableT {
    const char *key;
    const char *heading;
    const char *fullText;
    const char *notFoundText;
    FilterSlotT (&slots)[kFilterSlots];
    std::atomic<Int32> &count;
};
constexpr FilterTableT kShowTable = {
    "showfilter", "show filters:\n", "\"%s\" show filter not added, table full\n", "\"%s\" show filter not found\n",
    gShowFilters, gNumShowFilters};
constexpr FilterTableT kCullTable = {
    "cullfilter", "cull filters:\n", "\"%s\" cull filter not added, table full\n", "\"%s\" cull filter not found\n",
    gCullFilters, gNumCullFilters};

struct FormatWordT {
    Int32 bit;
    const char *word;
};
constexpr FormatWordT kFormatWords[] = {
    {kLogFormatDate, "date"},
    {kLogFormatTime, "time"},
    {kLogFormatLevel, "level"},
    {kLogFormatProc, "proc"},
};

// Only the master processor keeps log settings in the configuration.
bool KeepsSettings()
{
    return GetProcessorNum() == 0;
}

// ---- Filter tables. They are not locked. A task that logs while a slot is filled again may match a mixture
// of the old and the new text, but one that ends; nothing else touches a slot's text without these.

bool IsOccupied(FilterSlotT &slot)
{
    return std::atomic_ref(slot[0]).load(std::memory_order_acquire) != '\0';
}

void SetCharacter(FilterSlotT &slot, std::size_t index, char character)
{
    std::atomic_ref(slot[index]).store(character, std::memory_order_release);
}

struct FilterTextT {
    FilterSlotT text;
};

FilterTextT TextOf(FilterSlotT &slot)
{
    FilterTextT copy;
    std::size_t i = 0;
    do
        copy.text[i] = std::atomic_ref(slot[i]).load(std::memory_order_acquire);
    while (copy.text[i++] != '\0'); // which the last character of a slot always is
    return copy;
}

Int32 AddFilter(const FilterTableT &table, const char *text)
{
    os_assert(text, "text");
    for (FilterSlotT &slot : table.slots) {
        if (IsOccupied(slot))
            continue;
        const std::size_t length = strnlen(text, kFilterSize - 1);
        SetCharacter(slot, length, '\0');
        for (std::size_t i = length; i > 0; i--) // the first, which makes it a filter, last
            SetCharacter(slot, i - 1, text[i - 1]);
        table.count++;
        return 0;
    }
    std::printf(table.fullText, text);
    return -1;
}

// Ignores case, though matching of lines does not: deliberate.
Int32 DeleteFilter(const FilterTableT &table, const char *text)
{
    os_assert(text, "text");
    if (std::strcmp(text, "*") == 0) {
        for (FilterSlotT &slot : table.slots)
            SetCharacter(slot, 0, '\0');
        table.count = 0;
        return 0;
    }
    for (FilterSlotT &slot : table.slots) {
        if (IsOccupied(slot) && strcasecmp(TextOf(slot).text, text) == 0) {
            SetCharacter(slot, 0, '\0');
            table.count--;
            return 0;
        }
    }
    std::printf(table.notFoundText, text);
    return 0;
}

Int32 LoadFilters(const FilterTableT &table)
{
    if (!KeepsSettings())
        return 0;
    Int32 found = 0;
    char value[kConfigValueSize];
    for (Int32 instance = 0; instance < kFilterSlots; instance++) {
        ConfigRead(table.key, instance, value); // one that is missing reads as empty
        if (value[0] != '\0') {
            AddFilter(table, value);
            found++;
        }
    }
    return found;
}

Int32 SaveFilters(const FilterTableT &table)
{
    if (!KeepsSettings())
        return 0;
    for (Int32 instance = 0; instance < kFilterSlots; instance++)
        ConfigWrite(table.key, instance, TextOf(table.slots[instance]).text);
    return 0;
}

Int32 DumpFilters(const FilterTableT &table)
{
    std::fputs(table.heading, stdout);
    for (FilterSlotT &slot : table.slots) {
        if (IsOccupied(slot))
            std::printf("  \"%s\"\n", TextOf(slot).text);
    }
    return 0;
}

void LoadAndShowFilters(const FilterTableT &table)
{
    if (LoadFilters(table) > 0)
        DumpFilters(table);
}

bool AnyFilterMatches(const FilterTableT &table, const char *line)
{
    return std::any_of(std::begin(table.slots), std::end(table.slots), [line](FilterSlotT &slot) {
        const FilterTextT filter = TextOf(slot); // every line contains an empty one
        return filter.text[0] != '\0' && std::strstr(line, filter.text) != nullptr;
    });
}

bool IsFilteredOut(const char *line)
{
    if (gNumShowFilters > 0) {
        const bool hidden = !AnyFilterMatches(kShowTable, line);
        gLastLineWasFiltered = hidden ? 1 : 0;
        if (hidden)
            return true;
    }
    if (gNumCullFilters > 0 && AnyFilterMatches(kCullTable, line)) {
        gLastLineWasFiltered = 1;
        return true;
    }
    return false;
}

// ---- Format

// Takes the value apart.
Int32 FormatBits(char *value)
{
    Int32 bits = 0;
    char *rest = nullptr;
    for (const char *word = strtok_r(value, " ", &rest); word != nullptr; word = strtok_r(nullptr, " ", &rest)) {
        for (const FormatWordT &row : kFormatWords) {
            if (std::strcmp(word, row.word) == 0)
                bits |= row.bit;
        }
    }
    return bits;
}

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

// Writes level word, processor tag and component, and returns their length, which leaves room for
// at least the terminator of the message.
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

// Queues the summary of a line that came count times, the printed occurrence included. False when the ring lost it.
// It does not read the settings, which cannot be done while the interrupt lock is held.
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

// Adds a piece to the open line. buffer holds header and text, length characters in all; a completed line takes their
// place. It is taken out of gCurLine at once: whatever becomes of the task, the next piece begins a line of its own.
// Nothing under the lock prints, waits for output or can be cancelled.
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
        LoadAndShowFilters(kShowTable);
        LoadAndShowFilters(kCullTable);
        logmsg_format_load();
    }
    if (IsFilteredOut(msg))
        return 0;
    syslogAdd(msg, len);
    return len;
}

Int32 logmsg_showfilter_add(const char *text)
{
    return AddFilter(kShowTable, text);
}

Int32 logmsg_showfilter_delete(const char *text)
{
    return DeleteFilter(kShowTable, text);
}

Int32 logmsg_showfilter_load()
{
    return LoadFilters(kShowTable);
}

Int32 logmsg_showfilter_save()
{
    return SaveFilters(kShowTable);
}

Int32 logmsg_showfilter_dump()
{
    return DumpFilters(kShowTable);
}

Int32 logmsg_cullfilter_add(const char *text)
{
    return AddFilter(kCullTable, text);
}

Int32 logmsg_cullfilter_delete(const char *text)
{
    return DeleteFilter(kCullTable, text);
}

Int32 logmsg_cullfilter_load()
{
    return LoadFilters(kCullTable);
}

Int32 logmsg_cullfilter_save()
{
    return SaveFilters(kCullTable);
}

Int32 logmsg_cullfilter_dump()
{
    return DumpFilters(kCullTable);
}

Int32 logmsg_set_format(Int32 bits)
{
    gLogFormat = bits;
    return 0;
}

Int32 logmsg_get_format()
{
    return gLogFormat;
}

// The default holds only until the setting is first read: one without a word, or a missing one, is 0.
Int32 logmsg_format_load()
{
    if (!KeepsSettings())
        return 0;
    char value[kConfigValueSize];
    ConfigRead("logformat", 0, value);
    return logmsg_set_format(FormatBits(value));
}

Int32 logmsg_format_save()
{
    if (!KeepsSettings())
        return 0;
    char words[kWordsSize];
    logmsg_format_string(gLogFormat, words);
    ConfigWrite("logformat", 0, words);
    return 0;
}

Int32 logmsg_format_dump()
{
    if (!KeepsSettings())
        return 0;
    char words[kWordsSize];
    logmsg_format_string(gLogFormat, words);
    std::printf("%s\n", words);
    return 0;
}

void logmsg_format_string(Int32 bits, char *out)
{
    os_assert(out, "out");
    *out = '\0';
    for (const FormatWordT &row : kFormatWords) {
        if ((bits & row.bit) != 0)
            out = stpcpy(stpcpy(out, row.word), " ");
    }
}

Int32 logmsg_spewfilter_load()
{
    Boolean on = 0;
    if (KeepsSettings() && ConfigReadBool("spewfilter", 0, &on) == kNoError)
        gSpewFilter = static_cast<Int32>(on);
    return 0;
}

Int32 logmsg_set_spewfilter(Int32 on)
{
    gSpewFilter = on;
    ConfigWriteBool("spewfilter", 0, on != 0 ? 1 : 0);
    return 0;
}

Int32 logmsg_get_spewfilter()
{
    return gSpewFilter;
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
