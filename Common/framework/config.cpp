#include "Common/framework/config.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

constexpr UInt32 kNumBuckets = 128;

struct ConfigT {
    ModT mod;
    ListT *buckets[kNumBuckets];
};

// The database. Other units may look at it.
ConfigT gConfig;
UInt32 configSemaphore; // the cache
std::atomic<Int32> gConfigInitialized;

namespace
{

constexpr std::size_t kNumberedNameSize = 256;
constexpr UInt32 kNotifyFunc = 0; // funcIndex of change callbacks

UInt32 changeSemaphore; // one change of cache and files at a time; taken before configSemaphore
pthread_mutex_t startMutex = PTHREAD_MUTEX_INITIALIZER; // the database's start and end

// Under configSemaphore. What was read from the store must not overwrite the cache when the store or the cache has
// changed since, or the store was about to.
UInt32 gChanges;         // beginnings and ends of changes
UInt32 gChangesUnderWay; // not ended yet

// Items whose values are never shown, and how many characters of a name decide.
struct SensitiveRow {
    const char *name;
    std::size_t compared;
};
constexpr std::size_t kWhole = kConfigNameSize;
constexpr std::size_t kDirectoryPrefix = 20;
constexpr SensitiveRow kSensitive[] = {
    {"sw", kWhole},
    {"roomsw", kWhole},
    {"websw", kWhole},
    {"userpassword0", kWhole},
    {"meetingpassword", kWhole},
    {"sippassword", kWhole},
    {"softwareupdatepassword", kWhole},
    {"mppassword", kWhole},
    {"dot1xpwd", kWhole},
    {"ldappassword", kWhole},
    {"loginpassword", kWhole},
    {"norteldirectoryurlsp", kDirectoryPrefix},
    {"globaldirectoryurlsp", kDirectoryPrefix},
    {"xmpppassword", kWhole},
    {"yahoopassword", kWhole},
    {"pwencryptiontyperemote", kWhole},
    {"pwencryptiontyperoom", kWhole},
    {"pwencryptiontypeuser0", kWhole},
    {"pwencryptiontypemeeting", kWhole},
};

bool IsSensitive(const char *name)
{
    return std::any_of(std::begin(kSensitive), std::end(kSensitive),
                       [name](const SensitiveRow &row) { return strncasecmp(name, row.name, row.compared) == 0; });
}

// A name as it is stored and searched for.
struct KeyT {
    explicit KeyT(const char *pName)
    {
        os_assert(pName, "pName");
        const std::size_t length = strnlen(pName, sizeof text - 1);
        std::memcpy(text, pName, length);
        text[length] = '\0';
        strlwr(text);
    }
    char text[kConfigNameSize];
};

struct NumberedNameT {
    char text[kNumberedNameSize];
};

NumberedNameT NumberedName(const char *pName, Int32 n1, Int32 n2)
{
    os_assert(pName, "pName");
    NumberedNameT name;
    std::snprintf(name.text, sizeof name.text, "%s%d_%d", pName, n1, n2);
    return name;
}

NumberedNameT NumberedName(const char *pName, Int32 n1, Int32 n2, Int32 n3)
{
    os_assert(pName, "pName");
    NumberedNameT name;
    std::snprintf(name.text, sizeof name.text, "%s%d_%d_%d", pName, n1, n2, n3);
    return name;
}

bool IsMaster()
{
    return GetProcessorNum() == kMasterProcessor;
}

void CopyValue(char (&to)[kConfigValueSize], const char *from)
{
    const std::size_t length = strnlen(from, sizeof to - 1);
    std::memmove(to, from, length);
    to[length] = '\0';
}

// ---- The cache, under configSemaphore

ListT *&BucketOf(const char *key)
{
    return gConfig.buckets[static_cast<UInt8>(key[0]) % kNumBuckets];
}

ConfigItemT *AsItem(ListT *pElem)
{
    return reinterpret_cast<ConfigItemT *>(pElem);
}

Int32 IsItem(ListT *pElem, void *pName, void *pInstance)
{
    return CompareNameAndInstance(AsItem(pElem), static_cast<const char *>(pName), *static_cast<Int32 *>(pInstance));
}

ConfigItemT *FindItem(const KeyT &key, Int32 instance)
{
    return AsItem(ListSearch(BucketOf(key.text), IsItem, const_cast<char *>(key.text), &instance));
}

ConfigItemT *PutItem(const KeyT &key, Int32 instance, const char *value)
{
    ConfigItemT *pItem = FindItem(key, instance);
    if (pItem == nullptr)
        return AddItemToCache(key.text, static_cast<UInt32>(instance), value);
    CopyValue(pItem->value, value);
    pItem->known = 1;
    pItem->unsaved = 0;
    return pItem;
}

void ForgetValue(ConfigItemT *pItem)
{
    pItem->value[0] = '\0';
    pItem->known = 0;
    pItem->unsaved = 0;
}

void FreeItem(ConfigItemT *pItem)
{
    ListExtract(&BucketOf(pItem->mod.name), &pItem->mod.list);
    ModExit(&pItem->mod);
    std::free(pItem);
}

// Other tasks may be calling the callbacks of an item that has or once had some: it is never freed.
eErrorT DropItem(const KeyT &key, Int32 instance)
{
    const SemaphoreHold hold(configSemaphore);
    ConfigItemT *pItem = hold.result() == 0 ? FindItem(key, instance) : nullptr;
    if (pItem == nullptr)
        return kItemNotFound;
    const bool known = pItem->known != 0;
    ForgetValue(pItem);
    if (pItem->mod.pCallbacks == nullptr)
        FreeItem(pItem);
    return known ? kNoError : kItemNotFound;
}

// ---- Reading

void ReportNoAccess(const char *message)
{
    char name[kTaskNameSize];
    t_copy_name(0, name);
    logerr("config", message, name);
}

// When something was read.
struct MomentT {
    UInt32 changes;
    bool isQuiet; // no change was under way
};

// Copies a cached value, empty when there is none.
eErrorT ReadFromCache(const KeyT &key, Int32 instance, char (&value)[kConfigValueSize], MomentT *pMoment)
{
    const SemaphoreHold hold(configSemaphore);
    if (hold.result() != 0)
        return kSemUnavail;
    *pMoment = {gChanges, gChangesUnderWay == 0};
    if (const ConfigItemT *pItem = FindItem(key, instance))
        CopyValue(value, pItem->value);
    return kNoError;
}

// Caches what was read from the store, if that still holds and the cache has nothing that the store still lacks.
eErrorT CacheFromStore(const KeyT &key, Int32 instance, const char *value, const MomentT &since)
{
    const SemaphoreHold hold(configSemaphore);
    if (hold.result() != 0)
        return kSemUnavail;
    const ConfigItemT *pItem = FindItem(key, instance);
    if (since.isQuiet && since.changes == gChanges && (pItem == nullptr || pItem->unsaved == 0))
        PutItem(key, instance, value);
    return kNoError;
}

// A number in decimal and nothing else.
template <class Number> eErrorT ReadNumber(const char *pName, Int32 instance, Number *pValue)
{
    os_assert(pName, "pName");
    os_assert(pValue, "pValue");
    char text[kConfigValueSize];
    if (const eErrorT result = ConfigRead(pName, instance, text); result != kNoError)
        return result;
    const char *end = text + std::strlen(text);
    Number number = 0;
    const auto parsed = std::from_chars(text, end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end)
        return kBadParameter;
    *pValue = number;
    return kNoError;
}

// ---- Changes

// A change of the store is under way for the length of a scope. Several may be.
class StoreChangeScope
{
public:
    StoreChangeScope() { Count(1); }
    ~StoreChangeScope() { Count(UINT32_MAX); } // one less
    StoreChangeScope(const StoreChangeScope &) = delete;
    StoreChangeScope &operator=(const StoreChangeScope &) = delete;

private:
    static void Count(UInt32 more)
    {
        const SemaphoreHold hold(configSemaphore);
        if (hold.result() != 0)
            return;
        gChanges++;
        gChangesUnderWay += more;
    }
};

// What a write has to do behind the cache.
struct WorkT {
    eErrorT result = kNoError; // so far
    bool storesValue = false;
    bool tells = false;              // the log and the callbacks
    ConfigItemT *pWatched = nullptr; // the item, if anybody watches it
    ConfigFailureT failure = {};     // of the file, not printed yet
};

// Gives the item the value, under changeSemaphore. There is nothing left to do when it has it already, unless a write
// for the store did not get there. That is so of the master's files alone: sending never fails, and while it lasts the
// message path may write the same value.
WorkT ChangeCache(const KeyT &key, const ConfigNotifyT &notify)
{
    const auto instance = static_cast<Int32>(notify.instance);
    const bool isForStore = (notify.flags & kConfigCacheOnly) == 0;
    const SemaphoreHold hold(configSemaphore);
    ConfigItemT *pItem = FindItem(key, instance);
    if (pItem != nullptr && pItem->known != 0 && std::strcmp(pItem->value, notify.value) == 0)
        return {.storesValue = isForStore && pItem->unsaved != 0};
    pItem = PutItem(key, instance, notify.value);
    if (pItem == nullptr)
        return {.result = isForStore ? kNoError : kOutOfMemory, .storesValue = isForStore, .tells = isForStore};
    pItem->unsaved = isForStore && IsMaster() ? 1 : 0;
    return {.storesValue = isForStore, .tells = true, .pWatched = pItem->mod.pCallbacks != nullptr ? pItem : nullptr};
}

void ChangeFile(const KeyT &key, const ConfigNotifyT &notify, WorkT *pWork)
{
    const auto instance = static_cast<Int32>(notify.instance);
    pWork->result = ConfigStoreTryWrite(key.text, instance, notify.value, &pWork->failure);
    if (pWork->result != kNoError)
        return;
    const SemaphoreHold hold(configSemaphore);
    ConfigItemT *pItem = FindItem(key, instance);
    if (pItem != nullptr && std::strcmp(pItem->value, notify.value) == 0)
        pItem->unsaved = 0;
}

// The master writes the file before the next change begins. The others send a command, which is not done with a lock
// held: the message path may need the database.
WorkT ChangeItem(const KeyT &key, const ConfigNotifyT &notify)
{
    const StoreChangeScope change;
    const bool isMaster = IsMaster();
    WorkT work;
    {
        const SemaphoreHold hold(changeSemaphore);
        if (hold.result() != 0)
            return {.result = kSemUnavail};
        work = ChangeCache(key, notify);
        if (work.storesValue && isMaster)
            ChangeFile(key, notify, &work);
    }
    if (work.storesValue && !isMaster)
        work.result = ConfigStoreWrite(key.text, static_cast<Int32>(notify.instance), notify.value);
    return work;
}

// The item, for its callbacks: added if need be; null when memory is short.
ConfigItemT *NeedItem(const KeyT &key, Int32 instance)
{
    const SemaphoreHold hold(configSemaphore);
    ConfigItemT *pItem = FindItem(key, instance);
    if (pItem == nullptr && (pItem = PutItem(key, instance, "")) != nullptr)
        ForgetValue(pItem);
    return pItem;
}

// What the callbacks of a write get.
ConfigNotifyT Notification(const KeyT &key, Int32 instance, const char *value, const char *access, UInt32 flags)
{
    ConfigNotifyT notify = {};
    notify.instance = static_cast<UInt32>(instance);
    notify.flags = flags;
    std::memcpy(notify.access, access, strnlen(access, sizeof notify.access));
    std::memcpy(notify.name, key.text, sizeof notify.name);
    CopyValue(notify.value, value);
    return notify;
}

void TellOfWrite(const KeyT &key, const ConfigNotifyT &notify, ConfigItemT *pWatched)
{
    if (IsMaster() && !IsSensitive(key.text))
        loginfo("config", "%s[%d]:%s\n", key.text, static_cast<Int32>(notify.instance), notify.value);
    if (pWatched != nullptr)
        ModCallCallbacks(&pWatched->mod, kNotifyFunc, &notify, sizeof notify);
    ModCallCallbacks(&gConfig.mod, kNotifyFunc, &notify, sizeof notify);
}

// ---- Dump

// Calls action for the items of that name, or for all when key is null. Under configSemaphore.
template <class Action> void ForEachItem(const KeyT *key, Action action)
{
    for (ListT *pHead : gConfig.buckets) {
        for (ListT *pElem = pHead; pElem != nullptr; pElem = ListNextElement(pHead, pElem)) {
            const ConfigItemT *pItem = AsItem(pElem);
            if (pItem->known != 0 && (key == nullptr || std::strcmp(pItem->mod.name, key->text) == 0))
                action(pItem);
        }
    }
}

struct DumpRowT {
    char name[kModFullNameSize];
    char value[kConfigValueSize];
};

// A copy of the items, so that nothing is printed with the cache held.
class DumpRows
{
public:
    explicit DumpRows(const KeyT *key);
    ~DumpRows() { std::free(pRows_); }
    DumpRows(const DumpRows &) = delete;
    DumpRows &operator=(const DumpRows &) = delete;
    void Print() const
    {
        for (std::size_t i = 0; i < count_; i++)
            std::printf("%-35s %s\n", pRows_[i].name, pRows_[i].value);
    }

private:
    DumpRowT *pRows_; // null: no item, or no memory
    std::size_t count_ = 0;
};

DumpRows::DumpRows(const KeyT *key)
{
    const SemaphoreHold hold(configSemaphore);
    std::size_t count = 0;
    ForEachItem(key, [&count](const ConfigItemT *) { count++; });
    pRows_ = static_cast<DumpRowT *>(std::calloc(count, sizeof(DumpRowT)));
    if (pRows_ == nullptr)
        return;
    ForEachItem(key, [this](const ConfigItemT *pItem) {
        DumpRowT &row = pRows_[count_++];
        std::snprintf(row.name, sizeof row.name, "%s[%d]", pItem->mod.name, pItem->mod.instance);
        CopyValue(row.value, IsSensitive(pItem->mod.name) ? "(not shown)" : pItem->value);
    });
}

void DumpItems(const KeyT *key)
{
    ConfigInit();
    ConfigDumpHeading();
    DumpRows(key).Print();
}

// ---- Start and end

// False when it runs already.
bool StartDatabase()
{
    const MutexHold hold(&startMutex);
    if (gConfigInitialized != 0)
        return false;
    if (sm_create("cnfg", 1, 2, &configSemaphore) == 0)
        sm_create("cnfc", 1, 2, &changeSemaphore); // without the other nothing may change
    gConfig = {};
    ModInit(&gConfig.mod, "Config", 0, nullptr);
    gConfigInitialized = 1;
    return true;
}

void StopDatabase()
{
    const MutexHold hold(&startMutex);
    if (gConfigInitialized.exchange(0) == 0)
        return;
    for (ListT *&pHead : gConfig.buckets)
        while (pHead != nullptr)
            FreeItem(AsItem(pHead));
    ModExit(&gConfig.mod);
    sm_delete(configSemaphore);
    sm_delete(changeSemaphore);
    configSemaphore = 0;
    changeSemaphore = 0;
}

} // namespace

eErrorT ConfigInit()
{
    if (gConfigInitialized != 0)
        return kNoError;
    ConfigInitFolderData(); // which prints, so not under the lock
    if (StartDatabase())
        ConfigStoreInit(); // a task that does both cannot be cancelled between them, nor in this one
    return kNoError;
}

void ConfigExit()
{
    if (gConfigInitialized == 0)
        return;
    ConfigStoreExit(); // the flush task logs, and so does its end: the settings that takes are still there
    StopDatabase();
}

// ---- Reading

eErrorT ConfigRead(const char *pName, Int32 instance, char *value)
{
    const KeyT key(pName);
    os_assert(value, "value");
    ConfigInit();
    char found[kConfigValueSize];
    found[0] = '\0';
    MomentT before = {};
    if (ReadFromCache(key, instance, found, &before) != kNoError)
        ReportNoAccess("can't acquire config database semaphore for reading, task=\"%s\"\n");
    eErrorT result = kNoError;
    if (found[0] == '\0') { // an empty cached value counts as missing
        // Deliberately one character less than the cache holds: what an item reads as after a restart
        // stays what it was.
        result = ConfigStoreRead(key.text, instance, found, kConfigValueSize - 1);
        if (result != kNoError)
            found[0] = '\0';
        else if (CacheFromStore(key, instance, found, before) != kNoError)
            ReportNoAccess("can't acquire config database semaphore for writing, task=\"%s\"\n");
    }
    std::memcpy(value, found, std::strlen(found) + 1);
    return result == kNoError ? kNoError : kItemNotFound;
}

eErrorT ConfigRead2(const char *pName, Int32 n1, Int32 n2, char *value)
{
    return ConfigRead(NumberedName(pName, n1, n2).text, 0, value);
}

eErrorT ConfigRead3(const char *pName, Int32 n1, Int32 n2, Int32 n3, char *value)
{
    return ConfigRead(NumberedName(pName, n1, n2, n3).text, 0, value);
}

eErrorT ConfigReadInt32(const char *pName, Int32 instance, Int32 *pValue)
{
    return ReadNumber(pName, instance, pValue);
}

eErrorT ConfigReadInt16(const char *pName, Int32 instance, Int16 *pValue)
{
    return ReadNumber(pName, instance, pValue);
}

eErrorT ConfigReadBool(const char *pName, Int32 instance, Boolean *pValue)
{
    os_assert(pName, "pName");
    os_assert(pValue, "pValue");
    char text[kConfigValueSize];
    const eErrorT result = ConfigRead(pName, instance, text);
    if (result == kNoError)
        *pValue = strcasecmp(text, "True") == 0 ? 1 : 0;
    return result;
}

// ---- Writing

eErrorT ConfigWriteEx(const char *pName, Int32 instance, const char *value, const char *access, UInt32 flags)
{
    const KeyT key(pName);
    os_assert(value, "value");
    os_assert(access, "access");
    if ((flags & kConfigCacheOnly) == 0 && !ConfigStoreMayWrite(key.text, value))
        return kBadParameter;
    ConfigInit();
    const ConfigNotifyT notify = Notification(key, instance, value, access, flags);
    const WorkT work = ChangeItem(key, notify);
    if (work.tells)
        TellOfWrite(key, notify, work.pWatched);
    ConfigStoreReport(work.failure); // last: a task that is deleted while it prints has told everybody
    return work.result;
}

eErrorT ConfigWrite(const char *pName, Int32 instance, const char *value)
{
    return ConfigWriteEx(pName, instance, value, "rw", 0);
}

eErrorT ConfigWriteCacheOnly(const char *pName, Int32 instance, const char *value)
{
    return ConfigWriteEx(pName, instance, value, "rw", kConfigCacheOnly);
}

eErrorT ConfigWritePerm(const char *pName, Int32 instance, const char *value, const char *access)
{
    return ConfigWriteEx(pName, instance, value, access, 0);
}

eErrorT ConfigWrite2(const char *pName, Int32 n1, Int32 n2, const char *value)
{
    return ConfigWrite(NumberedName(pName, n1, n2).text, 0, value);
}

eErrorT ConfigWrite3(const char *pName, Int32 n1, Int32 n2, Int32 n3, const char *value)
{
    return ConfigWrite(NumberedName(pName, n1, n2, n3).text, 0, value);
}

eErrorT ConfigWriteInt32(const char *pName, Int32 instance, Int32 value)
{
    char text[34];
    return ConfigWrite(pName, instance, itoa(value, text, 10));
}

eErrorT ConfigWriteInt16(const char *pName, Int32 instance, Int16 value)
{
    return ConfigWriteInt32(pName, instance, value);
}

eErrorT ConfigWriteBool(const char *pName, Int32 instance, Boolean value)
{
    return ConfigWrite(pName, instance, value != 0 ? "True" : "False");
}

eErrorT ConfigRestore(const char *pName, Int32 instance)
{
    const KeyT key(pName);
    ConfigInit();
    char value[kConfigValueSize];
    if (ConfigStoreChoiceRead(key.text, instance, value, sizeof value) != kNoError)
        return kItemNotFound;
    return ConfigWrite(key.text, instance, value);
}

eErrorT ConfigDelete(const char *pName, Int32 instance)
{
    const KeyT key(pName);
    ConfigInit();
    {
        const SemaphoreHold hold(changeSemaphore);
        if (hold.result() != 0)
            return kSemUnavail;
        const StoreChangeScope change;
        const eErrorT cached = DropItem(key, instance);
        const eErrorT stored = ConfigStoreDelete(key.text, instance);
        if (stored != kNoError && (stored != kItemNotFound || cached != kNoError))
            return stored;
    }
    loginfo("config", "delete %s[%d]\n", key.text, instance);
    return kNoError;
}

// ---- Callbacks

eErrorT ConfigAddCallback(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined)
{
    return ConfigAddCallbackEx(pName, instance, pFunc, userDefined, kModOnTask, 0);
}

eErrorT ConfigAddCallbackEx(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined,
                            UInt32 whenFlags, UInt32 taskID)
{
    const KeyT key(pName);
    os_assert(pFunc, "pFunc");
    UInt32 caller = 0;
    const bool forCaller = (whenFlags & kModOnTask) != 0 && taskID == 0;
    if (!ConfigStoreIsValidName(key.text) || (forCaller && t_ident(nullptr, 0, &caller) != 0))
        return kBadParameter;
    ConfigInit();
    const SemaphoreHold hold(changeSemaphore); // so that nobody deletes the item meanwhile
    ConfigItemT *pItem = hold.result() == 0 ? NeedItem(key, instance) : nullptr;
    if (pItem == nullptr)
        return hold.result() == 0 ? kOutOfMemory : kSemUnavail;
    return ModAddCallbackToTask(&pItem->mod, kNotifyFunc, pFunc, userDefined, whenFlags, taskID);
}

eErrorT ConfigAddCallback2(const char *pName, Int32 n1, Int32 n2, CallbackFuncPtrT pFunc, void *userDefined)
{
    return ConfigAddCallback(NumberedName(pName, n1, n2).text, 0, pFunc, userDefined);
}

eErrorT ConfigAddCallback3(const char *pName, Int32 n1, Int32 n2, Int32 n3, CallbackFuncPtrT pFunc, void *userDefined)
{
    return ConfigAddCallback(NumberedName(pName, n1, n2, n3).text, 0, pFunc, userDefined);
}

eErrorT ConfigAddImmediateCallback(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined)
{
    return ConfigAddCallbackEx(pName, instance, pFunc, userDefined, 0, 0);
}

eErrorT ConfigDeleteCallback(const char *pName, Int32 instance, CallbackFuncPtrT pFunc, void *userDefined)
{
    const KeyT key(pName);
    os_assert(pFunc, "pFunc");
    ConfigInit();
    const SemaphoreHold hold(changeSemaphore);
    ConfigItemT *pItem = LookupItemInCache(key.text, instance);
    if (pItem == nullptr)
        return kItemNotFound;
    return ModDeleteCallback(&pItem->mod, kNotifyFunc, pFunc, userDefined);
}

ModT *getConfigModule()
{
    ConfigInit();
    return &gConfig.mod;
}

// ---- Dump

void ConfigDumpHeading()
{
    std::puts("\nConfig item                         value");
}

void ConfigDumpAll()
{
    DumpItems(nullptr);
}

void ConfigDumpByName(const char *pName)
{
    const KeyT key(pName);
    DumpItems(&key);
}

// ---- The cache

ConfigItemT *WriteItemToCache(const char *pName, UInt32 instance, const char *value)
{
    const KeyT key(pName);
    os_assert(value, "value");
    ConfigInit();
    {
        const SemaphoreHold hold(configSemaphore);
        if (hold.result() == 0) {
            gChanges++;
            return PutItem(key, static_cast<Int32>(instance), value);
        }
    }
    ReportNoAccess("can't acquire config database semaphore for writing, task=\"%s\"\n");
    return nullptr;
}

ConfigItemT *AddItemToCache(const char *pName, UInt32 instance, const char *pValue)
{
    const KeyT key(pName);
    os_assert(pValue, "pValue");
    auto *pItem = static_cast<ConfigItemT *>(std::calloc(1, sizeof(ConfigItemT)));
    if (pItem == nullptr)
        return nullptr;
    ModInit(&pItem->mod, key.text, static_cast<Int32>(instance), &gConfig.mod);
    CopyValue(pItem->value, pValue);
    pItem->known = 1;
    ListEnqueue(&BucketOf(key.text), &pItem->mod.list);
    return pItem;
}

ConfigItemT *LookupItemInCache(const char *pName, Int32 instance)
{
    const KeyT key(pName);
    ConfigInit();
    const SemaphoreHold hold(configSemaphore);
    return hold.result() == 0 ? FindItem(key, instance) : nullptr;
}

eErrorT DeleteItemFromCache(const char *pName, Int32 instance)
{
    const KeyT key(pName);
    ConfigInit();
    const SemaphoreHold hold(changeSemaphore);
    return hold.result() == 0 ? DropItem(key, instance) : kSemUnavail;
}

Int32 CompareNameAndInstance(const ConfigItemT *pItem, const char *pName, Int32 instance)
{
    os_assert(pItem, "pItem");
    os_assert(pName, "pName");
    return pItem->mod.instance == instance && strcasecmp(pItem->mod.name, pName) == 0 ? 1 : 0;
}
