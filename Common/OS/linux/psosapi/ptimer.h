// pSOS-style timers: sleeps, timers that send events or call a function, the millisecond clock.
//
// Units:   ticks of 10 ms, unless a name says otherwise.
// Owner:   timers come from a fixed pool of 50. The 51st that runs at the same time stops the program. So does the
//          first one, if there is no memory for the pool. A timer that has expired for good goes back to the pool by
//          itself.
// Locking: tmcblistmutex guards the pool and the running list. The timer task "tmtk" holds it while it runs callbacks
//          and posts events. So a callback must not start or cancel a timer, call ev_receive with a time-out, or call
//          t_delete, whatever the task: the call would wait for ever, and stops the program instead. A callback must
//          not wait for a task that makes such a call.
//
// The first timer starts the timer task. Several threads may do so at the same time. While the task cannot be started,
// timers stand still. Each new timer tries again.
#pragma once

#include "Common/types.h"

#include <atomic>
#include <pthread.h>

constexpr UInt32 kMaxTimers = 50;

// If the result is not 0, the timer runs again, with its original count.
using tm_callback_ptr = int (*)(void *pArgs);

// The record that a timer identifier designates.
struct TMCB {
    UInt32 taskID;    // who gets the events: the creating task
    UInt32 ticks;     // left until expiry
    UInt32 origTicks; // count of the next run; 0: an event timer that does not repeat
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

// Builds the pool and starts the timer task, unless both are there.
void StartSystemTimer();

// Sleeps. Returns 0. A count of 0 returns at once.
UInt32 tm_wkafter(UInt32 ticks);

// Sleeps the given number of microseconds.
void udelay(UInt32 microseconds);

// Calls callback(arg) after ticks. If it returns another value than 0, it is called again after as many ticks. Stores
// the identifier in *tmid_out and returns 0. A count of 0 in practice never expires. Null for tmid_out or callback
// stops the program.
UInt32 tm_callback_after(UInt32 ticks, UInt32 *tmid_out, tm_callback_ptr callback, void *arg);

// Send events to the calling task: tm_evafter once after ticks, tm_evevery each time ticks have passed. Both return 0.
// The task has to cancel its timers before it ends. Null for tmid_out stops the program.
UInt32 tm_evafter(UInt32 ticks, UInt32 events, UInt32 *tmid_out);
UInt32 tm_evevery(UInt32 ticks, UInt32 events, UInt32 *tmid_out);

// Stops a running timer. Returns 0. A timer that does not run is reported on standard output. If its block belongs to
// another timer by now, that other timer is stopped.
UInt32 tm_cancel(UInt32 tmid);

// Stops a callback timer, if it still runs and still has this callback and arg. Otherwise it does nothing and prints
// nothing. It is for the owner of a timer that may expire at this moment.
void tm_cancel_callback(UInt32 tmid, tm_callback_ptr callback, const void *arg);

// Free-running millisecond clock. It starts again from 0 after about 49.7 days. On a processor of the MPC8349's family,
// which the kernel's processor information or device tree names, it is the real-time clock. On any other machine, and
// when the real-time clock cannot be mapped, it is the monotonic clock.
UInt32 RealTimeMilliSeconds();
UInt32 millitime(UInt32 *out); // the same, and stored in *out unless out is null
UInt32 GetTickCountLinux();    // RealTimeMilliSeconds / 10
UInt32 RealTime();             // RealTimeMilliSeconds / 1000: seconds

UInt32 GetMillisecondsPerTick(); // 10
double GetProcessorFrequency();  // 66666664.0 Hz
UInt32 CYCLES();                 // low word of the processor's time base
