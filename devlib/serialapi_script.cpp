#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "devlib/serialapi_inner.h"

#include <cstdio>

namespace
{

constexpr char kPortScript[] = "./config_port";
constexpr std::size_t kScriptCommandSize = 128;

// The next three are called with the lock held.

void StoreState(int port, UInt32 devid, UInt32 mode)
{
    Serialport_Modes[port] = mode;
    port_devids[port] = devid;
}

// Returns the script's result.
Int32 StopPshSession(int port)
{
    char command[kScriptCommandSize];
    std::snprintf(command, sizeof command, "%s close %s", kPortScript, Serilport_ttynames[port]);
    const Int32 err = system_pthread(command);
    if (err == 0)
        StoreState(port, kClosed, kDeviceManagerMode);
    return err;
}

// Returns the script's result. When it fails the port is closed.
Int32 StartPshSession(int port, const RS232Cfg &cfg)
{
    StoreState(port, kReserved, kPshMode);
    char command[kScriptCommandSize];
    std::snprintf(command, sizeof command, "%s open %s %s", kPortScript, Serilport_ttynames[port],
                  ScriptWords(cfg).text);
    const Int32 err = system_pthread(command);
    if (err != 0)
        StoreState(port, kClosed, kDeviceManagerMode);
    return err;
}

// What the script's result means. A failure is printed, so the lock is given back first.
eErrorT OpenResult(int port, Int32 err)
{
    if (err == 0)
        return kNoError;
    std::printf("SERIALAPI: In PSH OPEN, Port: %d System call failed, err: %d\n", port, err);
    return kSystemCallFailed;
}

eErrorT CloseResult(int port, Int32 err)
{
    if (err == 0)
        return kNoError;
    std::printf("SERIALAPI: In PSH CLOSE, Port: %d System call failed, err: %d\n", port, err);
    return kSystemCallFailed;
}

} // namespace

eErrorT Serial_Open_PSH(int port, const RS232Cfg *serialCfg)
{
    if (!IsPort(port) || serialCfg == nullptr)
        return kBadParameter;
    if (DevMgrSerial_InCallback())
        return kBadState;
    Int32 closeErr = 0;
    Int32 openErr = 0;
    {
        const SemaphoreHold hold(portdevids_lock);
        if (hold.result() != 0) {
            std::printf("SERIALAPI: In PSH OPEN, Port: %d Mutex lock failed, err: %d\n", port,
                        PrintedError(hold.result()));
            return kSemUnavail;
        }
        if (port_devids[port] != kClosed)
            return kAlreadyInUse;
        closeErr = StopPshSession(port);
        openErr = StartPshSession(port, *serialCfg);
    }
    CloseResult(port, closeErr); // of an earlier run's session, maybe: it does not matter
    return OpenResult(port, openErr);
}

eErrorT Serial_Close_PSH(int port)
{
    return Serial_Stop_PSHSession(port, 0);
}

eErrorT Serial_Stop_PSHSession(int port, int port_locked)
{
    if (!IsPort(port))
        return kBadParameter;
    if (DevMgrSerial_InCallback())
        return kBadState;
    if (port_locked != 0)
        return CloseResult(port, StopPshSession(port));
    Int32 err = 0;
    {
        const SemaphoreHold hold(portdevids_lock);
        if (hold.result() != 0) {
            std::printf("SERIALAPI: In PSH CLOSE, Port: %d Mutex lock failed, err: %d\n", port,
                        PrintedError(hold.result()));
            return kSemUnavail;
        }
        err = StopPshSession(port);
    }
    return CloseResult(port, err);
}
