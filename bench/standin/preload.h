// How the preload library is told what to do: environment variables, read once when the library is loaded. Without
// HALDENBENCH_LOG it changes nothing. <N> is the number in "/dev/fpgaserial<N>", 0 to 9; ordinals count from 1, per
// port and over the whole process.
//
//   HALDENBENCH_LOG           file that holds an EventLog, to which one line per event is appended. In front of each
//                             stand its microseconds of the monotonic clock and a space:
//                               open <N> | open <N> refused | close <N>
//                               open relay | open relay refused      (the command relay)
//                               config <N>: mask <n> baud <n> parity <n> stop <n> flow <n> data <n>
//                               rx <N> enabled | rx <N> disabled     (either with " refused" behind it)
//                               write <N>: <n> of <n> bytes | write <N> refused
//                               half read | half write | lost close
//                               wait <microseconds asked for>           (of the main thread)
//                             Behind " refused" follow a tab and the name of the error
//   HALDENBENCH_CAPTURE       if it is set, the log also has lines for a capture: their event is empty, and they have
//                             only an addition. A long run has so many of them that the log may get full
//                               write <N> | write <N>: <n> of <n> bytes | write <N> refused <error>
//                               read <N> refused <error> | close <N> refused <error>
//                             Here the first is noted in front of each write.
//   HALDENBENCH_PORT<N>       file that "/dev/fpgaserial<N>" leads to; an open of a port without one gives ENOENT
//   HALDENBENCH_TERMINAL<N>   descriptor of a real terminal behind that file. The program inherits it. The driver's
//                             requests become its settings, with the errors of SetTerminal. A write returns when a
//                             line of the configured speed has carried its bytes, and the terminal is drained
//   HALDENBENCH_RELAY         FIFO that "/tmp/plaunch" leads to; without one an open gives ENOENT
//   HALDENBENCH_OPT           directory that "/opt/talvora" leads to when a file below it is opened
//                             or looked for; without one each such call gives ENOENT
//   HALDENBENCH_OPENS<N>      number of opens that are refused (EBUSY) before the first success; with
//                             ":<number>" behind it they are refused with that error
//   HALDENBENCH_REQUEST<N>    the driver request of this ordinal is refused (EIO)
//   HALDENBENCH_WRITE<N>      the write of this ordinal is refused (EIO); with ":<bytes>" behind the
//                             ordinal it writes at most that many bytes instead
//   HALDENBENCH_HALF_READ, HALDENBENCH_HALF_WRITE
//                             the call of this ordinal, of all files, asks for half the count, rounded up
//   HALDENBENCH_LOST_CLOSE    the close of this ordinal, of all files, fails (EIO) when it is done
//   HALDENBENCH_BAUD<N>       bit/s of the line: a write returns when the line has carried its bytes, 11 bits each
//                             (a pseudo-terminal alone would take about 12 KiB at once)
//   HALDENBENCH_WAIT_DIVISOR  the main thread's waits without descriptors last only this part of
//                             the time asked for
#pragma once

#include "bench/standin/driver.h"

#include <atomic>
#include <cstdint>

namespace bench
{

// The bench makes this file, and the preload library maps it. So a line costs no system call: all calls of a run are
// the program's own. A line that does not fit is lost.
struct EventLog {
    std::atomic<std::uint32_t> used; // number of characters, those of lost lines included
    char text[1 << 20];
};

// The terminal of port N gets this number plus N in the program. The program's own numbers do not come so far.
constexpr int kTerminalDescriptor = 200;

constexpr char kPreloadLog[] = "HALDENBENCH_LOG";
constexpr char kPreloadCapture[] = "HALDENBENCH_CAPTURE";
constexpr char kPreloadPort[] = "HALDENBENCH_PORT";
constexpr char kPreloadTerminal[] = "HALDENBENCH_TERMINAL";
constexpr char kPreloadRelay[] = "HALDENBENCH_RELAY";
constexpr char kPreloadOpt[] = "HALDENBENCH_OPT";
constexpr char kPreloadOpens[] = "HALDENBENCH_OPENS";
constexpr char kPreloadRequest[] = "HALDENBENCH_REQUEST";
constexpr char kPreloadWrite[] = "HALDENBENCH_WRITE";
constexpr char kPreloadHalfRead[] = "HALDENBENCH_HALF_READ";
constexpr char kPreloadHalfWrite[] = "HALDENBENCH_HALF_WRITE";
constexpr char kPreloadLostClose[] = "HALDENBENCH_LOST_CLOSE";
constexpr char kPreloadBaud[] = "HALDENBENCH_BAUD";
constexpr char kPreloadWaitDivisor[] = "HALDENBENCH_WAIT_DIVISOR";

} // namespace bench
