#include "bench/capture/straceline.h"

#include <algorithm>
#include <charconv>

namespace bench
{

namespace
{

constexpr std::string_view kUnfinished = "<unfinished ...>";
constexpr std::size_t kNone = std::string_view::npos;
constexpr std::int64_t kLargestPid = 1 << 22; // a larger number in front is a time
constexpr std::int64_t kSecond = 1000000;     // microseconds

bool IsDigit(char sign)
{
    return sign >= '0' && sign <= '9';
}

bool IsWord(char sign)
{
    return IsDigit(sign) || sign == '_' || (sign >= 'a' && sign <= 'z') || (sign >= 'A' && sign <= 'Z');
}

std::string_view Trimmed(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(" \t\r");
    return begin == kNone ? std::string_view() : text.substr(begin, text.find_last_not_of(" \t\r") + 1 - begin);
}

void SkipSpaces(std::string_view &text)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

// Takes decimal digits off the front. Nothing if there is none, or if there are more than a number here has.
std::optional<std::int64_t> TakeDigits(std::string_view &text)
{
    constexpr std::size_t kMost = 12;
    std::int64_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + std::min(text.size(), kMost), number);
    if (text.empty() || !IsDigit(text.front()) || parsed.ec != std::errc())
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(parsed.ptr - text.data()));
    return number;
}

// Takes ".000123", with any number of digits, off the front. The text may have none.
WallTime TakeFraction(std::string_view &text)
{
    if (text.size() < 2 || text[0] != '.' || !IsDigit(text[1]))
        return WallTime{0};
    text.remove_prefix(1);
    std::int64_t value = 0;
    for (std::int64_t unit = kSecond / 10; !text.empty() && IsDigit(text.front()); unit /= 10) {
        value += unit * (text.front() - '0');
        text.remove_prefix(1);
    }
    return WallTime{value};
}

// Takes "12:34:56" off the front, the part behind "12" being the text.
std::optional<WallTime> TakeOfDay(std::int64_t hours, std::string_view &text)
{
    std::int64_t seconds = hours;
    for (int field = 0; field < 2; ++field) {
        if (text.empty() || text.front() != ':')
            return std::nullopt;
        text.remove_prefix(1);
        const auto number = TakeDigits(text);
        if (!number || *number > 60)
            return std::nullopt;
        seconds = seconds * 60 + *number;
    }
    return hours < 24 ? std::optional(WallTime{seconds * kSecond}) : std::nullopt;
}

bool EndsWord(std::string_view text)
{
    return text.empty() || text.front() == ' ';
}

// Takes the time off the front, if there is one.
StraceTime TakeTime(std::string_view &text)
{
    std::string_view rest = text;
    const auto number = TakeDigits(rest);
    if (!number)
        return {};
    StraceTime time = {.kind = StraceTime::Kind::kNumber, .value = WallTime{*number * kSecond}};
    std::string_view behind = rest;
    if (const auto ofDay = TakeOfDay(*number, behind)) {
        rest = behind;
        time.kind = StraceTime::Kind::kOfDay;
        time.value = *ofDay;
    } else if (!EndsWord(rest) && rest.front() != '.') {
        return {};
    }
    time.wholeSeconds = EndsWord(rest);
    time.value += TakeFraction(rest);
    if (!EndsWord(rest))
        return {};
    SkipSpaces(rest);
    if (rest.starts_with("(+")) { // -r beside an absolute time
        rest.remove_prefix(std::min(rest.find(')'), rest.size() - 1) + 1);
        SkipSpaces(rest);
    }
    text = rest;
    return time;
}

// Takes "[pid 123] " or "123 " off the front.
std::optional<int> TakePid(std::string_view &text)
{
    std::string_view rest = text;
    const bool brackets = rest.starts_with("[pid ");
    if (brackets) {
        rest.remove_prefix(5);
        SkipSpaces(rest);
    }
    const auto number = TakeDigits(rest);
    if (!number || *number > kLargestPid || (brackets ? !rest.starts_with("]") : !rest.starts_with(" ")))
        return std::nullopt;
    rest.remove_prefix(1);
    SkipSpaces(rest);
    text = rest;
    return static_cast<int>(*number);
}

std::size_t WordLength(std::string_view text)
{
    return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), IsWord) - text.begin());
}

// "<... name resumed>", in old texts with a space behind it.
void ParseResumed(std::string_view text, StraceLine &line)
{
    const std::size_t end = text.find(" resumed>");
    const std::size_t alone = text.find("resumed>");
    if (alone == kNone)
        return;
    line.kind = StraceLine::Kind::kResumed;
    line.name = end == kNone || end < 5 ? std::string_view() : text.substr(5, end - 5);
    line.text = text.substr(alone + 8);
}

void ParseCallLine(std::string_view text, StraceLine &line)
{
    const std::size_t length = WordLength(text);
    if (length == 0 || length >= text.size() || text[length] != '(')
        return;
    line.name = text.substr(0, length);
    const bool unfinished = text.ends_with(kUnfinished);
    line.kind = unfinished ? StraceLine::Kind::kUnfinished : StraceLine::Kind::kCall;
    line.text = text.substr(0, text.size() - (unfinished ? kUnfinished.size() : 0));
}

// ---- Arguments

// Position behind the string that begins at a position; the size of the text if the string does not end.
std::size_t EndOfString(std::string_view text, std::size_t at)
{
    for (++at; at < text.size(); ++at) {
        if (text[at] == '\\')
            ++at;
        else if (text[at] == '"')
            return at + 1;
    }
    return text.size();
}

// Position behind the angle brackets that begin at a position. "->" stands between the two ends of a connection.
std::size_t EndOfAngles(std::string_view text, std::size_t at)
{
    for (int depth = 0; at < text.size(); ++at) {
        depth += text[at] == '<' ? 1 : 0;
        depth -= text[at] == '>' && text[at - 1] != '-' ? 1 : 0;
        if (depth == 0)
            return at + 1;
    }
    return text.size();
}

// Whether angle brackets at that position say what a descriptor is.
bool OpensAngles(std::string_view text, std::size_t at)
{
    return text[at] == '<' && at > 0 && IsWord(text[at - 1]) && at + 1 < text.size() && text[at + 1] != '<';
}

// Walks over a list up to the bracket that closes it, and puts its parts into a list. Returns the position of that
// bracket, or the size of the text if there is none.
std::size_t Split(std::string_view text, std::vector<std::string_view> &parts)
{
    int depth = 0;
    std::size_t begin = 0, at = 0;
    const auto endPart = [&] {
        if (const std::string_view part = Trimmed(text.substr(begin, at - begin)); !part.empty())
            parts.push_back(part);
        begin = at + 1;
    };
    while (at < text.size()) {
        const char sign = text[at];
        if (sign == '"') {
            at = EndOfString(text, at);
            continue;
        }
        if (OpensAngles(text, at)) {
            at = EndOfAngles(text, at);
            continue;
        }
        if (sign == '(' || sign == '[' || sign == '{')
            ++depth;
        else if ((sign == ')' || sign == ']' || sign == '}') && --depth < 0)
            break;
        else if (sign == ',' && depth == 0)
            endPart();
        ++at;
    }
    at = std::min(at, text.size());
    endPart();
    return at;
}

// "<0.000123>" at the end of a result. It is taken off.
std::optional<WallTime> TakeDuration(std::string_view &result)
{
    const std::size_t open = result.rfind(" <");
    if (open == kNone || !result.ends_with(">"))
        return std::nullopt;
    std::string_view text = result.substr(open + 2);
    const auto seconds = TakeDigits(text);
    const WallTime fraction = TakeFraction(text);
    if (!seconds || text != ">")
        return std::nullopt;
    result = Trimmed(result.substr(0, open));
    return WallTime{*seconds * kSecond} + fraction;
}

// ---- Strings

unsigned ValueOf(char digit)
{
    return static_cast<unsigned>(IsDigit(digit) ? digit - '0' : (digit | 0x20) - 'a' + 10);
}

bool IsHex(char sign)
{
    return IsDigit(sign) || ((sign | 0x20) >= 'a' && (sign | 0x20) <= 'f');
}

// The byte of an escape. at is the position behind the backslash. It moves behind the escape.
std::uint8_t TakeEscape(std::string_view text, std::size_t &at)
{
    static constexpr std::string_view kLetters = "abfnrtve", kBytes = "\a\b\f\n\r\t\v\x1B";
    const char letter = text[at++];
    unsigned value = static_cast<unsigned char>(letter);
    if (letter == 'x') {
        value = 0;
        for (const std::size_t end = at + 2; at < std::min(end, text.size()) && IsHex(text[at]); ++at)
            value = value * 16 + ValueOf(text[at]);
    } else if (letter >= '0' && letter <= '7') {
        value = ValueOf(letter);
        for (const std::size_t end = at + 2; at < std::min(end, text.size()) && text[at] >= '0' && text[at] <= '7';
             ++at)
            value = value * 8 + ValueOf(text[at]);
    } else if (const std::size_t index = kLetters.find(letter); index != kNone) {
        value = static_cast<unsigned char>(kBytes[index]);
    }
    return static_cast<std::uint8_t>(value);
}

// Undoes the escapes up to a position.
void Unescape(std::string_view text, std::size_t limit, Bytes &bytes)
{
    for (std::size_t at = 0; at < text.size() && bytes.size() < limit;) {
        if (text[at] != '\\' || at + 1 == text.size())
            bytes.push_back(static_cast<std::uint8_t>(text[at++]));
        else
            bytes.push_back(TakeEscape(text, ++at));
    }
}

// Appends the first string from a position on. at moves behind it. Returns false if there is none.
bool TakeString(std::string_view text, std::size_t &at, std::size_t limit, StraceString &string)
{
    const std::size_t open = text.find('"', at);
    if (open == kNone)
        return false;
    at = EndOfString(text, open);
    Unescape(text.substr(open + 1, at - open - 2), limit, string.bytes);
    string.cut = text.substr(at).starts_with("...");
    return true;
}

} // namespace

StraceLine ParseStraceLine(std::string_view text)
{
    StraceLine line;
    while (!text.empty() && text.back() == '\r')
        text.remove_suffix(1);
    line.pid = TakePid(text);
    SkipSpaces(text);
    line.time = TakeTime(text);
    if (text.starts_with("<... ")) {
        ParseResumed(text, line);
    } else if (text.starts_with("+++ ") && text.ends_with(" +++") && text.size() > 8) {
        line.kind = StraceLine::Kind::kEnded;
        line.text = text.substr(4, text.size() - 8);
    } else if (text.starts_with("--- ") || text.starts_with("strace: ") || text.starts_with("Process ") ||
               text.starts_with(" | ")) {
        line.kind = StraceLine::Kind::kOther;
    } else {
        ParseCallLine(text, line);
    }
    return line;
}

std::string_view StraceCall::error() const
{
    const std::size_t space = result.find(' ');
    const std::string_view rest = result.substr(space == kNone ? result.size() : space + 1);
    const std::string_view word = rest.substr(0, WordLength(rest));
    const bool failed = number().value_or(0) < 0;
    if (failed && word.empty())
        return "?";
    return failed || result.starts_with("?") ? word : std::string_view();
}

std::optional<std::int64_t> StraceCall::number() const
{
    return StraceNumber(result);
}

bool ParseStraceCall(std::string_view text, StraceCall &call)
{
    const std::size_t open = text.find('(');
    if (open == kNone)
        return false;
    call = {.name = text.substr(0, open), .arguments = {}, .result = {}, .duration = {}};
    const std::string_view list = text.substr(open + 1);
    const std::size_t close = Split(list, call.arguments);
    if (close == list.size())
        return false;
    std::string_view rest = list.substr(close + 1);
    SkipSpaces(rest);
    if (!rest.starts_with("= "))
        return false;
    call.result = Trimmed(rest.substr(2));
    call.duration = TakeDuration(call.result);
    return !call.result.empty();
}

std::vector<std::string_view> SplitStrace(std::string_view list)
{
    std::vector<std::string_view> parts;
    Split(list, parts);
    return parts;
}

std::optional<std::int64_t> StraceNumber(std::string_view text)
{
    const bool negative = text.starts_with("-");
    text.remove_prefix(negative ? 1 : 0);
    int base = 10;
    if (text.starts_with("0x")) {
        base = 16;
        text.remove_prefix(2);
    } else if (text.size() > 1 && text[0] == '0' && IsDigit(text[1])) {
        base = 8;
    }
    std::uint64_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (parsed.ec != std::errc())
        return std::nullopt;
    return static_cast<std::int64_t>(negative ? 0 - number : number);
}

std::optional<std::string> StracePath(std::string_view descriptor)
{
    const std::size_t open = descriptor.find('<');
    if (open == kNone || open == 0 || !OpensAngles(descriptor, open))
        return std::nullopt;
    const std::string_view path = descriptor.substr(open + 1, EndOfAngles(descriptor, open) - open - 2);
    Bytes bytes;
    Unescape(path.substr(0, path.find('<')), kNone, bytes);
    return std::string(bytes.begin(), bytes.end());
}

std::optional<StraceString> ParseStraceString(std::string_view text, std::size_t limit)
{
    StraceString string;
    std::size_t at = 0;
    if (!TakeString(text, at, limit, string))
        return std::nullopt;
    return string;
}

std::optional<StraceString> ParseStraceStrings(std::string_view text, std::size_t limit)
{
    StraceString string;
    std::size_t at = 0;
    if (!TakeString(text, at, limit, string))
        return std::nullopt;
    while (!string.cut && string.bytes.size() < limit && TakeString(text, at, limit, string))
        ;
    return string;
}

} // namespace bench
