// The configuration database: items of text, known by a name and an instance number, with a cache in
// front of the files of the configuration store.
//
// Names:   compared and stored in lower case; at most 32 characters count, the rest is dropped. A name
//          that is empty or has a "/" or a control character in it has no file: it is at most cached. On a
//          processor other than the master that is also so for a name with a blank, a quotation mark or an
//          apostrophe, which cannot be asked for.
// Values:  at most 370 characters, the rest is dropped. Only the first line reaches the file, and only
//          369 characters of it come back after a restart. Until then the cache has the whole.
// Files:   instances below 1 have one file, and a cache entry each, and so have instance 1 of "a" and
//          instance 0 of "a1".
// Start:   the first call of any kind starts the database, safely from several tasks at once.
// Locking: any task may call, with neither the interrupt lock nor another lock of the run-time held.
//          configSemaphore guards the cache; a second one, taken first, lets one change through at a
//          time, so that cache and files agree. Neither is held while a callback or the message path
//          runs, while a line is logged, or while something is printed.
// Order:   on a processor other than the master, the writes of one item by several tasks at the same time
//          may reach the master in any order.
// Results: kNoError 0; kItemNotFound -25: there is no such item; kBadParameter -3: the name or the value is
//          not allowed, or the store could not write; kSemUnavail -23: the database is being shut down, or
//          had no memory for its semaphores when it started: then only the store is read.
// Errors:  a null argument (but for userDefined) is a programming error and stops the program.
#pragma once

#include "Common/framework/configstore.h"
#include "Common/framework/mod.h"

constexpr UInt32 kConfigCacheOnly = 1; // ConfigWriteEx: the value is not to reach the store

struct ConfigItemT {
    ModT mod; // name, instance, place in the cache, callbacks
    char value[kConfigValueSize];
    Boolean known;   // 0: the item is here for its callbacks only, its value is the store's
    Boolean unsaved; // 1: the value was to reach the store, and did not
};

// What callbacks get as pArgs.
struct ConfigNotifyT {
    UInt32 instance;
    UInt32 flags; // of the write
    char access[4];
    char name[kConfigNameSize];
    char value[kConfigValueSize];
};

// Starts the database unless it runs. A missing configuration folder stops the program. Returns kNoError.
eErrorT ConfigInit();

// Stops the flush task, flushes what it had still to flush, frees every item and stops the database. The next call
// starts all of that again. One task may call this while no other one uses the database, and while none but the flush
// task is at the first log line of the process. A task is deleted here: see gLibPThreadNPTL.
void ConfigExit();

// Reads an item into value, kConfigValueSize characters. Returns kNoError, or kItemNotFound with an
// empty value.
eErrorT ConfigRead(const char *pName, Int32 instance, char *value);

// Read instance 0 of "<name><n1>_<n2>", "<name><n1>_<n2>_<n3>".
eErrorT ConfigRead2(const char *pName, Int32 n1, Int32 n2, char *value);
eErrorT ConfigRead3(const char *pName, Int32 n1, Int32 n2, Int32 n3, char *value);

// Read a decimal number, or a truth value: 1 for "True" in any case, 0 for anything else. Return
// kNoError, or with *pValue unchanged kItemNotFound, or kBadParameter for no number or one out of range;
// blanks and "+" are no part of a number.
eErrorT ConfigReadInt32(const char *pName, Int32 instance, Int32 *pValue);
eErrorT ConfigReadInt16(const char *pName, Int32 instance, Int16 *pValue);
eErrorT ConfigReadBool(const char *pName, Int32 instance, Boolean *pValue);

// Writes an item to the cache and to the store, logs it unless it is sensitive, and notifies the callbacks of the item
// and then those of getConfigModule(). access: at most four characters, such as "rw". Does nothing when the cached
// value is the same, even if only the cache was told; but what the store could not write is tried again there.
// Notifications of tasks that write the same item at the same time may come in any order. A thread that is no task
// notifies nobody.
// kNoError       done, or nothing to do. Elsewhere than on the master: the command is on its way.
// kBadParameter  refused: ConfigStoreMayWrite says no. The cache may have any name. Nothing has changed.
// kBadParameter  the file could not be written. All else is done: the value holds until the restart, but for an empty
//                one, which reads as what the file has. The same write tries the file again, and only that.
// kOutOfMemory   no memory for an item that only the cache was to have. Nothing has changed, and nobody was notified.
// kSemUnavail    nothing has changed.
eErrorT ConfigWriteEx(const char *pName, Int32 instance, const char *value, const char *access, UInt32 flags);
eErrorT ConfigWrite(const char *pName, Int32 instance, const char *value); // access "rw"
eErrorT ConfigWriteCacheOnly(const char *pName, Int32 instance, const char *value);
eErrorT ConfigWritePerm(const char *pName, Int32 instance, const char *value, const char *access);
eErrorT ConfigWrite2(const char *pName, Int32 n1, Int32 n2, const char *value);
eErrorT ConfigWrite3(const char *pName, Int32 n1, Int32 n2, Int32 n3, const char *value);
eErrorT ConfigWriteInt32(const char *pName, Int32 instance, Int32 value);
eErrorT ConfigWriteInt16(const char *pName, Int32 instance, Int16 value);
eErrorT ConfigWriteBool(const char *pName, Int32 instance, Boolean value); // "True" or "False"

// Writes the item's default, from the choice files, as its value. kItemNotFound when it has none.
eErrorT ConfigRestore(const char *pName, Int32 instance);

// Removes an item from cache and store; it then reads as its default. Callbacks on it stay. Returns
// kNoError; kItemNotFound when it was in neither; what ConfigStoreDelete returned when the file could
// not be removed: the item then reads as what the file has.
eErrorT ConfigDelete(const char *pName, Int32 instance);

// Callbacks on an item, which need not exist: pFunc(item, 0, userDefined, ConfigNotifyT *). Add: runs on
// the calling task; AddEx: with whenFlags and on the task given, as ModAddCallbackToTask has them;
// Immediate: on the task that writes. Return kNoError; kBadParameter, kOutOfMemory or kSemUnavail with
// nothing added, the first also for a thread that is no task and names none. Without memory for the list
// of an item's callbacks the program stops. Delete returns kItemNotFound when there is none.
eErrorT ConfigAddCallback(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ConfigAddCallbackEx(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined,
                            UInt32 whenFlags, UInt32 taskID);
eErrorT ConfigAddCallback2(const char *pName, Int32 n1, Int32 n2, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ConfigAddCallback3(const char *pName, Int32 n1, Int32 n2, Int32 n3, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ConfigAddImmediateCallback(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ConfigDeleteCallback(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined);

// The module record whose callbacks hear of every write.
ModT *getConfigModule();

// Print cached items on standard output: all, or those of a name. The values of sensitive ones are
// not shown.
void ConfigDumpHeading();
void ConfigDumpAll();
void ConfigDumpByName(const char *pName);

// ---- The cache. An item is the database's own and lasts until it is deleted.

// Changes or adds an item. Returns it, or null when the database does not run or memory is short.
ConfigItemT *WriteItemToCache(const char *pName, UInt32 instance, const char *value);

// Adds an item; only for the database itself, which holds its semaphore "cnfg". Returns it, or null when
// memory is short.
ConfigItemT *AddItemToCache(const char *pName, UInt32 instance, const char *pValue);

// The cached item, or null.
ConfigItemT *LookupItemInCache(const char *pName, Int32 instance);

// Takes an item out of the cache and leaves its file. An item with a list of callbacks, even an empty
// one, stays with an empty value. Logs nothing. Returns kNoError, kItemNotFound or kSemUnavail.
eErrorT DeleteItemFromCache(const char *pName, Int32 instance);

// 1 when the item has that name, ignoring case, and that instance, else 0.
Int32 CompareNameAndInstance(const ConfigItemT *pItem, const char *pName, Int32 instance);
