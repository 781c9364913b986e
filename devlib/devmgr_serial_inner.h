// The common part of the files of the serial drivers. No other file includes it.
// devmgr_serial.cpp        the ports, their registration, and the entry points that both families share
// devmgr_serial_async.cpp  the callbacks and the asynchronous task
// devmgr_serial_cpu.cpp    the CPU family: its entry points and control requests
// devmgr_serial_fpga.cpp   the FPGA family: its entry points and control requests
// Owner:   the port records belong to devmgr_serial.cpp.
// Locking: Callbacks and StoreCallbacks take the interrupt lock. The caller of these functions holds no lock.
#pragma once

#include "devlib/devmgr_serial.h"

#include <cstddef>
#include <cstring>
#include <sys/types.h>
#include <termios.h>

// ---- The bits of CtrlBitMask for each family. The first row whose bit is set counts. If there is none, the last row.

template <class FpgaCode> struct SettingRow {
    UInt32 bit;
    tcflag_t lineFlags;
    FpgaCode fpgaCode;
};
constexpr SettingRow<fpgaserial_databits_t> kDataBits[] = {
    {kSerialDataBits5, CS5, FPGASERIAL_DATABITS_SIZE5},
    {kSerialDataBits6, CS6, FPGASERIAL_DATABITS_SIZE6},
    {kSerialDataBits7, CS7, FPGASERIAL_DATABITS_SIZE7},
    {kSerialDataBits8, CS8, FPGASERIAL_DATABITS_SIZE8},
};
constexpr SettingRow<fpgaserial_parity_t> kParities[] = {
    {kSerialParityEven, PARENB, FPGASERIAL_EVEN_PARITY},
    {kSerialParityOdd, PARENB | PARODD, FPGASERIAL_ODD_PARITY},
    {0, 0, FPGASERIAL_PARITY_NONE},
};
constexpr SettingRow<fpgaserial_stopbits_t> kStopBits[] = {
    {kSerialTwoStopBits, CSTOPB, FPGASERIAL_STOPBITS_2},
    {kSerialOneStopBit, 0, FPGASERIAL_STOPBITS_1},
};

template <class Row, std::size_t Count> constexpr const Row &SelectRow(const Row (&rows)[Count], UInt32 ctrlBitMask)
{
    for (const Row &row : rows)
        if ((ctrlBitMask & row.bit) != 0)
            return row;
    return rows[Count - 1];
}

// ---- Both families (devmgr_serial.cpp)

static_assert(offsetof(DevMgrSerial_CB_t, devCB) == 0);
inline DevMgrSerial_CB_t *PortOf(DEVCB *pDev)
{
    return reinterpret_cast<DevMgrSerial_CB_t *>(pDev);
}

// Before a wait: the events to wait for. After it: what the port is ready for.
struct ReadinessT {
    bool read;
    bool write;
};

// Waits on one descriptor, at most pLimit. *pLimit is then the remaining time. Returns the result of select. Returns -1
// if the descriptor is too large for select.
int WaitForPort(Int32 fd, ReadinessT *pReadiness, timeval *pLimit);

// A count of microseconds as select takes it.
timeval Microseconds(UInt32 count);

// Whether a request has a device and a buffer. If not, SERIAL_INVALID_PARAM is stored in pIORB->err.
bool IsWhole(const DEVCB *pDev, IORB *pIORB);

// The entry points that both families share. The results are those of the entry points, with two exceptions.
// OpenPort  returns the descriptor. It is negative if the device file cannot be opened.
// ReadPort  returns the result of the system call if the read has no time-out. Otherwise it returns 0.
int OpenPort(DEVCB *pDev);
UInt32 ClosePort(DEVCB *pDev);
ssize_t ReadPort(const DEVCB *pDev, IORB *pIORB);
void WritePort(DEVCB *pDev, IORB *pIORB);

// ---- Callbacks and the asynchronous task (devmgr_serial_async.cpp)

// Copies and replaces the port's callbacks.
DevmgrSerial_CBInfo_t Callbacks(const DevMgrSerial_CB_t *pPort);
void StoreCallbacks(DevMgrSerial_CB_t *pPort, const DevmgrSerial_CBInfo_t &cbInfo);

// Control code 2 of both families. Returns the driver's error.
UInt32 SetCallbacks(DevMgrSerial_CB_t *pPort, const DevmgrSerial_CBInfo_t *pCBInfo);

// The last step of control code 3 of both families. wanted says whether the port needs the task. Returns the driver's
// error.
UInt32 StartOrStopAsyncThread(DevMgrSerial_CB_t *pPort, bool wanted);

// Switches sending on or off if portStatus has a bit for that. No driver is asked: only a flag of the port changes.
void SwitchTransmitter(DevMgrSerial_CB_t *pPort, UInt32 portStatus);

// ---- Control requests

// The control record in a request's buffer. The buffer need not be aligned for it.
template <class Record> Record ControlRecord(const IORB *pIORB)
{
    Record record;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the record of the callbacks request is a pointer
    std::memcpy(&record, pIORB->pBuffer, sizeof record);
    return record;
}

// Answers a control request that has a device and a buffer. configure gets the settings, and enable gets the port's new
// status. Both return the driver's error.
template <class Configure, class Enable>
void ServeControl(DevMgrSerial_CB_t *pPort, IORB *pIORB, Configure configure, Enable enable)
{
    switch (pIORB->ctlCode) {
    case kSerialConfigure:
        pIORB->err = configure(ControlRecord<DevmgrSerial_Config_t>(pIORB));
        break;
    case kSerialSetCallbacks:
        pIORB->err = SetCallbacks(pPort, ControlRecord<const DevmgrSerial_CBInfo_t *>(pIORB));
        break;
    case kSerialEnable:
        pIORB->err = enable(ControlRecord<UInt32>(pIORB));
        break;
    default:
        pIORB->err = SERIAL_UNKNOWN_IOCTL;
    }
}
