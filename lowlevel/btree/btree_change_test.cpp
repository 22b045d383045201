// Changes to a tree, checked against the exact records expected: how insertions split pages, how
// deletions borrow and merge, what a replacement rewrites, and what is refused.
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

using namespace btreetest;
using T = BTreeTestAccess;

std::vector<Entry> entries(const std::vector<int>& keys) {
  std::vector<Entry> out;
  for (int k : keys) out.emplace_back(be4(static_cast<uint32_t>(k)), 100 + k);
  return out;
}

// Order 3: root [5 10] over three leaves; record 0 is the root.
std::vector<Rec> threeLeaves(std::vector<int> a, std::vector<int> b, std::vector<int> c) {
  return {rec(-1, {5, 10}, {1, 2, 3}), rec(0, a), rec(0, b), rec(0, c)};
}

class ChangeTest : public ::testing::Test {
 protected:
  std::string path() const { return dir.file("t.btr"); }
  // A new tree of long keys `keys` inserted in turn as k, 100 + k.
  std::unique_ptr<BTree> create(int order, std::vector<int32_t> keys) {
    auto tree = std::make_unique<BTree>(path(), order, 4, false, 0u, 0u, int16_t{0});
    for (int32_t k : keys) EXPECT_TRUE(tree->insertKey(100 + k, k)) << k;
    return tree;
  }
  lltest::TempDir dir;
  lltest::RecordingSupport support;
  Shape shape{3, 4};
};

// Splits: order 3 sends up the middle key (the new one itself when it sorts there) and reparents
// only the moved children; order 4 sends up the upper middle; order 2 leaves the right page of a
// split empty.
TEST_F(ChangeTest, InsertionsSplitPagesIntoTheseShapes) {
  const std::pair<std::vector<int32_t>, const char*> rows[] = {
      {{1, 3, 2}, "158:[2=102]->(46,102) 46:[1=101] 102:[3=103]"},
      {{1, 2, 3, 4, 5, 6, 7},
       "382:[4=104]->(158,326) 158:[2=102]->(46,102) 46:[1=101] 102:[3=103] 326:[6=106]->(214,270) "
       "214:[5=105] 270:[7=107]"},
  };
  for (const auto& row : rows) EXPECT_EQ(T::shape(*create(3, row.first), true), row.second);
  EXPECT_EQ(T::shape(*create(4, {1, 2, 3, 4})), "182:[3]->(46,114) 46:[1 2] 114:[4]");
  EXPECT_EQ(T::shape(*create(2, {1, 2})), "134:[2]->(46,90) 46:[1] 90:[]");
}

// The root split of order 3 byte for byte; the count on disk lags until the header is written.
TEST_F(ChangeTest, RootSplitWritesTheseRecords) {
  {
    auto tree = create(3, {1, 2});
    EXPECT_EQ(field(lltest::readFile(path()), 24), 1);
    EXPECT_EQ(T::pageFile(*tree)->hdr.rootOffset, 46);
    ASSERT_TRUE(tree->insertKey(103, int32_t{3}));
    EXPECT_EQ(T::root(*tree)->offset, shape.at(2));
    EXPECT_EQ(lltest::readFile(path()).substr(24, 8), le4(2) + le4(shape.at(2)));
  }
  const std::string f = lltest::readFile(path());
  EXPECT_EQ(hex(f.substr(24, 8) + f.substr(46)),
            hex(le4(3) + le4(shape.at(2)) + shape.encode(0, rec(2, {1})) + shape.encode(1, rec(2, {3})) +
                shape.encode(2, rec(-1, {2}, {0, 1}))));
}

// One deletion from a built file. Afterwards the file is `before` with the header's keyCount,
// root and free head updated, the `changed` records rewritten exactly, the link words of the
// `freed` records (the chain from its head) set, and nothing else touched.
struct Case {
  const char* name;
  Shape shape;
  std::vector<Rec> recs;
  int32_t key;
  std::vector<int> remaining;
  int root;
  std::vector<std::pair<int, Rec>> changed;
  std::vector<int> freed;
};

TEST_F(ChangeTest, RebalancingRewritesExactlyTheRecordsItMust) {
  const Case cases[] = {
      {"the only key", {3, 4}, {rec(-1, {1})}, 1, {}, 0, {{0, rec(-1, {})}}, {}},
      {"leaf with a spare key", {5, 4}, {rec(-1, {10}, {1, 2}), rec(0, {1, 2, 3}), rec(0, {11, 12})},
       2, {1, 3, 10, 11, 12}, 0, {{1, rec(0, {1, 3})}}, {}},
      {"borrow from the right on a tie", {3, 4}, threeLeaves({1, 2}, {7}, {12, 13}), 7,
       {1, 2, 5, 10, 12, 13}, 0,
       {{0, rec(-1, {5, 12}, {1, 2, 3})}, {2, rec(0, {10})}, {3, rec(0, {13})}}, {}},
      {"borrow from the left when it has more", {3, 4}, threeLeaves({1, 2}, {7}, {12}), 7,
       {1, 2, 5, 10, 12}, 0,
       {{0, rec(-1, {2, 10}, {1, 2, 3})}, {1, rec(0, {1})}, {2, rec(0, {5})}}, {}},
      {"merge with the right", {3, 4}, threeLeaves({1}, {7}, {12}), 7, {1, 5, 10, 12}, 0,
       {{0, rec(-1, {5}, {1, 2})}, {2, rec(0, {10, 12})}}, {3}},
      {"first child merges right", {3, 4}, threeLeaves({1}, {7}, {12}), 1, {5, 7, 10, 12}, 0,
       {{0, rec(-1, {10}, {1, 3})}, {1, rec(0, {5, 7})}}, {2}},
      {"last child merges left", {3, 4}, threeLeaves({1}, {7}, {12}), 12, {1, 5, 7, 10}, 0,
       {{0, rec(-1, {5}, {1, 2})}, {2, rec(0, {7, 10})}}, {3}},
      {"root collapse frees both records", {3, 4}, {rec(-1, {5}, {1, 2}), rec(0, {1}), rec(0, {7})},
       1, {5, 7}, 1, {{1, rec(-1, {5, 7})}}, {0, 2}},
      {"interior borrow reparents one grandchild", {3, 4},
       {rec(-1, {20}, {1, 2}), rec(0, {10}, {3, 4}), rec(0, {30, 40}, {5, 6, 7}), rec(1, {5}),
        rec(1, {15}), rec(2, {25}), rec(2, {35}), rec(2, {45, 46})},
       5, {10, 15, 20, 25, 30, 35, 40, 45, 46}, 0,
       {{0, rec(-1, {30}, {1, 2})}, {1, rec(0, {20}, {3, 5})}, {2, rec(0, {40}, {6, 7})},
        {3, rec(1, {10, 15})}, {5, rec(1, {25})}},
       {4}},
      {"keyless parent merges upward and the root collapses", {3, 4}, {rec(-1, {20}, {1, 2}), rec(0, {10}, {3, 4}), rec(0, {30}, {5, 6}), rec(1, {5}),
        rec(1, {15}), rec(2, {25}), rec(2, {35})}, 5,
       {10, 15, 20, 25, 30, 35}, 1,
       {{1, rec(-1, {20, 30}, {3, 5, 6})}, {3, rec(1, {10, 15})}, {5, rec(1, {25})},
        {6, rec(1, {35})}},
       {0, 2, 4}},
      {"interior key replaced by its successor", {3, 4},
       {rec(-1, {10}, {1, 2}), rec(0, {5}), rec(0, {15, 20})}, 10, {5, 15, 20}, 0,
       {{0, rec(-1, {15}, {1, 2})}, {2, rec(0, {20})}}, {}},
      {"even order merges with the sibling that fits", {4, 4},
       {rec(-1, {10, 20}, {1, 2, 3}), rec(0, {1, 2}), rec(0, {12, 13}), rec(0, {22})}, 12,
       {1, 2, 10, 13, 20, 22}, 0, {{0, rec(-1, {10}, {1, 2})}, {2, rec(0, {13, 20, 22})}}, {3}},
      {"even order stays under full when no merge fits", {4, 4},
       {rec(-1, {10, 20}, {1, 2, 3}), rec(0, {1, 2}), rec(0, {12, 13}), rec(0, {22, 23})}, 12,
       {1, 2, 10, 13, 20, 22, 23}, 0, {{2, rec(0, {13})}}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(c.shape.build(path(), c.recs, 0));
    const std::string before = lltest::readFile(path());
    {
      BTree tree(path(), false, 0);
      ASSERT_TRUE(tree.deleteKey(c.key));
      EXPECT_EQ(checkModel(tree, entries(c.remaining), c.shape.order % 2 == 0), "");
    }
    const std::string after = lltest::readFile(path());
    ASSERT_EQ(after.size(), before.size());
    std::string expected = before;
    expected.replace(24, 12, le4(static_cast<int32_t>(c.remaining.size())) + le4(c.shape.at(c.root)) +
                                 le4(c.freed.empty() ? -1 : c.shape.at(c.freed[0])));
    for (const auto& [n, r] : c.changed) expected.replace(c.shape.at(n), c.shape.recordSize(), c.shape.encode(n, r));
    for (size_t i = 0; i < c.freed.size(); ++i) {
      const size_t at = static_cast<size_t>(c.shape.at(c.freed[i]));
      expected.replace(at, c.shape.recordSize(), after.substr(at, c.shape.recordSize()));
      expected.replace(at, 4, le4(i + 1 < c.freed.size() ? c.shape.at(c.freed[i + 1]) : -1));
    }
    for (size_t at = 0; at < after.size(); at += c.shape.recordSize())
      EXPECT_EQ(hex(after.substr(at, c.shape.recordSize())), hex(expected.substr(at, c.shape.recordSize())))
          << "at " << at;
  }
  EXPECT_TRUE(support.reports.empty());
}

// A missing key changes nothing but drops the cursor; a tree with duplicates refuses the forms
// without a value, with these reports, and leaves the cursor.
TEST_F(ChangeTest, RefusedChanges) {
  ASSERT_TRUE(shape.build(path(), threeLeaves({1}, {7}, {12}), 0));
  {
    BTree tree(path(), false, 0);
    EXPECT_EQ(steps(tree, "F"), "101");
    EXPECT_FALSE(tree.deleteKey(2) || tree.replaceValue(1, 11));
    EXPECT_EQ(steps(tree, "C F"), "x 101");
    EXPECT_FALSE(tree.insertKey(0, 1));
    EXPECT_EQ(steps(tree, "C"), "x");
    EXPECT_EQ(tree.getKeyCount(), 5);
  }
  shape = {5, 8};
  auto dup = [](int32_t v) { return Slot{std::string("ab\0\0", 4) + be4(static_cast<uint32_t>(v)), v}; };
  ASSERT_TRUE(shape.build(path(), {Rec{-1, {dup(1), dup(2), dup(3)}, {}}}, 0, true));
  {
    BTree tree(path(), false, 0);
    int32_t value = 0;
    ASSERT_TRUE(tree.find(value, "ab", 2));
    EXPECT_FALSE(tree.deleteKey("ab", 2) || tree.replaceValue(9, "ab", 2));
    EXPECT_EQ(lltest::reportsText(support.reports),
              "Duplicates are NOT supported by deleteKey without specifying associated value.|"
              "BTree::deleteKey|2|btree\nDuplicates are NOT supported.|BTree::replaceValue|2|btree\n");
    char key[8];
    int length = 8;
    EXPECT_TRUE(tree.getCurrentKey(key, length));
    EXPECT_FALSE(tree.deleteKey(9, "ab", 2));
    ASSERT_TRUE(tree.deleteKey(2, "ab", 2));
  }
  EXPECT_EQ(hex(shape.record(lltest::readFile(path()), 0)), hex(shape.encode(0, Rec{-1, {dup(1), dup(3)}, {}})));
}

// replaceValue rewrites the value in place, in the root as in a leaf, and keeps the cursor.
TEST_F(ChangeTest, ReplaceValueRewritesOneWord) {
  ASSERT_TRUE(shape.build(path(), {rec(-1, {10}, {1, 2}), rec(0, {5}), rec(0, {15})}, 0));
  {
    BTree tree(path(), false, 0);
    EXPECT_EQ(steps(tree, "f5"), "105");
    EXPECT_TRUE(tree.replaceValue(-7, 10) && tree.replaceValue(77, 15));
    EXPECT_EQ(steps(tree, "K"), "5");
  }
  Rec root = rec(-1, {10}, {1, 2}), leaf = rec(0, {15});
  root.entries[0].value = -7;
  leaf.entries[0].value = 77;
  const std::string file = lltest::readFile(path());
  EXPECT_EQ(hex(file.substr(24, 4) + shape.record(file, 0) + shape.record(file, 1) + shape.record(file, 2)),
            hex(le4(3) + shape.encode(0, root) + shape.encode(1, rec(0, {5})) + shape.encode(2, leaf)));
  EXPECT_TRUE(support.reports.empty());
}

// A read-only tree refuses every change and writes nothing; so does a change whose page names
// another parent than the one it was reached from.
TEST_F(ChangeTest, ReadOnlyAndMisplacedPagesChangeNothing) {
  std::vector<Rec> misplaced = threeLeaves({1}, {7}, {12});
  misplaced[2].parent = 1;
  for (bool readOnly : {false, true}) {
    ASSERT_TRUE(shape.build(path(), readOnly ? threeLeaves({1}, {7}, {12}) : misplaced, 0));
    const std::string before = lltest::readFile(path());
    {
      BTree tree(path(), readOnly, 0);
      EXPECT_FALSE(tree.deleteKey(7));
      EXPECT_FALSE(readOnly && (tree.replaceValue(1, 5) || tree.insertKey(2, 2)));
      EXPECT_EQ(tree.getKeyCount(), 5);
    }
    if (readOnly) {
      EXPECT_EQ(lltest::readFile(path()), before);
    }
  }
}

}  // namespace
