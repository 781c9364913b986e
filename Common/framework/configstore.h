// The configuration store: one text file for each item and instance. On the master the files are in the host's file
// system. Any other processor asks the master.
//
// Values that are written at run time are in the dat folder. Factory defaults are in the choice folder. Generated
// defaults are in the choice.gen folder, and count before the factory's. A file holds the value and one line feed. Only
// its first line is ever read back. A task "csyn" flushes the file systems some seconds after the last write.
//
// Names:   1 to 32 characters, without "/" and without control characters. Any other name has no file. So the path of
//          an item stays in its folder, and a command stays one line. Callers pass lower case. Instances below 1 share
//          the file without a number. Item "a1" has the same file as instance 1 of "a". On a processor other than the
//          master a name has no blank and no quote (" or ') either: the master would take it for more than one word of
//          the command.
// Locking: any task may call. Each call opens and closes its files; only reading line by line keeps one open. Tasks and
//          processes may write one item at the same time. A reader then finds one of the values. In a file that is
//          written in place it may find a mixture. No lock is held while the message path works.
// Errors:  these stop the program: a null argument; a length of 0; a length of 1 for ConfigStoreReadGetLine; a file
//          that is not open.
#pragma once

#include "Common/framework/remmsg.h"
#include "Common/types.h"

#include <cstdio>

constexpr std::size_t kConfigNameSize = 33;   // with the terminator
constexpr std::size_t kConfigValueSize = 371; // with the terminator: the room of a value
constexpr std::size_t kConfigPathSize = 96;   // with the terminator: the room of a path of the store

// Chooses the folders and prints them, once in a process. A folder that is not there stops the program. Other calls
// look at the folders without a lock, because they come later.
void ConfigInitFolderData();

// Chooses the folders, unless that was done, and starts a flush task on every call. Without memory for the task there
// is no flush task.
void ConfigStoreInit();

// Stops the flush task that was started last, and flushes what was not flushed. Logs both. The folders stay. The caller
// holds no lock of the run-time, because the first log line of a process reads the configuration.
void ConfigStoreExit();

// The flush task's function.
void ConfigStoreSyncTask(UInt32, UInt32, UInt32, UInt32);

// Whether the name may have a file.
bool ConfigStoreIsValidName(const char *name);

// Whether ConfigStoreWrite takes the name and the value. The master takes every name that may have a file. On any other
// processor the name has to be one word of a command, and the value's first line has no quotation mark.
bool ConfigStoreMayWrite(const char *name, const char *value);

// Write the path of an item's file into path and return it: of its dat file, or of its choice file, which is the
// generated one if there is one. path has kConfigPathSize characters, enough for any name that may have a file.
char *ConfigGetDatFileName(const char *name, Int32 instance, char *path);
char *ConfigGetChoiceFileName(const char *name, Int32 instance, char *path);

// Return 1 if the path is there and is a regular file, or a directory. Otherwise they return 0.
Boolean ConfigIsFileExist(const char *path);
Boolean ConfigIsFolderExist(const char *path);

// Reads the first line of the item's dat file, or if there is none of its choice file, at most len - 1 characters. A
// processor other than the master asks the master, and gets the first word of the answer.
// kNoError       read. The value is empty in three cases: the file cannot be read; the master does not answer within 3
//                seconds; the caller has to ask the master and is no task.
// kBadParameter  there is neither file, or the name has no file. The value is empty. Nothing was sent.
eErrorT ConfigStoreRead(const char *name, Int32 instance, char *s, UInt32 len);

// The same for the choice file alone. Every processor reads it from its own file system.
eErrorT ConfigStoreChoiceRead(const char *name, Int32 instance, char *s, UInt32 len);

// Writes the value, up to its first line feed or carriage return, and a line feed. A processor other than the master
// sends the command to the master instead.
//
// A new file, at first "<file>.<n>.new", takes the place of the old one in one step. So a kill or a full disk leaves
// one of the two values. (A power cut before the flush may still leave neither.) Owner, group and permissions stay.
// The file is written in place in these cases:
// - The process may not give the file its owner, its group or its permissions.
// - The folder does not let the process make or rename a file.
// - The path is a link, a device, or one of several names of a file.
// - The file has an access list, or the folder gives new files one: a new file would have other rights.
// - The disk is full, and the value fits where the old file is.
// A file that may not be written is not replaced either.
//
// A temporary file that a killed process left is never read. n is the lowest number that no writer uses. A writer
// removes a leftover file that has its number.
// kNoError       written, or given to the message path. Without a path nothing is sent.
// kBadParameter  refused: ConfigStoreMayWrite says no. Nothing was written or sent.
// kBadParameter  not written. The reason is on standard error. The old file is as it was. A file that was written in
//                place may hold a part of both values.
eErrorT ConfigStoreWrite(const char *name, Int32 instance, const char *value);

// Why a file was not written.
struct ConfigFailureT {
    const char *call; // what failed; null: nothing did
    int error;        // the system's number
};

// ConfigStoreTryWrite is ConfigStoreWrite without the message. Only on the master may its caller hold a lock: elsewhere
// the message path works. ConfigStoreReport prints the message afterwards. It prints nothing if nothing failed.
eErrorT ConfigStoreTryWrite(const char *name, Int32 instance, const char *value, ConfigFailureT *pFailure);
void ConfigStoreReport(const ConfigFailureT &failure);

// Removes the dat file.
// kNoError         removed.
// kItemNotFound    there is no dat file.
// kBadParameter    the file cannot be removed.
// kNotImplemented  this is a processor other than the master.
eErrorT ConfigStoreDelete(const char *name, Int32 instance);

// The completion of a remote read: hands the answer over and wakes the reader. The context is the one that came with
// the command. There are 64 contexts, used in turn. An answer that comes after the reader gave up is dropped, unless
// another read has the context by then.
void remoteRspCallback(RemMsgPathT *pHandle, const char *response, void *context);

// ---- Line by line, for items of several lines. This works only on the master: elsewhere nothing opens.

struct ConfigFileT {
    FILE *stream; // of the file that is read; null: not open for reading
    char path[kConfigPathSize];
    Boolean isWritten; // 1: open for writing
    char *text;        // the lines to be written
    std::size_t size;
    ConfigFailureT failure; // the first that writing had
};

// Opens the item's dat file, or if there is none its choice file. A task may be deleted before it closes the file. Such
// a task holds the deletion off (CancelOffHold), or closes the file in a clean-up.
// kNoError       open.
// kBadParameter  there is neither file, the name has no file, or this is not the master. Nothing is open.
eErrorT ConfigStoreReadOpen(const char *name, Int32 instance, ConfigFileT *pFile);

// Reads the next line without its line feed and carriage return, at most len - 1 characters. len is 2 or more. The rest
// of a longer line comes with the next call. What stands between a carriage return and the line feed is left out.
// kNoError    a line, or a part of a line.
// kEndOfFile  there is no more. s is empty.
eErrorT ConfigStoreReadGetLine(ConfigFileT *pFile, char *s, UInt32 len);
void ConfigStoreReadClose(ConfigFileT *pFile);

// Write a new dat file. The lines stay in memory until ConfigStoreWriteClose stores them as ConfigStoreWrite does.
// Every opened file has to be closed, also after a failure. If several are open for one item, the one that is closed
// last counts.
// kNoError       done.
// kBadParameter  Open: the name has no file, or this is not the master. Nothing is open. PutLine: no memory for the
//                line. Closing will fail as well, and the old file stays as it was. Close: not written, as with
//                ConfigStoreWrite. The file is closed.
eErrorT ConfigStoreWriteOpen(const char *name, Int32 instance, ConfigFileT *pFile);
eErrorT ConfigStoreWritePutLine(ConfigFileT *pFile, const char *line);
eErrorT ConfigStoreWriteClose(ConfigFileT *pFile);
