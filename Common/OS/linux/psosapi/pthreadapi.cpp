#include "Common/OS/linux/psosapi/pthreadapi.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/psosapi/pthreadapi_inner.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

std::atomic<Int32> sched_policy; // SCHED_OTHER

namespace
{

constexpr Int32 kMaxPriority = 99;

// ---- The thread of a task

// The very end of a task's thread. Nothing that the task calls is left to run, and no other thread has its handle yet.
void LeaveTask(void *task)
{
    TCB *tcb = static_cast<TCB *>(task);
    ownTask = nullptr;
    if (tcb->claimed == kJoinedByAnother) {
        // The task that joins this thread does the rest. No lock is taken: ThreadSanitizer does not see the locks of a
        // thread that was cancelled in a wait.
        tcb->thread = pthread_t{};
        return;
    }
    const MutexHold hold(&tcblistmutex);
    tcb->thread = pthread_t{};
    if (tcb->claimed == kJoinedByAnother || tcb->claimed == kAwaitedByAnother)
        return; // the joining task retires it
    if (tcb->claimed == kNotDeleted && tcb->task_start != nullptr)
        pthread_detach(pthread_self()); // nobody joins it
    t_free_tcb(tcb);
    if (tcb->claimed == kDeletedByItself)
        RebuildTreeLocked();
}

// The destructor of a key and not of an object: that would also run when main returns, while other tasks go on.
pthread_key_t LeavingKey()
{
    static const pthread_key_t key = [] {
        pthread_key_t made{};
        os_assert(pthread_key_create(&made, LeaveTask) == 0, "pthread_key_create(&made, LeaveTask) == 0");
        return made;
    }();
    return key;
}

// Makes the calling thread known as the task's thread. The log line is written after the lock is
// released: the first line of a process reads settings, which asks for the caller's task.
void EnterTask(TCB *tcb)
{
    const pthread_t thread = pthread_self();
    const Int32 pid = getpid();
    const Int32 tid = gLibPThreadNPTL == 1 ? gettid() : 0;
    os_assert(pthread_setspecific(LeavingKey(), tcb) == 0, "pthread_setspecific(LeavingKey(), tcb) == 0");
    ownTask = tcb;
    {
        const MutexHold hold(&tcblistmutex);
        tcb->thread = thread;
        tcb->pid = pid;
        tcb->tid = tid;
        TreeStubLocked();
        SetTreeEntryLocked(thread, tcb);
    }
    const auto processId = static_cast<UInt32>(pid);
    if (gLibPThreadNPTL == 1)
        logdebug("os", "task:%4.4s pid:%u thread %08x %d %08x\n", tcb->taskname, processId, ThreadKey(thread), tid,
                 low_id(tcb));
    else
        logdebug("os", "task:%4.4s pid:%u thread %d\n", tcb->taskname, processId,
                 static_cast<Int32>(ThreadKey(thread)));
}

// The thread stays the task that it is, under another name.
void AttachAgain(const char *name, UInt32 priority)
{
    static constexpr char kNoName[sizeof ownTask->taskname] = {};
    const MutexHold hold(&tcblistmutex);
    std::memcpy(ownTask->taskname, name != nullptr ? name : kNoName, sizeof kNoName);
    ownTask->priority = priority;
    ownTask->prv_pri.sched_priority = static_cast<Int32>(priority);
    SetTreeEntryLocked(ownTask->thread, ownTask); // a deletion may have emptied the tree
}

void *pthread_entry(void *task)
{
    TCB *tcb = static_cast<TCB *>(task);
    EnterTask(tcb);
    tcb->task_start(tcb->args[0], tcb->args[1], tcb->args[2], tcb->args[3]);
    t_delete(low_id(tcb));
    return nullptr; // t_delete does not come back
}

void CheckPriority(const TCB *tcb)
{
    if (sched_policy == SCHED_OTHER || tcb->priority <= kMaxPriority)
        return;
    std::printf("tpri %d %s\n", static_cast<Int32>(tcb->priority), tcb->taskname);
    os_assert(false, "((int) tcb->prv_pri.__sched_priority >= 0) && tcb->prv_pri.__sched_priority <= 99");
}

// Fills prv_pri and attr from the priority and the policy.
void SetScheduling(TCB *tcb)
{
    const Int32 policy = sched_policy;
    pthread_attr_init(&tcb->attr);
    pthread_attr_setschedpolicy(&tcb->attr, tcb->priority != 0 ? policy : SCHED_OTHER);
    pthread_attr_setinheritsched(&tcb->attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_getschedparam(&tcb->attr, &tcb->prv_pri);
    tcb->prv_pri.sched_priority = policy != SCHED_OTHER ? static_cast<Int32>(tcb->priority) : 0;
    pthread_attr_setschedparam(&tcb->attr, &tcb->prv_pri);
}

// Created, and neither started nor deleted.
bool IsStartableLocked(const TCB *tcb)
{
    return FindListedLocked(tcb) != nullptr && tcb->claimed == kNotDeleted && tcb->thread == pthread_t{};
}

bool IsStartable(const TCB *tcb)
{
    const MutexHold hold(&tcblistmutex);
    return IsStartableLocked(tcb);
}

// Returns an error number. The lock is held until the handle is stored. So nobody takes the task for one that was never
// started, and of two starts at the same time the second is refused and changes nothing.
int StartThread(TCB *tcb, UInt32 mode, TaskStartT start, const UInt32 *args)
{
    const MutexHold hold(&tcblistmutex);
    if (!IsStartableLocked(tcb))
        return ESRCH;
    tcb->mode = mode;
    tcb->task_start = start;
    SetScheduling(tcb);
    static constexpr decltype(TCB::args) kZeros = {}; // a start that failed may have left others
    std::memcpy(tcb->args, args != nullptr ? args : kZeros, sizeof tcb->args);
    pthread_t thread{};
    const int error = pthread_create(&thread, &tcb->attr, pthread_entry, tcb);
    if (error == 0)
        tcb->thread = thread;
    return error;
}

// ---- Deletion

// The target of t_delete.
struct DeletionT {
    TCB *tcb = nullptr; // to be deleted by the caller, and by nobody else
    UInt32 serial = 0;  // of the task whose end has to be waited for
    pthread_t thread{};
    char name[kTaskNameSize] = "????";
    Int32 pid = -1;
};

// Two tasks that wait for each other's end would wait for ever.
bool WaitsForCallerLocked(const TCB *tcb)
{
    while (tcb != nullptr && tcb != ownTask)
        tcb = FindSerialLocked(tcb->waitsFor);
    return tcb != nullptr;
}

DeletionT ClaimTask(const TCB *target)
{
    DeletionT deletion;
    const MutexHold hold(&tcblistmutex);
    TCB *tcb = FindListedLocked(target);
    if (tcb == nullptr)
        return deletion;
    std::memcpy(deletion.name, tcb->taskname, sizeof tcb->taskname);
    deletion.pid = tcb->pid;
    deletion.thread = tcb->thread;
    if (tcb != ownTask && WaitsForCallerLocked(tcb))
        return deletion;
    if (tcb->claimed == kNotDeleted) {
        const ClaimT byAnother = tcb->task_start != nullptr ? kJoinedByAnother : kAwaitedByAnother;
        tcb->claimed = tcb == ownTask ? kDeletedByItself : byAnother;
        deletion.tcb = tcb;
    }
    if (tcb != ownTask)
        deletion.serial = tcb->serial;
    if (ownTask != nullptr)
        ownTask->waitsFor = deletion.serial;
    return deletion;
}

[[noreturn]] void EndThread(bool claimed)
{
    if (claimed) // otherwise somebody else is deleting the task, and joins it
        pthread_detach(pthread_self());
    pthread_exit(nullptr);
}

// Returns the result of the join. A thread that was attached may have been detached by its maker. So it is detached,
// and its end is waited for instead. Its handle is good only while the task's record has it, under the list's lock.
int CancelAndJoin(const DeletionT &deletion)
{
    if (deletion.tcb->claimed == kJoinedByAnother) {
        pthread_cancel(deletion.thread);
        return pthread_join(deletion.thread, nullptr);
    }
    const MutexHold hold(&tcblistmutex);
    if (deletion.tcb->thread == pthread_t{})
        return 0;
    pthread_cancel(deletion.thread);
    return pthread_detach(deletion.thread);
}

void EndTask(const DeletionT &deletion)
{
    logwarn("os", "deleted task:%4.4s\n", deletion.name);
    if (deletion.thread == pthread_t{})
        return; // it was never started
    if (const int result = CancelAndJoin(deletion); result != 0)
        logwarn("os", "deleted task failed to join: %d\n", result);
    while (deletion.tcb->thread != pthread_t{})
        tm_wkafter(1);
}

// The last step of a deletion. Takes the task out of the list, or waits until another task has done that.
void FinishDeletion(const DeletionT &deletion)
{
    const MutexHold hold(&tcblistmutex);
    if (deletion.tcb != nullptr) {
        t_free_tcb(deletion.tcb);
        RebuildTreeLocked();
    }
    AwaitGoneLocked(deletion.serial);
    if (ownTask != nullptr)
        ownTask->waitsFor = 0;
}

} // namespace

void set_sched_policy(Int32 policy)
{
    sched_policy = policy;
}

Int32 get_sched_policy()
{
    return sched_policy;
}

UInt32 t_create(const char *name, UInt32 priority, UInt32, UInt32, UInt32, UInt32 *tid_out)
{
    TCB *tcb = NewTcb(name, priority, pthread_t{});
    if (tcb == nullptr)
        return kTaskNoMemory;
    if (tid_out != nullptr)
        *tid_out = low_id(tcb);
    return 0;
}

UInt32 t_start(UInt32 tid, UInt32 mode, TaskStartT start, const UInt32 *args)
{
    TCB *tcb = low_pointer<TCB>(tid);
    os_assert(tcb, "tcb");
    int error = ESRCH;
    if (IsStartable(tcb)) {
        CheckPriority(tcb);
        os_assert(start, "start");
        error = StartThread(tcb, mode, start, args);
    }
    if (error == 0)
        return 0;
    errno = error;
    std::perror("pthread_create failed");
    return kTaskNotStarted;
}

UInt32 t_delete(UInt32 tid)
{
    os_assert(!tm_in_callback(), "!tm_in_callback()");
    const TCB *caller = FindCaller();
    const TCB *target = tid != 0 ? low_pointer<TCB>(tid) : caller;
    const CancelOffHold whole; // what is claimed has to end before the caller does
    const DeletionT deletion = ClaimTask(target);
    logwarn("os", "task %4.4s deleted task:%4.4s, pid %d\n", NameOrUnknown(caller), deletion.name, deletion.pid);
    if (target != nullptr && target == ownTask)
        EndThread(deletion.tcb != nullptr);
    if (deletion.tcb != nullptr)
        EndTask(deletion);
    FinishDeletion(deletion);
    return 0;
}

UInt32 t_setpri(UInt32 tid, UInt32 newpri, UInt32 *previous_out)
{
    TCB *tcb = ResolveTask(tid);
    if (tcb == nullptr)
        return kTaskNotFound;
    const MutexHold hold(&tcblistmutex);
    if (previous_out != nullptr)
        *previous_out = tcb->priority;
    if (tcb->priority == newpri)
        return 0;
    tcb->priority = newpri;
    tcb->prv_pri.sched_priority = static_cast<Int32>(newpri);
    os_assert(newpri <= kMaxPriority, "tcb->prv_pri.__sched_priority <= 99");
    const Int32 policy = sched_policy;
    if (policy == SCHED_OTHER || tcb->thread == pthread_t{} || tcb->claimed != kNotDeleted)
        return 0; // accepted and ignored, or taken over when the task starts; a claimed one may end at any moment
    return static_cast<UInt32>(pthread_setschedparam(tcb->thread, policy, &tcb->prv_pri));
}

UInt32 t_attach(const char *name, UInt32 priority)
{
    os_assert(priority > 0 && priority <= kMaxPriority,
              "((int) tcb->prv_pri.__sched_priority > 0) && tcb->prv_pri.__sched_priority <= 99");
    if (ownTask != nullptr) {
        AttachAgain(name, priority);
        return 0;
    }
    TCB *tcb = NewTcb(name, priority, pthread_self());
    if (tcb == nullptr)
        return kTaskNoMemory;
    tcb->prv_pri.sched_priority = static_cast<Int32>(priority);
    EnterTask(tcb);
    return 0;
}

UInt32 t_setRefCon(UInt32 tid, UInt32 refcon)
{
    TCB *tcb = ResolveTask(tid);
    if (tcb == nullptr)
        return kTaskNotFound;
    tcb->refcon = refcon;
    return 0;
}

UInt32 t_getRefCon(UInt32 tid, UInt32 *refcon_out)
{
    os_assert(refcon_out, "refcon_out");
    const TCB *tcb = ResolveTask(tid);
    if (tcb == nullptr)
        return kTaskNotFound;
    *refcon_out = tcb->refcon;
    return 0;
}
