#include "Common/framework/configstore.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"
#include "Common/framework/configstore_inner.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

// The module's state. Other units may look at it.
const char *CONFIG_DAT_FOLDER = "../dat/";
const char *CONFIG_CHOICE_FOLDER = "../choice/";
const char *CONFIG_CHOICE_GEN_FOLDER = "../choice.gen/";
Int32 gbFolderDataInitialized; // under folderLock
std::atomic<Int32> gsConfigWriteOutstanding;
std::atomic<UInt32> gstLastConfigWrite; // seconds
std::atomic<UInt32> gsSyncTID;          // the flush task that was started last; 0: none

namespace
{

constexpr UInt32 kSyncPause = 500; // ticks
constexpr UInt32 kQuietSeconds = 4;

pthread_mutex_t folderLock = PTHREAD_MUTEX_INITIALIZER; // the choice of the folders

mode_t FileType(const char *path)
{
    os_assert(path, "path");
    struct stat status;
    return stat(path, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

// Prefers the appliance's own folder.
void ChooseFolder(const char *&folder, const char *absolute)
{
    if (ConfigIsFolderExist(absolute) != 0)
        folder = absolute;
}

struct SuffixT {
    char text[12]; // any 32-bit number
};

// Deliberate: the instances below 1 share the file without a number.
SuffixT InstanceSuffix(Int32 instance)
{
    SuffixT suffix = {};
    if (instance >= 1)
        std::snprintf(suffix.text, sizeof suffix.text, "%d", instance);
    return suffix;
}

char *ChoicePath(const char *folder, const char *name, Int32 instance, char *path)
{
    std::snprintf(path, kConfigPathSize, "%s%s%s%s", folder, name, InstanceSuffix(instance).text, ".choice");
    return path;
}

void SyncFileSystems()
{
    // Nobody else does what the flag no longer says. The log line may go to the standard error: the ring may be full.
    const CancelOffHold cancelOff;
    gsConfigWriteOutstanding = 0;
    loginfo("config", "synching filesystem\n");
    const UInt32 start = RealTimeMilliSeconds();
    sync();
    loginfo("config", "sync complete %dms\n", RealTimeMilliSeconds() - start);
}

} // namespace

// ---- Folders, names and paths

void ConfigInitFolderData()
{
    {
        const MutexHold hold(&folderLock);
        if (gbFolderDataInitialized != 0)
            return;
        ChooseFolder(CONFIG_CHOICE_FOLDER, "/opt/talvora/choice/");
        ChooseFolder(CONFIG_DAT_FOLDER, "/opt/talvora/dat/");
        ChooseFolder(CONFIG_CHOICE_GEN_FOLDER, "/opt/talvora/choice.gen/");
        os_assert(ConfigIsFolderExist(CONFIG_DAT_FOLDER), "ConfigIsFolderExist(CONFIG_DAT_FOLDER)");
        os_assert(ConfigIsFolderExist(CONFIG_CHOICE_FOLDER), "ConfigIsFolderExist(CONFIG_CHOICE_FOLDER)");
        os_assert(ConfigIsFolderExist(CONFIG_CHOICE_GEN_FOLDER), "ConfigIsFolderExist(CONFIG_CHOICE_GEN_FOLDER)");
        gbFolderDataInitialized = 1;
    }
    std::printf("Config Folder data initialized successfully(Choice dir: %s, Dat Dir: %s)\n", CONFIG_CHOICE_FOLDER,
                CONFIG_DAT_FOLDER);
}

bool ConfigStoreIsValidName(const char *name)
{
    os_assert(name, "pName");
    const std::size_t length = strnlen(name, kConfigNameSize);
    return length > 0 && length < kConfigNameSize && std::all_of(name, name + length, [](char c) {
               return c != '/' && std::iscntrl(static_cast<UInt8>(c)) == 0;
           });
}

char *ConfigGetDatFileName(const char *name, Int32 instance, char *path)
{
    os_assert(name, "pName");
    os_assert(path, "path");
    std::snprintf(path, kConfigPathSize, "%s%s%s.dat", CONFIG_DAT_FOLDER, name, InstanceSuffix(instance).text);
    return path;
}

char *ConfigGetChoiceFileName(const char *name, Int32 instance, char *path)
{
    os_assert(name, "pName");
    os_assert(path, "path");
    if (ConfigIsFileExist(ChoicePath(CONFIG_CHOICE_GEN_FOLDER, name, instance, path)) != 0)
        return path;
    return ChoicePath(CONFIG_CHOICE_FOLDER, name, instance, path);
}

Boolean ConfigIsFileExist(const char *path)
{
    return FileType(path) == S_IFREG ? 1 : 0;
}

Boolean ConfigIsFolderExist(const char *path)
{
    return FileType(path) == S_IFDIR ? 1 : 0;
}

// ---- Flushing

void ConfigStoreInit()
{
    ConfigInitFolderData();
    UInt32 task = 0;
    if (t_create("csyn", 2, 0, 0, 0, &task) != 0)
        return;
    gsSyncTID = task;
    t_start(task, 0, ConfigStoreSyncTask, nullptr);
}

void ConfigStoreExit()
{
    const UInt32 task = gsSyncTID.exchange(0);
    if (task != 0)
        t_delete(task);
    if (gsConfigWriteOutstanding != 0)
        SyncFileSystems();
}

void ConfigStoreSyncTask(UInt32, UInt32, UInt32, UInt32)
{
    for (;;) {
        tm_wkafter(kSyncPause);
        // Less than four seconds after the last write there may be more to come.
        while (gsConfigWriteOutstanding != 0 && RealTime() - gstLastConfigWrite >= kQuietSeconds) {
            SyncFileSystems();
            tm_wkafter(kSyncPause);
        }
    }
}

void NoteWrite()
{
    gstLastConfigWrite = RealTime();
    gsConfigWriteOutstanding = 1;
}
