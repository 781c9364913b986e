// starter REPORT COUNT COMMAND...: runs a command COUNT times and writes a line for each to the file
// REPORT: processor time in microseconds, peak of the resident memory in KiB, and wait status.
// Small on purpose: a process begins with the peak of the one that starts it.
#include <cstdio>
#include <cstdlib>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char *argv[])
{
    std::FILE *report = argc > 3 ? std::fopen(argv[1], "we") : nullptr;
    if (report == nullptr)
        return 2;
    for (int i = std::atoi(argv[2]); i > 0; i--) {
        pid_t pid = 0;
        int status = 0;
        rusage usage = {};
        if (posix_spawn(&pid, argv[3], nullptr, nullptr, argv + 3, environ) != 0 || wait4(pid, &status, 0, &usage) < 0)
            return 1;
        const long seconds = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec;
        const long microseconds = usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
        std::fprintf(report, "%ld %ld %d\n", seconds * 1000000 + microseconds, usage.ru_maxrss, status);
    }
    return std::fclose(report) == 0 ? 0 : 1;
}
