// Lines that leave the machine: to a real device, or from a real board.
#pragma once

#include "bench/rig/run.h"
#include "bench/rig/terminal.h"

#include <csignal>
#include <list>
#include <optional>

namespace bench
{

// A line of a run that leads to a real device.
class RealLine
{
public:
    // Takes the terminal of that path. The port then leads to it. If the terminal cannot be had, opens of the port fail
    // with the error that a driver would give. The line lives as long as the run.
    RealLine(const std::string &path, Port &port);

    // What went wrong, such as "/dev/ttyUSB0: there is no such device" or "/dev/ttyUSB0 hung up". Empty: nothing.
    std::string Complaint() const;

private:
    std::optional<Terminal> terminal_;
    std::optional<TerminalPeer> peer_;
    std::optional<Line> line_;
    std::string refusal_;
};

// A line from a real board to a device in software.
class ServedLine
{
public:
    // Takes the terminal of that path, and sets its speed, 8 data bits, even parity and one stop bit. Throws
    // TerminalError.
    ServedLine(Peer &device, const std::string &path, unsigned baud);

private:
    Terminal terminal_;

public:
    Line line;
};

using ServedLines = std::list<ServedLine>;

// The signals that end serving: SIGHUP, SIGINT and SIGTERM. While this lives, they are blocked in this thread and in
// those that it starts.
class EndSignals
{
public:
    EndSignals();
    ~EndSignals();
    EndSignals(const EndSignals &) = delete;
    EndSignals &operator=(const EndSignals &) = delete;

    // Returns when one of the signals comes, or when all lines are gone.
    void Await(const ServedLines &lines) const;

private:
    sigset_t signals_, before_;
};

} // namespace bench
