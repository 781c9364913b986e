// Log lines from the call to the printed text. Pieces are put together and cut, repeated lines are counted, and lines
// pass the ring and are printed. There is no writer task; the target itself prints the lines in the ring. The ring
// stays from input to input, so that lines are at every place in it, its end included.
#include "fuzz/support.h"

#include "Common/OS/syslog.h"

#include <cstdarg>
#include <fuzzer/FuzzedDataProvider.h>
#include <vector>

// ---- Linked in place of the creation of tasks, of which there are none, and of the repeat filter's setting

UInt32 NoTask(const char *name, UInt32, UInt32, UInt32, UInt32, UInt32 *tid) __asm__("__wrap__Z8t_createPKcjjjjPj");
UInt32 NoTask(const char * /*name*/, UInt32, UInt32, UInt32, UInt32, UInt32 * /*tid*/)
{
    return 1;
}

static Boolean gSpewFilter;
eErrorT ReadSpewFilter(const char *name, Int32, Boolean *value) __asm__("__wrap__Z14ConfigReadBoolPKciPj");
eErrorT ReadSpewFilter(const char * /*name*/, Int32, Boolean *value)
{
    *value = gSpewFilter;
    return kNoError;
}

namespace
{

// What the log is to hold.
struct {
    std::string open, last;
    Int32 repeats = 0;
    Int32 threshold = kLogDebug;
    std::vector<std::string> queued = {};
} gLog;

void Queue(const std::string &line)
{
    constexpr std::string_view kInitials = "  CEW ID"; // by level
    const auto level = std::min(kInitials.find(line[0]), std::size_t{kLogDebug});
    if (static_cast<Int32>(level) <= gLog.threshold)
        gLog.queued.push_back(line);
}

void Complete()
{
    const std::string line = std::exchange(gLog.open, "");
    if (gSpewFilter != 0) {
        if (line == gLog.last) {
            gLog.repeats++;
            return;
        }
        if (const Int32 repeats = std::exchange(gLog.repeats, 0); repeats > 0)
            Queue("DEBUG pc[0]: ...last line repeated " + std::to_string(repeats + 1) + " times\n");
    }
    gLog.last = line;
    Queue(line);
}

// Logs, and follows what becomes of it.
void Log(Int32 level, const std::string *component, const char *format, ...)
{
    constexpr const char *kWords[] = {"CRIT  ", "CRIT  ", "CRIT  ", "ERROR ", "WARN  ", "INFO  ", "INFO  ", "DEBUG "};
    std::vector<char> text(8192);
    va_list arguments, copy;
    va_start(arguments, format);
    va_copy(copy, arguments);
    const int formatted = std::vsnprintf(text.data(), text.size(), format, copy);
    va_end(copy);
    std::string header = kWords[level < 0 || level > 7 ? 7 : level];
    header += "pc[0]: ";
    if (component != nullptr)
        header += component->substr(0, 1023 - header.size() - 2) + ": ";
    const Int32 result = va_logmsg(arguments, level, component != nullptr ? component->c_str() : nullptr, format);
    va_end(arguments);
    CHECK(result == static_cast<Int32>(header.size()) + formatted);
    const std::string whole = (header + text.data()).substr(0, 1023);
    gLog.open = (gLog.open + whole.substr(gLog.open.empty() ? 0 : header.size())).substr(0, 511);
    if (whole.find('\n') != whole.npos)
        Complete();
}

// Prints what is in the ring.
std::string Drained()
{
    static char *text;
    static std::size_t size;
    static std::FILE *const file = open_memstream(&text, &size);
    std::FILE *const nowhere = std::exchange(stdout, file);
    std::rewind(file);
    syslogDrainQueue();
    CHECK(std::fflush(file) == 0);
    stdout = nowhere;
    return std::string(text, size);
}

// A digit for each 0.
bool HasShape(std::string_view text, std::string_view shape)
{
    return std::equal(text.begin(), text.end(), shape.begin(), shape.end(),
                      [](char c, char wanted) { return wanted == '0' ? c >= '0' && c <= '9' : c == wanted; });
}

void CheckPrinted()
{
    const Int32 format = logmsg_get_format();
    std::string stamp = (format & kLogFormatDate) != 0 ? "0000-00-00" : "";
    stamp += (format & kLogFormatTime) != 0 ? " 00:00:00.000" : "";
    stamp += stamp.empty() ? "" : " ";
    const std::string printed = Drained();
    std::string_view rest = printed;
    for (const std::string &line : std::exchange(gLog.queued, {})) {
        CHECK(HasShape(rest.substr(0, stamp.size()), stamp));
        rest.remove_prefix(stamp.size());
        const std::string expected = line.substr((format & kLogFormatLevel) != 0 ? 0 : 6);
        CHECK(rest.starts_with(expected));
        rest.remove_prefix(expected.size());
    }
    CHECK(rest.empty());
}

// Nothing is open, counted or in the ring, and the last line is known.
void StartOver()
{
    static const bool isSetUp = (InitSyslogInterface(), true);
    gSpewFilter = isSetUp ? 1 : 0;
    syslogSetLogLevel(kLogDebug);
    logmsg_spewfilter_load();
    for (const char *line : {"\n", "one\n", "two\n"}) // two different ones end any count
        logcrit(nullptr, "%s", line);
    gSpewFilter = 0;
    logmsg_spewfilter_load();
    Drained();
    gLog = {"", "CRIT  pc[0]: two\n"};
}

void LogSomething(FuzzedDataProvider &input)
{
    const auto level = input.ConsumeIntegralInRange<Int32>(-1, 8);
    const bool hasComponent = input.ConsumeBool();
    const std::string component = hasComponent ? input.ConsumeRandomLengthString(1100).c_str() : "";
    const std::string *named = hasComponent ? &component : nullptr;
    const auto form = input.ConsumeIntegralInRange<int>(0, 6);
    const Int32 number = input.ConsumeIntegral<Int32>();
    const std::string text = input.ConsumeRandomLengthString(1100).c_str();
    switch (form) {
    case 0:
        return Log(level, named, "%s\n", text.c_str());
    case 1:
        return Log(level, named, "%s", text.c_str());
    case 2:
        return Log(level, named, "%s[%d]:%s\n", text.c_str(), number, text.c_str());
    case 3:
        return Log(level, named, "task:%4.4s pid:%u thread %08x %d\n", text.c_str(), number, number, number);
    case 4:
        return Log(level, named, "%*s%c%s\n", number % 2000, text.c_str(), number, text.c_str());
    case 5:
        return Log(level, named, "\n");
    default:
        return Log(level, named, "%.*s", number, text.c_str());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const UInt8 *data, std::size_t size)
{
    StartOver();
    logmsg_set_format(size == 0 ? 0 : data[0] & 15);
    FuzzedDataProvider input(data, size);
    while (input.remaining_bytes() > 0) {
        switch (input.ConsumeIntegralInRange<int>(0, 9)) {
        case 0:
            gLog.threshold = input.ConsumeIntegralInRange<Int32>(-1, 8);
            syslogSetLogLevel(gLog.threshold);
            break;
        case 1:
            gSpewFilter = input.ConsumeBool() ? 1 : 0;
            logmsg_spewfilter_load();
            break;
        case 2:
            CheckPrinted();
            break;
        default:
            LogSomething(input);
        }
    }
    CheckPrinted();
    return 0;
}
