// The program's command line. It says which updates run and where progress is reported.
// Locking: the flags have no lock; one thread uses them. They are all 0 at the start of the program.
#pragma once

#include "Common/types.h"

extern Boolean gbDoMicro;        // update the microcontroller
extern Boolean gbDoFarsight;     // update the camera
extern Boolean gbQueryOnly;      // compare versions, flash nothing
extern Boolean gbUpdateRequired; // the microcontroller's versions differ. In query mode: those of either device

// Runs the whole program, from its first line of output to its last one. The arguments say what is updated; the
// environment says which board this is. Sets the flags above, and never clears the first three.
// 0   the updates are done or were not needed.
// 1   only a query was asked for, and an update is required.
// -1  no update was asked for, or one failed.
int RunHaldenflash(int argc, char *const argv[]);

// Prints the usage line.
void print_usage();

// Prints the arguments, one line each.
void PrintArguments(int argc, char *const argv[]);
