// Insertion: where keys land, how pages split, what reaches the disk and when.
#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "tests/testsupport/testing.h"

namespace {

int32_t le32(const std::string& bytes, size_t at) {
  return static_cast<int32_t>(static_cast<uint8_t>(bytes[at]) |
                              (static_cast<uint8_t>(bytes[at + 1]) << 8) |
                              (static_cast<uint8_t>(bytes[at + 2]) << 16) |
                              (static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 3])) << 24));
}
std::string be4(uint32_t v) {
  return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 8), static_cast<char>(v)};
}

BTreePage pageAt(BTree& tree, int32_t offset) {
  BTreePage page(0, 0);
  EXPECT_TRUE(BTreeTestAccess::pageFile(tree)->readPage(offset, page)) << offset;
  return page;
}
int32_t rootOffset(BTree& tree) { return BTreeTestAccess::pageFile(tree)->hdr.rootOffset; }
std::string keyOf(const BTreePage& page, uint32_t i) { return BTreeTestAccess::bytes(page.keys[i]); }

class InsertTest : public ::testing::Test {
 protected:
  // Each tree gets a file of its own; `path` names the last one.
  std::unique_ptr<BTree> create(int order, int keyLength, bool duplicates = false) {
    path = dir.file("tree" + std::to_string(++made) + ".bt");
    auto tree = std::make_unique<BTree>(path, order, keyLength, duplicates, 0u, 0u, int16_t{0});
    EXPECT_TRUE(tree->isOk());
    return tree;
  }
  lltest::TempDir dir;
  std::string path;
  int made = 0;
};

TEST_F(InsertTest, OrderThreeRootSplitGivesTheDocumentedFile) {
  const int32_t R = 56;  // 28 + 2 x 4 + 2 x 4 + 3 x 4
  {
    auto tree = create(3, 4);
    ASSERT_TRUE(tree->insertKey(10, int32_t{1}));
    EXPECT_EQ(tree->getKeyCount(), 1);
    EXPECT_EQ(le32(lltest::readFile(path), 24), 0) << "the count on disk lags by one insertion";
    ASSERT_TRUE(tree->insertKey(20, int32_t{2}));
    EXPECT_EQ(rootOffset(*tree), 46);
    ASSERT_TRUE(tree->insertKey(30, int32_t{3}));
    EXPECT_EQ(rootOffset(*tree), 46 + 2 * R);
    EXPECT_EQ(BTreeTestAccess::root(*tree)->offset, 46 + 2 * R) << "root read back";
    EXPECT_EQ(tree->depth(), 1);
    std::string open = lltest::readFile(path);
    EXPECT_EQ(le32(open, 24), 2);
    EXPECT_EQ(le32(open, 28), 46 + 2 * R);
  }
  const std::string f = lltest::readFile(path);
  ASSERT_EQ(f.size(), 46u + 3 * R);
  EXPECT_EQ(le32(f, 24), 3);
  EXPECT_EQ(le32(f, 28), 46 + 2 * R);
  struct Expect { int32_t at, parent, keyCount; uint32_t key; int32_t value, child0, child1; };
  const Expect pages[] = {{46, 46 + 2 * R, 1, 1, 10, -1, -1},
                          {46 + R, 46 + 2 * R, 1, 3, 30, -1, -1},
                          {46 + 2 * R, -1, 1, 2, 20, 46, 46 + R}};
  for (const Expect& e : pages) {
    SCOPED_TRACE(e.at);
    EXPECT_EQ(le32(f, e.at), e.at);
    EXPECT_EQ(le32(f, e.at + 4), e.parent);
    EXPECT_EQ(le32(f, e.at + 20), e.keyCount);
    EXPECT_EQ(f.substr(e.at + 28, 8), be4(e.key) + std::string(4, '\0')) << "second slot cleared";
    EXPECT_EQ(le32(f, e.at + 36), e.value);
    EXPECT_EQ(le32(f, e.at + 40), 0);
    EXPECT_EQ(le32(f, e.at + 44), e.child0);
    EXPECT_EQ(le32(f, e.at + 48), e.child1);
    EXPECT_EQ(le32(f, e.at + 52), -1);
  }
}

TEST_F(InsertTest, SplitShapesOfEvenOrdersAndTheMedianThatIsTheNewKey) {
  {
    auto tree = create(4, 4);
    for (int32_t k : {1, 2, 3, 4}) ASSERT_TRUE(tree->insertKey(100 + k, k));
    BTreePage root = pageAt(*tree, rootOffset(*tree));
    ASSERT_EQ(root.keyCount, 1u);
    EXPECT_EQ(keyOf(root, 0), be4(3));
    BTreePage left = pageAt(*tree, root.children[0]);
    BTreePage right = pageAt(*tree, root.children[1]);
    EXPECT_EQ(left.keyCount, 2u);
    EXPECT_EQ(keyOf(left, 1), be4(2));
    EXPECT_EQ(left.keys[2].data, nullptr);
    EXPECT_EQ(left.values[2], 0);
    ASSERT_EQ(right.keyCount, 1u);
    EXPECT_EQ(keyOf(right, 0), be4(4));
    EXPECT_EQ(right.values[0], 104);
  }
  {
    // Order 2: the right page of a split is empty, and the tree still takes keys and finds them.
    auto tree = create(2, 4);
    ASSERT_TRUE(tree->insertKey(101, int32_t{1}));
    ASSERT_TRUE(tree->insertKey(102, int32_t{2}));
    BTreePage root = pageAt(*tree, rootOffset(*tree));
    EXPECT_EQ(keyOf(root, 0), be4(2));
    EXPECT_EQ(pageAt(*tree, root.children[0]).keyCount, 1u);
    EXPECT_EQ(pageAt(*tree, root.children[1]).keyCount, 0u);
    for (int32_t k = 3; k <= 40; ++k) ASSERT_TRUE(tree->insertKey(100 + k, k));
    for (int32_t k = 1; k <= 40; ++k) {
      int32_t v = 0;
      ASSERT_TRUE(tree->find(v, k)) << k;
      EXPECT_EQ(v, 100 + k);
    }
    EXPECT_EQ(BTreeTestAccess::checkTree(*tree, true), "");
  }
  {
    // Order 3 with 1 and 3 in the root: 2 sorts at index minKeys and goes up with its value.
    auto tree = create(3, 4);
    ASSERT_TRUE(tree->insertKey(101, int32_t{1}));
    ASSERT_TRUE(tree->insertKey(103, int32_t{3}));
    ASSERT_TRUE(tree->insertKey(102, int32_t{2}));
    BTreePage root = pageAt(*tree, rootOffset(*tree));
    ASSERT_EQ(root.keyCount, 1u);
    EXPECT_EQ(keyOf(root, 0), be4(2));
    EXPECT_EQ(root.values[0], 102);
    EXPECT_EQ(keyOf(pageAt(*tree, root.children[0]), 0), be4(1));
    EXPECT_EQ(keyOf(pageAt(*tree, root.children[1]), 0), be4(3));
  }
}

TEST_F(InsertTest, InteriorSplitReparentsTheMovedChildrenOnly) {
  auto tree = create(3, 4);
  // 1..7 in order: the third root split makes the tree two levels deep.
  for (int32_t k = 1; k <= 7; ++k) ASSERT_TRUE(tree->insertKey(100 + k, k));
  EXPECT_EQ(tree->depth(), 2);
  BTreePage root = pageAt(*tree, rootOffset(*tree));
  ASSERT_EQ(keyOf(root, 0), be4(4));
  for (int side = 0; side < 2; ++side) {
    BTreePage interior = pageAt(*tree, root.children[side]);
    EXPECT_EQ(interior.parentOffset, root.offset);
    for (uint32_t i = 0; i <= interior.keyCount; ++i)
      EXPECT_EQ(pageAt(*tree, interior.children[i]).parentOffset, interior.offset);
  }
  EXPECT_EQ(BTreeTestAccess::checkTree(*tree), "");
  int32_t keys = 0, pages = 0, backward = 0;
  EXPECT_TRUE(tree->test(false, &keys, &pages, &backward));
  EXPECT_EQ(keys, 7);
  EXPECT_EQ(pages, 7);
}

TEST_F(InsertTest, PresentKeysAreRefusedAndDuplicatesNeedAnotherValue) {
  {
    auto tree = create(5, 8);
    ASSERT_TRUE(tree->insertKey(1, "abc", 0));
    EXPECT_FALSE(tree->insertKey(2, "abc", 0));
    EXPECT_FALSE(tree->insertKey(3, "abc\0\0", 5)) << "zero padding makes it the same slot";
    int32_t v = 0;
    ASSERT_TRUE(tree->find(v, "abc", 0));
    EXPECT_EQ(v, 1);
    EXPECT_EQ(tree->getKeyCount(), 1);
  }
  {
    auto tree = create(5, 4, true);
    ASSERT_TRUE(tree->insertKey(0x01020304, "ab", 0));
    ASSERT_TRUE(tree->insertKey(7, "ab", 0));
    EXPECT_FALSE(tree->insertKey(7, "ab", 0));
    EXPECT_EQ(tree->getKeyCount(), 2);
    BTreePage root = pageAt(*tree, rootOffset(*tree));
    ASSERT_EQ(root.keyCount, 2u);
    EXPECT_EQ(keyOf(root, 0), std::string("ab\0\0", 4) + be4(7));
    EXPECT_EQ(keyOf(root, 1), std::string("ab\0\0", 4) + be4(0x01020304));
    EXPECT_EQ(root.values[1], 0x01020304);
  }
}

TEST_F(InsertTest, CursorIsDroppedAndReadOnlyTreesRefuse) {
  {
    auto tree = create(3, 4);
    ASSERT_TRUE(tree->insertKey(1, int32_t{1}));
    int32_t v = 0;
    ASSERT_TRUE(tree->first(v));
    EXPECT_FALSE(tree->insertKey(1, int32_t{1}));
    EXPECT_EQ(BTreeTestAccess::curPage(*tree), nullptr);
  }
  const std::string before = lltest::readFile(path);
  BTree readOnly(path, true, 0);
  ASSERT_TRUE(readOnly.isOk());
  EXPECT_FALSE(readOnly.insertKey(2, int32_t{2}));
  EXPECT_EQ(readOnly.getKeyCount(), 1);
  EXPECT_EQ(lltest::readFile(path), before);
}

// Every I/O call of an insertion that splits a leaf, an interior page and the root, made to fail
// in turn: false or (when only a header write failed) true, never a crash or a leak, and the file
// still opens and walks afterwards.
TEST_F(InsertTest, EveryFailingCallEndsTheInsertionCleanly) {
  lltest::RecordingSupport support;
  int failedRuns = 0;
  for (int k = 1; k < 2000; ++k) {
    SCOPED_TRACE(k);
    bool result = false;
    int failures = 0;
    {
      auto tree = create(3, 4);
      for (int32_t key = 1; key <= 6; ++key) ASSERT_TRUE(tree->insertKey(key, key));
      auto faults = std::make_unique<lltest::FaultInjector>();
      faults->failAt = {k};
      result = tree->insertKey(7, int32_t{7});  // splits leaf, interior page and root
      failures = faults->failures;
      faults.reset();
      if (failures == 0) {
        EXPECT_TRUE(result);
        EXPECT_EQ(BTreeTestAccess::checkTree(*tree), "");
      }
      if (!result) {
        failedRuns += 1;
        // Only a failed read of the root at the very end leaves the entry counted, and then it
        // is in the file.
        if (tree->getKeyCount() != 6) {
          EXPECT_EQ(tree->getKeyCount(), 7);
          EXPECT_EQ(BTreeTestAccess::checkTree(*tree), "");
        }
      }
    }
    BTree reopened(path, true, 0);
    if (reopened.isOk()) {
      int32_t v = 0;
      reopened.test(true, nullptr, nullptr, nullptr);
      int steps = 0;
      for (bool more = reopened.first(v); more && steps < 100; more = reopened.next(v)) ++steps;
      reopened.inOrder([](int32_t, const char*, int) {});
    }
    if (failures == 0) break;
  }
  EXPECT_GT(failedRuns, 20);
}

}  // namespace
