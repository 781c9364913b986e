// The configuration store: one text file for each item and instance, on the host's file system, or
// asked of the master processor by any other one.
//
// Values written at run time lie in the dat folder, factory defaults in the choice folder, and
// generated defaults, which hide the factory's, in the choice.gen folder. A file holds the value and
// one line feed; only its first line is ever read back. A task "csyn" flushes the file systems some
// seconds after the last write.
//
// Names:   1 to 32 characters, no "/" and no control character: any other name has no file, so that no
//          item reaches out of its folder, or the message path's line. Callers pass lower case.
//          Instances below 1 share the file without a number, and item "a1" has the same file as
//          instance 1 of "a".
// Locking: none: files are opened and closed within each call. Two tasks must not write the same item
//          at the same time.
#pragma once

#include "Common/framework/remmsg.h"
#include "Common/types.h"

#include <cstdio>

constexpr std::size_t kConfigNameSize = 33;   // with the terminator
constexpr std::size_t kConfigValueSize = 371; // likewise: what a value buffer has to hold
constexpr std::size_t kConfigPathSize = 96;   // what a path of the store fits in

// Chooses the folders, once in a process, and starts the flush task, on every call. A folder that is
// not there stops the program.
void ConfigStoreInit();

// The flush task's function.
void ConfigStoreSyncTask(UInt32, UInt32, UInt32, UInt32);

// Whether the name may have a file.
bool ConfigStoreIsValidName(const char *name);

// Paths of an item's dat file and of its choice file: the generated one if that is there. path holds
// kConfigPathSize characters, enough for any name that may have a file, and is returned.
char *ConfigGetDatFileName(const char *name, Int32 instance, char *path);
char *ConfigGetChoiceFileName(const char *name, Int32 instance, char *path);

// 1 when the path is there and a regular file, or a directory; else 0.
Boolean ConfigIsFileExist(const char *path);
Boolean ConfigIsFolderExist(const char *path);

// Reads the first line of the item's dat file, or else of its choice file, at most len - 1 characters.
// Returns kNoError; kBadParameter with an empty value when there is neither. A file that cannot be
// read gives an empty value. On a
// processor other than the master the answer's first word comes back, and an empty value with kNoError
// when the master does not answer within 3 seconds or the caller is no task. A null name or buffer and a
// len of 0 stop the program.
eErrorT ConfigStoreRead(const char *name, Int32 instance, char *s, UInt32 len);

// The same of the choice file alone, on any processor from its own file system.
eErrorT ConfigStoreChoiceRead(const char *name, Int32 instance, char *s, UInt32 len);

// Writes the value, up to its first line feed or carriage return, and a line feed. A new file, "<file>.new"
// at first, takes the place and the permissions of the old one in one step: a kill or a full disk leaves
// one of the two values. (A power cut before the flush may still leave neither; a link becomes a file.)
// Returns kNoError; kBadParameter with the old file as it was and the reason on standard error. Other
// processors send the master the command and return kNoError.
eErrorT ConfigStoreWrite(const char *name, Int32 instance, const char *value);

// Removes the dat file. Returns kNoError; kItemNotFound when there is none; kBadParameter when it cannot
// be removed; kNotImplemented on a processor other than the master.
eErrorT ConfigStoreDelete(const char *name, Int32 instance);

// The completion of a remote read: hands the answer over and wakes the reader. The context is the one
// that came with the command. There are 64, used in turn: an answer that comes after the reader gave up is
// dropped, unless its context is in use again by then.
void remoteRspCallback(RemMsgPathT *pHandle, const char *response, void *context);

// ---- Line by line, for items of several lines. Only on the master: elsewhere nothing opens.

struct ConfigFileT {
    FILE *stream; // null: not open
    char path[kConfigPathSize];
};

// Open the item's dat file, or else its choice file. kNoError, or kBadParameter with nothing open.
eErrorT ConfigStoreReadOpen(const char *name, Int32 instance, ConfigFileT *pFile);

// The next line without its line feed and carriage return, at most len - 1 characters of it (len: 2 or
// more); a longer one goes on in the next call, if only with its end. kNoError, or kEndOfFile with s empty.
eErrorT ConfigStoreReadGetLine(ConfigFileT *pFile, char *s, UInt32 len);
void ConfigStoreReadClose(ConfigFileT *pFile);

// Start a new dat file beside the old one, which ConfigStoreWriteClose replaces. Open and PutLine
// return kNoError or kBadParameter. Close returns kNoError, or kBadParameter when anything since the
// opening failed; the old file is then as it was. Every opened file is to be closed.
eErrorT ConfigStoreWriteOpen(const char *name, Int32 instance, ConfigFileT *pFile);
eErrorT ConfigStoreWritePutLine(ConfigFileT *pFile, const char *line);
eErrorT ConfigStoreWriteClose(ConfigFileT *pFile);
