// The program's command line: which updates run on which board, with which progress reports. The flags are all 0 at the
// start of the program.
#pragma once

#include "Common/types.h"

extern Boolean gbDoMicro;        // update the microcontroller
extern Boolean gbDoFarsight;     // update the camera
extern Boolean gbQueryOnly;      // compare versions, flash nothing
extern Boolean gbUpdateRequired; // the microcontroller's versions differ, in query mode either device's

// Runs the program that the arguments and the environment ask for, from its first line of output to its last one.
// Sets the flags above; it never clears them.
// 0   the updates are done or were not needed.
// 1   only a query was asked for, and an update is required.
// -1  no update was asked for, or one failed.
int RunHaldenflash(int argc, char *const argv[]);

// Prints the usage line.
void print_usage();

// Prints the arguments, one line each.
void PrintArguments(int argc, char *const argv[]);
