#include "Common/framework/remmsg.h"

#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <cstdio>

RemMsgPathT *gRemMsgPaths[kMaxProcessors];

namespace
{

Int32 SendToMaster(const char *command, RemMsgRspT completion, void *context)
{
    constexpr UInt32 kOneSecond = 100;
    RemMsgPathT *pPath = gRemMsgPaths[kMasterProcessor];
    if (pPath == nullptr)
        return 0;
    while ((pPath->stateFlags & kRemMsgPathOpen) == 0) {
        // A line of its own, each time.
        std::puts("Waiting for master processor to open up message path");
        tm_wkafter(kOneSecond);
    }
    return pPath->SendCmd != nullptr ? pPath->SendCmd(pPath, command, completion, context) : 0;
}

void SendToOthers(const char *command, RemMsgRspT completion, void *context)
{
    const Int32 processors = std::min<Int32>(GetNumProcessors(), kMaxProcessors);
    for (Int32 processor = 1; processor < processors; processor++) {
        RemMsgPathT *pPath = gRemMsgPaths[processor];
        if (pPath != nullptr && pPath->SendCmd != nullptr)
            pPath->SendCmd(pPath, command, completion, context);
    }
}

} // namespace

bool IsMasterProcessor()
{
    return GetProcessorNum() == kMasterProcessor;
}

Int32 RemMsgSendCmd(const char *command, RemMsgRspT completion, void *context)
{
    os_assert(command, "command");
    if (!IsMasterProcessor())
        return SendToMaster(command, completion, context);
    SendToOthers(command, completion, context);
    return 0;
}
