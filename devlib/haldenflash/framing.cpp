#include "devlib/haldenflash/framing.h"

#include "Common/OS/osassert.h"
#include "devlib/serialapi.h"

#include <cstdio>
#include <cstring>
#include <sys/select.h>

namespace
{

constexpr UInt8 kDelimiter = 0xFF;
constexpr UInt8 kEscape = 0xFE;
constexpr Int32 kChecksumSize = 3;
constexpr UInt32 kChecksumModulus = 0x1000000;

// Appends one byte, stuffed, and returns the new end.
UInt8 *AppendStuffed(UInt8 *end, UInt8 byte)
{
    if (byte < kEscape) {
        *end = byte;
        return end + 1;
    }
    end[0] = kEscape;
    end[1] = byte & 1; // FF becomes FE 01, FE becomes FE 00
    return end + 2;
}

using Word = unsigned long;
constexpr Word kOnes = ~Word{0} / 0xFF;       // 01 in every byte
constexpr Word kLowHalves = ~Word{0} / 0x101; // FF in every other byte
constexpr Word kHalfOnes = ~Word{0} / 0xFFFF; // 0001 in every 16 bits
constexpr int kTopHalf = 8 * (sizeof(Word) - 2);

bool HasEscapedByte(Word word)
{
    const Word rest = ~word & ~kOnes; // a byte is 0 where the word holds FF or FE
    return ((rest - kOnes) & ~rest & (kOnes << 7)) != 0;
}

UInt32 SumOfBytes(Word word)
{
    const Word pairs = (word & kLowHalves) + ((word >> 8) & kLowHalves);
    return static_cast<UInt32>(pairs * kHalfOnes >> kTopHalf);
}

UInt8 *AppendBytes(UInt8 *end, const UInt8 *data, size_t size)
{
    for (size_t i = 0; i < size; i++)
        end = AppendStuffed(end, data[i]);
    return end;
}

// Appends the data, stuffed, and adds up its bytes, in one pass. Words without a byte to escape are
// copied as they are, and so is the escape of a word that is all FF, as erased flash is, or all FE.
UInt8 *AppendData(UInt8 *end, const UInt8 *data, size_t size, UInt32 *sum)
{
    static constexpr UInt8 kUniform[][16] = {
        {0xFE, 0, 0xFE, 0, 0xFE, 0, 0xFE, 0, 0xFE, 0, 0xFE, 0, 0xFE, 0, 0xFE, 0}, // of FE
        {0xFE, 1, 0xFE, 1, 0xFE, 1, 0xFE, 1, 0xFE, 1, 0xFE, 1, 0xFE, 1, 0xFE, 1}, // of FF
    };
    constexpr size_t kUniformSize = 2 * sizeof(Word);
    UInt32 total = 0;
    for (; size >= sizeof(Word); data += sizeof(Word), size -= sizeof(Word)) {
        Word word;
        std::memcpy(&word, data, sizeof word);
        total += SumOfBytes(word);
        if (!HasEscapedByte(word)) {
            std::memcpy(end, &word, sizeof word);
            end += sizeof word;
        } else if (word == ~Word{0} || word == ~kOnes) {
            std::memcpy(end, kUniform[word & 1], kUniformSize);
            end += kUniformSize;
        } else {
            end = AppendBytes(end, data, sizeof word);
        }
    }
    for (size_t i = 0; i < size; i++)
        total += data[i];
    *sum = total;
    return AppendBytes(end, data, size);
}

} // namespace

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

void encryptOneByte(UInt8 *startOfMessage, Int32 *index)
{
    os_assert(startOfMessage != nullptr, "startOfMessage");
    os_assert(index != nullptr, "index");
    UInt8 *byte = startOfMessage + *index;
    *index += static_cast<Int32>(AppendStuffed(byte, *byte) - byte);
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
    // Only as much is cleared as the old contents, read as a string, are long; that is enough, since
    // every byte up to the stored length is written below.
    std::memset(ptrNewMsg, 0, std::strlen(reinterpret_cast<const char *>(ptrNewMsg)));

    const UInt32 length = static_cast<UInt32>(orgMsgSize + kChecksumSize);
    ptrNewMsg[0] = kDelimiter;
    UInt8 *end = AppendStuffed(ptrNewMsg + 1, msgType);
    end = AppendStuffed(end, static_cast<UInt8>(length >> 8));
    end = AppendStuffed(end, static_cast<UInt8>(length));
    UInt32 sum = 0;
    end = AppendData(end, orgMsgPtr, static_cast<size_t>(orgMsgSize), &sum);
    const UInt32 checksum = kChecksumModulus - sum; // all three bytes 0 for no data
    end = AppendStuffed(end, static_cast<UInt8>(checksum >> 16));
    end = AppendStuffed(end, static_cast<UInt8>(checksum >> 8));
    end = AppendStuffed(end, static_cast<UInt8>(checksum));
    *ptrNewMsgSize = static_cast<Int32>(end - ptrNewMsg);
    return kNoError;
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

Int32 axxtoi(const char *hexStg)
{
    os_assert(hexStg != nullptr, "hexStg");
    constexpr int kMaxDigits = 6;
    UInt32 value = 0;
    for (int i = 0; i < kMaxDigits; i++) {
        const auto c = static_cast<unsigned char>(hexStg[i]);
        if (c >= 0x2A && c <= 0x3F) // the digits, and by the test's nature the punctuation around them
            value = value << 4 | (c & 0x0F);
        else if ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))
            value = value << 4 | ((c & 0x0F) + 9u);
        else
            break;
    }
    return static_cast<Int32>(value);
}

void Delay(Int32 delay_usecs)
{
    os_assert(delay_usecs >= 0, "delay_usecs >= 0"); // every wait would fail, and start over
    timeval time{};
    do {
        time = {0, delay_usecs}; // a second and more is accepted in this member
    } while (select(0, nullptr, nullptr, nullptr, &time) < 0);
}
