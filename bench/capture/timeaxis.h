// Where a moment of a run lies on a page. The axis is to scale. Only if little of the time would be left for what
// happens, long stretches in which nothing happens are drawn shorter: these are the folds.
#pragma once

#include "bench/capture/event.h"

namespace bench
{

struct Span {
    WallTime begin{0}, end{0};
    WallTime length() const { return end - begin; }
};

class TimeAxis
{
public:
    struct Tick {
        double x;
        std::string label; // seconds, or minutes and seconds; empty: there is no room for it
    };
    struct Fold {
        double left, right;
        Span span;
    };

    // The axis shows the span whole. busy: when something happens in it, in any order. An axis that may not fold is to
    // scale. left and width are in units of the page.
    TimeAxis(Span shown, std::vector<Span> busy, double left, double width, bool mayFold);

    double left() const { return left_; }
    double right() const { return left_ + width_; }
    // Moments outside lie at the ends.
    double At(WallTime time) const;
    // Ticks at round times. Times count from zero.
    std::vector<Tick> Ticks(WallTime zero) const;
    const std::vector<Fold> &folds() const { return folds_; }

private:
    struct Piece { // of constant scale
        Span span;
        double left, scale; // scale: units of the page for a microsecond
    };

    void Lay(Span shown, const std::vector<Span> &folded, double scale);
    static double EndOf(const Piece &piece);

    double left_, width_;
    std::vector<Piece> pieces_; // without gaps
    std::vector<Fold> folds_;
    double scale_ = 0; // of the pieces that are no fold
};

} // namespace bench
