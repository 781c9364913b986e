#include "devlib/devmgr_serial_inner.h"

#include <cstdio>
#include <termios.h>

namespace
{

constexpr int kSpeedTries = 5;

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

// The FPGA family takes no flow control.
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

speed_t LineSpeed(UInt32 baudRate)
{
    for (const LineSpeedRow &row : kLineSpeeds)
        if (row.baudRate == baudRate)
            return row.speed;
    return kDefaultLineSpeed;
}

// Sets raw mode as the board uses it. The control characters and the extended-input flag are unchanged. The receiver is
// off until reception is enabled.
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

UInt32 EnableLine(DevMgrSerial_CB_t *pPort, termios *pSettings, UInt32 portStatus)
{
    if ((portStatus & PORT_RX_ENABLE) != 0) {
        pSettings->c_cflag |= CREAD;
        pPort->rx_enabled = 1;
    } else if ((portStatus & PORT_RX_DISABLE) != 0) {
        pSettings->c_cflag &= ~static_cast<tcflag_t>(CREAD);
        pPort->rx_enabled = 0;
    }
    SwitchTransmitter(pPort, portStatus);
    if (tcsetattr(pPort->devCB.fd, TCSANOW, pSettings) != 0)
        return SERIAL_ERROR_UNKNOWN;
    // Deliberately without a look at the callbacks: the task also drains a port that has none.
    return StartOrStopAsyncThread(pPort, pPort->tx_enabled == 1 || pPort->rx_enabled == 1);
}

} // namespace

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
    if (!IsWhole(pDev, pIORB))
        return;
    termios settings{};
    if (tcgetattr(pDev->fd, &settings) != 0) {
        pIORB->err = SERIAL_ERROR_UNKNOWN;
        return;
    }
    ServeControl(
        PortOf(pDev), pIORB,
        [&](const DevmgrSerial_Config_t &config) { return ConfigureLine(pDev, &settings, config); },
        [&](UInt32 portStatus) { return EnableLine(PortOf(pDev), &settings, portStatus); });
}
