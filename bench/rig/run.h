// One run of a program against the bench. The environment is clean. The preload library leads the serial ports to
// lines. The output is kept, and the time is bounded. A run leaves no child, no descriptor and no FIFO behind.
// Owner:   the caller keeps lines, devices and launcher. They may take part in any number of runs.
// Locking: a line, a device or a launcher takes part in one run at a time.
#pragma once

#include "bench/rig/launcher.h"
#include "bench/rig/line.h"
#include "bench/rig/progress.h"
#include "bench/rig/recorder.h"

#include <map>

namespace bench
{

// What "/dev/fpgaserial<N>" is in a run. Ordinals count from 1; 0: none.
struct Port {
    Line *line = nullptr;        // null: the device file does not exist
    int terminal = -1;           // descriptor of a real terminal that fulfils the driver's requests; -1: none
    unsigned refusedOpens = 0;   // number of opens that fail before the first success
    int openError = EBUSY;       // the error of these opens
    unsigned refusedRequest = 0; // the driver request of this ordinal fails
    unsigned cutWrite = 0;       // the write of this ordinal fails or is short
    int cutTo = -1;              // number of bytes that this write still writes; -1: it fails
};

// Standard output of the program.
enum class Output {
    kCapture,
    kInherit, // that of this process, and its standard error too
    kBroken,  // a pipe whose reader goes away after outputRead bytes
    kClosed,  // there is no descriptor
    kFull,    // a device without room
};

// A signal that is sent to the program if it still runs.
struct Signal {
    std::chrono::milliseconds after; // time since the start, or since the signal before
    int number;
};

struct RunOptions {
    std::string executable;
    std::vector<std::string> arguments; // argv[0] included
    std::string directory = ".";
    std::map<std::string, std::string> environment = {}; // the whole environment; the bench adds its own variables
    std::string preload = {};                            // the preload library; empty: it is not used
    std::map<int, Port> ports = {};                      // by the number in the device file's name
    std::string configuration = {};                      // the folder for "/opt/talvora"; empty: it does not exist
    Launcher *launcher = nullptr;                        // takes relayed commands; null: there is no relay
    unsigned waitDivisor = 1;                            // the time of pure waits is divided by this
    Output output = Output::kCapture;
    std::size_t outputRead = 0;
    std::vector<Signal> signals = {};
    std::string fifo = {}; // path of a progress FIFO to make, relative to directory; empty: there is no FIFO
    ProgressOptions progress = {};
    Recorder *recorder = nullptr;           // watches the lines; gets the program's calls, and its end
    std::chrono::milliseconds limit{30000}; // from the last signal on; then the program is killed
};

struct RunResult {
    bool killed = false; // the limit had passed
    int status = -1;     // exit status, 0 to 255; -1: a signal ended the program
    int signal = 0;
    std::string output, errors;
    std::vector<std::string> events; // of the preload library's log, without their times and additions
    bool lostEvents = false;         // the log had no room for all of them
    std::vector<std::string> progress;
    double seconds = 0;
};

// Starts the lines, runs the program to its end, and stops the lines. If the program cannot be started, the lines are
// stopped too, and the call throws std::system_error.
RunResult Run(const RunOptions &options);

} // namespace bench
