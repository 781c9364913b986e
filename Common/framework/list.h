// Intrusive, circular, doubly linked lists. A record that is to be listed begins with a ListT. A list is a pointer to
// its first element; the pointer is null when the list is empty. The prev of the first element is the last one.
// Owner:   the list never allocates or frees. An element is on at most one list at a time.
// Locking: a name that ends in Unprot does not lock. Such a call is for a caller that owns the list alone, or that has
//          the interrupt lock. The other calls take the interrupt lock for the whole operation, so the caller must not
//          have it. A call that takes an element instead of a list never locks.
// Errors:  a null list (ppList) stops the program. A null element stops it too, unless a comment says what it does.
#pragma once

#include "Common/types.h"

// An element that is not listed has both links null (fresh, or after ListInit), or both pointing at itself (taken off).
struct ListS {
    ListS *next;
    ListS *prev;
};
using ListT = ListS;

// Any result but 0 accepts the element.
using ListCompareT = Int32 (*)(ListT *pElem, void *pUserDefined1, void *pUserDefined2);

void ListInit(ListT *pElem);

// Append at the tail. A listed element stops the program. Null changes nothing.
void ListEnqueue(ListT **ppList, ListT *pElem);
void ListEnqueueUnprot(ListT **ppList, ListT *pElem);

// Take the head off and return it. Return null if the list is empty.
ListT *ListDequeue(ListT **ppList);
ListT *ListDequeueUnprot(ListT **ppList);

// Take an element off. Nothing looks whether it is on this list. Return the element that followed it. Return null if
// the list is empty now, or if pElem is null.
ListT *ListExtract(ListT **ppList, ListT *pElem);
ListT *ListExtractUnprot(ListT **ppList, ListT *pElem);

// Link pElem behind pAfter. In an empty list pElem becomes the only element, whatever pAfter is. In any other list a
// null pAfter changes nothing. A null pElem changes nothing. A listed pElem stops the program.
void ListInsertAfter(ListT **ppList, ListT *pAfter, ListT *pElem);
void ListInsertAfterUnprot(ListT **ppList, ListT *pAfter, ListT *pElem);

// Link pElem before pBefore. If pBefore was the head, pElem becomes the head. Otherwise as above.
void ListInsertBefore(ListT **ppList, ListT *pBefore, ListT *pElem);
void ListInsertBeforeUnprot(ListT **ppList, ListT *pBefore, ListT *pElem);

// Insert before the head, as on a stack. Null changes nothing.
void ListPush(ListT **ppList, ListT *pElem);
void ListPushUnprot(ListT **ppList, ListT *pElem);

// Extract an element only if it is on the list; enqueue one only if it is not on the list. Null changes nothing.
void ListExtractIfPresent(ListT **ppList, ListT *pElem);
void ListExtractIfPresentUnprot(ListT **ppList, ListT *pElem);
void ListEnqueueIfAbsent(ListT **ppList, ListT *pElem);
void ListEnqueueIfAbsentUnprot(ListT **ppList, ListT *pElem);

// Returns the first element, from the head on, that pCompare accepts. Returns null if it accepts no element. A null
// pCompare stops the program, unless the list is empty.
ListT *ListSearch(ListT *pList, ListCompareT pCompare, void *pUserDefined1, void *pUserDefined2);

Int32 ListLen(ListT **ppList);
Int32 ListLenUnprot(ListT **ppList);
Boolean ListIsEmpty(ListT **ppList);
Boolean ListIsEmptyUnprot(ListT **ppList);
ListT *ListFirstElement(ListT *pHead);
ListT *ListLastElement(ListT *pHead);
ListT *ListNextElement(ListT *pHead, ListT *pElem); // null behind the tail
ListT *ListPrevElement(ListT *pHead, ListT *pElem); // null before the head
