#include "bench/standin/allocator.h"

#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/semaphore.h"

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <type_traits>
#include <utility>

namespace allocator
{

std::atomic<int> live;
int made, failing;
thread_local bool counted;

} // namespace allocator

namespace
{

using namespace allocator;

thread_local bool nested; // in low_calloc, which may be calloc

template <class Real> auto Allocate(Real real) -> decltype(real())
{
    constexpr bool kIsBlock = std::is_pointer_v<decltype(real())>;
    if (counted && !nested && ++made == failing) {
        errno = ENOMEM;
        if constexpr (kIsBlock)
            return nullptr;
        else
            return ENOMEM;
    }
    const bool outer = std::exchange(nested, true);
    const auto result = real();
    nested = outer;
    live += kIsBlock && !nested && result != decltype(result){} ? 1 : 0;
    return result;
}

// Records of tasks and semaphores are kept for ever, for others of their kind.
bool IsKept(UInt32 size)
{
    return size == sizeof(TCB) || size == sizeof(SMCB);
}

} // namespace

// The linker puts these in front of the C library's calls and of low_calloc and low_free.
// NOLINTBEGIN(bugprone-reserved-identifier, bugprone-macro-parentheses): names are what it asks for
#define ALLOCATES(type, name, parameters, arguments)                                                                   \
    extern "C" type __real_##name parameters;                                                                          \
    extern "C" type __wrap_##name parameters                                                                           \
    {                                                                                                                  \
        return Allocate([=] { return __real_##name arguments; });                                                      \
    }
#define GIVES_BACK(type, name, block)                                                                                  \
    extern "C" type __real_##name(block *p);                                                                           \
    extern "C" type __wrap_##name(block *p)                                                                            \
    {                                                                                                                  \
        live -= p != nullptr && !nested ? 1 : 0;                                                                       \
        const bool outer = std::exchange(nested, true);                                                                \
        __real_##name(p);                                                                                              \
        nested = outer;                                                                                                \
        return type();                                                                                                 \
    }
ALLOCATES(void *, malloc, (std::size_t size), (size))
ALLOCATES(void *, calloc, (std::size_t count, std::size_t size), (count, size))
ALLOCATES(FILE *, fopen, (const char *path, const char *mode), (path, mode))
ALLOCATES(FILE *, fopen64, (const char *path, const char *mode), (path, mode))
ALLOCATES(FILE *, popen, (const char *command, const char *mode), (command, mode))
ALLOCATES(DIR *, opendir, (const char *path), (path))
ALLOCATES(int, pthread_create, (pthread_t * thread, const pthread_attr_t *attr, void *(*start)(void *), void *arg),
          (thread, attr, start, arg))
ALLOCATES(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attr), (mutex, attr))
extern "C" void *__real__Z10low_callocj(UInt32 size);
extern "C" void *__wrap__Z10low_callocj(UInt32 size)
{
    void *block = Allocate([=] { return __real__Z10low_callocj(size); });
    live -= block != nullptr && IsKept(size) ? 1 : 0;
    return block;
}
GIVES_BACK(void, free, void)
GIVES_BACK(void, _Z8low_freePv, void)
GIVES_BACK(int, fclose, FILE)
GIVES_BACK(int, pclose, FILE)
GIVES_BACK(int, closedir, DIR)
// NOLINTEND(bugprone-reserved-identifier, bugprone-macro-parentheses)

int allocator::CreateThread(pthread_t *thread, void *(*start)(void *))
{
    return __real_pthread_create(thread, nullptr, start, nullptr);
}
