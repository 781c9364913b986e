#include "bench/capture/digest.h"

#include "bench/rig/line.h"

#include <algorithm>
#include <ranges>

namespace bench
{

namespace
{

using Kind = Message::Kind;

constexpr double kLineSpeed = 115200; // bit/s of both lines

bool IsRequest(Kind kind)
{
    return kind <= Kind::kRetry;
}

bool IsAnswer(Kind kind)
{
    return kind == Kind::kVersion || kind == Kind::kModeReply || kind == Kind::kVerdict;
}

Fate FateOf(const Message &answer)
{
    if (!answer.verdict)
        return Fate::kAnswered;
    return *answer.verdict == kAck ? Fate::kAccepted : *answer.verdict == kNack ? Fate::kRefused : Fate::kUnknown;
}

// Whether a note is one of those that event.h lists.
bool IsKnown(const std::string &note)
{
    static constexpr const char *kWords[] = {"open",  "config", "rx",   "write",  "read",
                                             "close", "wait",   "exit", "signal", "!"};
    const std::string word = note.substr(0, note.find(' '));
    return std::ranges::find(kWords, word) != std::end(kWords);
}

// What is known about one line while the steps are walked. Indices are those of steps.
struct Walk {
    std::optional<WallTime> lastEnd = {};
    std::optional<std::size_t> request = {}; // that has no answer yet
    std::optional<std::size_t> block = {};   // the latest one
};

class Digester
{
public:
    explicit Digester(Digest &digest) : digest_(digest) {}
    void Take(std::size_t index);
    void EndWaits();

private:
    void Answer(Walk &walk, Step &answer);
    void Send(Walk &walk, std::size_t index);
    bool IsAgain(const Walk &walk, const Message &message) const;

    Digest &digest_;
    std::map<int, Walk> walks_;
};

void Digester::Take(std::size_t index)
{
    Step &step = digest_.steps[index];
    const Event &event = step.message.event;
    if (event.port == kNoPort)
        return;
    Walk &walk = walks_[event.port];
    if (walk.lastEnd)
        step.gap = event.begin - *walk.lastEnd;
    if (event.bytes.empty())
        return;
    walk.lastEnd = event.end;
    if (event.way == Way::kToDevice)
        Send(walk, index);
    else if (IsAnswer(step.message.kind))
        Answer(walk, step);
}

void Digester::Send(Walk &walk, std::size_t index)
{
    Step &step = digest_.steps[index];
    walk.request.reset();
    if (!IsRequest(step.message.kind))
        return;
    step.fate = Fate::kSilence;
    step.again = IsAgain(walk, step.message);
    walk.request = index;
    if (step.message.kind == Kind::kBlock)
        walk.block = index;
}

bool Digester::IsAgain(const Walk &walk, const Message &message) const
{
    if (message.kind != Kind::kBlock || !walk.block)
        return message.kind == Kind::kRetry;
    const Message &before = digest_.steps[*walk.block].message;
    return before.block == message.block && before.type == message.type;
}

void Digester::Answer(Walk &walk, Step &answer)
{
    answer.fate = FateOf(answer.message);
    if (!walk.request)
        return;
    Step &request = digest_.steps[*walk.request];
    request.fate = answer.fate;
    request.answerTime = answer.answerTime = answer.message.event.begin - request.message.event.end;
    walk.request.reset();
}

// A silence ends with the program's next act on that line, and a wait with its next act anywhere.
void Digester::EndWaits()
{
    WallTime anywhere = digest_.end;
    std::map<int, WallTime> next;
    for (Step &step : std::views::reverse(digest_.steps)) {
        const Event &event = step.message.event;
        WallTime &here = next.try_emplace(event.port, digest_.end).first->second;
        if (event.note.starts_with("wait "))
            step.until =
                std::min(anywhere, event.begin + WallTime(ParseNumber(event.note.substr(5), 10, ~0U).value_or(0)));
        else if (step.fate == Fate::kSilence)
            step.until = std::max(here, event.end);
        if (event.way != Way::kToHost && !event.note.starts_with("!"))
            here = anywhere = event.begin;
    }
}

void Count(LineTotals &totals, const Step &step)
{
    const Message &message = step.message;
    const Event &event = message.event;
    if (event.bytes.empty())
        return;
    ++totals.messages;
    (event.way == Way::kToDevice ? totals.toDevice : totals.toHost) += event.bytes.size();
    totals.retries += step.again;
    totals.noise += message.kind == Kind::kNoise || message.kind == Kind::kPiece;
    if (message.kind != Kind::kBlock)
        return;
    ++totals.blocks;
    totals.accepted += step.fate == Fate::kAccepted;
    totals.unknown += step.fate == Fate::kUnknown;
    totals.refused += step.fate == Fate::kRefused;
    totals.silent += step.fate == Fate::kSilence;
    const std::size_t size = message.data.size() - std::min(message.data.size(), kNumberSize);
    totals.image += size;
    totals.acceptedImage += step.fate == Fate::kAccepted ? size : 0;
}

std::string Trimmed(double value)
{
    std::string text = Format("%.*f", value < 9.995 ? 2 : value < 99.95 ? 1 : 0, value);
    if (text.find('.') != std::string::npos)
        text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.')
        text.pop_back();
    return text;
}

// The length of the UTF-8 character at the place; 0: there is none.
std::size_t CharacterAt(const std::string &text, std::size_t place)
{
    const auto at = [&](std::size_t i) { return static_cast<std::uint8_t>(i < text.size() ? text[i] : 0); };
    const std::uint8_t first = at(place), second = at(place + 1);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7F ? 1 : 0;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    for (std::size_t i = 1; i < length; ++i)
        if ((at(place + i) & 0xC0) != 0x80)
            return 0;
    // Characters that are longer than needed, halves of pairs, numbers above the last one, and the C1 controls.
    const bool bad = first < 0xC2 || first > 0xF4 || (first == 0xE0 && second < 0xA0) ||
                     (first == 0xED && second > 0x9F) || (first == 0xEF && second == 0xBF && at(place + 2) > 0xBD) ||
                     (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F) ||
                     (first == 0xC2 && second < 0xA0);
    return bad ? 0 : length;
}

} // namespace

double LineTotals::Use(WallTime duration) const
{
    const auto bits = static_cast<double>(toDevice + toHost) * Line::kBitsPerByte;
    return duration.count() <= 0 ? 0 : bits / kLineSpeed / (static_cast<double>(duration.count()) / 1e6) * 100;
}

double LineTotals::Accepted() const
{
    return image == 0 ? 0 : static_cast<double>(acceptedImage) * 100 / static_cast<double>(image);
}

Digest DigestOf(const Capture &capture)
{
    Digest digest = {.info = capture.info};
    for (Message &message : MessagesOf(capture.events))
        if (message.kind != Kind::kNote || IsKnown(message.name))
            digest.steps.push_back({.message = std::move(message)});
    if (digest.steps.empty())
        return digest;
    digest.begin = digest.steps.front().message.event.begin;
    for (const Step &step : digest.steps)
        digest.end = std::max(digest.end, step.message.event.end);
    Digester digester(digest);
    for (std::size_t i = 0; i < digest.steps.size(); ++i)
        digester.Take(i);
    digester.EndWaits();
    for (const Step &step : digest.steps) {
        const Event &event = step.message.event;
        if (event.port != kNoPort)
            Count(digest.lines[event.port], step);
        if (event.note.starts_with("exit ") || event.note.starts_with("signal "))
            digest.ending = event.note;
    }
    return digest;
}

std::string DateText(WallTime time)
{
    using namespace std::chrono;
    const auto day = floor<days>(time);
    const year_month_day date{sys_days(day)};
    const hh_mm_ss clock{floor<seconds>(time - day)};
    if (!date.ok())
        return "date unknown";
    return Format("%04d-%02u-%02u %02d:%02d:%02d UTC", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
}

std::string TimeText(WallTime time)
{
    const auto us = static_cast<double>(time.count());
    if (time.count() == 0)
        return "0 s";
    if (us < 1e3)
        return Format("%.0f µs", us);
    if (us < 999.5e3)
        return Trimmed(us / 1e3) + " ms";
    if (us < 119.5e6)
        return Trimmed(us / 1e6) + " s";
    const auto seconds = static_cast<long long>(us / 1e6 + 0.5);
    return Format("%lld min %lld s", seconds / 60, seconds % 60);
}

std::string Printable(const std::string &text)
{
    std::string clean;
    for (std::size_t place = 0; place < text.size();) {
        const std::size_t length = CharacterAt(text, place);
        clean += length == 0 ? "?" : text.substr(place, length);
        place += std::max<std::size_t>(length, 1);
    }
    return clean;
}

} // namespace bench
