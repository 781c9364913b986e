// What the files of pthreadapi share, and nobody else includes: pthreadapi.cpp has the life of a task, pthreadapi_list
// the task list and the tree, pthreadapi_events the events, pthreadapi_reports what is printed of tasks.
//
// Locking: the caller of a function whose name ends in Locked holds tcblistmutex.
#pragma once

#include "Common/OS/linux/psosapi/pthreadapi.h"

// The calling thread's task, or null. It is set from the thread's becoming a task to its very end.
extern thread_local constinit TCB *ownTask;

// The calling task as the tree knows it, or null.
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

// A complete block in the list, or null without memory. thread is the one that the task has already, so that nobody
// starts another one for it; 0 for none. Nobody holds tcblistmutex.
TCB *NewTcb(const char *name, UInt32 priority, pthread_t thread);

// Takes a task off the list. The block stays what it was: somebody may be about to post an event to it.
// The caller holds tcblistmutex.
void t_free_tcb(TCB *tcb);

// The task itself when it is in the list, or null.
TCB *FindListedLocked(const TCB *wanted);

// The first task in the list with at least that serial number, or null.
TCB *FindFromLocked(UInt32 serial);

// The task with that serial number, or null.
TCB *FindSerialLocked(UInt32 serial);

// Waits until no task in the list has that serial number. tcblistmutex is released meanwhile.
void AwaitGoneLocked(UInt32 serial);

// ---- The tree

void TreeStubLocked();

// Makes the task the one of that thread, in place of an ended task whose thread had the same handle.
void SetTreeEntryLocked(pthread_t thread, TCB *tcb);

// Only tasks with a kernel thread id come back. Where threads have none of their own (see gLibPThreadNPTL) the tree is
// empty afterwards, on purpose.
void RebuildTreeLocked();
