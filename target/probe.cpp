// Runs an update of both devices, the camera's image 2 MiB, and prints what the program used of the
// machine: memory, threads, system calls by number. It watches from outside, so that it serves a static binary too: its
// ports are symbolic links in /dev, and it answers the two requests in place of the FPGA driver. It needs root, and a
// machine that nobody else uses.
// usage: probe PROGRAM
#include "bench/rig/images.h"
#include "bench/rig/line.h"
#include "bench/standin/preload.h"

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

// <linux/ptrace.h> and <sys/ptrace.h> name the same things differently.
using SyscallInfo = __ptrace_syscall_info;

namespace
{

namespace fs = std::filesystem;
using namespace bench;

// Registers as PTRACE_POKEUSER numbers them.
#ifdef __powerpc__
constexpr unsigned long kNumber = 0 * sizeof(long), kResult = 3 * sizeof(long), kFlags = 38 * sizeof(long);
#else
constexpr unsigned long kNumber = offsetof(user_regs_struct, orig_rax), kResult = offsetof(user_regs_struct, rax);
#endif

struct Findings {
    int status = -1;
    int threads = 1;
    std::string memory; // lines of /proc/<pid>/status
    std::map<std::uint64_t, long> calls;
};

void Trace(__ptrace_request request, pid_t pid, unsigned long address, long data)
{
    Checked(static_cast<int>(ptrace(request, pid, address, data)), "ptrace");
}

bool IsDriverRequest(const SyscallInfo &info)
{
    const auto request = static_cast<std::uint32_t>(info.entry.args[1]);
    return info.entry.nr == SYS_ioctl && (request == kSetConfig || request == kDisableRx);
}

// Makes the call that has just ended a success.
void Succeed(pid_t pid)
{
    Trace(PTRACE_POKEUSER, pid, kResult, 0);
#ifdef __powerpc__
    constexpr long kFailed = 0x10000000; // summary overflow: the result is an error number
    Trace(PTRACE_POKEUSER, pid, kFlags, ptrace(PTRACE_PEEKUSER, pid, kFlags, 0) & ~kFailed);
#endif
}

std::string MemoryOf(pid_t pid)
{
    std::ifstream status(Format("/proc/%d/status", static_cast<int>(pid)));
    std::string found;
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM") || line.starts_with("VmStk"))
            found += line + "\n";
    return found;
}

// At the entry of a call or at its end.
void SeeCall(pid_t pid, Findings &findings, std::set<pid_t> &answered)
{
    SyscallInfo info = {};
    Trace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, reinterpret_cast<long>(&info));
    if (info.op == PTRACE_SYSCALL_INFO_EXIT && answered.erase(pid) > 0)
        Succeed(pid);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY)
        return;
    findings.calls[info.entry.nr]++;
    if (IsDriverRequest(info)) {
        Trace(PTRACE_POKEUSER, pid, kNumber, -1); // no call of that number
        answered.insert(pid);
    }
}

Findings Watch(pid_t first)
{
    Findings findings;
    std::set<pid_t> answered;
    int status = 0;
    Checked(waitpid(first, &status, 0), "wait");
    Trace(PTRACE_SETOPTIONS, first, 0,
          PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXIT | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
    Trace(PTRACE_SYSCALL, first, 0, 0);
    for (pid_t pid = 0; (pid = waitpid(-1, &status, __WALL)) > 0;) {
        if (WIFEXITED(status) || WIFSIGNALED(status)) {
            if (pid == first)
                findings.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            continue;
        }
        int signal = 0;
        if (WSTOPSIG(status) == (SIGTRAP | 0x80))
            SeeCall(pid, findings, answered);
        else if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXIT << 8) && pid == first)
            findings.memory = MemoryOf(pid);
        else if (status >> 8 == (SIGTRAP | PTRACE_EVENT_CLONE << 8))
            findings.threads++;
        else if (WSTOPSIG(status) != SIGSTOP && WSTOPSIG(status) != SIGTRAP)
            signal = WSTOPSIG(status);
        Trace(PTRACE_SYSCALL, pid, 0, signal);
    }
    return findings;
}

// In the child; its output goes nowhere.
[[noreturn]] void Start(const char *program)
{
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    ptrace(PTRACE_TRACEME, 0, 0, 0);
    raise(SIGSTOP);
    execl(program, "haldenflash", "all", nullptr);
    _exit(127);
}

int Probe(const char *program)
{
    const std::string executable = fs::absolute(program);
    const fs::path folder = fs::temp_directory_path() / Format("probe.%d", static_cast<int>(getpid()));
    fs::create_directories(folder);
    fs::current_path(folder);
    WriteSamples(".", {.cameraSize = 2 << 20});
    Micro micro(0x20);
    Camera camera({"0203", "0204"}, {"0306", "0307"});
    Line cameraLine(camera), microLine(micro);
    fs::create_symlink(cameraLine.path(), "/dev/fpgaserial0");
    fs::create_symlink(microLine.path(), "/dev/fpgaserial1");
    setenv("TALVORA_BOARDID", "KORA", 1);
    const pid_t pid = Checked(fork(), "fork");
    if (pid == 0)
        Start(executable.c_str());
    cameraLine.Start();
    microLine.Start();
    const Findings findings = Watch(pid);
    cameraLine.Stop();
    microLine.Stop();
    fs::remove("/dev/fpgaserial0");
    fs::remove("/dev/fpgaserial1");
    const bool good = Judge(micro, ".").good && JudgeCamera(camera, ".").good && JudgeSystem(camera, ".").good;
    fs::current_path("/");
    fs::remove_all(folder);
    std::printf("status: %d\ndevices: %s\nthreads: %d\n%s", findings.status, good ? "good" : "bad", findings.threads,
                findings.memory.c_str());
    for (const auto &[number, count] : findings.calls)
        std::printf("call %llu: %ld\n", static_cast<unsigned long long>(number), count);
    return findings.status == 0 && good ? 0 : 1;
}

} // namespace

int main(int argc, char *argv[])
{
    try {
        return argc == 2 ? Probe(argv[1]) : 2;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "probe: %s\n", error.what());
        return 1;
    }
}
