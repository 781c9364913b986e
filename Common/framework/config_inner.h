// The common part of the files of the configuration database. No other file includes it.
// config.cpp         start and end, reading, callbacks
// config_cache.cpp   the cached items
// config_change.cpp  writing and deleting: cache, store, log and callbacks
// config_dump.cpp    what is printed of the items, and which values are never shown
// Owner:   each piece of state belongs to the file that defines it. An item belongs to the cache.
// Locking: changeSemaphore is taken before configSemaphore. A function that works on the cache takes configSemaphore
//          itself, unless it says that its caller holds it. Nothing is logged, printed or called back with either.
#pragma once

#include "Common/framework/config.h"

#include <atomic>

// ---- Names (config.cpp)

// A name as it is stored and searched for.
struct KeyT {
    explicit KeyT(const char *pName);
    char text[kConfigNameSize];
};

struct NumberedNameT {
    char text[256];
};

// "<name><n1>_<n2>" and "<name><n1>_<n2>_<n3>", cut where they do not fit.
NumberedNameT NumberedName(const char *pName, Int32 n1, Int32 n2);
NumberedNameT NumberedName(const char *pName, Int32 n1, Int32 n2, Int32 n3);

// ---- State (config.cpp). Other units may look at it.

constexpr UInt32 kNumBuckets = 128;

struct ConfigT {
    ModT mod;
    ListT *buckets[kNumBuckets];
};

constexpr UInt32 kConfigNotifyFunc = 0; // funcIndex of change callbacks

extern ConfigT gConfig;        // the buckets under configSemaphore
extern UInt32 configSemaphore; // the cache
extern UInt32 changeSemaphore; // one change of cache and files at a time
extern std::atomic<Int32> gConfigInitialized;

// ---- The cache (config_cache.cpp)

inline ConfigItemT *AsItem(ListT *pElem)
{
    return reinterpret_cast<ConfigItemT *>(pElem);
}

// The item of that name and instance, or null. The caller holds configSemaphore.
ConfigItemT *FindItem(const KeyT &key, Int32 instance);

// Gives the item the value, and notes that the store has it. Adds the item if it is missing. Returns the item, or null
// if there is no memory. The caller holds configSemaphore.
ConfigItemT *PutItem(const KeyT &key, Int32 instance, const char *value);

// The item, for its callbacks. An item that is missing is added, without a value. Returns null if there is no memory.
// The caller holds changeSemaphore, so that nobody deletes the item meanwhile.
ConfigItemT *NeedItem(const KeyT &key, Int32 instance);

// Takes the item's value out of the cache. Frees the item, unless it has a list of callbacks. The caller holds
// changeSemaphore.
// kNoError       the item had a value.
// kItemNotFound  the item had no value or is missing, or the semaphore is missing. Nothing was stored.
eErrorT DropItem(const KeyT &key, Int32 instance);

// Frees all items without a lock. No other task may use the database meanwhile.
void FreeAllItems();

// Copies as much of a value as fits.
void CopyValue(char (&to)[kConfigValueSize], const char *from);

// When something was read.
struct MomentT {
    UInt32 changes;
    bool isQuiet; // no change was under way
};

// Copies a cached value, and notes the moment.
// kNoError     done. If the item is missing, the caller's value is unchanged.
// kSemUnavail  the semaphore is missing. Nothing was stored.
eErrorT ReadFromCache(const KeyT &key, Int32 instance, char (&value)[kConfigValueSize], MomentT *pMoment);

// Caches a value that was read from the store after that moment. The cache is unchanged in these cases:
// - The store or the cache has changed since then.
// - The cache has a value that the store does not have yet.
// kNoError     done, or unchanged.
// kSemUnavail  the semaphore is missing. The cache is unchanged.
eErrorT CacheFromStore(const KeyT &key, Int32 instance, const char *value, const MomentT &since);

// Logs that the semaphore is missing. message has a "%s" for the task's name.
void ReportNoAccess(const char *message);

// A change of the store is under way for the length of a scope. Several scopes may exist at the same time.
class StoreChangeScope
{
public:
    StoreChangeScope() { Count(1); }
    ~StoreChangeScope() { Count(UINT32_MAX); } // one less
    StoreChangeScope(const StoreChangeScope &) = delete;
    StoreChangeScope &operator=(const StoreChangeScope &) = delete;

private:
    static void Count(UInt32 more);
};

// ---- Dump (config_dump.cpp)

// Whether the item's value is never shown.
bool IsSensitive(const char *name);
