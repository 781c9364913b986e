// pSOS-style tasks and events on POSIX threads.
//
// A task is designated by the 32-bit address of its TCB; 0 passed to a call means the calling task.
// A TCB begins with the four name characters and a zero word, so that an identifier prints as the
// task's name with "%4.4s" (task_name gives the pointer). A thread that is not a task, such as the
// main thread, has no TCB.
//
// Owner:   t_create and t_attach make the TCB. It is kept when the task has ended: 1024 other tasks must end before a
//          new task gets it, and with it the identifier. Until then t_start, t_delete and ev_send_listed find nobody
//          under the identifier, and other calls change only the dead record.
// Errors:  null for name_out, refcon_out, events_out or the tid_out of t_ident stops the program. So does t_start
//          without a task or a function.
// Locking: tcblistmutex guards the task list, the tree and who deletes a task; a task's event_mutex
//          guards its waiting. events_captured is changed only by atomic operations.
// Units:   time-outs in ticks of 10 ms.
#pragma once

#include "Common/OS/bintree.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/types.h"

#include <atomic>
#include <pthread.h>
#include <sched.h>

// Result codes of tasks and events; 0 is success.
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

// Whether a task is being deleted, and who gives up its TCB: another one joins the thread, unless it is detached.
enum ClaimT : Int32 { kNotDeleted, kDeletedByItself, kJoinedByAnother, kAwaitedByAnother };

struct TCB {
    char taskname[4];
    Int32 nameterm; // always 0: terminates taskname as a string
    UInt32 args[4];
    UInt32 priority; // 0 to 99
    TaskStartT task_start;
    UInt32 mode;                         // stored, read by nothing
    std::atomic<UInt32> refcon;          // the caller's word
    UInt32 event_mask;                   // read by nothing
    std::atomic<UInt32> events_captured; // sent and not yet received
    UInt32 events_pending;               // read by nothing
    std::atomic<pthread_t> thread;       // 0 until the task is started, and after its thread has ended
    pthread_attr_t attr;
    sched_param prv_pri;
    std::atomic<Int32> timedwait; // 1 while a waiting ev_receive has not found its events
    Int32 timedout;
    UInt32 tmid; // the time-out timer
    pthread_mutex_t event_mutex;
    pthread_cond_t event_cond;
    Int32 taskWaiting; // set by the first wait and never cleared
    Int32 pid;
    Int32 tid;              // kernel thread id; only when gLibPThreadNPTL is 1
    Int32 systime, usrtime; // clock ticks seen by the last usage report
    TCB *next;
    UInt32 serial;   // the task's number in creation order, from 1
    UInt32 waitsFor; // the number of the task whose end this one waits for in t_delete, or 0
    std::atomic<ClaimT> claimed;
};

// The task list in creation order, the tree from thread to TCB, and the lock of both.
extern TCB *tcblist;
extern tBTreeHandle gTCBTree;
extern pthread_mutex_t tcblistmutex;

// 1 when the thread library gives every thread its own kernel id. Left at 0, the first deletion of
// a task empties the tree, and no task started before finds itself any more: ev_receive answers 6
// and t_ident answers 9. A program whose threads have their own ids sets it to 1 before its first
// task, and nothing is lost by a deletion. A task does not find itself either when there was no memory for its entry in
// the tree. Without memory for the tree itself the program stops.
extern Int32 gLibPThreadNPTL;

// Scheduling policy of tasks with a nonzero priority; 0 (SCHED_OTHER) at start, where priorities
// are accepted and ignored.
void set_sched_policy(Int32 policy);
Int32 get_sched_policy();

// For "%4.4s": the name of a task that exists.
inline const char *task_name(UInt32 tid)
{
    return low_pointer<const char>(tid);
}

// Makes a task that runs once t_start is called. name: four characters, or null. The stack sizes
// and flags are ignored. Returns 0 and stores the identifier in tid_out (unless null), or
// kTaskNoMemory with nothing changed.
UInt32 t_create(const char *name, UInt32 priority, UInt32 sstack, UInt32 ustack, UInt32 flags, UInt32 *tid_out);

// Starts a created task at start(args[0..3]); args may be null for zeros and is copied. A task
// whose start function returns deletes itself. Under a real-time policy a priority above 99 stops the program.
// 0                the task runs.
// kTaskNotStarted  there is no thread for it, or it runs already, is being deleted or is gone. The reason is on
// standard
//                  error. Nothing has changed: a task that was not started can be started again or deleted.
UInt32 t_start(UInt32 tid, UInt32 mode, TaskStartT start, const UInt32 *args);

// Deletes a task: another one by cancelling its thread and joining it, the caller (0 or its own identifier) by ending
// its thread, without return. Returns 0 when the task is gone. A deletion that somebody else has under way, the task
// itself included, is waited for. A task that is being deleted may still delete others. Nothing is done, and the
// result is 0 as well:
// - for a task that has ended by itself.
// - for a task that is deleting the caller, or waits in t_delete for somebody who does: both would wait for ever. That
//   task may still be there afterwards.
// - for 0 from a thread that does not find itself (see gLibPThreadNPTL).
// In a callback of a timer it stops the program.
UInt32 t_delete(UInt32 tid);

// Finds the first task in creation order whose stored four name bytes equal the first four of name,
// or the caller with name null. node is ignored. Returns 0, or kTaskNotFound with *tid_out 0.
UInt32 t_ident(const char *name, UInt32 node, UInt32 *tid_out);

// tid itself, or the caller's identifier for 0; 0 when the caller is no task.
UInt32 t_name(UInt32 tid);

// Copies the name of a task of the task list (0: of the caller) into name_out, kTaskNameSize characters.
// Returns 0, or kTaskNotFound with "????" in name_out.
UInt32 t_copy_name(UInt32 tid, char *name_out);

// Changes a task's priority (at most 99, otherwise the program stops). Stores the old one in
// previous_out (unless null). Returns 0; kTaskNotFound for 0 from a thread that is no task; or under a
// real-time policy the error number with which the system refused; the new value is stored all the same.
UInt32 t_setpri(UInt32 tid, UInt32 newpri, UInt32 *previous_out);

// Makes a task of the calling thread, which then may wait for events. priority is 1 to 99, otherwise the program stops.
// Returns 0 or kTaskNoMemory. A thread that is a task already keeps its TCB and identifier, and gets the new name and
// priority. t_delete ends the thread as well, and detaches it: nobody may join it. When the thread ends without
// t_delete, its TCB leaves the task list too, but the tree keeps the other tasks whatever gLibPThreadNPTL is.
UInt32 t_attach(const char *name, UInt32 priority);

// One word of caller data. Both return 0, or kTaskNotFound when tid is 0 and the caller is no task.
UInt32 t_setRefCon(UInt32 tid, UInt32 refcon);
UInt32 t_getRefCon(UInt32 tid, UInt32 *refcon_out);

// Look up the first task whose pid field is pid and copy its name (four characters and a
// terminator) and its priority. Return 0, or kTaskNotFound with nothing stored.
UInt32 t_name_from_pid(Int32 pid, char *name_out);
UInt32 t_name_and_pri_from_pid(Int32 pid, char *name_out, UInt32 *priority_out);

// Posts event bits to a task (tid is not checked); to nobody when tid is 0 and the caller is no task.
// Returns 0. It takes the event mutex only while the task waits.
UInt32 ev_send(UInt32 tid, UInt32 events);

// The same to a task that may be gone: kTaskNotFound, with nothing done, when it is not in the task list.
UInt32 ev_send_listed(UInt32 tid, UInt32 events);

// Waits for event bits of the calling task: kEvAny or all of them, kEvNoWait or at most timeout
// ticks (0: for ever). Returns 0 with the matched bits in *events_out and taken from the task;
// kEvTimedOut, kNoCallerTask or kEvNotPending with *events_out untouched. With events 0 it reports
// the captured bits and takes none. Events that arrive together with the time-out are delivered.
UInt32 ev_receive(UInt32 events, UInt32 flags, UInt32 timeout, UInt32 *events_out);

// The time-out callback of ev_receive: runs in the timer task with pTask the waiting TCB. Returns
// 0, so that the timer is not run again.
int ev_receive_timeout(void *pTask);

// The bits of wanted that a receive with these flags would take, 0 for none.
UInt32 events_matched(UInt32 captured, UInt32 wanted, UInt32 flags);

// Creates the tree unless it is there.
void TreeStub();

// The TCB of a thread, or null.
TCB *FindTcbThread(pthread_t thread);

// Print the task table, and each task's processor time since the last report in clock ticks of the
// system, on standard output.
void osTaskDump();
void osTaskUsage();
