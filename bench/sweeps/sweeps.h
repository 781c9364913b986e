// The sweeps of haldenfaults: which faults there are, as data.
#pragma once

#include "bench/sweeps/runner.h"

namespace bench
{

struct Sweep {
    const char *name;  // on the command line
    const char *title; // in the report
    // Lists the trials. The runner makes the runs that show what can fail. Throws std::runtime_error if such a run
    // fails.
    std::vector<Trial> (*trials)(Runner &runner);
    // If only a part of all runs is made, the part of this sweep is smaller by this factor: it has many or long runs.
    std::size_t sparser = 1;
};

std::span<const Sweep> Sweeps();

} // namespace bench
