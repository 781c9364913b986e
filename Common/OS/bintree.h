// Height-balanced (AVL) search tree. It leads from unsigned 32-bit keys to object pointers.
// Owner:   the tree owns its leaves and its handle. It never owns the objects.
// Locking: the tree has no lock. Its user locks it.
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
    UInt32 leafCount; // always 0: nothing counts it up
    BinaryLeafT *pBaseLeaf;
};
using BinaryTreeT = BinaryTreeS;

// One entry of the array that BuildTree takes.
struct BTreeLeavesS {
    UInt32 key;
    void *pObject;
};
using BTreeLeavesT = BTreeLeavesS;

// Returns an empty tree. Returns 0 if there is no memory for it.
tBTreeHandle CreateTree();

// Stores an object under a new key. A key that the tree has already stops the program.
// Always returns kNoError. Without memory for the leaf the object is not stored, and the result does not tell.
eErrorT InsertItem(tBTreeHandle handle, UInt32 key, void *pObject);

// Replaces the object of a key.
// kNoError       replaced.
// kItemNotFound  the tree does not have the key. Nothing has changed.
eErrorT ReplaceItem(tBTreeHandle handle, UInt32 key, void *pObject);

// Returns the object of the key. Returns null if the tree does not have the key. A null handle stops the program.
void *SearchTree(tBTreeHandle handle, UInt32 key);

// Frees every leaf. The handle stays valid, and its tree is empty. A null handle stops the program.
void DestroyTree(tBTreeHandle handle);

// Empties the tree, then inserts the entries in the order of the array. Returns kNoError.
// pLeaves may be null if count is 0. Otherwise a null pLeaves stops the program.
eErrorT BuildTree(tBTreeHandle handle, const BTreeLeavesT *pLeaves, UInt32 count);
