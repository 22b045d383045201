// Lookups and the cursor they leave, and every walk over a file whose links are corrupt.
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

std::string be4(uint32_t v) {
  return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 8), static_cast<char>(v)};
}

std::string currentKey(BTree& tree) {
  char buffer[64];
  int length = sizeof buffer;
  if (!tree.getCurrentKey(buffer, length)) return "<none>";
  return std::string(buffer, static_cast<size_t>(length));
}

class SearchTest : public ::testing::Test {
 protected:
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

TEST_F(SearchTest, EmptyTreeHasNothingToFindOrStandOn) {
  auto tree = create(3, 4);
  int32_t v = 99;
  EXPECT_FALSE(tree->find(v, int32_t{1}));
  EXPECT_FALSE(tree->findGreaterThanOrEqual(v, int32_t{0}));
  EXPECT_EQ(v, 99);
  EXPECT_EQ(BTreeTestAccess::curPage(*tree), nullptr);
  EXPECT_EQ(currentKey(*tree), "<none>");
}

// Order 3 filled with 10, 20, 30, 40, 50, 60, 35: root [20 40], leaves [10] [30 35] [50 60].
TEST_F(SearchTest, LookupsLandWhereTheKeyIsOrWouldFollow) {
  auto tree = create(3, 4);
  for (int32_t k : {10, 20, 30, 40, 50, 60, 35}) ASSERT_TRUE(tree->insertKey(k + 1, k));
  const int32_t rootAt = BTreeTestAccess::root(*tree)->offset;
  int32_t v = 0;

  ASSERT_TRUE(tree->find(v, int32_t{20}));
  EXPECT_EQ(v, 21);
  EXPECT_EQ(BTreeTestAccess::curPage(*tree)->offset, rootAt) << "found in the root, no leaf";
  EXPECT_EQ(BTreeTestAccess::curIndex(*tree), 0u);

  EXPECT_FALSE(tree->find(v, int32_t{32}));
  EXPECT_EQ(BTreeTestAccess::curPage(*tree), nullptr);
  ASSERT_TRUE(tree->findGreaterThanOrEqual(v, int32_t{32}));
  EXPECT_EQ(v, 36);
  EXPECT_EQ(currentKey(*tree), be4(35));

  ASSERT_TRUE(tree->findGreaterThanOrEqual(v, int32_t{37}));  // behind its leaf, before 40
  EXPECT_EQ(v, 41);
  EXPECT_EQ(BTreeTestAccess::curPage(*tree)->offset, rootAt);
  EXPECT_EQ(BTreeTestAccess::curIndex(*tree), 1u);
  ASSERT_TRUE(tree->next(v));
  EXPECT_EQ(v, 51);

  ASSERT_TRUE(tree->findGreaterThanOrEqual(v, int32_t{5}));
  EXPECT_EQ(v, 11);
  ASSERT_TRUE(tree->findGreaterThanOrEqual(v, int32_t{60}));
  EXPECT_EQ(v, 61);
  EXPECT_FALSE(tree->findGreaterThanOrEqual(v, int32_t{61}));
  EXPECT_EQ(BTreeTestAccess::curPage(*tree), nullptr);
  EXPECT_EQ(currentKey(*tree), "<none>");
}

TEST_F(SearchTest, DuplicatesAreFoundByTheirLowestValueAndKeysAreCutToTheSlot) {
  {
    auto tree = create(3, 4, true);
    for (int32_t value : {-1, 7, 5}) ASSERT_TRUE(tree->insertKey(value, "a", 0));
    ASSERT_TRUE(tree->insertKey(1, "b", 0));
    int32_t v = 0;
    ASSERT_TRUE(tree->find(v, "a", 0));
    EXPECT_EQ(v, 5);
    EXPECT_EQ(currentKey(*tree), std::string("a\0\0\0", 4)) << "no value tail handed out";
    ASSERT_TRUE(tree->next(v));
    EXPECT_EQ(v, 7);
    ASSERT_TRUE(tree->next(v));
    EXPECT_EQ(v, -1);
    EXPECT_FALSE(tree->find(v, "ab", 0)) << "followed by b, but not there";
    EXPECT_EQ(BTreeTestAccess::curPage(*tree), nullptr);
  }
  {
    auto tree = create(5, 4);
    ASSERT_TRUE(tree->insertKey(3, "abcd", 4));
    int32_t v = 0;
    ASSERT_TRUE(tree->find(v, "abcdXYZ", 0));
    EXPECT_EQ(v, 3);
    EXPECT_FALSE(tree->find(v, "abc", 0));
  }
}

// Order 3 with 1, 2, 3: leaves at 46 ([1]) and 102 ([3]), root at 158 ([2]); records of 56 bytes.
class CorruptTest : public SearchTest {
 protected:
  void SetUp() override {
    auto tree = create(3, 4);
    for (int32_t k : {1, 2, 3}) ASSERT_TRUE(tree->insertKey(100 + k, k));
  }
  // Overwrites the 4-byte field at `at` of the closed file.
  void patch(size_t at, int32_t value) {
    std::string bytes = lltest::readFile(path);
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(static_cast<uint32_t>(value) >> (8 * i));
    lltest::writeFile(path, bytes);
  }
  static constexpr size_t kLeftLeaf = 46, kRightLeaf = 102, kRoot = 158;
  static constexpr size_t kParent = 4, kChild0 = 44;

  // Every walk that goes down the left edge fails without looping; the right part still reads.
  void expectLeftDescentsFail(BTree& tree) {
    int32_t v = 0;
    EXPECT_FALSE(tree.find(v, int32_t{0}));
    EXPECT_FALSE(tree.findGreaterThanOrEqual(v, int32_t{0}));
    EXPECT_EQ(BTreeTestAccess::curPage(tree), nullptr);
    EXPECT_FALSE(tree.insertKey(9, int32_t{0}));
    EXPECT_FALSE(tree.first(v));
    EXPECT_EQ(BTreeTestAccess::curPage(tree), nullptr);
    EXPECT_EQ(tree.depth(), -1);
    EXPECT_FALSE(tree.inOrder([](int32_t, const char*, int) {}));
    EXPECT_FALSE(tree.test(true, nullptr, nullptr, nullptr));
    ASSERT_TRUE(tree.find(v, int32_t{3}));
    EXPECT_EQ(v, 103);
    ASSERT_TRUE(tree.prev(v));
    EXPECT_EQ(v, 102);
  }
};

TEST_F(CorruptTest, GarbageChildOffsetFailsTheDescentWithOneReport) {
  patch(kRoot + kChild0, 12345);
  const std::string before = lltest::readFile(path);
  lltest::RecordingSupport support;
  BTree tree(path, false, 0);
  ASSERT_TRUE(tree.isOk());
  int32_t v = 0;
  EXPECT_FALSE(tree.find(v, int32_t{1}));
  ASSERT_EQ(support.reports.size(), 1u);
  EXPECT_EQ(support.reports[0].message, "Unable to read page.");
  EXPECT_EQ(support.reports[0].function, "BTree::Search");
  EXPECT_EQ(support.reports[0].flag, eReportError);
  EXPECT_EQ(support.reports[0].module, "btree");
  expectLeftDescentsFail(tree);
  EXPECT_FALSE(tree.prev(v)) << "the left child does not read";
  EXPECT_EQ(BTreeTestAccess::curPage(tree), nullptr);
  EXPECT_EQ(tree.getKeyCount(), 3);
  EXPECT_EQ(lltest::readFile(path), before) << "the failed insertion wrote nothing";
}

TEST_F(CorruptTest, ChildLinkToItselfOrToAnAncestorCannotMakeAWalkLoop) {
  for (int32_t target : {int32_t{kLeftLeaf}, int32_t{kRoot}}) {
    SCOPED_TRACE(target);
    SetUp();
    patch(kLeftLeaf + kChild0, target);
    BTree tree(path, false, 0);
    ASSERT_TRUE(tree.isOk());
    expectLeftDescentsFail(tree);
    int32_t keys = 0, pages = 0;
    EXPECT_FALSE(tree.test(false, &keys, &pages, nullptr)) << "a leaf with a child is malformed";
    EXPECT_EQ(pages, 2);
  }
}

TEST_F(CorruptTest, ParentLinksInACircleCannotMakeAClimbLoop) {
  patch(kLeftLeaf + kParent, int32_t{kLeftLeaf});  // the left leaf names itself as parent
  patch(kRoot + kParent, int32_t{kRightLeaf});     // the root names a leaf as parent
  BTree tree(path, true, 0);
  ASSERT_TRUE(tree.isOk());
  int32_t v = 0;
  ASSERT_TRUE(tree.first(v));
  EXPECT_EQ(v, 101);
  int depth = -5, index = -5;
  EXPECT_FALSE(tree.getCurrentKeyDepthAndIndex(depth, index));
  EXPECT_EQ(index, -5);
  EXPECT_FALSE(tree.next(v));
  EXPECT_EQ(BTreeTestAccess::curPage(tree), nullptr);
  ASSERT_TRUE(tree.last(v));
  EXPECT_EQ(v, 103);
  EXPECT_FALSE(tree.next(v)) << "climbs root -> leaf -> root ...";
  EXPECT_EQ(BTreeTestAccess::curPage(tree), nullptr);
  ASSERT_TRUE(tree.find(v, int32_t{1}));
  EXPECT_FALSE(tree.prev(v));
  EXPECT_EQ(BTreeTestAccess::curPage(tree), nullptr);
}

}  // namespace
