// The common part of the files of the Serial API. No other file includes it.
// serialapi.cpp           the port table: start, opening, closing, and the meaning of errors
// serialapi_transfer.cpp  requests to an open port: enabling, disabling, reading, writing
// serialapi_script.cpp    ports that the port script runs
// serialapi_settings.cpp  a port's settings as the driver and the port script take them
// Owner:   the port table belongs to serialapi.cpp.
// Locking: a port is reserved, closed and handed to the script under portdevids_lock. The task that has reserved it
//          fills in its words without the lock. Requests read them without the lock.
#pragma once

#include "Common/OS/dev.h"
#include "devlib/serialapi.h"

#include <atomic>

// ---- The port table (serialapi.cpp)

// What port_devids holds for a port that has no device handle.
constexpr UInt32 kClosed = 0;
constexpr UInt32 kReserved = 1; // being opened, or handed to the port script

constexpr UInt32 kDeviceManagerMode = 0;
constexpr UInt32 kPshMode = 1;

extern UInt32 portdevids_lock;                           // the semaphore "SERI"
extern std::atomic<UInt32> port_devids[kNumSerialPorts]; // kClosed, kReserved or the device handle
extern std::atomic<UInt32> Serialport_Modes[kNumSerialPorts];

// Whether the number is a port's. A negative number is a programming error and stops the program.
bool IsPort(int port);

// Errors are printed as signed numbers.
inline int PrintedError(UInt32 err)
{
    return static_cast<int>(err);
}

// Sends a control request with the record that belongs to its code. Returns the driver's error.
template <class Record> UInt32 Control(UInt32 devid, UInt32 ctlCode, Record *pRecord)
{
    IORB iorb{};
    iorb.pBuffer = reinterpret_cast<char *>(pRecord);
    dev_ioctl(devid, &iorb, ctlCode);
    return iorb.err;
}

// ---- Settings (serialapi_settings.cpp)

// Makes the driver's settings. Returns false, and changes nothing, if one of the settings is impossible.
bool MakeDriverConfig(const RS232Cfg &cfg, DevmgrSerial_Config_t *pConfig);

// The port script's words: rate, data bits, parity, stop bits and flow control. An impossible setting becomes the
// default.
struct ScriptWordsT {
    char text[64];
};
ScriptWordsT ScriptWords(const RS232Cfg &cfg);
