// A file system that refuses calls. It stands before flock, fchmod and rename.
//
// Owner:   the process. A program that links this library has it from its start on.
#pragma once

#include <string>
#include <sys/types.h>

namespace disk
{

extern std::string refused; // the call that fails
extern mode_t modeBefore;   // of the file, at the last fchmod

} // namespace disk
