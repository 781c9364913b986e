#include "bench/rig/run.h"

#include "bench/standin/preload.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace bench
{

namespace
{

// A file in memory for what the program writes.
class Sink
{
public:
    Sink() : fd_(Checked(memfd_create("haldenbench", MFD_CLOEXEC), "memfd")) {}
    int fd() const { return fd_.get(); }
    std::string Text() const
    {
        struct stat status = {};
        Checked(fstat(fd_.get(), &status), "memfd");
        std::string text(static_cast<std::size_t>(status.st_size), '\0');
        Checked(static_cast<int>(pread(fd_.get(), text.data(), text.size(), 0)), "memfd");
        return text;
    }

private:
    Descriptor fd_;
};

// The lines of a run, started for as long as this lives.
class StartedLines
{
public:
    explicit StartedLines(const std::map<int, Port> &ports)
    {
        for (const auto &[number, port] : ports) {
            if (port.line == nullptr)
                continue;
            port.line->Start();
            lines_.emplace_back(port.line);
        }
    }

private:
    struct Stop {
        void operator()(Line *line) const { line->Stop(); }
    };
    std::vector<std::unique_ptr<Line, Stop>> lines_;
};

void AddPort(std::map<std::string, std::string> &environment, int number, const Port &port)
{
    const std::string suffix = std::to_string(number);
    if (port.line != nullptr) {
        environment[kPreloadPort + suffix] = port.line->path();
        environment[kPreloadBaud + suffix] = std::to_string(port.line->baud());
    }
    if (port.terminal >= 0)
        environment[kPreloadTerminal + suffix] = std::to_string(kTerminalDescriptor + number);
    environment[kPreloadOpens + suffix] = Format("%u:%d", port.refusedOpens, port.openError);
    environment[kPreloadRequest + suffix] = std::to_string(port.refusedRequest);
    environment[kPreloadWrite + suffix] =
        std::to_string(port.cutWrite) + (port.cutTo < 0 ? "" : ":" + std::to_string(port.cutTo));
}

std::vector<std::string> Environment(const RunOptions &options, const CallLog &log)
{
    std::map<std::string, std::string> environment = options.environment;
    if (!options.preload.empty()) {
        environment["LD_PRELOAD"] = std::filesystem::absolute(options.preload);
        environment[kPreloadLog] = log.Path();
        if (options.recorder != nullptr)
            environment[kPreloadCapture] = "1";
        environment[kPreloadWaitDivisor] = std::to_string(options.waitDivisor);
        if (!options.configuration.empty())
            environment[kPreloadOpt] = std::filesystem::absolute(options.configuration);
        if (options.launcher != nullptr)
            environment[kPreloadRelay] = std::filesystem::absolute(options.launcher->path());
        for (const auto &[number, port] : options.ports)
            AddPort(environment, number, port);
    }
    // A program with a sanitizer has to accept the preload library. It gets this process's sanitizer options as well.
    for (const char *name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        if (const char *value = std::getenv(name))
            environment.emplace(name, value);
    }
    environment.emplace("ASAN_OPTIONS", "verify_asan_link_order=0");
    std::vector<std::string> words;
    words.reserve(environment.size());
    for (const auto &[name, value] : environment)
        words.push_back(std::string(name).append("=").append(value));
    return words;
}

std::vector<char *> Pointers(std::vector<std::string> &words)
{
    std::vector<char *> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string &word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

// The steps of the child before the program starts: working directory and standard files.
class Preparations
{
public:
    Preparations(const RunOptions &options, const Sink &output, const Sink &errors)
    {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addchdir_np(&actions_, options.directory.c_str());
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        if (options.output != Output::kInherit)
            posix_spawn_file_actions_adddup2(&actions_, errors.fd(), STDERR_FILENO);
        Redirect(options, output);
        for (const auto &[number, port] : options.ports)
            if (port.terminal >= 0)
                posix_spawn_file_actions_adddup2(&actions_, port.terminal, kTerminalDescriptor + number);
    }
    ~Preparations() { posix_spawn_file_actions_destroy(&actions_); }
    Preparations(const Preparations &) = delete;
    Preparations &operator=(const Preparations &) = delete;
    const posix_spawn_file_actions_t *get() const { return &actions_; }
    // The program has its end of the pipe by now.
    void ClosePipe() { broken_.Close(); }

private:
    void Redirect(const RunOptions &options, const Sink &output)
    {
        switch (options.output) {
        case Output::kInherit:
            break;
        case Output::kCapture:
            posix_spawn_file_actions_adddup2(&actions_, output.fd(), STDOUT_FILENO);
            break;
        case Output::kBroken: {
            std::array<int, 2> ends = {};
            Checked(pipe2(ends.data(), O_CLOEXEC), "pipe");
            broken_ = Descriptor(ends[1]);
            reader_ = std::async(std::launch::async, Drain, Descriptor(ends[0]), options.outputRead);
            if (options.outputRead == 0)
                reader_.wait(); // there is no reader from the start
            posix_spawn_file_actions_adddup2(&actions_, broken_.get(), STDOUT_FILENO);
            break;
        }
        case Output::kClosed:
            posix_spawn_file_actions_addclose(&actions_, STDOUT_FILENO);
            break;
        case Output::kFull:
            posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/full", O_WRONLY, 0);
            break;
        }
    }

    static void Drain(Descriptor pipe, std::size_t size)
    {
        char part[1024];
        for (ssize_t count = 1; count > 0 && size > 0; size -= static_cast<std::size_t>(count))
            count = std::max<ssize_t>(read(pipe.get(), part, std::min(size, sizeof part)), 0);
        pipe.Close();
    }

    posix_spawn_file_actions_t actions_;
    std::future<void> reader_; // of the pipe; done when broken_ and the program's copy are closed
    Descriptor broken_;
};

// Starts the program. No signal is blocked, and SIGPIPE has its default action, whatever this process has set up.
pid_t Spawn(const RunOptions &options, const Preparations &preparations, std::vector<std::string> environment)
{
    sigset_t none, pipe;
    sigemptyset(&none);
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &pipe);
    std::vector<std::string> arguments = options.arguments;
    const std::string executable = std::filesystem::absolute(options.executable);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, executable.c_str(), preparations.get(), &attributes, Pointers(arguments).data(),
                                  Pointers(environment).data());
    posix_spawnattr_destroy(&attributes);
    errno = error;
    Checked(-error, executable.c_str());
    return pid;
}

// Waits for the end of the program. Kills it when the limit has passed.
void Await(pid_t pid, const RunOptions &options, RunResult &result)
{
    const auto end = std::async(std::launch::async, [pid] {
        siginfo_t info = {};
        while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR)
            ;
    });
    for (const Signal &signal : options.signals)
        if (end.wait_for(signal.after) != std::future_status::ready)
            kill(pid, signal.number);
    result.killed = end.wait_for(options.limit) != std::future_status::ready;
    if (result.killed)
        kill(pid, SIGKILL);
    end.wait();
}

void Reap(pid_t pid, RunResult &result)
{
    int status = 0;
    Checked(waitpid(pid, &status, 0), "wait");
    if (WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    else
        result.signal = WTERMSIG(status);
}

// A recorder, if there is one, started for as long as this lives.
class StartedRecorder
{
public:
    StartedRecorder(Recorder *recorder, const CallLog &log) : recorder_(recorder)
    {
        if (recorder_ != nullptr)
            recorder_->Start(&log);
    }
    ~StartedRecorder()
    {
        if (recorder_ != nullptr)
            recorder_->Finish();
    }
    StartedRecorder(const StartedRecorder &) = delete;
    StartedRecorder &operator=(const StartedRecorder &) = delete;

    void NoteEnd(const RunResult &result)
    {
        if (recorder_ == nullptr)
            return;
        if (result.killed)
            recorder_->Note(kNoPort, "! killed at the limit");
        recorder_->Note(kNoPort,
                        result.signal != 0 ? Format("signal %d", result.signal) : Format("exit %d", result.status));
    }

private:
    Recorder *const recorder_;
};

} // namespace

RunResult Run(const RunOptions &options)
{
    RunResult result;
    const Sink output, errors;
    const CallLog log;
    StartedRecorder recorder(options.recorder, log);
    std::unique_ptr<ProgressReader> reader;
    if (!options.fifo.empty())
        reader =
            std::make_unique<ProgressReader>(std::filesystem::path(options.directory) / options.fifo, options.progress);
    {
        const StartedLines lines(options.ports);
        Preparations preparations(options, output, errors);
        const auto begin = Line::Clock::now();
        const pid_t pid = Spawn(options, preparations, Environment(options, log));
        preparations.ClosePipe();
        Await(pid, options, result);
        result.seconds = std::chrono::duration<double>(Line::Clock::now() - begin).count();
        Reap(pid, result);
    }
    if (reader)
        result.progress = reader->Finish();
    result.output = output.Text();
    result.errors = errors.Text();
    std::size_t position = 0;
    for (CallLog::Entry &entry : log.Read(position, true))
        if (!entry.event.empty())
            result.events.push_back(std::move(entry.event));
    result.lostEvents = log.overflown();
    recorder.NoteEnd(result);
    return result;
}

} // namespace bench
