// Lookups and the cursor they leave, and every walk over a file whose links are corrupt.
#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

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

// Order 3 filled with 10, 20, 30, 40, 50, 60, 35 (value key + 1): root [20 40], leaves [10]
// [30 35] [50 60]. 20 is found in the root; 37 lands behind its leaf, on 40 in the root.
TEST_F(SearchTest, LookupsLandWhereTheKeyIsOrWouldFollow) {
  auto tree = create(3, 4);
  int32_t v = 99;
  EXPECT_FALSE(tree->find(v, int32_t{1}) || tree->findGreaterThanOrEqual(v, int32_t{0}) || v != 99);
  EXPECT_EQ(btreetest::steps(*tree, "C K"), "x -");
  EXPECT_EQ(currentKey(*tree), "<none>");
  for (int32_t k : {10, 20, 30, 40, 50, 60, 35}) ASSERT_TRUE(tree->insertKey(k + 1, k));
  EXPECT_EQ(btreetest::steps(*tree, "f20 R I f32 C g32 K g37 R I N g5 g60 g61 C"),
            "21 r 0 - x 36 35 41 r 1 51 11 61 - x");
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
    EXPECT_EQ(btreetest::steps(*tree, "N N"), "7 -1");
    EXPECT_FALSE(tree->find(v, "ab", 0)) << "followed by b, but not there";
    EXPECT_EQ(btreetest::steps(*tree, "C"), "x");
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
    bytes.replace(at, 4, btreetest::le4(value));
    lltest::writeFile(path, bytes);
  }
  static constexpr size_t kLeftLeaf = 46, kRightLeaf = 102, kRoot = 158;
  static constexpr size_t kParent = 4, kChild0 = 44;

  // Every walk that goes down the left edge fails without looping; the right part still reads.
  void expectLeftDescentsFail(BTree& tree) {
    EXPECT_EQ(btreetest::steps(tree, "f0 g0 C F C D f3 P"), "- - x - x - 103 102");
    EXPECT_EQ(tree.depth(), -1);
    EXPECT_FALSE(tree.insertKey(9, int32_t{0}));
    EXPECT_FALSE(tree.inOrder([](int32_t, const char*, int) {}));
    EXPECT_FALSE(tree.test(true, nullptr, nullptr, nullptr));
  }
};

TEST_F(CorruptTest, GarbageChildOffsetFailsTheDescentWithOneReport) {
  patch(kRoot + kChild0, 12345);
  const std::string before = lltest::readFile(path);
  lltest::RecordingSupport support;
  BTree tree(path, false, 0);
  ASSERT_TRUE(tree.isOk());
  EXPECT_EQ(btreetest::steps(tree, "f1"), "-");
  ASSERT_EQ(support.reports.size(), 1u);
  const lltest::Report& r = support.reports[0];
  EXPECT_EQ(r.message + "|" + r.function + "|" + r.module, "Unable to read page.|BTree::Search|btree");
  EXPECT_EQ(r.flag, eReportError);
  expectLeftDescentsFail(tree);
  EXPECT_EQ(btreetest::steps(tree, "P C"), "- x") << "the left child does not read";
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
  int depth = -5, index = -5;
  EXPECT_EQ(btreetest::steps(tree, "F"), "101");
  EXPECT_FALSE(tree.getCurrentKeyDepthAndIndex(depth, index));
  EXPECT_EQ(index, -5);
  EXPECT_EQ(btreetest::steps(tree, "N C L N C f1 P C"), "- x 103 - x 101 - x");  // no climb loops
}

}  // namespace
