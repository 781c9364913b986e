#include "Common/framework/configstore.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

const char *CONFIG_DAT_FOLDER = "../dat/";
const char *CONFIG_CHOICE_FOLDER = "../choice/";
const char *CONFIG_CHOICE_GEN_FOLDER = "../choice.gen/";

constexpr UInt32 kAnswerEvent = 0x4000;
constexpr UInt32 kAnswerTicks = 300;
constexpr std::size_t kCommandSize = 512; // name, instance, value and the words around them
constexpr UInt32 kSyncPause = 500;        // ticks
constexpr UInt32 kQuietSeconds = 4;
constexpr char kNewSuffix[] = ".new"; // no item's file ends in it

std::atomic<Int32> gbFolderDataInitialized;
std::atomic<Int32> gsConfigWriteOutstanding;
std::atomic<UInt32> gstLastConfigWrite; // seconds
UInt32 gsSyncTID;

bool IsMaster()
{
    return GetProcessorNum() == kMasterProcessor;
}

mode_t FileType(const char *path)
{
    struct stat status;
    return stat(path, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

void CutLine(char *text)
{
    text[std::strcspn(text, "\r\n")] = '\0';
}

// ---- Folders and paths

// Prefers the appliance's own folder.
void ChooseFolder(const char *&folder, const char *absolute)
{
    if (ConfigIsFolderExist(absolute) != 0)
        folder = absolute;
}

void ConfigInitFolderData()
{
    ChooseFolder(CONFIG_CHOICE_FOLDER, "/opt/talvora/choice/");
    ChooseFolder(CONFIG_DAT_FOLDER, "/opt/talvora/dat/");
    ChooseFolder(CONFIG_CHOICE_GEN_FOLDER, "/opt/talvora/choice.gen/");
    os_assert(ConfigIsFolderExist(CONFIG_DAT_FOLDER), "ConfigIsFolderExist(CONFIG_DAT_FOLDER)");
    os_assert(ConfigIsFolderExist(CONFIG_CHOICE_FOLDER), "ConfigIsFolderExist(CONFIG_CHOICE_FOLDER)");
    os_assert(ConfigIsFolderExist(CONFIG_CHOICE_GEN_FOLDER), "ConfigIsFolderExist(CONFIG_CHOICE_GEN_FOLDER)");
    std::printf("Config Folder data initialized successfully(Choice dir: %s, Dat Dir: %s)\n", CONFIG_CHOICE_FOLDER,
                CONFIG_DAT_FOLDER);
    gbFolderDataInitialized = 1;
}

struct SuffixT {
    char text[12]; // any 32-bit number
};

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

// ---- Reading

using FileNameT = char *(*)(const char *name, Int32 instance, char *path);

eErrorT OpenFile(FileNameT fileName, const char *name, Int32 instance, ConfigFileT *pFile)
{
    pFile->stream = ConfigStoreIsValidName(name) ? std::fopen(fileName(name, instance, pFile->path), "rb") : nullptr;
    return pFile->stream != nullptr ? kNoError : kBadParameter;
}

// Reads the first line of a file. An empty file gives an empty value, and so does one that cannot be
// read: both are read again the next time. A directory counts as missing.
eErrorT ReadFirstLine(FileNameT fileName, const char *name, Int32 instance, char *s, UInt32 len)
{
    const CancelOffHold cancelOff; // a file that was opened is closed
    s[0] = '\0';
    ConfigFileT file;
    if (OpenFile(fileName, name, instance, &file) != kNoError)
        return kBadParameter;
    ConfigStoreReadGetLine(&file, s, len);
    const bool isFolder = std::ferror(file.stream) != 0 && ConfigIsFolderExist(file.path) != 0;
    ConfigStoreReadClose(&file);
    return isFolder ? kBadParameter : kNoError;
}

// ---- Reading through the master

// The context of a remote read. They are used in turn, so that a late answer finds one that nobody waits
// on.
struct RemoteReadT {
    UInt32 taskID; // who waits; 0: nobody
    char *pAnswer; // kCommandSize characters
};
RemoteReadT gRemoteReads[64];
UInt32 gNextRemoteRead;
pthread_mutex_t gRemoteReadLock = PTHREAD_MUTEX_INITIALIZER; // all of the above

// Null when more tasks read than there are contexts.
RemoteReadT *TakeRemoteRead(UInt32 taskID, char *pAnswer)
{
    const MutexHold hold(&gRemoteReadLock);
    for (std::size_t tried = 0; tried < std::size(gRemoteReads); tried++) {
        RemoteReadT *pRead = &gRemoteReads[gNextRemoteRead++ % std::size(gRemoteReads)];
        if (pRead->taskID == 0) {
            *pRead = {taskID, pAnswer};
            return pRead;
        }
    }
    return nullptr;
}

// Gives a context up for the length of a scope: the answer's buffer ends with the caller's.
class RemoteReadHold
{
public:
    RemoteReadHold(UInt32 taskID, char *pAnswer) : pRead_(TakeRemoteRead(taskID, pAnswer)) {}
    ~RemoteReadHold()
    {
        const MutexHold hold(&gRemoteReadLock);
        if (pRead_ != nullptr)
            *pRead_ = {};
    }
    RemoteReadHold(const RemoteReadHold &) = delete;
    RemoteReadHold &operator=(const RemoteReadHold &) = delete;
    RemoteReadT *get() const { return pRead_; }

private:
    RemoteReadT *pRead_;
};

// Sends the command and waits for the answer, which comes in the command's place.
bool AskMaster(char (&command)[kCommandSize])
{
    UInt32 self = 0, events = 0;
    if (t_ident(nullptr, 0, &self) != 0)
        return false; // only a task can wait
    const RemoteReadHold read(self, command);
    if (read.get() == nullptr)
        return false;
    ev_receive(kAnswerEvent, kEvNoWait | kEvAny, 0, &events); // left over from a wait that gave up
    char sent[kCommandSize];
    std::memcpy(sent, command, sizeof sent); // the answer may come before the sending is over
    RemMsgSendCmd(sent, remoteRspCallback, read.get());
    return ev_receive(kAnswerEvent, kEvAny, kAnswerTicks, &events) == 0;
}

// The value is the first word behind the command's echo, so it can hold no blanks.
void RemoteRead(const char *name, Int32 instance, char *s, UInt32 len)
{
    char command[kCommandSize];
    std::snprintf(command, sizeof command, "%s %s %d", "config", name, instance);
    s[0] = '\0';
    if (!AskMaster(command)) {
        std::printf("ConfigStoreRead: \"%s[%d]\" timeout\n", name, instance);
        return;
    }
    if (len == 1) // a width of 0 would not be a width
        return;
    char format[32];
    std::snprintf(format, sizeof format, "%%*s %%*s %%*d %%%ds", static_cast<Int32>(len - 1));
    std::sscanf(command, format, s);
}

// ---- Writing

void NewPath(const ConfigFileT *pFile, char (&path)[kConfigPathSize + sizeof kNewSuffix])
{
    std::snprintf(path, sizeof path, "%s%s", pFile->path, kNewSuffix);
}

void NoteWrite()
{
    gstLastConfigWrite = RealTime();
    gsConfigWriteOutstanding = 1;
}

void SyncFileSystems()
{
    gsConfigWriteOutstanding = 0;
    loginfo("config", "synching filesystem\n");
    const UInt32 start = RealTimeMilliSeconds();
    sync();
    loginfo("config", "sync complete %dms\n", RealTimeMilliSeconds() - start);
}

} // namespace

void ConfigStoreInit()
{
    if (gbFolderDataInitialized == 0)
        ConfigInitFolderData();
    if (t_create("csyn", 2, 0, 0, 0, &gsSyncTID) == 0)
        t_start(gsSyncTID, 0, ConfigStoreSyncTask, nullptr);
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

bool ConfigStoreIsValidName(const char *name)
{
    const std::size_t length = strnlen(name, kConfigNameSize);
    return length > 0 && length < kConfigNameSize && std::all_of(name, name + length, [](char c) {
               return c != '/' && std::iscntrl(static_cast<UInt8>(c)) == 0;
           });
}

char *ConfigGetDatFileName(const char *name, Int32 instance, char *path)
{
    std::snprintf(path, kConfigPathSize, "%s%s%s.dat", CONFIG_DAT_FOLDER, name, InstanceSuffix(instance).text);
    return path;
}

char *ConfigGetChoiceFileName(const char *name, Int32 instance, char *path)
{
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

eErrorT ConfigStoreRead(const char *name, Int32 instance, char *s, UInt32 len)
{
    os_assert(name, "pName");
    os_assert(s, "s");
    os_assert(len, "len");
    s[0] = '\0';
    if (!ConfigStoreIsValidName(name))
        return kBadParameter;
    if (IsMaster()) {
        const eErrorT result = ReadFirstLine(ConfigGetDatFileName, name, instance, s, len);
        return result == kNoError ? kNoError : ReadFirstLine(ConfigGetChoiceFileName, name, instance, s, len);
    }
    RemoteRead(name, instance, s, len);
    return kNoError; // even without an answer, on purpose: a value that is empty is asked for again
}

eErrorT ConfigStoreChoiceRead(const char *name, Int32 instance, char *s, UInt32 len)
{
    return ReadFirstLine(ConfigGetChoiceFileName, name, instance, s, len);
}

eErrorT ConfigStoreWrite(const char *name, Int32 instance, const char *value)
{
    if (!ConfigStoreIsValidName(name))
        return kBadParameter;
    if (!IsMaster()) {
        char line[kConfigValueSize], command[kCommandSize];
        std::snprintf(line, sizeof line, "%s", value);
        CutLine(line); // what follows would be a command of its own
        std::snprintf(command, sizeof command, "%s %s %d \"%s\" rw file notify", "config", name, instance, line);
        RemMsgSendCmd(command, nullptr, nullptr);
        return kNoError;
    }
    const CancelOffHold cancelOff;
    ConfigFileT file;
    if (ConfigStoreWriteOpen(name, instance, &file) != kNoError)
        return kBadParameter;
    ConfigStoreWritePutLine(&file, value);
    return ConfigStoreWriteClose(&file);
}

eErrorT ConfigStoreDelete(const char *name, Int32 instance)
{
    if (!IsMaster())
        return kNotImplemented;
    char path[kConfigPathSize];
    if (!ConfigStoreIsValidName(name))
        return kItemNotFound;
    if (unlink(ConfigGetDatFileName(name, instance, path)) != 0)
        return errno == ENOENT ? kItemNotFound : kBadParameter;
    NoteWrite();
    return kNoError;
}

void remoteRspCallback(RemMsgPathT * /*pHandle*/, const char *response, void *context)
{
    if (context == nullptr)
        return;
    const MutexHold hold(&gRemoteReadLock);
    auto *pRead = static_cast<RemoteReadT *>(context);
    if (pRead->pAnswer != nullptr)
        std::snprintf(pRead->pAnswer, kCommandSize, "%s", response);
    if (pRead->taskID != 0)
        ev_send(pRead->taskID, kAnswerEvent);
}

eErrorT ConfigStoreReadOpen(const char *name, Int32 instance, ConfigFileT *pFile)
{
    pFile->stream = nullptr;
    if (!IsMaster())
        return kBadParameter;
    const eErrorT result = OpenFile(ConfigGetDatFileName, name, instance, pFile);
    return result == kNoError ? kNoError : OpenFile(ConfigGetChoiceFileName, name, instance, pFile);
}

eErrorT ConfigStoreReadGetLine(ConfigFileT *pFile, char *s, UInt32 len)
{
    if (std::fgets(s, static_cast<int>(len), pFile->stream) == nullptr) {
        s[0] = '\0';
        return kEndOfFile;
    }
    CutLine(s);
    return kNoError;
}

void ConfigStoreReadClose(ConfigFileT *pFile)
{
    std::fclose(pFile->stream);
    pFile->stream = nullptr;
}

eErrorT ConfigStoreWriteOpen(const char *name, Int32 instance, ConfigFileT *pFile)
{
    pFile->stream = nullptr;
    if (!IsMaster() || !ConfigStoreIsValidName(name))
        return kBadParameter;
    char path[kConfigPathSize + sizeof kNewSuffix];
    ConfigGetDatFileName(name, instance, pFile->path);
    NewPath(pFile, path);
    unlink(path); // left over from a process that was killed, or somebody's link to elsewhere
    pFile->stream = std::fopen(path, "wbx");
    if (pFile->stream == nullptr) {
        std::perror("ConfigStoreWrite: fopen");
        return kBadParameter;
    }
    struct stat old;
    if (stat(pFile->path, &old) == 0)
        fchmod(fileno(pFile->stream), old.st_mode & ~static_cast<mode_t>(S_IFMT)); // a secret stays one
    return kNoError;
}

eErrorT ConfigStoreWritePutLine(ConfigFileT *pFile, const char *line)
{
    const int length = static_cast<int>(std::strcspn(line, "\r\n"));
    return std::fprintf(pFile->stream, "%.*s\n", length, line) >= 0 ? kNoError : kBadParameter;
}

// Writing in place would lose both values to a full disk, or to an end of the process between the
// opening and the writing.
eErrorT ConfigStoreWriteClose(ConfigFileT *pFile)
{
    char path[kConfigPathSize + sizeof kNewSuffix];
    NewPath(pFile, path);
    const bool written = std::ferror(pFile->stream) == 0;
    const bool closed = std::fclose(pFile->stream) == 0;
    pFile->stream = nullptr;
    if (written && closed && std::rename(path, pFile->path) == 0) {
        NoteWrite();
        return kNoError;
    }
    std::perror(written && closed ? "ConfigStoreWrite: fopen" : "ConfigStoreWrite: fwrite");
    unlink(path);
    return kBadParameter;
}
