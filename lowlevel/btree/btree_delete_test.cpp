// Deletion on trees of a shape built record by record, checked against the exact bytes expected.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "tests/testsupport/testing.h"

namespace {

struct Entry {
  std::string slot;  // the whole slot, value tail included
  int32_t value;
};

// A record of a hand-built file: `parent` and `kids` are record numbers (-1: none); record n
// lies at 46 + n x record size.
struct Rec {
  int parent;
  std::vector<Entry> entries;
  std::vector<int> kids;
};

std::string be4(uint32_t v) {
  return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 8), static_cast<char>(v)};
}
std::string le4(int32_t v) {
  uint32_t u = static_cast<uint32_t>(v);
  return std::string{static_cast<char>(u), static_cast<char>(u >> 8), static_cast<char>(u >> 16),
                     static_cast<char>(u >> 24)};
}

// Key k of a tree without duplicates is the 4 bytes 00 00 00 k; its value is 100 + k.
Rec rec(int parent, std::vector<int> keys, std::vector<int> kids = {}) {
  Rec r{parent, {}, std::move(kids)};
  for (int k : keys) r.entries.push_back({be4(static_cast<uint32_t>(k)), 100 + k});
  return r;
}

struct Shape {
  int order;
  int slot;  // slot width
  int32_t recordSize() const { return 28 + (order - 1) * (slot + 4) + order * 4; }
  int32_t at(int n) const { return n < 0 ? -1 : 46 + n * recordSize(); }

  std::string encode(int self, const Rec& r) const {
    std::string out = le4(at(self)) + le4(at(r.parent)) + le4(order) + le4(order - 1) +
                      le4(order >> 1) + le4(static_cast<int32_t>(r.entries.size())) + le4(slot);
    for (int i = 0; i < order - 1; ++i) {
      out += i < static_cast<int>(r.entries.size()) ? r.entries[i].slot : std::string(slot, '\0');
    }
    for (int i = 0; i < order - 1; ++i) {
      out += le4(i < static_cast<int>(r.entries.size()) ? r.entries[i].value : 0);
    }
    for (int i = 0; i < order; ++i) out += le4(i < static_cast<int>(r.kids.size()) ? at(r.kids[i]) : -1);
    return out;
  }

  // Lays the records down through the page file, record n at its place, and closes the file.
  void build(const std::string& path, const std::vector<Rec>& recs, int rootRecord,
             bool duplicates = false) const {
    std::remove(path.c_str());  // a fresh file each time
    BTreePageFile pf(path, order, duplicates ? slot - 4 : slot, duplicates, 0, 0, 0);
    ASSERT_TRUE(pf.ok);
    int32_t total = 0;
    for (size_t n = 0; n < recs.size(); ++n) {
      BTreePage page(order, slot);
      page.offset = at(static_cast<int>(n));
      page.parentOffset = at(recs[n].parent);
      page.keyCount = static_cast<uint32_t>(recs[n].entries.size());
      for (size_t i = 0; i < recs[n].entries.size(); ++i) {
        page.keys[i] = BTreePageKey(slot, recs[n].entries[i].slot.data(), slot);
        page.values[i] = recs[n].entries[i].value;
      }
      for (size_t i = 0; i < recs[n].kids.size(); ++i) page.children[i] = at(recs[n].kids[i]);
      ASSERT_TRUE(pf.writePage(page, static_cast<int>(n) == rootRecord));
      total += static_cast<int32_t>(page.keyCount);
    }
    pf.keyCount = total;
  }
};

std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
    out += ' ';
  }
  return out;
}

int32_t headerField(const std::string& file, int at) {
  return static_cast<int32_t>(static_cast<unsigned char>(file[at]) |
                              static_cast<unsigned char>(file[at + 1]) << 8 |
                              static_cast<unsigned char>(file[at + 2]) << 16 |
                              static_cast<uint32_t>(static_cast<unsigned char>(file[at + 3])) << 24);
}

class DeleteTest : public ::testing::Test {
 protected:
  std::string path() const { return dir.file("t.btr"); }

  std::string record(const std::string& file, int n) const {
    return file.substr(static_cast<size_t>(shape.at(n)), static_cast<size_t>(shape.recordSize()));
  }
  void expectRecord(const std::string& file, int n, const Rec& r) const {
    ASSERT_GE(file.size(), static_cast<size_t>(shape.at(n) + shape.recordSize()));
    EXPECT_EQ(hex(record(file, n)), hex(shape.encode(n, r))) << "record " << n;
  }
  void expectFree(const std::string& file, int n, int next) const {
    EXPECT_EQ(headerField(file, shape.at(n)), shape.at(next)) << "free record " << n;
  }

  static std::vector<int> walkForward(BTree& tree) {
    std::vector<int> keys;
    int32_t value = 0;
    for (bool more = tree.first(value); more && keys.size() < 100; more = tree.next(value)) {
      int32_t key = 0;
      EXPECT_TRUE(tree.getCurrentKey(key));
      EXPECT_EQ(value, 100 + key);
      keys.push_back(key);
    }
    return keys;
  }
  static std::vector<int> walkBackward(BTree& tree) {
    std::vector<int> keys;
    int32_t value = 0;
    for (bool more = tree.last(value); more && keys.size() < 100; more = tree.prev(value)) {
      int32_t key = 0;
      EXPECT_TRUE(tree.getCurrentKey(key));
      keys.insert(keys.begin(), key);
    }
    return keys;
  }

  // Deletes the long key `key` from a freshly opened tree and checks the walks and the count.
  void deleteAndWalk(int32_t key, const std::vector<int>& remaining) {
    BTree tree(path(), false, 0);
    ASSERT_TRUE(tree.isOk());
    ASSERT_TRUE(tree.deleteKey(key));
    EXPECT_EQ(tree.getKeyCount(), static_cast<int>(remaining.size()));
    EXPECT_EQ(walkForward(tree), remaining);
    EXPECT_EQ(walkBackward(tree), remaining);
  }

  lltest::TempDir dir;
  lltest::RecordingSupport support;
  Shape shape{3, 4};
};

// Order 3: root [5 10] over three leaves; record 0 is the root.
std::vector<Rec> threeLeaves(std::vector<int> a, std::vector<int> b, std::vector<int> c) {
  return {rec(-1, {5, 10}, {1, 2, 3}), rec(0, a), rec(0, b), rec(0, c)};
}

TEST_F(DeleteTest, LeafWithSpareKeyRewritesOnlyThatLeaf) {
  shape = {5, 4};
  shape.build(path(), {rec(-1, {10}, {1, 2}), rec(0, {1, 2, 3}), rec(0, {11, 12})}, 0);
  std::string before = lltest::readFile(path());
  deleteAndWalk(2, {1, 3, 10, 11, 12});
  std::string after = lltest::readFile(path());
  ASSERT_EQ(after.size(), before.size());
  expectRecord(after, 1, rec(0, {1, 3}));
  EXPECT_EQ(record(after, 0), record(before, 0));
  EXPECT_EQ(record(after, 2), record(before, 2));
  EXPECT_EQ(headerField(after, 24), 5);
}

TEST_F(DeleteTest, BorrowsFromTheRightOnATieAndFromTheLeftWhenItHasMore) {
  shape.build(path(), threeLeaves({1, 2}, {7}, {12, 13}), 0);
  deleteAndWalk(7, {1, 2, 5, 10, 12, 13});
  std::string file = lltest::readFile(path());
  expectRecord(file, 0, rec(-1, {5, 12}, {1, 2, 3}));
  expectRecord(file, 1, rec(0, {1, 2}));
  expectRecord(file, 2, rec(0, {10}));
  expectRecord(file, 3, rec(0, {13}));

  shape.build(path(), threeLeaves({1, 2}, {7}, {12}), 0);
  deleteAndWalk(7, {1, 2, 5, 10, 12});
  file = lltest::readFile(path());
  expectRecord(file, 0, rec(-1, {2, 10}, {1, 2, 3}));
  expectRecord(file, 1, rec(0, {1}));
  expectRecord(file, 2, rec(0, {5}));
  expectRecord(file, 3, rec(0, {12}));
  EXPECT_EQ(headerField(file, 32), -1);
}

TEST_F(DeleteTest, MergesWithTheRightAndEndChildrenUseTheSiblingTheyHave) {
  shape.build(path(), threeLeaves({1}, {7}, {12}), 0);
  deleteAndWalk(7, {1, 5, 10, 12});
  std::string file = lltest::readFile(path());
  expectRecord(file, 0, rec(-1, {5}, {1, 2}));
  expectRecord(file, 2, rec(0, {10, 12}));
  EXPECT_EQ(headerField(file, 32), shape.at(3));
  expectFree(file, 3, -1);

  shape.build(path(), threeLeaves({1}, {7}, {12}), 0);
  deleteAndWalk(1, {5, 7, 10, 12});
  file = lltest::readFile(path());
  expectRecord(file, 0, rec(-1, {10}, {1, 3}));
  expectRecord(file, 1, rec(0, {5, 7}));
  EXPECT_EQ(headerField(file, 32), shape.at(2));

  shape.build(path(), threeLeaves({1}, {7}, {12}), 0);
  deleteAndWalk(12, {1, 5, 7, 10});
  file = lltest::readFile(path());
  expectRecord(file, 0, rec(-1, {5}, {1, 2}));
  expectRecord(file, 2, rec(0, {7, 10}));
  EXPECT_EQ(headerField(file, 32), shape.at(3));
}

TEST_F(DeleteTest, RootCollapseFreesBothRecordsAndTheyAreReusedLastFreedFirst) {
  shape.build(path(), {rec(-1, {5}, {1, 2}), rec(0, {1}), rec(0, {7})}, 0);
  {
    BTree tree(path(), false, 0);
    ASSERT_TRUE(tree.deleteKey(1));
    EXPECT_EQ(tree.depth(), 0);
    EXPECT_EQ(walkForward(tree), (std::vector<int>{5, 7}));
  }
  std::string file = lltest::readFile(path());
  ASSERT_EQ(file.size(), static_cast<size_t>(shape.at(3)));
  expectRecord(file, 1, rec(-1, {5, 7}));
  EXPECT_EQ(headerField(file, 28), shape.at(1));
  EXPECT_EQ(headerField(file, 32), shape.at(0));
  expectFree(file, 0, 2);
  expectFree(file, 2, -1);
  EXPECT_EQ(headerField(file, 24), 2);

  BTreePageFile pf(path(), false, 0);
  ASSERT_TRUE(pf.ok);
  BTreePage a(3, 4), b(3, 4);
  ASSERT_TRUE(pf.writePage(a, false));
  ASSERT_TRUE(pf.writePage(b, false));
  EXPECT_EQ(a.offset, shape.at(0));
  EXPECT_EQ(b.offset, shape.at(2));
  EXPECT_EQ(pf.hdr.freeListHead, -1);
}

// Order 3, depth 2: root [20] over X [10] (a [5], b [15]) and Y [30 40] (c [25], d [35], e [45 46]).
TEST_F(DeleteTest, InteriorBorrowReparentsExactlyOneGrandchild) {
  shape.build(path(),
              {rec(-1, {20}, {1, 2}), rec(0, {10}, {3, 4}), rec(0, {30, 40}, {5, 6, 7}),
               rec(1, {5}), rec(1, {15}), rec(2, {25}), rec(2, {35}), rec(2, {45, 46})},
              0);
  deleteAndWalk(5, {10, 15, 20, 25, 30, 35, 40, 45, 46});
  std::string file = lltest::readFile(path());
  expectRecord(file, 0, rec(-1, {30}, {1, 2}));
  expectRecord(file, 1, rec(0, {20}, {3, 5}));
  expectRecord(file, 2, rec(0, {40}, {6, 7}));
  expectRecord(file, 3, rec(1, {10, 15}));
  expectRecord(file, 5, rec(1, {25}));
  expectRecord(file, 6, rec(2, {35}));
  expectRecord(file, 7, rec(2, {45, 46}));
  EXPECT_EQ(headerField(file, 32), shape.at(4));
}

// The order-3 parent that loses its last key merges in its turn, and the root collapses.
TEST_F(DeleteTest, KeylessParentMergesUpwardAndTheRootCollapses) {
  shape.build(path(),
              {rec(-1, {20}, {1, 2}), rec(0, {10}, {3, 4}), rec(0, {30}, {5, 6}), rec(1, {5}),
               rec(1, {15}), rec(2, {25}), rec(2, {35})},
              0);
  deleteAndWalk(5, {10, 15, 20, 25, 30, 35});
  std::string file = lltest::readFile(path());
  expectRecord(file, 1, rec(-1, {20, 30}, {3, 5, 6}));
  expectRecord(file, 3, rec(1, {10, 15}));
  expectRecord(file, 5, rec(1, {25}));
  expectRecord(file, 6, rec(1, {35}));
  EXPECT_EQ(headerField(file, 28), shape.at(1));
  EXPECT_EQ(headerField(file, 32), shape.at(0));
  expectFree(file, 0, 2);
  expectFree(file, 2, 4);
  expectFree(file, 4, -1);
}

TEST_F(DeleteTest, InteriorKeyIsReplacedByItsSuccessor) {
  shape.build(path(), {rec(-1, {10}, {1, 2}), rec(0, {5}), rec(0, {15, 20})}, 0);
  deleteAndWalk(10, {5, 15, 20});
  std::string file = lltest::readFile(path());
  expectRecord(file, 0, rec(-1, {15}, {1, 2}));
  expectRecord(file, 2, rec(0, {20}));
}

// Order 4 merges would overflow a page at times: root [10 20] over A [1 2], B [12 13], C.
TEST_F(DeleteTest, EvenOrderMergesWithTheSiblingThatFitsOrStaysUnderFull) {
  shape = {4, 4};
  shape.build(path(), {rec(-1, {10, 20}, {1, 2, 3}), rec(0, {1, 2}), rec(0, {12, 13}), rec(0, {22})}, 0);
  deleteAndWalk(12, {1, 2, 10, 13, 20, 22});
  std::string file = lltest::readFile(path());
  expectRecord(file, 0, rec(-1, {10}, {1, 2}));
  expectRecord(file, 2, rec(0, {13, 20, 22}));
  EXPECT_EQ(headerField(file, 32), shape.at(3));

  shape.build(path(), {rec(-1, {10, 20}, {1, 2, 3}), rec(0, {1, 2}), rec(0, {12, 13}), rec(0, {22, 23})}, 0);
  std::string before = lltest::readFile(path());
  deleteAndWalk(12, {1, 2, 10, 13, 20, 22, 23});
  file = lltest::readFile(path());
  expectRecord(file, 2, rec(0, {13}));
  EXPECT_EQ(record(file, 0), record(before, 0));
  EXPECT_EQ(record(file, 1), record(before, 1));
  EXPECT_EQ(record(file, 3), record(before, 3));
}

TEST_F(DeleteTest, MissingKeysAndTheOnlyKey) {
  shape.build(path(), {rec(-1, {1})}, 0);
  {
    BTree tree(path(), false, 0);
    int32_t value = 0;
    ASSERT_TRUE(tree.first(value));
    EXPECT_FALSE(tree.deleteKey(2));
    EXPECT_EQ(tree.getKeyCount(), 1);
    int32_t key = 0;
    EXPECT_FALSE(tree.getCurrentKey(key));  // the cursor is gone all the same
    ASSERT_TRUE(tree.deleteKey(1));
    EXPECT_FALSE(tree.deleteKey(1));
    EXPECT_EQ(tree.getKeyCount(), 0);
    EXPECT_FALSE(tree.first(value));
    EXPECT_EQ(tree.depth(), 0);
  }
  EXPECT_TRUE(support.reports.empty());
  std::string file = lltest::readFile(path());
  EXPECT_EQ(file.size(), static_cast<size_t>(shape.at(1)));
  expectRecord(file, 0, rec(-1, {}));
  EXPECT_EQ(headerField(file, 24), 0);
}

TEST_F(DeleteTest, DuplicatesNeedTheValueAndReplaceValueIsRefused) {
  shape = {5, 8};
  auto dup = [](int32_t v) { return Entry{std::string("ab\0\0", 4) + be4(static_cast<uint32_t>(v)), v}; };
  shape.build(path(), {Rec{-1, {dup(1), dup(2), dup(3)}, {}}}, 0, true);
  {
    BTree tree(path(), false, 0);
    ASSERT_TRUE(tree.isOk());
    int32_t value = 0;
    ASSERT_TRUE(tree.find(value, "ab", 2));
    EXPECT_FALSE(tree.deleteKey("ab", 2));
    EXPECT_FALSE(tree.replaceValue(9, "ab", 2));
    ASSERT_EQ(support.reports.size(), 2u);
    EXPECT_EQ(support.reports[0].message,
              "Duplicates are NOT supported by deleteKey without specifying associated value.");
    EXPECT_EQ(support.reports[0].function, "BTree::deleteKey");
    EXPECT_EQ(support.reports[1].message, "Duplicates are NOT supported.");
    EXPECT_EQ(support.reports[1].function, "BTree::replaceValue");
    for (const lltest::Report& r : support.reports) {
      EXPECT_EQ(r.flag, eReportError);
      EXPECT_EQ(r.module, "btree");
    }
    char key[8];
    int length = 8;
    EXPECT_TRUE(tree.getCurrentKey(key, length));  // the refusals left the cursor alone
    EXPECT_FALSE(tree.deleteKey(9, "ab", 2));
    ASSERT_TRUE(tree.deleteKey(2, "ab", 2));
    EXPECT_EQ(tree.getKeyCount(), 2);
  }
  std::string file = lltest::readFile(path());
  expectRecord(file, 0, Rec{-1, {dup(1), dup(3)}, {}});
}

TEST_F(DeleteTest, ReplaceValueInTheRootAndInALeaf) {
  shape.build(path(), {rec(-1, {10}, {1, 2}), rec(0, {5}), rec(0, {15})}, 0);
  {
    BTree tree(path(), false, 0);
    int32_t value = 0;
    ASSERT_TRUE(tree.find(value, 5));
    EXPECT_TRUE(tree.replaceValue(-7, 10));
    EXPECT_TRUE(tree.replaceValue(77, 15));
    EXPECT_FALSE(tree.replaceValue(1, 11));
    int32_t key = 0;
    EXPECT_TRUE(tree.getCurrentKey(key));
    EXPECT_EQ(key, 5);
    ASSERT_TRUE(tree.find(value, 10));
    EXPECT_EQ(value, -7);
    EXPECT_EQ(tree.getKeyCount(), 3);
  }
  EXPECT_TRUE(support.reports.empty());
  std::string file = lltest::readFile(path());
  Rec root = rec(-1, {10}, {1, 2});
  root.entries[0].value = -7;
  expectRecord(file, 0, root);
  Rec leaf = rec(0, {15});
  leaf.entries[0].value = 77;
  expectRecord(file, 2, leaf);
  BTree reopened(path(), true, 0);
  int32_t value = 0;
  ASSERT_TRUE(reopened.find(value, 10));
  EXPECT_EQ(value, -7);
}

TEST_F(DeleteTest, PageMissingFromItsParentFailsWithoutDamage) {
  // Leaf 2 names leaf 1 as its parent; leaf 1 has no children.
  std::vector<Rec> recs = threeLeaves({1}, {7}, {12});
  recs[2].parent = 1;
  shape.build(path(), recs, 0);
  BTree tree(path(), false, 0);
  EXPECT_FALSE(tree.deleteKey(7));
  EXPECT_EQ(tree.getKeyCount(), 5);
}

TEST_F(DeleteTest, ReadOnlyTreeRefusesChanges) {
  shape.build(path(), threeLeaves({1}, {7}, {12}), 0);
  std::string before = lltest::readFile(path());
  {
    BTree tree(path(), true, 0);
    EXPECT_FALSE(tree.deleteKey(7));
    EXPECT_FALSE(tree.replaceValue(1, 5));
    EXPECT_EQ(tree.getKeyCount(), 5);
  }
  EXPECT_EQ(lltest::readFile(path()), before);
}

// Every I/O call of a deletion that merges twice and collapses the root is made to fail in turn,
// until the deletion runs without meeting an injected failure.
TEST_F(DeleteTest, EveryFailingCallGivesFalseAndLeavesAReadableFile) {
  std::vector<Rec> recs = {rec(-1, {20}, {1, 2}), rec(0, {10}, {3, 4}), rec(0, {30}, {5, 6}),
                           rec(1, {5}), rec(1, {15}), rec(2, {25}), rec(2, {35})};
  bool injected = true;
  int failedRuns = 0;
  for (int k = 1; injected && k < 2000; ++k) {
    shape.build(path(), recs, 0);
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
    int32_t value = 0;
    int steps = 0;
    for (bool more = reader.first(value); more && steps < 50; more = reader.next(value)) ++steps;
    EXPECT_LT(steps, 50);
    reader.test(true, nullptr, nullptr, nullptr);
    if (!injected) {
      EXPECT_EQ(walkForward(reader), (std::vector<int>{10, 15, 20, 25, 30, 35}));
    }
  }
  EXPECT_FALSE(injected);
  EXPECT_GT(failedRuns, 30);  // three merges, a collapse and the re-parentings: many calls
}

}  // namespace
