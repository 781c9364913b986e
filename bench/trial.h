// One run of the updater with one fault, the judgement of how it ended, and the clean run that has to
// mend it.
// Owner: the caller; a Rig works for one thread at a time.
#pragma once

#include "bench/images.h"
#include "bench/recovery.h"
#include "bench/run.h"

#include <array>

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

struct Outcome {
    RunResult run;
    std::string last;                          // line of its output
    std::array<Held, 3> held = {};             // of micro, camera image, system image
    const RecoveryRow *row = nullptr;          // that the end fits
    double fullSeconds = 0;                    // what it takes with its pauses in full
    std::array<std::uint64_t, 4> carried = {}; // bytes: to micro, from micro, to camera, from camera
    const char *unproven = nullptr;            // why status 0 leaves a device without its image
    bool versionWithoutImage = false;          // and the microcontroller runs the new version all the same
    bool struck = true;                        // the fault came to pass
    bool inLoader = false;                     // the trial's
    std::vector<std::string> findings;
    std::vector<std::string> passing; // findings of a first try that the second did not have
};

// Every run ends within this time, pauses in full, but for those that have to wait.
constexpr double kBoundSeconds = 60;

// Devices, lines and images, for any number of trials.
class Rig
{
public:
    // The updater and the preload library; a working folder of the rig's own, which exists.
    Rig(std::string program, std::string preload, std::string directory);

    Outcome Try(const Trial &trial);

    // Tries again if there are findings: a busy machine may make a device too late. Signals at random
    // moments are a race already and get no second try.
    Outcome TryTwice(const Trial &trial);

    // The names of the system calls of a run without a fault, in order, as strace sees them. Throws
    // std::runtime_error when that run fails.
    std::vector<std::string> Calls(const Session &session);

private:
    struct Devices;
    RunOptions Options(const Trial &trial, Devices &devices) const;
    void MakeImages(const Session &session) const;
    std::array<Held, 3> Holdings(const Session &session, const Devices &devices) const;
    bool Struck(const Trial &trial, const RunResult &run) const;
    void Judge(const Trial &trial, const Devices &devices, Outcome &outcome) const;
    void JudgeProtocol(const Devices &devices, Outcome &outcome) const;
    void JudgeEnd(const Trial &trial, Outcome &outcome) const;
    void JudgeHoldings(const Trial &trial, Outcome &outcome) const;
    void Mend(const Trial &trial, Devices &devices, Outcome &outcome) const;

    const std::string program_, preload_, directory_;
};

} // namespace bench
