// What the files of the configuration store share among each other; nobody else includes it.
// configstore.cpp          folders, names and paths; the start, the end and the flush task
// configstore_read.cpp     reading an item's first line, or all lines
// configstore_write.cpp    writing a value or lines, and deleting
// configstore_replace.cpp  how a file gets its new content
// configstore_remote.cpp   reading and writing through the master processor
// Owner:   each piece of state belongs to the file that defines it.
// Locking: any task may call. Only RemoteRead takes a lock, the mutex of the remote reads, and not while it sends.
#pragma once

#include "Common/framework/configstore.h"

// ---- Flushing (configstore.cpp)

// Notes that the file systems are to be flushed.
void NoteWrite();

// ---- Files (configstore_replace.cpp)

// Keeps the system's reason in pFile->failure, with the call that failed. It is printed later: the caller may hold a
// lock.
void Fail(ConfigFileT *pFile, const char *call);

// Stores pFile->text as the file pFile->path, a new one if that can be, and notes the write. A failure is in
// pFile->failure. The caller has put off its cancellation: no file stays open, no temporary one stays behind.
void StoreFile(ConfigFileT *pFile);

// ---- The master (configstore_remote.cpp)

// Whether a word can be part of a command: it is one word there.
bool IsWord(const char *name);

// A value's first line, which is all that a command can carry.
struct LineT {
    explicit LineT(const char *value);
    char text[kConfigValueSize];
};

// Asks the master for the item and stores the value of the answer, at most len - 1 characters. The value is empty, and
// a line is printed, when the master does not answer within 3 seconds, when the caller is no task, and when 64 tasks
// are waiting for answers already.
void RemoteRead(const char *name, Int32 instance, char *s, UInt32 len);

// Sends the master the command to write the value's first line.
void TellMaster(const char *name, Int32 instance, const char *value);
