#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"
#include "Common/framework/config_inner.h"

#include <cstring>

namespace
{

// The steps of a write that follow the change of the cache.
struct WorkT {
    eErrorT result = kNoError; // so far
    bool storesValue = false;
    bool tells = false;              // the log and the callbacks
    ConfigItemT *pWatched = nullptr; // the item, if anybody watches it
    ConfigFailureT failure = {};     // of the file, not printed yet
};

// Gives the item the value, under changeSemaphore. Deliberate: if the item has that value already, nothing is left to
// do. There is one exception: on the master, an earlier write may not have reached the file. On other processors
// sending never fails, and while it lasts the message path may write the same value.
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
    pItem->unsaved = isForStore && IsMasterProcessor() ? 1 : 0;
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

// The master writes the file before the next change begins. The other processors send a command, and hold no lock
// meanwhile: the message path may need the database.
WorkT ChangeItem(const KeyT &key, const ConfigNotifyT &notify)
{
    const StoreChangeScope change;
    const bool isMaster = IsMasterProcessor();
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
    if (IsMasterProcessor() && !IsSensitive(key.text))
        loginfo("config", "%s[%d]:%s\n", key.text, static_cast<Int32>(notify.instance), notify.value);
    if (pWatched != nullptr)
        ModCallCallbacks(&pWatched->mod, kConfigNotifyFunc, &notify, sizeof notify);
    ModCallCallbacks(&gConfig.mod, kConfigNotifyFunc, &notify, sizeof notify);
}

} // namespace

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

// ---- Deleting

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
