// Module records. A record has a name with an instance, an owner, log lines under its name, callbacks, and exception
// handlers. A callback runs at once or on another task. A service puts a record into its own data.
//
// Owner:   the caller owns the record. It hands the record to ModInit filled with zeros, and does not move it until
//          ModExit. The array of callbacks belongs to this module.
// Locking: any task may call, without the interrupt lock. A change of a callback array holds callbackSemaphore; while
//          the array is switched, it holds the interrupt lock too. A walk holds the interrupt lock while it copies an
//          entry, and callbackSemaphore while it queues one. A callback runs without any lock. Nothing is printed with
//          a lock. A record must not be exited while another task works with it. The dumps are an exception.
//          Configuration items are exited when they are deleted.
// Errors:  these are programming errors and stop the program: a null record; a bad signature; a missing name, format,
//          description or function; no memory for a callback; no free block for a deferred callback.
// Shared:  other units may look at these by extern: gMods, numMods, callbackSemaphore, deferredCallbackRegion,
//          gFreeDeferredCallbackList, gFreeDeferredCallbacks, gPendDeferredCallbackList, deferredFuncRegion,
//          gFreeDeferredFuncs, DFStats, traceFilters, NumTraceFilters and ModExceptionString.
#pragma once

#include "Common/OS/logmsg.h"
#include "Common/framework/list.h"
#include "Common/types.h"

#include <cstddef>

constexpr std::size_t kModNameSize = 33; // with the terminator
constexpr std::size_t kModFullNameSize = 42;
constexpr std::size_t kModMaxArgs = 1024; // bytes of arguments that a deferred call carries

constexpr UInt32 kModSignature = FourCharacters("TLVR");

// ModT::flags.
constexpr UInt32 kModFlagA = 1; // shown as "A" in the dump; set by services
constexpr UInt32 kModFlagListed = 2;
constexpr UInt32 kModFlagLogOwner = 4; // log and trace lines name the owner in front

// ModCallbackT::whenFlags.
constexpr UInt32 kModOnTask = 1; // run on destTaskID instead of the caller's task

// funcIndex of exception handlers.
constexpr UInt32 kModExceptionFunc = 0x7FFFFFFF;

// Event for a task that a callback or a function call waits for. The task then calls ModProcessDeferredCallbacks and
// ModProcessDeferredFunctions.
constexpr UInt32 kModDeferredEvent = 0x10;

struct ModT;

using CallbackFuncPtrT = void (*)(ModT *pMod, UInt32 funcIndex, void *userDefined, void *pArgs);

struct ModCallbackT {
    CallbackFuncPtrT pFunc; // null: free entry
    void *userDefined;
    UInt32 whenFlags;
    UInt32 destTaskID;
    UInt32 funcIndex;
};

struct ModT {
    ListT list;
    // ModInit fills these in. A service may set CallCallbacks, ThrowException, SetOwner and GetOwner before: they stay.
    eErrorT (*Exit)(ModT *pMod);
    eErrorT (*CallCallbacks)(ModT *pMod, UInt32 funcIndex, const void *pArgs, Int32 argLen);
    eErrorT (*ThrowException)(ModT *pMod, UInt32 ExceptionIndex, const char *description, const void *pArgs,
                              Int32 argLen);
    eErrorT (*Dump)(ModT *pMod, Int32 verbose);
    void (*DumpHeading)();
    eErrorT (*SetOwner)(ModT *pMod, ModT *pOwner);
    ModT *(*GetOwner)(ModT *pMod);
    UInt32 initializedSig; // kModSignature from ModInit on
    UInt32 flags;
    char name[kModNameSize];
    Int32 instance;
    char fullname[kModFullNameSize]; // what ModName returned last
    ModT *pOwner;
    void *pPrivate;           // the service's
    UInt32 taskID;            // the task that called ModInit; 0: a thread that is no task
    UInt32 id, type, subType; // the service's
    UInt32 processorNum;
    void *proxy; // reserved for records that another processor serves
    ModCallbackT *pCallbacks;
    Int32 numCallbacks; // entries of the array, with the free ones
};

// A callback on its way to another task.
struct ModDeferredCallbackT {
    ListT list;
    ModCallbackT callback;
    ModT *pMod;
    UInt32 funcIndex;
    UInt32 time; // RealTimeMilliSeconds when it was queued
    alignas(std::max_align_t) UInt8 args[kModMaxArgs];
};

// Fills in a record and enters it in the table of the process, which has 4000 slots. A record that finds no slot works
// all the same. A processorNum other than 0 is kept. Returns kNoError.
eErrorT ModInit(ModT *pMod, const char *pName, Int32 instance, ModT *pOwner);

// Removes all callbacks and takes the record out of the table. Returns kNoError.
eErrorT ModExit(ModT *pMod);

// Returns "name[instance]", which stays in the record until the next call. Returns "none" for a null record.
const char *ModName(ModT *pMod);

ModT *ModGetOwner(ModT *pMod);
eErrorT ModSetOwner(ModT *pMod, ModT *pOwner); // kNoError
UInt32 ModGetProcNum(ModT *pMod);
UInt32 ModID(ModT *pMod);

// Returns the entered record of that name and instance, or null. Case does not count. Nothing keeps the record: another
// task may exit it, and free it, as soon as it is found. Only a caller who knows that its service keeps it may use it.
ModT *ModFindByName(const char *pName, Int32 instance);

// Print to standard output. Records may come and go meanwhile. A record with a Dump of its own is dumped by that. Its
// service has to keep the record until the dump is done.
// ModDumpHeading  the heading.
// ModDump         one record: a line, and a second line with its callbacks. verbose not 0: the heading first. Returns
//                 kNoError.
// ModDumpByName   all records of that name. Case does not count.
// ModDumpAll      all records.
// ModDumpRange    the records in the slots first to last of the table.
void ModDumpHeading();
eErrorT ModDump(ModT *pMod, Int32 verbose);
void ModDumpByName(const char *pName);
void ModDumpAll();
void ModDumpRange(Int32 first, Int32 last);

// Log a line under the module's name: "name[instance]: ..." or "owner[instance].name[instance]: ...". If there is any
// trace filter, only a module that a filter names logs at all.
// ModTrace  logs at kLogDebug, with the name as component.
// ModLog    logs at a level. The name is a part of the format: "%%" in a name prints one sign, and any other conversion
//           in a name is printed unchanged. The format has room for 255 characters, with the name. The first conversion
//           that does not fit ends the format. The line feed is then lost, and the next line continues this one.
__attribute__((format(printf, 3, 4))) void ModLog(ModT *pMod, LogLevelT level, const char *format, ...);
__attribute__((format(printf, 2, 3))) void ModTrace(ModT *pMod, const char *format, ...);

// Ten trace filters. A filter is a name; 32 characters count, and case does not.
// Add     kNoError; kOutOfMemory if all ten are in use; kBadParameter for an empty name.
// Delete  deletes the first filter of that name. A name that begins with "*" deletes all. kNoError, or kBadParameter if
//         there is no such filter.
eErrorT ModTraceFilterAdd(const char *pName);
eErrorT ModTraceFilterDelete(const char *pName);

// Runs the callbacks of funcIndex in the order of their entries. A callback that asks for another task does not run
// here: that task gets a copy of the first argLen bytes of pArgs (at most kModMaxArgs) and the event kModDeferredEvent.
// A task must delete its callbacks before it ends. Otherwise they are dropped. If another task gets the identifier,
// they run on that task.
// kNoError       all have run, or are on their way.
// kItemNotFound  the caller is no task. The first callback and all behind it have not run.
eErrorT ModCallCallbacks(ModT *pMod, UInt32 funcIndex, const void *pArgs, Int32 argLen);

// Traces "exception:..." and runs the exception handlers. ExceptionIndex is 0. Returns kNoError.
eErrorT ModThrowException(ModT *pMod, UInt32 ExceptionIndex, const char *description, const void *pArgs, Int32 argLen);

// Register a callback. The same function, user pointer and index count as one callback, which is registered once. All
// return kNoError.
// - Without kModOnTask a callback runs at once, on the task that calls it.
// - With kModOnTask it runs on the task that registers it. With ModAddCallbackToTask it runs on taskID.
// - An exception handler runs on the task that adds it.
// A thread that is no task has to name a task. A callback for no task stops the program when it is called.
eErrorT ModAddCallback(ModT *pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void *userDefined, UInt32 whenFlags);
eErrorT ModAddCallbackToTask(ModT *pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void *userDefined, UInt32 whenFlags,
                             UInt32 taskID);
eErrorT ModAddExceptionHandler(ModT *pMod, CallbackFuncPtrT pHandlerFunc, void *userDefined);

// Remove callbacks, also those on their way to another task. A task that removes its own callback is not called
// afterwards. A callback that runs at once on another task may still be running.
// kNoError       removed.
// kItemNotFound  there is no such callback.
eErrorT ModDeleteCallback(ModT *pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ModDeleteExceptionHandler(ModT *pMod, CallbackFuncPtrT pHandlerFunc, void *userDefined);
eErrorT ModDeleteAllCallbacks(ModT *pMod);

// Runs the callbacks that wait for the calling task, until no callback waits.
void ModProcessDeferredCallbacks();

// ---- Function calls that are handed to another task. pArgs is a copy of the caller's arguments.

using DeferredFuncPtrT = void (*)(void *pArgs, Int32 argLen);

// A function call on its way to another task.
struct ModDeferredFuncT {
    ListT list;
    DeferredFuncPtrT pFunc;
    UInt32 destTaskID;
    UInt32 time; // RealTimeMilliSeconds when it was queued
    Int32 argLen;
    alignas(std::max_align_t) UInt8 args[kModMaxArgs];
};

// How long the calls of a task waited, in milliseconds. Each of the first 100 tasks that had a call has an entry.
struct DeferredFuncStatsT {
    UInt32 taskID; // 0: unused
    UInt32 minTime, maxTime, totalTime;
    UInt32 runCount;
};

// Asks a task (0: the caller) to call pFunc with a copy of the first argLen bytes of pArgs. The task gets
// kModDeferredEvent. After a failure nothing is queued.
// kNoError         queued.
// kBadParameter    no function, or more than kModMaxArgs bytes.
// kItemNotFound    there is no such task. A log line says so.
// kOutOfResources  all 384 blocks are in use, or there was no memory for their lock when the first record was made. A
//                  log line says so.
eErrorT ModDeferFunctionCall(UInt32 taskID, DeferredFuncPtrT pFunc, const void *pArgs, Int32 argLen);

// Runs the calls that wait for the calling task, in their order, until no call waits.
void ModProcessDeferredFunctions();

// Returns kNoError if a call of pFunc waits for the task, otherwise kItemNotFound.
eErrorT ModSearchDeferredFunction(UInt32 taskID, DeferredFuncPtrT pFunc);

// Copies the statistics of a task. Returns kNoError. Returns kItemNotFound, with nothing stored, if the task has none.
eErrorT ModGetDeferredFunctionStats(UInt32 taskID, DeferredFuncStatsT *pStats);

// Prints the waiting calls and the statistics on standard output.
void ModDumpDeferredFunctions();
