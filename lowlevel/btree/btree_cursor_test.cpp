// Lookups and the cursor they leave, the whole-tree walks (inOrder, test), and every walk over a
// file whose links are corrupt. Cursor scripts are run by btreetest::steps (see its letters).
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

using btreetest::steps;

class CursorTest : public ::testing::Test {
 protected:
  std::unique_ptr<BTree> create(int order, int keyLength, bool duplicates = false) {
    path = dir.file("tree" + std::to_string(++made) + ".bt");
    auto tree = std::make_unique<BTree>(path, order, keyLength, duplicates, 0u, 0u, int16_t{0});
    EXPECT_TRUE(tree->isOk());
    return tree;
  }
  // Order 3 with long keys `keys` inserted in turn, value key + 100.
  std::unique_ptr<BTree> longs(std::vector<int32_t> keys) {
    auto tree = create(3, 4);
    for (int32_t k : keys) EXPECT_TRUE(tree->insertKey(100 + k, k));
    return tree;
  }
  lltest::TempDir dir;
  std::string path;
  int made = 0;
};

// Each row: the keys, a script and its answers.
TEST_F(CursorTest, ScriptsOfLookupsAndSteps) {
  struct Row { std::vector<int32_t> keys; const char* script; const char* answers; } rows[] = {
      {{}, "F L N P C K D f1 g0 C", "- - - - x - - - - x"},
      {{3, 2, 1}, "F N N N C P F P C L N C", "101 102 103 - x - 101 - x 103 - x"},
      // Root [20 40], leaves [10] [30 35] [50 60]: 20 is found in the root; 37 lands behind its
      // leaf, on 40 in the root.
      {{10, 20, 30, 40, 50, 60, 35}, "f20 R I f32 C g32 K g37 R I N g5 g60 g61 C",
       "120 r 0 - x 135 35 140 r 1 150 110 160 - x"},
      // Root [4], interior [2] [6], leaves [1] [3] [5] [7 8]: from 3, the last key of a last child
      // of a first child, next climbs two levels to the root in one step.
      {{1, 2, 3, 4, 5, 6, 7, 8}, "F D L D f6 N f6 P f3 N R D f5 P K",
       "101 2,0 108 2,1 106 107 106 105 103 104 r 0,0 105 104 4"},
      {{1, 2, 3, 4, 5, 6, 7, 8}, "F N N N N N N N N L P P P P P P P P",
       "101 102 103 104 105 106 107 108 - 108 107 106 105 104 103 102 101 -"},
  };
  for (const Row& row : rows) EXPECT_EQ(steps(*longs(row.keys), row.script), row.answers) << row.script;
  EXPECT_EQ(longs({1, 2, 3, 4, 5, 6, 7, 8})->depth(), 2);
}

TEST_F(CursorTest, DuplicatesAreFoundAtTheirLowestValueAndKeysAreCutToTheSlot) {
  auto tree = create(3, 4, true);
  for (int32_t value : {-1, 7, 5}) ASSERT_TRUE(tree->insertKey(value, "a", 0));
  ASSERT_TRUE(tree->insertKey(1, "b", 0));
  int32_t v = 0;
  EXPECT_TRUE(tree->find(v, "a", 0));
  EXPECT_EQ(std::to_string(v) + " " + steps(*tree, "N N N N"), "5 7 -1 1 -");
  EXPECT_FALSE(tree->find(v, "ab", 0));  // followed by b, but not there
  EXPECT_EQ(steps(*tree, "C"), "x");
  auto cut = create(5, 4);
  ASSERT_TRUE(cut->insertKey(3, "abcd", 4));
  EXPECT_TRUE(cut->find(v, "abcdXYZ", 0) && v == 3);
  EXPECT_FALSE(cut->find(v, "abc", 0));
}

// Each getCurrentKey(buffer, length) call as answer/length/first 8 bytes of the buffer.
std::string currentKey(BTree& tree, int length) {
  char buffer[33];
  std::memset(buffer, '#', sizeof buffer);
  const bool ok = tree.getCurrentKey(buffer, length);
  return std::to_string(ok) + "/" + std::to_string(length) + "/" + std::string(buffer, 8);
}

TEST_F(CursorTest, CurrentKeyTellsTheSizeItNeedsAndWritesNoTerminator) {
  auto tree = create(5, 6);
  ASSERT_TRUE(tree->insertKey(1, "key", 0));
  EXPECT_EQ(currentKey(*tree, 3), "0/3/########");  // no cursor
  int32_t v = 0, number = 77;
  ASSERT_TRUE(tree->first(v));
  EXPECT_EQ(currentKey(*tree, 5) + " " + currentKey(*tree, 6), std::string("0/6/######## 1/6/key\0\0\0##", 25));
  EXPECT_FALSE(tree->getCurrentKey(number));  // a key of 6 bytes is no long key
  EXPECT_EQ(number, 77);
  auto wide = create(3, 20, true);
  ASSERT_TRUE(wide->insertKey(-1, "x", 0) && wide->first(v));
  EXPECT_EQ(currentKey(*wide, 33), std::string("1/20/x\0\0\0\0\0\0\0", 13));
  auto number4 = longs({0x01020304});
  ASSERT_TRUE(number4->first(v));
  EXPECT_EQ(currentKey(*number4, 4), "1/4/\x01\x02\x03\x04####");
}

// A failed read drops the cursor; a step inside the current page needs no read.
TEST_F(CursorTest, FailedReadDropsTheCursor) {
  auto tree = longs({1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(steps(*tree, "L"), "108");
  {
    lltest::FaultInjector faults;
    faults.failFrom = 1;
    EXPECT_EQ(steps(*tree, "P"), "107");
    EXPECT_EQ(faults.count, 0);
    EXPECT_EQ(steps(*tree, "P C"), "- x");
    EXPECT_EQ(tree->depth(), -1);
  }
  EXPECT_EQ(steps(*tree, "F"), "101");
}

std::string* gSeen = nullptr;
void record(int32_t value, const char* key, int length) {
  *gSeen += std::to_string(value) + ":" + btreetest::hex(std::string(key, static_cast<size_t>(length))) + "| ";
}

TEST_F(CursorTest, InOrderHandsOverEverySlotAndLeavesTheCursor) {
  std::string seen;
  gSeen = &seen;
  EXPECT_TRUE(create(3, 8)->inOrder(record) && seen.empty());
  auto tree = create(3, 2, true);  // slot width 6
  for (int32_t v : {3, 1, 2, -1}) ASSERT_TRUE(tree->insertKey(v, "k", 0));
  EXPECT_EQ(steps(*tree, "F N"), "1 2");
  EXPECT_TRUE(tree->inOrder(record));
  EXPECT_EQ(seen, "1:6B 00 00 00 00 01 | 2:6B 00 00 00 00 02 | 3:6B 00 00 00 00 03 | -1:6B 00 FF FF FF FF | ");
  EXPECT_EQ(steps(*tree, "N"), "3");  // the cursor stayed on 2
  gSeen = nullptr;
}

TEST_F(CursorTest, TestCountsKeysPagesAndBackwardLinks) {
  auto counts = [](BTree& tree, bool relaxed) {
    int32_t keys = -1, pages = -1, backward = -1;
    const bool ok = tree.test(relaxed, &keys, &pages, &backward);
    return std::to_string(ok) + " " + std::to_string(keys) + " " + std::to_string(pages) + " " +
           std::to_string(backward);
  };
  EXPECT_EQ(counts(*create(3, 4), false), "1 0 1 0");
  EXPECT_EQ(counts(*longs({1, 2, 3, 4, 5, 6, 7}), false), "1 7 7 6");  // pages written before parents
  auto even = create(4, 4);  // the right page of the split holds 1 key, below minKeys 2
  for (int32_t k = 1; k <= 4; ++k) ASSERT_TRUE(even->insertKey(k, k));
  EXPECT_EQ(counts(*even, false), "0 4 3 2");
  EXPECT_EQ(counts(*even, true), "1 4 3 2");
  EXPECT_TRUE(even->test(true, nullptr, nullptr, nullptr));
}

// Order 3 with 1, 2, 3: leaves at 46 ([1]) and 102 ([3]), root at 158 ([2]); records of 56 bytes.
class CorruptTest : public CursorTest {
 protected:
  void SetUp() override { longs({1, 2, 3}); }
  void patch(size_t at, int32_t value) {
    std::string bytes = lltest::readFile(path);
    bytes.replace(at, 4, btreetest::le4(value));
    lltest::writeFile(path, bytes);
  }
  static constexpr size_t kLeftLeaf = 46, kRightLeaf = 102, kRoot = 158, kParent = 4, kChild0 = 44;

  // Every walk that goes down the left edge fails without looping; the right part still reads.
  void expectLeftDescentsFail(BTree& tree) {
    EXPECT_EQ(steps(tree, "f0 g0 C F C D f3 P"), "- - x - x - 103 102");
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
  EXPECT_EQ(steps(tree, "f1"), "-");
  EXPECT_EQ(lltest::reportsText(support.reports), "Unable to read page.|BTree::Search|2|btree\n");
  expectLeftDescentsFail(tree);
  EXPECT_EQ(steps(tree, "P C"), "- x");
  EXPECT_EQ(tree.getKeyCount(), 3);
  EXPECT_EQ(lltest::readFile(path), before);  // the failed insertion wrote nothing
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
    EXPECT_FALSE(tree.test(false, &keys, &pages, nullptr));  // a leaf with a child is malformed
    EXPECT_EQ(pages, 2);
  }
}

TEST_F(CorruptTest, ParentLinksInACircleCannotMakeAClimbLoop) {
  patch(kLeftLeaf + kParent, int32_t{kLeftLeaf});  // the left leaf names itself as parent
  patch(kRoot + kParent, int32_t{kRightLeaf});     // the root names a leaf as parent
  BTree tree(path, true, 0);
  ASSERT_TRUE(tree.isOk());
  int depth = -5, index = -5;
  EXPECT_EQ(steps(tree, "F"), "101");
  EXPECT_FALSE(tree.getCurrentKeyDepthAndIndex(depth, index));
  EXPECT_EQ(index, -5);
  EXPECT_EQ(steps(tree, "N C L N C f1 P C"), "- x 103 - x 101 - x");
}

}  // namespace
