// Command lines to the other processors of the system, over a message path that a transport provides.
// Owner:   a transport owns its path, registers it before it is used, and keeps it for good.
// Locking: gRemMsgPaths is filled in by the transport before others send; stateFlags may change at
//          any time. A path's SendCmd must be safe from several tasks. No lock of ours is held while it runs,
//          so that it may read and write the configuration.
#pragma once

#include "Common/types.h"

#include <atomic>

constexpr UInt32 kMaxProcessors = 16;
constexpr UInt32 kMasterProcessor = 0;

constexpr UInt32 kRemMsgPathOpen = 2; // stateFlags: the master has opened the path

// Whether this is the master.
bool IsMasterProcessor();

struct RemMsgPathT;

// Completion of a command: called once, on any task, with the answer of the processor that ran it.
using RemMsgRspT = void (*)(RemMsgPathT *pPath, const char *response, void *context);

struct RemMsgPathT {
    std::atomic<UInt32> stateFlags;
    // Sends a command line (valid during the call only) and returns 0. completion may be null.
    Int32 (*SendCmd)(RemMsgPathT *pPath, const char *command, RemMsgRspT completion, void *context);
};

// By processor number: on the master the paths to the others, elsewhere [kMasterProcessor] is the one
// to the master. Null: no path.
extern RemMsgPathT *gRemMsgPaths[kMaxProcessors];

// Sends a command line from the master to every other processor, from any other to the master. The
// latter waits for ever, with a line on standard output each second, until the master has opened the
// path. Returns 0, or elsewhere than on the master what the path's SendCmd returned. A null command stops the program.
Int32 RemMsgSendCmd(const char *command, RemMsgRspT completion, void *context);
