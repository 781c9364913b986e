// The common part of the files of the configuration store. No other file includes it.
// configstore.cpp          folders, names and paths; the start, the end and the flush task
// configstore_read.cpp     reading an item's first line, or all lines
// configstore_write.cpp    writing a value or lines, and deleting
// configstore_replace.cpp  how a file gets its new content
// configstore_remote.cpp   reading and writing through the master processor
// Owner:   each piece of state belongs to the file that defines it.
// Locking: any task may call. Only RemoteRead takes a lock: the mutex of the remote reads. It does not hold it while it
//          sends.
#pragma once

#include "Common/framework/configstore.h"

// ---- Flushing (configstore.cpp)

// Notes that the file systems are to be flushed.
void NoteWrite();

// ---- Files (configstore_replace.cpp)

// Keeps the system's reason in pFile->failure, with the name of the call that failed. It is printed later, because the
// caller may hold a lock.
void Fail(ConfigFileT *pFile, const char *call);

// Stores pFile->text in the file pFile->path, and notes the write. If possible, a new file takes the place of the old
// one. A failure is in pFile->failure. The caller has put off its cancellation, so no file stays open and no temporary
// file is left behind.
void StoreFile(ConfigFileT *pFile);

// ---- The master (configstore_remote.cpp)

// Whether a name stays one word in a command.
bool IsWord(const char *name);

// The first line of a value. A command carries no more of it.
struct LineT {
    explicit LineT(const char *value);
    char text[kConfigValueSize];
};

// Asks the master for the item and stores the value of the answer, at most len - 1 characters. In these cases the value
// is empty, and a line is printed:
// - The master does not answer within 3 seconds.
// - The caller is no task.
// - 64 tasks already wait for answers.
void RemoteRead(const char *name, Int32 instance, char *s, UInt32 len);

// Sends the master the command to write the value's first line.
void TellMaster(const char *name, Int32 instance, const char *value);
