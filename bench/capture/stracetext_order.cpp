#include "bench/capture/stracetext_inner.h"

#include <algorithm>
#include <utility>

namespace bench::strace
{

namespace
{

constexpr WallTime kDay = std::chrono::hours(24);
constexpr WallTime kYears = kDay * 1000;       // no run takes that long
constexpr WallTime kClockStep{1000};           // a clock that goes back by more than this was set
constexpr std::size_t kMostWaiting = 32 << 20; // bytes; then a call that does not end loses its place

} // namespace

WallTime Clock::Take(const StraceTime &time)
{
    if (time.kind == StraceTime::Kind::kNone)
        return WallTime{0};
    WallTime next = time.value + shift_;
    if (time.kind == StraceTime::Kind::kNumber && relative_)
        next = now_ + time.value;
    if (time.kind == StraceTime::Kind::kOfDay && next < now_ - kDay / 2) {
        shift_ += kDay; // midnight
        next += kDay;
    }
    const WallTime back = std::max(now_ - next, WallTime{0});
    shift_ = std::min(shift_ + back, kLatest);
    now_ = std::min(std::max(now_, next), kLatest);
    return back > kClockStep ? back : WallTime{0};
}

void TimeStyle::Take(const StraceTime &time)
{
    has_ = has_ || time.kind != StraceTime::Kind::kNone;
    ofDay_ = ofDay_ || time.kind == StraceTime::Kind::kOfDay;
    whole_ = whole_ || time.wholeSeconds;
    if (time.kind != StraceTime::Kind::kNumber)
        return;
    large_ = large_ || time.value > kYears;
    falls_ = falls_ || time.value < last_ || time.value == WallTime{0};
    last_ = time.value;
}

std::vector<std::string> TimeStyle::remarks() const
{
    std::vector<std::string> remarks;
    if (!has_)
        remarks.emplace_back("! the text has no times (strace -ttt): the events are numbered a microsecond apart");
    if (ofDay_)
        remarks.emplace_back("! the text has no date (strace -ttt): its first day is called 1970-01-01");
    if (relative())
        remarks.emplace_back("! the text has no date (strace -ttt): its beginning is called 1970-01-01 00:00:00");
    if (whole_)
        remarks.emplace_back("! the times are whole seconds (strace -ttt has microseconds)");
    return remarks;
}

Order::Place Order::Keep()
{
    if (!sink_)
        return std::nullopt;
    waitingSize_ += sizeof(Entry);
    waiting_.push_back({.decided = false, .events = {}});
    return first_ + waiting_.size() - 1;
}

void Order::Add(Place place, Event event)
{
    if (!sink_)
        return;
    waitingSize_ += sizeof event + event.bytes.size();
    if (!place || *place < first_) {
        waitingSize_ += sizeof(Entry);
        waiting_.push_back({.decided = true, .events = {}});
        waiting_.back().events.push_back(std::move(event));
    } else {
        waiting_[*place - first_].events.push_back(std::move(event));
    }
    HandOut();
}

void Order::End(Place place)
{
    if (place && *place >= first_)
        waiting_[*place - first_].decided = true;
    HandOut();
}

void Order::HandOut()
{
    for (; !waiting_.empty() && (waiting_.front().decided || waitingSize_ > kMostWaiting); ++first_) {
        waitingSize_ -= sizeof(Entry);
        for (Event &event : waiting_.front().events) {
            waitingSize_ -= sizeof event + event.bytes.size();
            Send(std::move(event));
        }
        waiting_.pop_front();
    }
}

// Times of calls may be rounded. The order counts.
void Order::Send(Event event)
{
    if (!std::exchange(begun_, true))
        for (const std::string &remark : known_.remarks)
            Send({.begin = event.begin, .end = event.begin, .note = remark});
    if (!known_.hasTimes)
        event.begin = event.end = last_ + WallTime{1};
    event.begin = last_ = std::max(event.begin, last_);
    event.end = std::max(event.end, event.begin);
    sink_(event);
}

} // namespace bench::strace
