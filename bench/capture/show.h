// A run as text: its heading, a line for each message and each note, and the totals of each line.
#pragma once

#include "bench/capture/digest.h"

#include <ostream>

namespace bench
{

// Prints the run. Times are in seconds. Columns that have nothing to tell show "-". What is wrong with a message stands
// behind its name, after "! ".
void Show(const Digest &digest, std::ostream &stream);

} // namespace bench
