#include "Common/framework/list.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/osassert.h"

#include <cstdio>

namespace
{

// An only element cannot be told from one that is on no list.
bool IsUnlisted(const ListT *pElem)
{
    return (pElem->next == nullptr || pElem->next == pElem) && (pElem->prev == nullptr || pElem->prev == pElem);
}

void LinkBehind(ListT *pAfter, ListT *pElem)
{
    pElem->prev = pAfter;
    pElem->next = pAfter->next;
    pAfter->next = pElem;
    pElem->next->prev = pElem;
}

void LinkAlone(ListT **ppList, ListT *pElem)
{
    pElem->next = pElem;
    pElem->prev = pElem;
    *ppList = pElem;
}

Int32 IsSameElement(ListT *pElem, void *pWanted, void * /*unused*/)
{
    return pElem == pWanted ? 1 : 0;
}

// pElem if it is on the list, else null.
ListT *list_find_elem(ListT *pList, ListT *pElem)
{
    return ListSearch(pList, IsSameElement, pElem, nullptr);
}

// ---- Insertions. For an element that is already listed they return false and change nothing. The public calls then
// print the reason, without the lock, and stop the program.

bool InsertAfter(ListT **ppList, ListT *pAfter, ListT *pElem)
{
    if (pElem == nullptr)
        return true;
    os_assert(ppList, "ppList");
    if (!IsUnlisted(pElem))
        return false;
    if (*ppList == nullptr)
        LinkAlone(ppList, pElem);
    else if (pAfter != nullptr) // deliberately without a message otherwise
        LinkBehind(pAfter, pElem);
    return true;
}

bool InsertBefore(ListT **ppList, ListT *pBefore, ListT *pElem)
{
    if (pElem == nullptr)
        return true;
    os_assert(ppList, "ppList");
    if (!IsUnlisted(pElem))
        return false;
    if (*ppList == nullptr) {
        LinkAlone(ppList, pElem);
    } else if (pBefore != nullptr) {
        LinkBehind(pBefore->prev, pElem);
        if (*ppList == pBefore)
            *ppList = pElem;
    }
    return true;
}

bool Enqueue(ListT **ppList, ListT *pElem)
{
    return InsertAfter(ppList, ListLastElement(*ppList), pElem);
}

bool EnqueueIfAbsent(ListT **ppList, ListT *pElem)
{
    os_assert(ppList, "ppList");
    return list_find_elem(*ppList, pElem) != nullptr || Enqueue(ppList, pElem);
}

bool Push(ListT **ppList, ListT *pElem)
{
    os_assert(ppList, "ppList");
    return InsertBefore(ppList, *ppList, pElem);
}

template <class... Args> bool WithLock(bool (*insert)(Args...), Args... args)
{
    const InterruptsOffHold hold;
    return insert(args...);
}

void StopUnlessInsertedAfter(bool inserted, const ListT *pElem)
{
    if (inserted)
        return;
    std::printf("LIST: InsertAfter: element 0x%x already on another list! (next 0x%x prev 0x%x)\n", AddressWord(pElem),
                AddressWord(pElem->next), AddressWord(pElem->prev));
    os_assert(false, "0");
}

void StopUnlessInsertedBefore(bool inserted)
{
    if (inserted)
        return;
    std::puts("LIST: InsertBefore: element already on another list!");
    os_assert(false, "0");
}

} // namespace

void ListInit(ListT *pElem)
{
    os_assert(pElem, "pElem");
    *pElem = {.next = nullptr, .prev = nullptr};
}

void ListEnqueueUnprot(ListT **ppList, ListT *pElem)
{
    os_assert(ppList, "ppList");
    StopUnlessInsertedAfter(Enqueue(ppList, pElem), pElem);
}

void ListEnqueue(ListT **ppList, ListT *pElem)
{
    os_assert(ppList, "ppList");
    StopUnlessInsertedAfter(WithLock(Enqueue, ppList, pElem), pElem);
}

ListT *ListDequeueUnprot(ListT **ppList)
{
    os_assert(ppList, "ppList");
    ListT *pHead = *ppList;
    ListExtractUnprot(ppList, pHead);
    return pHead;
}

ListT *ListDequeue(ListT **ppList)
{
    const InterruptsOffHold hold;
    return ListDequeueUnprot(ppList);
}

ListT *ListExtractUnprot(ListT **ppList, ListT *pElem)
{
    if (pElem == nullptr)
        return nullptr;
    os_assert(ppList, "ppList");
    ListT *pNext = pElem->next;
    pElem->prev->next = pNext;
    pNext->prev = pElem->prev;
    pElem->next = pElem;
    pElem->prev = pElem;
    if (pNext == pElem) {
        *ppList = nullptr;
        return nullptr;
    }
    if (*ppList == pElem)
        *ppList = pNext;
    return pNext;
}

ListT *ListExtract(ListT **ppList, ListT *pElem)
{
    const InterruptsOffHold hold;
    return ListExtractUnprot(ppList, pElem);
}

void ListInsertAfterUnprot(ListT **ppList, ListT *pAfter, ListT *pElem)
{
    StopUnlessInsertedAfter(InsertAfter(ppList, pAfter, pElem), pElem);
}

void ListInsertAfter(ListT **ppList, ListT *pAfter, ListT *pElem)
{
    StopUnlessInsertedAfter(WithLock(InsertAfter, ppList, pAfter, pElem), pElem);
}

void ListInsertBeforeUnprot(ListT **ppList, ListT *pBefore, ListT *pElem)
{
    StopUnlessInsertedBefore(InsertBefore(ppList, pBefore, pElem));
}

void ListInsertBefore(ListT **ppList, ListT *pBefore, ListT *pElem)
{
    StopUnlessInsertedBefore(WithLock(InsertBefore, ppList, pBefore, pElem));
}

void ListPushUnprot(ListT **ppList, ListT *pElem)
{
    StopUnlessInsertedBefore(Push(ppList, pElem));
}

void ListPush(ListT **ppList, ListT *pElem)
{
    StopUnlessInsertedBefore(WithLock(Push, ppList, pElem));
}

void ListExtractIfPresentUnprot(ListT **ppList, ListT *pElem)
{
    os_assert(ppList, "ppList");
    ListExtractUnprot(ppList, list_find_elem(*ppList, pElem));
}

void ListExtractIfPresent(ListT **ppList, ListT *pElem)
{
    const InterruptsOffHold hold;
    ListExtractIfPresentUnprot(ppList, pElem);
}

void ListEnqueueIfAbsentUnprot(ListT **ppList, ListT *pElem)
{
    StopUnlessInsertedAfter(EnqueueIfAbsent(ppList, pElem), pElem);
}

void ListEnqueueIfAbsent(ListT **ppList, ListT *pElem)
{
    StopUnlessInsertedAfter(WithLock(EnqueueIfAbsent, ppList, pElem), pElem);
}

ListT *ListSearch(ListT *pList, ListCompareT pCompare, void *pUserDefined1, void *pUserDefined2)
{
    if (pList == nullptr)
        return nullptr;
    os_assert(pCompare, "pCompare");
    ListT *pElem = pList;
    do {
        if (pCompare(pElem, pUserDefined1, pUserDefined2) != 0)
            return pElem;
        pElem = pElem->next;
    } while (pElem != pList);
    return nullptr;
}

Int32 ListLenUnprot(ListT **ppList)
{
    os_assert(ppList, "ppList");
    Int32 count = 0;
    for (ListT *pElem = *ppList; pElem != nullptr; pElem = ListNextElement(*ppList, pElem))
        count++;
    return count;
}

Int32 ListLen(ListT **ppList)
{
    const InterruptsOffHold hold;
    return ListLenUnprot(ppList);
}

Boolean ListIsEmptyUnprot(ListT **ppList)
{
    os_assert(ppList, "ppList");
    return *ppList == nullptr ? 1 : 0;
}

Boolean ListIsEmpty(ListT **ppList)
{
    const InterruptsOffHold hold;
    return ListIsEmptyUnprot(ppList);
}

ListT *ListFirstElement(ListT *pHead)
{
    return pHead;
}

ListT *ListLastElement(ListT *pHead)
{
    return pHead != nullptr ? pHead->prev : nullptr;
}

ListT *ListNextElement(ListT *pHead, ListT *pElem)
{
    os_assert(pElem, "pElem");
    return pElem->next == pHead ? nullptr : pElem->next;
}

ListT *ListPrevElement(ListT *pHead, ListT *pElem)
{
    os_assert(pElem, "pElem");
    return pElem == pHead ? nullptr : pElem->prev;
}
