// Compares tree, semaphore and events with the same of the standard library and the system.
#include "Common/OS/bintree.h"
#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/semaphore.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <random>
#include <thread>
#include <vector>

namespace
{

// ---- Tree

constexpr std::size_t kKeys = 1000;
constexpr benchmark::IterationCount kSearches = 1 << 18;
constexpr std::size_t kAllKeys = 1 << 16; // enough that no branch predictor learns them by heart

UInt32 RandomKey(std::size_t index)
{
    static const std::vector<UInt32> keys = [] {
        std::vector<UInt32> made(kAllKeys);
        std::generate(made.begin(), made.end(), std::mt19937(1));
        return made;
    }();
    return keys[index % kAllKeys];
}

// The tree with the map's interface.
struct Tree {
    tBTreeHandle handle = CreateTree();
    void emplace(UInt32 key, void *object) { InsertItem(handle, key, object); }
    void *find(UInt32 key) const { return SearchTree(handle, key); }
    void clear() { DestroyTree(handle); }
};
using Map = std::map<UInt32, void *>;

template <class Container> void Insert(benchmark::State &state)
{
    Container container;
    std::size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        for (std::size_t i = 0; i < kKeys; i++)
            container.emplace(RandomKey(next++), &container);
        container.clear();
    }
}
BENCHMARK(Insert<Tree>)->Name("tree_insert");
BENCHMARK(Insert<Map>)->Name("map_insert");

template <class Container> void Search(benchmark::State &state)
{
    Container container;
    std::size_t next = 0;
    for (std::size_t i = 0; i < kKeys; i++)
        container.emplace(RandomKey(i), &container);
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(container.find(RandomKey(RandomKey(next++) % kKeys)));
    container.clear();
}
// There are enough iterations that the cold first ones do not count, even on a busy machine.
BENCHMARK(Search<Tree>)->Name("tree_search")->Iterations(kSearches);
BENCHMARK(Search<Map>)->Name("map_search")->Iterations(kSearches);

// ---- Without waiting

void LockMutex(benchmark::State &state)
{
    pthread_mutex_t mutex;
    InitPriorityMutex(&mutex);
    for ([[maybe_unused]] auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
}
BENCHMARK(LockMutex)->Name("mutex");

void TakeSemaphore(benchmark::State &state)
{
    UInt32 semaphore = 0;
    sm_create("bnch", 1, 0, &semaphore);
    for ([[maybe_unused]] auto _ : state) {
        sm_p(semaphore, 0, 0);
        sm_v(semaphore);
    }
    sm_delete(semaphore);
}
BENCHMARK(TakeSemaphore)->Name("semaphore");

// Makes a task of the main thread, once, and returns its identifier.
UInt32 MainTask()
{
    static const UInt32 result = (gLibPThreadNPTL = 1, t_attach("main", 1));
    return result == 0 ? t_name(0) : 0;
}

void PostAndReceive(benchmark::State &state)
{
    const UInt32 self = MainTask();
    UInt32 events = 0;
    for ([[maybe_unused]] auto _ : state) {
        ev_send(self, 1);
        ev_receive(1, kEvAny, 0, &events);
    }
}
BENCHMARK(PostAndReceive)->Name("event");

// ---- Round trips between two threads, to be run on one processor

void EchoEvents(UInt32 peer, UInt32, UInt32, UInt32)
{
    for (UInt32 events = 0; ev_receive(1, kEvAny, 0, &events) == 0;)
        ev_send(peer, 2);
}

void EventRoundTrip(benchmark::State &state)
{
    const UInt32 arguments[4] = {MainTask()};
    UInt32 echo = 0, events = 0;
    t_create("echo", 1, 0, 0, 0, &echo);
    t_start(echo, 0, EchoEvents, arguments);
    for ([[maybe_unused]] auto _ : state) {
        ev_send(echo, 1);
        ev_receive(2, kEvAny, 0, &events);
    }
    t_delete(echo);
}
BENCHMARK(EventRoundTrip)->Name("roundtrip_event")->MeasureProcessCPUTime();

// A ball between two sides.
struct Ball {
    pthread_mutex_t mutex;
    pthread_cond_t moved[2] = {PTHREAD_COND_INITIALIZER, PTHREAD_COND_INITIALIZER};
    int side = 0;

    void Hit(int to)
    {
        {
            const MutexHold hold(&mutex);
            side = to;
        }
        pthread_cond_signal(&moved[to]);
    }
    void Await(int here)
    {
        const MutexHold hold(&mutex);
        while (side != here)
            pthread_cond_wait(&moved[here], &mutex);
    }
};

void ConditionRoundTrip(benchmark::State &state)
{
    Ball ball;
    InitPriorityMutex(&ball.mutex);
    const std::jthread echo([&ball, count = state.max_iterations] {
        for (auto i = count; i > 0; i--) {
            ball.Await(1);
            ball.Hit(0);
        }
    });
    for ([[maybe_unused]] auto _ : state) {
        ball.Hit(1);
        ball.Await(0);
    }
}
BENCHMARK(ConditionRoundTrip)->Name("roundtrip_condition")->MeasureProcessCPUTime();

} // namespace
