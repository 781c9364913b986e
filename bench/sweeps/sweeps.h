// The sweeps of haldenfaults: which faults there are, as data.
#pragma once

#include "bench/sweeps/runner.h"

namespace bench
{

struct Sweep {
    const char *name;  // on the command line
    const char *title; // in the report
    // The runner is for runs that tell what there is to fail. Throws std::runtime_error when such a run fails.
    std::vector<Trial> (*trials)(Runner &runner);
    // Where not all runs are made, this part of those of other sweeps: there are many, or they are long.
    std::size_t sparser = 1;
};

std::span<const Sweep> Sweeps();

} // namespace bench
