#include "devlib/serialapi.h"

#include "Common/OS/dev.h"
#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/osassert.h"

#include <atomic>
#include <cstdio>
#include <iterator>

// In step with SerialPort_DevNames.
const char *const Serilport_ttynames[kNumSerialPorts] = {
    "ttyFPGAS0", "ttyFPGAS1", "ttyFPGAS4", "ttyFPGAS5", "ttyS1", "ttyFPGAS6", "ttyUSB0", "ttyUSB1",
};

namespace
{

constexpr int kOpenAttempts = 10;
constexpr UInt32 kOpenPauseTicks = 2;
constexpr char kPortScript[] = "./config_port";
constexpr std::size_t kScriptCommandSize = 128;
constexpr int kPortsClosedAtStart[] = {2, 3};

constexpr UInt32 kClosed = 0;
constexpr UInt32 kReserved = 1; // being opened, or handed to the port script

constexpr UInt32 kDeviceManagerMode = 0;
constexpr UInt32 kPshMode = 1;

UInt32 portdevids_lock;
std::atomic<UInt32> port_devids[kNumSerialPorts]; // kClosed, kReserved or the device handle
std::atomic<UInt32> Serialport_Modes[kNumSerialPorts];
RS232Cfg port_cfgs[kNumSerialPorts]; // last applied; changed under the interrupt lock

// The rows of these are indexed by the setting's code. word and count are what the port script gets.
constexpr UInt32 kBitRates[] = {115200, 57600, 38400, 19200, 14400, 9600, 4800, 2400, 1200};
constexpr UInt32 kScriptDefaultBitRate = 9600;
struct FormatRow {
    UInt32 ctrlBit;
    int count;
    const char *word = "";
};
constexpr FormatRow kDataBits[] = {
    {kSerialDataBits5, 5},
    {kSerialDataBits6, 6},
    {kSerialDataBits7, 7},
    {kSerialDataBits8, 8},
};
// SERIAL_PARITY_NONE has no row: only SERIAL_PARITY_NO asks for no parity. Deliberate; a record that
// was never filled in properly must not open a port.
constexpr FormatRow kParities[] = {
    {kSerialParityEven, 0, "even"},
    {kSerialParityOdd, 0, "odd"},
    {0, 0, "none"},
};
constexpr FormatRow kStopBits[] = {
    {kSerialOneStopBit, 1},
    {kSerialTwoStopBits, 2}, // one and a half
    {kSerialTwoStopBits, 2},
};

// Flow controls in the order of choice, which differs: the first wanted row counts.
struct FlowControlRow {
    Bool RS232Cfg::*wanted;
    UInt32 ctrlBit;
    const char *word = "";
};
constexpr FlowControlRow kDriverFlowControls[] = {
    {&RS232Cfg::hwFlowControlRtsCts, kSerialRtsCts},
    {&RS232Cfg::swFlowControlXonXoff, kSerialXonXoff},
    {&RS232Cfg::hwFlowControlDtrDsr, kSerialDtrDsr},
};
constexpr FlowControlRow kScriptFlowControls[] = {
    {&RS232Cfg::hwFlowControlDtrDsr, 0, "dtrdsr"},
    {&RS232Cfg::hwFlowControlRtsCts, 0, "rtscts"},
    {&RS232Cfg::swFlowControlXonXoff, 0, "xonxoff"},
};
constexpr FlowControlRow kNoFlowControl = {nullptr, 0, "none"};

struct DirectionRow {
    SerialDirectionType direction;
    UInt32 enable;
    UInt32 disable;
};
// The single directions of disable are crossed on purpose: the users of this interface count on it.
constexpr DirectionRow kDirections[] = {
    {SERIAL_DIRECTION_RX, PORT_RX_ENABLE, PORT_TX_DISABLE},
    {SERIAL_DIRECTION_TX, PORT_TX_ENABLE, PORT_RX_DISABLE},
    {SERIAL_DIRECTION_BOTH, PORT_RX_ENABLE | PORT_TX_ENABLE, PORT_RX_DISABLE | PORT_TX_DISABLE},
};

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

// False above the last port. A negative number is a programming error.
bool IsPort(int port)
{
    if (port >= static_cast<int>(kNumSerialPorts))
        return false;
    os_assert(port >= 0, "port >= 0");
    return true;
}

// The row of a code, or the last row.
template <class Row, std::size_t count> const Row &RowOrLast(const Row (&rows)[count], UInt32 code)
{
    return rows[code < count ? code : count - 1];
}

template <std::size_t count>
const FlowControlRow &ChooseFlowControl(const FlowControlRow (&rows)[count], const RS232Cfg &cfg)
{
    for (const FlowControlRow &row : rows)
        if (cfg.*row.wanted != 0)
            return row;
    return kNoFlowControl;
}

// Returns false when a setting has no row.
bool MakeDriverConfig(const RS232Cfg &cfg, DevmgrSerial_Config_t *pConfig)
{
    if (cfg.bitRate >= std::size(kBitRates) || cfg.dataBits >= std::size(kDataBits) ||
        cfg.parityBits >= std::size(kParities) || cfg.stopBits >= std::size(kStopBits))
        return false;
    pConfig->BaudRate = kBitRates[cfg.bitRate];
    pConfig->CtrlBitMask = ChooseFlowControl(kDriverFlowControls, cfg).ctrlBit | kDataBits[cfg.dataBits].ctrlBit |
                           kParities[cfg.parityBits].ctrlBit | kStopBits[cfg.stopBits].ctrlBit;
    return true;
}

// A control request; record is what the control code takes. Returns the driver's error.
template <class Record> UInt32 Control(UInt32 devid, UInt32 ctlCode, Record *pRecord)
{
    IORB iorb{};
    iorb.pBuffer = reinterpret_cast<char *>(pRecord);
    dev_ioctl(devid, &iorb, ctlCode);
    return iorb.err;
}

void StoreSettings(int port, const RS232Cfg &cfg)
{
    const InterruptsOffHold hold;
    port_cfgs[port] = cfg;
}

// ---- Steps of Serial_Open

// A port from its reservation to the end of Serial_Open: closed again on every way out, the deletion
// of the calling task included, unless it is kept.
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

    eErrorT result() const { return result_; } // not kNoError: nothing is reserved
    void keep() { kept_ = true; }

private:
    static eErrorT Reserve(int port)
    {
        const SemaphoreHold hold(portdevids_lock);
        if (hold.result() != 0) {
            std::printf("SERIALAPI: In Open, Port: %d Mutex Lock failed...., err: %d\n", port,
                        static_cast<int>(hold.result()));
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

// Opens the device into the port's slot: its callbacks may run, and write, before Serial_Open returns. Returns
// false when all attempts failed.
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
    std::printf("SERIALAPI: In OPEN, Port: %d Device Manager open returned err: %d\n", port, static_cast<int>(err));
    std::printf("SERIALAPI: GIVE UP in Serial_Open() ... at Iteration:%d ...\n", kOpenAttempts);
    return false;
}

// Hands settings and callbacks to the driver. Returns the driver's error, already printed.
UInt32 SetUpDevice(int port, DevmgrSerial_Config_t config, DevmgrSerial_CBInfo_t callbacks)
{
    const UInt32 devid = port_devids[port];
    UInt32 err = Control(devid, kSerialConfigure, &config);
    if (err != 0) {
        std::printf("SERIALAPI: In OPEN, Port: %d Device Manager config failed, err: %d\n", port,
                    static_cast<int>(err));
        return err;
    }
    if (callbacks.txCBFunc == nullptr && callbacks.rxCBFunc == nullptr)
        return 0;
    DevmgrSerial_CBInfo_t *pCallbacks = &callbacks;
    err = Control(devid, kSerialSetCallbacks, &pCallbacks);
    if (err != 0)
        std::printf("SERIALAPI: In OPEN, Port: %d Device Manager set callback failed, err: %d\n", port,
                    static_cast<int>(err));
    return err;
}

// ---- Enabling and disabling

// Sends the status that the column of kDirections gives for the direction. A driver's refusal is in
// *pErr, any other failure is the result.
eErrorT SetDirection(int port, SerialDirectionType serialDir, UInt32 DirectionRow::*column, UInt32 *pErr)
{
    if (!IsPort(port))
        return kBadParameter;
    const UInt32 devid = port_devids[port];
    if (devid == kClosed)
        return kItemNotFound;
    if (Serialport_Modes[port] == kPshMode)
        return kNoError;
    if (devid == kReserved)
        return kItemNotFound;
    for (const DirectionRow &row : kDirections) {
        if (row.direction != serialDir)
            continue;
        UInt32 status = row.*column;
        *pErr = Control(devid, kSerialEnable, &status);
        return kNoError;
    }
    return kBadParameter;
}

// ---- Reading and writing

// Fills a zeroed request and finds the device it goes to.
eErrorT PrepareTransfer(int port, char *buf, int size, int numOfMicroseconds, IORB *pIORB, UInt32 *pDevid)
{
    if (!IsPort(port) || buf == nullptr)
        return kBadParameter;
    *pDevid = port_devids[port];
    if (*pDevid == kClosed || *pDevid == kReserved)
        return kItemNotFound;
    pIORB->pBuffer = buf;
    pIORB->reqLen = static_cast<UInt32>(size);
    pIORB->timeout = static_cast<UInt32>(numOfMicroseconds);
    return kNoError;
}

// ---- The port script; the lock is held

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
    std::snprintf(command, sizeof command, "%s open %s %d %d %s %d %s", kPortScript, Serilport_ttynames[port],
                  static_cast<int>(cfg.bitRate < std::size(kBitRates) ? kBitRates[cfg.bitRate] : kScriptDefaultBitRate),
                  RowOrLast(kDataBits, cfg.dataBits).count, RowOrLast(kParities, cfg.parityBits).word,
                  RowOrLast(kStopBits, cfg.stopBits).count, ChooseFlowControl(kScriptFlowControls, cfg).word);
    const Int32 err = system_pthread(command);
    if (err != 0)
        StoreState(port, kClosed, kDeviceManagerMode);
    return err;
}

// What the script's result means. A failure is printed, so the lock is given back first.
eErrorT ScriptResult(const char *request, int port, Int32 err)
{
    if (err == 0)
        return kNoError;
    std::printf("SERIALAPI: In PSH %s, Port: %d System call failed, err: %d\n", request, port, err);
    return kSystemCallFailed;
}

} // namespace

void Serial_Init()
{
    const UInt32 err = sm_create("SERI", 1, 0, &portdevids_lock);
    if (err != 0)
        std::printf("SERIALAPI: In INIT, sm_create() err: %d\n", static_cast<int>(err));
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
    if (reservation.result() != kNoError)
        return reservation.result();
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
    reservation.keep();
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
        std::printf("SERIALAPI: In CLOSE, Port: %d Mutex lock failed, err: %d\n", port,
                    static_cast<int>(hold.result()));
        return kSemUnavail;
    }
    const UInt32 devid = port_devids[port];
    if (devid == kClosed || devid == kReserved)
        return kItemNotFound;
    dev_close(devid);
    port_devids[port] = kClosed;
    return kNoError;
}

eErrorT Serial_Enable(int port, SerialDirectionType serialDir)
{
    UInt32 err = 0;
    const eErrorT result = SetDirection(port, serialDir, &DirectionRow::enable, &err);
    if (err == 0)
        return result;
    std::printf("SERIALAPI: In ENABLE, Port: %d Device Manager ioctl failed, err: %d\n", port, static_cast<int>(err));
    return Serial_Get_AppErr(static_cast<DevMgrSerial_error_t>(err));
}

eErrorT Serial_Disable(int port, SerialDirectionType serialDir)
{
    UInt32 err = 0;
    const eErrorT result = SetDirection(port, serialDir, &DirectionRow::disable, &err);
    if (err == 0)
        return result;
    std::printf("SERIALAPI: In DISABLE, Port: %d Device Manager ioctl failed, err: %d\n", port, static_cast<int>(err));
    return Serial_Get_AppErr(static_cast<DevMgrSerial_error_t>(err));
}

int Serial_Read(int port, char *readBuf, int readSize, int numOfMicroseconds)
{
    IORB iorb{};
    UInt32 devid = 0;
    if (const eErrorT result = PrepareTransfer(port, readBuf, readSize, numOfMicroseconds, &iorb, &devid); result != 0)
        return result;
    dev_read(devid, &iorb);
    if (iorb.err == 0)
        return static_cast<int>(iorb.actLen);
    std::printf("SERIALAPI: In READ, Port: %d Device Manager read failed, err: %d\n", port, static_cast<int>(iorb.err));
    return 0;
}

int Serial_Write(int port, const char *writeBuf, int writeSize, int numOfMicroseconds)
{
    IORB iorb{};
    UInt32 devid = 0;
    // A request block serves both directions; nobody stores through the buffer of a write.
    auto *buf = const_cast<char *>(writeBuf);
    if (const eErrorT result = PrepareTransfer(port, buf, writeSize, numOfMicroseconds, &iorb, &devid); result != 0)
        return result;
    dev_write(devid, &iorb);
    if (iorb.err == 0)
        return static_cast<int>(iorb.actLen);
    std::printf("SERIALAPI: In WRITE, Port: %d Device Manager write failed, err: %d\n", port,
                static_cast<int>(iorb.err));
    return 0;
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
                        static_cast<int>(hold.result()));
            return kSemUnavail;
        }
        if (port_devids[port] != kClosed)
            return kAlreadyInUse;
        closeErr = StopPshSession(port);
        openErr = StartPshSession(port, *serialCfg);
    }
    ScriptResult("CLOSE", port, closeErr); // of an earlier run's session, maybe: it does not matter
    return ScriptResult("OPEN", port, openErr);
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
        return ScriptResult("CLOSE", port, StopPshSession(port));
    Int32 err = 0;
    {
        const SemaphoreHold hold(portdevids_lock);
        if (hold.result() != 0) {
            std::printf("SERIALAPI: In PSH CLOSE, Port: %d Mutex lock failed, err: %d\n", port,
                        static_cast<int>(hold.result()));
            return kSemUnavail;
        }
        err = StopPshSession(port);
    }
    return ScriptResult("CLOSE", port, err);
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
