// The supervisor's end of the progress pipe. It is a FIFO. Its reader takes one number for each time the FIFO is
// opened, no matter how fast the numbers follow each other.
#pragma once

#include "bench/rig/descriptor.h"

#include <atomic>
#include <functional>
#include <future>
#include <string>
#include <vector>

namespace bench
{

struct ProgressOptions {
    enum class Reader {
        kStays,  // reads to the end
        kLeaves, // goes away after count numbers; the next open then waits for ever. count 0: it never comes
        kDies,   // after count numbers it dies between the writer's open and write; another reader takes over
    };
    Reader reader = Reader::kStays;
    std::size_t count = 0;
    std::function<void(const std::string &)> seen = {}; // called with each number, in the reader's thread
};

class ProgressReader
{
public:
    // Makes the FIFO at path, where nothing may be. Throws std::system_error.
    ProgressReader(std::string path, ProgressOptions options);
    // Removes the FIFO.
    ~ProgressReader();
    ProgressReader(const ProgressReader &) = delete;
    ProgressReader &operator=(const ProgressReader &) = delete;

    // Ends the thread and returns the numbers as they were written. It is called when the writer has gone. Throws the
    // thread's error, if there was one.
    const std::vector<std::string> &Finish();

private:
    struct Gate {
        Descriptor reader;
        std::size_t filling = 0;
    };

    void Stop();
    bool Leaving(std::size_t numbers) const;
    Gate Arm() const;
    void Desert() const;
    void Work(Gate gate);
    void Take(int fifo, std::size_t filling);

    const std::string path_, nextPath_;
    const ProgressOptions options_;
    std::vector<std::string> numbers_;
    std::atomic<bool> finishing_ = false;
    std::future<void> work_;
};

} // namespace bench
