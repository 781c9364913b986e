// Judges the end of a run. It compares it with the table of ends, with the objections of the devices, and with what
// they hold.
#pragma once

#include "bench/sweeps/trial.h"

namespace bench
{

// Every run ends within this time, its pauses in full. Only the runs that have to wait may take longer.
constexpr double kBoundSeconds = 60;

// Whether the devices hold each image that was asked for, and hold it whole.
bool Whole(const Holdings &held);

// Adds to the outcome what is wrong with its run. Adds the row that it fits, and an excuse if there is one.
void JudgeRun(const Trial &trial, Outcome &outcome);

// What is wrong with the next run, which has no fault.
std::vector<std::string> JudgeNextRun(const Outcome &next);

} // namespace bench
