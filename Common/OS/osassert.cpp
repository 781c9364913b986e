#include "Common/OS/osassert.h"

#include <cstdio>
#include <cstdlib>

void os_assert_failed(const char *text, const char *file, int line, const char *function)
{
    std::fflush(stdout);
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %d, function %s\n", text, file, line, function);
    std::abort();
}
