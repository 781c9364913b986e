#include "devlib/serialapi_inner.h"

#include <cstdio>

namespace
{

struct DirectionRow {
    SerialDirectionType direction;
    UInt32 enable;
    UInt32 disable;
};
// Deliberate: disabling RX ends sending, and disabling TX ends reception. The users of this interface count on it.
constexpr DirectionRow kDirections[] = {
    {SERIAL_DIRECTION_RX, PORT_RX_ENABLE, PORT_TX_DISABLE},
    {SERIAL_DIRECTION_TX, PORT_TX_ENABLE, PORT_RX_DISABLE},
    {SERIAL_DIRECTION_BOTH, PORT_RX_ENABLE | PORT_TX_ENABLE, PORT_RX_DISABLE | PORT_TX_DISABLE},
};

// Sends the status that the column of kDirections has for the direction. *pErr is the driver's error, or 0. With such
// an error the result is kNoError.
eErrorT SetDirection(int port, SerialDirectionType serialDir, UInt32 DirectionRow::*column, UInt32 *pErr)
{
    *pErr = 0;
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

// Returns the number of bytes, or a result code. *pErr: the driver's error, or 0.
int MoveBytes(void (*call)(UInt32, IORB *), int port, char *buf, int size, int numOfMicroseconds, UInt32 *pErr)
{
    *pErr = 0;
    if (!IsPort(port) || buf == nullptr)
        return kBadParameter;
    const UInt32 devid = port_devids[port];
    if (devid == kClosed || devid == kReserved)
        return kItemNotFound;
    IORB iorb{};
    iorb.pBuffer = buf;
    iorb.reqLen = static_cast<UInt32>(size);
    iorb.timeout = static_cast<UInt32>(numOfMicroseconds);
    call(devid, &iorb);
    *pErr = iorb.err;
    return iorb.err == 0 ? static_cast<int>(iorb.actLen) : 0;
}

} // namespace

eErrorT Serial_Enable(int port, SerialDirectionType serialDir)
{
    UInt32 err = 0;
    const eErrorT result = SetDirection(port, serialDir, &DirectionRow::enable, &err);
    if (err == 0)
        return result;
    std::printf("SERIALAPI: In ENABLE, Port: %d Device Manager ioctl failed, err: %d\n", port, PrintedError(err));
    return Serial_Get_AppErr(static_cast<DevMgrSerial_error_t>(err));
}

eErrorT Serial_Disable(int port, SerialDirectionType serialDir)
{
    UInt32 err = 0;
    const eErrorT result = SetDirection(port, serialDir, &DirectionRow::disable, &err);
    if (err == 0)
        return result;
    std::printf("SERIALAPI: In DISABLE, Port: %d Device Manager ioctl failed, err: %d\n", port, PrintedError(err));
    return Serial_Get_AppErr(static_cast<DevMgrSerial_error_t>(err));
}

int Serial_Read(int port, char *readBuf, int readSize, int numOfMicroseconds)
{
    UInt32 err = 0;
    const int result = MoveBytes(dev_read, port, readBuf, readSize, numOfMicroseconds, &err);
    if (err != 0)
        std::printf("SERIALAPI: In READ, Port: %d Device Manager read failed, err: %d\n", port, PrintedError(err));
    return result;
}

int Serial_Write(int port, const char *writeBuf, int writeSize, int numOfMicroseconds)
{
    // A request block serves both directions; nobody stores through the buffer of a write.
    char *buf = const_cast<char *>(writeBuf);
    UInt32 err = 0;
    const int result = MoveBytes(dev_write, port, buf, writeSize, numOfMicroseconds, &err);
    if (err != 0)
        std::printf("SERIALAPI: In WRITE, Port: %d Device Manager write failed, err: %d\n", port, PrintedError(err));
    return result;
}
