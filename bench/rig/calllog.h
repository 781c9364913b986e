// The log of a program's calls, which the preload library writes while the program runs.
// Locking: it has no lock. Any thread may read it at any time, each with a position of its own.
#pragma once

#include "bench/rig/descriptor.h"

#include <chrono>
#include <string>
#include <vector>

namespace bench
{

class CallLog
{
public:
    // One line; bench/standin/preload.h has its words.
    struct Entry {
        std::chrono::microseconds time; // of the steady clock
        std::string event;              // may be empty
        std::string addition;           // what only captures want to know; may be empty
    };

    CallLog();
    // The path by which another process opens it.
    std::string Path() const;
    // Returns the entries behind a position, and moves the position behind them. A running program may have taken room
    // for a line that it has not written yet: such a line and all behind it are left for the next call. If the program
    // has ended, nothing is left.
    std::vector<Entry> Read(std::size_t &position, bool ended) const;
    // Whether lines are lost for want of room.
    bool overflown() const { return Used() > Room(); }

private:
    static std::size_t Room();
    std::size_t Used() const;

    Descriptor fd_; // a file in memory
};

} // namespace bench
