// The numbered serial ports 0 to 7: the only door from application code to a port.
//
// Order:   Serial_Open, Serial_Enable, any number of reads and writes, Serial_Disable, Serial_Close.
// Locking: the semaphore "SERI" lets one task at a time open or close a port, or hand it to the port script. Reads,
//          writes, enables and disables do not take it: nobody may close a port that is in use. A close holds it until
//          a running callback of the port has returned.
// Units:   microseconds. 0: no limit.
// Errors:  failures of the driver, the port script and the semaphore are printed to standard output. Every call returns
//          kBadParameter for a port above 7. A negative port stops the program.
//
// A callback may call Serial_Read, Serial_Write, Serial_Enable, Serial_Disable and Serial_GetCfg, also for its own
// port. It may disable both directions and enable them again. Every call that takes "SERI" refuses a callback, whatever
// its port: Serial_Open, Serial_Close, Serial_Open_PSH, Serial_Close_PSH and Serial_Stop_PSHSession return kBadState,
// and Serial_Lock_PortDevids returns kSmNotAvailable. The reason: a task that closes the callback's port holds "SERI"
// and waits for the callback. A callback that wants its port closed tells a task, and does not wait for it.
#pragma once

#include "Common/types.h"
#include "devlib/devmgr_serial.h"

enum SerialBaudRateType : UInt32 {
    SERIAL_BAUDRATE_115200 = 0,
    SERIAL_BAUDRATE_57600 = 1,
    SERIAL_BAUDRATE_38400 = 2,
    SERIAL_BAUDRATE_19200 = 3,
    SERIAL_BAUDRATE_14400 = 4,
    SERIAL_BAUDRATE_9600 = 5,
    SERIAL_BAUDRATE_4800 = 6,
    SERIAL_BAUDRATE_2400 = 7,
    SERIAL_BAUDRATE_1200 = 8,
    SERIAL_BAUDRATE_NONE = 9,
};
enum SerialDataBitsType : UInt32 {
    SERIAL_DATABITS_5 = 0,
    SERIAL_DATABITS_6 = 1,
    SERIAL_DATABITS_7 = 2,
    SERIAL_DATABITS_8 = 3,
    SERIAL_DATABITS_NONE = 4,
};
enum SerialParityType : UInt32 {
    SERIAL_PARITY_EVEN = 0,
    SERIAL_PARITY_ODD = 1,
    SERIAL_PARITY_NO = 2,
    SERIAL_PARITY_NONE = 3, // not a setting: refused
};
enum SerialStopBitsType : UInt32 {
    SERIAL_STOPBITS_1 = 0,
    SERIAL_STOPBITS_1_5 = 1,
    SERIAL_STOPBITS_2 = 2,
    SERIAL_STOPBITS_NONE = 3,
};
enum SerialDirectionType : UInt32 {
    SERIAL_DIRECTION_RX = 0,
    SERIAL_DIRECTION_TX = 1,
    SERIAL_DIRECTION_BOTH = 2,
    SERIAL_DIRECTION_NONE = 3,
};

// Settings of a port. If several flow controls are set, the driver gets the first of these: RTS/CTS, XON/XOFF, DTR/DSR.
// The port script gets the first of these: DTR/DSR, RTS/CTS, XON/XOFF.
struct rs232_cfg_t {
    SerialBaudRateType bitRate;
    SerialDataBitsType dataBits;
    SerialParityType parityBits;
    SerialStopBitsType stopBits;
    Bool hwFlowControlDtrDsr;
    Bool hwFlowControlRtsCts;
    Bool swFlowControlXonXoff;
};
using RS232Cfg = rs232_cfg_t;

// Callbacks, which go to the driver. The data of the receive callback is a SerialCallbackData.
struct SerialCallbackData {
    Int8 *buff;
    UInt32 size;
};
using SerialTxCallbackFuncPtrT = DevmgrSerial_TxCallBackFunc_t;
using SerialRxCallbackFuncPtrT = DevmgrSerial_RxCallBackFunc_t;

// The names of the ports for the port script "./config_port".
extern const char *const Serilport_ttynames[kNumSerialPorts];

// DevMgrSerial_Init calls it once. On any board but the Kora board it closes the script's sessions on ports 2 and 3.
void Serial_Init();

// Opens and configures a port. The callbacks may be null. A device that does not open is tried ten times, 2 ticks
// apart.
// kNoError        the port is open.
// kBadParameter   the port is above 7, or the settings are null. Nothing has changed.
// kBadState       the caller is a callback. Nothing has changed.
// kSemUnavail     the semaphore failed. Nothing has changed.
// kAlreadyInUse   the port is open already. Nothing has changed.
// kBadParameter   the settings are impossible. The port is closed.
// kItemNotFound   all ten tries failed. The port is closed.
// anything else   the driver refused; Serial_Get_AppErr makes the code. The port is closed.
// If the calling task is deleted in the call, the port is closed too.
eErrorT Serial_Open(int port, SerialTxCallbackFuncPtrT txCallbackFuncPtr, SerialRxCallbackFuncPtrT rxCallbackFuncPtr,
                    void *rxCallbackContext, const RS232Cfg *serialCfg);

// Closes a port. The result of closing the device file is ignored.
// kNoError       closed.
// kBadParameter  the port is above 7.
// kBadState      the caller is a callback. Nothing has changed.
// kSemUnavail    the semaphore failed.
// kItemNotFound  the port is not open.
eErrorT Serial_Close(int port);

// Enable and disable sending, receiving or both. The single directions of Serial_Disable are crossed, and users count
// on it: RX ends sending, TX ends receiving.
// kNoError       done. If the script owns the port, nothing is done.
// kBadParameter  the port is above 7, or the direction is none of the three.
// kItemNotFound  the port is not open.
// anything else  the driver refused.
eErrorT Serial_Enable(int port, SerialDirectionType serialDir);
eErrorT Serial_Disable(int port, SerialDirectionType serialDir);

// Move bytes in the calling thread. The port stays open.
// - They return how many bytes were moved. A short write is not continued.
// - A read returns what has come when its time is up. That is no error. A write whose time is up is an error.
// - They return 0 after an error of the driver, which is printed.
// - They return -3 for a port above 7 or a null buffer, and -25 for a port that is not open.
int Serial_Read(int port, char *readBuf, int readSize, int numOfMicroseconds);
int Serial_Write(int port, const char *writeBuf, int writeSize, int numOfMicroseconds);

// Returns the result code for an error of the driver, and prints its text. Any other number gives kNoError and prints
// nothing.
eErrorT Serial_Get_AppErr(DevMgrSerial_error_t sererr);

// Take the lock of the port table, and give it back. They return the result of the semaphore call. Taking it returns
// kSmNotAvailable to a callback.
UInt32 Serial_Lock_PortDevids();
UInt32 Serial_Unlock_PortDevids();

// ---- Ports that the script "./config_port" runs (PSH sessions)

// Hands a closed port to the script.
// kNoError           the script has the port.
// kBadParameter      the port is above 7, or the settings are null.
// kBadState          the caller is a callback. Nothing has changed.
// kSemUnavail        the semaphore failed.
// kAlreadyInUse      the port is open, or the script has it already.
// kSystemCallFailed  the script failed. The port is closed.
eErrorT Serial_Open_PSH(int port, const RS232Cfg *serialCfg);

// Take a port back from the script. They are only for ports that Serial_Open has not opened. port_locked: the caller
// has the lock of the port table.
// kNoError           taken back.
// kBadParameter      the port is above 7.
// kBadState          the caller is a callback. Nothing has changed.
// kSemUnavail        the semaphore failed.
// kSystemCallFailed  the script failed.
eErrorT Serial_Close_PSH(int port);
eErrorT Serial_Stop_PSHSession(int port, int port_locked);

// Stores the caller's record as the port's settings, in spite of its name.
// kNoError       stored.
// kBadParameter  the port is above 7, or the record is null.
// kItemNotFound  the port is neither open nor run by the script.
eErrorT Serial_GetCfg(int port, const RS232Cfg *cfgPtr);
