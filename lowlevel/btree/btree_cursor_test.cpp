// The cursor (first, last, next, prev, the current key and its depth) and the whole-tree walks
// (inOrder, test).
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

using btreetest::be4;

class CursorTest : public ::testing::Test {
 protected:
  std::unique_ptr<BTree> create(int order, int keyLength, bool duplicates = false) {
    path = dir.file("tree" + std::to_string(++made) + ".bt");
    auto tree = std::make_unique<BTree>(path, order, keyLength, duplicates, 0u, 0u, int16_t{0});
    EXPECT_TRUE(tree->isOk());
    return tree;
  }
  // Order 3 filled with 1..n in order (value 100 + key). For n = 8: root 382 [4]; interior
  // 158 [2] and 326 [6]; leaves [1] [3] [5] [7 8].
  std::unique_ptr<BTree> sequence(int n) {
    auto tree = create(3, 4);
    for (int32_t k = 1; k <= n; ++k) EXPECT_TRUE(tree->insertKey(100 + k, k));
    return tree;
  }

  std::string run(BTree& tree, const std::string& steps) { return btreetest::steps(tree, steps); }

  lltest::TempDir dir;
  std::string path;
  int made = 0;
};

TEST_F(CursorTest, EndsOfTheTreeDropTheCursor) {
  auto empty = create(5, 4);
  EXPECT_EQ(run(*empty, "F L N P"), "- - - -");
  EXPECT_EQ(empty->depth(), 0);
  auto tree = create(5, 4);
  for (const char* k : {"b", "c", "a"}) ASSERT_TRUE(tree->insertKey(k[0], k, 0));
  EXPECT_EQ(run(*tree, "F N N N C P F P C L N C"), "97 98 99 - x - 97 - x 99 - x");
  EXPECT_EQ(tree->depth(), 0);
}

// From an interior key the neighbours lie in the subtrees beside it; from 3, the last key of a
// last child of a first child, next climbs two levels to the root in one step.
TEST_F(CursorTest, StepsAcrossLevelsInBothDirections) {
  auto tree = sequence(8);
  EXPECT_EQ(tree->depth(), 2);
  EXPECT_EQ(run(*tree, "F D L D f6 N f6 P f3 N R D f5 P"),
            "101 2,0 108 2,1 106 107 106 105 103 104 r 0,0 105 104");
  EXPECT_EQ(run(*tree, "F N N N N N N N N"), "101 102 103 104 105 106 107 108 -");
  EXPECT_EQ(run(*tree, "L P P P P P P P P"), "108 107 106 105 104 103 102 101 -");
}

// Each getCurrentKey(buffer, length) call as answer/length/buffer.
std::string currentKey(BTree& tree, int length) {
  char buffer[33];
  std::memset(buffer, '#', sizeof buffer);
  const bool ok = tree.getCurrentKey(buffer, length);
  return std::to_string(ok) + "/" + std::to_string(length) + "/" + std::string(buffer, sizeof buffer).substr(0, 8);
}

TEST_F(CursorTest, CurrentKeyTellsTheSizeItNeedsAndWritesNoTerminator) {
  auto tree = create(5, 6);
  ASSERT_TRUE(tree->insertKey(1, "key", 0));
  EXPECT_EQ(currentKey(*tree, 3), "0/3/########") << "no cursor";
  int32_t v = 0, number = 77;
  ASSERT_TRUE(tree->first(v));
  EXPECT_EQ(currentKey(*tree, 5) + " " + currentKey(*tree, 6), std::string("0/6/######## 1/6/key\0\0\0##", 25));
  EXPECT_FALSE(tree->getCurrentKey(number)) << "a key of 6 bytes is no long key";
  EXPECT_EQ(number, 77);
  auto wide = create(3, 20, true);
  ASSERT_TRUE(wide->insertKey(-1, "x", 0) && wide->first(v));
  EXPECT_EQ(currentKey(*wide, 33), std::string("1/20/x\0\0\0\0\0\0\0", 13));
  auto longs = create(3, 4);
  ASSERT_TRUE(longs->insertKey(5, int32_t{0x01020304}) && longs->first(v));
  EXPECT_EQ(currentKey(*longs, 4), "1/4/\x01\x02\x03\x04####");
  ASSERT_TRUE(longs->getCurrentKey(number));
  EXPECT_EQ(number, 0x01020304);
}

TEST_F(CursorTest, FailedReadDropsTheCursorButStepsInsideAPageNeedNoFile) {
  auto tree = sequence(8);
  int32_t v = 0;
  ASSERT_TRUE(tree->last(v));
  {
    lltest::FaultInjector faults;
    faults.failFrom = 1;
    std::string seen = run(*tree, "P") + " " + std::to_string(faults.count);
    EXPECT_EQ(seen + " " + run(*tree, "P C"), "107 0 - x");
    EXPECT_EQ(tree->depth(), -1);
  }
  EXPECT_EQ(run(*tree, "F"), "101");
}

struct Seen {
  std::vector<std::string> keys;
  std::vector<int32_t> values;
  std::vector<int> lengths;
};
Seen* seen = nullptr;
void record(int32_t value, const char* key, int length) {
  seen->values.push_back(value);
  seen->lengths.push_back(length);
  seen->keys.emplace_back(key, static_cast<size_t>(length));
}

TEST_F(CursorTest, InOrderHandsOverEverySlotAndLeavesTheCursor) {
  Seen got;
  seen = &got;
  auto empty = create(3, 8);
  EXPECT_TRUE(empty->inOrder(record));
  EXPECT_TRUE(got.values.empty());

  auto tree = create(3, 4, true);  // slot width 8
  for (int32_t v : {3, 1, 2, -1, 5}) ASSERT_TRUE(tree->insertKey(v, "k", 0));
  int32_t v = 0;
  ASSERT_TRUE(tree->find(v, "k", 0));
  ASSERT_TRUE(tree->next(v));
  EXPECT_TRUE(tree->inOrder(record));
  EXPECT_EQ(got.values, (std::vector<int32_t>{1, 2, 3, 5, -1}));
  EXPECT_EQ(got.keys[3], std::string("k\0\0\0", 4) + be4(5));
  EXPECT_EQ(got.lengths[3], 8);
  ASSERT_TRUE(tree->next(v));
  EXPECT_EQ(v, 3) << "the cursor stayed on 2";

  // A read that fails part-way: false, and what was handed over is a prefix of the order.
  auto big = sequence(8);
  for (int k = 1;; ++k) {
    got = Seen();
    lltest::FaultInjector faults;
    faults.failAt = {k};
    bool whole = big->inOrder(record);
    if (faults.failures == 0) {
      EXPECT_TRUE(whole);
      EXPECT_EQ(got.values.size(), 8u);
      break;
    }
    EXPECT_FALSE(whole);
    for (size_t i = 0; i < got.values.size(); ++i) EXPECT_EQ(got.values[i], 101 + int32_t(i));
  }
  seen = nullptr;
}

TEST_F(CursorTest, TestCountsKeysPagesAndBackwardLinksUpToTheFirstFault) {
  int32_t keys = -1, pages = -1, backward = -1;
  auto empty = create(3, 4);
  EXPECT_TRUE(empty->test(false, &keys, &pages, &backward));
  EXPECT_EQ(std::vector<int32_t>({keys, pages, backward}), std::vector<int32_t>({0, 1, 0}));

  auto tree = sequence(7);  // every page was written before its parent
  EXPECT_TRUE(tree->test(false, &keys, &pages, &backward));
  EXPECT_EQ(std::vector<int32_t>({keys, pages, backward}), std::vector<int32_t>({7, 7, 6}));
  EXPECT_TRUE(tree->test(false, nullptr, nullptr, nullptr));

  // Order 4: the right page of the split holds 1 key, below minKeys 2.
  auto even = create(4, 4);
  for (int32_t k = 1; k <= 4; ++k) ASSERT_TRUE(even->insertKey(k, k));
  EXPECT_FALSE(even->test(false, &keys, &pages, &backward));
  EXPECT_EQ(std::vector<int32_t>({keys, pages, backward}), std::vector<int32_t>({4, 3, 2}));
  EXPECT_TRUE(even->test(true, &keys, &pages, &backward));
}

}  // namespace
