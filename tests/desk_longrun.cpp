// A run that goes on for tens of thousands of blocks. The emulated board would be busy with it for minutes.
#include "bench/standin/folders.h"
#include "bench/standin/preload.h"
#include "bench/sweeps/runner.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace
{

using namespace bench;

// The verdicts come one byte late from block 2 on. They are unknown to the host, which sends its last block again and
// again until there is no verdict.
TEST(LongRun, KeepsItsCalls)
{
    const ConfigFolders folders;
    const Session session{"micro", {"micro"}, {}, 6144};
    Trial trial = {.name = "", .session = &session, .micro = ParseFaults("block2=noise:42,block60000=none")};
    trial.limit = std::chrono::seconds(60); // for a busy machine
    trial.spoilsWire = true;                // for the device the host's block is not the one that is due
    Runner runner(HALDENFLASH_BINARY, HALDENBENCH_PRELOAD, std::filesystem::current_path());
    const Outcome outcome = runner.Try(trial);
    ASSERT_FALSE(outcome.run.killed);
    EXPECT_EQ(outcome.run.events.rbegin()[1], "close 1");
    EXPECT_EQ(outcome.findings, std::vector<std::string>());

    trial.orders = {{kPreloadCapture, "1"}};
    EXPECT_EQ(runner.Try(trial).findings, std::vector<std::string>{"made more calls than its log can hold"});
}

} // namespace
