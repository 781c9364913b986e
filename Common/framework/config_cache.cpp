#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"
#include "Common/framework/config_inner.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace
{

// Both are under configSemaphore. A value that was read from the store must not overwrite the cache if the store or the
// cache has changed since, or if a change was under way.
UInt32 changes;         // beginnings and ends of changes
UInt32 changesUnderWay; // not ended yet

ListT *&BucketOf(const char *key)
{
    return gConfig.buckets[static_cast<UInt8>(key[0]) % kNumBuckets];
}

Int32 IsItem(ListT *pElem, void *pName, void *pInstance)
{
    return CompareNameAndInstance(AsItem(pElem), static_cast<const char *>(pName), *static_cast<Int32 *>(pInstance));
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

} // namespace

void CopyValue(char (&to)[kConfigValueSize], const char *from)
{
    const std::size_t length = strnlen(from, sizeof to - 1);
    std::memmove(to, from, length);
    to[length] = '\0';
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

ConfigItemT *NeedItem(const KeyT &key, Int32 instance)
{
    const SemaphoreHold hold(configSemaphore);
    ConfigItemT *pItem = FindItem(key, instance);
    if (pItem == nullptr && (pItem = PutItem(key, instance, "")) != nullptr)
        ForgetValue(pItem);
    return pItem;
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

void ReportNoAccess(const char *message)
{
    char name[kTaskNameSize];
    t_copy_name(0, name);
    logerr("config", message, name);
}

eErrorT ReadFromCache(const KeyT &key, Int32 instance, char (&value)[kConfigValueSize], MomentT *pMoment)
{
    const SemaphoreHold hold(configSemaphore);
    if (hold.result() != 0)
        return kSemUnavail;
    *pMoment = {changes, changesUnderWay == 0};
    if (const ConfigItemT *pItem = FindItem(key, instance))
        CopyValue(value, pItem->value);
    return kNoError;
}

eErrorT CacheFromStore(const KeyT &key, Int32 instance, const char *value, const MomentT &since)
{
    const SemaphoreHold hold(configSemaphore);
    if (hold.result() != 0)
        return kSemUnavail;
    const ConfigItemT *pItem = FindItem(key, instance);
    if (since.isQuiet && since.changes == changes && (pItem == nullptr || pItem->unsaved == 0))
        PutItem(key, instance, value);
    return kNoError;
}

void StoreChangeScope::Count(UInt32 more)
{
    const SemaphoreHold hold(configSemaphore);
    if (hold.result() != 0)
        return;
    changes++;
    changesUnderWay += more;
}

void FreeAllItems()
{
    for (ListT *&pHead : gConfig.buckets)
        while (pHead != nullptr)
            FreeItem(AsItem(pHead));
}

// ---- Calls of the database's users

ConfigItemT *WriteItemToCache(const char *pName, UInt32 instance, const char *value)
{
    const KeyT key(pName);
    os_assert(value, "value");
    ConfigInit();
    {
        const SemaphoreHold hold(configSemaphore);
        if (hold.result() == 0) {
            changes++;
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
