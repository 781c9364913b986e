#include "Common/framework/list.h"

#include "Common/OS/linux/oslinux.h"
#include "bench/standin/screen.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace
{

struct Item {
    ListT link;
    char name;
};

ListT *list;
Item a, b, c;

// The list's names from the head on; every link must be matched by its neighbour's.
std::string Names()
{
    std::string names;
    for (ListT *elem = list; elem != nullptr; elem = ListNextElement(list, elem)) {
        EXPECT_EQ(elem->next->prev, elem);
        EXPECT_EQ(elem->prev->next, elem);
        names += reinterpret_cast<Item *>(elem)->name;
    }
    EXPECT_EQ(ListLenUnprot(&list), static_cast<Int32>(names.size()));
    EXPECT_EQ(ListIsEmptyUnprot(&list), names.empty() ? 1u : 0u);
    return names;
}

// Every operation in its two forms.
struct Forms {
    const char *name;
    decltype(&ListEnqueue) enqueue, push, extractIfPresent, enqueueIfAbsent;
    decltype(&ListInsertAfter) insertAfter, insertBefore;
    decltype(&ListDequeue) dequeue;
    decltype(&ListExtract) extract;
    decltype(&ListLen) length;
    decltype(&ListIsEmpty) isEmpty;
};
#define FORMS(name, end)                                                                                               \
    {                                                                                                                  \
        name, ListEnqueue##end, ListPush##end, ListExtractIfPresent##end, ListEnqueueIfAbsent##end,                    \
            ListInsertAfter##end, ListInsertBefore##end, ListDequeue##end, ListExtract##end, ListLen##end,             \
            ListIsEmpty##end                                                                                           \
    }
constexpr Forms kForms[] = {FORMS("Locked", ), FORMS("Unprot", Unprot)};

class Lists : public testing::TestWithParam<Forms>
{
protected:
    void SetUp() override
    {
        list = nullptr;
        a = {{}, 'a'};
        b = {{}, 'b'};
        c = {{&b.link, nullptr}, 'c'};
        ListInit(&c.link);
        if (forms.enqueue == ListEnqueueUnprot)
            hold.emplace(); // a form that took the lock would wait for ever
    }
    const Forms &forms = GetParam();
    std::optional<InterruptsOffHold> hold;
};

TEST_P(Lists, EnqueueAndDequeueInOrder)
{
    EXPECT_EQ(forms.isEmpty(&list), 1u);
    for (Item *item : {&a, &b, &c})
        forms.enqueue(&list, &item->link);
    EXPECT_EQ(Names(), "abc");
    EXPECT_EQ(forms.length(&list), 3);
    EXPECT_EQ(forms.isEmpty(&list), 0u);
    EXPECT_EQ(ListFirstElement(list), &a.link);
    EXPECT_EQ(ListLastElement(list), &c.link);
    EXPECT_EQ(ListPrevElement(list, &c.link), &b.link);
    EXPECT_EQ(ListPrevElement(list, &a.link), nullptr);
    for (Item *item : {&a, &b, &c})
        EXPECT_EQ(forms.dequeue(&list), &item->link);
    EXPECT_EQ(forms.dequeue(&list), nullptr);
    EXPECT_EQ(forms.length(&list), 0);
}

TEST_P(Lists, ExtractFromAnyPlace)
{
    for (Item *item : {&a, &b, &c})
        forms.enqueue(&list, &item->link);
    EXPECT_EQ(forms.extract(&list, nullptr), nullptr);
    EXPECT_EQ(forms.extract(&list, &c.link), &a.link) << "behind the tail comes the head";
    EXPECT_EQ(Names(), "ab");
    EXPECT_EQ(forms.extract(&list, &a.link), &b.link);
    EXPECT_EQ(Names(), "b");
    EXPECT_EQ(forms.extract(&list, &b.link), nullptr);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(b.link.next, &b.link);
    EXPECT_EQ(b.link.prev, &b.link);
    forms.enqueue(&list, &b.link);
    forms.extractIfPresent(&list, &a.link);
    forms.enqueueIfAbsent(&list, &c.link);
    forms.enqueueIfAbsent(&list, &b.link);
    EXPECT_EQ(Names(), "bc");
    forms.extractIfPresent(&list, &b.link);
    EXPECT_EQ(Names(), "c");
}

TEST_P(Lists, InsertAtAnyPlace)
{
    forms.insertAfter(&list, &c.link, &a.link);
    EXPECT_EQ(Names(), "a") << "in an empty list the place does not count";
    forms.insertAfter(&list, nullptr, &b.link);
    forms.insertBefore(&list, nullptr, &b.link);
    forms.insertAfter(&list, &a.link, nullptr);
    forms.enqueue(&list, nullptr);
    EXPECT_EQ(Names(), "a");
    EXPECT_EQ(b.link.next, nullptr);
    forms.insertAfter(&list, &a.link, &c.link);
    forms.insertBefore(&list, &c.link, &b.link);
    EXPECT_EQ(Names(), "abc");
    forms.extract(&list, &b.link);
    forms.insertBefore(&list, &a.link, &b.link);
    EXPECT_EQ(Names(), "bac");
    forms.extract(&list, &c.link);
    forms.push(&list, &c.link);
    EXPECT_EQ(Names(), "cba");
}

TEST_P(Lists, StopOnMisuse)
{
    hold.reset();
    forms.enqueue(&list, &a.link);
    forms.enqueue(&list, &b.link);
    a.link.prev = nullptr; // one link is enough to count as listed
    char line[120];
    const auto word = [](const void *p) { return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(p)); };
    std::snprintf(line, sizeof(line), "InsertAfter: element 0x%x already on another list! .next 0x%x prev 0x0.",
                  word(&a.link), word(&b.link));
    const auto print = [](const std::function<void()> &misuse) {
        bench::PrintedWhile(misuse, [](const std::string &text) {
            const InterruptsOffHold isFree;
            std::fputs(text.c_str(), stderr);
        });
    };
    const std::string after = "LIST: " + std::string(line) + "\nAssertion failed: 0,";
    const std::string before = "LIST: InsertBefore: element already on another list!\nAssertion failed: 0,";
    ListT *other = nullptr;
    EXPECT_DEATH(print([&] { forms.enqueue(&list, &a.link); }), after);
    EXPECT_DEATH(print([&] { forms.insertAfter(&list, &b.link, &a.link); }), after);
    EXPECT_DEATH(print([&] { forms.enqueueIfAbsent(&other, &a.link); }), after);
    EXPECT_DEATH(print([&] { forms.push(&list, &b.link); }), before);
    EXPECT_DEATH(print([&] { forms.insertBefore(&list, &a.link, &b.link); }), before);
    for (auto *call : {forms.enqueue, forms.push, forms.extractIfPresent, forms.enqueueIfAbsent})
        EXPECT_DEATH(call(nullptr, &c.link), "failed: ppList,");
    for (auto *call : {forms.insertAfter, forms.insertBefore})
        EXPECT_DEATH(call(nullptr, &a.link, &c.link), "failed: ppList,");
    EXPECT_DEATH(forms.dequeue(nullptr), "failed: ppList,");
    EXPECT_DEATH(forms.extract(nullptr, &a.link), "failed: ppList,");
    EXPECT_DEATH(forms.length(nullptr), "failed: ppList,");
    EXPECT_DEATH(forms.isEmpty(nullptr), "failed: ppList,");
    EXPECT_DEATH(ListInit(nullptr), "failed: pElem,");
    EXPECT_DEATH(ListNextElement(list, nullptr), "failed: pElem,");
    EXPECT_DEATH(ListPrevElement(list, nullptr), "failed: pElem,");
}

INSTANTIATE_TEST_SUITE_P(Forms, Lists, testing::ValuesIn(kForms), [](auto &i) { return i.param.name; });

TEST(ListSearch, VisitsEveryElementOnce)
{
    list = nullptr;
    for (Item *item : {&a, &b, &c})
        ListPushUnprot(&list, &item->link);
    std::vector<ListT *> visited;
    const auto visit = [](ListT *elem, void *visits, void *wanted) {
        static_cast<std::vector<ListT *> *>(visits)->push_back(elem);
        return elem == wanted ? -1 : 0;
    };
    EXPECT_EQ(ListSearch(list, visit, &visited, nullptr), nullptr);
    EXPECT_EQ(visited, (std::vector{&c.link, &b.link, &a.link}));
    EXPECT_EQ(ListSearch(list, visit, &visited, &b.link), &b.link);
    EXPECT_EQ(visited.size(), 5u);
    EXPECT_EQ(ListSearch(nullptr, nullptr, nullptr, nullptr), nullptr);
    EXPECT_DEATH(ListSearch(list, nullptr, nullptr, nullptr), "failed: pCompare,");
}

} // namespace
