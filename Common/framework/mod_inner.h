// The common part of the files of the module records. No other file includes it.
// mod.cpp            the record, the table of all records, and the start of the module
// mod_callbacks.cpp  the arrays of callbacks, and calling them
// mod_deferred.cpp   callbacks and function calls on their way to another task
// mod_dump.cpp       what is printed of the records
// mod_log.cpp        log lines under a record's name
// Owner:   each piece of state belongs to the file that defines it.
// Locking: callbackSemaphore is taken before the lock of a queue ("#region") and before the interrupt lock. A function
//          takes the locks that it needs, unless its comment says that the caller holds them.
#pragma once

#include "Common/framework/mod.h"

#include <atomic>

// ---- Records (mod.cpp)

constexpr std::size_t kMaxMods = 4000;

// A slot changes in one step from null to a record, so a record is entered without a lock. It changes back to null
// under the interrupt lock, so whoever holds that lock may use the records.
using SlotT = std::atomic<ModT *>;
extern SlotT gMods[kMaxMods];

// Creates the common state of all records, once in the process. Any task may call.
void NeedModState();

// Both stop the program if the record has no signature. CheckRecord also stops it if the record is null.
void CheckSignature(const ModT *pMod);
void CheckRecord(const ModT *pMod);

// The calling task. 0: the thread is no task.
UInt32 CallingTask();

// Whether the record has that name, ignoring case.
bool IsNamed(const ModT *pMod, const char *pName);

// Stores "name[instance]".
void FillFullName(const ModT *pMod, char (&fullname)[kModFullNameSize]);

// ---- Callback arrays (mod_callbacks.cpp)

extern UInt32 callbackSemaphore; // every record's callback array

// Copies the entry at an index, because the array may move. Takes the interrupt lock. Returns pCopy. Returns null if
// there is no such entry, or if pSlot is given and the record is no longer in that slot.
const ModCallbackT *CopyEntry(const ModT *pMod, Int32 index, ModCallbackT *pCopy, const SlotT *pSlot = nullptr);

// Whether function, user pointer and index are the same. An entry with a null function is free.
bool IsSame(const ModCallbackT &left, const ModCallbackT &right);

// The record's entry for that callback. Null: there is no such entry. The caller holds callbackSemaphore.
ModCallbackT *FindEntry(const ModT *pMod, const ModCallbackT &wanted);

// ---- Deferred calls (mod_deferred.cpp)

// Fills the lists of free blocks. Only for NeedModState.
void CreateDeferredQueues();

// Queues a callback for its task, with a copy of the arguments, and wakes the task. Takes callbackSemaphore. Does
// nothing if the callback is no longer registered or its task has ended. Stops the program if no block is free.
void DeferCallback(ModT *pMod, const ModCallbackT &callback, const void *pArgs, Int32 argLen);

// Takes the calls of a record's callback off the queue. pCallback null: of all its callbacks. The caller holds
// callbackSemaphore, so the calls of a callback that is registered again stay.
void DropPendingCallbacks(ModT *pMod, ModCallbackT *pCallback);
