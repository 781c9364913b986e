// Script of the faults that a device plays, as plain data. A fresh script has no fault.
#pragma once

#include "bench/text.h"

#include <map>

namespace bench
{

// What happens to a reply on its way.
struct ReplyFault {
    int keep = -1;  // number of bytes that still go out; -1: all of them, 0: silence
    int lateMs = 0; // time by which it is late
};

struct BlockFault {
    int verdict = -1; // the second byte of the reply; -1: the device's own verdict
    ReplyFault reply;
    Bytes noise = {}; // ahead of the reply
};

struct Faults {
    Bytes noise;                           // ahead of the version reply
    ReplyFault version;                    // the version reply
    ReplyFault flashMode;                  // the camera's reply to the flash mode message
    std::map<unsigned, BlockFault> blocks; // by the number of blocks that came before in this run, retries included
    int cutBlock = -1;                     // the block that is lost to a power cut; -1: no power cut
    bool cutMiddle = false;                // the power goes when half of that block has come
};

// Reads the text form below. Throws std::invalid_argument. Its message names the bad item.
Faults ParseFaults(const std::string &text);

// The text form, for --help.
inline constexpr char kFaultsHelp[] =
    "TEXT is a list of faults with commas between them:\n"
    "  noise=HEX     send these bytes before the version reply, such as noise=12FF13\n"
    "  version=HOW   change the version reply; HOW is none, first:BYTES or late:MS\n"
    "  mode=HOW      change the camera's flash mode reply in the same way\n"
    "  block5=HOW    change the verdict on the sixth block that comes: blocks count from 0, and retries count too;\n"
    "                HOW may also be ack, nack, verdict:HEX or noise:HEX\n"
    "  cut=5         cut the power when block 5 has come; with cut=5:middle when half of it has come\n";

} // namespace bench
