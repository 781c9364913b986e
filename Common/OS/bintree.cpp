#include "Common/OS/bintree.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/osassert.h"

#include <cstdint>
#include <cstdlib>

namespace
{

// Leaves come in slabs: an insertion seldom needs memory, and a tree is freed without walking it.
constexpr UInt32 kSlabLeaves = 32;
struct SlabT {
    SlabT *next;
    BinaryLeafT leaves[kSlabLeaves];
};

// What a handle designates: the tree, and the memory of its leaves.
struct TreeT {
    BinaryTreeT tree;
    SlabT *slabs;      // the latest first; all but that one are full
    UInt32 leavesLeft; // in the latest
};

// Null when memory runs out.
BinaryLeafT *BuildLeaf(TreeT *pTree, UInt32 key, void *pObject)
{
    if (pTree->leavesLeft == 0) {
        auto *pSlab = static_cast<SlabT *>(std::malloc(sizeof(SlabT)));
        if (pSlab == nullptr)
            return nullptr;
        pSlab->next = pTree->slabs;
        pTree->slabs = pSlab;
        pTree->leavesLeft = kSlabLeaves;
    }
    BinaryLeafT *pLeaf = &pTree->slabs->leaves[--pTree->leavesLeft];
    *pLeaf = {.left = nullptr,
              .leftcount = 0,
              .right = nullptr,
              .rightcount = 0,
              .factor = BALANCED,
              .key = key,
              .pObject = pObject};
    return pLeaf;
}

void DestroyLeaf(TreeT *pTree)
{
    while (SlabT *pSlab = pTree->slabs) {
        pTree->slabs = pSlab->next;
        std::free(pSlab);
    }
    pTree->leavesLeft = 0;
}

// ---- Descent. No branch depends on which way it goes: the processor would take the wrong one at every other leaf.

// The subtree that the key belongs to. Both links are read, and the bits of one are kept. A choice between two pointers
// could become a branch again in the compiler.
BinaryLeafT *NextLeaf(const BinaryLeafT *pLeaf, UInt32 key)
{
    const auto left = reinterpret_cast<std::uintptr_t>(pLeaf->left);
    const auto right = reinterpret_cast<std::uintptr_t>(pLeaf->right);
    const std::uintptr_t smaller = 0 - static_cast<std::uintptr_t>(key < pLeaf->key);
    return reinterpret_cast<BinaryLeafT *>(right ^ ((left ^ right) & smaller));
}

eFactorT SideOf(const BinaryLeafT *pLeaf, UInt32 key)
{
    return static_cast<eFactorT>(2 * static_cast<Int32>(key < pLeaf->key) - 1);
}

BinaryLeafT **LinkAt(BinaryLeafT *pLeaf, eFactorT side)
{
    return side == LEFT_HEAVY ? &pLeaf->left : &pLeaf->right;
}

BinaryLeafT *SearchLeaf(BinaryLeafT *pLeaf, UInt32 key)
{
    while (pLeaf != nullptr && pLeaf->key != key)
        pLeaf = NextLeaf(pLeaf, key);
    return pLeaf;
}

// ---- Rebalancing. Each function takes a subtree of which one side has become two levels taller. Its name says which.
// It returns the new root. The subtree then has the height that it had before the insertion.

// After a double rotation: the new root's old factor tells which of its children got the shorter of its former
// subtrees.
void BalanceDoubleRotation(BinaryLeafT *pRoot)
{
    pRoot->left->factor = pRoot->factor == RIGHT_HEAVY ? LEFT_HEAVY : BALANCED;
    pRoot->right->factor = pRoot->factor == LEFT_HEAVY ? RIGHT_HEAVY : BALANCED;
    pRoot->factor = BALANCED;
}

BinaryLeafT *RotateLeftLeft(BinaryLeafT *pLeaf)
{
    BinaryLeafT *pChild = pLeaf->left;
    pLeaf->left = pChild->right;
    pChild->right = pLeaf;
    pLeaf->factor = BALANCED;
    pChild->factor = BALANCED;
    return pChild;
}

BinaryLeafT *RotateLeftRight(BinaryLeafT *pLeaf)
{
    BinaryLeafT *pChild = pLeaf->left;
    BinaryLeafT *pGrandchild = pChild->right;
    os_assert(pGrandchild, "pGrandchild"); // that side of the child is the taller one
    pChild->right = pGrandchild->left;
    pLeaf->left = pGrandchild->right;
    pGrandchild->left = pChild;
    pGrandchild->right = pLeaf;
    BalanceDoubleRotation(pGrandchild);
    return pGrandchild;
}

BinaryLeafT *RotateLeft(BinaryLeafT *pLeaf)
{
    return pLeaf->left->factor == LEFT_HEAVY ? RotateLeftLeft(pLeaf) : RotateLeftRight(pLeaf);
}

BinaryLeafT *RotateRightRight(BinaryLeafT *pLeaf)
{
    BinaryLeafT *pChild = pLeaf->right;
    pLeaf->right = pChild->left;
    pChild->left = pLeaf;
    pLeaf->factor = BALANCED;
    pChild->factor = BALANCED;
    return pChild;
}

BinaryLeafT *RotateRightLeft(BinaryLeafT *pLeaf)
{
    BinaryLeafT *pChild = pLeaf->right;
    BinaryLeafT *pGrandchild = pChild->left;
    os_assert(pGrandchild, "pGrandchild"); // that side of the child is the taller one
    pChild->left = pGrandchild->right;
    pLeaf->right = pGrandchild->left;
    pGrandchild->right = pChild;
    pGrandchild->left = pLeaf;
    BalanceDoubleRotation(pGrandchild);
    return pGrandchild;
}

BinaryLeafT *RotateRight(BinaryLeafT *pLeaf)
{
    return pLeaf->right->factor == RIGHT_HEAVY ? RotateRightRight(pLeaf) : RotateRightLeft(pLeaf);
}

// ---- Insertion

// One side of a subtree that leaned to one side has grown a level. The subtree gets its old height back. Returns its
// new root.
BinaryLeafT *SideGrew(BinaryLeafT *pLeaf, eFactorT side)
{
    if (pLeaf->factor == side)
        return side == LEFT_HEAVY ? RotateLeft(pLeaf) : RotateRight(pLeaf);
    pLeaf->factor = BALANCED;
    return pLeaf;
}

// All subtrees from pLeaf down to the new leaf were balanced and have grown on the new leaf's side.
void AllGrew(BinaryLeafT *pLeaf, const BinaryLeafT *pNew)
{
    while (pLeaf != pNew) {
        pLeaf->factor = SideOf(pLeaf, pNew->key);
        pLeaf = *LinkAt(pLeaf, pLeaf->factor);
    }
}

// There is no recursion. On the way to the new leaf, the last subtree that leans to a side takes the growth up. Only
// the subtrees below it grow.
void AddLeaf(TreeT *pTree, UInt32 key, void *pObject)
{
    BinaryLeafT **ppRoot = &pTree->tree.pBaseLeaf;
    BinaryLeafT **ppTop = ppRoot; // that last one, or the root when none leans
    BinaryLeafT **ppLink = ppRoot;
    for (BinaryLeafT *pLeaf = *ppRoot; pLeaf != nullptr; pLeaf = NextLeaf(pLeaf, key)) {
        os_assert(pLeaf->key != key, "pLeaf->key != key");
        ppTop = pLeaf->factor != BALANCED ? ppLink : ppTop;
        ppLink = LinkAt(pLeaf, SideOf(pLeaf, key));
    }
    BinaryLeafT *pNew = BuildLeaf(pTree, key, pObject);
    *ppLink = pNew;
    BinaryLeafT *pTop = *ppTop;
    if (pNew == nullptr)
        return; // without memory nothing has grown
    if (pTop->factor == BALANCED) {
        AllGrew(pTop, pNew);
        return;
    }
    const eFactorT side = SideOf(pTop, key);
    AllGrew(*LinkAt(pTop, side), pNew);
    *ppTop = SideGrew(pTop, side);
}

// A null handle stops the program.
TreeT *FindTree(tBTreeHandle handle)
{
    auto *pTree = low_pointer<TreeT>(handle);
    os_assert(pTree, "pTree");
    return pTree;
}

} // namespace

tBTreeHandle CreateTree()
{
    return low_id(low_calloc(sizeof(TreeT)));
}

eErrorT InsertItem(tBTreeHandle handle, UInt32 key, void *pObject)
{
    AddLeaf(FindTree(handle), key, pObject);
    return kNoError;
}

eErrorT ReplaceItem(tBTreeHandle handle, UInt32 key, void *pObject)
{
    BinaryLeafT *pLeaf = SearchLeaf(FindTree(handle)->tree.pBaseLeaf, key);
    if (pLeaf == nullptr)
        return kItemNotFound;
    pLeaf->pObject = pObject;
    return kNoError;
}

void *SearchTree(tBTreeHandle handle, UInt32 key)
{
    const BinaryLeafT *pLeaf = SearchLeaf(FindTree(handle)->tree.pBaseLeaf, key);
    return pLeaf != nullptr ? pLeaf->pObject : nullptr;
}

void DestroyTree(tBTreeHandle handle)
{
    TreeT *pTree = FindTree(handle);
    DestroyLeaf(pTree);
    pTree->tree = {.leafCount = 0, .pBaseLeaf = nullptr};
}

eErrorT BuildTree(tBTreeHandle handle, const BTreeLeavesT *pLeaves, UInt32 count)
{
    os_assert(pLeaves != nullptr || count == 0, "pLeaves");
    DestroyTree(handle);
    for (UInt32 i = 0; i < count; i++)
        InsertItem(handle, pLeaves[i].key, pLeaves[i].pObject);
    return kNoError;
}
