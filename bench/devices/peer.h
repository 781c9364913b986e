// What is at the far end of a serial line, seen from the line: it takes bytes and hands out replies. A real device is
// a peer too. It sends when it likes, it may take no bytes for a while, and it may go away.
// Owner:   the caller keeps the peer as long as its line.
// Locking: a peer has no lock. Nobody else uses it while a Line carries bytes for it.
#pragma once

#include "bench/text.h"

#include <chrono>
#include <optional>
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

    // Only a real device has its own ones of these.
    virtual int descriptor() const { return -1; } // readable when there is something to fetch
    // Takes what came by itself. Returns nothing if the device is gone.
    virtual std::optional<Bytes> Fetch() { return Bytes(); }
    // Whether bytes wait until the descriptor takes output. Then the peer gets no other bytes.
    virtual bool full() const { return false; }
    virtual unsigned speed() const { return 0; } // bit/s; 0: bytes take no time
};

} // namespace bench
