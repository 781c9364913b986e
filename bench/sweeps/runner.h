// Plays trials. A trial is one run of the updater with one fault. Its end is judged. Then a run without a fault has to
// bring the devices to their images.
// Owner:   the caller owns the runner.
// Locking: a runner has no lock. It works for one thread at a time.
#pragma once

#include "bench/sweeps/trial.h"

namespace bench
{

// Devices, lines and images, for any number of trials.
class Runner
{
public:
    // The updater, the preload library, and a working folder. The folder exists, and nobody else uses it.
    Runner(std::string program, std::string preload, std::string directory);

    Outcome Try(const Trial &trial);

    // Tries a second time if there are findings, because a busy machine may make a device too late. A trial with
    // signals at random moments gets no second try, because each of its runs is another one.
    Outcome TryTwice(const Trial &trial);

    // Makes a run without a fault under strace. Returns the names of its system calls, in order. Throws
    // std::runtime_error if that run fails.
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
