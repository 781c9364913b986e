// A cached read of the configuration, against a map of strings, and the table of module records.
#include "Common/framework/config.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace
{

// ---- Reading

constexpr std::size_t kItems = 200;

// The number of different first letters of the names.
std::vector<std::string> Names(std::size_t letters)
{
    std::vector<std::string> names;
    for (std::size_t i = 0; i < kItems; i++)
        names.push_back(static_cast<char>('a' + i % letters) + ("setting" + std::to_string(i)));
    return names;
}

// Reads cached items in turn. Those whose names begin with the same letter share a list.
void CachedRead(benchmark::State &state, std::size_t letters)
{
    const std::vector<std::string> names = Names(letters);
    for (const std::string &name : names)
        ConfigWriteCacheOnly(name.c_str(), 0, "115200");
    std::size_t next = 0;
    char value[kConfigValueSize];
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(ConfigRead(names[next++ % kItems].c_str(), 0, value));
    for (const std::string &name : names)
        DeleteItemFromCache(name.c_str(), 0);
}
BENCHMARK_CAPTURE(CachedRead, spread, 26)->Name("config_read_spread");
BENCHMARK_CAPTURE(CachedRead, same_letter, 1)->Name("config_read_same_letter");

// The yardstick: finds the name, given as characters, and copies the value.
void MapRead(benchmark::State &state)
{
    const std::vector<std::string> names = Names(26);
    std::map<std::string, std::string> items;
    for (const std::string &name : names)
        items[name] = "115200";
    std::size_t next = 0;
    char value[kConfigValueSize];
    for ([[maybe_unused]] auto _ : state) {
        const std::string &found = items.find(names[next++ % kItems].c_str())->second;
        benchmark::DoNotOptimize(std::memcpy(value, found.c_str(), found.size() + 1));
    }
}
BENCHMARK(MapRead)->Name("config_map");

// ---- Module records

// Enters records, instances 1 to their number, for the length of a scope.
class Records
{
public:
    explicit Records(std::size_t count) : records_(count)
    {
        for (std::size_t i = 0; i < count; i++)
            ModInit(&records_[i], "record", static_cast<Int32>(i + 1), nullptr);
    }
    ~Records()
    {
        for (ModT &record : records_)
            ModExit(&record);
    }
    Records(const Records &) = delete;
    Records &operator=(const Records &) = delete;

private:
    std::vector<ModT> records_;
};

void EnterAndLeave(benchmark::State &state, std::size_t others)
{
    const Records records(others);
    for ([[maybe_unused]] auto _ : state) {
        ModT record = {};
        ModInit(&record, "one", 0, nullptr);
        ModExit(&record);
    }
}
BENCHMARK_CAPTURE(EnterAndLeave, 0, 0)->Name("mod_enter_0");
BENCHMARK_CAPTURE(EnterAndLeave, 1000, 1000)->Name("mod_enter_1000");
BENCHMARK_CAPTURE(EnterAndLeave, 3999, 3999)->Name("mod_enter_3999");

// The table has room for 4000, the database's own record among them.
void FindLast(benchmark::State &state)
{
    ConfigInit();
    const Records records(3999);
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(ModFindByName("record", 3999));
}
BENCHMARK(FindLast)->Name("mod_find_4000");

} // namespace
