#include "bench/capture/timeaxis.h"

#include <algorithm>
#include <cmath>

namespace bench
{

namespace
{

constexpr double kFoldWidth = 76;
constexpr double kUsefulShare = 0.3;        // axes fold until what happens has this share of them
constexpr double kLeastTime = 50;           // microseconds that are left beside the folds
constexpr double kTickDistance = 100;       // at least
constexpr double kLabelWidth = 68;          // of the longest label, with some room
constexpr double kFoldMargin = 4;           // on both sides of a fold's label
constexpr WallTime kMinutesFrom{120000000}; // a longer axis has minutes

// The stretches of a span in which nothing happens.
std::vector<Span> QuietSpans(Span shown, std::vector<Span> busy)
{
    std::ranges::sort(busy, {}, &Span::begin);
    std::vector<Span> quiet;
    WallTime covered = shown.begin;
    for (const Span &span : busy) {
        if (span.begin > covered)
            quiet.push_back({covered, std::min(span.begin, shown.end)});
        covered = std::max(covered, span.end);
    }
    if (covered < shown.end)
        quiet.push_back({covered, shown.end});
    return quiet;
}

double Count(WallTime time)
{
    return static_cast<double>(time.count());
}

// The smallest round step that is not below the least one.
WallTime RoundStep(double least)
{
    for (long long power = 1; power <= 10000000; power *= 10)
        for (const int factor : {1, 2, 5})
            if (static_cast<double>(factor * power) >= least && factor * power <= 10000000)
                return WallTime(factor * power);
    static constexpr long long kSeconds[] = {15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 21600, 43200};
    for (const long long seconds : kSeconds)
        if (static_cast<double>(seconds) * 1e6 >= least)
            return WallTime(seconds * 1000000);
    return WallTime(static_cast<long long>(std::ceil(least / 86400e6)) * 86400000000);
}

std::string Label(WallTime time, WallTime step, bool minutes)
{
    const long long us = time.count();
    if (minutes && step >= WallTime(60000000))
        return Format("%lld min", us / 60000000);
    if (minutes && step >= WallTime(1000000))
        return Format("%lld:%02lld min", us / 60000000, us / 1000000 % 60);
    int digits = 0;
    for (long long unit = 1000000; unit > 1 && step.count() % unit != 0; unit /= 10)
        ++digits;
    return Format("%.*f s", digits, Count(time) / 1e6);
}

} // namespace

TimeAxis::TimeAxis(Span shown, std::vector<Span> busy, double left, double width, bool mayFold)
    : left_(left), width_(width)
{
    double rest = std::max(Count(shown.length()), 1.0);
    double room = width;
    std::vector<Span> quiet = mayFold ? QuietSpans(shown, std::move(busy)) : std::vector<Span>();
    double least = rest / kUsefulShare; // a time of which what happens would be the useful share
    for (const Span &span : quiet)
        least -= Count(span.length()) / kUsefulShare;
    std::ranges::stable_sort(quiet, std::ranges::greater(), &Span::length);
    // Each fold makes what is left of the time larger, so the next stretch may have become too wide as well.
    std::size_t folds = 0;
    for (; folds < quiet.size() && rest > least; ++folds) {
        const double length = Count(quiet[folds].length());
        if (length * room / rest <= kFoldWidth || rest - length < kLeastTime)
            break;
        rest -= length;
        room -= kFoldWidth;
    }
    quiet.resize(folds);
    std::ranges::sort(quiet, {}, &Span::begin);
    Lay(shown, quiet, room / rest);
}

void TimeAxis::Lay(Span shown, const std::vector<Span> &folded, double scale)
{
    scale_ = scale;
    WallTime begin = shown.begin;
    double x = left_;
    const auto add = [&](WallTime until, double units) {
        pieces_.push_back({{begin, until}, x, units});
        x += Count(until - begin) * units;
        begin = until;
    };
    for (const Span &span : folded) {
        add(span.begin, scale);
        folds_.push_back({x, x + kFoldWidth, span});
        add(span.end, kFoldWidth / Count(span.length()));
    }
    add(shown.end, scale);
}

double TimeAxis::At(WallTime time) const
{
    const auto behind =
        std::ranges::upper_bound(pieces_, time, {}, [](const Piece &piece) { return piece.span.begin; });
    if (behind == pieces_.begin())
        return left_;
    const Piece &piece = *(behind - 1);
    return std::clamp(piece.left + Count(time - piece.span.begin) * piece.scale, left_, right());
}

double TimeAxis::EndOf(const Piece &piece)
{
    return piece.left + Count(piece.span.length()) * piece.scale;
}

std::vector<TimeAxis::Tick> TimeAxis::Ticks(WallTime zero) const
{
    const WallTime step = RoundStep(kTickDistance / scale_);
    const bool minutes = pieces_.back().span.end - zero >= kMinutesFrom;
    std::vector<Tick> ticks;
    double taken = left_ - kLabelWidth; // right end of the label before
    for (const Piece &piece : pieces_) {
        const auto fold = std::ranges::find(folds_, piece.left, &Fold::left);
        if (fold != folds_.end()) { // its length stands in the middle
            taken = fold->right - kFoldMargin;
            continue;
        }
        const double limit = &piece == &pieces_.back() ? right() + kLabelWidth : EndOf(piece) + kFoldMargin;
        const WallTime first = (piece.span.begin - zero + step - WallTime(1)) / step * step;
        for (WallTime time = first; time + zero <= piece.span.end; time += step) {
            const double x = At(time + zero);
            const bool room = x - kLabelWidth / 2 >= taken && x + kLabelWidth / 2 <= limit;
            ticks.push_back({x, room ? Label(time, step, minutes) : ""});
            taken = room ? x + kLabelWidth / 2 : taken;
        }
    }
    return ticks;
}

} // namespace bench
