// What the parts of the updater share: the flags that the command line and the comparison of
// versions set. All 0 at start.
#pragma once

#include "Common/types.h"

extern Boolean gbDoMicro;        // update the microcontroller
extern Boolean gbDoFarsight;     // update the camera
extern Boolean gbQueryOnly;      // compare versions, flash nothing
extern Boolean gbUpdateRequired; // set when a version differs

// Prints the usage line.
void print_usage();
