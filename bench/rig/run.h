// One run of a program against the bench: in a clean environment, with the preload library and its serial ports led to
// lines, its output kept and its time bounded. Nothing is left behind: no child, no descriptor, no FIFO.
// Owner: the caller keeps lines, devices and launcher; they may take part in any number of runs, one at a time.
#pragma once

#include "bench/rig/launcher.h"
#include "bench/rig/line.h"
#include "bench/rig/progress.h"

#include <map>

namespace bench
{

// What "/dev/fpgaserial<N>" is in a run. Ordinals count from 1; 0: none.
struct Port {
    Line *line = nullptr;        // null: the device file does not exist
    unsigned refusedOpens = 0;   // so many opens fail before the first succeeds
    unsigned refusedRequest = 0; // the driver request of this ordinal fails
    unsigned cutWrite = 0;       // the write of this ordinal fails or is short
    int cutTo = -1;              // bytes that it still writes; -1: it fails
};

// Standard output of the program.
enum class Output {
    kCapture,
    kInherit, // this process's, standard error too
    kBroken,  // a pipe whose reader goes away after outputRead bytes
    kClosed,  // no descriptor at all
    kFull,    // a device without room
};

// To be sent to the program, if it is still there.
struct Signal {
    std::chrono::milliseconds after; // the start, or the signal before
    int number;
};

struct RunOptions {
    std::string executable;
    std::vector<std::string> arguments; // argv[0] included
    std::string directory = ".";
    std::map<std::string, std::string> environment = {}; // all of it, but for what the bench adds
    std::string preload = {};                            // the preload library; empty: none
    std::map<int, Port> ports = {};                      // by the number in the device file's name
    std::string configuration = {};                      // what "/opt/talvora" is; empty: not there
    Launcher *launcher = nullptr;                        // of relayed commands; null: no relay there
    unsigned waitDivisor = 1;                            // pure waits last this part of their time
    Output output = Output::kCapture;
    std::size_t outputRead = 0;
    std::vector<Signal> signals = {};
    std::string fifo = {}; // progress FIFO to make for the run, relative to directory; empty: none
    ProgressOptions progress = {};
    std::chrono::milliseconds limit{30000}; // after the last signal, then the program is killed
};

struct RunResult {
    bool killed = false; // its time was up
    int status = -1;     // exit status, 0 to 255; -1 when a signal ended it
    int signal = 0;
    std::string output, errors;
    std::vector<std::string> events; // lines of the preload library's log
    std::vector<std::string> progress;
    double seconds = 0;
};

// Starts the lines, runs the program to its end, and stops the lines. Throws std::system_error when the program cannot
// be started, with the lines stopped.
RunResult Run(const RunOptions &options);

} // namespace bench
