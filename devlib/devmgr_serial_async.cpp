#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/osassert.h"
#include "devlib/devmgr_serial_inner.h"

#include <cstdio>
#include <unistd.h>

namespace
{

constexpr UInt32 kAsyncPriority = 19;
constexpr UInt32 kAsyncStack = 8192;
constexpr UInt32 kAsyncPollMicroseconds = 5000;
constexpr std::size_t kAsyncBufferSize = 256;

// The port that the calling task serves, if it is an asynchronous task, and the task's identifier.
thread_local const DevMgrSerial_CB_t *servedPort;
thread_local UInt32 servingTask;

// Whether the calling task still serves the port. Once a callback has stopped it the descriptor is not ours:
// it may be closed, and its number be another file's.
bool StillServing(const DevMgrSerial_CB_t *pPort)
{
    return pPort->threadID == servingTask;
}

void ClearIf(std::atomic<UInt32> *pWord, UInt32 value)
{
    pWord->compare_exchange_strong(value, 0);
}

// A task's service of a port. At its end the record forgets the task, even if the task is deleted. So nobody deletes
// another task by an old identifier.
class ServiceHold
{
public:
    ServiceHold(DevMgrSerial_CB_t *pPort, UInt32 tid) : pPort_(pPort)
    {
        servedPort = pPort;
        servingTask = tid;
    }
    ~ServiceHold()
    {
        ClearIf(&pPort_->threadID, servingTask);
        ClearIf(&pPort_->servingID, servingTask);
        servedPort = nullptr;
    }
    ServiceHold(const ServiceHold &) = delete;
    ServiceHold &operator=(const ServiceHold &) = delete;

private:
    DevMgrSerial_CB_t *pPort_;
};

// A callback may stop its own task, which is then in the callback until that returns. The next task waits for this. So
// callbacks of one port never run at the same time.
void AwaitTurn(DevMgrSerial_CB_t *pPort)
{
    UInt32 former = 0;
    while (StillServing(pPort) && !pPort->servingID.compare_exchange_strong(former, servingTask)) {
        tm_wkafter(1);
        former = 0;
    }
}

// Returns false, with the reason printed, when the task cannot be started.
bool StartAsyncTask(DevMgrSerial_CB_t *pPort)
{
    UInt32 tid = 0;
    if (t_create("seri", kAsyncPriority, kAsyncStack, kAsyncStack, 0, &tid) != 0) {
        std::puts("DevMgrCPUSerial_Start_AsyncThread(): Async thread create error");
        return false;
    }
    pPort->threadID = tid; // before the task runs, which looks for itself there
    // t_start copies them, so no two ports ever share a set.
    const UInt32 asyncTask_Args[4] = {low_id(pPort), tid};
    if (t_start(tid, 0, DevMgrSerial_asyncDataSendRecv, asyncTask_Args) == 0)
        return true;
    std::puts("DevMgrCPUSerial_Start_AsyncThread(): Async thread start error");
    pPort->threadID = 0;
    t_delete(tid);
    return false;
}

// t_delete takes 0 for the caller.
UInt32 DeleteIfAny(UInt32 tid)
{
    return tid != 0 ? t_delete(tid) : 0;
}

// Returns false if there was nothing to read.
bool DeliverInput(const DevMgrSerial_CB_t *pPort)
{
    Int8 buffer[kAsyncBufferSize];
    const ssize_t result = read(pPort->devCB.fd, buffer, sizeof buffer);
    if (result < 1)
        return false;
    const DevmgrSerial_CBInfo_t callbacks = Callbacks(pPort);
    if (callbacks.rxCBFunc != nullptr) {
        DevmgrSerial_CBdata_t data = {buffer, static_cast<UInt32>(result)};
        callbacks.rxCBFunc(callbacks.Context_Data, &data);
    }
    return true;
}

// One pass of the asynchronous task. Returns false when the wait failed.
bool ServePort(const DevMgrSerial_CB_t *pPort)
{
    timeval limit = Microseconds(kAsyncPollMicroseconds);
    ReadinessT readiness = {pPort->rx_enabled == 1, Callbacks(pPort).txCBFunc != nullptr && pPort->tx_enabled == 1};
    if (WaitForPort(pPort->devCB.fd, &readiness, &limit) < 0)
        return false;
    if (readiness.read && !DeliverInput(pPort))
        return true;
    if (readiness.write && StillServing(pPort)) {
        const DevmgrSerial_CBInfo_t callbacks = Callbacks(pPort);
        if (callbacks.txCBFunc != nullptr && pPort->tx_enabled == 1)
            callbacks.txCBFunc(callbacks.Context_Data);
    }
    return true;
}

} // namespace

// ---- Callbacks and enables

DevmgrSerial_CBInfo_t Callbacks(const DevMgrSerial_CB_t *pPort)
{
    const InterruptsOffHold hold;
    return pPort->cbInfo;
}

void StoreCallbacks(DevMgrSerial_CB_t *pPort, const DevmgrSerial_CBInfo_t &cbInfo)
{
    const InterruptsOffHold hold;
    pPort->cbInfo = cbInfo;
}

UInt32 SetCallbacks(DevMgrSerial_CB_t *pPort, const DevmgrSerial_CBInfo_t *pCBInfo)
{
    UInt32 err = SERIAL_NOERROR;
    if (pCBInfo == nullptr) {
        DevMgrSerial_Stop_AsyncThread(pPort);
        StoreCallbacks(pPort, {});
        return err;
    }
    StoreCallbacks(pPort, *pCBInfo);
    if (pPort->asyncThread_running == 0 && (pPort->tx_enabled == 1 || pPort->rx_enabled == 1))
        DevMgrSerial_Start_AsyncThread(pPort, &err);
    return err;
}

UInt32 StartOrStopAsyncThread(DevMgrSerial_CB_t *pPort, bool wanted)
{
    UInt32 err = SERIAL_NOERROR;
    if (pPort->tx_enabled == 0 && pPort->rx_enabled == 0)
        DevMgrSerial_Stop_AsyncThread(pPort);
    else if (pPort->asyncThread_running == 0 && wanted)
        DevMgrSerial_Start_AsyncThread(pPort, &err);
    return err;
}

void SwitchTransmitter(DevMgrSerial_CB_t *pPort, UInt32 portStatus)
{
    if ((portStatus & PORT_TX_ENABLE) != 0)
        pPort->tx_enabled = 1;
    else if ((portStatus & PORT_TX_DISABLE) != 0)
        pPort->tx_enabled = 0;
}

// ---- The asynchronous task

void DevMgrSerial_Start_AsyncThread(DevMgrSerial_CB_t *pPort, UInt32 *pErr)
{
    os_assert(pPort != nullptr, "pPort");
    os_assert(pErr != nullptr, "pErr");
    *pErr = SERIAL_NOERROR;
    pPort->asyncThread_running = 1; // first: a callback of the new task may clear it at once
    if (servedPort == pPort) {
        pPort->threadID = servingTask;
    } else if (!StartAsyncTask(pPort)) {
        pPort->asyncThread_running = 0;
        *pErr = SERIAL_ERROR_UNKNOWN;
    }
}

UInt32 DevMgrSerial_Stop_AsyncThread(DevMgrSerial_CB_t *pPort)
{
    os_assert(pPort != nullptr, "pPort");
    UInt32 result = 0;
    if (servedPort != pPort) {
        result = DeleteIfAny(pPort->threadID);
        DeleteIfAny(pPort->servingID);
    }
    pPort->threadID = 0;
    pPort->asyncThread_running = 0;
    return result;
}

// A failed wait ends the task. Deliberate: asyncThread_running stays 1 until the port is stopped, so no further task
// starts on a descriptor that cannot be waited for.
void DevMgrSerial_asyncDataSendRecv(UInt32 portRecord, UInt32 tid, UInt32, UInt32)
{
    auto *pPort = low_pointer<DevMgrSerial_CB_t>(portRecord);
    os_assert(pPort != nullptr, "pPort");
    const ServiceHold hold(pPort, tid);
    AwaitTurn(pPort);
    while (StillServing(pPort) && ServePort(pPort))
        continue;
}

bool DevMgrSerial_InCallback()
{
    return servedPort != nullptr;
}
