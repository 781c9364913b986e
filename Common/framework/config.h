// The configuration database: items of text, known by a name and an instance number, with a cache in
// front of the files of the configuration store.
//
// Names:   compared and stored in lower case; at most 32 characters count, the rest is dropped. A name may be empty,
//          or have a "/" or a control character in it. Such a name has no file. It can only be cached. Elsewhere than
//          on the master the same holds for a name with a blank or a quote (" or ').
// Values:  at most 370 characters, the rest is dropped. Only the first line reaches the file, and only
//          369 characters of it come back after a restart. Until then the cache has the whole.
// Files:   All instances below 1 share one file. Each has its own cache entry. Item "a1" instance 0 shares the file of
//          item "a" instance 1.
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
    Boolean unsaved; // 1: the value was to reach the file, and did not; on the master only
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
// starts all of that again. No other task may use the database meanwhile. No other task than the flush task may be
// writing the first log line of the process. The call deletes a task: see gLibPThreadNPTL.
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
// value is the same, even if only the cache was told. But what the master could not write to the file is tried again.
// Notifications of tasks that write the same item at the same time may come in any order. A thread that is no task
// notifies nobody.
// kNoError       done, or nothing to do. Elsewhere than on the master the message path has the command. Without a path
//                nothing is sent. The command of a task that is deleted while it waits for the path is not sent. The
//                same write later does not send it either.
// kBadParameter  refused: ConfigStoreMayWrite says no. The cache may have any name. Nothing has changed.
// kBadParameter  the file could not be written. All else is done. The value holds until the restart. An empty value
//                reads as the file's. The same write later tries the file again. It does not log or notify again.
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
// Immediate: on the task that writes. Without memory for the list of an item's callbacks the program stops.
// kNoError       added, or deleted.
// kBadParameter  Add: the name has no file, or the caller is no task and names none. Nothing is added.
// kOutOfMemory   Add: no memory for the item. Nothing is added.
// kSemUnavail    Add: the semaphores are missing. Nothing is added.
// kItemNotFound  Delete: there is no such callback, or the semaphores are missing. Nothing is deleted.
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
