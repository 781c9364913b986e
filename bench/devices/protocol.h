// The messages on the two lines, as the bench knows them. docs/protocol.md describes them. This file shares nothing
// with the updater, so that a fault in one is not repeated in the other.
#pragma once

#include "bench/devices/frame.h"

namespace bench
{

// Numbers of the device files.
inline constexpr int kCameraPort = 0;
inline constexpr int kMicroPort = 1;

// Types of frames.
inline constexpr std::uint8_t kStatusRequestType = 0x44;
inline constexpr std::uint8_t kMicroBlockType = 0x48; // without data: a retry
inline constexpr std::uint8_t kCameraBlockType = 0x88;
inline constexpr std::uint8_t kSystemBlockType = 0x89;

inline constexpr std::size_t kNumberSize = 2; // of the number of a block, ahead of its bytes

// Messages to the camera without a frame.
inline const Bytes kVersionQueryBytes = {0x82, 0x06, 0x77};
inline const Bytes kFlashModeHead = {0x87, 0x43, 0x72};
inline constexpr std::size_t kFlashModeSize = 8;

// Replies.
inline constexpr std::size_t kMicroVersionSize = 15;  // FF 14, then 13 bytes; byte 4 is the version
inline constexpr std::size_t kCameraVersionSize = 13; // A0, then 12 bytes
inline constexpr std::size_t kModeReplySize = 4;
inline constexpr std::size_t kVerdictSize = 2; // the second byte is the verdict

// Verdicts on a block.
inline constexpr std::uint8_t kAck = 0x06;
inline constexpr std::uint8_t kNack = 0x0F;

// "camera", "micro" or "port 7": how people and captures call the far end of a line.
std::string PortName(int port);

// Whether a frame of that type carries a block of an image, or asks for it again.
bool IsBlockType(int port, std::uint8_t type);

// "camera ", "system " or "": what stands in front of "block" in the name of such a frame.
const char *ImagePrefix(std::uint8_t type);

// A 16-bit number, the high byte first.
unsigned Word(const Bytes &bytes, std::size_t offset);

// "ack", "nack" or "unknown verdict".
const char *VerdictName(std::uint8_t verdict);

} // namespace bench
