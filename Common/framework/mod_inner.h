// What the files of the module records share among each other; nobody else includes it.
// mod.cpp            the record, the table of all records, and the start of the module
// mod_callbacks.cpp  the arrays of callbacks, and calling them
// mod_deferred.cpp   callbacks and function calls on their way to another task
// mod_dump.cpp       what is printed of the records
// mod_log.cpp        log lines under a record's name
// Owner:   each piece of state belongs to the file that defines it.
// Locking: callbackSemaphore is taken before the lock of a queue ("#region") and before the interrupt lock. A function
//          takes what it needs, unless it says that its caller holds it.
#pragma once

#include "Common/framework/mod.h"

#include <atomic>

// ---- Records (mod.cpp)

constexpr std::size_t kMaxMods = 4000;

// A slot goes from null to a record and back in one step, so that nobody needs a lock to enter one. It goes back under
// the interrupt lock: whoever looks at records under it does not see one go.
using SlotT = std::atomic<ModT *>;
extern SlotT gMods[kMaxMods];

// Creates what all records share, once in the process. Any task may call.
void NeedModState();

// Stop the program when the record has no signature. CheckRecord also stops it when the record is null.
void CheckSignature(const ModT *pMod);
void CheckRecord(const ModT *pMod);

// The calling task, 0 for a thread that is none.
UInt32 CallingTask();

// Whether the record has that name, ignoring case.
bool IsNamed(const ModT *pMod, const char *pName);

// Stores "name[instance]".
void FillFullName(const ModT *pMod, char (&fullname)[kModFullNameSize]);

// ---- Callback arrays (mod_callbacks.cpp)

extern UInt32 callbackSemaphore; // every record's callback array

// Copies the entry at an index, because the array may move. Takes the interrupt lock. Returns pCopy, or null behind the
// last entry. With a slot it is also null when the record is not in the slot any more.
const ModCallbackT *CopyEntry(const ModT *pMod, Int32 index, ModCallbackT *pCopy, const SlotT *pSlot = nullptr);

// Function, user pointer and index tell one callback from another; a null function is a free entry.
bool IsSame(const ModCallbackT &left, const ModCallbackT &right);

// The record's entry for that callback, or null. The caller holds callbackSemaphore.
ModCallbackT *FindEntry(const ModT *pMod, const ModCallbackT &wanted);

// ---- Deferred calls (mod_deferred.cpp)

// Fills the lists of free blocks. Only for NeedModState.
void CreateDeferredQueues();

// Queues a callback for its task, with a copy of the arguments, and wakes the task. Does nothing when the callback is
// not registered any more, or its task has ended. Takes callbackSemaphore. Stops the program when no block is left.
void DeferCallback(ModT *pMod, const ModCallbackT &callback, const void *pArgs, Int32 argLen);

// Takes the callback (null: every one) of a record off the queue. The caller holds callbackSemaphore: a callback that
// is registered again keeps what it queues.
void DropPendingCallbacks(ModT *pMod, ModCallbackT *pCallback);
