#include "devlib/serialapi_inner.h"

namespace
{

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

// Sends the status that the column of kDirections gives for the direction.
eErrorT SetDirection(int port, SerialDirectionType serialDir, UInt32 DirectionRow::*column, const char *request)
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
        const UInt32 err = Control(devid, kSerialEnable, &status);
        if (err == 0)
            return kNoError;
        ReportFailure(request, port, "Device Manager ioctl failed", err);
        return Serial_Get_AppErr(static_cast<DevMgrSerial_error_t>(err));
    }
    return kBadParameter;
}

struct TransferT {
    void (*call)(UInt32 devid, IORB *pIORB);
    const char *request, *failure; // as they are printed
};
constexpr TransferT kRead = {dev_read, "READ", "Device Manager read failed"};
constexpr TransferT kWrite = {dev_write, "WRITE", "Device Manager write failed"};

int MoveBytes(const TransferT &transfer, int port, char *buf, int size, int numOfMicroseconds)
{
    if (!IsPort(port) || buf == nullptr)
        return kBadParameter;
    const UInt32 devid = port_devids[port];
    if (devid == kClosed || devid == kReserved)
        return kItemNotFound;
    IORB iorb{};
    iorb.pBuffer = buf;
    iorb.reqLen = static_cast<UInt32>(size);
    iorb.timeout = static_cast<UInt32>(numOfMicroseconds);
    transfer.call(devid, &iorb);
    if (iorb.err == 0)
        return static_cast<int>(iorb.actLen);
    ReportFailure(transfer.request, port, transfer.failure, iorb.err);
    return 0;
}

} // namespace

eErrorT Serial_Enable(int port, SerialDirectionType serialDir)
{
    return SetDirection(port, serialDir, &DirectionRow::enable, "ENABLE");
}

eErrorT Serial_Disable(int port, SerialDirectionType serialDir)
{
    return SetDirection(port, serialDir, &DirectionRow::disable, "DISABLE");
}

int Serial_Read(int port, char *readBuf, int readSize, int numOfMicroseconds)
{
    return MoveBytes(kRead, port, readBuf, readSize, numOfMicroseconds);
}

int Serial_Write(int port, const char *writeBuf, int writeSize, int numOfMicroseconds)
{
    // A request block serves both directions; nobody stores through the buffer of a write.
    return MoveBytes(kWrite, port, const_cast<char *>(writeBuf), writeSize, numOfMicroseconds);
}
