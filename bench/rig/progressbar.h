// A position of an update, drawn for people.
#pragma once

#include <string>

namespace bench
{

// "[#####     ] 50 %", with 50 places for signs. low and high are the bounds of the position, and low is below high. A
// position beyond a bound is drawn as the bound.
std::string ProgressBar(int position, int low, int high);

// Shows positions on a descriptor. The caller keeps the descriptor.
// - On a terminal there is one bar, which is drawn anew for each position. The destructor ends its line.
// - Elsewhere each position is a line, written at once.
// A position that is shown already is not shown again. An error of the descriptor is ignored: the update goes on.
class ProgressDisplay
{
public:
    ProgressDisplay(int fd, int low, int high);
    ~ProgressDisplay();
    ProgressDisplay(const ProgressDisplay &) = delete;
    ProgressDisplay &operator=(const ProgressDisplay &) = delete;

    void Show(int position);
    int position() const { return position_; } // the last one; 0: there is none, because positions begin at 1

private:
    void Write(const std::string &text) const;

    const int fd_, low_, high_;
    const bool terminal_;
    int position_ = 0;
};

} // namespace bench
