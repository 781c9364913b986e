// What a capture says about the run that replays it: what the program has to send, what the devices answer, and which
// calls fail.
#pragma once

#include "bench/capture/capturefile.h"
#include "bench/rig/run.h"

#include <set>

namespace bench
{

// A message of the program, and what its device sent before the next one.
struct ScriptedMessage {
    int port;
    std::string name; // "message 7 to micro, block 5 with 512 bytes"; the count is that of the port
    Bytes bytes;
    std::chrono::microseconds gap;  // from the end of the message before it, on any line, to its beginning
    std::chrono::microseconds time; // from its first byte to its last
    std::vector<Reply> replies;     // their delays count from the last byte
};

struct ReplayScript {
    std::set<int> ports;                       // all that occur
    std::vector<ScriptedMessage> messages;     // of all ports, in the order of their first bytes
    std::map<int, std::vector<Reply>> unasked; // by port: what came ahead of the first message
    std::string end;                           // the note on the end of the program; empty: there is none
    std::chrono::microseconds duration{0};
};

// Delays are those of the replay, whose pauses have their full length, or a hundredth of it with fast. The pauses of
// the captured run may have been shortened too. With fast, replies have no delay. But a reply that came when the
// program had given up waiting for it stays too late.
ReplayScript ScriptOf(const std::vector<Event> &events, bool fast);

// The calls of a port that failed, as orders for a run. The orders have no line.
struct FailedCalls {
    bool missing = false; // there is no such device file
    Port orders = {};
};

// Throws std::runtime_error if there is a failed call that a run cannot repeat; the message names it.
std::map<int, FailedCalls> FailedCallsOf(const std::vector<Event> &events);

// All that a program does, in its order: messages, requests to the driver, waits. What a capture only remarks, and the
// end of the program, are left out.
std::vector<std::string> ActsOf(const std::vector<Event> &events);

// Whether two acts are the same. The word "?" stands for any word.
bool SameAct(const std::string &a, const std::string &b);

} // namespace bench
