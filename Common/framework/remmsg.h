// Command lines to the other processors of the system, over a message path that a transport provides.
// Owner:   a transport owns its path. It registers the path before use and keeps it for good.
// Locking: the transport fills in gRemMsgPaths before others send. stateFlags may change at any time. Several tasks may
//          call a path's SendCmd at the same time. No lock of ours is held while it runs, so it may read and write the
//          configuration.
#pragma once

#include "Common/types.h"

#include <atomic>

constexpr UInt32 kMaxProcessors = 16;
constexpr UInt32 kMasterProcessor = 0;

constexpr UInt32 kRemMsgPathOpen = 2; // stateFlags: the master has opened the path

// Whether this is the master.
bool IsMasterProcessor();

struct RemMsgPathT;

// Completion of a command. It is called once, on any task, with the answer of the processor that ran the command.
using RemMsgRspT = void (*)(RemMsgPathT *pPath, const char *response, void *context);

struct RemMsgPathT {
    std::atomic<UInt32> stateFlags;
    // Sends a command line, which is valid only during the call. Returns 0. completion may be null.
    Int32 (*SendCmd)(RemMsgPathT *pPath, const char *command, RemMsgRspT completion, void *context);
};

// The paths by processor number. On the master they lead to the other processors. On any other processor
// [kMasterProcessor] leads to the master. Null: there is no path.
extern RemMsgPathT *gRemMsgPaths[kMaxProcessors];

// Sends a command line: from the master to every other processor, from any other processor to the master. The latter
// waits without limit until the master has opened the path, with a line on standard output each second. Returns 0. On a
// processor other than the master it returns the result of the path's SendCmd. A null command stops the program.
Int32 RemMsgSendCmd(const char *command, RemMsgRspT completion, void *context);
