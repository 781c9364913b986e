#include "devlib/haldenflash/updateport.h"

#include "devlib/serialapi.h"

#include <cstdio>

namespace
{

constexpr RS232Cfg kPortSettings = {
    .bitRate = SERIAL_BAUDRATE_115200,
    .dataBits = SERIAL_DATABITS_8,
    .parityBits = SERIAL_PARITY_EVEN,
    .stopBits = SERIAL_STOPBITS_1,
    .hwFlowControlDtrDsr = 0,
    .hwFlowControlRtsCts = 0,
    .swFlowControlXonXoff = 0,
};

// The lines of both devices name the microcontroller's update. Programs that search traces know them so.
int CloseUpdatePort(int port)
{
    const eErrorT err = Serial_Close(port);
    if (err == kNoError)
        return 0;
    std::printf("ERROR: flash_micro() -- Failed close port: %d, err: %d\n", port, err);
    return -1;
}

} // namespace

int OpenUpdatePort(int port, void (*printOpenFailure)(int port, eErrorT err), void (*printEnableFailure)(int port))
{
    const eErrorT err = Serial_Open(port, nullptr, nullptr, nullptr, &kPortSettings);
    if (err != kNoError) {
        printOpenFailure(port, err);
        return -1;
    }
    if (Serial_Enable(port, SERIAL_DIRECTION_BOTH) == kNoError)
        return 0;
    printEnableFailure(port);
    CloseUpdatePort(port);
    return -1;
}

int ReleaseUpdatePort(int port)
{
    int result = 0;
    const eErrorT err = Serial_Disable(port, SERIAL_DIRECTION_BOTH);
    if (err != kNoError && err != kItemNotFound) {
        std::printf("ERROR: flash_micro() -- Failed to disable serial port[%d] -- error[%x]...\n", port,
                    static_cast<UInt32>(err));
        result = -1;
    }
    return CloseUpdatePort(port) != 0 ? -1 : result;
}

int genericWriteRs232Port(int portNum, const UInt8 *buf, int buflen)
{
    const int written = Serial_Write(portNum, reinterpret_cast<const char *>(buf), buflen, 0);
    if (written != buflen)
        std::printf("#### genericWriteRs232Port() with ERROR: Actual written [%d bytes] -- Request written [%d bytes] "
                    "...\n",
                    written, buflen);
    return written;
}

Int32 ReadReply(int port, UInt8 *buffer, Int32 size, Int32 microseconds)
{
    return Serial_Read(port, reinterpret_cast<char *>(buffer), size, microseconds);
}

void PrintReply(const UInt8 *buffer, Int32 count)
{
    for (Int32 i = 0; i < count; i++)
        std::printf("~~~~~~ readBuff[%d] = 0x%x ...\n", i, buffer[i]);
}
