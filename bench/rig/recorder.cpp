#include "bench/rig/recorder.h"

#include <algorithm>
#include <sstream>

namespace bench
{

namespace
{

using namespace std::chrono_literals;

constexpr auto kInterval = 50ms;
// Events are held back for this long, because others that happened before them may still be on their way.
constexpr auto kHoldBack = 50ms;

constexpr char kWrite[] = "write"; // a write begins
constexpr char kLogFull[] = "! the log of calls was full, so later calls and waits are missing";

WallTime Now()
{
    return std::chrono::duration_cast<WallTime>(std::chrono::steady_clock::now().time_since_epoch());
}

WallTime WallOffset()
{
    return std::chrono::duration_cast<WallTime>(std::chrono::system_clock::now().time_since_epoch()) - Now();
}

} // namespace

Event NoteOf(const CallLog::Entry &entry)
{
    std::string text = entry.event;
    if (!entry.addition.empty())
        text += (text.empty() ? "" : " ") + entry.addition;
    std::istringstream words(text);
    std::string call, object, rest;
    words >> call >> object;
    std::getline(words, rest);
    Event event = {.begin = entry.time, .end = entry.time};
    if (call == "half" || call == "lost")
        return event;
    std::erase(object, ':');
    const std::optional<unsigned> port = call == "wait" ? std::nullopt : ParseNumber(object, 10, 9);
    event.port = port ? static_cast<int>(*port) : kNoPort;
    event.note = port ? call + rest : text;
    return event;
}

Recorder::Recorder(Sink sink) : sink_(std::move(sink)), offset_(WallOffset()) {}

void Recorder::Watch(int port, Line &line)
{
    line.tap = [this, port](LineFault::Way way, std::span<const std::uint8_t> bytes, Line::Clock::time_point begin,
                            Line::Clock::time_point end) {
        Add({.begin = WallOf(begin.time_since_epoch()),
             .end = WallOf(end.time_since_epoch()),
             .port = port,
             .way = way == LineFault::kToDevice ? Way::kToDevice : Way::kToHost,
             .bytes = {bytes.begin(), bytes.end()}});
    };
}

void Recorder::Start(const CallLog *log)
{
    log_ = log;
    thread_ = std::thread(&Recorder::Work, this);
}

void Recorder::Note(int port, const std::string &note)
{
    const WallTime now = offset_ + Now();
    Add({.begin = now, .end = now, .port = port, .note = note});
}

void Recorder::Finish()
{
    if (!thread_.joinable())
        return;
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

WallTime Recorder::WallOf(std::chrono::steady_clock::duration sinceBoot) const
{
    return offset_ + std::chrono::duration_cast<WallTime>(sinceBoot);
}

void Recorder::Add(Event event)
{
    const std::lock_guard lock(mutex_);
    arrived_.push_back(std::move(event));
}

void Recorder::Work()
{
    for (bool ending = false; !ending;) {
        {
            std::unique_lock lock(mutex_);
            wake_.wait_for(lock, kInterval, [this] { return ending_; });
            ending = ending_;
        }
        Gather(ending);
        HandOut(ending);
    }
}

// The bytes are taken before the log: a write is logged before its bytes pass.
void Recorder::Gather(bool ended)
{
    std::vector<Event> arrived;
    {
        const std::lock_guard lock(mutex_);
        arrived.swap(arrived_);
    }
    GatherCalls(ended);
    for (Event &event : arrived) {
        if (event.way != Way::kNone)
            TakeBytes(event);
        pending_.push_back(std::move(event));
    }
    std::stable_sort(pending_.begin(), pending_.end(),
                     [](const Event &a, const Event &b) { return a.begin < b.begin; });
}

void Recorder::GatherCalls(bool ended)
{
    if (log_ == nullptr)
        return;
    for (const CallLog::Entry &entry : log_->Read(logPosition_, ended)) {
        Event event = NoteOf(entry);
        event.begin += offset_;
        event.end += offset_;
        TakeCall(std::move(event));
    }
    if (ended && log_->overflown())
        pending_.push_back({.begin = offset_ + Now(), .end = offset_ + Now(), .note = kLogFull});
}

void Recorder::TakeCall(Event event)
{
    std::vector<WallTime> &writes = writes_[event.port];
    if (event.note == kWrite)
        return writes.push_back(event.begin);
    if (event.note.starts_with("write refused") && !writes.empty())
        writes.pop_back(); // no byte will come
    if (!event.note.empty())
        pending_.push_back(std::move(event));
}

// A message begins when the program writes it. The line sees the bytes a little later, maybe behind the program's next
// call. On a busy machine it may see two writes at once, or a write whose bytes never come. So bytes never begin before
// the end of the bytes in front of them, of either way.
void Recorder::TakeBytes(Event &event)
{
    WallTime &clear = clear_[event.port];
    if (event.way == Way::kToDevice) {
        std::vector<WallTime> &writes = writes_[event.port];
        std::erase_if(writes, [&](WallTime time) { return time < clear; });
        const auto later = std::find_if(writes.begin(), writes.end(), [&](WallTime time) { return time > event.end; });
        event.begin = later == writes.begin() ? std::max(event.begin, clear) : writes.front();
        writes.erase(writes.begin(), later);
    }
    clear = event.end;
}

void Recorder::HandOut(bool all)
{
    const WallTime until = offset_ + Now() - kHoldBack;
    const auto end =
        all ? pending_.end()
            : std::find_if(pending_.begin(), pending_.end(), [&](const Event &event) { return event.begin > until; });
    if (end == pending_.begin())
        return;
    sink_({std::make_move_iterator(pending_.begin()), std::make_move_iterator(end)});
    pending_.erase(pending_.begin(), end);
}

} // namespace bench
