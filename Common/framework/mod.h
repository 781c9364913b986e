// Module records: a name with an instance, an owner, log lines under that name, callbacks that run at
// once or on another task, and exceptions. A service embeds a record in its own.
//
// Owner:   the caller owns the record and hands it to ModInit zero-filled; it stays where it is until
//          ModExit. The array of callbacks belongs to this module.
// Locking: any task may call, without the interrupt lock. Changes of a callback array hold
//          callbackSemaphore and, while the array is switched, the interrupt lock. A walk holds the
//          interrupt lock while it copies an entry, and callbackSemaphore while it queues one.
//          Callbacks run without any lock, and nothing is printed with one. A record must not be exited while
//          another task works with it, but for the dumps; configuration items are exited when they are deleted.
// Errors:  a null record, a bad signature, a missing name, format, description or function, no memory for a
//          callback and no block left for a deferred one are programming errors and stop the program.
// Shared:  gMods, numMods, callbackSemaphore, deferredCallbackRegion, gFreeDeferredCallbackList,
//          gFreeDeferredCallbacks, gPendDeferredCallbackList, deferredFuncRegion, gFreeDeferredFuncs, DFStats,
//          traceFilters, NumTraceFilters and ModExceptionString can be looked at by extern.
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

// Event that a task gets when a callback or a function call waits for it: it then calls
// ModProcessDeferredCallbacks and ModProcessDeferredFunctions.
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
    // ModInit fills these in. A service may set CallCallbacks, ThrowException, SetOwner and GetOwner
    // before, and they stay.
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
    UInt32 taskID;            // who called ModInit; 0: a thread that is no task
    UInt32 id, type, subType; // the service's
    UInt32 processorNum;
    void *proxy; // reserved for records that another processor serves
    ModCallbackT *pCallbacks;
    Int32 numCallbacks; // entries in the array, free ones included
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

// Fills in a record and enters it in the process-wide table of 4000; a record that finds no room
// there works all the same. A processorNum that is not 0 is kept. Returns kNoError.
eErrorT ModInit(ModT *pMod, const char *pName, Int32 instance, ModT *pOwner);

// Removes all callbacks and takes the record out of the table. Returns kNoError.
eErrorT ModExit(ModT *pMod);

// "name[instance]", in the record until the next call; "none" for a null record.
const char *ModName(ModT *pMod);

ModT *ModGetOwner(ModT *pMod);
eErrorT ModSetOwner(ModT *pMod, ModT *pOwner); // kNoError
UInt32 ModGetProcNum(ModT *pMod);
UInt32 ModID(ModT *pMod);

// The entered record of that name (ignoring case) and instance, or null. Nothing keeps the record: another task may
// exit it, and free it, as soon as it is found. Only whoever knows that its service keeps it may use it.
ModT *ModFindByName(const char *pName, Int32 instance);

// Print on standard output. Records may come and go meanwhile. A record that has a Dump of its own is dumped by it. Its
// service has to keep the record until that is done.
// ModDumpHeading  the heading.
// ModDump         one record: a line, and its callbacks on a second; with verbose not 0 the heading first. kNoError.
// ModDumpByName   all records of that name, ignoring case.
// ModDumpAll      all records.
// ModDumpRange    the records in the table's slots first to last.
void ModDumpHeading();
eErrorT ModDump(ModT *pMod, Int32 verbose);
void ModDumpByName(const char *pName);
void ModDumpAll();
void ModDumpRange(Int32 first, Int32 last);

// Log a line under the module's name, "name[instance]: ..." or "owner[instance].name[instance]: ...".
// Once there is a trace filter only the modules that one names log at all.
// ModLog: at a level. The name is a part of the format: "%%" in a name prints one sign, and any other conversion in it
// is printed as it is written. The format has room for 255 characters, name included. The first conversion that does
// not fit ends it. The line feed is then lost, and the next line continues this one.
// ModTrace: at kLogDebug, with the name as component.
__attribute__((format(printf, 3, 4))) void ModLog(ModT *pMod, LogLevelT level, const char *format, ...);
__attribute__((format(printf, 2, 3))) void ModTrace(ModT *pMod, const char *format, ...);

// Ten trace filters: names, of which 32 characters count, ignoring case. Add: kNoError, kOutOfMemory when all are
// in use, kBadParameter for an empty name. Delete: the first of that name, or all with a name that begins with "*";
// kNoError, or kBadParameter when there is none.
eErrorT ModTraceFilterAdd(const char *pName);
eErrorT ModTraceFilterDelete(const char *pName);

// Runs the callbacks of funcIndex in the order of their entries: at once, or, for one that asks for
// another task, by handing that task the first argLen bytes of pArgs (at most kModMaxArgs) and
// kModDeferredEvent. A task must delete its callbacks before it ends. Otherwise they are dropped. When another task
// gets the identifier, they run on that task. Returns kNoError, or kItemNotFound at the first callback when the caller
// is no task; that one and the rest have then not run.
eErrorT ModCallCallbacks(ModT *pMod, UInt32 funcIndex, const void *pArgs, Int32 argLen);

// Traces "exception:..." and runs the exception handlers. ExceptionIndex is 0. Returns kNoError.
eErrorT ModThrowException(ModT *pMod, UInt32 ExceptionIndex, const char *description, const void *pArgs, Int32 argLen);

// Register a callback; one with the same function, user pointer and index is registered already.
// With kModOnTask it runs on the calling task, or on taskID for ModAddCallbackToTask. Exception
// handlers run on the task that adds them. A thread that is no task must name one: the first call of a
// callback for nobody's task stops the program. Return kNoError.
eErrorT ModAddCallback(ModT *pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void *userDefined, UInt32 whenFlags);
eErrorT ModAddCallbackToTask(ModT *pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void *userDefined, UInt32 whenFlags,
                             UInt32 taskID);
eErrorT ModAddExceptionHandler(ModT *pMod, CallbackFuncPtrT pHandlerFunc, void *userDefined);

// Remove callbacks, those on their way to another task included: the task that removes its own is not
// called afterwards. One that runs at once on another task may still be running.
// Return kNoError, or kItemNotFound when there is no such callback.
eErrorT ModDeleteCallback(ModT *pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ModDeleteExceptionHandler(ModT *pMod, CallbackFuncPtrT pHandlerFunc, void *userDefined);
eErrorT ModDeleteAllCallbacks(ModT *pMod);

// Runs what has been handed to the calling task, until nothing is left.
void ModProcessDeferredCallbacks();

// ---- Function calls handed to another task. pArgs is the copy of the caller's arguments.

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

// How long the calls of a task waited, in milliseconds. One entry for each of the first 100 tasks
// that had a call.
struct DeferredFuncStatsT {
    UInt32 taskID; // 0: unused
    UInt32 minTime, maxTime, totalTime;
    UInt32 runCount;
};

// Asks a task (0: the caller) to call pFunc with a copy of the first argLen bytes of pArgs, and sends it
// kModDeferredEvent. Returns kNoError; kBadParameter for no function or more than kModMaxArgs bytes;
// kItemNotFound when there is no such task, kOutOfResources when all 384 blocks are waiting, or there was no
// memory for their lock when the first record was made, both with a line in the log. After a failure nothing
// is queued.
eErrorT ModDeferFunctionCall(UInt32 taskID, DeferredFuncPtrT pFunc, const void *pArgs, Int32 argLen);

// Runs the calls for the calling task in the order they were asked for, until none is left.
void ModProcessDeferredFunctions();

// kNoError when a call of pFunc waits for the task, otherwise kItemNotFound.
eErrorT ModSearchDeferredFunction(UInt32 taskID, DeferredFuncPtrT pFunc);

// Copies the statistics of a task. Returns kNoError, or kItemNotFound with nothing stored.
eErrorT ModGetDeferredFunctionStats(UInt32 taskID, DeferredFuncStatsT *pStats);

// Prints the waiting calls and the statistics on standard output.
void ModDumpDeferredFunctions();
