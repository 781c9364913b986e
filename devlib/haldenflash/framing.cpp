#include "devlib/haldenflash/framing.h"

#include "Common/OS/osassert.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace
{

constexpr UInt8 kDelimiter = 0xFF;
constexpr UInt8 kEscape = 0xFE;
constexpr Int32 kChecksumSize = 3;
constexpr UInt32 kChecksumModulus = 0x1000000;

// Appends one byte, stuffed, and returns the new end.
UInt8 *AppendStuffed(UInt8 *end, UInt32 byte)
{
    if (byte >= kEscape) {
        *end++ = kEscape;
        byte &= 1; // FF becomes FE 01, FE becomes FE 00
    }
    *end++ = static_cast<UInt8>(byte);
    return end;
}

using Word = unsigned long;
constexpr Word kOnes = ~Word{0} / 0xFF; // 01 in every byte
constexpr Word kTopBits = kOnes << 7;
constexpr Word kLowHalves = ~Word{0} / 0x101; // FF in every other byte
constexpr Word kFirstOfPairs = std::endian::native == std::endian::big ? kLowHalves << 8 : kLowHalves; // in memory
constexpr size_t kPieceSize = 128 * sizeof(Word); // sums of its pairs of bytes fit into 16 bits

// FE and FF carry into their top bit, which is set.
bool HasEscapedByte(Word word)
{
    return (((word & ~kTopBits) + 2 * kOnes) & word & kTopBits) != 0;
}

// Appends bytes one by one, stuffed, and adds them up.
UInt8 *AppendBytes(UInt8 *end, const UInt8 *data, size_t size, UInt32 *sum)
{
    UInt32 total = *sum;
    for (size_t i = 0; i < size; i++) {
        const UInt32 byte = data[i];
        total += byte;
        end = AppendStuffed(end, byte);
    }
    *sum = total;
    return end;
}

// Appends at most kPieceSize bytes by words, stuffed, and adds them up. A word without a byte to escape is copied. A
// word that is all FF, as erased flash is, or all FE is one escape repeated.
UInt8 *AppendPiece(UInt8 *end, const UInt8 *data, size_t size, UInt32 *sum)
{
    const UInt8 *const last = data + size;
    const UInt8 *const lastWord = data + size / sizeof(Word) * sizeof(Word);
    Word pairs = 0; // sums of the bytes at even places and of those behind them, 16 bits each
    while (data != lastWord) {
        Word word;
        std::memcpy(&word, data, sizeof word);
        if (!HasEscapedByte(word)) {
            std::memcpy(end, &word, sizeof word);
            end += sizeof word;
        } else if (word == ~Word{0} || word == ~kOnes) {
            const Word escapes = (kFirstOfPairs & ~kOnes) | (word & ~kFirstOfPairs & kOnes);
            for (int half = 0; half < 2; half++, end += sizeof escapes)
                std::memcpy(end, &escapes, sizeof escapes);
        } else {
#pragma GCC unroll 8
            for (size_t i = 0; i < sizeof word; i++)
                end = AppendStuffed(end, data[i]);
        }
        pairs += (word & kLowHalves) + (word >> 8 & kLowHalves);
        data += sizeof word;
    }
    for (; pairs != 0; pairs >>= 16)
        *sum += pairs & 0xFFFF;
    return AppendBytes(end, data, static_cast<size_t>(last - data), sum);
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
    const UInt8 header[] = {type, static_cast<UInt8>(length >> 8), static_cast<UInt8>(length)};
    UInt32 sum = 0;
    frame[0] = kDelimiter;
    UInt8 *end = AppendBytes(frame + 1, header, sizeof header, &sum);
    sum = 0;
    for (size_t left = static_cast<size_t>(size), piece = 0; left > 0; left -= piece, data += piece) {
        piece = std::min(left, kPieceSize);
        end = AppendPiece(end, data, piece, &sum);
    }
    const UInt32 checksum = kChecksumModulus - sum; // all three bytes 0 for no data
    const UInt8 trailer[kChecksumSize] = {static_cast<UInt8>(checksum >> 16), static_cast<UInt8>(checksum >> 8),
                                          static_cast<UInt8>(checksum)};
    end = AppendBytes(end, trailer, sizeof trailer, &sum);
    return static_cast<Int32>(end - frame);
}
