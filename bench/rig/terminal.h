// A terminal of the machine, such as a serial adapter, and the real device behind it.
#pragma once

#include "bench/devices/peer.h"
#include "bench/rig/descriptor.h"

#include <stdexcept>

namespace bench
{

// Why a terminal cannot be had. The text names it.
class TerminalError : public std::runtime_error
{
public:
    TerminalError(const std::string &path, int error);

    // What the open of a driver would give:
    // ENOENT  there is no such file
    // ENODEV  there is no device behind the file; ENXIO from some drivers
    // ENOTTY  the file is not a terminal
    // EBUSY   another program uses the terminal
    // EINVAL  the terminal cannot have the settings
    // other   the error of the system, such as EACCES
    const int number;
};

// A terminal that this process alone uses. It gets its settings of before back when the object ends, or when SIGHUP,
// SIGINT or SIGTERM ends the process. Programs that announce their use only by a file in /var/lock are not noticed.
// Locking: the descriptor may be used in any thread.
class Terminal
{
public:
    // Opens the terminal. It is raw, non-blocking, with 8 data bits and one stop bit, without flow control and modem
    // lines. Its receiver is off. What has come before is dropped.
    // Throws TerminalError.
    explicit Terminal(std::string path);
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    int fd() const { return fd_.get(); }
    const std::string &path() const { return path_; }
    unsigned speed() const; // bit/s; 0: no standard speed

private:
    std::string path_;
    Descriptor fd_;
};

// The device behind a terminal.
// Owner: the caller keeps the terminal as long as the peer.
class TerminalPeer : public Peer
{
public:
    explicit TerminalPeer(const Terminal &terminal) : terminal_(terminal) {}

    void PowerOn() override { outbox_.clear(); }
    std::vector<Reply> Receive(std::span<const std::uint8_t> bytes) override;
    void PowerOff() override {}

    int descriptor() const override { return terminal_.fd(); }
    std::optional<Bytes> Fetch() override;
    bool full() const override { return !outbox_.empty(); }
    unsigned speed() const override { return terminal_.speed(); }

private:
    void Send();

    const Terminal &terminal_;
    Bytes outbox_; // what the terminal has not taken yet
};

} // namespace bench
