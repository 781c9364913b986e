// The numbered serial ports 0 to 7: the only door through which application code reaches a port.
//
// Order:   Serial_Open, Serial_Enable, any number of reads and writes, Serial_Disable, Serial_Close.
// Locking: the semaphore "SERI" serialises opening, closing and hand-over to the port script. Reads,
//          writes, enables and disables do not take it: nobody may close a port that is in use.
//          Closing holds it until a callback of the port that is running has returned.
// Callbacks: a callback may call Serial_Read, Serial_Write, Serial_Enable, Serial_Disable and Serial_GetCfg, also
//          for its own port; it may disable both directions, and enable again. What takes "SERI" is refused with
//          kBadState to every callback, of whatever port: Serial_Open, Serial_Close, Serial_Open_PSH,
//          Serial_Close_PSH, Serial_Stop_PSHSession; Serial_Lock_PortDevids answers kSmNotAvailable. Whoever
//          closes the callback's port holds "SERI" while waiting for the callback, and the callback would wait
//          for "SERI". A callback that wants its port closed tells a task, and does not wait for it.
// Units:   microseconds; 0: no time limit.
// Failures of the driver, the port script and the semaphore are printed on standard output. A port number
// above 7 gives kBadParameter everywhere; a negative one is a programming error and stops the program.
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

// Settings of a port. Of several flow controls one is used: RTS/CTS, else XON/XOFF, else DTR/DSR.
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

// Callbacks, passed through to the driver. The receive callback's data is a SerialCallbackData.
struct SerialCallbackData {
    Int8 *buff;
    UInt32 size;
};
using SerialTxCallbackFuncPtrT = DevmgrSerial_TxCallBackFunc_t;
using SerialRxCallbackFuncPtrT = DevmgrSerial_RxCallBackFunc_t;

// Names by which the port script "./config_port" knows the ports.
extern const char *const Serilport_ttynames[kNumSerialPorts];

// Called once, by DevMgrSerial_Init. On any board but the Kora board it closes the script's
// sessions on ports 2 and 3.
void Serial_Init();

// Opens and configures a port; callbacks may be null. A device that does not open is tried ten
// times, 2 ticks apart. Returns kNoError; kBadParameter (port, null or impossible settings); kBadState
// to a callback; kSemUnavail; kAlreadyInUse at once when the port is open; kItemNotFound when all ten
// tries failed; or the driver's refusal as Serial_Get_AppErr maps it. kAlreadyInUse, kBadState,
// kSemUnavail, a bad port and null settings leave everything as it was; after the other failures, and
// when the calling task is deleted, the port is closed.
eErrorT Serial_Open(int port, SerialTxCallbackFuncPtrT txCallbackFuncPtr, SerialRxCallbackFuncPtrT rxCallbackFuncPtr,
                    void *rxCallbackContext, const RS232Cfg *serialCfg);

// Returns kNoError, kBadParameter, kBadState to a callback (nothing is touched), kSemUnavail, or
// kItemNotFound when the port is not open. What closing the device file returns is ignored.
eErrorT Serial_Close(int port);

// Enable and disable sending, receiving or both. Return kNoError, also without effect while the
// script owns the port; kBadParameter; kItemNotFound when the port is not open; or the driver's
// refusal. The single directions of Serial_Disable are crossed: RX ends sending, TX receiving; users
// count on it.
eErrorT Serial_Enable(int port, SerialDirectionType serialDir);
eErrorT Serial_Disable(int port, SerialDirectionType serialDir);

// Move bytes in the calling thread and return how many; 0 after a driver error (printed), -3 or
// -25 for a bad call. A read returns what has arrived when its time is up, without an error; a write
// whose time is up is an error. A short write is not continued. The port stays open.
int Serial_Read(int port, char *readBuf, int readSize, int numOfMicroseconds);
int Serial_Write(int port, const char *writeBuf, int writeSize, int numOfMicroseconds);

// Maps a driver error to a result code and prints its text. Anything that is none gives kNoError
// and prints nothing.
eErrorT Serial_Get_AppErr(DevMgrSerial_error_t sererr);

// Take and give the lock of the port table. Return the semaphore call's result; taking it returns
// kSmNotAvailable to a callback.
UInt32 Serial_Lock_PortDevids();
UInt32 Serial_Unlock_PortDevids();

// ---- Ports run by the script "./config_port" (PSH sessions)

// Hands a closed port to the script. Returns kNoError, kBadParameter, kBadState to a callback,
// kSemUnavail, kAlreadyInUse, or kSystemCallFailed with the port closed.
eErrorT Serial_Open_PSH(int port, const RS232Cfg *serialCfg);

// Take a port back from the script; only for ports that are not open through Serial_Open. Return
// kNoError, kBadParameter, kBadState to a callback (nothing is touched), kSemUnavail or
// kSystemCallFailed. port_locked: the caller has the lock.
eErrorT Serial_Close_PSH(int port);
eErrorT Serial_Stop_PSHSession(int port, int port_locked);

// Despite its name it stores the caller's record as the port's settings. Returns kNoError,
// kBadParameter or kItemNotFound.
eErrorT Serial_GetCfg(int port, const RS232Cfg *cfgPtr);
