// How the preload library is told what to do: environment variables, read once when the library is loaded. Without
// HALDENBENCH_LOG it changes nothing. <N> is the number in "/dev/fpgaserial<N>", 0 to 9; ordinals count from 1, per
// port and over the whole process.
//
//   HALDENBENCH_LOG           file that holds an EventLog, to which one line per event is appended:
//                               open <N> | open <N> refused | close <N>
//                               open relay | open relay refused      (the command relay)
//                               config <N>: mask <n> baud <n> parity <n> stop <n> flow <n> data <n>
//                               rx <N> enabled | rx <N> disabled     (either with " refused" behind it)
//                               write <N>: <n> of <n> bytes | write <N> refused
//                               half read | half write | lost close
//                               wait <microseconds asked for>           (of the main thread)
//   HALDENBENCH_PORT<N>       file that "/dev/fpgaserial<N>" leads to; a port without one is ENOENT
//   HALDENBENCH_RELAY         FIFO that "/tmp/plaunch" leads to; without one it is ENOENT
//   HALDENBENCH_OPT           directory that "/opt/talvora" leads to when something below it is opened
//                             or looked for; without one all of it is ENOENT
//   HALDENBENCH_OPENS<N>      so many opens are refused (EBUSY) before the first succeeds
//   HALDENBENCH_REQUEST<N>    the driver request of this ordinal is refused (EIO)
//   HALDENBENCH_WRITE<N>      the write of this ordinal is refused (EIO); with ":<bytes>" behind the
//                             ordinal it writes no more than that instead
//   HALDENBENCH_HALF_READ, HALDENBENCH_HALF_WRITE
//                             the call of this ordinal, of all files, asks for half the count, rounded up
//   HALDENBENCH_LOST_CLOSE    the close of this ordinal, of all files, fails (EIO) when it is done
//   HALDENBENCH_BAUD<N>       a write returns when a line of that speed has carried it (11 bits a byte),
//                             although a pseudo-terminal would take some 12 KiB at once
//   HALDENBENCH_WAIT_DIVISOR  the main thread's waits without descriptors last only this part of
//                             the time asked for
#pragma once

#include <atomic>
#include <cstdint>

namespace bench
{

// What the bench makes and the preload library maps: a line costs no system call, so that the calls that a program
// makes are its own. Lines that do not fit are lost.
struct EventLog {
    std::atomic<std::uint32_t> used; // characters of text; what is beyond the end counts as well
    char text[1 << 20];
};

// Requests of the ports' driver.
constexpr std::uint32_t kSetConfig = 0x80260001;
constexpr std::uint32_t kDisableRx = 0x80260002;

constexpr char kPreloadLog[] = "HALDENBENCH_LOG";
constexpr char kPreloadPort[] = "HALDENBENCH_PORT";
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
