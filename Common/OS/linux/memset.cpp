// The layer's own fill routine, under the C library's name: the compiler's own calls end up here too.
#include "Common/types.h"

#include <cstddef>

namespace
{

using WordT [[gnu::may_alias]] = UInt32; // any memory may be filled by words

constexpr std::size_t kShort = 7; // up to here words do not pay
constexpr std::size_t kBlockWords = 8;

} // namespace

extern "C" void *memset(void *dst, int value, std::size_t length)
{
    const auto byte = static_cast<UInt8>(value);
    const WordT word = byte * 0x01010101u;
    auto *out = static_cast<UInt8 *>(dst);
    if (length > kShort) {
        for (; reinterpret_cast<std::uintptr_t>(out) % sizeof(WordT) != 0; length--)
            *out++ = byte;
        auto *words = reinterpret_cast<WordT *>(out);
        for (; length >= kBlockWords * sizeof(WordT); length -= kBlockWords * sizeof(WordT))
            for (std::size_t i = 0; i < kBlockWords; i++)
                *words++ = word;
        for (; length >= sizeof(WordT); length -= sizeof(WordT))
            *words++ = word;
        out = reinterpret_cast<UInt8 *>(words);
    }
    for (; length > 0; length--)
        *out++ = byte;
    return dst;
}
