// pSOS-style timers: sleeps, timers that send events or call a function, the millisecond clock.
//
// Units:   ticks of 10 ms, unless a name says otherwise.
// Owner:   timers come from a fixed pool of 50; the 51st running at once stops the program, and so
//          does a first one without memory for the pool. A timer that has expired for good is back in
//          the pool by itself.
// Locking: tmcblistmutex guards the pool and the running list. Callbacks and event posts run in the
//          timer task "tmtk" with it held. A callback must not start or cancel a timer, call ev_receive with a
//          time-out, or call t_delete, on whatever task: each would wait for ever, and stops the program instead. It
//          must not wait for a task that does one of these.
// The timer task starts with the first timer, safely from several threads at once. While it cannot be started,
// timers stand still; every new one tries again.
#pragma once

#include "Common/types.h"

#include <atomic>
#include <pthread.h>

constexpr UInt32 kMaxTimers = 50;

// A nonzero result runs the timer again after its original count.
using tm_callback_ptr = int (*)(void *pArgs);

// The record that a timer identifier designates.
struct TMCB {
    UInt32 taskID;    // who gets the events: the creating task
    UInt32 ticks;     // left until expiry
    UInt32 origTicks; // reload value; 0: do not repeat (event timers)
    UInt32 events;    // sent on expiry when there is no callback
    tm_callback_ptr cbptr;
    void *pArgs;
    TMCB *next;
};

// Real-time clock module of the MPC8349.
struct rtclk8349 {
    UInt32 cnr; // control
    UInt32 ldr; // load value
    UInt32 psr; // prescaler
    UInt32 ctr; // the running count
    UInt32 evr; // not used
    UInt32 alr; // not used
};

extern pthread_mutex_t tmcblistmutex;
extern std::atomic<UInt32> gEpochMillisecs; // advanced by 10 on every tick of the timer task

// Whether the calling thread is in a callback of a timer.
bool tm_in_callback();

// Builds the pool and starts the timer task, unless that was done.
void StartSystemTimer();

// Sleeps. Returns 0; a count of 0 returns at once.
UInt32 tm_wkafter(UInt32 ticks);

// Sleeps the given number of microseconds.
void udelay(UInt32 microseconds);

// Calls callback(arg) after ticks, and again after ticks more as long as it returns nonzero. Stores
// the identifier in *tmid_out and returns 0. A count of 0 in practice never expires. Null for tmid_out or callback
// stops the program.
UInt32 tm_callback_after(UInt32 ticks, UInt32 *tmid_out, tm_callback_ptr callback, void *arg);

// Send events to the calling task after ticks once, or every ticks. Return 0. The task cancels its
// timers before it ends. Null for tmid_out stops the program.
UInt32 tm_evafter(UInt32 ticks, UInt32 events, UInt32 *tmid_out);
UInt32 tm_evevery(UInt32 ticks, UInt32 events, UInt32 *tmid_out);

// Stops a running timer. Returns 0. One that is not running is reported on standard output; if its
// block has meanwhile been handed out again, the new owner's timer is the one that stops.
UInt32 tm_cancel(UInt32 tmid);

// Stops a callback timer if it is still running and still this one; says nothing if not. For an
// owner whose timer may be expiring at this moment.
void tm_cancel_callback(UInt32 tmid, tm_callback_ptr callback, const void *arg);

// Free-running millisecond clock; wraps after about 49.7 days. On a processor of the MPC8349's family, which the
// kernel's processor information or device tree names, it is the real-time clock; anywhere else, and when that cannot
// be mapped, the monotonic clock.
UInt32 RealTimeMilliSeconds();
UInt32 millitime(UInt32 *out); // the same; also stored in *out unless null
UInt32 GetTickCountLinux();    // RealTimeMilliSeconds / 10
UInt32 RealTime();             // RealTimeMilliSeconds / 1000: seconds

UInt32 GetMillisecondsPerTick(); // 10
double GetProcessorFrequency();  // 66666664.0 Hz
UInt32 CYCLES();                 // low word of the processor's time base
