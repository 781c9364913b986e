// What main shares with the update procedures. The flags are all 0 at start.
#pragma once

#include "Common/types.h"

extern Boolean gbDoMicro;        // update the microcontroller
extern Boolean gbDoFarsight;     // update the camera
extern Boolean gbQueryOnly;      // compare versions, flash nothing
extern Boolean gbUpdateRequired; // the microcontroller's versions differ, in query mode either device's

// Prints the usage line.
void print_usage();

// Prints the arguments, one line each.
void PrintArguments(int argc, char *const argv[]);
