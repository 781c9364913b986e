// What the files of the Serial API share among each other; nobody else includes it.
// serialapi.cpp           the port table: start, opening, closing, and what errors mean
// serialapi_transfer.cpp  requests to an open port: enabling, disabling, reading, writing
// serialapi_script.cpp    ports that the port script runs
// serialapi_settings.cpp  what a port's settings mean to the driver and to the port script
// Owner:   the port table belongs to serialapi.cpp.
// Locking: a port is reserved, closed and handed to the script under portdevids_lock. Whoever has reserved it fills in
//          its words without the lock, and requests read them without it.
#pragma once

#include "Common/OS/dev.h"
#include "devlib/serialapi.h"

#include <atomic>

// ---- The port table (serialapi.cpp)

// What port_devids has of a port instead of a device handle.
constexpr UInt32 kClosed = 0;
constexpr UInt32 kReserved = 1; // being opened, or handed to the port script

constexpr UInt32 kDeviceManagerMode = 0;
constexpr UInt32 kPshMode = 1;

extern UInt32 portdevids_lock;                           // the semaphore "SERI"
extern std::atomic<UInt32> port_devids[kNumSerialPorts]; // kClosed, kReserved or the device handle
extern std::atomic<UInt32> Serialport_Modes[kNumSerialPorts];

// False above the last port. A negative number is a programming error and stops the program.
bool IsPort(int port);

// Errors are printed as signed numbers.
inline int PrintedError(UInt32 err)
{
    return static_cast<int>(err);
}

// Sends a control request; record is what the control code takes. Returns the driver's error.
template <class Record> UInt32 Control(UInt32 devid, UInt32 ctlCode, Record *pRecord)
{
    IORB iorb{};
    iorb.pBuffer = reinterpret_cast<char *>(pRecord);
    dev_ioctl(devid, &iorb, ctlCode);
    return iorb.err;
}

// ---- Settings (serialapi_settings.cpp)

// What the driver gets. Returns false, and changes nothing, when one of the settings is not possible.
bool MakeDriverConfig(const RS232Cfg &cfg, DevmgrSerial_Config_t *pConfig);

// What the port script gets: rate, data bits, parity, stop bits and flow control. Each setting that is not possible
// becomes the default.
struct ScriptWordsT {
    char text[64];
};
ScriptWordsT ScriptWords(const RS232Cfg &cfg);
