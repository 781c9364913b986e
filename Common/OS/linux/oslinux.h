// Small services of the operating-system layer: the interrupt lock, processor and hardware information, the command
// relay, string and process helpers. A null pointer stops the program.
#pragma once

#include "Common/types.h"

// ---- Interrupt lock: one lock for the whole process. It stands in for disabling interrupts.
// It nests only after os_init, which nothing in the updater calls. Other units may look at its variables intsoffmutex,
// intsoffthread and intsoffcount, and at sHwType of the hardware type, by extern.

// Takes the lock. Returns the nesting depth: 1 for the outermost call.
UInt32 interruptsOff();

// Gives the lock back. depth is what the matching interruptsOff returned. Any other depth stops the program, and so
// does a call by another thread. Returns the result of the unlock.
int interruptsRestore(UInt32 depth);

// Takes the interrupt lock for the length of a scope. The destructor is also the cancellation clean-up.
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

// Makes the interrupt lock recursive. Gives priority inheritance to it, to the timer lists' lock and to the task
// list's. It is the first call to the run-time, or it is not called at all.
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

extern Int32 ProcessorCnt; // 0 until somebody sets it

UInt32 GetProcessorNum();   // always 0: the host processor
Int32 GetNumProcessors();   // ProcessorCnt
Int32 ExecutionLevel();     // always 0
UInt32 GetCyclesPerTick();  // 666666
Int32 GetNumTIProcessors(); // always 0, and so are the next two: this system has no such processors
Int32 GetNumTMProcessors();
Int32 GetNumDavinciHDProcessors();
void sstackBackTrace(UInt32 taskID); // prints that it is not implemented

// ---- Commands

// Sends a shell command through "/tmp/plaunch" to the launcher outside the program, and waits for its answer. One
// command at a time. The wait for the launcher has no limit. The relay is never created here.
// Logs the result; no lock of the relay is held meanwhile.
// Returns the launcher's decimal result, or -1 in these cases:
// - The relay cannot be opened, the command cannot be written whole, or there is no memory for the lock. The log line
//   has the system's reason.
// - The launcher answers with an empty line.
Int32 system_pthread(const char *command);

// Runs a command through the shell. Stores the first line of its output in out, trimmed at both ends. out has size
// bytes, with the terminator. The call waits for the end of the command. A deletion of the caller waits for it too.
// Returns 0, or -1 with out empty.
Int32 read_command(const char *command, char *out, UInt32 size);

// Returns 1 if the root file system is on NFS, otherwise 0. Asks once and remembers the answer. No lock is held while
// the command runs: tasks that ask at the same time each run it.
Boolean is_NFS();

// Returns the id of the first process with that command name, or -1. The kernel keeps 15 characters of a name: only
// these are compared.
Int32 find_pid(const char *name);

// Copies an environment variable into out, which has size bytes. A longer value is cut.
// Returns 0. Returns -1, with out empty, if the variable is not set.
Int32 read_env(const char *name, char *out, UInt32 size);

// ---- Strings. Each call works in place and returns its argument, unless its comment says otherwise.

char *strlwr(char *s);
char *strupr(char *s);

// Compares, ignoring case. Only the first 255 characters of each string count. The result is as of strcmp.
int stricmp(const char *left, const char *right);

// Writes value into out and returns out. out has room for 34 characters or more. radix is 2 to 36: any other radix
// gives an empty string. Only radix 10 shows a sign.
char *itoa(Int32 value, char *out, Int32 radix);

char *trim_leading(char *s); // white space, as of isspace
char *trim_trailing(char *s);
char *trim_str(char *s); // both ends

// Appends formatted text to the string in out. out has size bytes in all: a longer text is cut. Returns the new length.
__attribute__((format(printf, 3, 4))) Int32 sp_printf(char *out, UInt32 size, const char *format, ...);
