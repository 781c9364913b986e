// Device layer: a table of devices by name and instance, and the request blocks (IORB) through
// which their drivers are called.
//
// Owner:   drivers own their DEVCB and keep it while it is in the table; a request block belongs to
//          its caller, and the layer keeps a pointer only while it is queued. Device blocks lie
//          below 4 GiB (low_calloc), because a device handle is the 32-bit address of its DEVCB.
// Locking: the table is not locked: devices are added at start-up, by one task. Request
//          queues change under the interrupt lock. Requests run in the caller's task, so two tasks may
//          be in one driver.
// Null devices, names, requests, queues, buffers to write and places for a result are programming errors and
// stop the program, and so is a control request to a device without a routine for them.
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
    IORB *pNext, *pPrevious;           // both null when the block is queued
    char *pBuffer;                     // data, or the control record
    char *pDstBuffer;                  // second buffer
    UInt32 reqLen;                     // bytes asked for
    UInt32 actLen;                     // bytes moved
    UInt32 err;                        // 0, kDevNotOpen, or the driver's code
    UserCompletionFuncT pUserCompFunc; // set: the request may be queued
    UInt32 timeout;                    // microseconds for the serial drivers; 0: no limit
    UInt32 taskID;                     // the task that made the request
    UInt32 ctlCode;
    DEVCB *pDev;
    void *pUserDefined;
    IORB *pChain;
    UInt32 signature; // the four characters "IORB" when made by iorb_init
    UInt32 flags;     // not used
};

struct DeviceControlBlock {
    DEVCB *pNext, *pPrevious;
    char name[8];
    DevOpenCloseT open, close; // each may be null
    DevRequestT read, write;   // each may be null
    DevRequestT ioctl;
    UInt32 instance;
    UInt32 state; // kDevStateOpen or closed
    IORBList readIORBs, writeIORBs, ioctlIORBs;
    UInt32 numBytesWritten, numBytesRead;
    UInt32 numOpens, numCloses; // kept by the drivers
    UInt32 flags;               // bit 0: served by the completion task
    Int32 fd;
    Int32 transferMode; // not used
};

// The table, in order of addition.
extern DEVCB *gpDEVCBHead, *gpDEVCBTail;

// Fills a block: closed, counters 0, fd 0, unlinked. The name has at most 7 characters. Returns 0.
UInt32 dev_init(DEVCB *pDev, const char *name, UInt32 instance, DevOpenCloseT open, DevOpenCloseT close,
                DevRequestT read, DevRequestT write, DevRequestT ioctl);

// Appends a block to the table; no check for duplicates, the first one is found. Returns 0.
UInt32 dev_add(DEVCB *pDev);

// Takes a block out of the table.
void dev_delete(DEVCB *pDev);
UInt32 dev_exit(DEVCB *pDev); // returns 0

// Opens a device and stores its handle. Pending requests of the device are forgotten. Opening an
// open device stores the same handle and does not call the driver. Returns 0, kDevNotFound, or the
// driver's code with the handle untouched and the device closed.
UInt32 dev_open(const char *name, UInt32 instance, UInt32 *devid_out);

// Closes a device; closing a closed one does nothing. Returns 0 or the driver's code; the device is
// closed either way.
UInt32 dev_close(UInt32 devid);

// Run a request; the outcome is in pIORB->err and actLen. A request to a closed device gets
// kDevNotOpen. With a completion function a read is queued, and so is a control request while
// others are queued; writes never are. A write of 0 bytes succeeds without the driver.
void dev_read(UInt32 devid, IORB *pIORB);
void dev_write(UInt32 devid, IORB *pIORB);
void dev_ioctl(UInt32 devid, IORB *pIORB, UInt32 ctlCode);

const char *dev_name(UInt32 devid);

// ---- Request blocks and their queues

// Fills a block, which the caller has zeroed: the other fields keep their values. Returns 0.
UInt32 iorb_init(IORB *pIORB, char *pBuffer, char *pDstBuffer, UInt32 reqLen, UserCompletionFuncT pUserCompFunc,
                 UInt32 timeout);

// Appends a block, which may be on no other queue (otherwise the program stops). Returns 0.
UInt32 iorb_list_enqueue(IORBList *pIORBList, IORB *pIORB);

// Takes the head, or the given block, out of the queue. dequeue returns null when it is empty;
// extract leaves a block alone that is not there (any more).
IORB *iorb_list_dequeue(IORBList *pIORBList);
void iorb_list_extract(IORBList *pIORBList, IORB *pIORB);

// Fills a queue with numIORBs fresh blocks from one allocation. Returns 0, or kIorbNoMemory with an
// empty queue; none at all is a programming error. iorb_list_free gives them back; the first one must
// be at the head by then.
UInt32 iorb_list_alloc(IORBList *pIORBList, Int32 numIORBs);
void iorb_list_free(IORBList *pIORBList);
Int32 iorb_list_avail(IORBList *pIORBList); // blocks in the queue

// ---- Completion task: serves the queued reads of flagged devices

// Flags an open device (opening it clears the flag) and starts the completion task "devc" unless it is there.
// Only one task is started, also when several tasks call at the same time: a call that meets another one's start
// returns at once. A start that fails leaves the device flagged, and the next call tries again.
// "devc" serves the devices that are flagged by the time it first runs. When data is there it runs a queued read
// in its own context, then calls the block's completion function with the block. Data without a queued read is
// logged and waits. A device that is served stays open.
void add_dev_to_comp_task(DEVCB *pDev);
void io_comp_task(UInt32, UInt32, UInt32, UInt32);
extern UInt32 io_comp_task_id; // 0 until the task has been started

// 1 when the poll list has an entry for fd with returned events.
Int32 UFD_ISSET(Int32 fd, const pollfd *pPollList, Int32 count);
