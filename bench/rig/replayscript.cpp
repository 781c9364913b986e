#include "bench/rig/replayscript.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace bench
{

namespace
{

using namespace std::chrono_literals;

constexpr int kFastDivisor = 100;
// A reply that was read so soon behind a pause may have come at any time in the pause.
constexpr WallTime kReadBehindPause = 20ms;
constexpr unsigned kLongestPause = 3'600'000'000; // microseconds; no run takes longer
// A pause that begins so soon behind a message belongs to it.
constexpr WallTime kBehindMessage = 20ms;

bool IsFromHost(const Message &message)
{
    return message.event.way == Way::kToDevice;
}

bool IsEnd(const std::string &note)
{
    return note.starts_with("exit ") || note.starts_with("signal ");
}

// A capture that was made from calls may say that a message ended when the driver had taken it.
WallTime LineTime(std::size_t bytes)
{
    constexpr double kBaud = 115200;
    return WallTime(static_cast<std::int64_t>(static_cast<double>(bytes) * Line::kBitsPerByte * 1e6 / kBaud));
}

struct Pause {
    WallTime begin, time;
};

std::vector<Pause> PausesOf(const std::vector<Event> &events)
{
    std::vector<Pause> pauses;
    for (const Event &event : events) {
        std::istringstream words(event.note);
        std::string word, microseconds;
        words >> word >> microseconds;
        const std::optional<unsigned> time = ParseNumber(microseconds, 10, kLongestPause);
        if (event.way == Way::kNone && word == "wait" && time)
            pauses.push_back({event.begin, WallTime(*time)});
    }
    return pauses;
}

// How much shorter the pauses of the captured run were. A program that did something in half the time was not pausing
// any more.
int PauseDivisor(const std::vector<Event> &events, const std::vector<Pause> &pauses)
{
    for (const Pause &pause : pauses)
        for (const Event &event : events)
            if (event.begin > pause.begin && event.begin < pause.begin + pause.time / 2 && event.way == Way::kNone &&
                !event.note.starts_with("signal") && !event.note.starts_with("!"))
                return kFastDivisor;
    return 1;
}

// When things happen in the replay. Pauses may be longer or shorter there than in the captured run.
class Clockwork
{
public:
    Clockwork(const std::vector<Event> &events, bool fast)
        : pauses_(PausesOf(events)), then_(PauseDivisor(events, pauses_)), now_(fast ? kFastDivisor : 1)
    {
    }
    // How long the replay takes from one time of the capture to another.
    WallTime Between(WallTime first, WallTime last) const { return InReplay(last) - InReplay(first); }
    // Whether a pause began in this time.
    bool PausedBetween(WallTime first, WallTime last) const
    {
        return std::any_of(pauses_.begin(), pauses_.end(),
                           [&](const Pause &pause) { return pause.begin > first && pause.begin < last; });
    }
    WallTime SendTime(WallTime asked, WallTime came) const;

private:
    WallTime InReplay(WallTime time) const;

    const std::vector<Pause> pauses_;
    const int then_, now_; // divisors of the pauses
};

WallTime Clockwork::InReplay(WallTime time) const
{
    WallTime result = time;
    for (const Pause &pause : pauses_) {
        const WallTime passed = std::clamp(time - pause.begin, WallTime{0}, pause.time / then_);
        result += passed * then_ / now_ - passed;
    }
    return result;
}

// When a reply is sent. A program that pauses before it reads sees nothing of the time at which a reply came, and nor
// does a capture that was made from its calls.
WallTime Clockwork::SendTime(WallTime asked, WallTime came) const
{
    WallTime sent = came;
    for (const auto &[begin, time] : pauses_)
        if (begin >= asked && begin < came)
            sent = came >= begin + time / then_ && came < begin + time / then_ + kReadBehindPause
                       ? begin + time / then_ / 2
                       : came;
    return sent;
}

class ScriptMaker
{
public:
    ScriptMaker(const std::vector<Event> &events, bool fast)
        : events_(events), messages_(MessagesOf(events)), clockwork_(events, fast), fast_(fast)
    {
    }
    ReplayScript Make();

private:
    // The latest message of a port.
    struct Asked {
        std::size_t index = 0;
        WallTime begin{0}, end{0};
        WallTime carried{0}; // when a line of the devices' speed has carried it, at the earliest
    };

    void FindFastLines();
    void Add(const Message &message);
    void AddReply(const Message &message);
    bool TooLate(int port, WallTime asked, WallTime came) const;

    const std::vector<Event> &events_;
    const std::vector<Message> messages_;
    const Clockwork clockwork_;
    const bool fast_;
    ReplayScript script_;
    std::set<int> fastLines_; // their messages ended when the capture says so
    std::map<int, Asked> last_;
    std::map<int, unsigned> counts_; // by port
    WallTime previousEnd_{0};
};

ReplayScript ScriptMaker::Make()
{
    if (events_.empty())
        return {};
    FindFastLines();
    previousEnd_ = events_.front().begin;
    script_.duration = clockwork_.Between(events_.front().begin, events_.back().end);
    for (const Message &message : messages_) {
        if (message.event.port != kNoPort)
            script_.ports.insert(message.event.port);
        if (IsFromHost(message))
            Add(message);
        else if (message.event.way == Way::kToHost)
            AddReply(message);
        else if (IsEnd(message.name))
            script_.end = message.name;
    }
    return std::move(script_);
}

// A line is fast if a reply comes before a line of the devices' speed can have carried the message.
void ScriptMaker::FindFastLines()
{
    std::map<int, WallTime> carried;
    for (const Message &message : messages_) {
        const Event &event = message.event;
        if (IsFromHost(message))
            carried[event.port] = event.begin + LineTime(event.bytes.size());
        else if (message.kind >= Message::Kind::kVersion && message.kind <= Message::Kind::kVerdict &&
                 event.begin < carried[event.port])
            fastLines_.insert(event.port);
    }
}

void ScriptMaker::Add(const Message &message)
{
    const Event &event = message.event;
    const WallTime gap = clockwork_.Between(previousEnd_, event.begin);
    previousEnd_ = event.end;
    const WallTime lineTime = fastLines_.contains(event.port) ? WallTime{0} : LineTime(event.bytes.size());
    last_[event.port] = {script_.messages.size(), event.begin, event.end, event.begin + lineTime};
    script_.messages.push_back({.port = event.port,
                                .name = Format("message %u to %s, %s", ++counts_[event.port],
                                               PortName(event.port).c_str(), message.name.c_str()),
                                .bytes = event.bytes,
                                .gap = gap,
                                .time = event.end - event.begin,
                                .replies = {}});
}

void ScriptMaker::AddReply(const Message &message)
{
    const Event &event = message.event;
    const auto last = last_.find(event.port);
    if (last == last_.end()) {
        const WallTime delay = clockwork_.Between(events_.front().begin, event.begin);
        return script_.unasked[event.port].push_back({event.bytes, fast_ ? WallTime{0} : delay});
    }
    const auto &[index, begin, end, carried] = last->second;
    WallTime delay{0};
    if (!fast_ || TooLate(event.port, end, event.begin))
        delay = clockwork_.Between(std::max(end, carried), clockwork_.SendTime(begin, event.begin));
    script_.messages[index].replies.push_back({event.bytes, std::max(delay, WallTime{0})});
}

// Whether the program has stopped to wait for a reply before it came. A program that still waits makes no other pause
// than that behind its message.
bool ScriptMaker::TooLate(int port, WallTime asked, WallTime came) const
{
    const bool closed = std::any_of(events_.begin(), events_.end(), [&](const Event &event) {
        return event.port == port && event.note == "close" && event.begin >= asked && event.begin <= came;
    });
    return closed || clockwork_.PausedBetween(asked + kBehindMessage, came);
}

// ---- Calls that fail

class FailureFinder
{
public:
    explicit FailureFinder(const std::vector<Event> &events) : messages_(MessagesOf(events)) {}
    std::map<int, FailedCalls> Find();

private:
    struct Counts {
        unsigned opens = 0, requests = 0, writes = 0; // so far
        std::size_t lastPiece = 0;                    // size of the message if it is the latest one and not complete
    };

    void Take(const Message &note);
    void TakeOpen(const Message &note, const std::string &error);
    void TakeWrite(const Message &note, int size);
    void Require(bool possible, const Message &note) const;

    const std::vector<Message> messages_;
    std::map<int, Counts> counts_;
    std::map<int, FailedCalls> failed_;
};

std::map<int, FailedCalls> FailureFinder::Find()
{
    for (const Message &message : messages_) {
        Counts &counts = counts_[message.event.port];
        if (IsFromHost(message)) {
            ++counts.writes;
            counts.lastPiece = message.kind == Message::Kind::kPiece ? message.event.bytes.size() : 0;
        } else if (message.kind == Message::Kind::kNote && message.event.port != kNoPort) {
            Take(message);
        }
    }
    return std::move(failed_);
}

void FailureFinder::Require(bool possible, const Message &note) const
{
    if (!possible)
        throw std::runtime_error("the capture cannot be replayed: no run can repeat \"" + note.name + "\" of " +
                                 PortName(note.event.port));
}

void FailureFinder::Take(const Message &note)
{
    const std::size_t refused = note.name.find(" refused");
    std::istringstream words(note.name);
    std::string call, size, error;
    words >> call >> size;
    if (refused != std::string::npos)
        std::istringstream(note.name.substr(refused)) >> error >> error;
    Counts &counts = counts_[note.event.port];
    if (call == "open") {
        TakeOpen(note, error);
    } else if (call == "config" || call == "rx") {
        ++counts.requests;
        if (error.empty())
            return;
        unsigned &ordinal = failed_[note.event.port].orders.refusedRequest;
        Require(error == "EIO" && ordinal == 0, note);
        ordinal = counts.requests;
    } else if (call == "write") {
        Require(error.empty() || error == "EIO", note);
        TakeWrite(note, error.empty() ? static_cast<int>(ParseNumber(size, 10, 1U << 20).value_or(0)) : -1);
    } else {
        Require(error.empty(), note);
    }
}

void FailureFinder::TakeOpen(const Message &note, const std::string &error)
{
    unsigned &opens = counts_[note.event.port].opens;
    FailedCalls &failed = failed_[note.event.port];
    ++opens;
    Require(!failed.missing || error == "ENOENT", note);
    if (error.empty())
        return;
    Require(error == "EBUSY" || error == "ENOENT", note);
    if (error == "ENOENT") {
        Require(failed.missing || opens == 1, note);
        failed.missing = true;
    } else {
        Require(failed.orders.refusedOpens + 1 == opens, note);
        failed.orders.refusedOpens = opens;
    }
}

// size is the number of bytes that were written all the same; -1: the call failed.
void FailureFinder::TakeWrite(const Message &note, int size)
{
    Counts &counts = counts_[note.event.port];
    Port &orders = failed_[note.event.port].orders;
    Require(orders.cutWrite == 0, note);
    const bool counted = size > 0 && counts.lastPiece == static_cast<std::size_t>(size); // its bytes came before
    orders.cutWrite = counts.writes + (counted ? 0 : 1);
    orders.cutTo = size;
}

// The name of a note, without what depends on bytes that were not sent.
std::string ActOf(const std::string &note)
{
    const std::size_t of = note.starts_with("write ") ? note.find(" of ") : std::string::npos;
    return of == std::string::npos ? note : note.substr(0, of) + " of ? bytes";
}

} // namespace

ReplayScript ScriptOf(const std::vector<Event> &events, bool fast)
{
    return ScriptMaker(events, fast).Make();
}

std::map<int, FailedCalls> FailedCallsOf(const std::vector<Event> &events)
{
    return FailureFinder(events).Find();
}

std::vector<std::string> ActsOf(const std::vector<Event> &events)
{
    std::vector<std::string> acts;
    for (const Message &message : MessagesOf(events)) {
        const bool note = message.kind == Message::Kind::kNote;
        if (!IsFromHost(message) && (!note || message.name.starts_with("!") || IsEnd(message.name)))
            continue;
        const std::string place = message.event.port == kNoPort ? "" : PortName(message.event.port) + ": ";
        acts.push_back(place + (note ? ActOf(message.name) : message.name));
    }
    return acts;
}

bool SameAct(const std::string &a, const std::string &b)
{
    std::istringstream wordsA(a), wordsB(b);
    for (;;) {
        std::string wordA, wordB;
        wordsA >> wordA;
        wordsB >> wordB;
        if (wordA != wordB && wordA != "?" && wordB != "?")
            return false;
        if (wordA.empty() || wordB.empty())
            return wordA == wordB;
    }
}

} // namespace bench
