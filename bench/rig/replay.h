// Plays a captured run again: the devices answer as the captured ones did, each answer when the message that it
// answered has come whole. The bytes of the program are compared with the captured ones, line by line.
// Owner:   the caller keeps the replay as long as the lines of its peers.
// Locking: the peers run in the threads of their lines. The rest is the caller's, before and after the run.
#pragma once

#include "bench/rig/replayscript.h"

#include <memory>

namespace bench
{

class Replay
{
public:
    // fast: answers come at once, and the program's pauses are shortened. An answer that came too late for the program
    // stays too late. Throws std::runtime_error if the capture has a failed call that no run can repeat, or if there is
    // nothing in it to compare a run with.
    Replay(const Capture &capture, bool fast);
    ~Replay();
    Replay(const Replay &) = delete;
    Replay &operator=(const Replay &) = delete;

    // The ports that the run has: those of the two devices, and all others of the capture.
    std::vector<int> ports() const;
    // The far end of such a port's line.
    Peer &peer(int port);
    // Orders the failed calls of the capture, on ports that have their lines, and bounds the run. A port that the
    // program never found loses its line.
    void Order(RunOptions &options) const;

    // Runs the program. A message that does not come 2 s after its time is named on standard error at that time.
    RunResult Play(const RunOptions &options);

    // What the run that was played did otherwise than the captured one, one line each; the first is what led to the
    // others. Empty: nothing.
    std::vector<std::string> Differences(const RunResult &result) const;
    // What the run did in another order, across the lines, the requests to the driver and the waits. events are those
    // of the run that was played. It is asked when there are no differences.
    std::vector<std::string> DifferencesOfOrder(const std::vector<Event> &events) const;
    // What was compared, in one line.
    std::string Summary() const;

private:
    struct State;
    class Port;
    class Watcher;

    std::vector<std::string> Departure() const;

    const Capture capture_;
    std::map<int, FailedCalls> calls_;
    std::unique_ptr<State> state_;
    std::map<int, std::unique_ptr<Port>> peers_;
};

} // namespace bench
