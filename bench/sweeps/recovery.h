// What the end of a run says about the devices, and what to do next. This is the table behind docs/recovery.md. The
// fault sweeps compare the end of each run with it.
#pragma once

#include <string>

namespace bench
{

// What a device may hold of one image. These are bits: a row names several.
enum Held : unsigned {
    kNotAsked = 0, // the device had no part in the run
    kBefore = 1,   // what the device held before the run, whole
    kPart = 2,     // neither of the two is whole
    kImage = 4,    // the image, whole
};

struct RecoveryRow {
    int status;
    const char *last;               // the last line contains this; "": there need not be a result line
    const char *reason;             // the trace contains this; "": the trace does not matter
    unsigned micro, camera, system; // bits of Held: what the device may hold if the command line asked for it
    const char *meaning;
    const char *next;
};

// The first row that fits the end of a run. Null: no row fits.
// status  as the shell has it: 128 and the signal's number for a run that a signal ended.
// mute    standard output was lost. The result line may be missing.
const RecoveryRow *FindRecovery(int status, const std::string &output, bool mute = false);

// The trace shows that the microcontroller did not answer a block, or refused it three times. The microcontroller may
// then hold anything, whatever the row says.
bool NoVerdict(const std::string &output);

// The trace shows many verdicts that are neither acceptance nor refusal. Such a run goes on until it is stopped.
bool Endless(const std::string &output);

// "before", "part", "image" or "-".
const char *NameOf(Held held);

// The whole of docs/recovery.md.
std::string RecoveryPage();

} // namespace bench
