#include "Common/OS/linux/oslinux.h"

#include "Common/OS/osassert.h"

#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

Int32 ProcessorCnt;

// For other units as well, by extern.
pthread_mutex_t intsoffmutex = PTHREAD_MUTEX_INITIALIZER;
pthread_t intsoffthread; // the holder, 0 when free
UInt32 intsoffcount;
hwTypeT sHwType = kUninitialized;

namespace
{

void MapCharacters(char *s, int (*map)(int))
{
    os_assert(s, "s");
    for (; *s != '\0'; s++)
        *s = static_cast<char>(map(static_cast<UInt8>(*s)));
}

bool IsSpace(char character)
{
    return std::isspace(static_cast<UInt8>(character)) != 0;
}

} // namespace

// ---- Interrupt lock

UInt32 interruptsOff()
{
    const int rv = pthread_mutex_lock(&intsoffmutex);
    os_assert(rv == 0, "rv == 0");
    if (intsoffcount != 0)
        os_assert(intsoffthread == pthread_self(), "intsoffthread == pthread_self()");
    else
        intsoffthread = pthread_self();
    return ++intsoffcount;
}

int interruptsRestore(UInt32 depth)
{
    os_assert(intsoffcount != 0, "0");
    os_assert(intsoffthread == pthread_self(), "intsoffthread == pthread_self()");
    os_assert(intsoffcount == depth, "intsoffcount == oldie");
    if (--intsoffcount == 0)
        intsoffthread = 0;
    return pthread_mutex_unlock(&intsoffmutex);
}

// ---- Processor and hardware

void SetSystemHardwareType(hwTypeT hwType)
{
    sHwType = hwType;
}

hwTypeT GetSystemHardwareType()
{
    return sHwType;
}

UInt32 GetProcessorNum()
{
    return 0;
}

Int32 GetNumProcessors()
{
    return ProcessorCnt;
}

Int32 ExecutionLevel()
{
    return 0;
}

UInt32 GetCyclesPerTick()
{
    return 666666;
}

Int32 GetNumTIProcessors()
{
    return 0;
}

Int32 GetNumTMProcessors()
{
    return 0;
}

Int32 GetNumDavinciHDProcessors()
{
    return 0;
}

void sstackBackTrace(UInt32 /*taskID*/)
{
    std::puts("sstackBackTrace(UInt32 taskID) not implemented.");
}

// ---- Strings

char *strlwr(char *s)
{
    MapCharacters(s, std::tolower);
    return s;
}

char *strupr(char *s)
{
    MapCharacters(s, std::toupper);
    return s;
}

int stricmp(const char *left, const char *right)
{
    os_assert(left, "left");
    os_assert(right, "right");
    constexpr std::size_t kCompared = 255;
    char upperLeft[kCompared + 1] = {};
    char upperRight[kCompared + 1] = {};
    std::strncpy(upperLeft, left, kCompared);
    std::strncpy(upperRight, right, kCompared);
    return std::strcmp(strupr(upperLeft), strupr(upperRight));
}

char *itoa(Int32 value, char *out, Int32 radix)
{
    os_assert(out, "out");
    constexpr int kDigits = 33;
    char *end = out;
    if (radix == 10)
        end = std::to_chars(out, out + kDigits, value).ptr;
    else if (radix >= 2 && radix <= 36)
        end = std::to_chars(out, out + kDigits, static_cast<UInt32>(value), radix).ptr;
    *end = '\0';
    return out;
}

char *trim_leading(char *s)
{
    os_assert(s, "s");
    const char *start = s;
    while (IsSpace(*start))
        start++;
    std::memmove(s, start, std::strlen(start) + 1);
    return s;
}

char *trim_trailing(char *s)
{
    os_assert(s, "s");
    std::size_t length = std::strlen(s);
    while (length > 0 && IsSpace(s[length - 1]))
        length--;
    s[length] = '\0';
    return s;
}

char *trim_str(char *s)
{
    return trim_leading(trim_trailing(s));
}

Int32 sp_printf(char *out, UInt32 size, const char *format, ...)
{
    os_assert(out, "out");
    os_assert(format, "format");
    const std::size_t length = strnlen(out, size);
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(out + length, size - length, format, arguments);
    va_end(arguments);
    return static_cast<Int32>(strnlen(out, size));
}
