#include "bench/standin/disk.h"

#include <cerrno>
#include <cstdio>
#include <sys/file.h>
#include <sys/stat.h>

namespace disk
{

std::string refused;
mode_t modeBefore;

} // namespace disk

namespace
{

int Noted(int file)
{
    struct stat status = {};
    fstat(file, &status);
    disk::modeBefore = status.st_mode;
    return file;
}

} // namespace

// The linker puts these in front of the C library's calls.
// NOLINTBEGIN(bugprone-reserved-identifier)
#define REFUSABLE(name, error, parameters, arguments)                                                                  \
    extern "C" int __real_##name parameters;                                                                           \
    extern "C" int __wrap_##name parameters                                                                            \
    {                                                                                                                  \
        return disk::refused == #name ? (errno = (error), -1) : __real_##name arguments;                               \
    }
REFUSABLE(flock, ENOLCK, (int file, int operation), (file, operation))
REFUSABLE(fchmod, EPERM, (int file, mode_t mode), (Noted(file), mode))
REFUSABLE(rename, EBUSY, (const char *from, const char *to), (from, to))
// NOLINTEND(bugprone-reserved-identifier)
