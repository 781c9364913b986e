#include "Common/OS/linux/oslinux.h"
#include "Common/OS/logmsg_inner.h"
#include "Common/OS/osassert.h"
#include "Common/framework/config.h"

#include <cstdio>
#include <cstring>

std::atomic<Int32> gSpewFilter;

namespace
{

constexpr std::size_t kWordsSize = 24;

std::atomic<Int32> gLogFormat{kLogFormatProc};

struct FormatWordRow {
    Int32 bit;
    const char *word;
};
constexpr FormatWordRow kFormatWords[] = {
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

void LoadAndShowFilters(const FilterTableT &table)
{
    if (LoadFilters(table) > 0)
        DumpFilters(table);
}

// The bits of the words in the value. The call cuts the value apart.
Int32 FormatBits(char *value)
{
    Int32 bits = 0;
    char *rest = nullptr;
    for (const char *word = strtok_r(value, " ", &rest); word != nullptr; word = strtok_r(nullptr, " ", &rest)) {
        for (const FormatWordRow &row : kFormatWords) {
            if (std::strcmp(word, row.word) == 0)
                bits |= row.bit;
        }
    }
    return bits;
}

} // namespace

void LoadSettings()
{
    LoadAndShowFilters(kShowTable);
    LoadAndShowFilters(kCullTable);
    logmsg_format_load();
}

Int32 logmsg_showfilter_load()
{
    return LoadFilters(kShowTable);
}

Int32 logmsg_showfilter_save()
{
    return SaveFilters(kShowTable);
}

Int32 logmsg_cullfilter_load()
{
    return LoadFilters(kCullTable);
}

Int32 logmsg_cullfilter_save()
{
    return SaveFilters(kCullTable);
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

// Deliberate: the default holds only until the setting is first read. A setting that is missing or has no word is 0.
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
    for (const FormatWordRow &row : kFormatWords) {
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
