// The machine that the run-time finds itself on: what the kernel says of it, and its clock's registers. It stands
// before the calls of our code to fopen, open and mmap.
//
// Owner:   the process. A program that links this library has it from its start on.
#pragma once

#include "Common/OS/linux/psosapi/ptimer.h"

#include <map>
#include <string>
#include <sys/types.h>

namespace mpc8349
{

extern std::map<std::string, std::string> files; // the kernel's, by path; while there is none, fopen opens real ones
extern rtclk8349 registers[256];                 // the page that a mapping of the machine's memory gives
extern int mapped;                               // number of these mappings
extern off_t mappedAt;                           // where the last of them began

} // namespace mpc8349
