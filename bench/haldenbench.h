// The parts of the command haldenbench.
#pragma once

#include "bench/devices/faults.h"
#include "bench/rig/run.h"
#include "bench/rig/runcapture.h"

namespace bench
{

// Exit statuses.
inline constexpr int kGood = 0;
inline constexpr int kBad = 1;
inline constexpr int kUsage = 2;

struct Settings {
    std::string directory = ".";
    bool hasDirectory = false; // it was given
    std::optional<unsigned> microVersion, cameraVersion, systemVersion;
    std::string configuration;
    std::optional<std::string> launcherResult;
    bool fast = false;
    unsigned baud = 0;
    std::map<std::string, std::string> lines, served; // terminals by device
    std::map<std::string, Faults> faults;             // by device
    bool bar = false;
    std::string trace, transcript, capture, replay, makeImages;
    bool strict = false;
    std::vector<std::string> command;

    bool InSoftware(const std::string &device) const
    {
        return served.empty() ? !lines.contains(device) : served.contains(device);
    }
};

// The file of the command's first word. Throws UsageError if there is none.
std::string Executable(const std::string &word);

// What the options say about a run. It has no lines yet. Its lines are set before AddCapture.
RunOptions MakeOptions(const Settings &settings);

// Begins the capture of a run.
void AddCapture(const Settings &settings, const std::string &path, RunOptions &options,
                std::optional<RunCapture> &capture);

// Shows or stores the captured output of the command, and says how the command ended.
void ShowOutput(const Settings &settings, const RunResult &result);

// Runs the command against devices in software, and says what they hold afterwards. Returns an exit status.
int Rehearse(const Settings &settings);

// Runs no command: real boards reach the devices. Returns an exit status.
int Serve(const Settings &settings);

// Makes a captured run again, and says where it differs. Returns an exit status.
int PlayAgain(Settings settings);

} // namespace bench
