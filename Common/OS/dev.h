// Device layer: a table of devices, and the request blocks (IORB) through which their drivers are called. A device is
// known by its name and its instance.
//
// Owner:   a driver owns its DEVCB and keeps it as long as it is in the table. A caller owns its request block. The
//          layer keeps a pointer to the block only while the block is queued. A device handle is the 32-bit address of
//          a DEVCB, so each DEVCB lies below 4 GiB (low_calloc).
// Locking: the table has no lock. One task adds all devices at start-up. The interrupt lock guards the request queues.
//          A request runs in the caller's task, so two tasks may be in one driver at the same time.
// Errors:  these programming errors stop the program: a null device, name, request or queue; a null buffer to write
//          from; a null place for a result; a control request to a device that has no routine for it.
#pragma once

#include "Common/types.h"

#include <poll.h>

constexpr UInt32 kDevNotFound = 9;  // dev_open: no device with that name and instance
constexpr UInt32 kIorbNoMemory = 8; // iorb_list_alloc
constexpr UInt32 kDevNotOpen = 48;  // IORB err: the device is not open

constexpr UInt32 kDevStateOpen = 1; // DEVCB state; anything else: closed

struct DeviceControlBlock;
struct DeviceIORequestBlock;
using DEVCB = DeviceControlBlock;
using IORB = DeviceIORequestBlock;

using UserCompletionFuncT = void (*)(IORB *pIORB);
using DevOpenCloseT = UInt32 (*)(DEVCB *pDev);
using DevRequestT = void (*)(DEVCB *pDev, IORB *pIORB);

struct IORequestBlockList {
    IORB *pHead;
    IORB *pTail;
    Int32 num;
};
using IORBList = IORequestBlockList;

struct DeviceIORequestBlock {
    IORB *pNext, *pPrevious;           // both have to be null when the block is queued
    char *pBuffer;                     // data, or the control record
    char *pDstBuffer;                  // second buffer
    UInt32 reqLen;                     // bytes asked for
    UInt32 actLen;                     // bytes moved
    UInt32 err;                        // 0, kDevNotOpen, or the driver's code
    UserCompletionFuncT pUserCompFunc; // null: the request is never queued
    UInt32 timeout;                    // microseconds for the serial drivers; 0: no limit
    UInt32 taskID;                     // the task that made the request
    UInt32 ctlCode;
    DEVCB *pDev;
    void *pUserDefined;
    IORB *pChain;
    UInt32 signature; // the four characters "IORB" from iorb_init on
    UInt32 flags;     // not used
};

struct DeviceControlBlock {
    DEVCB *pNext, *pPrevious;
    char name[8];
    DevOpenCloseT open, close; // each may be null
    DevRequestT read, write;   // each may be null
    DevRequestT ioctl;
    UInt32 instance;
    UInt32 state; // kDevStateOpen; anything else: closed
    IORBList readIORBs, writeIORBs, ioctlIORBs;
    UInt32 numBytesWritten, numBytesRead;
    UInt32 numOpens, numCloses; // kept by the drivers
    UInt32 flags;               // bit 0: served by the completion task
    Int32 fd;
    Int32 transferMode; // not used
};

// The table, in the order of addition.
extern DEVCB *gpDEVCBHead, *gpDEVCBTail;

// Fills a device block: closed, not linked, counters 0, fd 0. At most 7 characters of the name are kept. Returns 0.
UInt32 dev_init(DEVCB *pDev, const char *name, UInt32 instance, DevOpenCloseT open, DevOpenCloseT close,
                DevRequestT read, DevRequestT write, DevRequestT ioctl);

// Appends a device block to the table. Nothing looks for duplicates: the first one is found. Returns 0.
UInt32 dev_add(DEVCB *pDev);

// Takes a device block out of the table.
void dev_delete(DEVCB *pDev);
UInt32 dev_exit(DEVCB *pDev); // returns 0

// Opens a device and stores its handle. Forgets the pending requests of the device, also if it is open already.
// A device that is open already stores the same handle. Its driver is not called.
// 0              open.
// kDevNotFound   no device has that name and instance. Nothing is stored.
// anything else  the driver's code. Nothing is stored, and the device is closed.
UInt32 dev_open(const char *name, UInt32 instance, UInt32 *devid_out);

// Closes a device. A closed device stays closed. Returns 0 or the driver's code. The device is closed in either case.
UInt32 dev_close(UInt32 devid);

// Run a request. The result is in pIORB->err and pIORB->actLen.
// - A device that is closed gives kDevNotOpen.
// - A block with a completion function is queued by dev_read.
// - Such a block is queued by dev_ioctl too, if other control requests are queued already. If not, it runs at once.
// - dev_write never queues. A write of 0 bytes succeeds without the driver.
void dev_read(UInt32 devid, IORB *pIORB);
void dev_write(UInt32 devid, IORB *pIORB);
void dev_ioctl(UInt32 devid, IORB *pIORB, UInt32 ctlCode);

const char *dev_name(UInt32 devid);

// ---- Request blocks and their queues

// Fills a request block. The caller has zeroed it: the fields that are not given here keep their values. Returns 0.
UInt32 iorb_init(IORB *pIORB, char *pBuffer, char *pDstBuffer, UInt32 reqLen, UserCompletionFuncT pUserCompFunc,
                 UInt32 timeout);

// Appends a request block. A block that is on a queue already stops the program. Returns 0.
UInt32 iorb_list_enqueue(IORBList *pIORBList, IORB *pIORB);

// iorb_list_dequeue  takes the first block out of the queue. Returns null if the queue is empty.
// iorb_list_extract  takes the given block out. A block that is not in the queue is left alone.
IORB *iorb_list_dequeue(IORBList *pIORBList);
void iorb_list_extract(IORBList *pIORBList, IORB *pIORB);

// iorb_list_alloc fills a queue with numIORBs fresh blocks, from one allocation. numIORBs is 1 or more: anything else
// stops the program.
// 0              filled.
// kIorbNoMemory  no memory. The queue is empty.
// iorb_list_free gives the blocks back. The first one of them has to be at the head of the queue again.
UInt32 iorb_list_alloc(IORBList *pIORBList, Int32 numIORBs);
void iorb_list_free(IORBList *pIORBList);
Int32 iorb_list_avail(IORBList *pIORBList); // blocks in the queue

// ---- Completion task: serves the queued reads of flagged devices

// Flags an open device, and starts the completion task "devc" unless it is there. Opening a device clears its flag.
// Only one task is started, also when several tasks call at the same time: a call that meets another start returns at
// once. If the start fails, the device stays flagged. The next call tries again.
//
// "devc" serves the devices that have the flag when it runs for the first time. When data is there, it runs a queued
// read in its own context, then it calls the completion function with the block. If data is there and no read is
// queued, it logs that, and the data waits. A device that is served stays open.
void add_dev_to_comp_task(DEVCB *pDev);
void io_comp_task(UInt32, UInt32, UInt32, UInt32);
extern UInt32 io_comp_task_id; // 0 until the task has been started

// Returns 1 if the poll list has an entry for fd with returned events, otherwise 0.
Int32 UFD_ISSET(Int32 fd, const pollfd *pPollList, Int32 count);
