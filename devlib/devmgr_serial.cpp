#include "devlib/devmgr_serial.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/osassert.h"
#include "devlib/serialapi.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

// The numbering of the device files jumps from 1 to 4 on purpose: it is the board's wiring.
const char *const SerialPort_DevNames[kNumSerialPorts] = {
    "/dev/fpgaserial0", "/dev/fpgaserial1", "/dev/fpgaserial4", "/dev/fpgaserial5",
    "/dev/ttyS1",       "/dev/fpgaserial6", "/dev/ttyUSB0",     "/dev/ttyUSB1",
};

DevMgrSerial_CB_t *CBList;

namespace
{

constexpr char kFpgaDevicePrefix[] = "/dev/fpgaserial";
constexpr int kSpeedTries = 5;
constexpr UInt32 kAsyncPriority = 19;
constexpr UInt32 kAsyncStack = 8192;
constexpr UInt32 kAsyncPollMicroseconds = 5000;
constexpr std::size_t kAsyncBufferSize = 256;
constexpr UInt32 kFpgaMinBaudRate = 9600;
constexpr UInt32 kFpgaMaxBaudRate = 115200;
constexpr UInt32 kFpgaRateAndParity = 3; // valid_mask
constexpr UInt32 kFpgaAllFields = 31;
constexpr UInt32 kLastFixedFormatInstance = 2; // instances 1 and 2 take rate and parity only

struct LineSpeedRow {
    UInt32 baudRate;
    speed_t speed;
};
constexpr LineSpeedRow kLineSpeeds[] = {
    {1200, B1200},   {2400, B2400},   {4800, B4800},   {9600, B9600},
    {14400, B19200}, // deliberate: the terminal interface has no 14400
    {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200},
};
constexpr speed_t kDefaultLineSpeed = B9600;

// What the bits of CtrlBitMask mean to each family. The first row whose bit is set counts, else the
// last one.
struct DataBitsRow {
    UInt32 bit;
    tcflag_t lineFlags;
    fpgaserial_databits_t fpgaCode;
};
constexpr DataBitsRow kDataBits[] = {
    {kSerialDataBits5, CS5, FPGASERIAL_DATABITS_SIZE5},
    {kSerialDataBits6, CS6, FPGASERIAL_DATABITS_SIZE6},
    {kSerialDataBits7, CS7, FPGASERIAL_DATABITS_SIZE7},
    {kSerialDataBits8, CS8, FPGASERIAL_DATABITS_SIZE8},
};
struct ParityRow {
    UInt32 bit;
    tcflag_t lineFlags;
    fpgaserial_parity_t fpgaCode;
};
constexpr ParityRow kParities[] = {
    {kSerialParityEven, PARENB, FPGASERIAL_EVEN_PARITY},
    {kSerialParityOdd, PARENB | PARODD, FPGASERIAL_ODD_PARITY},
    {0, 0, FPGASERIAL_PARITY_NONE},
};
struct StopBitsRow {
    UInt32 bit;
    tcflag_t lineFlags;
    fpgaserial_stopbits_t fpgaCode;
};
constexpr StopBitsRow kStopBits[] = {
    {kSerialTwoStopBits, CSTOPB, FPGASERIAL_STOPBITS_2},
    {kSerialOneStopBit, 0, FPGASERIAL_STOPBITS_1},
};
struct FlowControlRow {
    UInt32 bit;
    tcflag_t lineFlags;
    tcflag_t inputFlags;
};
constexpr FlowControlRow kFlowControls[] = {
    {kSerialRtsCts | kSerialDtrDsr, CRTSCTS, 0}, // DTR/DSR is served by RTS/CTS
    {kSerialXonXoff, 0, IXON | IXOFF},
    {0, 0, 0},
};

template <class Row, std::size_t count> constexpr const Row &SelectRow(const Row (&rows)[count], UInt32 ctrlBitMask)
{
    for (const Row &row : rows)
        if ((ctrlBitMask & row.bit) != 0)
            return row;
    return rows[count - 1];
}

static_assert(offsetof(DevMgrSerial_CB_t, devCB) == 0);
DevMgrSerial_CB_t *PortOf(DEVCB *pDev)
{
    return reinterpret_cast<DevMgrSerial_CB_t *>(pDev);
}

// The control record that a request's buffer holds; it need not be aligned as the record would be.
template <class Record> Record ControlRecord(const IORB *pIORB)
{
    Record record;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the record of the callbacks request is a pointer
    std::memcpy(&record, pIORB->pBuffer, sizeof record);
    return record;
}

// The signed conversion makes a count above 2^31 invalid on every host, as it is on a 32-bit one.
timeval Microseconds(UInt32 count)
{
    return {0, static_cast<Int32>(count)};
}

// Before the wait: what to wait for. After it: what the port is ready for.
struct ReadinessT {
    bool read;
    bool write;
};

// select() on one descriptor; pLimit gets the remaining time. Returns select's result, and -1 for a
// descriptor that no set can hold.
int WaitForPort(Int32 fd, ReadinessT *pReadiness, timeval *pLimit)
{
    if (fd < 0 || fd >= FD_SETSIZE)
        return -1;
    fd_set readSet;
    fd_set writeSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    if (pReadiness->read)
        FD_SET(fd, &readSet);
    if (pReadiness->write)
        FD_SET(fd, &writeSet);
    const int ready = select(fd + 1, &readSet, pReadiness->write ? &writeSet : nullptr, nullptr, pLimit);
    pReadiness->read = ready > 0 && FD_ISSET(fd, &readSet);
    pReadiness->write = ready > 0 && FD_ISSET(fd, &writeSet);
    return ready;
}

// ---- Opening, closing, reading and writing: the same for both families

// Returns the descriptor, negative when the device file cannot be opened.
int OpenPort(DEVCB *pDev)
{
    const int fd = open(SerialPort_DevNames[pDev->instance - 1], O_RDWR);
    if (fd >= 0) {
        pDev->fd = fd;
        pDev->state = kDevStateOpen;
        pDev->numOpens++;
    }
    return fd;
}

// The asynchronous task goes first: it would fail on the closed descriptor, or on whatever file gets
// the same number next. fd is kept. A closing task that is deleted closes the port whole: half-way the next
// close would be of somebody else's descriptor.
UInt32 ClosePort(DEVCB *pDev)
{
    if (pDev == nullptr || pDev->fd < 0)
        return SERIAL_INVALID_PARAM;
    const CancelOffHold whole;
    DevMgrSerial_Stop_AsyncThread(PortOf(pDev));
    close(pDev->fd);
    pDev->state = 0;
    pDev->numCloses++;
    return SERIAL_NOERROR;
}

// A port that is readable but cannot be read, such as one that hung up, costs select no time: without this
// the time limit would not run down.
void PauseAfterFailure(timeval *remaining)
{
    constexpr Int64 kPause = 1000, kSecond = 1000000; // microseconds
    constexpr timespec kNap = {0, kPause * 1000};
    nanosleep(&kNap, nullptr);
    const Int64 left = std::max<Int64>(Int64{remaining->tv_sec} * kSecond + remaining->tv_usec - kPause, 0);
    *remaining = {static_cast<Int32>(left / kSecond), static_cast<Int32>(left % kSecond)};
}

// Returns how many bytes arrived in time.
UInt32 ReadWithin(Int32 fd, char *pBuffer, UInt32 size, UInt32 timeout)
{
    timeval remaining = Microseconds(timeout);
    UInt32 got = 0;
    // Deliberately only the microseconds: a wait that leaves whole seconds exactly ends the read
    // with what it has. Looking at the seconds as well would change how long the updater listens.
    while (remaining.tv_usec > 0 && got < size) {
        ReadinessT readiness = {true, false};
        if (WaitForPort(fd, &readiness, &remaining) < 1)
            break;
        const ssize_t result = read(fd, pBuffer + got, size - got);
        if (result > 0)
            got += static_cast<UInt32>(result);
        else
            PauseAfterFailure(&remaining);
    }
    return got;
}

// Returns the result of the system call of a read without time-out.
ssize_t ReadPort(const DEVCB *pDev, IORB *pIORB)
{
    os_assert(pIORB != nullptr, "pIORB");
    if (pDev == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return 0;
    }
    pIORB->err = SERIAL_NOERROR;
    if (pIORB->timeout != 0) {
        pIORB->actLen = ReadWithin(pDev->fd, pIORB->pBuffer, pIORB->reqLen, pIORB->timeout);
        return 0;
    }
    const ssize_t result = read(pDev->fd, pIORB->pBuffer, pIORB->reqLen);
    pIORB->actLen = result < 1 ? 0 : static_cast<UInt32>(result);
    if (result < 1)
        pIORB->err = SERIAL_READ_ERROR;
    return result;
}

UInt32 WaitUntilWritable(Int32 fd, UInt32 timeout)
{
    if (timeout == 0)
        return SERIAL_NOERROR;
    timeval limit = Microseconds(timeout);
    ReadinessT readiness = {false, true};
    const int ready = WaitForPort(fd, &readiness, &limit);
    if (ready < 0)
        return SERIAL_WRITE_ERROR;
    return ready == 0 ? SERIAL_TIMEOUT : SERIAL_NOERROR;
}

void WritePort(DEVCB *pDev, IORB *pIORB)
{
    os_assert(pIORB != nullptr, "pIORB");
    if (pDev == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return;
    }
    if (PortOf(pDev)->tx_enabled == 0) {
        pIORB->err = SERIAL_TX_DISABLED;
        return;
    }
    pIORB->actLen = 0;
    pIORB->err = WaitUntilWritable(pDev->fd, pIORB->timeout);
    if (pIORB->err != SERIAL_NOERROR)
        return;
    const ssize_t result = write(pDev->fd, pIORB->pBuffer, pIORB->reqLen);
    if (result > 0)
        pIORB->actLen = static_cast<UInt32>(result);
    else
        pIORB->err = SERIAL_WRITE_ERROR;
}

// ---- Callbacks and the asynchronous task

DevmgrSerial_CBInfo_t Callbacks(const DevMgrSerial_CB_t *pPort)
{
    const InterruptsOffHold hold;
    return pPort->cbInfo;
}

void StoreCallbacks(DevMgrSerial_CB_t *pPort, const DevmgrSerial_CBInfo_t &cbInfo)
{
    const InterruptsOffHold hold;
    pPort->cbInfo = cbInfo;
}

// Control code 2 of both families.
void SetCallbacks(DevMgrSerial_CB_t *pPort, IORB *pIORB)
{
    const auto *pCBInfo = ControlRecord<const DevmgrSerial_CBInfo_t *>(pIORB);
    if (pCBInfo == nullptr) {
        DevMgrSerial_Stop_AsyncThread(pPort);
        StoreCallbacks(pPort, {});
        return;
    }
    StoreCallbacks(pPort, *pCBInfo);
    if (pPort->asyncThread_running == 0 && (pPort->tx_enabled == 1 || pPort->rx_enabled == 1))
        DevMgrSerial_Start_AsyncThread(pPort, &pIORB->err);
}

// The end of control code 3 of both families: wanted says whether an enabled port needs the task.
void StartOrStopAsyncThread(DevMgrSerial_CB_t *pPort, bool wanted, UInt32 *pErr)
{
    if (pPort->tx_enabled == 0 && pPort->rx_enabled == 0)
        DevMgrSerial_Stop_AsyncThread(pPort);
    else if (pPort->asyncThread_running == 0 && wanted)
        DevMgrSerial_Start_AsyncThread(pPort, pErr);
}

// Sending is gated in software only.
void SwitchTransmitter(DevMgrSerial_CB_t *pPort, UInt32 portStatus)
{
    if ((portStatus & PORT_TX_ENABLE) != 0)
        pPort->tx_enabled = 1;
    else if ((portStatus & PORT_TX_DISABLE) != 0)
        pPort->tx_enabled = 0;
}

// The port that the calling task serves, if it is an asynchronous task, and the task's identifier.
thread_local const DevMgrSerial_CB_t *servedPort;
thread_local UInt32 servingTask;

// Whether the calling task still serves the port. Once a callback has stopped it the descriptor is not ours:
// it may be closed, and its number be another file's.
bool StillServing(const DevMgrSerial_CB_t *pPort)
{
    return pPort->threadID == servingTask;
}

void ClearIf(std::atomic<UInt32> *pWord, UInt32 value)
{
    pWord->compare_exchange_strong(value, 0);
}

// A task's service of a port. Whatever ends it, its deletion included, the record forgets the task: nobody may
// delete a stranger by an identifier that was left there.
class ServiceHold
{
public:
    ServiceHold(DevMgrSerial_CB_t *pPort, UInt32 tid) : pPort_(pPort)
    {
        servedPort = pPort;
        servingTask = tid;
    }
    ~ServiceHold()
    {
        ClearIf(&pPort_->threadID, servingTask);
        ClearIf(&pPort_->servingID, servingTask);
        servedPort = nullptr;
    }
    ServiceHold(const ServiceHold &) = delete;
    ServiceHold &operator=(const ServiceHold &) = delete;

private:
    DevMgrSerial_CB_t *pPort_;
};

// A task that its callback stopped is in that callback until it returns. Its successor waits for that, so that
// callbacks of one port never run at the same time.
void AwaitTurn(DevMgrSerial_CB_t *pPort)
{
    UInt32 former = 0;
    while (StillServing(pPort) && !pPort->servingID.compare_exchange_strong(former, servingTask)) {
        tm_wkafter(1);
        former = 0;
    }
}

// Returns false, with the reason printed, when the task cannot be started.
bool StartAsyncTask(DevMgrSerial_CB_t *pPort)
{
    UInt32 tid = 0;
    if (t_create("seri", kAsyncPriority, kAsyncStack, kAsyncStack, 0, &tid) != 0) {
        std::puts("DevMgrCPUSerial_Start_AsyncThread(): Async thread create error");
        return false;
    }
    pPort->threadID = tid; // before the task runs, which looks for itself there
    // t_start copies them, so no two ports ever share a set.
    const UInt32 asyncTask_Args[4] = {low_id(pPort), tid};
    if (t_start(tid, 0, DevMgrSerial_asyncDataSendRecv, asyncTask_Args) == 0)
        return true;
    std::puts("DevMgrCPUSerial_Start_AsyncThread(): Async thread start error");
    pPort->threadID = 0;
    t_delete(tid);
    return false;
}

// t_delete takes 0 for the caller.
UInt32 DeleteIfAny(UInt32 tid)
{
    return tid != 0 ? t_delete(tid) : 0;
}

// Returns false when there was nothing to read after all.
bool DeliverInput(const DevMgrSerial_CB_t *pPort)
{
    Int8 buffer[kAsyncBufferSize];
    const ssize_t result = read(pPort->devCB.fd, buffer, sizeof buffer);
    if (result < 1)
        return false;
    const DevmgrSerial_CBInfo_t callbacks = Callbacks(pPort);
    if (callbacks.rxCBFunc != nullptr) {
        DevmgrSerial_CBdata_t data = {buffer, static_cast<UInt32>(result)};
        callbacks.rxCBFunc(callbacks.Context_Data, &data);
    }
    return true;
}

// One pass of the asynchronous task. Returns false when the wait failed.
bool ServePort(const DevMgrSerial_CB_t *pPort)
{
    timeval limit = Microseconds(kAsyncPollMicroseconds);
    ReadinessT readiness = {pPort->rx_enabled == 1, Callbacks(pPort).txCBFunc != nullptr && pPort->tx_enabled == 1};
    if (WaitForPort(pPort->devCB.fd, &readiness, &limit) < 0)
        return false;
    if (readiness.read && !DeliverInput(pPort))
        return true;
    if (readiness.write && StillServing(pPort)) {
        const DevmgrSerial_CBInfo_t callbacks = Callbacks(pPort);
        if (callbacks.txCBFunc != nullptr && pPort->tx_enabled == 1)
            callbacks.txCBFunc(callbacks.Context_Data);
    }
    return true;
}

// ---- Control requests of the CPU serial driver

speed_t LineSpeed(UInt32 baudRate)
{
    for (const LineSpeedRow &row : kLineSpeeds)
        if (row.baudRate == baudRate)
            return row.speed;
    return kDefaultLineSpeed;
}

// Raw mode as the board uses it; the control characters and the extended-input flag stay as read.
// The receiver is off until reception is enabled.
void SetLineFormat(termios *pSettings, UInt32 ctrlBitMask)
{
    constexpr tcflag_t kEchoFlags = ECHO | ECHOE | ECHOK | ECHONL | ECHOCTL | ECHOPRT | ECHOKE;
#ifdef XCASE
    constexpr tcflag_t kUpperCaseMapping = XCASE;
#else
    constexpr tcflag_t kUpperCaseMapping = 0;
#endif
    const FlowControlRow &flowControl = SelectRow(kFlowControls, ctrlBitMask);
    pSettings->c_iflag = flowControl.inputFlags;
    pSettings->c_oflag &= ~static_cast<tcflag_t>(OPOST);
    pSettings->c_lflag &= ~(ICANON | ISIG | kUpperCaseMapping | kEchoFlags);
    pSettings->c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS | CREAD);
    pSettings->c_cflag |= SelectRow(kDataBits, ctrlBitMask).lineFlags | SelectRow(kParities, ctrlBitMask).lineFlags |
                          SelectRow(kStopBits, ctrlBitMask).lineFlags | flowControl.lineFlags;
}

bool SetLineSpeed(termios *pSettings, speed_t speed)
{
    for (int attempt = 0; attempt < kSpeedTries; attempt++) {
        if (cfsetispeed(pSettings, speed) != 0)
            std::printf("DevMgrCPUSerial_Ioctl(): Setting IN Baudrate failed...Try: %d\n", attempt);
        else if (cfsetospeed(pSettings, speed) != 0)
            std::printf("DevMgrCPUSerial_Ioctl(): Setting OUT Baudrate failed...Try: %d\n", attempt);
        else
            return true;
    }
    return false;
}

UInt32 ConfigureLine(const DEVCB *pDev, termios *pSettings, const DevmgrSerial_Config_t &config)
{
    SetLineFormat(pSettings, config.CtrlBitMask);
    if (!SetLineSpeed(pSettings, LineSpeed(config.BaudRate)))
        return SERIAL_ERROR_UNKNOWN;
    if (tcsetattr(pDev->fd, TCSANOW, pSettings) != 0) {
        std::puts("DevMgrCPUSerial_Ioctl(): Setting terminal options failed...");
        return SERIAL_ERROR_UNKNOWN;
    }
    return SERIAL_NOERROR;
}

void EnableLine(DevMgrSerial_CB_t *pPort, termios *pSettings, UInt32 portStatus, UInt32 *pErr)
{
    if ((portStatus & PORT_RX_ENABLE) != 0) {
        pSettings->c_cflag |= CREAD;
        pPort->rx_enabled = 1;
    } else if ((portStatus & PORT_RX_DISABLE) != 0) {
        pSettings->c_cflag &= ~static_cast<tcflag_t>(CREAD);
        pPort->rx_enabled = 0;
    }
    SwitchTransmitter(pPort, portStatus);
    if (tcsetattr(pPort->devCB.fd, TCSANOW, pSettings) != 0) {
        *pErr = SERIAL_ERROR_UNKNOWN;
        return;
    }
    // Deliberately without a look at the callbacks: the task also drains a port that has none.
    StartOrStopAsyncThread(pPort, pPort->tx_enabled == 1 || pPort->rx_enabled == 1, pErr);
}

// ---- Control requests of the FPGA serial driver

UInt32 ConfigureFpga(const DEVCB *pDev, const DevmgrSerial_Config_t &config)
{
    if (config.BaudRate < kFpgaMinBaudRate || config.BaudRate > kFpgaMaxBaudRate)
        return SERIAL_INVALID_PARAM;
    fpgaserial_config_t fpgaConfig{}; // no flow control: those bits are not for this driver
    fpgaConfig.valid_mask = kFpgaRateAndParity;
    fpgaConfig.baudrate = config.BaudRate;
    fpgaConfig.parity = SelectRow(kParities, config.CtrlBitMask).fpgaCode;
    if (pDev->instance > kLastFixedFormatInstance) {
        fpgaConfig.valid_mask = kFpgaAllFields;
        fpgaConfig.databits_size = SelectRow(kDataBits, config.CtrlBitMask).fpgaCode;
        fpgaConfig.stopbits = SelectRow(kStopBits, config.CtrlBitMask).fpgaCode;
    }
    const int result = ioctl(pDev->fd, kFpgaSerialSetConfig, &fpgaConfig);
    if (result >= 0)
        return SERIAL_NOERROR;
    std::printf("DevMgrFPGASerial_Ioctl(): ^^^^^^^^^^^Setting Configuration in FPGA Serial Driver failed, err: %d...\n",
                result);
    return SERIAL_ERROR_UNKNOWN;
}

// Enables or disables reception as portStatus says, if it does. A refused request changes nothing.
UInt32 SwitchFpgaReceiver(DevMgrSerial_CB_t *pPort, UInt32 portStatus)
{
    if ((portStatus & (PORT_RX_ENABLE | PORT_RX_DISABLE)) == 0)
        return SERIAL_NOERROR;
    const bool enable = (portStatus & PORT_RX_ENABLE) != 0;
    if (ioctl(pPort->devCB.fd, kFpgaSerialDisableRx, enable ? 0UL : 1UL) < 0)
        return SERIAL_ERROR_UNKNOWN;
    pPort->rx_enabled = enable ? 1 : 0;
    return SERIAL_NOERROR;
}

void EnableFpga(DevMgrSerial_CB_t *pPort, UInt32 portStatus, UInt32 *pErr)
{
    *pErr = SwitchFpgaReceiver(pPort, portStatus);
    if (*pErr != SERIAL_NOERROR)
        return;
    SwitchTransmitter(pPort, portStatus);
    const DevmgrSerial_CBInfo_t callbacks = Callbacks(pPort);
    StartOrStopAsyncThread(pPort,
                           (pPort->tx_enabled == 1 && callbacks.txCBFunc != nullptr) ||
                               (pPort->rx_enabled == 1 && callbacks.rxCBFunc != nullptr),
                           pErr);
}

// ---- Registration

struct EntryPointsT {
    DevOpenCloseT open, close;
    DevRequestT read, write, ioctl;
};
constexpr EntryPointsT kCpuSerial = {DevMgrCPUSerial_Open, DevMgrCPUSerial_Close, DevMgrCPUSerial_Read,
                                     DevMgrCPUSerial_Write, DevMgrCPUSerial_Ioctl};
constexpr EntryPointsT kFpgaSerial = {DevMgrFPGASerial_Open, DevMgrFPGASerial_Close, DevMgrFPGASerial_Read,
                                      DevMgrFPGASerial_Write, DevMgrFPGASerial_Ioctl};

UInt32 RegisterPort(UInt32 port)
{
    const bool isFpga = std::strncmp(SerialPort_DevNames[port], kFpgaDevicePrefix, sizeof kFpgaDevicePrefix - 1) == 0;
    const EntryPointsT &entries = isFpga ? kFpgaSerial : kCpuSerial;
    DEVCB *pDev = &CBList[port].devCB;
    CBList[port].portnum = port;
    dev_init(pDev, "Ser", port + 1, entries.open, entries.close, entries.read, entries.write, entries.ioctl);
    return dev_add(pDev);
}

} // namespace

UInt32 DevMgrSerial_Init()
{
    std::puts("DevMgrSerial_Init");
    if (CBList != nullptr)
        return 0;
    CBList = static_cast<DevMgrSerial_CB_t *>(low_calloc(kNumSerialPorts * sizeof(DevMgrSerial_CB_t)));
    os_assert(CBList != nullptr, "CBList");
    Serial_Init();
    UInt32 result = 0;
    for (UInt32 port = 0; port < kNumSerialPorts; port++)
        result = RegisterPort(port);
    return result;
}

UInt32 DevMgrCPUSerial_Open(DEVCB *pDev)
{
    if (pDev == nullptr)
        return SERIAL_INVALID_PARAM;
    return OpenPort(pDev) < 0 ? SERIAL_ERROR_UNKNOWN : SERIAL_NOERROR;
}

UInt32 DevMgrCPUSerial_Close(DEVCB *pDev)
{
    const UInt32 result = ClosePort(pDev);
    if (result == SERIAL_NOERROR) {
        StoreCallbacks(PortOf(pDev), {});
        PortOf(pDev)->tx_enabled = 0;
        PortOf(pDev)->rx_enabled = 0;
    }
    return result;
}

void DevMgrCPUSerial_Read(DEVCB *pDev, IORB *pIORB)
{
    ReadPort(pDev, pIORB);
}

void DevMgrCPUSerial_Write(DEVCB *pDev, IORB *pIORB)
{
    WritePort(pDev, pIORB);
}

void DevMgrCPUSerial_Ioctl(DEVCB *pDev, IORB *pIORB)
{
    os_assert(pIORB != nullptr, "pIORB");
    if (pDev == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return;
    }
    termios settings{};
    if (tcgetattr(pDev->fd, &settings) != 0) {
        pIORB->err = SERIAL_ERROR_UNKNOWN;
        return;
    }
    pIORB->err = SERIAL_NOERROR;
    switch (pIORB->ctlCode) {
    case kSerialConfigure:
        pIORB->err = ConfigureLine(pDev, &settings, ControlRecord<DevmgrSerial_Config_t>(pIORB));
        break;
    case kSerialSetCallbacks:
        SetCallbacks(PortOf(pDev), pIORB);
        break;
    case kSerialEnable:
        EnableLine(PortOf(pDev), &settings, ControlRecord<UInt32>(pIORB), &pIORB->err);
        break;
    default:
        pIORB->err = SERIAL_UNKNOWN_IOCTL;
    }
}

UInt32 DevMgrFPGASerial_Open(DEVCB *pDev)
{
    std::puts("DevMgrFPGASerial_Open() ...");
    if (pDev == nullptr)
        return SERIAL_INVALID_PARAM;
    const int fd = OpenPort(pDev);
    if (fd >= 0)
        return SERIAL_NOERROR;
    std::printf("########## FAILED to open serial port ... serialCB->devCB.fd[d%d -- 0x%x] ...\n", fd,
                static_cast<UInt32>(fd));
    return SERIAL_ERROR_UNKNOWN;
}

UInt32 DevMgrFPGASerial_Close(DEVCB *pDev)
{
    const UInt32 result = ClosePort(pDev);
    // Deliberately not the context and the enables: a port that was enabled for transmission must
    // take a write at once after it is opened again.
    if (result == SERIAL_NOERROR)
        StoreCallbacks(PortOf(pDev), {nullptr, nullptr, Callbacks(PortOf(pDev)).Context_Data});
    return result;
}

void DevMgrFPGASerial_Read(DEVCB *pDev, IORB *pIORB)
{
    const ssize_t result = ReadPort(pDev, pIORB);
    if (pIORB->err == SERIAL_READ_ERROR)
        std::printf("DevMgrFPGASerial_Read(): Err: %d, portfd: %d buffer: 0x%x ReqLen: %d\n", static_cast<int>(result),
                    pDev->fd, static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(pIORB->pBuffer)),
                    static_cast<int>(pIORB->reqLen));
}

void DevMgrFPGASerial_Write(DEVCB *pDev, IORB *pIORB)
{
    WritePort(pDev, pIORB);
}

void DevMgrFPGASerial_Ioctl(DEVCB *pDev, IORB *pIORB)
{
    os_assert(pIORB != nullptr, "pIORB");
    if (pDev == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return;
    }
    pIORB->err = SERIAL_NOERROR;
    switch (pIORB->ctlCode) {
    case kSerialConfigure:
        pIORB->err = ConfigureFpga(pDev, ControlRecord<DevmgrSerial_Config_t>(pIORB));
        break;
    case kSerialSetCallbacks:
        SetCallbacks(PortOf(pDev), pIORB);
        break;
    case kSerialEnable:
        EnableFpga(PortOf(pDev), ControlRecord<UInt32>(pIORB), &pIORB->err);
        break;
    default:
        pIORB->err = SERIAL_UNKNOWN_IOCTL;
    }
}

void DevMgrSerial_Start_AsyncThread(DevMgrSerial_CB_t *pPort, UInt32 *pErr)
{
    os_assert(pPort != nullptr, "pPort");
    os_assert(pErr != nullptr, "pErr");
    *pErr = SERIAL_NOERROR;
    pPort->asyncThread_running = 1; // first: a callback of the new task may clear it at once
    if (servedPort == pPort) {
        pPort->threadID = servingTask;
    } else if (!StartAsyncTask(pPort)) {
        pPort->asyncThread_running = 0;
        *pErr = SERIAL_ERROR_UNKNOWN;
    }
}

UInt32 DevMgrSerial_Stop_AsyncThread(DevMgrSerial_CB_t *pPort)
{
    os_assert(pPort != nullptr, "pPort");
    UInt32 result = 0;
    if (servedPort != pPort) {
        result = DeleteIfAny(pPort->threadID);
        DeleteIfAny(pPort->servingID);
    }
    pPort->threadID = 0;
    pPort->asyncThread_running = 0;
    return result;
}

// A failed wait ends the task; asyncThread_running stays 1 until the port is stopped.
void DevMgrSerial_asyncDataSendRecv(UInt32 portRecord, UInt32 tid, UInt32, UInt32)
{
    auto *pPort = low_pointer<DevMgrSerial_CB_t>(portRecord);
    os_assert(pPort != nullptr, "pPort");
    const ServiceHold hold(pPort, tid);
    AwaitTurn(pPort);
    while (StillServing(pPort) && ServePort(pPort))
        continue;
}

bool DevMgrSerial_InCallback()
{
    return servedPort != nullptr;
}
