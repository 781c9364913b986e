#include "Common/OS/linux/psosapi/pthreadapi.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <unistd.h>

TCB *tcblist;
tBTreeHandle gTCBTree;
pthread_mutex_t tcblistmutex = PTHREAD_MUTEX_INITIALIZER;
Int32 gLibPThreadNPTL;
std::atomic<Int32> sched_policy; // SCHED_OTHER

namespace
{

constexpr UInt32 kMaxTasksDumped = 200;
constexpr Int32 kMaxPriority = 99;

constinit RetiredRecords<TCB> retiredTasks;
pthread_cond_t taskGone = PTHREAD_COND_INITIALIZER;
std::atomic<UInt32> treeGeneration = 1; // one more with every rebuilding of the tree
thread_local TCB *ownTask;              // from the thread's becoming a task to its very end

// Key of a thread in the tree. On a 64-bit host the handles of two live threads are at least a page
// apart, and bits 12 to 43 tell them apart.
UInt32 ThreadKey(pthread_t thread)
{
    constexpr int kShift = sizeof(pthread_t) > sizeof(UInt32) ? 12 : 0;
    return static_cast<UInt32>(thread >> kShift);
}

// The calling task as the tree knows it, or null. A thread's place in the tree is lost only when the tree is rebuilt,
// so each thread remembers that it was found until then.
TCB *FindCaller()
{
    thread_local UInt32 foundIn = 0;
    const UInt32 generation = treeGeneration;
    if (ownTask != nullptr && foundIn != generation) {
        if (FindTcbThread(pthread_self()) != ownTask)
            return nullptr;
        foundIn = generation;
    }
    return ownTask;
}

TCB *ResolveTask(UInt32 tid)
{
    return tid != 0 ? low_pointer<TCB>(tid) : FindCaller();
}

// ---- The list and the tree. Names ending in Locked: the caller holds tcblistmutex.

// The list is in creation order, which is the order of the serial numbers.
void AddTcb(TCB *tcb)
{
    static UInt32 tasksCreated;
    const MutexHold hold(&tcblistmutex);
    tcb->serial = ++tasksCreated;
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
    for (TCB *tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        const pthread_t thread = tcb->thread; // which may end at this moment
        if (tcb->tid != 0 && thread != pthread_t{})
            InsertItem(gTCBTree, ThreadKey(thread), tcb);
    }
}

// Replaces what an ended thread with the same handle has left.
void SetTreeEntryLocked(pthread_t thread, TCB *tcb)
{
    if (ReplaceItem(gTCBTree, ThreadKey(thread), tcb) != kNoError)
        os_assert(InsertItem(gTCBTree, ThreadKey(thread), tcb) == 0,
                  "InsertItem(gTCBTree, tcb->thread, (void *) tcb) == 0");
}

// The caller of these two holds tcblistmutex as well.
void RemoveTcb(const TCB *tcb)
{
    TCB **link = &tcblist;
    while (*link != tcb)
        link = &(*link)->next;
    *link = tcb->next;
}

// The block stays what it was: somebody may be about to post an event to it.
void t_free_tcb(TCB *tcb)
{
    RemoveTcb(tcb);
    retiredTasks.Add(tcb);
    pthread_cond_broadcast(&taskGone);
}

TCB *FindListedLocked(const TCB *wanted)
{
    TCB *tcb = tcblist;
    while (tcb != nullptr && tcb != wanted)
        tcb = tcb->next;
    return tcb;
}

// The first task in the list with at least that serial number, or null.
TCB *FindFromLocked(UInt32 serial)
{
    TCB *tcb = tcblist;
    while (tcb != nullptr && tcb->serial < serial)
        tcb = tcb->next;
    return tcb;
}

TCB *FindSerialLocked(UInt32 serial)
{
    TCB *tcb = FindFromLocked(serial);
    return tcb != nullptr && tcb->serial == serial ? tcb : nullptr;
}

// ---- Creation

// A zeroed block with its lock, or null. The lock of a block that was used before has stayed.
TCB *NewBlock()
{
    if (TCB *tcb = retiredTasks.Take(); tcb != nullptr) {
        auto *bytes = reinterpret_cast<char *>(tcb);
        std::fill(bytes, bytes + offsetof(TCB, event_mutex), '\0');
        std::fill(bytes + offsetof(TCB, taskWaiting), bytes + sizeof(TCB), '\0');
        return tcb;
    }
    void *block = low_calloc(sizeof(TCB));
    if (block == nullptr)
        return nullptr;
    TCB *tcb = new (block) TCB{};
    if (InitPriorityMutex(&tcb->event_mutex) != 0) {
        low_free(block);
        return nullptr;
    }
    pthread_cond_init(&tcb->event_cond, nullptr);
    return tcb;
}

// A complete block in the list, or null. It is listed last, so that nobody finds half a task. thread: the one that the
// task has already, so that nobody starts another one for it.
TCB *NewTcb(const char *name, UInt32 priority, pthread_t thread)
{
    TCB *tcb = NewBlock();
    if (tcb == nullptr)
        return nullptr;
    if (name != nullptr)
        std::memcpy(tcb->taskname, name, sizeof tcb->taskname);
    tcb->priority = priority;
    tcb->thread = thread;
    AddTcb(tcb);
    return tcb;
}

// The very end of a task's thread: nothing that the task calls is left to run, and its handle is not used again yet.
void LeaveTask(void *task)
{
    TCB *tcb = static_cast<TCB *>(task);
    ownTask = nullptr;
    if (tcb->claimed == kJoinedByAnother) {
        // Who joins it does the rest. No lock: ThreadSanitizer does not see the locks of a thread that was cancelled in
        // a wait.
        tcb->thread = pthread_t{};
        return;
    }
    const MutexHold hold(&tcblistmutex);
    tcb->thread = pthread_t{};
    if (tcb->claimed == kJoinedByAnother || tcb->claimed == kAwaitedByAnother)
        return; // who retires the task
    if (tcb->claimed == kNotDeleted && tcb->task_start != nullptr)
        pthread_detach(pthread_self()); // nobody joins it
    t_free_tcb(tcb);
    if (tcb->claimed == kDeletedByItself)
        RebuildTreeLocked();
}

// Of a key and not of an object's destructor: that one would also run when main returns, while other tasks go on.
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

// Returns an error number. The lock is held until the handle is stored: nobody takes the task for one never started,
// and of two starts at once the one that is refused changes nothing.
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

// What t_delete found out about its target.
struct DeletionT {
    TCB *tcb = nullptr; // to be deleted by the caller, and by nobody else
    UInt32 serial = 0;  // of the task whose end has to be waited for
    pthread_t thread{};
    char name[kTaskNameSize] = "????";
    Int32 pid = -1;
};

// Two tasks that wait for each other's end would do so for ever.
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

const char *NameOrUnknown(const TCB *tcb)
{
    return tcb != nullptr ? tcb->taskname : "????";
}

[[noreturn]] void EndThread(bool claimed)
{
    if (claimed) // otherwise somebody else is deleting the task, and joins it
        pthread_detach(pthread_self());
    pthread_exit(nullptr);
}

// Returns the result of the join. A thread that was attached is detached and waited for instead, because its maker may
// have detached it: its handle is good as long as it says so, under the list's lock.
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

// The caller's part of a deletion is done: takes the task out, or waits until somebody else has.
void FinishDeletion(const DeletionT &deletion)
{
    const MutexHold hold(&tcblistmutex);
    if (deletion.tcb != nullptr) {
        t_free_tcb(deletion.tcb);
        RebuildTreeLocked();
    }
    while (FindSerialLocked(deletion.serial) != nullptr)
        pthread_cond_wait(&taskGone, &tcblistmutex);
    if (ownTask != nullptr)
        ownTask->waitsFor = 0;
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

// When the waiting task is deleted, its event mutex must not stay locked and its timer must not
// outlive the task.
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
void ReadProcessorTime(Int32 kernelId, Int32 *user, Int32 *system)
{
    const CancelOffHold hold;
    char path[64];
    char text[1024];
    std::snprintf(path, sizeof path, gLibPThreadNPTL == 1 ? "/proc/self/task/%d/stat" : "/proc/%d/stat", kernelId);
    *user = *system = 0;
    std::FILE *file = std::fopen(path, "r");
    if (file == nullptr)
        return;
    text[std::fread(text, 1, sizeof text - 1, file)] = '\0';
    std::fclose(file);
    // Fields 14 and 15. Field 2 is a name in parentheses that may hold anything, so that only the last one counts.
    const char *end = std::strrchr(text, ')');
    if (end == nullptr || std::sscanf(end, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %d %d", user, system) != 2)
        *user = *system = 0;
}

Int32 KernelId(const TCB *tcb)
{
    return gLibPThreadNPTL == 1 ? tcb->tid : tcb->pid;
}

// What the usage report knows of a task.
struct UsageT {
    UInt32 serial, id, priority;
    char name[4];
    Int32 kernelId, user, system;
};

// Goes on to the next task; false when there is none. No lock is held between two tasks.
bool NextUsage(UsageT *usage)
{
    const MutexHold hold(&tcblistmutex);
    const TCB *tcb = FindFromLocked(usage->serial + 1);
    if (tcb == nullptr)
        return false;
    *usage = {tcb->serial, low_id(tcb), tcb->priority, {}, KernelId(tcb), tcb->usrtime, tcb->systime};
    std::memcpy(usage->name, tcb->taskname, sizeof usage->name);
    return true;
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
    const MutexHold hold(&tcblistmutex);
    TreeStubLocked();
}

TCB *FindTcbThread(pthread_t thread)
{
    const MutexHold hold(&tcblistmutex);
    auto *tcb = gTCBTree != 0 ? static_cast<TCB *>(SearchTree(gTCBTree, ThreadKey(thread))) : nullptr;
    return tcb != nullptr && tcb->thread == thread ? tcb : nullptr; // an ended task's entry may still be there
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

UInt32 t_ident(const char *name, UInt32, UInt32 *tid_out)
{
    os_assert(tid_out, "tid_out");
    const TCB *found = nullptr;
    if (name == nullptr) {
        found = FindCaller();
    } else {
        const MutexHold hold(&tcblistmutex);
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
    os_assert(name_out, "name_out");
    const TCB *wanted = ResolveTask(tid);
    const MutexHold hold(&tcblistmutex);
    const TCB *tcb = FindListedLocked(wanted);
    std::memcpy(name_out, NameOrUnknown(tcb), kTaskNameSize);
    return tcb != nullptr ? 0 : kTaskNotFound;
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

UInt32 t_name_from_pid(Int32 pid, char *name_out)
{
    return t_name_and_pri_from_pid(pid, name_out, nullptr);
}

UInt32 t_name_and_pri_from_pid(Int32 pid, char *name_out, UInt32 *priority_out)
{
    os_assert(name_out, "name_out");
    const MutexHold hold(&tcblistmutex);
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
        const MutexHold hold(&tcblistmutex);
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
    UsageT usage = {};
    while (NextUsage(&usage)) {
        Int32 user = 0;
        Int32 system = 0;
        ReadProcessorTime(usage.kernelId, &user, &system);
        std::printf("%08x   %4.4s  %3u %5d\n", usage.id, usage.name, usage.priority,
                    user - usage.user + system - usage.system);
        const MutexHold hold(&tcblistmutex);
        if (TCB *tcb = FindSerialLocked(usage.serial); tcb != nullptr) {
            tcb->usrtime = user;
            tcb->systime = system;
        }
    }
}
