// pSOS-style tasks and events on POSIX threads.
//
// A task is known by the 32-bit address of its TCB. The identifier 0 in a call means the calling task. A TCB begins
// with the four characters of the name and a zero word, so "%4.4s" prints an identifier as the task's name (task_name
// gives the pointer). A thread that is no task, such as the main thread, has no TCB.
//
// Owner:   t_create and t_attach make the TCB. The TCB stays when the task has ended. 1024 more tasks must end before a
//          new task gets it, and with it the identifier. Until then t_start, t_delete and ev_send_listed find no task
//          under the identifier. Any other call changes only the dead record.
// Errors:  null for name_out, refcon_out, events_out or the tid_out of t_ident stops the program. t_start without a
//          task or without a function stops it too.
// Locking: tcblistmutex guards the task list, the tree, and the decision who deletes a task. event_mutex of a task
//          guards its waiting. events_captured is changed only by atomic operations.
// Units:   time-outs in ticks of 10 ms.
#pragma once

#include "Common/OS/bintree.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/types.h"

#include <atomic>
#include <pthread.h>
#include <sched.h>

// Result codes of tasks and events. 0 is success.
constexpr UInt32 kEvTimedOut = 1;     // ev_receive: the time-out expired first
constexpr UInt32 kTaskNotStarted = 1; // t_start: the thread could not be created
constexpr UInt32 kNoCallerTask = 6;   // ev_receive: the calling thread has no TCB
constexpr UInt32 kTaskNotFound = 9;   // t_ident: no such task, or the caller has no TCB
constexpr UInt32 kTaskNoMemory = 14;  // t_create: no memory for the TCB, or no event mutex
constexpr UInt32 kEvNotPending = 60;  // ev_receive: no-wait, and the events are not pending

// Wait-mode bits of ev_receive.
constexpr UInt32 kEvNoWait = 1; // clear: wait
constexpr UInt32 kEvAny = 2;    // clear: all of the requested events

constexpr std::size_t kTaskNameSize = 5; // four characters and a terminator

using TaskStartT = void (*)(UInt32, UInt32, UInt32, UInt32);

// Whether a task is being deleted, and by whom. Another task that deletes it joins the thread. The exception is an
// attached thread: that one is detached, and its end is awaited.
enum ClaimT : Int32 { kNotDeleted, kDeletedByItself, kJoinedByAnother, kAwaitedByAnother };

struct TCB {
    char taskname[4];
    Int32 nameterm; // always 0: terminates taskname as a string
    UInt32 args[4];
    UInt32 priority; // 0 to 99
    TaskStartT task_start;
    UInt32 mode;                         // stored; nothing reads it
    std::atomic<UInt32> refcon;          // the caller's word
    UInt32 event_mask;                   // nothing reads it
    std::atomic<UInt32> events_captured; // sent and not yet received
    UInt32 events_pending;               // nothing reads it
    std::atomic<pthread_t> thread;       // 0 until the task is started, and after its thread has ended
    pthread_attr_t attr;
    sched_param prv_pri;
    std::atomic<Int32> timedwait; // 1 while a waiting ev_receive has not found its events
    Int32 timedout;
    UInt32 tmid; // the time-out timer
    pthread_mutex_t event_mutex;
    pthread_cond_t event_cond;
    Int32 taskWaiting; // set by the first wait, never cleared
    Int32 pid;
    Int32 tid;              // kernel thread id; only when gLibPThreadNPTL is 1
    Int32 systime, usrtime; // clock ticks seen by the last usage report
    TCB *next;
    UInt32 serial;   // the task's number in creation order, from 1
    UInt32 waitsFor; // the serial of the task whose end this one awaits in t_delete, or 0
    std::atomic<ClaimT> claimed;
};

// The task list in the order of creation, the tree from thread to TCB, and the lock of both.
extern TCB *tcblist;
extern tBTreeHandle gTCBTree;
extern pthread_mutex_t tcblistmutex;

// Whether the thread library gives every thread a kernel id of its own. A program sets it before its first task.
// - 0, as at start: the first deletion of a task empties the tree. No task that was started before finds itself any
//   more: ev_receive returns 6, and t_ident returns 9.
// - 1: a deletion loses nothing.
// With either value a task does not find itself if there was no memory for its entry in the tree. Without memory for
// the tree itself the program stops.
extern Int32 gLibPThreadNPTL;

// Scheduling policy of tasks with a priority above 0. It is 0 (SCHED_OTHER) at start: priorities are then accepted and
// ignored.
void set_sched_policy(Int32 policy);
Int32 get_sched_policy();

// Returns the name of a task that exists, for "%4.4s".
inline const char *task_name(UInt32 tid)
{
    return low_pointer<const char>(tid);
}

// Makes a task, which runs only after t_start. name has four characters, or is null. The stack sizes and the flags are
// ignored.
// 0              made. The identifier is in *tid_out, unless tid_out is null.
// kTaskNoMemory  no memory. Nothing has changed.
UInt32 t_create(const char *name, UInt32 priority, UInt32 sstack, UInt32 ustack, UInt32 flags, UInt32 *tid_out);

// Starts a created task at start(args[0..3]). args is copied; null stands for four zeros. A task whose start function
// returns deletes itself. Under a real-time policy a priority above 99 stops the program.
// 0                the task runs.
// kTaskNotStarted  the system gave no thread, or the task runs already, is being deleted, or is gone. The reason is on
//                  standard error. Nothing has changed: a task that was not started can be started again, or deleted.
UInt32 t_start(UInt32 tid, UInt32 mode, TaskStartT start, const UInt32 *args);

// Deletes a task and returns 0 when the task is gone. Another task's thread is cancelled and joined. The caller (0, or
// its own identifier) ends its thread, and the call does not return. If somebody else is deleting the task already, or
// the task is deleting itself, the call waits for that. A task that is being deleted may still delete others.
// The call does nothing and returns 0 in these cases:
// - The task has ended by itself.
// - The task is deleting the caller, or it waits in t_delete for somebody who does. Both would wait for ever. That task
//   may still be there when the call returns.
// - tid is 0, and the calling thread does not find itself (see gLibPThreadNPTL).
// A call in a callback of a timer stops the program.
UInt32 t_delete(UInt32 tid);

// Finds the first task, in the order of creation, whose four stored name bytes are the first four of name. With name
// null it finds the caller. node is ignored.
// 0              found. The identifier is in *tid_out.
// kTaskNotFound  there is no such task, or the caller is no task. *tid_out is 0.
UInt32 t_ident(const char *name, UInt32 node, UInt32 *tid_out);

// Returns tid. For 0 it returns the caller's identifier, or 0 if the caller is no task.
UInt32 t_name(UInt32 tid);

// Copies the name of a listed task (0: the caller) into name_out, which has kTaskNameSize characters.
// 0              copied.
// kTaskNotFound  the task is not in the list. name_out has "????".
UInt32 t_copy_name(UInt32 tid, char *name_out);

// Changes a task's priority. The old one is stored in *previous_out, unless previous_out is null. A new priority above
// 99 stops the program.
// 0              changed.
// kTaskNotFound  tid is 0, and the caller is no task. Nothing has changed.
// anything else  the system's error number, only under a real-time policy. The new priority is stored all the same.
UInt32 t_setpri(UInt32 tid, UInt32 newpri, UInt32 *previous_out);

// Makes a task of the calling thread, so that it can wait for events. priority is 1 to 99: any other stops the program.
// A thread that is a task already keeps its TCB and its identifier, and gets the new name and priority.
// t_delete ends such a thread too, and detaches it: nobody may join it. If the thread ends without t_delete, its TCB
// leaves the task list, and the tree keeps the other tasks whatever gLibPThreadNPTL is.
// 0              the thread is a task.
// kTaskNoMemory  no memory. The thread is no task.
UInt32 t_attach(const char *name, UInt32 priority);

// One word of the caller's data. Both return 0. They return kTaskNotFound if tid is 0 and the caller is no task.
UInt32 t_setRefCon(UInt32 tid, UInt32 refcon);
UInt32 t_getRefCon(UInt32 tid, UInt32 *refcon_out);

// Find the first task whose pid field is pid. They copy its name (four characters and a terminator) and its priority.
// 0              found.
// kTaskNotFound  there is no such task. Nothing is stored.
UInt32 t_name_from_pid(Int32 pid, char *name_out);
UInt32 t_name_and_pri_from_pid(Int32 pid, char *name_out, UInt32 *priority_out);

// Posts event bits to a task. tid is not checked. If tid is 0 and the caller is no task, nobody gets them. Returns 0.
// The event mutex is taken only while the task waits.
UInt32 ev_send(UInt32 tid, UInt32 events);

// Posts event bits to a task that may be gone.
// 0              posted.
// kTaskNotFound  the task is not in the task list. Nothing is done.
UInt32 ev_send_listed(UInt32 tid, UInt32 events);

// Waits until the calling task has all of the event bits, or with kEvAny one of them, and takes them. timeout is in
// ticks; 0 waits for ever. With kEvNoWait it does not wait. With events 0 it reports the captured bits and takes none.
// Events that come at the same time as the time-out are delivered.
// 0              the matched bits are in *events_out. The task does not have them any more.
// kEvTimedOut    the time-out came first. *events_out is untouched.
// kEvNotPending  kEvNoWait, and the bits are not there. *events_out is untouched.
// kNoCallerTask  the caller is no task, or does not find itself. *events_out is untouched.
UInt32 ev_receive(UInt32 events, UInt32 flags, UInt32 timeout, UInt32 *events_out);

// The time-out callback of ev_receive. It runs in the timer task; pTask is the waiting TCB. It returns 0, so that the
// timer does not run again.
int ev_receive_timeout(void *pTask);

// Returns the bits of wanted that a receive with these flags would take. 0: it would take none.
UInt32 events_matched(UInt32 captured, UInt32 wanted, UInt32 flags);

// Creates the tree unless it is there.
void TreeStub();

// Returns the TCB of a thread, or null if the thread is no task.
TCB *FindTcbThread(pthread_t thread);

// Print to standard output. osTaskDump prints the task table. osTaskUsage prints each task's processor time since the
// last report, in clock ticks of the system.
void osTaskDump();
void osTaskUsage();
