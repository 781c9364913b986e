#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/framework/config_inner.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace
{

// Items whose values are never shown, and how many characters of a name decide.
struct SensitiveRow {
    const char *name;
    std::size_t compared;
};
constexpr std::size_t kWhole = kConfigNameSize;
constexpr std::size_t kDirectoryPrefix = 20;
constexpr SensitiveRow kSensitive[] = {
    {"sw", kWhole},
    {"roomsw", kWhole},
    {"websw", kWhole},
    {"userpassword0", kWhole},
    {"meetingpassword", kWhole},
    {"sippassword", kWhole},
    {"softwareupdatepassword", kWhole},
    {"mppassword", kWhole},
    {"dot1xpwd", kWhole},
    {"ldappassword", kWhole},
    {"loginpassword", kWhole},
    {"norteldirectoryurlsp", kDirectoryPrefix},
    {"globaldirectoryurlsp", kDirectoryPrefix},
    {"xmpppassword", kWhole},
    {"yahoopassword", kWhole},
    {"pwencryptiontyperemote", kWhole},
    {"pwencryptiontyperoom", kWhole},
    {"pwencryptiontypeuser0", kWhole},
    {"pwencryptiontypemeeting", kWhole},
};

// Calls action for the items of that name, or for all when key is null. Under configSemaphore.
template <class Action> void ForEachItem(const KeyT *key, Action action)
{
    for (ListT *pHead : gConfig.buckets) {
        for (ListT *pElem = pHead; pElem != nullptr; pElem = ListNextElement(pHead, pElem)) {
            const ConfigItemT *pItem = AsItem(pElem);
            if (pItem->known != 0 && (key == nullptr || std::strcmp(pItem->mod.name, key->text) == 0))
                action(pItem);
        }
    }
}

struct DumpRowT {
    char name[kModFullNameSize];
    char value[kConfigValueSize];
};

// A copy of the items, so that nothing is printed with the cache held.
class DumpRows
{
public:
    explicit DumpRows(const KeyT *key);
    ~DumpRows() { std::free(pRows_); }
    DumpRows(const DumpRows &) = delete;
    DumpRows &operator=(const DumpRows &) = delete;
    void Print() const
    {
        for (std::size_t i = 0; i < count_; i++)
            std::printf("%-35s %s\n", pRows_[i].name, pRows_[i].value);
    }

private:
    DumpRowT *pRows_; // null: no item, or no memory
    std::size_t count_ = 0;
};

DumpRows::DumpRows(const KeyT *key)
{
    const SemaphoreHold hold(configSemaphore);
    std::size_t count = 0;
    ForEachItem(key, [&count](const ConfigItemT *) { count++; });
    pRows_ = static_cast<DumpRowT *>(std::calloc(count, sizeof(DumpRowT)));
    if (pRows_ == nullptr)
        return;
    ForEachItem(key, [this](const ConfigItemT *pItem) {
        DumpRowT &row = pRows_[count_++];
        std::snprintf(row.name, sizeof row.name, "%s[%d]", pItem->mod.name, pItem->mod.instance);
        CopyValue(row.value, IsSensitive(pItem->mod.name) ? "(not shown)" : pItem->value);
    });
}

void DumpItems(const KeyT *key)
{
    ConfigInit();
    ConfigDumpHeading();
    DumpRows(key).Print();
}

} // namespace

bool IsSensitive(const char *name)
{
    return std::any_of(std::begin(kSensitive), std::end(kSensitive),
                       [name](const SensitiveRow &row) { return strncasecmp(name, row.name, row.compared) == 0; });
}

void ConfigDumpHeading()
{
    std::puts("\nConfig item                         value");
}

void ConfigDumpAll()
{
    DumpItems(nullptr);
}

void ConfigDumpByName(const char *pName)
{
    const KeyT key(pName);
    DumpItems(&key);
}
