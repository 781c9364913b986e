// The configuration store: one text file for each item and instance, on the host's file system, or
// asked of the master processor by any other one.
//
// Values written at run time lie in the dat folder, factory defaults in the choice folder, and
// generated defaults, which hide the factory's, in the choice.gen folder. A file holds the value and
// one line feed; only its first line is ever read back. A task "csyn" flushes the file systems some
// seconds after the last write.
//
// Names:   1 to 32 characters, no "/" and no control character. Any other name has no file. An item's path stays in
//          its folder. A command stays one line. Callers pass lower case. Instances below 1 share the file without a
//          number. Item "a1" has the same file as instance 1 of "a". On processors other than the master a name has
//          no blank and no quotation mark or apostrophe either: the master would take it for more than one word of
//          the command.
// Locking: any task may call. Files are opened and closed within each call, the reading line by line excepted.
//          Tasks and processes may write one item at the same time: a reader finds one of the values, and in a
//          file that is written in place perhaps a mixture. No lock is held while the message path works.
// Errors:  a null argument, a length of 0 (of 0 or 1 for ConfigStoreReadGetLine) and a file that is not open are
//          programming errors and stop the program.
#pragma once

#include "Common/framework/remmsg.h"
#include "Common/types.h"

#include <cstdio>

constexpr std::size_t kConfigNameSize = 33;   // with the terminator
constexpr std::size_t kConfigValueSize = 371; // likewise: what a value buffer has to hold
constexpr std::size_t kConfigPathSize = 96;   // what a path of the store fits in

// Chooses the folders and prints them, once in a process. Other calls look at them without a lock: they come later.
// A folder that is not there stops the program.
void ConfigInitFolderData();

// Chooses the folders if need be, and starts a flush task, on every call. Without memory for it there is none.
void ConfigStoreInit();

// Stops the flush task that was started last, and flushes what it had still to flush. Logs both. The folders stay.
// Nobody may hold a lock of the run-time: the first log line of a process reads the configuration.
void ConfigStoreExit();

// The flush task's function.
void ConfigStoreSyncTask(UInt32, UInt32, UInt32, UInt32);

// Whether the name may have a file.
bool ConfigStoreIsValidName(const char *name);

// Whether ConfigStoreWrite takes the name and the value. The master takes every name that may have a file. Elsewhere
// the name has to be one word of a command, and the value's first line has no quotation mark.
bool ConfigStoreMayWrite(const char *name, const char *value);

// Paths of an item's dat file and of its choice file: the generated one if that is there. path holds
// kConfigPathSize characters, enough for any name that may have a file, and is returned.
char *ConfigGetDatFileName(const char *name, Int32 instance, char *path);
char *ConfigGetChoiceFileName(const char *name, Int32 instance, char *path);

// 1 when the path is there and a regular file, or a directory; else 0.
Boolean ConfigIsFileExist(const char *path);
Boolean ConfigIsFolderExist(const char *path);

// Reads the first line of the item's dat file, or else of its choice file, at most len - 1 characters. On a processor
// other than the master it asks the master, and the answer's first word comes back.
// kNoError       read. The value is empty when the file cannot be read, when the master does not answer within
//                3 seconds, and when the caller has to ask the master and is no task.
// kBadParameter  there is neither file, or the name has none. The value is empty. Nothing was sent.
eErrorT ConfigStoreRead(const char *name, Int32 instance, char *s, UInt32 len);

// The same of the choice file alone, on any processor from its own file system.
eErrorT ConfigStoreChoiceRead(const char *name, Int32 instance, char *s, UInt32 len);

// Writes the value, up to its first line feed or carriage return, and a line feed. Processors other than the master
// send the master the command instead.
// A new file, "<file>.<n>.new" at first, takes the old one's place in one step: a kill or a full disk leaves one of the
// two values. (A power cut before the flush may still leave neither.) Owner, group and permissions stay.
// The file is written in place where that cannot be: the process may not give the owner, the group or the permissions;
// the folder does not let it make or rename a file; the path is a link, a device, or one of several names of a file;
// the file has an access list, or the folder gives new files one: a new file would have other rights; the disk is
// full, and the value fits where the old file is.
// A file that may not be written is not replaced either. A temporary file that a killed process left is never read.
// n is the lowest number that no writer uses. A writer removes a leftover file that has its number.
// kNoError       written, or given to the message path. Without a path nothing is sent.
// kBadParameter  refused: ConfigStoreMayWrite says no. Nothing was written or sent.
// kBadParameter  not written: the reason is on standard error. The old file is as it was; one that was written in
//                place may hold a part of both values.
eErrorT ConfigStoreWrite(const char *name, Int32 instance, const char *value);

// Why a file was not written.
struct ConfigFailureT {
    const char *call; // what failed; null: nothing did
    int error;        // the system's number
};

// ConfigStoreWrite without the message. On the master only, a caller may hold a lock: elsewhere the message path works.
// ConfigStoreReport prints the message afterwards, and prints nothing when nothing failed.
eErrorT ConfigStoreTryWrite(const char *name, Int32 instance, const char *value, ConfigFailureT *pFailure);
void ConfigStoreReport(const ConfigFailureT &failure);

// Removes the dat file. Returns kNoError; kItemNotFound when there is none; kBadParameter when it cannot
// be removed; kNotImplemented on a processor other than the master.
eErrorT ConfigStoreDelete(const char *name, Int32 instance);

// The completion of a remote read: hands the answer over and wakes the reader. The context is the one
// that came with the command. There are 64, used in turn: an answer that comes after the reader gave up is
// dropped, unless its context is in use again by then.
void remoteRspCallback(RemMsgPathT *pHandle, const char *response, void *context);

// ---- Line by line, for items of several lines. Only on the master: elsewhere nothing opens.

struct ConfigFileT {
    FILE *stream; // what is read; null: not open for reading
    char path[kConfigPathSize];
    Boolean isWritten; // 1: open for writing
    char *text;        // the lines to be written
    std::size_t size;
    ConfigFailureT failure; // the first one of what was written
};

// Open the item's dat file, or else its choice file. A task that may be deleted before it closes the file holds the
// deletion off (CancelOffHold), or closes it in a clean-up.
// kNoError       open.
// kBadParameter  there is neither file, the name has none, or this is not the master. Nothing is open.
eErrorT ConfigStoreReadOpen(const char *name, Int32 instance, ConfigFileT *pFile);

// The next line without its line feed and carriage return, at most len - 1 characters of it (len: 2 or
// more). What is left of a longer line comes with the next call. What follows a carriage return up to the line feed is
// left out.
// kNoError    a line, or a part of one.
// kEndOfFile  there is no more. s is empty.
eErrorT ConfigStoreReadGetLine(ConfigFileT *pFile, char *s, UInt32 len);
void ConfigStoreReadClose(ConfigFileT *pFile);

// Write a new dat file. The lines are kept in memory until ConfigStoreWriteClose stores them as ConfigStoreWrite does.
// Every opened file is to be closed, also after a failure. Of several that are open for one item, the last one closed
// holds.
// kNoError       done.
// kBadParameter  Open: the name has no file, or this is not the master; nothing is open.
//                PutLine: no memory for the line; closing will fail as well, with the old file as it was.
//                Close: not written, as ConfigStoreWrite has it. The file is closed.
eErrorT ConfigStoreWriteOpen(const char *name, Int32 instance, ConfigFileT *pFile);
eErrorT ConfigStoreWritePutLine(ConfigFileT *pFile, const char *line);
eErrorT ConfigStoreWriteClose(ConfigFileT *pFile);
