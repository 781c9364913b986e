// The database in new processes, which are killed, and then under tasks in this one, for STRESS_SECONDS or 2.
#include "Common/framework/config.h"
#include "tests/folders.h"
#include "tests/tasks.h"

#include <barrier>
#include <csignal>

namespace
{

constexpr UInt32 kTasks = 8, kItems = 200, kWatched = 50; // the first items have a task that watches
const std::string kGone = "missing";                      // what a deleted item reads as
std::atomic<UInt32> written[2], heard, delivered, over;   // index 1: the watched items

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
        const bool gone = Text(change) == kGone;
        written[id < kWatched ? 1 : 0] += gone ? 0 : 1;
        const auto result = gone ? ConfigDelete(name.c_str(), 0) : ConfigWrite(name.c_str(), 0, Text(change).c_str());
        EXPECT_TRUE(gone || result == kNoError) << result;
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
    std::barrier release(kTasks);
    std::deque<std::jthread> threads;
    for (UInt32 i = 0; i < kTasks; i++)
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

void Count(ModT *, UInt32, void *counter, void *args)
{
    const auto *pNotify = static_cast<ConfigNotifyT *>(args);
    ItemT{static_cast<UInt32>(std::atoi(pNotify->name + 1))}.Check(pNotify->value);
    (*static_cast<std::atomic<UInt32> *>(counter))++;
}

void Work(UInt32 self)
{
    static std::barrier ready(kTasks);
    static std::atomic<UInt32> glimpsed[kTasks], busy = kTasks;
    UInt32 change = self, random = self, ev = 0;
    auto poll = [&] { ev_receive(kModDeferredEvent, kEvNoWait, 0, &ev) == 0 ? ModProcessDeferredCallbacks() : void(); };
    for (UInt32 id = self; id < kWatched; id += kTasks)
        ConfigAddCallback(ItemT{id}.name.c_str(), 0, Count, &delivered);
    ready.arrive_and_wait();
    for (; over == 0; poll()) {
        const ItemT item = {static_cast<UInt32>(rand_r(&random)) % kItems};
        if (rand_r(&random) % 3 == 0 && written[1] - delivered < 128) // 256 may be pending
            item.Change(change += kTasks);
        if (rand_r(&random) % 16 == 0)
            DeleteItemFromCache(item.name.c_str(), 0);
        item.Check(item.Read());
        if (item.id < kWatched && ConfigAddImmediateCallback(item.name.c_str(), 0, Count, &glimpsed[self]) == kNoError)
            ConfigDeleteCallback(item.name.c_str(), 0, Count, &glimpsed[self]);
    }
    busy--;
    EXPECT_TRUE(Eventually([&] { return poll(), busy == 0 && delivered == written[1]; }));
}

TEST(ConfigStress, EightTasksLoseNothing)
{
    const ConfigFolders folders;
    for (UInt32 id = 1; id < kItems; id += 2)
        folders.Put("dat/" + ItemT{id}.name + ".dat", ItemT{id}.Text(0) + "\n");
    gLibPThreadNPTL = 1;
    ModAddCallback(getConfigModule(), 0, Count, &heard, 0);
    for (UInt32 i = 0; i < kTasks; i++)
        StartTask("strs", [i] { Work(i); });
    const char *seconds = std::getenv("STRESS_SECONDS");
    std::this_thread::sleep_for(std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 2));
    over = 1;
    EXPECT_TRUE(Eventually([] { return NumTasks() == 0; }));
    EXPECT_EQ(heard, written[0] + written[1]);
    for (UInt32 i = 0; i < 2 * kItems; i++) {
        if (i == kItems)
            ConfigExit(); // from now on the files are read
        const ItemT item = {i % kItems};
        EXPECT_EQ(folders.Get("dat/" + item.name + ".dat"), item.Read() + (item.Read() == kGone ? "" : "\n"));
    }
}

std::ptrdiff_t Entries(const char *folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

TEST(ConfigStress, DeletedTasksLeaveNoFiles)
{
    const ConfigFolders folders;
    gLibPThreadNPTL = 1;
    loginfo("test", "starts the flush task\n");
    const std::ptrdiff_t open = Entries("/proc/self/fd");
    for (useconds_t pause = 0; pause < 2000; pause += 20) {
        const UInt32 task = StartTask("strs", [] {
            char value[kConfigValueSize];
            for (;;) {
                ConfigWrite("item", 0, ConfigRead("item", 0, value) == kNoError && value[0] == 'a' ? "b" : "a");
                ConfigStoreRead("item", 0, value, sizeof value);
                pthread_testcancel();
            }
        });
        usleep(pause);
        t_delete(task);
        const std::string value = folders.Get("dat/item.dat");
        EXPECT_TRUE(value == "a\n" || value == "b\n" || value == "missing") << value;
    }
    EXPECT_EQ(Entries("/proc/self/fd"), open);
    EXPECT_EQ(Entries("../dat"), 1);
}

} // namespace
