// One run of the updater with one fault, as data: what is played, and how it ended.
#pragma once

#include "bench/rig/images.h"
#include "bench/rig/run.h"
#include "bench/sweeps/recovery.h"

namespace bench
{

// A command line of the updater, and its images.
struct Session {
    const char *name;
    std::vector<std::string> words; // behind the program's name; the first one is the target
    Samples samples;
    std::size_t microSize; // size of the microcontroller's image
};

struct Trial {
    std::string name; // names the fault
    const Session *session;
    Faults micro = {}, camera = {};                 // faults of the devices
    LineFault microLine = {}, cameraLine = {};      // faults of their lines
    Port microPort = {}, cameraPort = {};           // faults of the driver; the lines are not set
    std::string injection = {};                     // fault of a system call, as strace takes it
    std::map<std::string, std::string> orders = {}; // variables for the preload library
    Output output = Output::kCapture;
    std::size_t outputRead = 0;
    std::vector<Signal> signals = {};
    ProgressOptions progress = {};
    std::chrono::seconds limit{25}; // behind it the run counts as endless
    bool waits = false;             // the run has to wait until it is stopped; its progress so far is delivered
    bool harmless = false;          // the run has to end as it would without the fault
    bool spoilsWire = false;        // a device may get bytes that make no sense to it
    bool mayLoseOutput = false;     // the result line may be missing
    bool inLoader = false;          // the fault comes before main: the program may end in any way
};

// What the devices hold of each image.
struct Holdings {
    Held micro = kNotAsked, camera = kNotAsked, system = kNotAsked;
};

// How many bytes the lines carried.
struct Traffic {
    std::uint64_t toMicro = 0, fromMicro = 0, toCamera = 0, fromCamera = 0;
};

struct Outcome {
    RunResult run;
    std::string last; // last line of the output
    Holdings held;
    Traffic carried;
    std::vector<std::string> objections; // findings of the devices
    const RecoveryRow *row = nullptr;    // the row that the end fits; null: no row fits
    double fullSeconds = 0;              // time of the run with its pauses in full
    const char *unproven = nullptr;      // why status 0 leaves a device without its image; null: it does not
    bool versionWithoutImage = false;    // the microcontroller runs the new version without that image
    bool struck = true;                  // the fault was played
    bool inLoader = false;               // as in the trial
    std::vector<std::string> findings;
    std::vector<std::string> passing; // findings of the first try that the second try did not have
};

} // namespace bench
