// Drivers of the serial ports. There are two families: ordinary terminal devices (CPU serial), and the UARTs in the
// board's programmable logic (FPGA serial). The device layer knows the ports as "Ser", instances 1 to 8.
//
// Owner:   the eight port records live as long as the process.
// Locking: callbacks run in the port's asynchronous task, while the application may read and write in its own. A task
//          that receives by callback does not read as well. The two tasks share atomics (the enables, and which task
//          serves the port) and the callbacks, which are copied under the interrupt lock. One task at a time opens,
//          closes and controls a port. Only a callback of the port may make control requests meanwhile.
// Units:   time-outs in microseconds. 0: wait without limit.
//
// A callback may read, write, and make control requests to any port. It may stop its own port in three ways: it
// disables both directions, it sets the port's callbacks to none, or it calls dev_close for a device that the Serial
// API has not opened. The task then ends when the callback returns, and does not touch the descriptor again. If the
// callback enables the port again, the task goes on.
//
// Callbacks of one port never run at the same time. When another task has stopped or closed the port, no callback of
// the port runs any more. A callback that waits is cancelled there. A callback that computes is waited for. There is
// one exception: a callback that is itself stopping the port of the caller's callback goes on.
// So a callback must not wait for a task that stops or closes its port. While another task enables the port, a callback
// must not disable it: each of the two may undo what the other did.
// Callbacks do not open or close ports by the Serial API; see there.
#pragma once

#include "Common/OS/dev.h"
#include "Common/types.h"

#include <atomic>

constexpr UInt32 kNumSerialPorts = 8;

// The device file of each port.
extern const char *const SerialPort_DevNames[kNumSerialPorts];

// What a driver stores in the err of an IORB, and returns from open and close.
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

// Control codes, and the member of DevmgrSerial_IoctlData_t that each takes.
constexpr UInt32 kSerialConfigure = 1;    // serConfig
constexpr UInt32 kSerialSetCallbacks = 2; // CBInfo
constexpr UInt32 kSerialEnable = 3;       // PortStatus

// Bits of CtrlBitMask. Without a parity bit there is no parity.
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

// Bits, which can be combined.
enum DevmgrSerial_Status_t : UInt32 {
    PORT_TX_ENABLE = 1,
    PORT_RX_ENABLE = 2,
    PORT_TX_DISABLE = 4,
    PORT_RX_DISABLE = 8,
};

// What a receive callback gets. The bytes are gone when the callback returns.
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

// One port. devCB comes first, because the device layer hands a DEVCB to the driver, which takes it for the whole
// record.
struct DevMgrSerial_CB_t {
    DEVCB devCB;               // fd: the open descriptor; instance: port + 1
    SerialPortType_t portType; // always 0: the entry points tell the family
    DevmgrSerial_CBInfo_t cbInfo;
    std::atomic<UInt32> asyncThread_running; // 1 from the start of the task until it is stopped, even if it ends before
    std::atomic<Int8> tx_enabled, rx_enabled;
    std::atomic<UInt32> threadID; // the asynchronous task; 0 when there is none, or when its wait failed
    UInt32 portnum;
    std::atomic<UInt32> servingID; // the task that may be in a callback: threadID, or a task that its callback stopped
};

// The eight port records. Null before DevMgrSerial_Init.
extern DevMgrSerial_CB_t *CBList;

// The interface of the FPGA serial driver.
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

// Initialises the Serial API, then fills in and registers the eight ports. A second call changes nothing. Returns the
// result of the last registration, which is 0.
UInt32 DevMgrSerial_Init();

// Entry points, which only the device layer calls. open and close return a DevMgrSerial_error_t. The others store one
// in pIORB->err. A null pIORB stops the program.
// - close leaves the two families in different states on purpose. A CPU port forgets its callbacks and its enables. An
//   FPGA port keeps its context and its enables, so that it can be written at once after it is opened again.
// - A read with a time-out returns what has come by then, even if nothing has come. That is no error.
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

// Starts the asynchronous task "seri" of a port. The task hands received bytes to the receive callback. It calls the
// transmit callback when the port takes output. If a callback of the port makes the call, the task that runs the
// callback stays. Stores in *pErr:
// SERIAL_NOERROR        the port has a task.
// SERIAL_ERROR_UNKNOWN  the port has no task. The reason is printed.
void DevMgrSerial_Start_AsyncThread(DevMgrSerial_CB_t *pPort, UInt32 *pErr);

// Deletes the port's task, if there is one, and waits for its end. A callback of the port ends its own task by
// returning. threadID and asyncThread_running are 0 afterwards. Returns the result of the deletion, which is 0.
UInt32 DevMgrSerial_Stop_AsyncThread(DevMgrSerial_CB_t *pPort);

// Body of the asynchronous task. portRecord is the identifier of the port's record, tid is that of the task itself. The
// task serves the port as long as threadID is tid. When it ends, threadID is no longer tid. That holds also after a
// failed wait, and after its deletion.
void DevMgrSerial_asyncDataSendRecv(UInt32 portRecord, UInt32 tid, UInt32, UInt32);

// Whether the caller is the asynchronous task of a port, so that it runs a callback.
bool DevMgrSerial_InCallback();
