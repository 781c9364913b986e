// The common part of the files of pthreadapi. No other file includes it.
// pthreadapi.cpp          the life of a task
// pthreadapi_list.cpp     the task list, and the tree from thread to task
// pthreadapi_events.cpp   the events
// pthreadapi_reports.cpp  what is printed of tasks
// Owner:   a task's record belongs to the task list.
// Locking: the caller of a function whose name ends in Locked holds tcblistmutex.
#pragma once

#include "Common/OS/linux/psosapi/pthreadapi.h"

// The calling thread's task. Null: the thread is no task. It stays set to the very end of the thread.
extern thread_local constinit TCB *ownTask;

// The calling task, looked up in the tree. Null: the tree does not have it.
TCB *FindCaller();

inline TCB *ResolveTask(UInt32 tid)
{
    return tid != 0 ? low_pointer<TCB>(tid) : FindCaller();
}

inline const char *NameOrUnknown(const TCB *tcb)
{
    return tcb != nullptr ? tcb->taskname : "????";
}

// Key of a thread in the tree. On a 64-bit host the handles of two live threads are at least a page apart, and bits 12
// to 43 tell them apart.
inline UInt32 ThreadKey(pthread_t thread)
{
    constexpr int kShift = sizeof(pthread_t) > sizeof(UInt32) ? 12 : 0;
    return static_cast<UInt32>(thread >> kShift);
}

// ---- The list, in creation order, which is the order of the serial numbers

// Makes a complete block and puts it into the list. Returns null if there is no memory. thread is the thread that the
// task has already, so that no other one is started for it. 0: it has no thread. The caller does not hold tcblistmutex.
TCB *NewTcb(const char *name, UInt32 priority, pthread_t thread);

// Takes a task off the list. The block stays a task's, because somebody may be about to post an event to it.
// The caller holds tcblistmutex.
void t_free_tcb(TCB *tcb);

// The task itself if it is in the list. Otherwise null.
TCB *FindListedLocked(const TCB *wanted);

// The first task in the list with at least that serial number, or null.
TCB *FindFromLocked(UInt32 serial);

// The task with that serial number, or null.
TCB *FindSerialLocked(UInt32 serial);

// Waits until no task in the list has that serial number. tcblistmutex is released meanwhile.
void AwaitGoneLocked(UInt32 serial);

// ---- The tree

void TreeStubLocked();

// Enters the task under its thread. It takes the place of an ended task whose thread had the same handle.
void SetTreeEntryLocked(pthread_t thread, TCB *tcb);

// Makes the tree anew from the tasks that have a kernel thread id. With gLibPThreadNPTL 0 no task has one, so the tree
// is empty afterwards. That is deliberate.
void RebuildTreeLocked();
