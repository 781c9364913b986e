#include "bench/standin/mpc8349.h"

#include <cstdio>
#include <cstring>

namespace mpc8349
{

std::map<std::string, std::string> files;
rtclk8349 registers[256];
int mapped;
off_t mappedAt;

} // namespace mpc8349

namespace
{

constexpr int kMemory = 1000; // descriptor of the machine's memory

} // namespace

// The linker puts these in front of the C library's calls.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" FILE *__real_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (mpc8349::files.empty())
        return __real_fopen(path, mode);
    std::string &text = mpc8349::files[path];
    return text.empty() ? nullptr : fmemopen(text.data(), text.size(), mode);
}
extern "C" int __real_open(const char *path, int flags, ...);
extern "C" int __wrap_open(const char *path, int flags, ...)
{
    return std::strcmp(path, "/dev/mem") == 0 ? kMemory : __real_open(path, flags);
}
extern "C" void *__real_mmap(void *where, std::size_t size, int access, int flags, int fd, off_t offset);
extern "C" void *__wrap_mmap(void *where, std::size_t size, int access, int flags, int fd, off_t offset)
{
    if (fd != kMemory)
        return __real_mmap(where, size, access, flags, fd, offset);
    mpc8349::mapped++;
    mpc8349::mappedAt = offset;
    return mpc8349::registers;
}
// NOLINTEND(bugprone-reserved-identifier)
