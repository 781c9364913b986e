#include "Common/OS/logmsg_inner.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace
{

std::atomic<Int32> gLastLineWasFiltered;

FilterSlotT gShowFilters[kFilterSlots];
FilterSlotT gCullFilters[kFilterSlots];
std::atomic<Int32> gNumShowFilters;
std::atomic<Int32> gNumCullFilters;

// ---- The slots are not locked. A task that logs while a slot is filled again may see a mixture of the old and the new
// text. The mixture always has a terminator. Only IsOccupied, SetCharacter and TextOf touch the text of a slot.

bool IsOccupied(FilterSlotT &slot)
{
    return std::atomic_ref(slot[0]).load(std::memory_order_acquire) != '\0';
}

void SetCharacter(FilterSlotT &slot, std::size_t index, char character)
{
    std::atomic_ref(slot[index]).store(character, std::memory_order_release);
}

// ---- The tables

// Deliberate: this ignores case, and the matching of lines does not.
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

bool AnyFilterMatches(const FilterTableT &table, const char *line)
{
    return std::any_of(std::begin(table.slots), std::end(table.slots), [line](FilterSlotT &slot) {
        const FilterTextT filter = TextOf(slot); // every line contains an empty one
        return filter.text[0] != '\0' && std::strstr(line, filter.text) != nullptr;
    });
}

} // namespace

constinit const FilterTableT kShowTable = {
    "showfilter", "show filters:\n", "\"%s\" show filter not added, table full\n", "\"%s\" show filter not found\n",
    gShowFilters, gNumShowFilters};
constinit const FilterTableT kCullTable = {
    "cullfilter", "cull filters:\n", "\"%s\" cull filter not added, table full\n", "\"%s\" cull filter not found\n",
    gCullFilters, gNumCullFilters};

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

Int32 DumpFilters(const FilterTableT &table)
{
    std::fputs(table.heading, stdout);
    for (FilterSlotT &slot : table.slots) {
        if (IsOccupied(slot))
            std::printf("  \"%s\"\n", TextOf(slot).text);
    }
    return 0;
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

Int32 logmsg_showfilter_add(const char *text)
{
    return AddFilter(kShowTable, text);
}

Int32 logmsg_showfilter_delete(const char *text)
{
    return DeleteFilter(kShowTable, text);
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

Int32 logmsg_cullfilter_dump()
{
    return DumpFilters(kCullTable);
}
