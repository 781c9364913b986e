#include "Common/OS/bintree.h"

#include "Common/OS/linux/lowmem.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <numeric>
#include <random>
#include <vector>

namespace
{

using Keys = std::vector<UInt32>;

// Appends the keys below a leaf in order and returns its height; every factor must tell the truth.
int CheckLeaf(const BinaryLeafT *leaf, Keys &inOrder)
{
    if (leaf == nullptr)
        return 0;
    const int left = CheckLeaf(leaf->left, inOrder);
    inOrder.push_back(leaf->key);
    const int right = CheckLeaf(leaf->right, inOrder);
    EXPECT_EQ(static_cast<int>(leaf->factor), left - right) << "at key " << leaf->key;
    EXPECT_LE(std::abs(left - right), 1) << "at key " << leaf->key;
    EXPECT_EQ(leaf->leftcount, 0u);
    EXPECT_EQ(leaf->rightcount, 0u);
    return 1 + std::max(left, right);
}

class Tree : public testing::Test
{
protected:
    ~Tree() override { DestroyTree(handle); }
    const BinaryLeafT *Root() const { return low_pointer<BinaryTreeT>(handle)->pBaseLeaf; }

    // Inserts the keys, each with an object of its own, and checks the whole tree after each.
    void Fill(const Keys &keys)
    {
        Keys inserted;
        for (const UInt32 key : keys) {
            EXPECT_EQ(InsertItem(handle, key, &objects[key]), kNoError);
            inserted.insert(std::upper_bound(inserted.begin(), inserted.end(), key), key);
            Keys found;
            CheckLeaf(Root(), found);
            ASSERT_EQ(found, inserted);
        }
        EXPECT_EQ(low_pointer<BinaryTreeT>(handle)->leafCount, 0u);
    }

    tBTreeHandle handle = CreateTree();
    std::map<UInt32, char> objects;
};

TEST_F(Tree, IsTrueInEveryOrderOfSevenKeys)
{
    Keys keys{0, 1, 2, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};
    do {
        Fill(keys);
        DestroyTree(handle);
    } while (!HasFailure() && std::next_permutation(keys.begin(), keys.end()));
}

TEST_F(Tree, StaysBalancedAndFindsWhatWasStored)
{
    UInt32 (*const orders[])(UInt32) = {
        [](UInt32 i) { return 2 * i; },
        [](UInt32 i) { return 0xFFFFFFF0 - 2 * i; },
        [](UInt32 i) { return i % 2 == 0 ? i : 0xFFFFFFFF - i; },
        [](UInt32 i) { return i % 2 == 0 ? 0x80000000 + i : 0x80000000 - i; },
        [](UInt32 i) { return i * 0x9E3779B1; },
        [](UInt32 i) { return static_cast<UInt32>(std::mt19937(i)()); },
    };
    for (auto *order : orders) {
        Keys keys(500);
        std::iota(keys.begin(), keys.end(), 0u);
        std::transform(keys.begin(), keys.end(), keys.begin(), order);
        objects.clear();
        Fill(keys);
        for (const UInt32 key : keys) {
            EXPECT_EQ(SearchTree(handle, key), &objects[key]);
            const auto next = objects.find(key + 1);
            EXPECT_EQ(SearchTree(handle, key + 1), next != objects.end() ? &next->second : nullptr);
        }
        DestroyTree(handle);
    }
}

TEST_F(Tree, IsEmptyAtFirstAndAfterDestroying)
{
    int object = 0;
    int other = 0;
    EXPECT_EQ(SearchTree(handle, 0), nullptr);
    InsertItem(handle, 1, &object);
    DestroyTree(handle);
    EXPECT_EQ(Root(), nullptr);
    EXPECT_EQ(SearchTree(handle, 1), nullptr);
    const BTreeLeavesT leaves[] = {{3, &object}, {1, &other}, {2, nullptr}};
    InsertItem(handle, 4, &object);
    EXPECT_EQ(BuildTree(handle, leaves, 3), kNoError);
    EXPECT_EQ(ReplaceItem(handle, 3, &other), kNoError);
    EXPECT_EQ(SearchTree(handle, 3), &other);
    EXPECT_EQ(ReplaceItem(handle, 4, &other), kItemNotFound);
    EXPECT_EQ(Root()->key, 2u) << "3, 1, 2 is the double rotation";
    EXPECT_EQ(SearchTree(handle, 1), &other);
    EXPECT_EQ(SearchTree(handle, 4), nullptr) << "built from empty";
}

TEST_F(Tree, StopsOnMisuse)
{
    InsertItem(handle, 7, nullptr);
    EXPECT_DEATH(InsertItem(handle, 7, nullptr), "Assertion failed: pLeaf->key != key,");
    EXPECT_DEATH(SearchTree(0, 7), "failed: pTree,");
    EXPECT_DEATH(DestroyTree(0), "failed: pTree,");
    EXPECT_DEATH(BuildTree(handle, nullptr, 1), "failed: pLeaves,");
    EXPECT_EQ(BuildTree(handle, nullptr, 0), kNoError);
}

} // namespace
