// A serial line: a pseudo-terminal whose far end is a device. The slave is raw and held open here, so that a program
// that closes it does not look like a hang-up.
// Owner:   the caller keeps the device as long as the line.
// Locking: between Start and Stop one thread of the line's own works the device; before and after,
//          the device belongs to the caller.
#pragma once

#include "bench/devices/device.h"
#include "bench/rig/descriptor.h"

#include <array>
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
        kNoise, // a byte of that value comes ahead of it
        kDelay, // it and all that follow come so many milliseconds later
    };
    enum Way { kToDevice, kToHost };
    Kind kind = Kind::kNone;
    Way way = kToDevice;
    std::uint64_t byte = 0; // which of that way, from 0
    std::uint8_t value = 0;
    int delayMs = 0;
};

class Line
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr double kBitsPerByte = 11; // start, eight data, parity, stop

    // baud 0: bytes are taken off the line as fast as they come; otherwise no faster than that, and the device sees
    // them when their time on the line is over. Throws std::system_error.
    explicit Line(Device &device, unsigned baud = 0);
    ~Line() { Stop(); }
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    // The file to open in place of the serial port.
    const std::string &path() const { return path_; }
    unsigned baud() const { return baud_; }
    // Bytes of the current or latest run.
    std::uint64_t carried(LineFault::Way way) const { return carried_[way]; }

    // Played in every run from the next Start on, until changed.
    LineFault fault;

    // Drops what is left of an earlier run, turns the device on and begins to carry bytes.
    void Start();
    // Carries what has been written by now, ends, and turns the device off. Late replies that are still due are
    // dropped. Does nothing on a line that is not started.
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
    void Queue(const std::vector<Reply> &replies);
    void SendDue();
    int MillisecondsToDue() const;

    Device &device_;
    const unsigned baud_;
    Descriptor master_, slave_, wake_; // wake_: readable when the thread is to end
    std::string path_;
    std::thread thread_;
    std::deque<Due> due_;
    Clock::time_point clear_;                   // when the line has carried all that was taken off it
    std::array<std::uint64_t, 2> carried_ = {}; // by way
};

} // namespace bench
