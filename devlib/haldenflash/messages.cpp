#include "devlib/haldenflash/messages.h"

#include "Common/OS/osassert.h"
#include "devlib/haldenflash/framing.h"

#include <cstdio>
#include <cstring>

Boolean validateKoraHaldenMessageType(UInt8 msgType)
{
    switch (msgType) {
    case KORA_HALDEN_MESSAGE_TYPE_A:
    case KORA_HALDEN_MESSAGE_TYPE_B:
    case KORA_HALDEN_MESSAGE_TYPE_SET_BACKLIGHT_BRIGHTNESS:
    case KORA_HALDEN_MESSAGE_TYPE_REQUEST_SYSTEM_STATUS:
    case KORA_HALDEN_MESSAGE_TYPE_REFLASH_MICRO_BLOCK:
    case KORA_HALDEN_MESSAGE_TYPE_E:
    case KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_CAMERA:
    case KORA_HALDEN_MESSAGE_TYPE_REFLASH_FARSIGHT_SYSTEM:
        return 1;
    default:
        return 0;
    }
}

eErrorT buildKoraToHaldenMsg(KORA_HALDEN_MESAGE_TYPE msgType, Int32 orgMsgSize, const UInt8 *orgMsgPtr,
                             Int32 *ptrNewMsgSize, UInt8 *ptrNewMsg)
{
    os_assert(ptrNewMsgSize != nullptr, "ptrNewMsgSize");
    *ptrNewMsgSize = 0;
    if (validateKoraHaldenMessageType(msgType) == 0) {
        std::puts("packetizeKoraToHaldenMsg() -- Invalid message.");
        return kBadParameter;
    }
    os_assert(orgMsgPtr != nullptr || orgMsgSize == 0, "orgMsgPtr");
    os_assert(ptrNewMsg != nullptr, "ptrNewMsg");
    const size_t oldSize = std::strlen(reinterpret_cast<const char *>(ptrNewMsg));
    *ptrNewMsgSize = BuildFrame(msgType, orgMsgPtr, orgMsgSize, ptrNewMsg);
    const auto newSize = static_cast<size_t>(*ptrNewMsgSize);
    if (oldSize > newSize)
        std::memset(ptrNewMsg + newSize, 0, oldSize - newSize);
    return kNoError;
}
