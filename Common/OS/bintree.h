// Height-balanced (AVL) search tree from unsigned 32-bit keys to object pointers.
// Owner:   the tree owns its leaves and its handle, never the objects.
// Locking: none; the user of a tree locks it.
#pragma once

#include "Common/types.h"

// Handle of a tree: the address of its BinaryTreeT. 0: the tree could not be created.
using tBTreeHandle = UInt32;

enum eFactorS : Int32 {
    RIGHT_HEAVY = -1, // the right subtree is one level taller
    BALANCED = 0,
    LEFT_HEAVY = 1, // the left subtree is one level taller
};
using eFactorT = eFactorS;

struct BinaryLeafS {
    BinaryLeafS *left;  // smaller keys
    UInt32 leftcount;   // set to 0, never maintained
    BinaryLeafS *right; // larger keys
    UInt32 rightcount;  // set to 0, never maintained
    eFactorT factor;
    UInt32 key;
    void *pObject;
};
using BinaryLeafT = BinaryLeafS;

struct BinaryTreeS {
    UInt32 leafCount; // always 0: never counted up, do not rely on it
    BinaryLeafT *pBaseLeaf;
};
using BinaryTreeT = BinaryTreeS;

// One entry of the array that BuildTree takes.
struct BTreeLeavesS {
    UInt32 key;
    void *pObject;
};
using BTreeLeavesT = BTreeLeavesS;

// Returns an empty tree, or 0 when memory runs out.
tBTreeHandle CreateTree();

// Stores an object under a key that must not be there yet (a duplicate stops the program).
// Always returns kNoError, also when memory ran out and the object was silently not stored.
eErrorT InsertItem(tBTreeHandle handle, UInt32 key, void *pObject);

// Stores another object under a key that is there. Returns kNoError, or kItemNotFound with nothing changed.
eErrorT ReplaceItem(tBTreeHandle handle, UInt32 key, void *pObject);

// Returns the object stored under the key, or null. A null handle stops the program.
void *SearchTree(tBTreeHandle handle, UInt32 key);

// Frees every leaf. The handle stays valid, and empty. A null handle stops the program.
void DestroyTree(tBTreeHandle handle);

// Empties the tree, then inserts the entries in array order. Returns kNoError. Null for pLeaves stops the
// program unless count is 0.
eErrorT BuildTree(tBTreeHandle handle, const BTreeLeavesT *pLeaves, UInt32 count);
