// The database in new processes, which are killed.
#include "Common/framework/config.h"
#include "bench/standin/folders.h"
#include "tests/tasks.h"

#include <barrier>
#include <csignal>

namespace
{

constexpr UInt32 kThreads = 8;
const std::string kGone = "missing"; // what a deleted item reads as

struct ItemT {
    UInt32 id;
    std::string name = static_cast<char>('a' + id % 20) + std::to_string(id);

    // What a change leaves: a value that tells itself, as long as a file may give back; or none, of even items.
    std::string Text(UInt32 change) const
    {
        const std::string filling((id + 37 * change) % 350, static_cast<char>('a' + change % 26));
        return change / 8 % 4 + id % 2 == 0 ? kGone : std::to_string(change) + " " + name + filling;
    }
    void Change(UInt32 change) const
    {
        if (Text(change) == kGone)
            ConfigDelete(name.c_str(), 0);
        else
            EXPECT_EQ(ConfigWrite(name.c_str(), 0, Text(change).c_str()), kNoError);
    }
    std::string Read() const
    {
        char value[kConfigValueSize];
        return ConfigRead(name.c_str(), 0, value) == kNoError ? value : kGone;
    }
    void Check(const std::string &text) const { EXPECT_EQ(text, Text(static_cast<UInt32>(std::atoi(text.c_str())))); }
};

// Many threads are the first users at once; then all is as the last process left it, and this one is killed.
void Live(UInt32 round)
{
    alarm(20);
    stdout = stderr; // where the test looks
    gLibPThreadNPTL = static_cast<Int32>(round % 2);
    std::barrier release(kThreads);
    std::deque<std::jthread> threads;
    for (UInt32 i = 0; i < kThreads; i++)
        threads.emplace_back([&release, act = (i + round) % 3, tid = UInt32{0}]() mutable {
            release.arrive_and_wait();
            if (act == 0)
                ItemT{0}.Check(ItemT{0}.Read());
            else if (act == 1)
                logerr("test", "first\n");
            else if (t_create("frst", 10, 0, 0, 0, &tid) == 0)
                t_start(
                    tid, 0, [](auto...) {}, nullptr);
        });
    threads.clear();
    EXPECT_TRUE(Eventually([] { return NumTasks() == 0; }) && tcblist->next == nullptr); // one flush task
    for (UInt32 id = 0; id < 3; id++)
        ItemT{id}.Check(ItemT{id}.Read());
    const std::jthread killer([round] { usleep(round * 7919 % 10000), raise(SIGKILL); });
    for (UInt32 change = 8; !testing::Test::HasFailure(); change++)
        ItemT{change % 3}.Change(change);
    _exit(1);
}

TEST(ConfigStress, FreshProcessesFindWholeValues)
{
    const ConfigFolders folders;
    folders.Put("choice/a0.choice", kGone);
    folders.Put("dat/b1.dat", ItemT{1}.Text(0)); // it will never be gone
    for (UInt32 round = 0; round <= 200; round++)
        ASSERT_EXIT(Live(round), testing::KilledBySignal(SIGKILL), "^Config Folder data[^\n]*\n$");
}

} // namespace
