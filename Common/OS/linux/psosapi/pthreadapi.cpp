#include "Common/OS/linux/psosapi/pthreadapi.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <unistd.h>

TCB *tcblist;
tBTreeHandle gTCBTree;
pthread_mutex_t tcblistmutex = PTHREAD_MUTEX_INITIALIZER;
Int32 gLibPThreadNPTL;

namespace
{

constexpr UInt32 kMaxTasksDumped = 200;
constexpr Int32 kMaxPriority = 99;

std::atomic<Int32> sched_policy; // SCHED_OTHER
std::atomic<pthread_t> tcblistholder;
std::atomic<UInt32> treeGeneration; // one more with every rebuilding of the tree

// Holds tcblistmutex and knows who does.
class TcbListHold
{
public:
    TcbListHold() : hold_(&tcblistmutex) { tcblistholder.store(pthread_self(), std::memory_order_relaxed); }
    ~TcbListHold() { tcblistholder.store(pthread_t{}, std::memory_order_relaxed); }
    TcbListHold(const TcbListHold &) = delete;
    TcbListHold &operator=(const TcbListHold &) = delete;

private:
    MutexHold hold_;
};

// The clean-up of the event calls: it is the list's lock that it gives back, not the event mutex,
// and only if the cancelled thread holds it. A wait gives its event mutex back itself (WaitEnd).
void ReleaseTcbList(void *)
{
    if (tcblistholder.load(std::memory_order_relaxed) != pthread_self())
        return;
    tcblistholder.store(pthread_t{}, std::memory_order_relaxed);
    pthread_mutex_unlock(&tcblistmutex);
}

// Key of a thread in the tree. On a 64-bit host the handles of two live threads are at least a page
// apart, and bits 12 to 43 tell them apart.
UInt32 ThreadKey(pthread_t thread)
{
    constexpr int kShift = sizeof(pthread_t) > sizeof(UInt32) ? 12 : 0;
    return static_cast<UInt32>(thread >> kShift);
}

thread_local bool isTask; // set for good when a thread becomes a task

// The calling task, or null. A thread's place in the tree changes only when the tree is rebuilt, so
// each thread remembers what it found until then.
TCB *FindCaller()
{
    thread_local TCB *found = nullptr;
    thread_local UInt32 foundIn = 0;
    if (!isTask) // an ended task's entry may still be there under the same handle
        return nullptr;
    const UInt32 generation = treeGeneration;
    if (found == nullptr || foundIn != generation) {
        found = FindTcbThread(pthread_self());
        foundIn = generation;
    }
    return found;
}

TCB *ResolveTask(UInt32 tid)
{
    return tid != 0 ? low_pointer<TCB>(tid) : FindCaller();
}

// ---- The list and the tree. Names ending in Locked: the caller holds tcblistmutex.

void AddTcb(TCB *tcb)
{
    if (tcb == nullptr) {
        std::puts("AddTcb: tcb pointer is NULL");
        return;
    }
    TcbListHold hold;
    TCB **link = &tcblist;
    while (*link != nullptr)
        link = &(*link)->next;
    *link = tcb;
}

void TreeStubLocked()
{
    if (gTCBTree == 0)
        gTCBTree = CreateTree();
}

// Only tasks with a kernel thread id come back. Where threads have none of their own (see
// gLibPThreadNPTL) the tree is empty afterwards, on purpose.
void RebuildTreeLocked()
{
    if (gTCBTree == 0)
        return;
    treeGeneration++;
    DestroyTree(gTCBTree);
    for (TCB *tcb = tcblist; tcb != nullptr; tcb = tcb->next)
        if (tcb->tid != 0)
            InsertItem(gTCBTree, ThreadKey(tcb->thread), tcb);
}

void RemoveTcb(TCB *tcb)
{
    TcbListHold hold;
    TCB **link = &tcblist;
    while (*link != nullptr && *link != tcb)
        link = &(*link)->next;
    if (*link == nullptr)
        return;
    *link = tcb->next;
    tcb->next = nullptr;
    RebuildTreeLocked();
}

TCB *FindListedLocked(const TCB *wanted)
{
    TCB *tcb = tcblist;
    while (tcb != nullptr && tcb != wanted)
        tcb = tcb->next;
    return tcb;
}

void t_free_tcb(void *task)
{
    TCB *tcb = static_cast<TCB *>(task);
    if (tcb == nullptr)
        return;
    RemoveTcb(tcb);
    while (tcb->posting != 0)
        tm_wkafter(1); // not a yield: under a real-time policy this task may be above the one that posts
    pthread_mutex_destroy(&tcb->event_mutex);
    pthread_cond_destroy(&tcb->event_cond);
    low_free(tcb);
}

// ---- Creation

// A complete block in the list, or null. It is listed last, so that nobody finds half a task.
TCB *NewTcb(const char *name, UInt32 priority)
{
    void *block = low_calloc(sizeof(TCB));
    if (block == nullptr)
        return nullptr;
    TCB *tcb = new (block) TCB{};
    if (InitPriorityMutex(&tcb->event_mutex) != 0) {
        low_free(block);
        return nullptr;
    }
    pthread_cond_init(&tcb->event_cond, nullptr);
    if (name != nullptr)
        std::memcpy(tcb->taskname, name, sizeof tcb->taskname);
    tcb->priority = priority;
    AddTcb(tcb);
    return tcb;
}

// A task that was joined a moment ago, or an attached thread that returned, may still be listed while its
// handle is already in use again, by its successor. It must not be found in the tree, and not be taken for
// the task itself when that one is deleted.
void ForgetEndedTaskLocked(const TCB *successor)
{
    bool found = false;
    for (TCB *tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        if (tcb == successor || pthread_equal(tcb->thread, successor->thread) == 0)
            continue;
        tcb->thread = pthread_t{};
        tcb->tid = 0;
        found = true;
    }
    if (found)
        RebuildTreeLocked();
}

// Makes the calling thread known as the task's thread. The log line is written after the lock is
// released: the first line of a process reads settings, which asks for the caller's task.
void EnterTask(TCB *tcb)
{
    const pthread_t thread = pthread_self();
    const Int32 pid = getpid();
    const Int32 tid = gLibPThreadNPTL == 1 ? gettid() : 0;
    {
        TcbListHold hold;
        tcb->thread = thread;
        tcb->pid = pid;
        TreeStubLocked();
        ForgetEndedTaskLocked(tcb);
        tcb->tid = tid; // not earlier: rebuilding the tree enters every task that has one
        os_assert(InsertItem(gTCBTree, ThreadKey(thread), tcb) == 0,
                  "InsertItem(gTCBTree, tcb->thread, (void *) tcb) == 0");
        isTask = true;
    }
    const auto processId = static_cast<UInt32>(pid);
    if (gLibPThreadNPTL == 1)
        logdebug("os", "task:%4.4s pid:%u thread %08x %d %08x\n", tcb->taskname, processId, ThreadKey(thread), tid,
                 low_id(tcb));
    else
        logdebug("os", "task:%4.4s pid:%u thread %d\n", tcb->taskname, processId,
                 static_cast<Int32>(ThreadKey(thread)));
}

void *pthread_entry(void *task)
{
    TCB *tcb = static_cast<TCB *>(task);
    EnterTask(tcb);
    tcb->task_start(tcb->args[0], tcb->args[1], tcb->args[2], tcb->args[3]);
    t_delete(low_id(tcb));
    return nullptr; // another task is deleting this one, and frees it
}

// Fills prv_pri and attr from the priority and the policy.
void SetScheduling(TCB *tcb)
{
    const Int32 policy = sched_policy;
    pthread_attr_init(&tcb->attr);
    pthread_attr_setschedpolicy(&tcb->attr, tcb->priority != 0 ? policy : SCHED_OTHER);
    pthread_attr_setinheritsched(&tcb->attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_getschedparam(&tcb->attr, &tcb->prv_pri);
    tcb->prv_pri.sched_priority = 0;
    if (policy != SCHED_OTHER) {
        tcb->prv_pri.sched_priority = static_cast<Int32>(tcb->priority);
        if (tcb->priority > kMaxPriority)
            std::printf("tpri %d %s\n", tcb->prv_pri.sched_priority, tcb->taskname);
        os_assert(tcb->priority <= kMaxPriority,
                  "((int) tcb->prv_pri.__sched_priority >= 0) && tcb->prv_pri.__sched_priority <= 99");
    }
    pthread_attr_setschedparam(&tcb->attr, &tcb->prv_pri);
}

// ---- Deletion

// A task on its way out. Who holds one with a task in it is the only one to free that task.
struct DeletionT {
    TCB *tcb; // null: not there, or claimed by somebody else
    pthread_t thread;
    Int32 pid;
};

// A task that is being deleted itself gets nothing: two that delete each other would wait for ever.
DeletionT ClaimTask(const TCB *target)
{
    constexpr DeletionT kNothing = {nullptr, pthread_t{}, -1};
    TcbListHold hold;
    TCB *found = nullptr;
    for (TCB *tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        if (tcb->claimed != 0 && pthread_equal(tcb->thread, pthread_self()))
            return kNothing;
        if (tcb == target && tcb->claimed == 0)
            found = tcb;
    }
    if (found == nullptr)
        return kNothing;
    found->claimed = 1;
    return {found, found->thread, found->pid};
}

const char *NameOrUnknown(const TCB *tcb)
{
    return tcb != nullptr ? tcb->taskname : "????";
}

void CancelAndJoin(const DeletionT &deletion)
{
    pthread_cancel(deletion.thread);
    if (const int result = pthread_join(deletion.thread, nullptr); result != 0)
        logwarn("os", "deleted task failed to join: %d\n", result);
}

// ---- Events

void LockEvents(TCB *tcb)
{
    os_assert(pthread_mutex_lock(&tcb->event_mutex) == 0, "pthread_mutex_lock(&tcb->event_mutex) == 0");
}

void UnlockEvents(TCB *tcb)
{
    os_assert(pthread_mutex_unlock(&tcb->event_mutex) == 0, "pthread_mutex_unlock(&tcb->event_mutex) == 0");
}

// Keeps a block alive until its condition was signalled: the task may have taken the events, ended
// and been freed before that.
class PostingHold
{
public:
    explicit PostingHold(TCB *tcb) : tcb_(tcb) { tcb_->posting++; }
    ~PostingHold() { tcb_->posting--; }
    PostingHold(const PostingHold &) = delete;
    PostingHold &operator=(const PostingHold &) = delete;

private:
    TCB *tcb_;
};

void SignalEvents(TCB *tcb)
{
    os_assert(pthread_cond_signal(&tcb->event_cond) == 0, "pthread_cond_signal(&tcb->event_cond) == 0");
}

// The timer list's lock is never taken under an event mutex: the timer task takes the two the other
// way round.
void StartTimeout(TCB *tcb, UInt32 timeout)
{
    UnlockEvents(tcb);
    tm_callback_after(timeout, &tcb->tmid, ev_receive_timeout, tcb);
    LockEvents(tcb);
}

// The timer may expire at this very moment, and its block belong to somebody else the next.
void CancelTimeout(TCB *tcb)
{
    const UInt32 tmid = tcb->tmid;
    tcb->tmid = 0;
    UnlockEvents(tcb);
    if (tmid != 0)
        tm_cancel_callback(tmid, ev_receive_timeout, tcb);
    LockEvents(tcb);
}

// When the waiting task is deleted, its event mutex must not die locked and its timer must not
// outlive the block.
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

// Under the event mutex: takes the matching events. 0: there are none.
UInt32 TakeEvents(TCB *tcb, UInt32 events, UInt32 flags, UInt32 *events_out)
{
    const UInt32 matched = events_matched(tcb->events_captured, events, flags);
    if (matched != 0) {
        *events_out = matched;
        tcb->events_captured.fetch_and(~matched);
    }
    return matched;
}

// Under the event mutex, which is released while the timer is started, cancelled, and in the sleep.
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

// ---- Reports

// Processor time in clock ticks, from a stat file of /proc; zeros when it cannot be read.
void ReadProcessorTime(const TCB *tcb, Int32 *user, Int32 *system)
{
    const CancelOffHold hold;
    char path[64];
    if (gLibPThreadNPTL == 1)
        std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", tcb->tid);
    else
        std::snprintf(path, sizeof path, "/proc/%d/stat", tcb->pid);
    *user = *system = 0;
    std::FILE *file = std::fopen(path, "r");
    if (file == nullptr)
        return;
    // Fields 14 and 15; the name in field 2 is in parentheses and may hold blanks.
    if (std::fscanf(file, "%*d (%*[^)]) %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %d %d", user, system) != 2)
        *user = *system = 0;
    std::fclose(file);
}

Int32 KernelId(const TCB *tcb)
{
    return gLibPThreadNPTL == 1 ? tcb->tid : tcb->pid;
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

void TreeStub()
{
    TcbListHold hold;
    TreeStubLocked();
}

TCB *FindTcbThread(pthread_t thread)
{
    TcbListHold hold;
    return gTCBTree != 0 ? static_cast<TCB *>(SearchTree(gTCBTree, ThreadKey(thread))) : nullptr;
}

UInt32 t_create(const char *name, UInt32 priority, UInt32, UInt32, UInt32, UInt32 *tid_out)
{
    TCB *tcb = NewTcb(name, priority);
    if (tcb == nullptr)
        return kTaskNoMemory;
    if (tid_out != nullptr)
        *tid_out = low_id(tcb);
    return 0;
}

UInt32 t_start(UInt32 tid, UInt32 mode, TaskStartT start, const UInt32 *args)
{
    TCB *tcb = low_pointer<TCB>(tid);
    tcb->mode = mode;
    tcb->task_start = start;
    SetScheduling(tcb);
    if (args != nullptr)
        std::memcpy(tcb->args, args, sizeof tcb->args);
    const int error = pthread_create(&tcb->thread, &tcb->attr, pthread_entry, tcb);
    if (error == 0)
        return 0;
    tcb->thread = pthread_t{};
    errno = error;
    std::perror("pthread_create failed");
    return kTaskNotStarted;
}

UInt32 t_delete(UInt32 tid)
{
    const TCB *caller = FindCaller();
    const TCB *target = tid != 0 ? low_pointer<TCB>(tid) : caller;
    const CancelOffHold whole; // what is claimed has to end before it is freed
    const DeletionT deletion = ClaimTask(target);
    pthread_cleanup_push(t_free_tcb, deletion.tcb);
    logwarn("os", "task %4.4s deleted task:%4.4s, pid %d\n", NameOrUnknown(caller), NameOrUnknown(deletion.tcb),
            deletion.pid);
    if (deletion.tcb != nullptr && pthread_equal(deletion.thread, pthread_self())) {
        pthread_detach(deletion.thread);
        pthread_exit(nullptr);
    }
    if (target != nullptr && target == caller) // somebody else is deleting the caller, and frees it
        pthread_exit(nullptr);
    if (deletion.tcb != nullptr) {
        logwarn("os", "deleted task:%4.4s\n", deletion.tcb->taskname);
        if (deletion.thread != pthread_t{})
            CancelAndJoin(deletion);
    }
    pthread_cleanup_pop(1);
    return 0;
}

UInt32 t_ident(const char *name, UInt32, UInt32 *tid_out)
{
    const TCB *found = nullptr;
    if (name == nullptr) {
        found = FindCaller();
    } else {
        TcbListHold hold;
        for (found = tcblist; found != nullptr; found = found->next)
            if (std::memcmp(found->taskname, name, sizeof found->taskname) == 0)
                break;
    }
    *tid_out = low_id(found);
    return found != nullptr ? 0 : kTaskNotFound;
}

UInt32 t_name(UInt32 tid)
{
    return low_id(ResolveTask(tid));
}

UInt32 t_copy_name(UInt32 tid, char *name_out)
{
    const TCB *wanted = ResolveTask(tid);
    TcbListHold hold;
    const TCB *tcb = FindListedLocked(wanted);
    std::memcpy(name_out, NameOrUnknown(tcb), kTaskNameSize);
    return tcb != nullptr ? 0 : kTaskNotFound;
}

UInt32 t_setpri(UInt32 tid, UInt32 newpri, UInt32 *previous_out)
{
    TCB *tcb = ResolveTask(tid);
    if (tcb == nullptr)
        return kTaskNotFound;
    TcbListHold hold;
    if (previous_out != nullptr)
        *previous_out = tcb->priority;
    if (tcb->priority == newpri)
        return 0;
    tcb->priority = newpri;
    tcb->prv_pri.sched_priority = static_cast<Int32>(newpri);
    os_assert(newpri <= kMaxPriority, "tcb->prv_pri.__sched_priority <= 99");
    const Int32 policy = sched_policy;
    if (policy == SCHED_OTHER || tcb->thread == pthread_t{})
        return 0; // accepted and ignored, or taken over when the task starts
    return static_cast<UInt32>(pthread_setschedparam(tcb->thread, policy, &tcb->prv_pri));
}

UInt32 t_attach(const char *name, UInt32 priority)
{
    os_assert(priority > 0 && priority <= kMaxPriority,
              "((int) tcb->prv_pri.__sched_priority > 0) && tcb->prv_pri.__sched_priority <= 99");
    TCB *tcb = NewTcb(name, priority);
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
    const TCB *tcb = ResolveTask(tid);
    if (tcb == nullptr)
        return kTaskNotFound;
    *refcon_out = tcb->refcon;
    return 0;
}

UInt32 t_name_from_pid(Int32 pid, char *name_out)
{
    return t_name_and_pri_from_pid(pid, name_out, nullptr);
}

UInt32 t_name_and_pri_from_pid(Int32 pid, char *name_out, UInt32 *priority_out)
{
    TcbListHold hold;
    for (const TCB *tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        if (tcb->pid != pid)
            continue;
        std::memcpy(name_out, tcb->taskname, sizeof tcb->taskname);
        name_out[sizeof tcb->taskname] = '\0';
        if (priority_out != nullptr)
            *priority_out = tcb->priority;
        return 0;
    }
    return kTaskNotFound;
}

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
    PostingHold posting(tcb);
    tcb->events_captured.fetch_or(events);
    pthread_cleanup_push(ReleaseTcbList, nullptr);
    pthread_mutex_lock(&tcb->event_mutex);
    const bool waiting = tcb->taskWaiting != 0;
    UnlockEvents(tcb);
    if (waiting)
        SignalEvents(tcb);
    pthread_cleanup_pop(0);
    return 0;
}

UInt32 ev_send_listed(UInt32 tid, UInt32 events)
{
    TCB *tcb = nullptr;
    {
        TcbListHold hold;
        tcb = FindListedLocked(low_pointer<TCB>(tid));
        if (tcb == nullptr)
            return kTaskNotFound;
        tcb->posting++; // the block stays until the event is posted
    }
    ev_send(tid, events);
    tcb->posting--;
    return 0;
}

UInt32 ev_receive(UInt32 events, UInt32 flags, UInt32 timeout, UInt32 *events_out)
{
    TCB *tcb = FindCaller();
    if (tcb == nullptr)
        return kNoCallerTask;
    UInt32 result = 0;
    pthread_cleanup_push(ReleaseTcbList, nullptr);
    LockEvents(tcb);
    if (events == 0)
        *events_out = tcb->events_captured;
    else if ((flags & kEvNoWait) != 0)
        result = TakeEvents(tcb, events, flags, events_out) != 0 ? 0 : kEvNotPending;
    else
        result = WaitForEvents(tcb, events, flags, timeout, events_out);
    UnlockEvents(tcb);
    pthread_cleanup_pop(0);
    return result;
}

int ev_receive_timeout(void *task)
{
    TCB *tcb = static_cast<TCB *>(task);
    PostingHold posting(tcb);
    pthread_cleanup_push(ReleaseTcbList, nullptr);
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
    pthread_cleanup_pop(0);
    return 0;
}

void osTaskDump()
{
    struct RowT {
        UInt32 id;
        char name[5];
        UInt32 priority;
        Int32 kernelId;
    } rows[kMaxTasksDumped];
    UInt32 count = 0;
    {
        TcbListHold hold;
        for (const TCB *tcb = tcblist; tcb != nullptr && count < kMaxTasksDumped; tcb = tcb->next, count++) {
            rows[count] = {low_id(tcb), {}, tcb->priority, KernelId(tcb)};
            std::memcpy(rows[count].name, tcb->taskname, sizeof tcb->taskname);
        }
    }
    std::printf("T[%d] Task:  ID    Name  Priority PID\n", static_cast<Int32>(GetProcessorNum()));
    for (UInt32 i = 0; i < count; i++)
        std::printf("T[%d]    %08x  %4s    %3d    %3d\n", static_cast<Int32>(GetProcessorNum()), rows[i].id,
                    rows[i].name, static_cast<Int32>(rows[i].priority), rows[i].kernelId);
}

void osTaskUsage()
{
    std::puts("TaskID     Name  Pri Usage");
    std::puts("--------------------------");
    TcbListHold hold;
    for (TCB *tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        Int32 user = 0;
        Int32 system = 0;
        ReadProcessorTime(tcb, &user, &system);
        std::printf("%08x   %4.4s  %3u %5d\n", low_id(tcb), tcb->taskname, tcb->priority,
                    user - tcb->usrtime + system - tcb->systime);
        tcb->usrtime = user;
        tcb->systime = system;
    }
}
