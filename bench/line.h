// A serial line: a pseudo-terminal whose far end is a device. The slave is raw and held open here,
// so that a program that closes it does not look like a hang-up.
// Owner:   the caller keeps the device as long as the line.
// Locking: between Start and Stop one thread of the line's own works the device; before and after,
//          device and use() belong to the caller.
#pragma once

#include "bench/descriptor.h"
#include "bench/device.h"

#include <chrono>
#include <deque>
#include <thread>

namespace bench
{

class Line
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr double kBitsPerByte = 11; // start, eight data, parity, stop

    // What the block frames of a run took: from the first byte of the first to the last of the last.
    struct Use {
        Clock::time_point begin, end;
        std::uint64_t bytes = 0;
        // Time that the bytes need on the line as a part of the time that they took.
        double Efficiency(unsigned baud) const;
    };

    // baud 0: bytes are taken off the line as fast as they come; otherwise no faster than that, and
    // the device sees them when their time on the line is over. Throws std::system_error.
    explicit Line(Device &device, unsigned baud = 0);
    ~Line() { Stop(); }
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    // The file to open in place of the serial port.
    const std::string &path() const { return path_; }
    unsigned baud() const { return baud_; }
    const Use &use() const { return use_; }

    // Drops what is left of an earlier run, turns the device on and begins to carry bytes.
    void Start();
    // Carries what has been written by now, ends, and turns the device off. Late replies that are
    // still due are dropped. Does nothing on a line that is not started.
    void Stop();

private:
    struct Due {
        Clock::time_point when;
        Bytes bytes;
    };

    void Work();
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
    Clock::time_point clear_; // when the line has carried all that was taken off it
    std::uint64_t carried_ = 0, carriedBefore_ = 0;
    Use use_;
};

} // namespace bench
