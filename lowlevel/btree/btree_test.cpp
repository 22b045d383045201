// The BTree object: construction and its refusals, the accessors, key conversion; lookups and the
// cursor they leave, the whole-tree walks and every walk over corrupt links; and changes checked
// against the exact records expected (splits, every rebalancing case, refusals with their
// reports). Scripts of steps and changes are run by btreetest::steps (see its letters).
#include "lowlevel/btree/btree.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree_testing.h"
#include "lowlevel/platform/lcmap.h"
#include "tests/testsupport/testing.h"

namespace {

using T = BTreeTestAccess;
namespace lc = lowlevel::platform;

using namespace btreetest;

// The records of a file from 46 on, as Shape::encode lays them down, and its keyCount and root.
std::string records(const Shape& shape, int32_t keys, int root, const std::vector<Rec>& recs) {
  std::string out = le4(keys) + le4(shape.at(root));
  for (size_t n = 0; n < recs.size(); ++n) out += shape.encode(static_cast<int>(n), recs[n]);
  return hex(out);
}
std::string records(const std::string& path) {
  const std::string f = lltest::readFile(path);
  return hex(f.substr(24, 8) + f.substr(46));
}

void patchFile(const std::string& path, size_t at, const std::string& with) {
  std::string bytes = lltest::readFile(path);
  bytes.replace(at, with.size(), with);
  lltest::writeFile(path, bytes);
}

// Every accessor's answer: ok version order keyLength keyCount duplicates compressed, then
// lcid/flags and space conversion in hex or "-" when refused.
std::string accessors(BTree& t) {
  uint32_t lcid = 5, flags = 7;
  int16_t space = -9;
  char out[160];
  std::snprintf(out, sizeof out, "%d %x %d %d %d %d %d ", t.isOk(), t.getVersion(), t.getOrder(),
                t.getKeyLength(), t.getKeyCount(), t.hasDuplicates(), t.isCompressed());
  std::string text = out;
  text += t.getLCIDandMapFlags(lcid, flags) ? (std::snprintf(out, sizeof out, "%x/%x", lcid, flags), out) : "-";
  return text + " " + (t.getSpaceConversion(space) ? std::to_string(space) : "-");
}
const char kNoTree[] = "0 0 0 -1 -1 0 0 - -";

// Shapes that cannot work are refused before any file is made; a tree whose file does not open,
// does not hold a sound header or whose root does not read answers every accessor as no tree (the
// last with what its header holds) and writes nothing back.
TEST(BTreeObject, RefusedShapesAndFailedOpeningsAnswerTheAccessors) {
  lltest::TempDir dir;
  const std::string path = dir.file("t.bt");
  struct Case { int order, keyLength; bool duplicates; std::string report; } cases[] = {
      {1, 4, false, "A BTree needs an order of at least 2, not 1"},
      {-3, 4, false, "A BTree needs an order of at least 2, not -3"},
      {2, 0, false, "A BTree needs a key length of at least 1, not 0"},
      {3, -1, true, "A BTree needs a key length of at least 1, not -1"},
      {0x10000, 0x10000, false, "The pages of a BTree of order 65536 and key length 65536 are too large"},
      {2, 0x7FFFFFF0, true, "The pages of a BTree of order 2 and key length 2147483632 are too large"}};
  for (const Case& c : cases) {
    lltest::RecordingSupport support;
    BTree t(path, c.order, c.keyLength, c.duplicates, 0, 0, 0);
    EXPECT_EQ(accessors(t) + " " + lltest::reportsText(support.reports) + std::to_string(lltest::fileExists(path)),
              kNoTree + (" " + c.report) + " (" + path + ").|BTree::BTree|2|btree\n0");
  }
  { BTree created(path, 3, 4, false, 0, 0, 0); ASSERT_TRUE(created.isOk()); }
  lltest::RecordingSupport support;
  {  // a tree whose file never opened refuses every operation instead of touching a missing root
    BTree missing(dir.file("none.bt"), true, 0);
    EXPECT_EQ(accessors(missing) + " " + steps(missing, "f1 g1 F L N P H +1 -1 =1 O T1"),
              std::string(kNoTree) + " - - - - - - -1 - - - - 0:0/0/0");
  }
  patchFile(path, 28, le4(47));  // the root is not where the header says: no report
  { BTree t(path, false, 0); EXPECT_EQ(accessors(t), "0 10400 0 -1 0 0 0 0/0 0"); }
  EXPECT_EQ(lltest::readFile(path).substr(28, 4), le4(47));
  patchFile(path, 16, le4(1));
  { BTree t(path, true, 0); EXPECT_EQ(accessors(t), kNoTree); }
  const std::string from = ").|BTreePageFile::BTreePageFile|2|btree\n";
  EXPECT_EQ(lltest::reportsText(support.reports),
            "Unable to open file (" + dir.file("none.bt") + from + "Invalid BTree (" + path + from);
}

TEST(BTreeObject, LongKeysFollowTheVersion) {
  lltest::TempDir dir;
  const std::string v4 = dir.file("v4.bt"), v1 = dir.file("v1.bt");
  { BTree t(v1, 3, 4, false, 0, 0, 0); }
  patchFile(v1, 0, le4(0x00010100));
  for (const std::string& path : {v4, v1}) {
    std::unique_ptr<BTree> t(path == v4 ? new BTree(v4, 3, 4, false, 0, 0, 0) : new BTree(v1, false, 0));
    EXPECT_EQ(steps(*t, "+1 f1 K"), "+ 101 1");
    EXPECT_EQ(T::bytes(T::root(*t)->keys[0]), std::string(path == v4 ? "\0\0\0\x01" : "\x01\0\0\0", 4));
  }
  { BTree t(v4, false, 0); EXPECT_EQ(steps(t, "+-1 +256"), "+ +"); }
  // Unsigned order: -1 last.
  EXPECT_EQ(records(v4), records({3, 4}, 3, 2, {rec(2, {1}), rec(2, {-1}), rec(-1, {256}, {0, 1})}));
}

// Key preparation pads or cuts to the slot and appends the value with duplicates; conversion
// replaces or drops blanks, grows its buffer only when needed, and a failure is reported once per
// key and leaves the raw key.
TEST(BTreeObject, KeyPreparationAndConversion) {
  lltest::TempDir dir;
  BTree d(dir.file("d.bt"), 5, 4, true, 0x409, 0, 1);
  EXPECT_EQ(accessors(d) + " " + std::to_string(T::root(d)->keyLength), "1 10400 5 4 0 1 0 409/0 1 8");
  // lcid alone switches conversion on; the mapping keeps "ab" and its terminator.
  EXPECT_EQ(T::bytes(T::prepareKey(d, "ab", 0, 1)), std::string("ab\0\0\0\0\0\x01", 8));
  T::setConversion(d, 0, 0, 0);
  EXPECT_EQ(T::bytes(T::prepareKey(d, "abcdef", 6, 0x01020304)), "abcd\x01\x02\x03\x04");
  BTree t(dir.file("c.bt"), 3, 8, false, 0, 0, 0);
  EXPECT_FALSE(T::convertKey(t, "abc", 0));
  EXPECT_EQ(T::convertBuffer(t), nullptr);
  // Each conversion as its bytes and the buffer's capacity (twice the first size that did not fit):
  // a blank becomes '0' in a terminated key; given a length, it goes in and is dropped.
  std::string seen;
  for (const auto& [space, key, length] : {std::tuple<int16_t, const char*, int>{0, "a b", 0}, {0, "a b", 3},
                                           {0, "xyz", 0}, {0, "0123456789", 0}, {1, "a b", 0}}) {
    T::setConversion(t, 0x409, lc::kNormIgnoreSymbols, space);
    EXPECT_TRUE(T::convertKey(t, key, length));
    seen += std::string(T::convertBuffer(t), T::convertLength(t)) + "/" + std::to_string(T::convertCapacity(t)) + " ";
  }
  EXPECT_EQ(seen, std::string("a0b\0/8 ab/8 xyz\0/8 0123456789\0/22 ab\0/22 ", 41));
  T::setConversion(t, 0x409, lc::kNormIgnoreSymbols, 0);  // Windows refuses ignore-case for text
  EXPECT_EQ(T::bytes(T::prepareKey(t, "a b", 0, 0)), std::string("a0b\0\0\0\0\0", 8));
  lltest::RecordingSupport support;
  T::setConversion(t, 0x409, lc::kLcmapLowercase | lc::kLcmapUppercase, 0);
  EXPECT_EQ(T::bytes(T::prepareKey(t, "ABCD", 4, 0)), std::string("ABCD\0\0\0\0", 8));
  const std::string longKey(5000, 'k');
  EXPECT_FALSE(T::convertKey(t, longKey.c_str(), 0));
  EXPECT_EQ(lltest::reportsText(support.reports),
            "Failed to convert key (LCMapString - 1004).\nKey: ABCD\nLCID: 00000409\nFlags: 00000300|"
            "BTree::convertKey|2|btree\nFailed to convert key (LCMapString - 1004).\nKey: " +
                longKey + "\nLCID: 00000409\nFlags: 00000300|BTree::convertKey|2|btree\n");
}

TEST(BTreeObject, SortKeyTreeFindsWithoutCaseAfterReopening) {
  lltest::TempDir dir;
  const std::string path = dir.file("s.bt");
  const uint32_t flags = lc::kLcmapSortKey | lc::kNormIgnoreCase;
  {
    BTree t(path, 4, 24, false, 0x409, flags, 1);
    ASSERT_TRUE(t.insertKey(1, "Apple", 0) && t.insertKey(2, "banana", 0));
    EXPECT_FALSE(t.insertKey(3, "APPLE", 0));  // the same sort key
    char expected[24] = {};
    ASSERT_GT(lc::lcMapString(0x409, flags, "apple", -1, expected, sizeof expected), 0);
    EXPECT_EQ(T::bytes(T::root(t)->keys[0]), std::string(expected, 24));
  }
  {  // the first conversion after opening, of a key that maps to one byte
    BTree lower(dir.file("l.bt"), 3, 4, false, 0x409, lc::kLcmapLowercase, 1);
    ASSERT_TRUE(lower.insertKey(5, "A", 1));
  }
  BTree t(path, true, 0), lower(dir.file("l.bt"), true, 0);
  EXPECT_EQ(steps(t, "F N") + " " + std::to_string(t.getKeyCount()), "1 2 2");
  int32_t v = 0, w = 0, u = 0;
  EXPECT_TRUE(t.find(v, "aPPle", 0) && t.find(w, "BANANA", 0) && lower.find(u, "A", 1));
  EXPECT_EQ(std::vector<int32_t>({v, w, u}), std::vector<int32_t>({1, 2, 5}));
}

class TreeTest : public ::testing::Test {
 protected:
  std::unique_ptr<BTree> create(int order, int keyLength, bool duplicates = false) {
    path = dir.file("tree" + std::to_string(++made) + ".bt");
    auto tree = std::make_unique<BTree>(path, order, keyLength, duplicates, 0u, 0u, int16_t{0});
    EXPECT_TRUE(tree->isOk());
    return tree;
  }
  // Long keys `keys` inserted in turn, value key + 100.
  std::unique_ptr<BTree> longs(const std::vector<int32_t>& keys, int order = 3) {
    auto tree = create(order, 4);
    for (int32_t k : keys) EXPECT_TRUE(tree->insertKey(100 + k, k));
    return tree;
  }
  lltest::TempDir dir;
  std::string path = dir.file("t.btr");
  int made = 0;
  lltest::RecordingSupport support;
  Shape shape{3, 4};
};

// Each row: the order, the keys, a script and its answers.
TEST_F(TreeTest, ScriptsOfLookupsAndSteps) {
  struct Row { int order; std::vector<int32_t> keys; const char* script; const char* answers; } rows[] = {
      {3, {}, "F L N P C K D f1 g0 C H T0", "- - - - x - - - - x 0 1:0/1/0"},
      {3, {3, 2, 1}, "F N N N C P F P C L N C", "101 102 103 - x - 101 - x 103 - x"},
      // Root [20 40], leaves [10] [30 35] [50 60]: 20 is found in the root; 37 lands behind its
      // leaf, on 40 in the root.
      {3, {10, 20, 30, 40, 50, 60, 35}, "f20 R I f32 C g32 K g37 R I N g5 g60 g61 C",
       "120 r 0 - x 135 35 140 r 1 150 110 160 - x"},
      // Root [4], interior [2] [6], leaves [1] [3] [5] [7 8]: from 3, the last key of a last child
      // of a first child, next climbs two levels to the root in one step.
      {3, {1, 2, 3, 4, 5, 6, 7, 8}, "F D L D f6 N f6 P f3 N R D f5 P K H",
       "101 2,0 108 2,1 106 107 106 105 103 104 r 0,0 105 104 4 2"},
      {3, {1, 2, 3, 4, 5, 6, 7}, "T0", "1:7/7/6"},  // pages written before parents
      {4, {1, 2, 3, 4}, "T0 T1", "0:4/3/2 1:4/3/2"},  // the right page of the split is under minKeys
  };
  for (const Row& row : rows) EXPECT_EQ(steps(*longs(row.keys, row.order), row.script), row.answers) << row.script;
  // A failed read drops the cursor; a step inside the current page needs no read.
  auto tree = longs({1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(steps(*tree, "L"), "108");
  {
    lltest::FaultInjector faults;  // every I/O call fails
    faults.failFrom = 1;
    EXPECT_EQ(steps(*tree, "P P C H"), "107 - x -1");
  }
  EXPECT_EQ(steps(*tree, "F"), "101");
  // A lookup's cursor is a copy of its page as found: a change made through another object
  // meanwhile does not move it, with the page cache off or on.
  for (size_t cache : {size_t{0}, size_t{1} << 20}) {
    setBTreePageCacheSize(cache);
    tree = longs({1, 2, 3, 4, 5, 6, 7, 8});
    {
      BTree other(path, false, 0);
      int32_t v = 0;
      ASSERT_TRUE(tree->find(v, int32_t{7}) && other.deleteKey(int32_t{8}));
    }
    EXPECT_EQ(steps(*tree, "N K P P"), "108 8 107 106");
  }
  setBTreePageCacheSize(0);
}

// Each getCurrentKey(buffer, length) call as answer/length/first 8 bytes of the buffer.
std::string currentKey(BTree& tree, int length) {
  char buffer[33];
  std::memset(buffer, '#', sizeof buffer);
  const bool ok = tree.getCurrentKey(buffer, length);
  return std::to_string(ok) + "/" + std::to_string(length) + "/" + std::string(buffer, 8);
}

// getCurrentKey tells the size it needs and writes no terminator; inOrder hands over whole slots
// and leaves the cursor.
TEST_F(TreeTest, CurrentKeyAndInOrder) {
  auto tree = create(5, 6);
  ASSERT_TRUE(tree->insertKey(1, "key", 0));
  EXPECT_EQ(currentKey(*tree, 3), "0/3/########");  // no cursor
  EXPECT_EQ(steps(*tree, "F K"), "1 -");             // a key of 6 bytes is no long key
  EXPECT_EQ(currentKey(*tree, 5) + " " + currentKey(*tree, 6), std::string("0/6/######## 1/6/key\0\0\0##", 25));
  // Arguments that are no key find nothing to delete, nor does a value where the tree keeps none.
  EXPECT_FALSE(tree->deleteKey(nullptr, 3) || tree->deleteKey("key", -1) || tree->deleteKey(1, nullptr, 3) ||
               tree->deleteKey(1, "key", -1) || tree->deleteKey(1, "key", 3));
  EXPECT_EQ(steps(*tree, "C F"), "x 1");
  static std::string seen;
  auto record = [](int32_t value, const char* key, int length) {
    seen += std::to_string(value) + ":" + hex(std::string(key, static_cast<size_t>(length))) + "| ";
  };
  EXPECT_TRUE(create(3, 8)->inOrder(record) && seen.empty());
  auto dups = create(3, 2, true);  // slot width 6
  for (int32_t value : {3, 1, 2, -1}) ASSERT_TRUE(dups->insertKey(value, "k", 0));
  EXPECT_EQ(steps(*dups, "F N"), "1 2");
  EXPECT_EQ(currentKey(*dups, 33), std::string("1/2/k\0######", 12));
  EXPECT_TRUE(dups->inOrder(record));
  EXPECT_EQ(seen, "1:6B 00 00 00 00 01 | 2:6B 00 00 00 00 02 | 3:6B 00 00 00 00 03 | -1:6B 00 FF FF FF FF | ");
  EXPECT_EQ(steps(*dups, "N"), "3");  // the cursor stayed on 2
}

// Order 3 with 1, 2, 3: leaves at 46 ([1]) and 102 ([3]), root at 158 ([2]); records of 56 bytes.
// Each row patches link words, pads the file with 100 empty records or not, opens it read-only or
// not, and runs a script; every walk ends, changes fail cleanly and reports are exact.
TEST_F(TreeTest, CorruptLinksCannotMakeAWalkLoop) {
  constexpr size_t kLeftLeaf = 46, kRightLeaf = 102, kRoot = 158, kParent = 4, kChild0 = 44;
  // Every walk that goes down the left edge fails; the right part still reads.
  const std::string left = "f0 g0 C F C D f3 P H +0 O ", leftAnswers = "- - x - x - 103 102 -1 - - ";
  const std::string unread = "Unable to read page.|BTree::Search|2|btree\n", twice = unread + unread;
  struct Row { std::vector<std::pair<size_t, int32_t>> patches; bool pad, readOnly; std::string script, answers; };
  const Row rows[] = {
      {{{kRoot + kChild0, 12345}}, false, false, "f1 " + left + "P C T1",
       "- " + leftAnswers + "- x 0:1/1/0 3 " + twice + twice},
      // A child link to itself or to an ancestor: strict, a leaf with a child is malformed;
      // relaxed, the walk stops after 64 free steps, as the file is short.
      {{{kLeftLeaf + kChild0, kLeftLeaf}}, false, true, left + "T0 T1",
       leftAnswers + "0:2/2/1 0:65/65/1 3 " + twice + unread},
      {{{kLeftLeaf + kChild0, kRoot}}, false, true, left + "T0 T1",
       leftAnswers + "0:2/2/1 0:65/65/33 3 " + twice + unread},
      // With room for 100 more records (105 by the length), the walk reads as many pages as that.
      {{{kLeftLeaf + kChild0, kRoot}}, true, true, "T1", "0:105/105/53 3 "},
      // Parent links in a circle: the left leaf names itself, the root names a leaf.
      {{{kLeftLeaf + kParent, kLeftLeaf}, {kRoot + kParent, kRightLeaf}}, false, true,
       "F D N C L N C f1 P C", "101 - - x 103 - x 101 - x 3 "},
      // A root whose two children are one leaf: the cursor comes back to the leaf after every
      // climb, two moves a page read, until the pages the file can hold are used up; the test
      // does not look for shared pages but reads the leaf twice, no more.
      {{{kRoot + kChild0 + 4, kLeftLeaf}}, true, true, "W0", "209 3 "},
      {{{kRoot + kChild0 + 4, kLeftLeaf}}, false, true, "W0 N C W1 T0 O", "65 - x 1 1:3/3/2 + 3 "},
      {{{kRoot + kChild0 + 4, kLeftLeaf}}, false, false, "W0 N C W1 T0 O -1 -3 +9", "65 - x 1 1:3/3/2 + + - + 3 "},
  };
  for (const Row& row : rows) {
    longs({1, 2, 3});
    for (const auto& [at, value] : row.patches) patchFile(path, at, le4(value));
    if (row.pad) lltest::writeFile(path, lltest::readFile(path) + std::string(100 * 56, '\0'));
    const std::string before = lltest::readFile(path);
    support.reports.clear();
    {
      BTree tree(path, row.readOnly, 0);
      const std::string answers = steps(tree, row.script);
      EXPECT_EQ(answers + " " + std::to_string(tree.getKeyCount()) + " " + lltest::reportsText(support.reports),
                row.answers) << row.script;
    }
    EXPECT_TRUE(lltest::readFile(path) == before || row.script.find('-') != std::string::npos) << row.script;
  }
}

std::vector<Entry> entries(const std::vector<Rec>& recs, int32_t without) {
  std::map<std::string, int32_t> keys;
  for (const Rec& r : recs)
    for (const Slot& s : r.entries) keys[s.bytes] = s.value;
  keys.erase(be4(static_cast<uint32_t>(without)));
  return {keys.begin(), keys.end()};
}

// Order 3: root [5 10] over three leaves; record 0 is the root.
std::vector<Rec> threeLeaves(std::vector<int> a, std::vector<int> b, std::vector<int> c) {
  return {rec(-1, {5, 10}, {1, 2, 3}), rec(0, a), rec(0, b), rec(0, c)};
}

// Splits, byte for byte: order 3 sends up the middle key (the new one itself when it sorts there)
// and reparents only the moved children; order 4 sends up the upper middle; order 2 leaves the
// right page of a split empty. The count on disk lags until the header is written.
TEST_F(TreeTest, InsertionsSplitPagesIntoTheseRecords) {
  {
    auto tree = longs({1, 2});
    EXPECT_EQ(field(lltest::readFile(path), 24) * 1000 + T::pageFile(*tree)->hdr.rootOffset, 1046);
    ASSERT_TRUE(tree->insertKey(103, int32_t{3}));
    EXPECT_EQ(T::root(*tree)->offset, shape.at(2));
    EXPECT_EQ(lltest::readFile(path).substr(24, 8), le4(2) + le4(shape.at(2)));
  }
  EXPECT_EQ(records(path), records(shape, 3, 2, {rec(2, {1}), rec(2, {3}), rec(-1, {2}, {0, 1})}));
  longs({1, 3, 2});
  EXPECT_EQ(records(path), records(shape, 3, 2, {rec(2, {1}), rec(2, {3}), rec(-1, {2}, {0, 1})}));
  longs({1, 2, 3, 4, 5, 6, 7});
  EXPECT_EQ(records(path), records(shape, 7, 6, {rec(2, {1}), rec(2, {3}), rec(6, {2}, {0, 1}), rec(5, {5}),
                                                   rec(5, {7}), rec(6, {6}, {3, 4}), rec(-1, {4}, {2, 5})}));
  longs({1, 2, 3, 4}, 4);
  EXPECT_EQ(records(path), records({4, 4}, 4, 2, {rec(2, {1, 2}), rec(2, {4}), rec(-1, {3}, {0, 1})}));
  longs({1, 2}, 2);
  EXPECT_EQ(records(path), records({2, 4}, 2, 2, {rec(2, {1}), rec(2, {}), rec(-1, {2}, {0, 1})}));
}

// An insertion into a leaf with room, and a deletion from one with a key to spare, rewrite that
// record alone, and then the header with the count before it: the record's stray maxKeys and
// minKeys are set from the header and its unused key slots zeroed, while its unused values stay.
// The same with the leaf read from the file and from the page cache.
TEST_F(TreeTest, ChangesOfALeafRewriteItsRecordAndTheHeader) {
  const Shape five{5, 4};
  for (size_t cache : {size_t{0}, size_t{1} << 20}) {
    setBTreePageCacheSize(cache);
    five.build(path, {rec(-1, {5}, {1, 2}), rec(0, {1, 3}), rec(0, {7})}, 0);
    const size_t leaf = static_cast<size_t>(five.at(1)), values = leaf + 28 + 4 * 4;
    patchFile(path, leaf + 12, le4(9) + le4(7));
    patchFile(path, leaf + 28 + 2 * 4, "ab\xff" + std::string(1, '\0') + "cdef");
    patchFile(path, values + 3 * 4, le4(-77));
    patchFile(path, values + 4 * 4 + 3 * 4, le4(999));  // a stray child, which a deletion moves on
    std::string expected = lltest::readFile(path);
    {
      BTree tree(path, false, 0);
      int32_t v = 0;
      ASSERT_TRUE(tree.find(v, int32_t{1}) && tree.insertKey(102, int32_t{2}) && tree.insertKey(108, int32_t{8}));
      EXPECT_EQ(field(lltest::readFile(path), 24), 5);
      ASSERT_TRUE(tree.deleteKey(int32_t{1}));
      EXPECT_EQ(field(lltest::readFile(path), 24), 6);
      EXPECT_EQ(steps(tree, "f1 f2 f3 f8 T0"), "- 102 103 108 1:5/3/0");
    }
    expected.replace(24, 4, le4(5));
    expected.replace(leaf, five.recordSize(), five.encode(1, rec(0, {2, 3})).replace(values - leaf + 12, 4, le4(-77)).replace(values - leaf + 24, 4, le4(999)));
    expected.replace(five.at(2), five.recordSize(), five.encode(2, rec(0, {7, 8})));
    EXPECT_EQ(hex(lltest::readFile(path)), hex(expected));
  }
  setBTreePageCacheSize(0);
}

// One deletion from a built file. Afterwards the tree holds the other keys, and the file is as
// before with the header's keyCount, root and free head updated, the `changed` records rewritten
// exactly, the link words of the `freed` records (the chain from its head) set, and nothing else
// touched.
struct Case { const char* name; Shape shape; std::vector<Rec> recs; int32_t key; int root;
              std::vector<std::pair<int, Rec>> changed; std::vector<int> freed; };

TEST_F(TreeTest, RebalancingRewritesExactlyTheRecordsItMust) {
  const Case cases[] = {
      {"the only key", {3, 4}, {rec(-1, {1})}, 1, 0, {{0, rec(-1, {})}}, {}},
      {"leaf with a spare key", {5, 4}, {rec(-1, {10}, {1, 2}), rec(0, {1, 2, 3}), rec(0, {11, 12})}, 2, 0,
       {{1, rec(0, {1, 3})}}, {}},
      {"borrow from the right on a tie", {3, 4}, threeLeaves({1, 2}, {7}, {12, 13}), 7, 0,
       {{0, rec(-1, {5, 12}, {1, 2, 3})}, {2, rec(0, {10})}, {3, rec(0, {13})}}, {}},
      {"borrow from the left when it has more", {3, 4}, threeLeaves({1, 2}, {7}, {12}), 7, 0,
       {{0, rec(-1, {2, 10}, {1, 2, 3})}, {1, rec(0, {1})}, {2, rec(0, {5})}}, {}},
      {"merge with the right", {3, 4}, threeLeaves({1}, {7}, {12}), 7, 0,
       {{0, rec(-1, {5}, {1, 2})}, {2, rec(0, {10, 12})}}, {3}},
      {"first child merges right", {3, 4}, threeLeaves({1}, {7}, {12}), 1, 0,
       {{0, rec(-1, {10}, {1, 3})}, {1, rec(0, {5, 7})}}, {2}},
      {"last child merges left", {3, 4}, threeLeaves({1}, {7}, {12}), 12, 0,
       {{0, rec(-1, {5}, {1, 2})}, {2, rec(0, {7, 10})}}, {3}},
      {"root collapse frees both records", {3, 4}, {rec(-1, {5}, {1, 2}), rec(0, {1}), rec(0, {7})}, 1, 1,
       {{1, rec(-1, {5, 7})}}, {0, 2}},
      {"interior borrow reparents one grandchild", {3, 4},
       {rec(-1, {20}, {1, 2}), rec(0, {10}, {3, 4}), rec(0, {30, 40}, {5, 6, 7}), rec(1, {5}),
        rec(1, {15}), rec(2, {25}), rec(2, {35}), rec(2, {45, 46})}, 5, 0,
       {{0, rec(-1, {30}, {1, 2})}, {1, rec(0, {20}, {3, 5})}, {2, rec(0, {40}, {6, 7})},
        {3, rec(1, {10, 15})}, {5, rec(1, {25})}}, {4}},
      {"keyless parent merges upward and the root collapses", {3, 4},
       {rec(-1, {20}, {1, 2}), rec(0, {10}, {3, 4}), rec(0, {30}, {5, 6}), rec(1, {5}), rec(1, {15}),
        rec(2, {25}), rec(2, {35})}, 5, 1,
       {{1, rec(-1, {20, 30}, {3, 5, 6})}, {3, rec(1, {10, 15})}, {5, rec(1, {25})}, {6, rec(1, {35})}},
       {0, 2, 4}},
      {"interior key replaced by its successor", {3, 4}, {rec(-1, {10}, {1, 2}), rec(0, {5}), rec(0, {15, 20})},
       10, 0, {{0, rec(-1, {15}, {1, 2})}, {2, rec(0, {20})}}, {}},
      {"even order merges with the sibling that fits", {4, 4},
       {rec(-1, {10, 20}, {1, 2, 3}), rec(0, {1, 2}), rec(0, {12, 13}), rec(0, {22})}, 12, 0,
       {{0, rec(-1, {10}, {1, 2})}, {2, rec(0, {13, 20, 22})}}, {3}},
      {"even order stays under full when no merge fits", {4, 4},
       {rec(-1, {10, 20}, {1, 2, 3}), rec(0, {1, 2}), rec(0, {12, 13}), rec(0, {22, 23})}, 12, 0,
       {{2, rec(0, {13})}}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.shape.build(path, c.recs, 0);
    std::string expected = lltest::readFile(path);
    const std::vector<Entry> remaining = entries(c.recs, c.key);
    {
      BTree tree(path, false, 0);
      ASSERT_TRUE(tree.deleteKey(c.key));
      EXPECT_EQ(checkModel(tree, remaining, c.shape.order % 2 == 0), "");
    }
    const std::string after = lltest::readFile(path);
    expected.replace(24, 12, le4(static_cast<int32_t>(remaining.size())) + le4(c.shape.at(c.root)) +
                                 le4(c.freed.empty() ? -1 : c.shape.at(c.freed[0])));
    for (const auto& [n, r] : c.changed) expected.replace(c.shape.at(n), c.shape.recordSize(), c.shape.encode(n, r));
    for (size_t i = 0; i < c.freed.size(); ++i) {
      const size_t at = static_cast<size_t>(c.shape.at(c.freed[i]));
      expected.replace(at, c.shape.recordSize(), after.substr(at, c.shape.recordSize()));
      expected.replace(at, 4, le4(i + 1 < c.freed.size() ? c.shape.at(c.freed[i + 1]) : -1));
    }
    EXPECT_EQ(hex(after), hex(expected));
  }
  EXPECT_TRUE(support.reports.empty());
}

// Changes that find no key change nothing and drop the cursor; a read-only tree refuses every
// change, and so does a change whose page names another parent than the one it was reached from;
// replaceValue rewrites one word, in the root as in a leaf, and keeps the cursor.
TEST_F(TreeTest, RefusedChangesAndReplacedValues) {
  std::vector<Rec> misplaced = threeLeaves({1}, {7}, {12}), same;
  std::vector<Rec> replaced = {rec(-1, {10}, {1, 2}), rec(0, {5}), rec(0, {15})}, done = replaced;
  misplaced[2].parent = 1;
  done[0].entries[0].value = -10, done[2].entries[0].value = -15;
  // Each row: the records, read-only or not, a script, its answers and the key count, and the
  // records afterwards (none: as before; not compared behind a refusal halfway).
  struct Row { std::vector<Rec> recs; bool readOnly; const char *script, *answers; const std::vector<Rec>* after; };
  const Row rows[] = {
      {threeLeaves({1}, {7}, {12}), false, "F -2 C F =11 +1 C", "101 - x 101 - - x 5", &same},
      {threeLeaves({1}, {7}, {12}), true, "F -7 =1 +2", "101 - - - 5", &same},
      {misplaced, false, "-7", "- 5", nullptr},
      {replaced, false, "f5 =10 =15 K", "105 + + 5 3", &done},
  };
  for (const Row& row : rows) {
    shape.build(path, row.recs, 0);
    const std::string before = records(path);
    {
      BTree tree(path, row.readOnly, 0);
      const std::string answers = steps(tree, row.script);
      EXPECT_EQ(answers + " " + std::to_string(tree.getKeyCount()), row.answers);
    }
    if (row.after != nullptr) {
      EXPECT_EQ(records(path), row.after->empty() ? before : records(shape, 3, 0, *row.after));
    }
  }
  // A tree with duplicates refuses the forms without a value, with these reports, and keeps the
  // cursor.
  shape = {5, 8};
  auto dup = [](int32_t v) { return Slot{std::string("ab\0\0", 4) + be4(static_cast<uint32_t>(v)), v}; };
  shape.build(path, {Rec{-1, {dup(1), dup(2), dup(3)}, {}}}, 0, true);
  {
    BTree tree(path, false, 0);
    int32_t value = 0;
    ASSERT_TRUE(tree.find(value, "ab", 2));
    EXPECT_FALSE(tree.deleteKey("ab", 2) || tree.replaceValue(9, "ab", 2));
    EXPECT_EQ(lltest::reportsText(support.reports),
              "Duplicates are NOT supported by deleteKey without specifying associated value.|"
              "BTree::deleteKey|2|btree\nDuplicates are NOT supported.|BTree::replaceValue|2|btree\n");
    EXPECT_EQ(steps(tree, "C"), "c");
    EXPECT_FALSE(tree.deleteKey(9, "ab", 2));
    ASSERT_TRUE(tree.deleteKey(2, "ab", 2));
  }
  EXPECT_EQ(records(path), records(shape, 2, 0, {Rec{-1, {dup(1), dup(3)}, {}}}));
}

}  // namespace
