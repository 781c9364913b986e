// The system log writer: a ring of completed lines and the task "logw" that prints them.
//
// Before InitSyslogInterface, and in a process that never calls it, every line is dropped.
// Locking: any task may add lines; log_Semaphore serialises them, and is held only while a line is copied. The
//          writer task reads the ring without the semaphore and moves the head, which a task that laps the writer
//          sets back.
#pragma once

#include "Common/types.h"

// Queues one completed line: six characters of level, seven of processor tag, text, newline. It is dropped without a
// word when it is empty, when its level is above the threshold, or when there is no writer. A full ring loses it: that
// is announced on standard error and, if there is room, in the ring. msglen is not used.
// A line that does not fit in the rest of the ring goes to its front without a look at the writer: one that is almost
// a whole ring behind loses what it has not printed yet.
// The caller holds no lock: standard error may be slow, and the task may be deleted while it waits for it.
void syslogAdd(const char *msg, Int32 msglen);

// The two steps of syslogAdd, for a caller that has a lock to give back between them. syslogQueue queues the line and
// sends the writer its event; it prints nothing, and nobody can be deleted in it.
// true   queued or dropped.
// false  lost in a full ring: syslogReportOverflow is to be called as soon as no lock is held.
bool syslogQueue(const char *msg);
void syslogReportOverflow();

// Level of a line by its first character: "E" 3, "C" 2, "I" 6, "W" 4, anything else 7.
Int32 mapLogLevel(char levelChar);

// Lines above this level are dropped. 7 at start: all pass.
void syslogSetLogLevel(Int32 level);

// Empties the ring and starts the writer; to be called once. A failing writer task is reported through
// logcrit and leaves lines queued and never printed; without memory for the semaphore "logw" all lines
// are dropped.
void InitSyslogInterface();

// Body of the writer task; prints everything queued. Only the writer task may call it.
void logWriterThread(UInt32, UInt32, UInt32, UInt32);
void syslogDrainQueue();

// Logs with a level and no component.
__attribute__((format(printf, 2, 3))) void cm_syslog(Int32 pri, const char *fmt, ...);

// The classic call set. The settings are kept and nothing consults them. One task sets them; ident stays the caller's.
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
