// One line of strace's text, and its parts. All views point into the line.
#pragma once

#include "bench/capture/event.h"

#include <optional>
#include <string_view>
#include <vector>

namespace bench
{

// The time in front of a line.
struct StraceTime {
    enum class Kind {
        kNone,
        kOfDay,  // -t, -tt
        kNumber, // -ttt: since 1970; or -r: since the line before. One line alone does not always tell which
    };
    Kind kind = Kind::kNone;
    WallTime value{0};
    bool wholeSeconds = false;
};

struct StraceLine {
    enum class Kind {
        kCall,       // "name(...", with its result or cut off
        kUnfinished, // "name(... <unfinished ...>"
        kResumed,    // "<... name resumed>..."
        kEnded,      // "+++ exited with 0 +++", "+++ killed by SIGKILL +++"
        kOther,      // of strace, but without a meaning here
        kForeign,    // not of strace
    };
    Kind kind = Kind::kForeign;
    std::optional<int> pid = {}; // the text does not always name it
    StraceTime time = {};
    std::string_view name = {}; // of the call
    // kCall, kUnfinished: from the name on, without "<unfinished ...>". kResumed: what is behind "resumed>".
    // kEnded: what is between the signs.
    std::string_view text = {};
};

StraceLine ParseStraceLine(std::string_view line);

// A call that is complete.
struct StraceCall {
    std::string_view name;
    std::vector<std::string_view> arguments;
    std::string_view result; // "3", "3</dev/null>", "-1 EBUSY (Device or resource busy)", "?"
    std::optional<WallTime> duration;

    // Why the call failed: "EBUSY", or "?" if strace does not say it. Empty if the call did not fail. With the result
    // "?" it is why the call was left, if that is known: "ERESTARTSYS".
    std::string_view error() const;
    // The result as a number. Nothing for "?".
    std::optional<std::int64_t> number() const;
};

// Takes a call apart. Returns false if its end is missing.
bool ParseStraceCall(std::string_view text, StraceCall &call);

// Splits what stands between brackets at its commas: "a, {b, c}" has two parts.
std::vector<std::string_view> SplitStrace(std::string_view list);

// The number that a text begins with: decimal, "0x1f" or "017". Nothing if there is no number, or if it is too large.
std::optional<std::int64_t> StraceNumber(std::string_view text);

// What is in angle brackets behind a descriptor: "/dev/fpgaserial1" of "3</dev/fpgaserial1<char 240:1>>", escapes
// undone. Nothing if there are no brackets.
std::optional<std::string> StracePath(std::string_view descriptor);

struct StraceString {
    Bytes bytes = {};
    bool cut = false; // strace left the rest out
};

// Undoes the escapes of the first string of a text: of "abc\n\001\xff"... Nothing if there is no string.
// Bytes beyond the limit are dropped.
std::optional<StraceString> ParseStraceString(std::string_view text, std::size_t limit = ~std::size_t{0});

// All strings of a list, one behind the other. Bytes behind one that was cut are not taken.
std::optional<StraceString> ParseStraceStrings(std::string_view text, std::size_t limit);

} // namespace bench
