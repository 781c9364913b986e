// What the host says to the two devices, and what they answer: message types, selectors and verdicts.
// A null argument is a programming error and stops the program.
#pragma once

#include "Common/types.h"

enum KORA_HALDEN_MESAGE_TYPE : UInt8 {
    KORA_HALDEN_MESSAGE_TYPE_A = 0x41,
    KORA_HALDEN_MESSAGE_TYPE_B = 0x42,
    KORA_HALDEN_MESSAGE_TYPE_SET_BACKLIGHT_BRIGHTNESS = 0x43,
    KORA_HALDEN_MESSAGE_TYPE_REQUEST_SYSTEM_STATUS = 0x44,
    KORA_HALDEN_MESSAGE_TYPE_REFLASH_MICRO_BLOCK = 0x48,
    KORA_HALDEN_MESSAGE_TYPE_E = 0x81,
    KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_CAMERA = 0x88,
    KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_SYSTEM = 0x89,
    KORA_HALDEN_MESSAGE_TYPE_UNKNOWN = 0xFF,
};

// The data byte of a system status request.
enum HALDEN_SYSTEM_STATUS_TYPE : UInt8 {
    HALDEN_SYSTEM_STATUS_TYPE_SYSTEM_STATUS = 0,
    HALDEN_SYSTEM_STATUS_TYPE_SYSTEM_VERSION = 1,
    HALDEN_SYSTEM_STATUS_TYPE_IMAGER_TEMP = 2,
    HALDEN_SYSTEM_STATUS_TYPE_KEYPAD_TEMP = 3,
    HALDEN_SYSTEM_STATUS_TYPE_KEYPAD_LED_STATE = 4,
    HALDEN_SYSTEM_STATUS_TYPE_CAMERALED_KEYPADTIMING = 5,
    HALDEN_SYSTEM_STATUS_TYPE_UNKNOWN = 0xFF,
};

// The verdict of a device on a block. Any other byte is an unknown verdict.
constexpr Int32 kVerdictReplySize = 2; // size of the reply to a block
constexpr Int32 kVerdict = 1;          // position of the verdict in it
constexpr UInt8 kBlockAck = 0x06;
constexpr UInt8 kBlockNack = 0x0F;

// 1 for the message types that may be sent, else 0.
Boolean validateKoraHaldenMessageType(UInt8 msgType);

// Builds the frame of a message with orgMsgSize data bytes, at most 65532. Data of size 0 may be null.
// ptrNewMsg belongs to the caller. It has room for 2 * (orgMsgSize + 6) + 1 bytes, and holds a string before the call.
// The part of that string behind the new frame is cleared.
// kNoError       the frame is at ptrNewMsg, and its size in *ptrNewMsgSize.
// kBadParameter  the type is not valid, which is printed. *ptrNewMsgSize is 0. ptrNewMsg is unchanged.
eErrorT buildKoraToHaldenMsg(KORA_HALDEN_MESAGE_TYPE msgType, Int32 orgMsgSize, const UInt8 *orgMsgPtr,
                             Int32 *ptrNewMsgSize, UInt8 *ptrNewMsg);
