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
        std::string word;
        std::int64_t microseconds = 0;
        if (event.way == Way::kNone && words >> word >> microseconds && word == "wait")
            pauses.push_back({event.begin, WallTime(microseconds)});
    }
    return pauses;
}

class ScriptMaker
{
public:
    ScriptMaker(const std::vector<Event> &events, bool fast) : events_(events), pauses_(PausesOf(events)), fast_(fast)
    {
    }
    ReplayScript Make();

private:
    void Add(const Message &message);
    void AddReply(const Message &message);
    WallTime SendTime(WallTime asked, WallTime came) const;
    bool ClosedBetween(int port, WallTime first, WallTime last) const;
    WallTime Gap(WallTime first, WallTime last) const;

    const std::vector<Event> &events_;
    const std::vector<Pause> pauses_;
    const bool fast_;
    ReplayScript script_;
    std::map<int, std::size_t> last_; // by port: index of the latest message
    std::map<int, WallTime> ended_;   // by port: the end of that message
    std::map<int, WallTime> carried_; // by port: when a line of the devices' speed has carried it, at the earliest
    std::map<int, unsigned> counts_;  // by port
    WallTime previousEnd_{0};
};

ReplayScript ScriptMaker::Make()
{
    if (events_.empty())
        return {};
    previousEnd_ = events_.front().begin;
    script_.duration = Gap(events_.front().begin, events_.back().end);
    for (const Message &message : MessagesOf(events_)) {
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

void ScriptMaker::Add(const Message &message)
{
    const Event &event = message.event;
    const WallTime gap = Gap(previousEnd_, event.begin);
    previousEnd_ = event.end;
    last_[event.port] = script_.messages.size();
    ended_[event.port] = event.end;
    carried_[event.port] = event.begin + LineTime(event.bytes.size());
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
    const bool asked = last != last_.end();
    const WallTime from = asked ? ended_[event.port] : events_.front().begin;
    const bool late = asked && ClosedBetween(event.port, from, event.begin);
    WallTime delay = event.begin - from;
    if (!late)
        delay = fast_ ? WallTime{0} : SendTime(from, event.begin) - std::max(from, carried_[event.port]);
    delay = std::max(delay, WallTime{0});
    (asked ? script_.messages[last->second].replies : script_.unasked[event.port]).push_back({event.bytes, delay});
}

// When a reply is sent. A program that pauses before it reads sees nothing of the time at which a reply came, and nor
// does a capture that was made from its calls.
WallTime ScriptMaker::SendTime(WallTime asked, WallTime came) const
{
    for (const auto &[begin, time] : pauses_)
        if (begin >= asked && came >= begin + time && came < begin + time + kReadBehindPause)
            return begin;
    return came;
}

bool ScriptMaker::ClosedBetween(int port, WallTime first, WallTime last) const
{
    return std::any_of(events_.begin(), events_.end(), [&](const Event &event) {
        return event.port == port && event.note == "close" && event.begin >= first && event.begin <= last;
    });
}

// How long a run takes from one time to another. The pauses of the captured run may have been shortened.
WallTime ScriptMaker::Gap(WallTime first, WallTime last) const
{
    WallTime paused{0};
    for (const auto &[begin, time] : pauses_)
        if (begin >= first && begin <= last)
            paused += time;
    const WallTime full = std::max(last - first, paused);
    return fast_ ? full - paused + paused / kFastDivisor : full;
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
