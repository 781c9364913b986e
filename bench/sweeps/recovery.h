// What the end of a run says about the devices, and what to do next: the table behind docs/recovery.md,
// which the fault sweeps hold the end of a run against.
#pragma once

#include <string>

namespace bench
{

// What a device may hold of one image; bits.
enum Held : unsigned {
    kNotAsked = 0, // it had no part in the run
    kBefore = 1,   // what it held before, whole
    kPart = 2,     // neither whole
    kImage = 4,    // the image, whole
};

struct RecoveryRow {
    int status;
    const char *last;               // the last line has this; "": no result line
    const char *reason;             // the lines before it have this; "": whatever they have
    unsigned micro, camera, system; // of Held: what may be there when the device was asked for
    const char *meaning;
    const char *next;
};

// The first row that the end of a run fits, null if none does. Status as the shell has it: 128 and the
// signal's number for a run that a signal ended. Mute: the result line may be missing.
const RecoveryRow *FindRecovery(int status, const std::string &output, bool mute = false);

// The trace tells that the microcontroller gave no verdict on a block or refused one: it may hold
// anything, whatever the row says.
bool NoVerdict(const std::string &output);

// The trace tells of verdicts that are neither acceptance nor refusal, over and over: such a run goes on
// until it is stopped.
bool Endless(const std::string &output);

// "before", "part", "image" or "-".
const char *NameOf(Held held);

// The whole of docs/recovery.md.
std::string RecoveryPage();

} // namespace bench
