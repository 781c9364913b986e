// How the end of a run is judged: against the table of ends, and against what the devices object to and hold.
#pragma once

#include "bench/sweeps/trial.h"

namespace bench
{

// Every run ends within this time, pauses in full, but for those that have to wait.
constexpr double kBoundSeconds = 60;

// Whether each image is there, whole, or not asked for.
bool Whole(const Holdings &held);

// Adds to the outcome what is wrong with its run, and the row and the excuse that it fits.
void JudgeRun(const Trial &trial, Outcome &outcome);

// What is wrong with the run without a fault that comes next.
std::vector<std::string> JudgeNextRun(const Outcome &next);

} // namespace bench
