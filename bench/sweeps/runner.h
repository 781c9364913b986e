// Plays trials: one run of the updater with one fault, the judgement of how it ended, and the clean run that has to
// mend it.
// Owner: the caller; a Runner works for one thread at a time.
#pragma once

#include "bench/sweeps/trial.h"

namespace bench
{

// Devices, lines and images, for any number of trials.
class Runner
{
public:
    // The updater and the preload library; a working folder of the runner's own, which exists.
    Runner(std::string program, std::string preload, std::string directory);

    Outcome Try(const Trial &trial);

    // Tries again if there are findings: a busy machine may make a device too late. Signals at random moments are a
    // race already and get no second try.
    Outcome TryTwice(const Trial &trial);

    // The names of the system calls of a run without a fault, in order, as strace sees them. Throws std::runtime_error
    // when that run fails.
    std::vector<std::string> Calls(const Session &session);

private:
    struct Devices;
    void MakeImages(const Session &session) const;
    std::vector<std::string> StraceWords(const std::string &injection) const;
    RunOptions Options(const Trial &trial, Devices &devices) const;
    Holdings HoldingsOf(const Session &session, const Devices &devices) const;
    Outcome Play(const Trial &trial, Devices &devices) const;
    bool Struck(const Trial &trial, const RunResult &run) const;
    bool WasInjected() const;
    void NewMicroVersion() const;
    void Mend(const Trial &trial, Devices &devices, Outcome &outcome) const;

    const std::string program_, preload_, directory_;
};

} // namespace bench
