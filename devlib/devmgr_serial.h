// Drivers of the serial ports: ordinary terminal devices (CPU serial) and the UARTs in the board's
// programmable logic (FPGA serial), registered in the device layer as "Ser", instances 1 to 8.
//
// Owner:   the eight port records live for the whole process.
// Locking: callbacks run in the port's asynchronous task while the application may read and write
//          in its own; whoever receives by callback does not read as well. The two share atomics (the
//          enables, which task serves the port) and the callbacks (copied under the interrupt lock).
//          Opening, closing and control requests of one port are for one task at a time; only a
//          callback of the port may make control requests meanwhile.
// Units:   time-outs in microseconds, 0: wait without limit.
//
// What a callback may do: read, write, and make control requests to any port. It may also stop its own port:
// disable both directions, set its callbacks to none, or dev_close a device that was not opened by the Serial
// API. The task then ends when the callback returns, and does not touch the descriptor again. If the callback
// enables the port again, the task goes on.
// Callbacks of one port never run at the same time. When another task stops or closes the port, no callback of
// that port runs any more when the call returns: a callback that waits is cancelled there, one that computes is
// waited for. The one exception is a callback that is itself stopping the port of the caller's callback: it goes on.
// A callback therefore must not wait for a task that stops or closes its port. While another task enables the port, a
// callback must not disable it: the two may undo each other.
// Opening and closing ports by the Serial API is not for callbacks; see there.
#pragma once

#include "Common/OS/dev.h"
#include "Common/types.h"

#include <atomic>

constexpr UInt32 kNumSerialPorts = 8;

// Device file of each port.
extern const char *const SerialPort_DevNames[kNumSerialPorts];

// What a driver stores in an IORB's err, and returns from open and close.
enum DevMgrSerial_error_t : UInt32 {
    SERIAL_NOERROR = 0,
    SERIAL_NOT_SUPPORTED = 1,
    SERIAL_INVALID_PARAM = 2,
    SERIAL_READ_ERROR = 3,
    SERIAL_WRITE_ERROR = 4,
    SERIAL_UNKNOWN_IOCTL = 5,
    SERIAL_TX_DISABLED = 6,
    SERIAL_RX_DISABLED = 7,
    SERIAL_TIMEOUT = 8,
    SERIAL_ERROR_UNKNOWN = 9,
};

// Control codes, and the member of DevmgrSerial_IoctlData_t that each one takes.
constexpr UInt32 kSerialConfigure = 1;    // serConfig
constexpr UInt32 kSerialSetCallbacks = 2; // CBInfo
constexpr UInt32 kSerialEnable = 3;       // PortStatus

// Bits of CtrlBitMask. No parity bit: no parity.
constexpr UInt32 kSerialRtsCts = 0x1;
constexpr UInt32 kSerialDtrDsr = 0x2;
constexpr UInt32 kSerialXonXoff = 0x4;
constexpr UInt32 kSerialParityEven = 0x8;
constexpr UInt32 kSerialParityOdd = 0x10;
constexpr UInt32 kSerialOneStopBit = 0x20;
constexpr UInt32 kSerialTwoStopBits = 0x40;
constexpr UInt32 kSerialDataBits5 = 0x80;
constexpr UInt32 kSerialDataBits6 = 0x100;
constexpr UInt32 kSerialDataBits7 = 0x200;
constexpr UInt32 kSerialDataBits8 = 0x400;

struct DevmgrSerial_Config_t {
    UInt32 CtrlBitMask;
    UInt32 BaudRate; // bits per second
};

// Combinable.
enum DevmgrSerial_Status_t : UInt32 {
    PORT_TX_ENABLE = 1,
    PORT_RX_ENABLE = 2,
    PORT_TX_DISABLE = 4,
    PORT_RX_DISABLE = 8,
};

// What a receive callback gets; the bytes are gone when it returns.
struct DevmgrSerial_CBdata_t {
    Int8 *buff;
    UInt32 NumBytes;
};

using DevmgrSerial_TxCallBackFunc_t = void (*)(void *context);             // the port takes more output
using DevmgrSerial_RxCallBackFunc_t = void (*)(void *context, void *data); // data: a DevmgrSerial_CBdata_t

struct DevmgrSerial_CBInfo_t {
    DevmgrSerial_TxCallBackFunc_t txCBFunc;
    DevmgrSerial_RxCallBackFunc_t rxCBFunc;
    void *Context_Data;
};

union DevmgrSerial_IoctlData_t {
    DevmgrSerial_Config_t serConfig;
    DevmgrSerial_CBInfo_t *CBInfo; // null: no callbacks
    DevmgrSerial_Status_t PortStatus;
};

enum SerialPortType_t : UInt32 { CPU_PORT = 0, FPGA_PORT = 1 };

// One port. devCB comes first: the device layer hands a DEVCB to the driver, which takes it for the
// whole record.
struct DevMgrSerial_CB_t {
    DEVCB devCB;               // fd: the open descriptor; instance: port + 1
    SerialPortType_t portType; // left at 0: the entry points carry the family
    DevmgrSerial_CBInfo_t cbInfo;
    std::atomic<UInt32> asyncThread_running; // 1 from the task's start until it is stopped, even if it ended before
    std::atomic<Int8> tx_enabled, rx_enabled;
    std::atomic<UInt32> threadID; // the asynchronous task; 0 when there is none, or when its wait failed
    UInt32 portnum;
    std::atomic<UInt32> servingID; // the task that may be in a callback: threadID, or one that its callback stopped
};

// The array of the eight port records; null before DevMgrSerial_Init.
extern DevMgrSerial_CB_t *CBList;

// The FPGA serial driver's own interface.
enum fpgaserial_parity_t : UInt32 {
    FPGASERIAL_PARITY_NONE = 0,
    FPGASERIAL_ODD_PARITY = 1,
    FPGASERIAL_EVEN_PARITY = 2,
    FPGASERIAL_INVALID_PARITY = 3,
};
enum fpgaserial_stopbits_t : UInt32 {
    FPGASERIAL_STOPBITS_1 = 0,
    FPGASERIAL_STOPBITS_2 = 1,
    FPGASERIAL_INVALID_STOPBITS = 2,
};
enum fpgaserial_flowctrl_t : UInt32 {
    FPGASERIAL_HWFLOWCTRL_NONE = 0,
    FPGASERIAL_HWFLOWCTRL_RTSCTS = 1,
    FPGASERIAL_HWFLOWCTRL_DTRDSR = 2,
    FPGASERIAL_INVALID_HWFLOWCTRL = 3,
};
enum fpgaserial_databits_t : UInt32 {
    FPGASERIAL_DATABITS_SIZE5 = 0,
    FPGASERIAL_DATABITS_SIZE6 = 1,
    FPGASERIAL_DATABITS_SIZE7 = 2,
    FPGASERIAL_DATABITS_SIZE8 = 3,
    FPGASERIAL_INVALID_DATABITSSIZE = 4,
};
struct fpgaserial_config_t {
    UInt32 valid_mask; // which of the fields below to apply, bit 0: baudrate
    UInt32 baudrate;   // bits per second
    fpgaserial_parity_t parity;
    fpgaserial_stopbits_t stopbits;
    fpgaserial_flowctrl_t hwflowctrl;
    fpgaserial_databits_t databits_size;
};
constexpr unsigned long kFpgaSerialSetConfig = 0x80260001; // argument: fpgaserial_config_t pointer
constexpr unsigned long kFpgaSerialDisableRx = 0x80260002; // argument: 0 enables, 1 disables reception

// Initialises the Serial API, then fills and registers the eight ports. A second call changes
// nothing. Returns the result of the last registration, 0.
UInt32 DevMgrSerial_Init();

// Entry points, called by the device layer only. open and close return a DevMgrSerial_error_t; the
// others store it in pIORB->err.
// close leaves the two families in different states on purpose: a CPU port forgets its callbacks
// and enables, an FPGA port keeps its context and its enables, so that a port enabled before it was
// closed can be written at once after it is opened again.
// read with a time-out returns what has arrived by then, nothing included, without an error.
// A null pIORB is a programming error and stops the program.
UInt32 DevMgrCPUSerial_Open(DEVCB *pDev);
UInt32 DevMgrCPUSerial_Close(DEVCB *pDev);
void DevMgrCPUSerial_Read(DEVCB *pDev, IORB *pIORB);
void DevMgrCPUSerial_Write(DEVCB *pDev, IORB *pIORB);
void DevMgrCPUSerial_Ioctl(DEVCB *pDev, IORB *pIORB);
UInt32 DevMgrFPGASerial_Open(DEVCB *pDev);
UInt32 DevMgrFPGASerial_Close(DEVCB *pDev);
void DevMgrFPGASerial_Read(DEVCB *pDev, IORB *pIORB);
void DevMgrFPGASerial_Write(DEVCB *pDev, IORB *pIORB);
void DevMgrFPGASerial_Ioctl(DEVCB *pDev, IORB *pIORB);

// Starts the asynchronous task "seri" of a port. The task hands received bytes to the receive callback and calls
// the transmit callback when the port takes output. Called by a callback of the port, it keeps the task that runs
// the callback. Stores in *pErr:
// SERIAL_NOERROR        the port has a task.
// SERIAL_ERROR_UNKNOWN  there is none; the reason is printed.
void DevMgrSerial_Start_AsyncThread(DevMgrSerial_CB_t *pPort, UInt32 *pErr);

// Deletes the port's task, if there is one, and waits for its end; a callback of the port ends its own task by
// returning. threadID and asyncThread_running are 0 afterwards. Returns the result of the deletion, 0.
UInt32 DevMgrSerial_Stop_AsyncThread(DevMgrSerial_CB_t *pPort);

// Body of the asynchronous task. portRecord designates the port's record, tid is the task's own identifier. It
// serves the port as long as threadID is tid. When it ends, also by a failed wait or by its deletion, threadID is
// no longer tid.
void DevMgrSerial_asyncDataSendRecv(UInt32 portRecord, UInt32 tid, UInt32, UInt32);

// Whether the caller is the asynchronous task of a port, and so runs a callback.
bool DevMgrSerial_InCallback();
