// One run of the updater with one fault, as data: what is played, and what came of it.
#pragma once

#include "bench/rig/images.h"
#include "bench/rig/run.h"
#include "bench/sweeps/recovery.h"

namespace bench
{

// What is asked of the updater, and of how much.
struct Session {
    const char *name;
    std::vector<std::string> words; // behind the program's name; the first one is the target
    Samples samples;
    std::size_t microSize; // of its image
};

struct Trial {
    std::string name; // tells the fault
    const Session *session;
    Faults micro = {}, camera = {};                 // of the devices
    LineFault microLine = {}, cameraLine = {};      // of their lines
    Port microPort = {}, cameraPort = {};           // of the driver; without lines
    std::string injection = {};                     // of a system call, as strace takes it
    std::map<std::string, std::string> orders = {}; // to the preload library
    Output output = Output::kCapture;
    std::size_t outputRead = 0;
    std::vector<Signal> signals = {};
    ProgressOptions progress = {};
    std::chrono::seconds limit{25}; // then the run counts as one that does not end
    bool waits = false;             // has to wait until it is stopped, with its progress so far delivered
    bool harmless = false;          // has to do all the same what it would do without the fault
    bool spoilsWire = false;        // a device may hear what it cannot make sense of
    bool mayLoseOutput = false;     // and the result line with it
    bool inLoader = false;          // before main: the program may end as the loader likes
};

// What the devices hold of each image.
struct Holdings {
    Held micro = kNotAsked, camera = kNotAsked, system = kNotAsked;
};

// Bytes that the lines carried.
struct Traffic {
    std::uint64_t toMicro = 0, fromMicro = 0, toCamera = 0, fromCamera = 0;
};

struct Outcome {
    RunResult run;
    std::string last; // line of its output
    Holdings held;
    Traffic carried;
    std::vector<std::string> objections; // of the devices
    const RecoveryRow *row = nullptr;    // that the end fits
    double fullSeconds = 0;              // what it takes with its pauses in full
    const char *unproven = nullptr;      // why status 0 leaves a device without its image
    bool versionWithoutImage = false;    // and the microcontroller runs the new version all the same
    bool struck = true;                  // the fault came to pass
    bool inLoader = false;               // the trial's
    std::vector<std::string> findings;
    std::vector<std::string> passing; // findings of a first try that the second did not have
};

} // namespace bench
