#include "Common/OS/linux/oslinux.h"
#include "Common/OS/osassert.h"
#include "Common/framework/mod_inner.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <strings.h>

constexpr std::size_t kNumTraceFilters = 10;
constexpr std::size_t kTraceFilterSize = 32;

// Under the interrupt lock. An empty one is free; one of 32 characters, as many as a record's name has, has no
// terminator.
char traceFilters[kNumTraceFilters][kTraceFilterSize];
std::atomic<Int32> NumTraceFilters;

namespace
{

constexpr std::size_t kFormatSize = 256;

// A name counts up to as many characters as a filter has.
bool IsFilter(const char *filter, const char *pName)
{
    return strncasecmp(filter, pName, kTraceFilterSize) == 0;
}

// Without a filter all modules' lines are wanted.
bool WantsLines(const ModT *pMod, const char *format)
{
    os_assert(pMod, "pMod");
    os_assert(format, "format");
    CheckSignature(pMod);
    if (NumTraceFilters == 0)
        return true;
    const InterruptsOffHold hold;
    return std::any_of(std::begin(traceFilters), std::end(traceFilters),
                       [pMod](const char *filter) { return IsFilter(filter, pMod->name); });
}

// The component of the line: "name[instance]", or "owner[instance].name[instance]".
void FillComponent(const ModT *pMod, char (&component)[kFormatSize])
{
    const ModT *pOwner = (pMod->flags & kModFlagLogOwner) != 0 ? pMod->pOwner : nullptr;
    if (pOwner != nullptr)
        std::snprintf(component, sizeof component, "%s[%d].%s[%d]", pOwner->name, pOwner->instance, pMod->name,
                      pMod->instance);
    else
        std::snprintf(component, sizeof component, "%s[%d]", pMod->name, pMod->instance);
}

// The length of the conversion that text begins with; 0 when text ends within it.
std::size_t ConversionLength(const char *text)
{
    const std::size_t length = 1 + std::strspn(text + 1, "0123456789#- +'I.*$hlLqjzt");
    return text[length] != '\0' ? length + 1 : 0;
}

// A format that is put together from pieces. It never has half a conversion: neither a cut nor the end of a piece
// leaves one.
struct FormatT {
    char text[kFormatSize] = "";
    std::size_t length = 0;

    // Adds as much as there is room for. In a piece without conversions, such as a name, a conversion is printed
    // unchanged. Deliberate: only its "%%" prints one sign.
    void Add(const char *piece, bool hasConversions)
    {
        while (*piece != '\0') {
            std::size_t whole = 1;
            if (*piece == '%')
                whole = hasConversions || piece[1] == '%' ? ConversionLength(piece) : 0;
            const std::string_view added = whole != 0 ? std::string_view(piece, whole) : "%%";
            if (length + added.size() >= sizeof text)
                return;
            added.copy(text + length, added.size());
            length += added.size();
            text[length] = '\0';
            piece += std::max<std::size_t>(whole, 1);
        }
    }
};

} // namespace

void ModLog(ModT *pMod, LogLevelT level, const char *format, ...)
{
    if (!WantsLines(pMod, format))
        return;
    char component[kFormatSize];
    FillComponent(pMod, component);
    FormatT whole;
    whole.Add(component, false);
    whole.Add(": ", false);
    whole.Add(format, true);
    va_list arguments;
    va_start(arguments, format);
    va_logmsg(arguments, level, nullptr, whole.text);
    va_end(arguments);
}

void ModTrace(ModT *pMod, const char *format, ...)
{
    if (!WantsLines(pMod, format))
        return;
    char component[kFormatSize];
    FillComponent(pMod, component);
    va_list arguments;
    va_start(arguments, format);
    va_logmsg(arguments, kLogDebug, component, format);
    va_end(arguments);
}

eErrorT ModTraceFilterAdd(const char *pName)
{
    os_assert(pName, "pName");
    if (pName[0] == '\0')
        return kBadParameter;
    {
        const InterruptsOffHold hold;
        for (char(&filter)[kTraceFilterSize] : traceFilters) {
            if (filter[0] != '\0')
                continue;
            std::strncpy(filter, pName, sizeof filter);
            NumTraceFilters++;
            return kNoError;
        }
    }
    logwarn("MOD", "can't add trace, out of filter entries\n");
    return kOutOfMemory;
}

eErrorT ModTraceFilterDelete(const char *pName)
{
    os_assert(pName, "pName");
    {
        const InterruptsOffHold hold;
        const bool all = pName[0] == '*';
        for (char(&filter)[kTraceFilterSize] : traceFilters) {
            if (filter[0] == '\0' || !(all || IsFilter(filter, pName)))
                continue;
            filter[0] = '\0';
            NumTraceFilters--;
            if (!all)
                return kNoError;
        }
        if (all)
            return kNoError;
    }
    logwarn("MOD", "can't delete trace filter, name not found\n");
    return kBadParameter;
}
