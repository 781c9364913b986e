// What is at the far end of a serial line, seen from the line: it takes bytes and hands out replies.
// Owner:   the caller keeps the peer as long as its line.
// Locking: a peer has no lock. Nobody else uses it while a Line carries bytes for it.
#pragma once

#include "bench/text.h"

#include <chrono>
#include <span>

namespace bench
{

struct Reply {
    Bytes bytes;
    std::chrono::microseconds delay{0}; // time before it is sent
};

class Peer
{
public:
    Peer() = default;
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    virtual ~Peer() = default;

    // Begins a run.
    virtual void PowerOn() = 0;
    // Takes bytes and returns the replies to them, in order. The first call of a run has no bytes.
    virtual std::vector<Reply> Receive(std::span<const std::uint8_t> bytes) = 0;
    // Ends a run.
    virtual void PowerOff() = 0;
};

} // namespace bench
