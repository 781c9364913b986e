#include "Common/framework/config.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/osassert.h"
#include "Common/framework/config_inner.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <strings.h>

ConfigT gConfig;
UInt32 configSemaphore;
UInt32 changeSemaphore;
std::atomic<Int32> gConfigInitialized;

namespace
{

pthread_mutex_t startMutex = PTHREAD_MUTEX_INITIALIZER; // the database's start and end

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
    FreeAllItems();
    ModExit(&gConfig.mod);
    sm_delete(configSemaphore);
    sm_delete(changeSemaphore);
    configSemaphore = 0;
    changeSemaphore = 0;
}

} // namespace

// ---- Names

KeyT::KeyT(const char *pName)
{
    os_assert(pName, "pName");
    const std::size_t length = strnlen(pName, sizeof text - 1);
    std::memcpy(text, pName, length);
    text[length] = '\0';
    strlwr(text);
}

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

// ---- Start and end

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
    if (found[0] == '\0') { // deliberate: an empty cached value counts as missing
        // Deliberate: one character less than the cache holds. An item reads the same after a restart as it always did.
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
    return ModAddCallbackToTask(&pItem->mod, kConfigNotifyFunc, pFunc, userDefined, whenFlags, taskID);
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
    return ModDeleteCallback(&pItem->mod, kConfigNotifyFunc, pFunc, userDefined);
}

ModT *getConfigModule()
{
    ConfigInit();
    return &gConfig.mod;
}
