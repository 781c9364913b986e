#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/psosapi/pthreadapi_inner.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>

TCB *tcblist;
tBTreeHandle gTCBTree;
pthread_mutex_t tcblistmutex = PTHREAD_MUTEX_INITIALIZER;
Int32 gLibPThreadNPTL;
thread_local constinit TCB *ownTask;

namespace
{

constinit RetiredRecords<TCB> retiredTasks;
pthread_cond_t taskGone = PTHREAD_COND_INITIALIZER;
std::atomic<UInt32> treeGeneration = 1; // one more with every rebuilding of the tree

// A zeroed block with its lock. Null: there is no memory. A block that was used before still has its lock.
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

// The caller holds tcblistmutex.
void RemoveTcb(const TCB *tcb)
{
    TCB **link = &tcblist;
    while (*link != tcb)
        link = &(*link)->next;
    *link = tcb->next;
}

} // namespace

// ---- The calling thread

// Each thread remembers that it was found in the tree. It loses its place there only when the tree is rebuilt, and then
// it looks again.
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

// ---- The list

// The block is listed last, so that nobody finds an incomplete task.
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

void AwaitGoneLocked(UInt32 serial)
{
    while (FindSerialLocked(serial) != nullptr)
        pthread_cond_wait(&taskGone, &tcblistmutex);
}

// ---- The tree

void TreeStubLocked()
{
    if (gTCBTree == 0)
        gTCBTree = CreateTree();
}

void SetTreeEntryLocked(pthread_t thread, TCB *tcb)
{
    if (ReplaceItem(gTCBTree, ThreadKey(thread), tcb) != kNoError)
        os_assert(InsertItem(gTCBTree, ThreadKey(thread), tcb) == 0,
                  "InsertItem(gTCBTree, tcb->thread, (void *) tcb) == 0");
}

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

// ---- Who is who

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
