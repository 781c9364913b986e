#include "bench/devices/protocol.h"

namespace bench
{

std::string PortName(int port)
{
    return port == kMicroPort ? "micro" : port == kCameraPort ? "camera" : "port " + std::to_string(port);
}

bool IsBlockType(int port, std::uint8_t type)
{
    return port == kMicroPort ? type == kMicroBlockType : type == kCameraBlockType || type == kSystemBlockType;
}

const char *ImagePrefix(std::uint8_t type)
{
    return type == kCameraBlockType ? "camera " : type == kSystemBlockType ? "system " : "";
}

unsigned Word(const Bytes &bytes, std::size_t offset)
{
    return bytes[offset] * 256U + bytes[offset + 1];
}

const char *VerdictName(std::uint8_t verdict)
{
    return verdict == kAck ? "ack" : verdict == kNack ? "nack" : "unknown verdict";
}

} // namespace bench
