#include "Common/OS/linux/lowmem.h"

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/osassert.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#ifdef __has_feature // clang
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

UInt32 low_id(const void *record)
{
    const auto address = reinterpret_cast<std::uintptr_t>(record);
    os_assert(address <= UINT32_MAX, "address <= UINT32_MAX");
    return static_cast<UInt32>(address);
}

#if UINTPTR_MAX == UINT32_MAX

void *low_calloc(UInt32 size)
{
    return std::calloc(1, size);
}

void low_free(void *block)
{
    std::free(block);
}

#else

namespace
{

constexpr UInt32 kRegionSize = 16u << 20;
constexpr UInt32 kSmallestClass = 5; // blocks are powers of two, from 32 bytes
constexpr UInt32 kLargestClass = 20;
constexpr UInt32 kHeaderSize = 16;

// In front of every block; next only while the block is free.
struct BlockHeaderT {
    UInt32 sizeClass;
    BlockHeaderT *next;
};
static_assert(sizeof(BlockHeaderT) <= kHeaderSize && alignof(std::max_align_t) <= kHeaderSize);

pthread_mutex_t regionMutex = PTHREAD_MUTEX_INITIALIZER;
char *regionNext; // first byte never handed out; null before the first use
char *regionEnd;
BlockHeaderT *freeBlocks[kLargestClass + 1];

char *MapAt(std::uintptr_t hint)
{
#ifdef MAP_32BIT
    constexpr int kWhere = MAP_32BIT;
#else
    constexpr int kWhere = 0;
#endif
    void *where = mmap(reinterpret_cast<void *>(hint), kRegionSize, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | kWhere, -1, 0);
    if (where == MAP_FAILED)
        return nullptr;
    if (reinterpret_cast<std::uintptr_t>(where) + kRegionSize <= UINT32_MAX)
        return static_cast<char *>(where);
    munmap(where, kRegionSize);
    return nullptr;
}

// Leaves regionNext null when there is no room below 4 GiB.
void ReserveRegion()
{
    for (std::uintptr_t hint = 0x10000000; regionNext == nullptr && hint < 0xF0000000; hint += 0x10000000)
        regionNext = MapAt(hint);
    regionEnd = regionNext + (regionNext != nullptr ? kRegionSize : 0);
#ifdef __SANITIZE_ADDRESS__
    __lsan_register_root_region(regionNext, kRegionSize); // what is only known from here is no leak
#endif
}

BlockHeaderT *TakeBlock(UInt32 sizeClass)
{
    if (BlockHeaderT *block = freeBlocks[sizeClass]; block != nullptr) {
        freeBlocks[sizeClass] = block->next;
        return block;
    }
    if (regionNext == nullptr)
        ReserveRegion();
    const auto size = std::ptrdiff_t{1} << sizeClass;
    if (regionEnd - regionNext < size)
        return nullptr;
    auto *block = reinterpret_cast<BlockHeaderT *>(regionNext);
    regionNext += size;
    block->sizeClass = sizeClass;
    return block;
}

} // namespace

void *low_calloc(UInt32 size)
{
    UInt32 sizeClass = kSmallestClass;
    while (sizeClass <= kLargestClass && (1u << sizeClass) - kHeaderSize < size)
        sizeClass++;
    if (sizeClass > kLargestClass)
        return nullptr;
    MutexHold hold(&regionMutex);
    BlockHeaderT *block = TakeBlock(sizeClass);
    if (block == nullptr)
        return nullptr;
    return std::memset(reinterpret_cast<char *>(block) + kHeaderSize, 0, size);
}

void low_free(void *block)
{
    if (block == nullptr)
        return;
    auto *header = reinterpret_cast<BlockHeaderT *>(static_cast<char *>(block) - kHeaderSize);
    MutexHold hold(&regionMutex);
    header->next = freeBlocks[header->sizeClass];
    freeBlocks[header->sizeClass] = header;
}

#endif
