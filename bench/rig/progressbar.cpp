#include "bench/rig/progressbar.h"

#include <algorithm>
#include <cstdint>
#include <unistd.h>

namespace bench
{

std::string ProgressBar(int position, int low, int high)
{
    constexpr std::int64_t kWidth = 50;
    const std::int64_t done = std::int64_t{std::clamp(position, low, high)} - low, all = std::int64_t{high} - low;
    const auto filled = static_cast<std::size_t>(done * kWidth / all);
    return "[" + std::string(filled, '#') + std::string(kWidth - filled, ' ') + "] " +
           std::to_string(done * 100 / all) + " %";
}

ProgressDisplay::ProgressDisplay(int fd, int low, int high)
    : fd_(fd), low_(low), high_(high), terminal_(isatty(fd) == 1)
{
}

ProgressDisplay::~ProgressDisplay()
{
    if (terminal_ && position_ != 0)
        Write("\n");
}

void ProgressDisplay::Show(int position)
{
    if (position == position_)
        return;
    position_ = position;
    Write(terminal_ ? "\r" + ProgressBar(position, low_, high_) : std::to_string(position) + "\n");
}

void ProgressDisplay::Write(const std::string &text) const
{
    [[maybe_unused]] const ssize_t written = write(fd_, text.data(), text.size());
}

} // namespace bench
