// The system log writer: a ring of completed lines, and the task "logw" that prints them.
//
// Every line is dropped before InitSyslogInterface is called, and in a process that never calls it.
// Locking: any task may add lines. log_Semaphore lets one task add at a time; it is held only while a line is copied.
//          The writer task reads the ring without the semaphore, and moves the head. A task that laps the writer sets
//          it back.
#pragma once

#include "Common/types.h"

// Queues one completed line: six characters of level, seven of processor tag, text, newline. msglen is not used.
// - The line is dropped without a word if it is empty, if its level is above the threshold, or if there is no writer.
// - A full ring loses the line. That is announced on standard error and, if there is room, in the ring.
// - A line that does not fit in the rest of the ring goes to its front, without a look at the writer. A writer that is
//   almost a whole ring behind then loses what it has not printed yet.
// The caller holds no lock: standard error may be slow, and the task may be deleted while it waits for it.
void syslogAdd(const char *msg, Int32 msglen);

// The two steps of syslogAdd, for a caller that has a lock to give back between them. syslogQueue queues the line and
// sends the writer its event. It prints nothing, and it has no cancellation point.
// true   queued or dropped.
// false  lost in a full ring. The caller calls syslogReportOverflow as soon as it holds no lock.
bool syslogQueue(const char *msg);
void syslogReportOverflow();

// Returns the level that a line's first character names: "C" 2, "E" 3, "W" 4, "I" 6, anything else 7.
Int32 mapLogLevel(char levelChar);

// Sets the threshold. A line with a level above it is dropped. The threshold is 7 at start: no line is above it.
void syslogSetLogLevel(Int32 level);

// Empties the ring and starts the writer. It is called once.
// - Without memory for the semaphore "logw" all lines are dropped.
// - If the writer task fails, logcrit says so. Lines are then queued and never printed.
void InitSyslogInterface();

// logWriterThread is the body of the writer task. syslogDrainQueue prints all lines that are queued; only the writer
// task may call it.
void logWriterThread(UInt32, UInt32, UInt32, UInt32);
void syslogDrainQueue();

// Logs a line with a level and without a component.
__attribute__((format(printf, 2, 3))) void cm_syslog(Int32 pri, const char *fmt, ...);

// The classic calls. They keep their settings, and nothing reads these. One task makes the settings. ident stays the
// caller's.
void openlog(const char *ident, Int32 logstat, Int32 logfac);
void closelog();
Int32 setlogmask(Int32 pmask);      // returns the old mask; 0 changes nothing
Int32 setloglocalmask(Int32 pmask); // the same for the local mask
Int32 getlogmask();
Int32 getloglocalmask();
void setlogfacility(Int32 facility);
Int32 getlogfacility();
Int32 setlogaddr(const char *hostname); // always -1
const char *getlogaddr();
