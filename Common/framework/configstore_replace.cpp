#include "Common/framework/configstore_inner.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace
{

constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kOwnersMode = 0600; // until a file that takes another one's place has its permissions
constexpr char kAccessList[] = "system.posix_acl_access";
constexpr Int32 kTemporaries = 64; // writers that replace one item's file at the same time

// The file that is at the path of an item.
struct OldFileT {
    bool exists;
    bool isReplaceable; // there is no file; or a writable regular file with one name and no access list
    struct stat status;
};

// A new file would not have the access list of the old one, so more users could read it, or fewer.
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

// Gives a new file the owner, the group and the permissions of the old one, so that a secret stays secret. Returns
// false if the process may not do that, or if the folder gave the new file an access list.
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

// Locks an open file for its writer. Returns false, with EWOULDBLOCK if another writer has it or has moved it away.
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

// Removes a temporary file of a process that was killed.
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

// Opens a new file beside the item's. It is locked, so no other writer uses it until it is closed. Returns -1 if the
// folder or its file system refuses.
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

enum class ReplacementT { kDone, kFailed, kNotPossible };

// Writes a temporary file. It stays open, because it has to stay locked until it is in place. A file on a network may
// fail only when it is closed. So a copy of the descriptor is closed, if a descriptor is free for it.
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

// Puts a new file in the old one's place in one step.
// kFailed       the new file could not be written. The old file is unchanged.
// kNotPossible  the new file could not be made or put in place, or the disk is full and the old file has room for the
//               text. The old file is unchanged.
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

// Writes over the file and cuts it afterwards. A short value is written whole or not at all. On a full disk its place
// is already there.
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

} // namespace

void Fail(ConfigFileT *pFile, const char *call)
{
    pFile->failure = {call, errno};
}

void StoreFile(ConfigFileT *pFile)
{
    const OldFileT old = LookAt(pFile->path);
    if (!old.isReplaceable || ReplaceFile(pFile, old) == ReplacementT::kNotPossible)
        WriteInPlace(pFile);
    if (pFile->failure.call == nullptr)
        NoteWrite();
}
