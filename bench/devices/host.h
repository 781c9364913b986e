// The messages of an updater, made without the updater's own builder.
#pragma once

#include "bench/devices/device.h"

#include <numeric>

namespace bench
{

inline Bytes FrameOf(std::uint8_t type, const Bytes &data)
{
    const std::size_t length = data.size() + 3;
    const std::uint32_t checksum = 0x1000000U - std::accumulate(data.begin(), data.end(), 0U);
    Bytes plain = {type, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    plain.insert(plain.end(), data.begin(), data.end());
    for (const int shift : {16, 8, 0})
        plain.push_back(static_cast<std::uint8_t>(checksum >> shift));
    Bytes wire = {0xFF};
    for (const std::uint8_t byte : plain) {
        wire.push_back(byte < 0xFE ? byte : 0xFE);
        if (byte >= 0xFE)
            wire.push_back(byte == 0xFF);
    }
    return wire;
}

inline Bytes BlockOf(std::uint8_t type, unsigned number, std::size_t size)
{
    Bytes data(size + 2, 0xFE);
    data[0] = static_cast<std::uint8_t>(number >> 8);
    data[1] = static_cast<std::uint8_t>(number);
    return FrameOf(type, data);
}

// The host changes the mode of the camera.
inline Bytes FlashModeOf(std::uint8_t mode, std::uint8_t cameraBlocks, std::uint8_t systemBlocks)
{
    return {0x87, 0x43, 0x72, mode, 0, cameraBlocks, 0, systemBlocks};
}

// All that a device answers to a message.
inline Bytes Ask(Device &device, const Bytes &message)
{
    Bytes answer;
    for (const Reply &reply : device.Receive(message))
        answer.insert(answer.end(), reply.bytes.begin(), reply.bytes.end());
    return answer;
}

} // namespace bench
