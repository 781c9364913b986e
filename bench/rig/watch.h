// Follows an update through its progress FIFO, for a supervisor or for a person.
#pragma once

#include <string>
#include <vector>

namespace bench
{

struct WatchOptions {
    std::string fifo;                      // is made if it is not there, and is then removed at the end
    int low = 0, high = 100;               // the bounds that the update got; low is below high, and high above 0
    std::vector<std::string> command = {}; // the update; empty: somebody else runs it
};

// Shows the positions that come through the FIFO. See ProgressDisplay for how. They go to standard output; if there is
// a command, to standard error, because standard output is the command's.
//
// The FIFO is open for reading and for writing all the time. So no open of the update waits, and no number is lost
// between two opens. The command inherits it: its opens do not wait even if this process is killed. The numbers of a
// whole run fit into the FIFO: its writes do not wait for a process that is stopped.
//
// With a command the watch ends when the command ends. SIGINT, SIGTERM and SIGHUP are passed on to it. Without a
// command the watch ends at the upper bound or at one of these signals. Before each end all that is in the FIFO is
// shown. A signal that this process ignores from its start stays ignored.
//
// Changes the process's signal mask, and its actions for SIGPIPE and SIGCHLD. One watch a process.
//
// Returns the exit status:
// 0        the upper bound was reached, without a command
// 128 + N  signal N ended the watch, or the command
// 127      the command could not be started
// other    the command's own status
// Throws std::system_error if the FIFO cannot be made or opened, std::runtime_error if something else is at its place.
// The command is then not started.
int Watch(const WatchOptions &options);

// Parts the text of one read into its numbers. A slow reader gets several numbers at once, without a sign between them.
// What is known of them parts them: each is above the one before, and none is above high. A longer number counts more
// than a shorter one. If all numbers have the same number of digits, as between 100 and 200, nothing is in doubt.
// last: the number before; 0: there is none. Where no number goes on from last, a new update has begun.
// Returns nothing if the text has no such parts.
std::vector<int> PartNumbers(const std::string &text, int last, int high);

} // namespace bench
