// Intrusive, circular, doubly linked lists. A record that is to be listed begins with a ListT; a
// list is a pointer to its first element, null when empty. The head's prev is the tail.
// Owner:   the list never allocates or frees; an element is on at most one list at a time.
// Locking: names ending in Unprot do not lock and are for callers that own the list alone or hold
//          the interrupt lock; the others hold the interrupt lock for the whole operation, so they
//          must not be called with it held. Calls that take an element instead of a list never lock.
// Errors:  a null list (ppList) stops the program, and so does a null element, unless it is said what one does.
#pragma once

#include "Common/types.h"

// Not listed: both links null (fresh, ListInit) or both pointing at the element (taken off a list).
struct ListS {
    ListS *next;
    ListS *prev;
};
using ListT = ListS;

// Nonzero accepts the element.
using ListCompareT = Int32 (*)(ListT *pElem, void *pUserDefined1, void *pUserDefined2);

void ListInit(ListT *pElem);

// Append at the tail. An element that is listed already stops the program; null changes nothing.
void ListEnqueue(ListT **ppList, ListT *pElem);
void ListEnqueueUnprot(ListT **ppList, ListT *pElem);

// Take the head off. Return it, or null when the list is empty.
ListT *ListDequeue(ListT **ppList);
ListT *ListDequeueUnprot(ListT **ppList);

// Take an element off the list that it is assumed to be on. Return the element that followed it,
// or null when the list is now empty or pElem is null.
ListT *ListExtract(ListT **ppList, ListT *pElem);
ListT *ListExtractUnprot(ListT **ppList, ListT *pElem);

// Link pElem behind pAfter. In an empty list pElem becomes the only element; in any other list a
// null pAfter, and everywhere a null pElem, changes nothing. A listed pElem stops the program.
void ListInsertAfter(ListT **ppList, ListT *pAfter, ListT *pElem);
void ListInsertAfterUnprot(ListT **ppList, ListT *pAfter, ListT *pElem);

// Link pElem in front of pBefore; it becomes the head when pBefore was. Otherwise as above.
void ListInsertBefore(ListT **ppList, ListT *pBefore, ListT *pElem);
void ListInsertBeforeUnprot(ListT **ppList, ListT *pBefore, ListT *pElem);

// Insert before the head: a stack. Null changes nothing.
void ListPush(ListT **ppList, ListT *pElem);
void ListPushUnprot(ListT **ppList, ListT *pElem);

// As extract and enqueue, but only when the element is (is not) on the list. Null changes nothing.
void ListExtractIfPresent(ListT **ppList, ListT *pElem);
void ListExtractIfPresentUnprot(ListT **ppList, ListT *pElem);
void ListEnqueueIfAbsent(ListT **ppList, ListT *pElem);
void ListEnqueueIfAbsentUnprot(ListT **ppList, ListT *pElem);

// The first element from the head on that pCompare accepts, or null. A null pCompare stops the
// program, unless the list is empty.
ListT *ListSearch(ListT *pList, ListCompareT pCompare, void *pUserDefined1, void *pUserDefined2);

Int32 ListLen(ListT **ppList);
Int32 ListLenUnprot(ListT **ppList);
Boolean ListIsEmpty(ListT **ppList);
Boolean ListIsEmptyUnprot(ListT **ppList);
ListT *ListFirstElement(ListT *pHead);
ListT *ListLastElement(ListT *pHead);
ListT *ListNextElement(ListT *pHead, ListT *pElem); // null behind the tail
ListT *ListPrevElement(ListT *pHead, ListT *pElem); // null before the head
