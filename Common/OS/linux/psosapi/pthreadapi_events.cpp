#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/psosapi/pthreadapi_inner.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/osassert.h"

#include <cstdio>

namespace
{

void LockEvents(TCB *tcb)
{
    os_assert(pthread_mutex_lock(&tcb->event_mutex) == 0, "pthread_mutex_lock(&tcb->event_mutex) == 0");
}

void UnlockEvents(TCB *tcb)
{
    os_assert(pthread_mutex_unlock(&tcb->event_mutex) == 0, "pthread_mutex_unlock(&tcb->event_mutex) == 0");
}

void SignalEvents(TCB *tcb)
{
    os_assert(pthread_cond_signal(&tcb->event_cond) == 0, "pthread_cond_signal(&tcb->event_cond) == 0");
}

// The timer list's lock is never taken under an event mutex, because the timer task takes them in the opposite order.
void StartTimeout(TCB *tcb, UInt32 timeout)
{
    UnlockEvents(tcb);
    tm_callback_after(timeout, &tcb->tmid, ev_receive_timeout, tcb);
    LockEvents(tcb);
}

// The timer may expire at this moment. Its block may then belong to another timer.
void CancelTimeout(TCB *tcb)
{
    const UInt32 tmid = tcb->tmid;
    tcb->tmid = 0;
    UnlockEvents(tcb);
    if (tmid != 0)
        tm_cancel_callback(tmid, ev_receive_timeout, tcb);
    LockEvents(tcb);
}

// When the waiting task is deleted, its event mutex must not stay locked and its timer must not outlive the task.
class WaitEnd
{
public:
    explicit WaitEnd(TCB *tcb) : tcb_(tcb) {}
    ~WaitEnd()
    {
        if (tcb_ == nullptr)
            return;
        CancelTimeout(tcb_);
        UnlockEvents(tcb_);
    }
    WaitEnd(const WaitEnd &) = delete;
    WaitEnd &operator=(const WaitEnd &) = delete;
    void Done() { tcb_ = nullptr; }

private:
    TCB *tcb_;
};

void SleepOnEvents(TCB *tcb)
{
    WaitEnd end(tcb);
    os_assert(pthread_cond_wait(&tcb->event_cond, &tcb->event_mutex) == 0,
              "pthread_cond_wait(&tcb->event_cond, &tcb->event_mutex) == 0");
    end.Done();
}

// Takes the matching events. 0: no event matches. The caller holds the event mutex.
UInt32 TakeEvents(TCB *tcb, UInt32 events, UInt32 flags, UInt32 *events_out)
{
    const UInt32 matched = events_matched(tcb->events_captured, events, flags);
    if (matched != 0) {
        *events_out = matched;
        tcb->events_captured.fetch_and(~matched);
    }
    return matched;
}

// The caller holds the event mutex. It is released while the timer is started and cancelled, and in the sleep.
UInt32 WaitForEvents(TCB *tcb, UInt32 events, UInt32 flags, UInt32 timeout, UInt32 *events_out)
{
    tcb->timedout = 0;
    tcb->timedwait = 1;
    tcb->taskWaiting = 1;
    if (timeout != 0)
        StartTimeout(tcb, timeout);
    while (events_matched(tcb->events_captured, events, flags) == 0 && (timeout == 0 || tcb->timedout == 0))
        SleepOnEvents(tcb);
    tcb->timedwait = 0;
    // Events that came together with the time-out count.
    const UInt32 matched = TakeEvents(tcb, events, flags, events_out);
    if (timeout != 0)
        CancelTimeout(tcb);
    return matched != 0 ? 0 : kEvTimedOut;
}

} // namespace

UInt32 events_matched(UInt32 captured, UInt32 wanted, UInt32 flags)
{
    if ((flags & kEvAny) != 0)
        return captured & wanted;
    return (captured & wanted) == wanted ? wanted : 0;
}

UInt32 ev_send(UInt32 tid, UInt32 events)
{
    TCB *tcb = ResolveTask(tid);
    if (tcb == nullptr)
        return 0;
    tcb->events_captured.fetch_or(events);
    // A sender posts before it looks whether the task waits, and a task says that it waits before it looks for events.
    // All four are sequentially consistent, so that at least one of the two sees the other.
    if (tcb->timedwait == 0)
        return 0;
    pthread_mutex_lock(&tcb->event_mutex);
    const bool waiting = tcb->taskWaiting != 0;
    UnlockEvents(tcb);
    if (waiting)
        SignalEvents(tcb);
    return 0;
}

UInt32 ev_send_listed(UInt32 tid, UInt32 events)
{
    {
        const MutexHold hold(&tcblistmutex);
        if (FindListedLocked(low_pointer<TCB>(tid)) == nullptr)
            return kTaskNotFound;
    }
    return ev_send(tid, events);
}

UInt32 ev_receive(UInt32 events, UInt32 flags, UInt32 timeout, UInt32 *events_out)
{
    TCB *tcb = FindCaller();
    if (tcb == nullptr)
        return kNoCallerTask;
    os_assert(events_out, "events_out");
    UInt32 result = 0;
    LockEvents(tcb);
    if (events == 0)
        *events_out = tcb->events_captured;
    else if ((flags & kEvNoWait) != 0)
        result = TakeEvents(tcb, events, flags, events_out) != 0 ? 0 : kEvNotPending;
    else
        result = WaitForEvents(tcb, events, flags, timeout, events_out);
    UnlockEvents(tcb);
    return result;
}

int ev_receive_timeout(void *task)
{
    TCB *tcb = static_cast<TCB *>(task);
    os_assert(tcb, "pTask");
    LockEvents(tcb);
    const bool expired = tcb->timedwait != 0;
    const bool waiting = tcb->taskWaiting != 0;
    if (expired)
        tcb->timedout = 1;
    UnlockEvents(tcb);
    if (expired && waiting)
        SignalEvents(tcb);
    else if (expired)
        std::printf("ev timed out without task waiting %4.4s\n", task_name(t_name(low_id(tcb))));
    return 0;
}
