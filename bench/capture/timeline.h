// A run as a picture: one page, an SVG file that needs no other file. At the top the whole run is drawn to scale. Below
// it each line has its own part, from its first event to its last one, with lanes for the calls, for both ways and for
// the share of the blocks that is accepted. What falls on the same pixel is one shape. Its title counts the messages,
// and its form is that of the worst one. The same digest gives the same bytes.
#pragma once

#include "bench/capture/digest.h"

#include <ostream>

namespace bench
{

void Timeline(const Digest &digest, std::ostream &stream);

} // namespace bench
