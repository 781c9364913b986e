// Small services of the operating-system layer: the interrupt lock, processor and hardware
// information, the command relay, string and process helpers. A null pointer stops the program.
#pragma once

#include "Common/types.h"

// ---- Interrupt lock: one lock for the whole process that stands in for disabling interrupts.
// It does not nest unless os_init has run, which nothing in the updater calls. Its variables intsoffmutex,
// intsoffthread and intsoffcount, and sHwType of the hardware type, can be looked at by extern.

// Takes the lock. Returns the nesting depth, 1 for the outermost take.
UInt32 interruptsOff();

// Gives the lock back; depth is what the matching interruptsOff returned. Anything else, and a
// restore by another thread, stops the program. Returns the result of the unlock.
int interruptsRestore(UInt32 depth);

// Takes the interrupt lock for the length of a scope; also the cancellation clean-up.
class InterruptsOffHold
{
public:
    InterruptsOffHold() : depth_(interruptsOff()) {}
    ~InterruptsOffHold() { interruptsRestore(depth_); }
    InterruptsOffHold(const InterruptsOffHold &) = delete;
    InterruptsOffHold &operator=(const InterruptsOffHold &) = delete;

private:
    UInt32 depth_;
};

// Makes the interrupt lock recursive and gives it, the timer lists and the task list priority
// inheritance. To be called before anything else of the run-time, or not at all.
void os_init();

// ---- Processor and hardware

enum hwTypeT : UInt32 {
    kUninitialized = 0,
    kK4 = 14,
    kQuillmark = 16,
    kVane = 18,
    kKora = 20,
    kStrathmor = 21,
};

void SetSystemHardwareType(hwTypeT hwType);
hwTypeT GetSystemHardwareType();

extern Int32 ProcessorCnt; // 0 unless somebody sets it

UInt32 GetProcessorNum();   // always 0: the host processor
Int32 GetNumProcessors();   // ProcessorCnt
Int32 ExecutionLevel();     // always 0
UInt32 GetCyclesPerTick();  // 666666
Int32 GetNumTIProcessors(); // this and the next two: 0, there are none here
Int32 GetNumTMProcessors();
Int32 GetNumDavinciHDProcessors();
void sstackBackTrace(UInt32 taskID); // prints that it is not implemented

// ---- Commands

// Relays a shell command to the launcher outside the program through "/tmp/plaunch" and waits for
// its answer; one command at a time. The wait for the launcher has no limit. The relay is never created here.
// Logs the result, with no lock of its own held. Returns the launcher's decimal result.
// -1  the relay cannot be opened, the command could not be written whole, or there is no memory for the lock: all three
//     are logged with the system's reason. Or the launcher answered with an empty line.
Int32 system_pthread(const char *command);

// Runs a command through the shell and stores its first output line, trimmed at both ends, in out
// (size bytes with the terminator). Waits for the command's end, and so does a deletion of the caller.
// Returns 0, or -1 with out empty.
Int32 read_command(const char *command, char *out, UInt32 size);

// 1 when the root file system is on NFS. Asks once and remembers; tasks that ask at the same time run the command
// each for itself, because no lock is held while it runs.
Boolean is_NFS();

// Process id of the first process whose command name, of which the kernel keeps 15 characters,
// equals name in them, or -1.
Int32 find_pid(const char *name);

// Copies an environment variable into out (size bytes, cut to fit). Returns 0, or -1 with out empty
// when it is not set.
Int32 read_env(const char *name, char *out, UInt32 size);

// ---- Strings; all of them work in place and return their argument unless said otherwise.

char *strlwr(char *s);
char *strupr(char *s);

// Compares ignoring case; only the first 255 characters of each string count. Result as strcmp.
int stricmp(const char *left, const char *right);

// Writes value in the given radix (2 to 36, otherwise an empty string) into out and returns out.
// out holds 34 characters or more. Only radix 10 shows a sign.
char *itoa(Int32 value, char *out, Int32 radix);

char *trim_leading(char *s); // white space, as isspace has it
char *trim_trailing(char *s);
char *trim_str(char *s); // both ends

// Appends formatted text to the string in out (size bytes in all, cut to fit). Returns the new length.
__attribute__((format(printf, 3, 4))) Int32 sp_printf(char *out, UInt32 size, const char *format, ...);
