// Compares a log call with formatting the same text. Measures a log call while the writer runs. The writer never ends,
// so that measurement needs a process of its own, with standard output led to /dev/null.
#include "Common/OS/logmsg.h"
#include "Common/OS/syslog.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace
{

// A line that this system logs.
#define LINE "task:%4.4s pid:%u thread %08x %d %08x\n", "logw", 815u, 0x7F001234u, 4711, 0x40001000u

void Format(benchmark::State &state)
{
    char text[1024];
    for ([[maybe_unused]] auto _ : state) {
        std::snprintf(text, sizeof text, LINE); // calls vsnprintf's body
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(Format)->Name("vsnprintf");

void LogCall(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state)
        logdebug("os", LINE);
}
BENCHMARK(LogCall)->Name("log_call");

// ---- With a writer

// Times a burst of lines, which the ring holds, as the caller sees it, and then lets it be written. One burst is one
// repetition.
void WriterCall(benchmark::State &state)
{
    constexpr int kLines = 1000;
    [[maybe_unused]] static const bool started = (InitSyslogInterface(), true);
    for ([[maybe_unused]] auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < kLines; i++)
            logdebug("os", LINE);
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(taken.count() / kLines);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}
BENCHMARK(WriterCall)->Name("writer_call")->UseManualTime()->Iterations(1);

} // namespace
