// What the files of logmsg share, and nobody else includes: logmsg.cpp makes the lines, logmsg_filters has the show and
// cull filters, logmsg_settings the log format and all that goes to the configuration or comes from there.
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

// A copy of a slot's text, empty when the slot is free.
FilterTextT TextOf(FilterSlotT &slot);

// 0, or -1 with a message when the table is full.
Int32 AddFilter(const FilterTableT &table, const char *text);

// Prints the heading and the filters. Returns 0.
Int32 DumpFilters(const FilterTableT &table);

// Whether the filters keep the line from being printed.
bool IsFilteredOut(const char *line);

// ---- Settings

// 1: identical lines in a row are counted instead of printed.
extern std::atomic<Int32> gSpewFilter;

// Reads the filters, which it prints, and the log format. It logs, and starts the configuration.
void LoadSettings();
