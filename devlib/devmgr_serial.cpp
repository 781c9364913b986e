#include "devlib/devmgr_serial.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/osassert.h"
#include "devlib/devmgr_serial_inner.h"
#include "devlib/serialapi.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

// The numbering of the device files jumps from 1 to 4 on purpose: it is the board's wiring.
const char *const SerialPort_DevNames[kNumSerialPorts] = {
    "/dev/fpgaserial0", "/dev/fpgaserial1", "/dev/fpgaserial4", "/dev/fpgaserial5",
    "/dev/ttyS1",       "/dev/fpgaserial6", "/dev/ttyUSB0",     "/dev/ttyUSB1",
};

DevMgrSerial_CB_t *CBList;

namespace
{

constexpr char kFpgaDevicePrefix[] = "/dev/fpgaserial";

// ---- Parts of reading and writing

// Deliberate: pauses for 1 ms of the remaining time. A port that is readable but cannot be read, such as one that hung
// up, costs select no time, so the time limit would never run out.
void PauseAfterFailure(timeval *remaining)
{
    constexpr Int64 kPause = 1000, kSecond = 1000000; // microseconds
    constexpr timespec kNap = {0, kPause * 1000};
    nanosleep(&kNap, nullptr);
    const Int64 left = std::max<Int64>(Int64{remaining->tv_sec} * kSecond + remaining->tv_usec - kPause, 0);
    *remaining = {static_cast<Int32>(left / kSecond), static_cast<Int32>(left % kSecond)};
}

// Returns how many bytes arrived in time.
UInt32 ReadWithin(Int32 fd, char *pBuffer, UInt32 size, UInt32 timeout)
{
    timeval remaining = Microseconds(timeout);
    UInt32 got = 0;
    // Deliberately only the microseconds. So a remaining time of whole seconds ends the read. With the seconds the
    // updater would listen longer.
    while (remaining.tv_usec > 0 && got < size) {
        ReadinessT readiness = {true, false};
        if (WaitForPort(fd, &readiness, &remaining) < 1)
            break;
        const ssize_t result = read(fd, pBuffer + got, size - got);
        if (result > 0)
            got += static_cast<UInt32>(result);
        else
            PauseAfterFailure(&remaining);
    }
    return got;
}

UInt32 WaitUntilWritable(Int32 fd, UInt32 timeout)
{
    if (timeout == 0)
        return SERIAL_NOERROR;
    timeval limit = Microseconds(timeout);
    ReadinessT readiness = {false, true};
    const int ready = WaitForPort(fd, &readiness, &limit);
    if (ready < 0)
        return SERIAL_WRITE_ERROR;
    return ready == 0 ? SERIAL_TIMEOUT : SERIAL_NOERROR;
}

// ---- Registration

struct EntryPointsT {
    DevOpenCloseT open, close;
    DevRequestT read, write, ioctl;
};
constexpr EntryPointsT kCpuSerial = {DevMgrCPUSerial_Open, DevMgrCPUSerial_Close, DevMgrCPUSerial_Read,
                                     DevMgrCPUSerial_Write, DevMgrCPUSerial_Ioctl};
constexpr EntryPointsT kFpgaSerial = {DevMgrFPGASerial_Open, DevMgrFPGASerial_Close, DevMgrFPGASerial_Read,
                                      DevMgrFPGASerial_Write, DevMgrFPGASerial_Ioctl};

UInt32 RegisterPort(UInt32 port)
{
    const bool isFpga = std::strncmp(SerialPort_DevNames[port], kFpgaDevicePrefix, sizeof kFpgaDevicePrefix - 1) == 0;
    const EntryPointsT &entries = isFpga ? kFpgaSerial : kCpuSerial;
    DEVCB *pDev = &CBList[port].devCB;
    CBList[port].portnum = port;
    dev_init(pDev, "Ser", port + 1, entries.open, entries.close, entries.read, entries.write, entries.ioctl);
    return dev_add(pDev);
}

} // namespace

// ---- What both families share

// The signed conversion makes a count above 2^31 invalid on every host, as it is on a 32-bit one.
timeval Microseconds(UInt32 count)
{
    return {0, static_cast<Int32>(count)};
}

int WaitForPort(Int32 fd, ReadinessT *pReadiness, timeval *pLimit)
{
    if (fd < 0 || fd >= FD_SETSIZE)
        return -1;
    fd_set readSet;
    fd_set writeSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    if (pReadiness->read)
        FD_SET(fd, &readSet);
    if (pReadiness->write)
        FD_SET(fd, &writeSet);
    const int ready = select(fd + 1, &readSet, pReadiness->write ? &writeSet : nullptr, nullptr, pLimit);
    pReadiness->read = ready > 0 && FD_ISSET(fd, &readSet);
    pReadiness->write = ready > 0 && FD_ISSET(fd, &writeSet);
    return ready;
}

bool IsWhole(const DEVCB *pDev, IORB *pIORB)
{
    os_assert(pIORB != nullptr, "pIORB");
    if (pDev != nullptr && pIORB->pBuffer != nullptr)
        return true;
    pIORB->err = SERIAL_INVALID_PARAM;
    return false;
}

int OpenPort(DEVCB *pDev)
{
    const int fd = open(SerialPort_DevNames[pDev->instance - 1], O_RDWR);
    if (fd >= 0) {
        pDev->fd = fd;
        pDev->state = kDevStateOpen;
        pDev->numOpens++;
    }
    return fd;
}

// The asynchronous task ends first. It would fail on the closed descriptor, or on another file that gets its number. fd
// is kept. A task that is deleted in this call still closes the whole port: otherwise the next close would hit a
// descriptor of somebody else.
UInt32 ClosePort(DEVCB *pDev)
{
    if (pDev == nullptr || pDev->fd < 0)
        return SERIAL_INVALID_PARAM;
    const CancelOffHold whole;
    DevMgrSerial_Stop_AsyncThread(PortOf(pDev));
    close(pDev->fd);
    pDev->state = 0;
    pDev->numCloses++;
    return SERIAL_NOERROR;
}

ssize_t ReadPort(const DEVCB *pDev, IORB *pIORB)
{
    if (!IsWhole(pDev, pIORB))
        return 0;
    pIORB->err = SERIAL_NOERROR;
    if (pIORB->timeout != 0) {
        pIORB->actLen = ReadWithin(pDev->fd, pIORB->pBuffer, pIORB->reqLen, pIORB->timeout);
        return 0;
    }
    const ssize_t result = read(pDev->fd, pIORB->pBuffer, pIORB->reqLen);
    pIORB->actLen = result < 1 ? 0 : static_cast<UInt32>(result);
    if (result < 1)
        pIORB->err = SERIAL_READ_ERROR;
    return result;
}

void WritePort(DEVCB *pDev, IORB *pIORB)
{
    if (!IsWhole(pDev, pIORB))
        return;
    if (PortOf(pDev)->tx_enabled == 0) {
        pIORB->err = SERIAL_TX_DISABLED;
        return;
    }
    pIORB->actLen = 0;
    pIORB->err = WaitUntilWritable(pDev->fd, pIORB->timeout);
    if (pIORB->err != SERIAL_NOERROR)
        return;
    const ssize_t result = write(pDev->fd, pIORB->pBuffer, pIORB->reqLen);
    if (result > 0)
        pIORB->actLen = static_cast<UInt32>(result);
    else
        pIORB->err = SERIAL_WRITE_ERROR;
}

// ---- Registration

UInt32 DevMgrSerial_Init()
{
    std::puts("DevMgrSerial_Init");
    if (CBList != nullptr)
        return 0;
    CBList = static_cast<DevMgrSerial_CB_t *>(low_calloc(kNumSerialPorts * sizeof(DevMgrSerial_CB_t)));
    os_assert(CBList != nullptr, "CBList");
    Serial_Init();
    UInt32 result = 0;
    for (UInt32 port = 0; port < kNumSerialPorts; port++)
        result = RegisterPort(port);
    return result;
}
