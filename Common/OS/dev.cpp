#include "Common/OS/dev.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"
#include "Common/OS/syslog.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

DEVCB *gpDEVCBHead, *gpDEVCBTail;
UInt32 io_comp_task_id;

namespace
{

constexpr UInt32 kServedByCompTask = 1; // bit of DEVCB flags
constexpr UInt32 kMaxPolled = 50;
constexpr UInt32 kCompTaskPriority = 55;
constexpr UInt32 kCompTaskStack = 8192;

std::atomic_flag compTaskBusy; // whoever set it may look at io_comp_task_id and change it

// The table and the request queues are linked alike.
template <class Block> void Append(Block *&pHead, Block *&pTail, Block *pBlock)
{
    pBlock->pPrevious = pTail;
    pBlock->pNext = nullptr;
    (pTail != nullptr ? pTail->pNext : pHead) = pBlock;
    pTail = pBlock;
}

// Returns false, with nothing changed, when the block is not in the list.
template <class Block> bool Unlink(Block *&pHead, Block *&pTail, Block *pBlock)
{
    const Block *pFound = pHead;
    while (pFound != nullptr && pFound != pBlock)
        pFound = pFound->pNext;
    if (pFound == nullptr)
        return false;
    (pBlock->pPrevious != nullptr ? pBlock->pPrevious->pNext : pHead) = pBlock->pNext;
    (pBlock->pNext != nullptr ? pBlock->pNext->pPrevious : pTail) = pBlock->pPrevious;
    pBlock->pNext = pBlock->pPrevious = nullptr;
    return true;
}

// The interrupt lock is held.
void Extract(IORBList *pIORBList, IORB *pIORB)
{
    if (Unlink(pIORBList->pHead, pIORBList->pTail, pIORB))
        pIORBList->num--;
}

DEVCB *FindDevice(const char *name, UInt32 instance)
{
    DEVCB *pDev = gpDEVCBHead;
    while (pDev != nullptr && (std::strcmp(pDev->name, name) != 0 || pDev->instance != instance))
        pDev = pDev->pNext;
    return pDev;
}

// Pending requests are forgotten and not completed, even if the device is open already.
void ForgetRequests(DEVCB *pDev)
{
    const InterruptsOffHold hold;
    pDev->flags = 0;
    pDev->readIORBs = pDev->writeIORBs = pDev->ioctlIORBs = IORBList{};
}

void BeginRequest(DEVCB *pDev, IORB *pIORB)
{
    pIORB->pDev = pDev;
    pIORB->actLen = 0;
    pIORB->err = 0;
}

void StoreCaller(IORB *pIORB)
{
    t_ident(nullptr, 0, &pIORB->taskID);
}

// What the completion task serves: devices[i] has the descriptor in entries[i].
struct PollListT {
    pollfd entries[kMaxPolled];
    DEVCB *devices[kMaxPolled];
    UInt32 count;
};

void BuildPollList(PollListT *pPollList)
{
    const InterruptsOffHold hold;
    for (DEVCB *pDev = gpDEVCBHead; pDev != nullptr && pPollList->count < kMaxPolled; pDev = pDev->pNext) {
        if ((pDev->flags & kServedByCompTask) == 0 || pDev->fd == 0)
            continue;
        pPollList->entries[pPollList->count] = {pDev->fd, POLLIN, 0};
        pPollList->devices[pPollList->count] = pDev;
        pPollList->count++;
    }
}

void ServeQueuedRead(DEVCB *pDev)
{
    IORB *pIORB = iorb_list_dequeue(&pDev->readIORBs);
    if (pIORB == nullptr) {
        cm_syslog(kLogCrit, "No read IORB, device %s\n", pDev->name);
        tm_wkafter(1);
        return;
    }
    pDev->read(pDev, pIORB);
    if (pIORB->pUserCompFunc != nullptr)
        pIORB->pUserCompFunc(pIORB);
}

void StartCompTask()
{
    UInt32 tid = 0;
    if (t_create("devc", kCompTaskPriority, kCompTaskStack, kCompTaskStack, 0, &tid) != 0)
        return;
    if (t_start(tid, 0, io_comp_task, nullptr) == 0)
        std::atomic_ref<UInt32>(io_comp_task_id).store(tid); // others look at it without a lock
    else
        t_delete(tid);
}

} // namespace

UInt32 dev_init(DEVCB *pDev, const char *name, UInt32 instance, DevOpenCloseT open, DevOpenCloseT close,
                DevRequestT read, DevRequestT write, DevRequestT ioctl)
{
    os_assert(pDev != nullptr, "pDev");
    os_assert(name != nullptr, "name");
    pDev->state = 0;
    pDev->numBytesWritten = pDev->numBytesRead = 0;
    pDev->numOpens = pDev->numCloses = 0;
    pDev->pNext = pDev->pPrevious = nullptr;
    std::snprintf(pDev->name, sizeof pDev->name, "%s", name);
    pDev->fd = 0;
    pDev->instance = instance;
    pDev->open = open;
    pDev->close = close;
    pDev->read = read;
    pDev->write = write;
    pDev->ioctl = ioctl;
    return 0;
}

UInt32 dev_add(DEVCB *pDev)
{
    os_assert(pDev != nullptr, "pDev");
    Append(gpDEVCBHead, gpDEVCBTail, pDev);
    return 0;
}

void dev_delete(DEVCB *pDev)
{
    os_assert(pDev != nullptr, "pDev");
    Unlink(gpDEVCBHead, gpDEVCBTail, pDev);
}

UInt32 dev_exit(DEVCB *pDev)
{
    os_assert(pDev != nullptr, "pDev");
    return 0;
}

UInt32 dev_open(const char *name, UInt32 instance, UInt32 *devid_out)
{
    os_assert(name != nullptr, "name");
    os_assert(devid_out != nullptr, "devid_out");
    DEVCB *pDev = FindDevice(name, instance);
    if (pDev == nullptr)
        return kDevNotFound;
    ForgetRequests(pDev);
    if (pDev->state != kDevStateOpen) { // requests of another task may be looking at an open one's state
        const UInt32 result = pDev->open != nullptr ? pDev->open(pDev) : 0;
        if (result != 0)
            return result;
        pDev->state = kDevStateOpen;
    }
    *devid_out = low_id(pDev);
    return 0;
}

UInt32 dev_close(UInt32 devid)
{
    auto *pDev = low_pointer<DEVCB>(devid);
    os_assert(pDev != nullptr, "pDev");
    if (pDev->state == 0)
        return 0;
    const UInt32 result = pDev->close != nullptr ? pDev->close(pDev) : 0;
    pDev->state = 0;
    return result;
}

void dev_read(UInt32 devid, IORB *pIORB)
{
    auto *pDev = low_pointer<DEVCB>(devid);
    os_assert(pDev != nullptr, "pDev");
    os_assert(pIORB != nullptr, "pIORB");
    BeginRequest(pDev, pIORB);
    if (pDev->state != kDevStateOpen) {
        std::puts("dev_read: not open");
        pIORB->err = kDevNotOpen;
        return;
    }
    if (pDev->read == nullptr) {
        std::puts("dev_read: no read routine");
        return;
    }
    if (pIORB->taskID == 0)
        StoreCaller(pIORB);
    if (pIORB->pUserCompFunc != nullptr)
        iorb_list_enqueue(&pDev->readIORBs, pIORB);
    else
        pDev->read(pDev, pIORB);
}

void dev_write(UInt32 devid, IORB *pIORB)
{
    auto *pDev = low_pointer<DEVCB>(devid);
    os_assert(pDev != nullptr, "pDev");
    os_assert(pIORB != nullptr, "pIORB");
    os_assert(pIORB->pBuffer != nullptr, "pIORB->pBuffer");
    BeginRequest(pDev, pIORB);
    pIORB->taskID = 0;
    if (pDev->state != kDevStateOpen) {
        pIORB->err = kDevNotOpen;
        return;
    }
    if (pIORB->reqLen == 0 || pDev->write == nullptr)
        return;
    StoreCaller(pIORB);
    pDev->write(pDev, pIORB);
}

void dev_ioctl(UInt32 devid, IORB *pIORB, UInt32 ctlCode)
{
    auto *pDev = low_pointer<DEVCB>(devid);
    os_assert(pDev != nullptr, "pDev");
    os_assert(pIORB != nullptr, "pIORB");
    BeginRequest(pDev, pIORB);
    pIORB->ctlCode = ctlCode;
    pIORB->taskID = 0;
    if (pDev->state != kDevStateOpen) {
        pIORB->err = kDevNotOpen;
        return;
    }
    os_assert(pDev->ioctl != nullptr, "pDev->ioctl");
    StoreCaller(pIORB);
    // Deliberate: on an empty queue an asynchronous request runs at once. Queueing it instead would leave it pending
    // for ever, because nothing serves this queue.
    if (pIORB->pUserCompFunc != nullptr && iorb_list_avail(&pDev->ioctlIORBs) > 0)
        iorb_list_enqueue(&pDev->ioctlIORBs, pIORB);
    else
        pDev->ioctl(pDev, pIORB);
}

const char *dev_name(UInt32 devid)
{
    const auto *pDev = low_pointer<DEVCB>(devid);
    os_assert(pDev != nullptr, "pDev");
    return pDev->name;
}

UInt32 iorb_init(IORB *pIORB, char *pBuffer, char *pDstBuffer, UInt32 reqLen, UserCompletionFuncT pUserCompFunc,
                 UInt32 timeout)
{
    os_assert(pIORB != nullptr, "pIORB");
    pIORB->pBuffer = pBuffer;
    pIORB->pDstBuffer = pDstBuffer;
    pIORB->reqLen = reqLen;
    pIORB->pUserCompFunc = pUserCompFunc;
    pIORB->timeout = timeout;
    pIORB->signature = FourCharacters("IORB");
    pIORB->pNext = pIORB->pPrevious = nullptr;
    pIORB->actLen = 0;
    pIORB->err = 0;
    pIORB->pChain = nullptr;
    pIORB->pDev = nullptr;
    return 0;
}

UInt32 iorb_list_enqueue(IORBList *pIORBList, IORB *pIORB)
{
    os_assert(pIORBList != nullptr, "pIORBList");
    os_assert(pIORB != nullptr, "pIORB");
    os_assert(pIORB->pNext == nullptr, "pIORB->pNext == ((void *)0)");
    os_assert(pIORB->pPrevious == nullptr, "pIORB->pPrevious == ((void *)0)");
    const InterruptsOffHold hold;
    Append(pIORBList->pHead, pIORBList->pTail, pIORB);
    pIORBList->num++;
    return 0;
}

IORB *iorb_list_dequeue(IORBList *pIORBList)
{
    os_assert(pIORBList != nullptr, "pIORBList");
    const InterruptsOffHold hold;
    IORB *pIORB = pIORBList->pHead;
    if (pIORB != nullptr)
        Extract(pIORBList, pIORB);
    return pIORB;
}

void iorb_list_extract(IORBList *pIORBList, IORB *pIORB)
{
    os_assert(pIORBList != nullptr, "pIORBList");
    os_assert(pIORB != nullptr, "pIORB");
    const InterruptsOffHold hold;
    Extract(pIORBList, pIORB);
}

UInt32 iorb_list_alloc(IORBList *pIORBList, Int32 numIORBs)
{
    os_assert(pIORBList != nullptr, "pIORBList");
    os_assert(numIORBs > 0, "numIORBs > 0");
    *pIORBList = IORBList{};
    auto *pIORBs = static_cast<IORB *>(std::calloc(static_cast<std::size_t>(numIORBs), sizeof(IORB)));
    if (pIORBs == nullptr)
        return kIorbNoMemory;
    for (Int32 i = 0; i < numIORBs; i++)
        iorb_list_enqueue(pIORBList, &pIORBs[i]);
    return 0;
}

void iorb_list_free(IORBList *pIORBList)
{
    os_assert(pIORBList != nullptr, "pIORBList");
    std::free(pIORBList->pHead);
    *pIORBList = IORBList{};
}

Int32 iorb_list_avail(IORBList *pIORBList)
{
    os_assert(pIORBList != nullptr, "pIORBList");
    const InterruptsOffHold hold;
    return pIORBList->num;
}

void add_dev_to_comp_task(DEVCB *pDev)
{
    os_assert(pDev != nullptr, "pDev");
    {
        const InterruptsOffHold hold; // the completion task may be looking
        pDev->flags |= kServedByCompTask;
    }
    const CancelOffHold whole; // nobody would clear the flag
    if (compTaskBusy.test_and_set())
        return;
    if (io_comp_task_id == 0)
        StartCompTask();
    compTaskBusy.clear();
}

void io_comp_task(UInt32, UInt32, UInt32, UInt32)
{
    PollListT pollList{};
    BuildPollList(&pollList);
    for (;;) {
        if (poll(pollList.entries, pollList.count, -1) < 1)
            continue;
        for (UInt32 i = 0; i < pollList.count; i++)
            if (pollList.entries[i].revents != 0)
                ServeQueuedRead(pollList.devices[i]);
    }
}

Int32 UFD_ISSET(Int32 fd, const pollfd *pPollList, Int32 count)
{
    os_assert(pPollList != nullptr || count <= 0, "pPollList");
    for (Int32 i = 0; i < count; i++)
        if (pPollList[i].fd == fd && pPollList[i].revents != 0)
            return 1;
    return 0;
}
