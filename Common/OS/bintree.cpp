#include "Common/OS/bintree.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/osassert.h"

#include <cstdlib>

namespace
{

// Null when memory runs out.
BinaryLeafT *BuildLeaf(UInt32 key, void *pObject)
{
    auto *pLeaf = static_cast<BinaryLeafT *>(std::malloc(sizeof(BinaryLeafT)));
    if (pLeaf != nullptr)
        *pLeaf = {.left = nullptr,
                  .leftcount = 0,
                  .right = nullptr,
                  .rightcount = 0,
                  .factor = BALANCED,
                  .key = key,
                  .pObject = pObject};
    return pLeaf;
}

void DestroyLeaf(BinaryLeafT *pLeaf)
{
    if (pLeaf == nullptr)
        return;
    DestroyLeaf(pLeaf->left);
    DestroyLeaf(pLeaf->right);
    std::free(pLeaf);
}

BinaryLeafT *SearchLeaf(BinaryLeafT *pLeaf, UInt32 key)
{
    while (pLeaf != nullptr) {
        if (key < pLeaf->key)
            pLeaf = pLeaf->left;
        else if (key == pLeaf->key) // not asked first: it is true once in a whole search
            break;
        else
            pLeaf = pLeaf->right;
    }
    return pLeaf;
}

// ---- Rebalancing. Each takes a subtree whose named side has become two levels taller and returns
// its new root; the height is then what it was before the insertion.

// After a double rotation: the new root's old factor tells which of its children got the shorter of
// its former subtrees.
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

// One side of a subtree has grown a level, and the subtree leaned to one side before, so that its
// height is in the end what it was. Returns its new root.
BinaryLeafT *SideGrew(BinaryLeafT *pLeaf, eFactorT side)
{
    if (pLeaf->factor == side)
        return side == LEFT_HEAVY ? RotateLeft(pLeaf) : RotateRight(pLeaf);
    pLeaf->factor = BALANCED;
    return pLeaf;
}

eFactorT SideOf(const BinaryLeafT *pLeaf, UInt32 key)
{
    return key < pLeaf->key ? LEFT_HEAVY : RIGHT_HEAVY;
}

BinaryLeafT **LinkAt(BinaryLeafT *pLeaf, eFactorT side)
{
    return side == LEFT_HEAVY ? &pLeaf->left : &pLeaf->right;
}

// All subtrees from pLeaf down to the new leaf were balanced and have grown on the new leaf's side.
void AllGrew(BinaryLeafT *pLeaf, const BinaryLeafT *pNew)
{
    while (pLeaf != pNew) {
        pLeaf->factor = SideOf(pLeaf, pNew->key);
        pLeaf = *LinkAt(pLeaf, pLeaf->factor);
    }
}

// Without recursion: of the subtrees on the way to the new leaf, only those below the last one that
// leans to a side grow, and that one takes the growth up.
void AddLeaf(BinaryLeafT **ppRoot, UInt32 key, void *pObject)
{
    BinaryLeafT **ppTop = ppRoot; // that last one, or the root when none leans
    BinaryLeafT **ppLink = ppRoot;
    while (BinaryLeafT *pLeaf = *ppLink) {
        os_assert(pLeaf->key != key, "pLeaf->key != key");
        if (pLeaf->factor != BALANCED)
            ppTop = ppLink;
        ppLink = LinkAt(pLeaf, SideOf(pLeaf, key));
    }
    BinaryLeafT *pNew = BuildLeaf(key, pObject);
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
BinaryTreeT *FindTree(tBTreeHandle handle)
{
    auto *pTree = low_pointer<BinaryTreeT>(handle);
    os_assert(pTree, "pTree");
    return pTree;
}

} // namespace

tBTreeHandle CreateTree()
{
    return low_id(low_calloc(sizeof(BinaryTreeT)));
}

eErrorT InsertItem(tBTreeHandle handle, UInt32 key, void *pObject)
{
    BinaryTreeT *pTree = FindTree(handle);
    AddLeaf(&pTree->pBaseLeaf, key, pObject);
    return kNoError;
}

eErrorT ReplaceItem(tBTreeHandle handle, UInt32 key, void *pObject)
{
    BinaryLeafT *pLeaf = SearchLeaf(FindTree(handle)->pBaseLeaf, key);
    if (pLeaf == nullptr)
        return kItemNotFound;
    pLeaf->pObject = pObject;
    return kNoError;
}

void *SearchTree(tBTreeHandle handle, UInt32 key)
{
    const BinaryLeafT *pLeaf = SearchLeaf(FindTree(handle)->pBaseLeaf, key);
    return pLeaf != nullptr ? pLeaf->pObject : nullptr;
}

void DestroyTree(tBTreeHandle handle)
{
    BinaryTreeT *pTree = FindTree(handle);
    DestroyLeaf(pTree->pBaseLeaf);
    *pTree = {.leafCount = 0, .pBaseLeaf = nullptr};
}

eErrorT BuildTree(tBTreeHandle handle, const BTreeLeavesT *pLeaves, UInt32 count)
{
    os_assert(pLeaves != nullptr || count == 0, "pLeaves");
    DestroyTree(handle);
    for (UInt32 i = 0; i < count; i++)
        InsertItem(handle, pLeaves[i].key, pLeaves[i].pObject);
    return kNoError;
}
