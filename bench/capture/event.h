// What happened in a run, as a list of events. A run makes the list, and so do the text of strace and a capture file.
// Everything that shows, keeps or replays a run works on this list.
#pragma once

#include "bench/text.h"

#include <chrono>

namespace bench
{

// Time of the wall clock, since 1970.
using WallTime = std::chrono::microseconds;

enum class Way {
    kNone, // no byte passed: a call or a remark, which the note tells
    kToDevice,
    kToHost,
};

inline constexpr int kNoPort = -1;

// One event: bytes that passed on a line, or a note. The notes of a program's calls:
//
//   port    note                                 meaning
//   a port  open | open refused EBUSY            the device file was opened, or it was not and why
//   a port  config mask 3 baud 115200 parity 2 stop 0 flow 0 data 0
//                                                the driver's configuration: the fields of its request, and which of
//                                                them count (bit 0 of the mask: baud). With " refused EIO" behind it
//                                                it failed. Values that cannot be known are "?"
//   a port  rx enabled | rx disabled             the receiver; " refused EIO" as above
//   a port  write 10 of 527 bytes                a write took only a part. The bytes themselves are another event
//   a port  write refused EIO | read refused EIO a call that failed
//   a port  close | close refused EIO            the second follows a close that failed
//   none    wait 500000                          the program only waited, for so many microseconds
//   none    open relay | open relay refused ENOENT
//   none    exit 0 | signal 9                    the end of the program
//   any     ! TEXT                               a remark on the capture itself, such as what is missing in it
//
// Whoever reads a list leaves out notes that are not in this table.
struct Event {
    WallTime begin{0};  // of the first byte
    WallTime end{0};    // of the last byte; with a note the same as begin
    int port = kNoPort; // the number in the device file's name
    Way way = Way::kNone;
    Bytes bytes = {}; // as they travel on the line
    std::string note = {};

    bool operator==(const Event &) const = default;
};

// What is known about a run as a whole.
struct RunInfo {
    std::string command = {}; // the words of the command line, with quotes where a shell needs them
    std::string program = {}; // name, size and CRC-32 of the file: "haldenflash, 90112 bytes, CRC-32 1A2B3C4D"
    // What the program finds in its directory: "haldenmicro.bin 6144 bytes first 21" with the first byte of the file,
    // which is its version; "farsightsys.bin missing"; "farsightcamver text 0204\x0A", with "\x0A" for a byte that is
    // no printable character, and for a backslash.
    std::vector<std::string> files = {};
    std::string source = {}; // what made the list: "haldenbench 1.0.0"

    bool operator==(const RunInfo &) const = default;
};

} // namespace bench
