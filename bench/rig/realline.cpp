#include "bench/rig/realline.h"

#include "bench/standin/driver.h"

#include <algorithm>
#include <csignal>
#include <limits>

namespace bench
{

RealLine::RealLine(const std::string &path, Port &port)
{
    try {
        terminal_.emplace(path);
    } catch (const TerminalError &error) {
        refusal_ = error.what();
        port.line = nullptr;
        port.refusedOpens = std::numeric_limits<unsigned>::max();
        port.openError = error.number;
        return;
    }
    line_.emplace(peer_.emplace(*terminal_));
    port.line = &*line_;
    port.terminal = terminal_->fd();
}

std::string RealLine::Complaint() const
{
    if (!line_)
        return refusal_;
    return line_->gone() ? terminal_->path() + " hung up" : "";
}

ServedLine::ServedLine(Peer &device, const std::string &path, unsigned baud) : terminal_(path), line(device, terminal_)
{
    const DriverConfig evenParity = {31, baud, 2, 0, 0, 3};
    int error = ConfigureTerminal(terminal_.fd(), evenParity);
    if (error == 0)
        error = SwitchReceiver(terminal_.fd(), true);
    if (error != 0)
        throw TerminalError(path, error);
}

EndSignals::EndSignals()
{
    sigemptyset(&signals_);
    for (const int number : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&signals_, number);
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
}

EndSignals::~EndSignals()
{
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void EndSignals::Await(const ServedLines &lines) const
{
    constexpr timespec kLook = {0, 50000000}; // how often the lines are looked at
    while (!std::ranges::all_of(lines, [](const ServedLine &served) { return served.line.gone(); }) &&
           sigtimedwait(&signals_, nullptr, &kLook) < 0)
        ;
}

} // namespace bench
