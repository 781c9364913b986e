#include "Common/OS/linux/lowmem.h"
#include "devlib/devmgr_serial_inner.h"

#include <cstdio>
#include <sys/ioctl.h>

namespace
{

constexpr UInt32 kFpgaMinBaudRate = 9600;
constexpr UInt32 kFpgaMaxBaudRate = 115200;
constexpr UInt32 kFpgaRateAndParity = 3; // valid_mask
constexpr UInt32 kFpgaAllFields = 31;
constexpr UInt32 kLastFixedFormatInstance = 2; // instances 1 and 2 take rate and parity only

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

// Enables or disables reception if portStatus has a bit for that. A refused request changes nothing.
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

UInt32 EnableFpga(DevMgrSerial_CB_t *pPort, UInt32 portStatus)
{
    if (const UInt32 err = SwitchFpgaReceiver(pPort, portStatus); err != SERIAL_NOERROR)
        return err;
    SwitchTransmitter(pPort, portStatus);
    const DevmgrSerial_CBInfo_t callbacks = Callbacks(pPort);
    return StartOrStopAsyncThread(pPort, (pPort->tx_enabled == 1 && callbacks.txCBFunc != nullptr) ||
                                             (pPort->rx_enabled == 1 && callbacks.rxCBFunc != nullptr));
}

} // namespace

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
    // Deliberate: the context and the enables stay. A port that was enabled for transmission has to take a write as
    // soon as it is opened again.
    if (result == SERIAL_NOERROR)
        StoreCallbacks(PortOf(pDev), {nullptr, nullptr, Callbacks(PortOf(pDev)).Context_Data});
    return result;
}

void DevMgrFPGASerial_Read(DEVCB *pDev, IORB *pIORB)
{
    const ssize_t result = ReadPort(pDev, pIORB);
    if (pIORB->err == SERIAL_READ_ERROR)
        std::printf("DevMgrFPGASerial_Read(): Err: %d, portfd: %d buffer: 0x%x ReqLen: %d\n", static_cast<int>(result),
                    pDev->fd, AddressWord(pIORB->pBuffer), static_cast<int>(pIORB->reqLen));
}

void DevMgrFPGASerial_Write(DEVCB *pDev, IORB *pIORB)
{
    WritePort(pDev, pIORB);
}

void DevMgrFPGASerial_Ioctl(DEVCB *pDev, IORB *pIORB)
{
    if (!IsWhole(pDev, pIORB))
        return;
    ServeControl(
        PortOf(pDev), pIORB, [pDev](const DevmgrSerial_Config_t &config) { return ConfigureFpga(pDev, config); },
        [pDev](UInt32 portStatus) { return EnableFpga(PortOf(pDev), portStatus); });
}
