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
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

// The module's state. Other units may look at it.
const char *CONFIG_DAT_FOLDER = "../dat/";
const char *CONFIG_CHOICE_FOLDER = "../choice/";
const char *CONFIG_CHOICE_GEN_FOLDER = "../choice.gen/";
Int32 gbFolderDataInitialized; // under gFolderLock
std::atomic<Int32> gsConfigWriteOutstanding;
std::atomic<UInt32> gstLastConfigWrite; // seconds
std::atomic<UInt32> gsSyncTID;          // the flush task that was started last; 0: none

namespace
{

constexpr UInt32 kAnswerEvent = 0x4000;
constexpr UInt32 kAnswerTicks = 300;
constexpr std::size_t kCommandSize = 512; // name, instance, value and the words around them
constexpr UInt32 kSyncPause = 500;        // ticks
constexpr UInt32 kQuietSeconds = 4;
constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kOwnersMode = 0600; // until a file that takes another one's place has its permissions
constexpr char kAccessList[] = "system.posix_acl_access";
constexpr Int32 kTemporaries = 64; // writers that replace one item's file at the same time

pthread_mutex_t gFolderLock = PTHREAD_MUTEX_INITIALIZER; // the choice of the folders

bool IsMaster()
{
    return GetProcessorNum() == kMasterProcessor;
}

mode_t FileType(const char *path)
{
    os_assert(path, "path");
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
    *pFile = {};
    if (ConfigStoreIsValidName(name))
        pFile->stream = std::fopen(fileName(name, instance, pFile->path), "rbe");
    return pFile->stream != nullptr ? kNoError : kBadParameter;
}

// A line ends at its line feed. Of one with a carriage return, what follows that is not read.
void SkipLine(FILE *stream, int c)
{
    while (c != '\n' && c != EOF)
        c = getc_unlocked(stream);
}

// Reads at most len - 1 characters of a line, and its end as well if nothing else is left of it.
eErrorT GetLine(FILE *stream, char *s, UInt32 len)
{
    UInt32 length = 0;
    int c = 0;
    while (length < len - 1 && (c = getc_unlocked(stream)) != EOF && c != '\n' && c != '\r')
        s[length++] = static_cast<char>(c);
    s[length] = '\0';
    if (c == EOF && length == 0)
        return kEndOfFile;
    if (length == len - 1)
        c = getc_unlocked(stream);
    if (c == '\n' || c == '\r')
        SkipLine(stream, c);
    else
        std::ungetc(c, stream); // the rest of a longer line, or the end of the file
    return kNoError;
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
    GetLine(file.stream, s, len);
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

// ---- Flushing

void NoteWrite()
{
    gstLastConfigWrite = RealTime();
    gsConfigWriteOutstanding = 1;
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

// ---- Replacing a file

// What lies at the path of an item's file.
struct OldFileT {
    bool exists;
    bool isReplaceable; // nothing, or a regular file with this name alone, no access list, and leave to write it
    struct stat status;
};

// A new file would not have the access list: it would let other users read it, or none.
bool HasAccessList(const char *path)
{
    return getxattr(path, kAccessList, nullptr, 0) > 0;
}

OldFileT LookAt(const char *path)
{
    OldFileT old = {};
    old.exists = lstat(path, &old.status) == 0;
    if (!old.exists)
        old.isReplaceable = errno == ENOENT;
    else if (S_ISREG(old.status.st_mode) && old.status.st_nlink == 1)
        old.isReplaceable = !HasAccessList(path) && faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) == 0;
    return old;
}

// Gives a new file the owner, the group and the permissions of the old one: a secret stays one. False when the
// process may not, and when the folder gave the file an access list, which the old one does not have.
bool TakeAttributes(int file, const struct stat &old)
{
    struct stat now;
    if (fstat(file, &now) != 0 || fgetxattr(file, kAccessList, nullptr, 0) > 0)
        return false;
    const bool isOwners = now.st_uid == old.st_uid && now.st_gid == old.st_gid;
    if (!isOwners && fchown(file, old.st_uid, old.st_gid) != 0)
        return false;
    return fchmod(file, old.st_mode & ~static_cast<mode_t>(S_IFMT)) == 0;
}

// Locks an open file for its writer. False with EWOULDBLOCK when somebody else has it, or has moved it away.
bool Claim(int file, const char *path)
{
    struct stat mine, there;
    if (flock(file, LOCK_EX | LOCK_NB) != 0)
        return false;
    const bool isThere = fstat(file, &mine) == 0 && lstat(path, &there) == 0 && mine.st_dev == there.st_dev &&
                         mine.st_ino == there.st_ino;
    errno = EWOULDBLOCK;
    return isThere;
}

// Removes a temporary file that nobody writes any more: its process was killed.
void RemoveLeftover(const char *path)
{
    const int file = open(path, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (file < 0)
        return;
    if (Claim(file, path))
        unlink(path);
    close(file);
}

struct TemporaryPathT {
    char text[kConfigPathSize + 16]; // no item's file ends like it
};

// Opens a new file beside the item's, for this call alone until it is closed: whoever writes one has locked it.
// Returns -1 when the folder or its file system does not let us.
int OpenTemporary(const char *path, mode_t mode, TemporaryPathT *pTemporary)
{
    for (Int32 tried = 0; tried < 2 * kTemporaries; tried++) { // each twice: a leftover is removed between
        std::snprintf(pTemporary->text, sizeof pTemporary->text, "%s.%d.new", path, tried / 2);
        const int file = open(pTemporary->text, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (file < 0 && errno != EEXIST)
            return -1;
        if (file >= 0) {
            if (Claim(file, pTemporary->text))
                return file;
            const bool isTaken = errno == EWOULDBLOCK;
            close(file);
            if (!isTaken) { // there are no locks here
                unlink(pTemporary->text);
                return -1;
            }
        }
        RemoveLeftover(pTemporary->text);
    }
    return -1;
}

bool WriteAll(int file, const char *text, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = write(file, text, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        text += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// Keeps the reason that the system gave. It is printed later: the caller may hold a lock.
void Fail(ConfigFileT *pFile, const char *call)
{
    pFile->failure = {call, errno};
}

enum class ReplacementT { kDone, kFailed, kNotPossible };

// Writes a temporary file, which stays open: it has to stay locked until it is in place. But a file on a network may
// fail no earlier than on closing, so a copy of the descriptor is closed, if there is one left for it.
bool WriteTemporary(int file, const ConfigFileT &source)
{
    if (!WriteAll(file, source.text, source.size))
        return false;
    const int copy = fcntl(file, F_DUPFD_CLOEXEC, 0);
    return copy < 0 || close(copy) == 0;
}

// Whether the disk was too full for a second file, and the text has room where the old one is.
bool FitsWhereItIs(const OldFileT &old, std::size_t size, int error)
{
    constexpr UInt64 kBlockSize = 512; // of st_blocks, on every file system
    const bool isFull = error == ENOSPC || error == EDQUOT;
    return isFull && old.exists && size <= static_cast<UInt64>(old.status.st_blocks) * kBlockSize;
}

// Puts a new file in the old one's place in one step. kFailed: it could not be written.
// kNotPossible: it could not be made, not be put there, or it found the disk full where the old file has room for the
// text. After both the old file is as it was.
ReplacementT ReplaceFile(ConfigFileT *pFile, const OldFileT &old)
{
    TemporaryPathT temporary;
    const int file = OpenTemporary(pFile->path, old.exists ? kOwnersMode : kNewFileMode, &temporary);
    if (file < 0)
        return ReplacementT::kNotPossible;
    ReplacementT result = ReplacementT::kNotPossible;
    if (!old.exists || TakeAttributes(file, old.status)) {
        if (WriteTemporary(file, *pFile)) {
            if (std::rename(temporary.text, pFile->path) == 0)
                result = ReplacementT::kDone;
        } else if (!FitsWhereItIs(old, pFile->size, errno)) {
            Fail(pFile, "ConfigStoreWrite: fwrite");
            result = ReplacementT::kFailed;
        }
    }
    if (result != ReplacementT::kDone)
        unlink(temporary.text);
    close(file);
    return result;
}

// Writes over the file, which is cut afterwards: a short value is there whole or not at all, and on a full disk it
// has its place already.
void WriteInPlace(ConfigFileT *pFile)
{
    const int file = open(pFile->path, O_WRONLY | O_CREAT | O_NOCTTY | O_CLOEXEC, kNewFileMode);
    if (file < 0) {
        Fail(pFile, "ConfigStoreWrite: fopen");
        return;
    }
    const bool written = WriteAll(file, pFile->text, pFile->size) &&
                         (ftruncate(file, static_cast<off_t>(pFile->size)) == 0 || errno == EINVAL); // no regular file
    if (!written)
        Fail(pFile, "ConfigStoreWrite: fwrite");
    if (close(file) != 0 && written)
        Fail(pFile, "ConfigStoreWrite: fwrite");
}

void StoreFile(ConfigFileT *pFile)
{
    const OldFileT old = LookAt(pFile->path);
    if (!old.isReplaceable || ReplaceFile(pFile, old) == ReplacementT::kNotPossible)
        WriteInPlace(pFile);
    if (pFile->failure.call == nullptr)
        NoteWrite();
}

eErrorT CloseWritten(ConfigFileT *pFile, ConfigFailureT *pFailure)
{
    const CancelOffHold cancelOff; // no file stays open, no temporary one stays behind, and the lines are given back
    if (pFile->failure.call == nullptr)
        StoreFile(pFile);
    std::free(pFile->text);
    *pFailure = pFile->failure;
    *pFile = {};
    return pFailure->call == nullptr ? kNoError : kBadParameter;
}

// ---- Writing through the master

// Whether a word can be part of a command: it is one word there.
bool IsWord(const char *name)
{
    return ConfigStoreIsValidName(name) && std::strpbrk(name, " \"'") == nullptr;
}

struct LineT {
    explicit LineT(const char *value)
    {
        std::snprintf(text, sizeof text, "%s", value);
        CutLine(text); // what follows would be a command of its own
    }
    char text[kConfigValueSize];
};

void TellMaster(const char *name, Int32 instance, const char *value)
{
    char command[kCommandSize];
    std::snprintf(command, sizeof command, "%s %s %d \"%s\" rw file notify", "config", name, instance,
                  LineT(value).text);
    RemMsgSendCmd(command, nullptr, nullptr);
}

} // namespace

void ConfigInitFolderData()
{
    {
        const MutexHold hold(&gFolderLock);
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

bool ConfigStoreIsValidName(const char *name)
{
    os_assert(name, "pName");
    const std::size_t length = strnlen(name, kConfigNameSize);
    return length > 0 && length < kConfigNameSize && std::all_of(name, name + length, [](char c) {
               return c != '/' && std::iscntrl(static_cast<UInt8>(c)) == 0;
           });
}

bool ConfigStoreMayWrite(const char *name, const char *value)
{
    os_assert(value, "value");
    if (IsMaster())
        return ConfigStoreIsValidName(name);
    return IsWord(name) && std::strchr(LineT(value).text, '"') == nullptr;
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

eErrorT ConfigStoreRead(const char *name, Int32 instance, char *s, UInt32 len)
{
    os_assert(name, "pName");
    os_assert(s, "s");
    os_assert(len, "len");
    if (IsMaster()) {
        const eErrorT result = ReadFirstLine(ConfigGetDatFileName, name, instance, s, len);
        return result == kNoError ? kNoError : ReadFirstLine(ConfigGetChoiceFileName, name, instance, s, len);
    }
    s[0] = '\0';
    if (!IsWord(name))
        return kBadParameter;
    RemoteRead(name, instance, s, len);
    return kNoError; // even without an answer, on purpose: a value that is empty is asked for again
}

eErrorT ConfigStoreChoiceRead(const char *name, Int32 instance, char *s, UInt32 len)
{
    os_assert(name, "pName");
    os_assert(s, "s");
    os_assert(len, "len");
    return ReadFirstLine(ConfigGetChoiceFileName, name, instance, s, len);
}

eErrorT ConfigStoreWrite(const char *name, Int32 instance, const char *value)
{
    ConfigFailureT failure = {};
    const eErrorT result = ConfigStoreTryWrite(name, instance, value, &failure);
    ConfigStoreReport(failure);
    return result;
}

eErrorT ConfigStoreTryWrite(const char *name, Int32 instance, const char *value, ConfigFailureT *pFailure)
{
    os_assert(pFailure, "pFailure");
    *pFailure = {};
    if (!ConfigStoreMayWrite(name, value))
        return kBadParameter;
    if (!IsMaster()) {
        TellMaster(name, instance, value);
        return kNoError;
    }
    ConfigFileT file;
    ConfigStoreWriteOpen(name, instance, &file);
    ConfigStoreWritePutLine(&file, value);
    return CloseWritten(&file, pFailure);
}

void ConfigStoreReport(const ConfigFailureT &failure)
{
    if (failure.call == nullptr)
        return;
    errno = failure.error;
    std::perror(failure.call);
}

eErrorT ConfigStoreDelete(const char *name, Int32 instance)
{
    os_assert(name, "pName");
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
    os_assert(response, "response");
    const MutexHold hold(&gRemoteReadLock);
    auto *pRead = static_cast<RemoteReadT *>(context);
    if (pRead->pAnswer != nullptr)
        std::snprintf(pRead->pAnswer, kCommandSize, "%s", response);
    if (pRead->taskID != 0)
        ev_send(pRead->taskID, kAnswerEvent);
}

eErrorT ConfigStoreReadOpen(const char *name, Int32 instance, ConfigFileT *pFile)
{
    os_assert(name, "pName");
    os_assert(pFile, "pFile");
    *pFile = {};
    if (!IsMaster())
        return kBadParameter;
    const eErrorT result = OpenFile(ConfigGetDatFileName, name, instance, pFile);
    return result == kNoError ? kNoError : OpenFile(ConfigGetChoiceFileName, name, instance, pFile);
}

eErrorT ConfigStoreReadGetLine(ConfigFileT *pFile, char *s, UInt32 len)
{
    os_assert(pFile, "pFile");
    os_assert(pFile->stream, "pFile->stream");
    os_assert(s, "s");
    os_assert(len > 1, "len"); // a line of no characters would never reach the end
    return GetLine(pFile->stream, s, len);
}

void ConfigStoreReadClose(ConfigFileT *pFile)
{
    os_assert(pFile, "pFile");
    os_assert(pFile->stream, "pFile->stream");
    std::fclose(std::exchange(pFile->stream, nullptr));
}

eErrorT ConfigStoreWriteOpen(const char *name, Int32 instance, ConfigFileT *pFile)
{
    os_assert(name, "pName");
    os_assert(pFile, "pFile");
    *pFile = {};
    if (!IsMaster() || !ConfigStoreIsValidName(name))
        return kBadParameter;
    ConfigGetDatFileName(name, instance, pFile->path);
    pFile->isWritten = 1;
    return kNoError;
}

eErrorT ConfigStoreWritePutLine(ConfigFileT *pFile, const char *line)
{
    os_assert(pFile, "pFile");
    os_assert(pFile->isWritten, "pFile->isWritten");
    os_assert(line, "line");
    const std::size_t length = std::strcspn(line, "\r\n");
    auto *text = static_cast<char *>(std::malloc(pFile->size + length + 1));
    if (text == nullptr) {
        Fail(pFile, "ConfigStoreWrite: fwrite");
        return kBadParameter;
    }
    *std::copy_n(line, length, std::copy_n(pFile->text, pFile->size, text)) = '\n';
    std::free(std::exchange(pFile->text, text));
    pFile->size += length + 1;
    return kNoError;
}

eErrorT ConfigStoreWriteClose(ConfigFileT *pFile)
{
    os_assert(pFile, "pFile");
    os_assert(pFile->isWritten, "pFile->isWritten");
    ConfigFailureT failure;
    const eErrorT result = CloseWritten(pFile, &failure);
    ConfigStoreReport(failure);
    return result;
}
