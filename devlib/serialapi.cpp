#include "devlib/serialapi.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/osassert.h"
#include "devlib/serialapi_inner.h"

#include <cstdio>

// In the order of SerialPort_DevNames.
const char *const Serilport_ttynames[kNumSerialPorts] = {
    "ttyFPGAS0", "ttyFPGAS1", "ttyFPGAS4", "ttyFPGAS5", "ttyS1", "ttyFPGAS6", "ttyUSB0", "ttyUSB1",
};

UInt32 portdevids_lock;
std::atomic<UInt32> port_devids[kNumSerialPorts];
std::atomic<UInt32> Serialport_Modes[kNumSerialPorts];

namespace
{

constexpr int kOpenAttempts = 10;
constexpr UInt32 kOpenPauseTicks = 2;
constexpr int kPortsClosedAtStart[] = {2, 3};

RS232Cfg port_cfgs[kNumSerialPorts]; // last applied; changed under the interrupt lock

struct AppErrRow {
    DevMgrSerial_error_t error;
    const char *text;
    eErrorT result;
};
constexpr AppErrRow kAppErrs[] = {
    {SERIAL_NOT_SUPPORTED, "Serial API Error - Not Supported", kNotYetSupported},
    {SERIAL_INVALID_PARAM, "Serial API Error - Invalid Parameter", kBadParameter},
    {SERIAL_READ_ERROR, "Serial API Error - Read System call failed", kSystemCallFailed},
    {SERIAL_WRITE_ERROR, "Serial API Error - Write System call failed", kSystemCallFailed},
    {SERIAL_UNKNOWN_IOCTL, "Serial API Error - Invalid Parameter", kBadParameter},
    {SERIAL_TX_DISABLED, "Serial API Error - TX Disabled", kBadState},
    {SERIAL_RX_DISABLED, "Serial API Error - RX Disabled", kBadState},
    {SERIAL_TIMEOUT, "Serial API Error - Timeout", kTimeOut},
    {SERIAL_ERROR_UNKNOWN, "Serial API Error - Unknown Error", kSystemCallFailed},
};

void StoreSettings(int port, const RS232Cfg &cfg)
{
    const InterruptsOffHold hold;
    port_cfgs[port] = cfg;
}

// ---- Steps of Serial_Open

// A port from its reservation to the end of Serial_Open. Unless it is kept, it is closed again on every way out, the
// deletion of the calling task included.
class Reservation
{
public:
    explicit Reservation(int port) : port_(port), result_(Reserve(port)) {}
    ~Reservation()
    {
        if (result_ != kNoError || kept_)
            return;
        const CancelOffHold whole;
        const SemaphoreHold hold(portdevids_lock);
        const UInt32 devid = port_devids[port_];
        if (devid != kReserved && devid != kClosed) // somebody may have closed it
            dev_close(devid);
        port_devids[port_] = kClosed;
    }
    Reservation(const Reservation &) = delete;
    Reservation &operator=(const Reservation &) = delete;

    eErrorT Result() const { return result_; } // not kNoError: nothing is reserved
    void Keep() { kept_ = true; }

private:
    static eErrorT Reserve(int port)
    {
        const SemaphoreHold hold(portdevids_lock);
        if (hold.result() != 0) {
            std::printf("SERIALAPI: In Open, Port: %d Mutex Lock failed...., err: %d\n", port,
                        PrintedError(hold.result()));
            return kSemUnavail;
        }
        if (port_devids[port] != kClosed)
            return kAlreadyInUse;
        port_devids[port] = kReserved;
        return kNoError;
    }

    int port_;
    eErrorT result_;
    bool kept_ = false;
};

// Opens the device and stores its handle in the port's slot at once: its callbacks may run, and write, before
// Serial_Open returns. Returns false if all attempts failed.
bool OpenDevice(int port)
{
    UInt32 devid = 0;
    UInt32 err = 0;
    for (int attempt = 1; attempt <= kOpenAttempts; attempt++) {
        if (attempt > 1)
            tm_wkafter(kOpenPauseTicks);
        err = dev_open("Ser", static_cast<UInt32>(port) + 1, &devid);
        if (err == 0) {
            port_devids[port] = devid;
            std::printf("SERIALAPI: Serial_Open() is SUCCESSFUL at Iteration:%d ...\n", attempt);
            return true;
        }
    }
    std::printf("SERIALAPI: In OPEN, Port: %d Device Manager open returned err: %d\n", port, PrintedError(err));
    std::printf("SERIALAPI: GIVE UP in Serial_Open() ... at Iteration:%d ...\n", kOpenAttempts);
    return false;
}

// Hands settings and callbacks to the driver. Returns the driver's error, already printed.
UInt32 SetUpDevice(int port, DevmgrSerial_Config_t config, DevmgrSerial_CBInfo_t callbacks)
{
    const UInt32 devid = port_devids[port];
    UInt32 err = Control(devid, kSerialConfigure, &config);
    if (err != 0) {
        std::printf("SERIALAPI: In OPEN, Port: %d Device Manager config failed, err: %d\n", port, PrintedError(err));
        return err;
    }
    if (callbacks.txCBFunc == nullptr && callbacks.rxCBFunc == nullptr)
        return 0;
    DevmgrSerial_CBInfo_t *pCallbacks = &callbacks;
    err = Control(devid, kSerialSetCallbacks, &pCallbacks);
    if (err != 0)
        std::printf("SERIALAPI: In OPEN, Port: %d Device Manager set callback failed, err: %d\n", port,
                    PrintedError(err));
    return err;
}

} // namespace

bool IsPort(int port)
{
    if (port >= static_cast<int>(kNumSerialPorts))
        return false;
    os_assert(port >= 0, "port >= 0"); // deliberate: an error would hide a programming error
    return true;
}

void Serial_Init()
{
    const UInt32 err = sm_create("SERI", 1, 0, &portdevids_lock);
    if (err != 0)
        std::printf("SERIALAPI: In INIT, sm_create() err: %d\n", PrintedError(err));
    for (std::atomic<UInt32> &devid : port_devids)
        devid = kClosed;
    if (GetSystemHardwareType() == kKora)
        return;
    for (const int port : kPortsClosedAtStart)
        Serial_Close_PSH(port);
}

eErrorT Serial_Open(int port, SerialTxCallbackFuncPtrT txCallbackFuncPtr, SerialRxCallbackFuncPtrT rxCallbackFuncPtr,
                    void *rxCallbackContext, const RS232Cfg *serialCfg)
{
    if (!IsPort(port) || serialCfg == nullptr)
        return kBadParameter;
    if (DevMgrSerial_InCallback())
        return kBadState;
    Reservation reservation(port);
    if (reservation.Result() != kNoError)
        return reservation.Result();
    if (!OpenDevice(port))
        return kItemNotFound;
    DevmgrSerial_Config_t config{};
    if (!MakeDriverConfig(*serialCfg, &config))
        return kBadParameter;
    const UInt32 err = SetUpDevice(port, config, {txCallbackFuncPtr, rxCallbackFuncPtr, rxCallbackContext});
    if (err != 0)
        return Serial_Get_AppErr(static_cast<DevMgrSerial_error_t>(err));
    StoreSettings(port, *serialCfg);
    Serialport_Modes[port] = kDeviceManagerMode;
    reservation.Keep();
    return kNoError;
}

eErrorT Serial_Close(int port)
{
    if (!IsPort(port))
        return kBadParameter;
    if (DevMgrSerial_InCallback())
        return kBadState;
    const SemaphoreHold hold(portdevids_lock);
    if (hold.result() != 0) {
        std::printf("SERIALAPI: In CLOSE, Port: %d Mutex lock failed, err: %d\n", port, PrintedError(hold.result()));
        return kSemUnavail;
    }
    const UInt32 devid = port_devids[port];
    if (devid == kClosed || devid == kReserved)
        return kItemNotFound;
    dev_close(devid);
    port_devids[port] = kClosed;
    return kNoError;
}

eErrorT Serial_Get_AppErr(DevMgrSerial_error_t sererr)
{
    for (const AppErrRow &row : kAppErrs) {
        if (row.error != sererr)
            continue;
        std::puts(row.text);
        return row.result;
    }
    return kNoError;
}

UInt32 Serial_Lock_PortDevids()
{
    return DevMgrSerial_InCallback() ? kSmNotAvailable : sm_p(portdevids_lock, 0, 0);
}

UInt32 Serial_Unlock_PortDevids()
{
    return sm_v(portdevids_lock);
}

eErrorT Serial_GetCfg(int port, const RS232Cfg *cfgPtr)
{
    if (!IsPort(port) || cfgPtr == nullptr)
        return kBadParameter;
    if (port_devids[port] == kClosed)
        return kItemNotFound;
    StoreSettings(port, *cfgPtr);
    return kNoError;
}
