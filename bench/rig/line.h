// A serial line: a pseudo-terminal whose far end is a device, or what takes its place. The slave is raw. The line holds
// it open too, so that a program that closes it does not look like a hang-up. A line can also begin at a terminal that
// is there already, behind which there is a host.
// Gone:    a line is gone when the terminal of its device or of its host hangs up. So the adapter was unplugged, or the
//          process at the other end of a pseudo-terminal ended. A host that closes its port and opens it again is not
//          gone, and neither is one that is silent. The line never comes back. Its pseudo-terminal hangs up as well:
//          reads of the program end, writes give EIO.
// Owner:   the caller keeps the device, and the terminal, as long as the line.
// Locking: between Start and Stop only a thread of the line uses the device. Before and after, the caller may.
#pragma once

#include "bench/devices/peer.h"
#include "bench/rig/descriptor.h"

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <thread>

namespace bench
{

// What happens to one byte of a run on its way.
struct LineFault {
    enum class Kind {
        kNone,
        kDrop,
        kFlip, // the bits of value change
        kDouble,
        kNoise, // a byte of that value comes before it
        kDelay, // this byte and all later ones come later, by delayMs
    };
    enum Way { kToDevice, kToHost };
    Kind kind = Kind::kNone;
    Way way = kToDevice;
    std::uint64_t byte = 0; // index of the byte among those of that way
    std::uint8_t value = 0;
    int delayMs = 0;
};

class Terminal;

class Line
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr double kBitsPerByte = 11; // start, eight data, parity, stop

    // With baud 0 bytes are taken off the line as fast as they come. Otherwise the line has that speed, and the device
    // gets a byte when its time on the line is over. Throws std::system_error.
    explicit Line(Peer &device, unsigned baud = 0);
    // A line that begins at a terminal.
    Line(Peer &device, const Terminal &host);
    ~Line() { Stop(); }
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    // The file to open in place of the serial port.
    const std::string &path() const { return path_; }
    bool gone() const { return gone_; }
    unsigned baud() const { return baud_; }
    // Number of bytes in the current run, or else in the latest one.
    std::uint64_t carried(LineFault::Way way) const { return carried_[way]; }

    // Called with all bytes that pass, at the host's end: those to the device before the fault, those to the host
    // behind it. begin and end are the times of the first and the last byte. Those of bytes to a real device follow
    // from its speed, so they may lie ahead. It is set before Start. It runs in a thread of the line, in the order of
    // the bytes.
    using Tap = std::function<void(LineFault::Way way, std::span<const std::uint8_t> bytes, Clock::time_point begin,
                                   Clock::time_point end)>;
    Tap tap;

    // The fault that is played in every run from the next Start on.
    LineFault fault;

    // Drops the bytes that are left of an earlier run, turns the device on and begins to carry bytes.
    void Start();
    // Carries the bytes that have been written so far, ends, and turns the device off. Late replies that are still due
    // are dropped. The call does nothing on a line that is not started.
    void Stop();

private:
    struct Due {
        Clock::time_point when;
        Bytes bytes;
    };

    void Work();
    using Sink = std::function<void(std::span<const std::uint8_t>)>;
    void Pass(LineFault::Way way, std::span<const std::uint8_t> bytes, const Sink &sink);
    bool CarrySome(unsigned baud);
    void FetchSome();
    void Queue(const std::vector<Reply> &replies);
    void SendDue();
    int MillisecondsToDue() const;

    Peer &device_;
    const unsigned baud_;
    Descriptor master_, slave_; // of the pseudo-terminal
    int host_;                  // descriptor of the host's end
    Descriptor wake_;           // readable when the thread is to end
    std::string path_;
    std::atomic<bool> gone_{false};
    std::thread thread_;
    std::deque<Due> due_;
    Clock::time_point clear_;                   // when the line has carried all bytes that were taken off it
    std::array<std::uint64_t, 2> carried_ = {}; // by way
};

} // namespace bench
