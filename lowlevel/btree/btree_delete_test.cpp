// Deletion on trees of a shape built record by record, checked against the exact bytes expected.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

using namespace btreetest;

std::vector<Entry> entries(const std::vector<int>& keys) {
  std::vector<Entry> out;
  for (int k : keys) out.emplace_back(be4(static_cast<uint32_t>(k)), 100 + k);
  return out;
}

// Order 3: root [5 10] over three leaves; record 0 is the root.
std::vector<Rec> threeLeaves(std::vector<int> a, std::vector<int> b, std::vector<int> c) {
  return {rec(-1, {5, 10}, {1, 2, 3}), rec(0, a), rec(0, b), rec(0, c)};
}
// Order 3, depth 2: root [20] over X [10] (a [5], b [15]) and Y [30] (c [25], d [35]).
const std::vector<Rec> kDepthTwo = {rec(-1, {20}, {1, 2}), rec(0, {10}, {3, 4}), rec(0, {30}, {5, 6}),
                                    rec(1, {5}),           rec(1, {15}),         rec(2, {25}),
                                    rec(2, {35})};

class DeleteTest : public ::testing::Test {
 protected:
  std::string path() const { return dir.file("t.btr"); }
  lltest::TempDir dir;
  lltest::RecordingSupport support;
  Shape shape{3, 4};
};

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

TEST_F(DeleteTest, RebalancingRewritesExactlyTheRecordsItMust) {
  const Case cases[] = {
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
      {"keyless parent merges upward and the root collapses", {3, 4}, kDepthTwo, 5,
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

TEST_F(DeleteTest, FreedRecordsAreReusedLastFreedFirst) {
  ASSERT_TRUE(shape.build(path(), {rec(-1, {5}, {1, 2}), rec(0, {1}), rec(0, {7})}, 0));
  {
    BTree tree(path(), false, 0);
    ASSERT_TRUE(tree.deleteKey(1));
    EXPECT_EQ(tree.depth(), 0);
  }
  BTreePageFile pf(path(), false, 0);
  ASSERT_TRUE(pf.ok);
  BTreePage a(3, 4), b(3, 4);
  ASSERT_TRUE(pf.writePage(a, false));
  ASSERT_TRUE(pf.writePage(b, false));
  EXPECT_EQ(std::to_string(a.offset) + " " + std::to_string(b.offset) + " " +
                std::to_string(pf.hdr.freeListHead),
            std::to_string(shape.at(0)) + " " + std::to_string(shape.at(2)) + " -1");
}

TEST_F(DeleteTest, MissingKeysAndTheOnlyKey) {
  ASSERT_TRUE(shape.build(path(), {rec(-1, {1})}, 0));
  {
    BTree tree(path(), false, 0);
    int32_t value = 0, key = 0;
    ASSERT_TRUE(tree.first(value));
    EXPECT_FALSE(tree.deleteKey(2));
    EXPECT_EQ(tree.getKeyCount(), 1);
    EXPECT_FALSE(tree.getCurrentKey(key));  // the cursor is gone all the same
    ASSERT_TRUE(tree.deleteKey(1));
    EXPECT_FALSE(tree.deleteKey(1));
    EXPECT_EQ(checkModel(tree, {}, false), "");
    EXPECT_EQ(tree.depth(), 0);
  }
  EXPECT_TRUE(support.reports.empty());
  const std::string file = lltest::readFile(path());
  EXPECT_EQ(hex(file.substr(24, 4) + file.substr(46)), hex(le4(0) + shape.encode(0, rec(-1, {}))));
}

TEST_F(DeleteTest, DuplicatesNeedTheValueAndReplaceValueIsRefused) {
  shape = {5, 8};
  auto dup = [](int32_t v) { return Slot{std::string("ab\0\0", 4) + be4(static_cast<uint32_t>(v)), v}; };
  ASSERT_TRUE(shape.build(path(), {Rec{-1, {dup(1), dup(2), dup(3)}, {}}}, 0, true));
  {
    BTree tree(path(), false, 0);
    int32_t value = 0;
    ASSERT_TRUE(tree.find(value, "ab", 2));
    EXPECT_FALSE(tree.deleteKey("ab", 2));
    EXPECT_FALSE(tree.replaceValue(9, "ab", 2));
    std::string reports;
    for (const lltest::Report& r : support.reports)
      reports += r.message + "|" + r.function + "|" + r.module + "|" + std::to_string(r.flag == eReportError) + "\n";
    EXPECT_EQ(reports,
              "Duplicates are NOT supported by deleteKey without specifying associated value.|"
              "BTree::deleteKey|btree|1\nDuplicates are NOT supported.|BTree::replaceValue|btree|1\n");
    char key[8];
    int length = 8;
    EXPECT_TRUE(tree.getCurrentKey(key, length));  // the refusals left the cursor alone
    EXPECT_FALSE(tree.deleteKey(9, "ab", 2));
    ASSERT_TRUE(tree.deleteKey(2, "ab", 2));
    EXPECT_EQ(tree.getKeyCount(), 2);
  }
  EXPECT_EQ(hex(shape.record(lltest::readFile(path()), 0)), hex(shape.encode(0, Rec{-1, {dup(1), dup(3)}, {}})));
}

TEST_F(DeleteTest, ReplaceValueInTheRootAndInALeaf) {
  ASSERT_TRUE(shape.build(path(), {rec(-1, {10}, {1, 2}), rec(0, {5}), rec(0, {15})}, 0));
  {
    BTree tree(path(), false, 0);
    int32_t value = 0, key = 0;
    ASSERT_TRUE(tree.find(value, 5));
    EXPECT_TRUE(tree.replaceValue(-7, 10));
    EXPECT_TRUE(tree.replaceValue(77, 15));
    EXPECT_FALSE(tree.replaceValue(1, 11));
    EXPECT_TRUE(tree.getCurrentKey(key));
    EXPECT_EQ(key, 5);
  }
  EXPECT_TRUE(support.reports.empty());
  Rec root = rec(-1, {10}, {1, 2}), leaf = rec(0, {15});
  root.entries[0].value = -7;
  leaf.entries[0].value = 77;
  const std::string file = lltest::readFile(path());
  EXPECT_EQ(hex(shape.record(file, 0) + shape.record(file, 1) + shape.record(file, 2)),
            hex(shape.encode(0, root) + shape.encode(1, rec(0, {5})) + shape.encode(2, leaf)));
  BTree reopened(path(), true, 0);
  EXPECT_EQ(walk(reopened, false), (std::vector<Entry>{{be4(5), 105}, {be4(10), -7}, {be4(15), 77}}));
}

// A leaf that names another leaf as its parent; and a read-only tree: no change either way.
TEST_F(DeleteTest, MisplacedPageAndReadOnlyTreeChangeNothing) {
  std::vector<Rec> recs = threeLeaves({1}, {7}, {12});
  recs[2].parent = 1;
  for (bool readOnly : {false, true}) {
    ASSERT_TRUE(shape.build(path(), readOnly ? threeLeaves({1}, {7}, {12}) : recs, 0));
    const std::string before = lltest::readFile(path());
    {
      BTree tree(path(), readOnly, 0);
      EXPECT_FALSE(tree.deleteKey(7));
      EXPECT_FALSE(readOnly && tree.replaceValue(1, 5));
      EXPECT_EQ(tree.getKeyCount(), 5);
    }
    EXPECT_TRUE(!readOnly || lltest::readFile(path()) == before);
  }
}

// Every I/O call of a deletion that merges twice and collapses the root is made to fail in turn,
// until the deletion runs without meeting an injected failure.
TEST_F(DeleteTest, EveryFailingCallGivesFalseAndLeavesAReadableFile) {
  bool injected = true;
  int failedRuns = 0;
  for (int k = 1; injected && k < 2000; ++k) {
    ASSERT_TRUE(shape.build(path(), kDepthTwo, 0));
    {
      BTree tree(path(), false, 0);
      ASSERT_TRUE(tree.isOk());
      lltest::FaultInjector faults;
      faults.failAt = {k};
      bool done = tree.deleteKey(5);
      injected = faults.failures > 0;
      if (!done) {
        EXPECT_TRUE(injected) << "k = " << k;
        ++failedRuns;
      }
    }
    BTree reader(path(), true, 0);
    if (!reader.isOk()) continue;  // the root itself was lost half-way
    EXPECT_LT(walk(reader, false, 50).size(), 50u);
    reader.test(true, nullptr, nullptr, nullptr);
    if (!injected) {
      EXPECT_EQ(checkModel(reader, entries({10, 15, 20, 25, 30, 35}), false), "");
    }
  }
  EXPECT_FALSE(injected);
  EXPECT_GT(failedRuns, 30);  // three merges, a collapse and the re-parentings: many calls
}

}  // namespace
