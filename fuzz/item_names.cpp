// Names and instances. For any of them the file is in the dat folder, and a value that was written reads back. All
// items of an input exist at the same time.
#include "fuzz/support.h"

#include "Common/OS/linux/oslinux.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <iterator>
#include <set>

namespace
{

void HearOfWrite(ModT * /*pMod*/, UInt32 /*funcIndex*/, void *userDefined, void *pArgs)
{
    static_cast<std::string *>(userDefined)->append(static_cast<const ConfigNotifyT *>(pArgs)->value).append("!");
}

std::string Read(const char *name, Int32 instance)
{
    char value[kConfigValueSize];
    return ConfigRead(name, instance, value) == kNoError ? value : "(none)";
}

// Writes an item whose name may have one, and leaves it in the cache as its file has it.
void Exercise(const char *name, Int32 instance, const std::string &written)
{
    const std::string value = written.substr(0, kConfigValueSize - 1);
    std::string heard;
    DeleteItemFromCache(name, instance); // a write of the value that it has would do nothing
    CHECK(ConfigAddCallback(name, instance, HearOfWrite, &heard) == kNoError);
    CHECK(ConfigWrite(name, instance, written.c_str()) == kNoError);
    ModProcessDeferredCallbacks();
    CHECK(heard == value + "!");
    ModT *pMod = &LookupItemInCache(name, instance)->mod;
    ModLog(pMod, kLogInfo, "%s\n", value.c_str()); // the name becomes part of a format
    CHECK(ConfigDeleteCallback(name, instance, HearOfWrite, &heard) == kNoError);
    ModDeleteAllCallbacks(pMod); // an item that had one stays for good otherwise
    CHECK(Read(name, instance) == value);
    CHECK(DeleteItemFromCache(name, instance) == kNoError);
    CHECK(Read(name, instance) == FirstLine(value, kConfigValueSize - 1));
}

void ExpectRefusal(const char *name, Int32 instance)
{
    CHECK(ConfigAddCallback(name, instance, HearOfWrite, nullptr) == kBadParameter);
    CHECK(ConfigWrite(name, instance, "value") == kBadParameter);
    CHECK(Read(name, instance) == "(none)");
    CHECK(ConfigDelete(name, instance) == kItemNotFound);
    CHECK(ConfigWriteCacheOnly(name, instance, "value") == kNoError);
    CHECK(Read(name, instance) == "value");
    CHECK(ConfigDelete(name, instance) == kNoError);
}

std::ptrdiff_t CountEntries(const char *folder)
{
    return std::distance(std::filesystem::recursive_directory_iterator(folder), {});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const UInt8 *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    std::set<std::pair<std::string, Int32>> items; // names as the database has them
    while (input.remaining_bytes() > 0) {
        const std::string name = input.ConsumeRandomLengthString(kConfigNameSize + 8).c_str();
        const Int32 instance = input.ConsumeIntegral<Int32>();
        const std::string value = input.ConsumeRandomLengthString(kConfigValueSize + 8).c_str();
        std::string key = name.substr(0, kConfigNameSize - 1);
        if (!ConfigStoreIsValidName(strlwr(key.data()))) {
            ExpectRefusal(name.c_str(), instance);
            continue;
        }
        Exercise(name.c_str(), instance, value);
        items.emplace(key, instance);
    }
    CHECK(CountEntries("..") - CountEntries("../dat") == 4);
    for (const auto &[key, instance] : items) {
        CHECK(ConfigDelete(key.c_str(), instance) == kNoError);
        CHECK(LookupItemInCache(key.c_str(), instance) == nullptr);
    }
    CHECK(CountEntries("..") == 4);
    return 0;
}
