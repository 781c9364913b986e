// The configuration database. An item is a line of text, known by a name and an instance number. A cache lies before
// the files of the configuration store.
//
// Names:   compared and stored in lower case. 32 characters count; the rest is dropped. A name may be empty, and may
//          have a "/" or a control character. Such a name has no file: its item can only be cached. On a processor
//          other than the master the same holds for a name with a blank or a quote (" or ').
// Values:  370 characters; the rest is dropped. The file gets only the first line, and 369 characters of it come back
//          after a restart. Until then the cache has the whole value.
// Files:   all instances below 1 share one file. Each has its own entry in the cache. Item "a1" instance 0 shares the
//          file of item "a" instance 1.
// Start:   the first call, of any kind, starts the database. Several tasks may make it at the same time.
// Locking: any task may call. It must hold neither the interrupt lock nor another lock of the run-time. configSemaphore
//          guards the cache. A second semaphore, taken first, lets one change through at a time, so that cache and
//          files agree. Neither is held while a callback or the message path runs, while a line is logged, or while
//          something is printed.
// Order:   several tasks may write one item at the same time on a processor other than the master. The writes may then
//          reach the master in any order.
// Errors:  a null argument stops the program. Only userDefined may be null.
// Results: where a call does not list its own: kNoError 0. kItemNotFound -25: there is no such item. kBadParameter -3:
//          the name or the value is not allowed, or the store could not write. kSemUnavail -23: the database is being
//          shut down, or it had no memory for its semaphores when it started. Only the store is then read.
#pragma once

#include "Common/framework/configstore.h"
#include "Common/framework/mod.h"

constexpr UInt32 kConfigCacheOnly = 1; // ConfigWriteEx: the value does not go to the store

struct ConfigItemT {
    ModT mod; // name, instance, place in the cache, callbacks
    char value[kConfigValueSize];
    Boolean known;   // 0: the item is here only for its callbacks; its value is in the store
    Boolean unsaved; // 1: the value did not reach the file; only on the master
};

// What a callback gets as pArgs.
struct ConfigNotifyT {
    UInt32 instance;
    UInt32 flags; // of the write
    char access[4];
    char name[kConfigNameSize];
    char value[kConfigValueSize];
};

// Starts the database, unless it runs. A missing configuration folder stops the program. Returns kNoError.
eErrorT ConfigInit();

// Stops the flush task, flushes what was not flushed, frees every item, and stops the database. The next call of any
// kind starts the database again. No other task may use the database meanwhile. No task but the flush task may be
// writing the first log line of the process. The call deletes a task: see gLibPThreadNPTL.
void ConfigExit();

// Reads an item into value, which has room for kConfigValueSize characters.
// kNoError       read.
// kItemNotFound  there is no such item. value is empty.
eErrorT ConfigRead(const char *pName, Int32 instance, char *value);

// Read instance 0 of "<name><n1>_<n2>", or of "<name><n1>_<n2>_<n3>".
eErrorT ConfigRead2(const char *pName, Int32 n1, Int32 n2, char *value);
eErrorT ConfigRead3(const char *pName, Int32 n1, Int32 n2, Int32 n3, char *value);

// Read a decimal number, or a truth value. "True" in any case is 1, and any other text is 0. Blanks and "+" are no part
// of a number.
// kNoError       read.
// kItemNotFound  there is no such item. *pValue is unchanged.
// kBadParameter  the text is no number, or the number is out of range. *pValue is unchanged.
eErrorT ConfigReadInt32(const char *pName, Int32 instance, Int32 *pValue);
eErrorT ConfigReadInt16(const char *pName, Int32 instance, Int16 *pValue);
eErrorT ConfigReadBool(const char *pName, Int32 instance, Boolean *pValue);

// Writes an item to the cache and to the store. Logs it, unless it is sensitive. Notifies the callbacks of the item,
// then those of getConfigModule(). access has at most four characters, such as "rw".
// The call does nothing if the cached value is the same, even if only the cache was told that value. There is one
// exception: a value that the master could not write to the file is tried again.
// If several tasks write one item at the same time, the notifications may come in any order. A thread that is no task
// notifies nobody.
// kNoError       done, or there was nothing to do. On a processor other than the master the message path has the
//                command. Without a path nothing is sent. If a task is deleted while it waits for the path, its command
//                is not sent, and the same write later does not send it either.
// kBadParameter  refused: ConfigStoreMayWrite says no. The cache may have any name. Nothing has changed.
// kBadParameter  the file could not be written. All else is done. The cached value stays until the restart. An empty
//                value reads as the file's value. The same write later tries the file again; it does not log or notify
//                again.
// kOutOfMemory   only the cache was to have the item, and there is no memory for it. Nothing has changed, and nobody
//                was notified.
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

// Writes the item's default, from the choice files, as its value. Returns kItemNotFound if the item has no default, and
// otherwise what ConfigWrite returns.
eErrorT ConfigRestore(const char *pName, Int32 instance);

// Removes an item from the cache and from the store. The item then reads as its default. Its callbacks stay.
// kNoError       removed.
// kItemNotFound  neither the cache nor the store had the item.
// kSemUnavail    nothing has changed.
// anything else  the result of ConfigStoreDelete: the file could not be removed. The item reads as the file's value.
eErrorT ConfigDelete(const char *pName, Int32 instance);

// Callbacks on an item: pFunc(item, 0, userDefined, ConfigNotifyT *). The item need not exist. ConfigAddCallback runs
// the callback on the task that adds it. ConfigAddCallbackEx takes whenFlags and a task, as ModAddCallbackToTask does.
// ConfigAddImmediateCallback runs it on the task that writes. Without memory for the list of an item's callbacks the
// program stops.
// kNoError       added, or deleted.
// kBadParameter  Add: the name has no file, or the caller is no task and names no task. Nothing is added.
// kOutOfMemory   Add: no memory for the item. Nothing is added.
// kSemUnavail    Add: there are no semaphores. Nothing is added.
// kItemNotFound  Delete: there is no such callback, or there are no semaphores. Nothing is deleted.
eErrorT ConfigAddCallback(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ConfigAddCallbackEx(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined,
                            UInt32 whenFlags, UInt32 taskID);
eErrorT ConfigAddCallback2(const char *pName, Int32 n1, Int32 n2, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ConfigAddCallback3(const char *pName, Int32 n1, Int32 n2, Int32 n3, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ConfigAddImmediateCallback(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined);
eErrorT ConfigDeleteCallback(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined);

// Returns the module record whose callbacks hear of every write.
ModT *getConfigModule();

// Print cached items to standard output: all of them, or those of one name. The value of a sensitive item is not shown.
void ConfigDumpHeading();
void ConfigDumpAll();
void ConfigDumpByName(const char *pName);

// ---- The cache. An item belongs to the database and lasts until it is deleted.

// Changes or adds an item and returns it. Returns null if the database does not run, or if there is no memory.
ConfigItemT *WriteItemToCache(const char *pName, UInt32 instance, const char *value);

// Adds an item and returns it. Returns null if there is no memory. Only the database itself calls this, with its
// semaphore "cnfg" held.
ConfigItemT *AddItemToCache(const char *pName, UInt32 instance, const char *pValue);

// Returns the cached item, or null.
ConfigItemT *LookupItemInCache(const char *pName, Int32 instance);

// Takes an item out of the cache and leaves its file. An item that has a list of callbacks, even an empty list, stays
// with an empty value. Logs nothing. Returns kNoError, kItemNotFound or kSemUnavail.
eErrorT DeleteItemFromCache(const char *pName, Int32 instance);

// Returns 1 if the item has that name and that instance, otherwise 0. Case does not count.
Int32 CompareNameAndInstance(const ConfigItemT *pItem, const char *pName, Int32 instance);
