// Types and result codes that every layer shares.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

using Int8 = std::int8_t;
using UInt8 = std::uint8_t;
using Int16 = std::int16_t;
using UInt16 = std::uint16_t;
using Int32 = std::int32_t;
using UInt32 = std::uint32_t;
using Int64 = std::int64_t;
using UInt64 = std::uint64_t;

// Truth values that records and calls carry: 32 bits wide, 0 or 1.
using Boolean = UInt32;
using Bool = UInt32;

// Result code of the framework's calls: 0 is success, failures are negative.
// The enumeration runs down to kMaxError.
enum eErrorT : Int32 {
    kNoError = 0,
    kFuncReturnedError = -1,
    kOutOfMemory = -2,
    kBadParameter = -3,
    kBadState = -4,
    kOutOfResources = -5,
    kDefer = -6,
    kCantCreateTask = -7,
    kCantStartTask = -8,
    kCantFindObject = -9,
    kEndOfFile = -17,
    kNotInitialized = -18,
    kAlreadyExists = -19,
    kInsufficientBuffer = -22,
    kSemUnavail = -23,
    kNotImplemented = -24,
    kItemNotFound = -25,
    kAlreadyInUse = -26,
    kNotYetSupported = -27,
    kQueueFull = -28,
    kSystemCallFailed = -34,
    kTimeOut = -35,
    kFileOpenError = -36,
    kIncorrectVersion = -39,
    kIPCError = -43,
    kDeviceReboot = -49,
    kMaxError = kDeviceReboot,
};

// A word whose four bytes in memory are the given characters, in either byte order.
constexpr UInt32 FourCharacters(const char (&text)[5])
{
    return std::bit_cast<UInt32>(std::array<char, 4>{text[0], text[1], text[2], text[3]});
}
