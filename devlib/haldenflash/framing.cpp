#include "devlib/haldenflash/framing.h"

#include "Common/OS/osassert.h"

#include <cstring>

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

void encryptOneByte(UInt8 *startOfMessage, Int32 *index)
{
    os_assert(startOfMessage != nullptr, "startOfMessage");
    os_assert(index != nullptr, "index");
    UInt8 *byte = startOfMessage + *index;
    *index += static_cast<Int32>(AppendStuffed(byte, *byte) - byte);
}

Int32 BuildFrame(UInt8 type, const UInt8 *data, Int32 size, UInt8 *frame)
{
    const UInt32 length = static_cast<UInt32>(size + kChecksumSize);
    frame[0] = kDelimiter;
    UInt8 *end = AppendStuffed(frame + 1, type);
    end = AppendStuffed(end, static_cast<UInt8>(length >> 8));
    end = AppendStuffed(end, static_cast<UInt8>(length));
    UInt32 sum = 0;
    end = AppendData(end, data, static_cast<size_t>(size), &sum);
    const UInt32 checksum = kChecksumModulus - sum; // all three bytes 0 for no data
    end = AppendStuffed(end, static_cast<UInt8>(checksum >> 16));
    end = AppendStuffed(end, static_cast<UInt8>(checksum >> 8));
    end = AppendStuffed(end, static_cast<UInt8>(checksum));
    return static_cast<Int32>(end - frame);
}
