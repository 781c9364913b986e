// Frames of the host: FF, type, length, data, 24-bit checksum, byte-stuffed so that FF on the line
// always starts a frame. Also the small things that both update procedures need.
// A null argument is a programming error and stops the program. Data of size 0 may be null, and a null buffer to
// write gives what Serial_Write makes of it.
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

// What to flash.
enum CONTROLLER_FLASH_TYPE : Int32 {
    CONTROLLER_FLASH_TYPE_HALDENMICRO = 0,
    CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_FW = 1,
    CONTROLLER_FLASH_TYPE_FARSIGT_SYSTEM_FW = 2,
    CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_SYSTEM_FW = 3,
    CONTROLLER_FLASH_TYPE_UNKNOWN = 255,
};

// Verdicts of a device on a block.
constexpr UInt8 kBlockAck = 0x06;
constexpr UInt8 kBlockNack = 0x0F;

// 1 for the message types that may be sent, else 0.
Boolean validateKoraHaldenMessageType(UInt8 msgType);

// Stuffs the byte that was just written at startOfMessage[*index] and moves *index behind it: FF
// becomes FE 01, FE becomes FE 00. Only for those two is the next byte written.
void encryptOneByte(UInt8 *startOfMessage, Int32 *index);

// Builds a frame around orgMsgSize data bytes (at most 65532) in ptrNewMsg, which the caller owns
// and which holds 2 * (orgMsgSize + 6) + 1 bytes or more and a zero byte somewhere. Stores the
// stuffed length. Returns kNoError, or kBadParameter (printed) with length 0 for an invalid type.
eErrorT buildKoraToHaldenMsg(KORA_HALDEN_MESAGE_TYPE msgType, Int32 orgMsgSize, const UInt8 *orgMsgPtr,
                             Int32 *ptrNewMsgSize, UInt8 *ptrNewMsg);

// Writes to a serial port, without a time-out and without a second try; a short write is printed.
// Returns what Serial_Write does.
int genericWriteRs232Port(int portNum, const UInt8 *buf, int buflen);

// Value of up to six hexadecimal digits; stops at the first other character. ":" to "?" count as
// digits 10 to 15, and the punctuation from "*" to "/" likewise, as they always have.
Int32 axxtoi(const char *hexStg);

// Waits. An interrupted wait starts over. A negative time is a programming error and stops the program.
void Delay(Int32 delay_usecs);
