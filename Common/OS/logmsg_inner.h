// The common part of the files of logmsg. No other file includes it.
// logmsg.cpp           makes the lines
// logmsg_filters.cpp   the show and cull filters
// logmsg_settings.cpp  the log format, and what is stored in the configuration
// Owner:   each piece of state belongs to the file that defines it.
// Locking: these functions take no lock. The slots of the filters are not locked; logmsg_filters.cpp says why.
#pragma once

#include "Common/OS/logmsg.h"

#include <atomic>

// ---- Filters. Only logmsg_filters.cpp touches the text of a slot.

constexpr std::size_t kFilterSize = 370;
constexpr Int32 kFilterSlots = 10;

using FilterSlotT = char[kFilterSize];

struct FilterTableT {
    const char *key; // of its items in the configuration
    const char *heading;
    const char *fullText;
    const char *notFoundText;
    FilterSlotT (&slots)[kFilterSlots];
    std::atomic<Int32> &count;
};

extern const FilterTableT kShowTable;
extern const FilterTableT kCullTable;

struct FilterTextT {
    FilterSlotT text;
};

// A copy of a slot's text. It is empty if the slot is free.
FilterTextT TextOf(FilterSlotT &slot);

// 0   added.
// -1  the table is full, which is printed.
Int32 AddFilter(const FilterTableT &table, const char *text);

// Prints the heading and the filters. Returns 0.
Int32 DumpFilters(const FilterTableT &table);

// Whether the filters keep the line from being printed.
bool IsFilteredOut(const char *line);

// ---- Settings

// 1: identical lines in a row are counted instead of printed.
extern std::atomic<Int32> gSpewFilter;

// Reads the filters and the log format, and prints the filters. This logs, and starts the configuration.
void LoadSettings();
