// The BTree object: construction and its refusals, the accessors, key conversion; lookups and the
// cursor they leave, the whole-tree walks and every walk over corrupt links; and changes checked
// against the exact records expected (splits, every rebalancing case, refusals with their
// reports). Cursor scripts are run by btreetest::steps (see its letters).
#include "lowlevel/btree/btree.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
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
void expectNoTree(BTree& t) { EXPECT_EQ(accessors(t), "0 0 0 -1 -1 0 0 - -"); }

TEST(BTreeObject, RefusesShapesThatCannotWork) {
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
    expectNoTree(t);
    EXPECT_EQ(lltest::reportsText(support.reports), c.report + " (" + path + ").|BTree::BTree|2|btree\n");
    EXPECT_FALSE(lltest::fileExists(path));
  }
}

TEST(BTreeObject, FailedOpeningsAnswerTheAccessors) {
  lltest::TempDir dir;
  const std::string path = dir.file("t.bt");
  { BTree created(path, 3, 4, false, 0, 0, 0); ASSERT_TRUE(created.isOk()); }
  lltest::RecordingSupport support;
  {  // a tree whose file never opened refuses every operation instead of touching a missing root
    BTree missing(dir.file("none.bt"), true, 0);
    expectNoTree(missing);
    int32_t v = 0;
    EXPECT_EQ(steps(missing, "f1 g1 F L N P") + std::to_string(missing.depth()), "- - - - - --1");
    EXPECT_FALSE(missing.insertKey(1, "a", 1) || missing.deleteKey("a", 1) || missing.replaceValue(1, "a", 1) ||
                 missing.test(false, nullptr, nullptr, nullptr) || missing.find(v, "a", 1));
  }
  ASSERT_EQ(support.reports.size(), 1u);
  patchFile(path, 28, le4(47));  // the root is not where the header says: no report
  { BTree t(path, false, 0); EXPECT_EQ(accessors(t).substr(0, 14), "0 10400 0 -1 0"); }
  EXPECT_EQ(support.reports.size(), 1u);
  EXPECT_EQ(lltest::readFile(path).substr(28, 4), le4(47));  // a failed tree writes nothing back
  patchFile(path, 16, le4(1));
  { BTree t(path, true, 0); expectNoTree(t); }
  EXPECT_EQ(support.reports.back().message, "Invalid BTree (" + path + ").");
}

TEST(BTreeObject, AccessorsAndKeyPreparation) {
  lltest::TempDir dir;
  BTree t(dir.file("d.bt"), 5, 4, true, 0x409, 0, 1);
  EXPECT_EQ(accessors(t) + " " + std::to_string(T::root(t)->keyLength), "1 10400 5 4 0 1 0 409/0 1 8");
  // lcid alone switches conversion on; the mapping keeps "ab" and its terminator.
  EXPECT_EQ(T::bytes(T::prepareKey(t, "ab", 0, 1)), std::string("ab\0\0\0\0\0\x01", 8));
  T::setConversion(t, 0, 0, 0);
  EXPECT_EQ(T::bytes(T::prepareKey(t, "abcdef", 6, 0x01020304)), "abcd\x01\x02\x03\x04");
}

TEST(BTreeObject, LongKeysFollowTheVersion) {
  lltest::TempDir dir;
  const std::string v4 = dir.file("v4.bt"), v1 = dir.file("v1.bt");
  { BTree t(v1, 3, 4, false, 0, 0, 0); }
  patchFile(v1, 0, le4(0x00010100));
  for (const std::string& path : {v4, v1}) {
    std::unique_ptr<BTree> t(path == v4 ? new BTree(v4, 3, 4, false, 0, 0, 0) : new BTree(v1, false, 0));
    ASSERT_TRUE(t->isOk() && t->insertKey(7, 1));
    EXPECT_EQ(T::bytes(T::root(*t)->keys[0]), path == v4 ? std::string("\0\0\0\x01", 4) : std::string("\x01\0\0\0", 4));
    EXPECT_EQ(steps(*t, "f1 K"), "7 1");
  }
  {
    BTree t(v4, false, 0);
    ASSERT_TRUE(t.insertKey(8, -1) && t.insertKey(9, 256));
    EXPECT_EQ(T::reverseLong(t, 0x01020304), 0x04030201);
  }
  std::vector<Rec> recs = {rec(2, {1}), rec(2, {-1}), rec(-1, {256}, {0, 1})};  // unsigned order: -1 last
  recs[0].entries[0].value = 7, recs[1].entries[0].value = 8, recs[2].entries[0].value = 9;
  EXPECT_EQ(records(v4), records({3, 4}, 3, 2, recs));
}

TEST(BTreeObject, ConversionAndBlankReplacement) {
  lltest::TempDir dir;
  BTree t(dir.file("c.bt"), 3, 8, false, 0, 0, 0);
  ASSERT_TRUE(t.isOk());
  EXPECT_FALSE(T::convertKey(t, "abc", 0));
  EXPECT_EQ(T::convertBuffer(t), nullptr);
  auto converted = [&](const char* key, int length) {
    EXPECT_TRUE(T::convertKey(t, key, length));
    return std::string(T::convertBuffer(t), T::convertLength(t));
  };
  T::setConversion(t, 0x409, lc::kNormIgnoreSymbols, 0);
  EXPECT_EQ(converted("a b", 0), std::string("a0b\0", 4));  // blank became '0'
  EXPECT_EQ(T::convertCapacity(t), 8);
  const char* buffer = T::convertBuffer(t);
  EXPECT_EQ(converted("a b", 3), "ab");  // explicit length: the blank went in and was dropped
  EXPECT_EQ(converted("xyz", 0), std::string("xyz\0", 4));
  EXPECT_EQ(T::convertBuffer(t), buffer);  // same size: no new buffer
  EXPECT_EQ(converted("0123456789", 0).size(), 11u);
  EXPECT_EQ(T::convertCapacity(t), 22);
  T::setConversion(t, 0x409, lc::kNormIgnoreSymbols, 1);
  EXPECT_EQ(converted("a b", 0), std::string("ab\0", 3));
  T::setConversion(t, 0x409, lc::kNormIgnoreSymbols, 0);  // Windows refuses ignore-case for text
  EXPECT_EQ(T::bytes(T::prepareKey(t, "a b", 0, 0)), std::string("a0b\0\0\0\0\0", 8));
}

TEST(BTreeObject, FailedConversionReportsAndKeepsTheRawKey) {
  lltest::TempDir dir;
  BTree t(dir.file("c.bt"), 3, 4, false, 0, 0, 0);
  lltest::RecordingSupport support;
  T::setConversion(t, 0x409, lc::kLcmapLowercase | lc::kLcmapUppercase, 0);
  EXPECT_FALSE(T::convertKey(t, "abc", 0));
  EXPECT_EQ(T::bytes(T::prepareKey(t, "ABCD", 4, 0)), "ABCD");
  ASSERT_EQ(support.reports.size(), 2u);
  const lltest::Report& r = support.reports[0];
  EXPECT_EQ(r.message + "|" + r.function + "|" + std::to_string(r.flag == eReportError),
            "Failed to convert key (LCMapString - 1004).\nKey: abc\nLCID: 00000409\nFlags: 00000300|"
            "BTree::convertKey|1");
  const std::string longKey(5000, 'k');
  EXPECT_FALSE(T::convertKey(t, longKey.c_str(), 0));
  EXPECT_NE(support.reports.back().message.find("Key: " + longKey + "\nLCID"), std::string::npos);
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
  BTree t(path, true, 0);
  EXPECT_EQ(steps(t, "F N") + " " + std::to_string(t.getKeyCount()), "1 2 2");
  int32_t v = 0;
  EXPECT_TRUE(t.find(v, "aPPle", 0) && v == 1 && t.find(v, "BANANA", 0) && v == 2);
  {  // the first conversion after opening, of a key that maps to one byte
    BTree lower(dir.file("l.bt"), 3, 4, false, 0x409, lc::kLcmapLowercase, 1);
    ASSERT_TRUE(lower.insertKey(5, "A", 1));
  }
  BTree lower(dir.file("l.bt"), true, 0);
  EXPECT_TRUE(lower.find(v, "A", 1) && v == 5);
}

class CursorTest : public ::testing::Test {
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
  };
  for (const Row& row : rows) EXPECT_EQ(steps(*longs(row.keys), row.script), row.answers) << row.script;
  EXPECT_EQ(longs({1, 2, 3, 4, 5, 6, 7, 8})->depth(), 2);
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
  tree->first(v);
  EXPECT_EQ(currentKey(*tree, 5) + " " + currentKey(*tree, 6), std::string("0/6/######## 1/6/key\0\0\0##", 25));
  EXPECT_FALSE(tree->getCurrentKey(number) || number != 77);  // a key of 6 bytes is no long key
  auto wide = create(3, 20, true);
  ASSERT_TRUE(wide->insertKey(-1, "x", 0) && wide->first(v));
  EXPECT_EQ(currentKey(*wide, 33), std::string("1/20/x\0\0\0\0\0\0\0", 13));
  auto number4 = longs({0x01020304});
  number4->first(v);
  EXPECT_EQ(currentKey(*number4, 4), "1/4/\x01\x02\x03\x04####");
}

// A failed read drops the cursor; a step inside the current page needs no read.
TEST_F(CursorTest, FailedReadDropsTheCursor) {
  auto tree = longs({1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(steps(*tree, "L"), "108");
  {
    lltest::FaultInjector faults;
    faults.failFrom = 1;
    EXPECT_EQ(steps(*tree, "P") + std::to_string(faults.count), "1070");
    EXPECT_EQ(steps(*tree, "P C") + std::to_string(tree->depth()), "- x-1");
  }
  EXPECT_EQ(steps(*tree, "F"), "101");
}

TEST_F(CursorTest, InOrderHandsOverEverySlotAndLeavesTheCursor) {
  static std::string seen;
  auto record = [](int32_t value, const char* key, int length) {
    seen += std::to_string(value) + ":" + hex(std::string(key, static_cast<size_t>(length))) + "| ";
  };
  EXPECT_TRUE(create(3, 8)->inOrder(record) && seen.empty());
  auto tree = create(3, 2, true);  // slot width 6
  for (int32_t v : {3, 1, 2, -1}) ASSERT_TRUE(tree->insertKey(v, "k", 0));
  EXPECT_EQ(steps(*tree, "F N"), "1 2");
  EXPECT_TRUE(tree->inOrder(record));
  EXPECT_EQ(seen, "1:6B 00 00 00 00 01 | 2:6B 00 00 00 00 02 | 3:6B 00 00 00 00 03 | -1:6B 00 FF FF FF FF | ");
  EXPECT_EQ(steps(*tree, "N"), "3");  // the cursor stayed on 2
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
  auto even = longs({1, 2, 3, 4}, 4);  // the right page of the split holds 1 key, below minKeys 2
  EXPECT_EQ(counts(*even, false), "0 4 3 2");
  EXPECT_EQ(counts(*even, true), "1 4 3 2");
}

// Order 3 with 1, 2, 3: leaves at 46 ([1]) and 102 ([3]), root at 158 ([2]); records of 56 bytes.
class CorruptTest : public CursorTest {
 protected:
  void SetUp() override { longs({1, 2, 3}); }
  void patch(size_t at, int32_t value) { patchFile(path, at, le4(value)); }
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
    expectLeftDescentsFail(tree);
    int32_t strict = 0, relaxed = 0;  // a leaf with a child is malformed; relaxed, the walk stops
    EXPECT_FALSE(tree.test(false, nullptr, &strict, nullptr) || tree.test(true, nullptr, &relaxed, nullptr));
    EXPECT_EQ(strict * 100 + relaxed, 265);  // after 64 free steps, as the file is short
  }
  // With room for 100 more records (105 by the length), the walk reads as many pages as that.
  lltest::writeFile(path, lltest::readFile(path) + std::string(100 * 56, '\0'));
  int32_t pages = 0;
  EXPECT_FALSE(BTree(path, true, 0).test(true, nullptr, &pages, nullptr));
  EXPECT_EQ(pages, 105);
}

TEST_F(CorruptTest, ParentLinksInACircleCannotMakeAClimbLoop) {
  patch(kLeftLeaf + kParent, int32_t{kLeftLeaf});  // the left leaf names itself as parent
  patch(kRoot + kParent, int32_t{kRightLeaf});     // the root names a leaf as parent
  BTree tree(path, true, 0);
  int depth = -5, index = -5;
  EXPECT_EQ(steps(tree, "F"), "101");
  EXPECT_FALSE(tree.getCurrentKeyDepthAndIndex(depth, index) || index != -5);
  EXPECT_EQ(steps(tree, "N C L N C f1 P C"), "- x 103 - x 101 - x");
}

// A root whose two children are one leaf: the cursor comes back to the leaf after every climb.
// Every walk ends: a caller's while (next()) loop after 64 free moves, as the file holds fewer
// entries than that, and the traversals and changes with an answer.
TEST_F(CorruptTest, TwoChildLinksToOneLeafCannotMakeAWalkLoop) {
  patch(kRoot + kChild0 + 4, int32_t{kLeftLeaf});
  auto moves = [](BTree& tree) { return std::to_string(walk(tree, false).size()); };
  // With room for 100 more records (105 by the length), the walk reads as many pages as that.
  lltest::writeFile(path + "+", lltest::readFile(path) + std::string(100 * 56, '\0'));
  BTree padded(path + "+", true, 0);
  EXPECT_EQ(moves(padded), "209");  // two moves a page read: a leaf key, then the root key
  for (bool readOnly : {true, false}) {
    BTree tree(path, readOnly, 0);
    int32_t pages = 0;
    EXPECT_EQ(moves(tree) + " " + steps(tree, "N C") + " " + std::to_string(walk(tree, true).size()), "65 - x 1");
    tree.test(false, nullptr, &pages, nullptr);  // its checks do not look for shared pages
    EXPECT_EQ(pages, 3);                          // but it reads the leaf twice, no more
    EXPECT_TRUE(tree.inOrder([](int32_t, const char*, int) {}));
    if (!readOnly) tree.deleteKey(1), tree.deleteKey(3), tree.insertKey(9, 9);
  }
}

std::vector<Entry> entries(const std::vector<int>& keys) {
  std::vector<Entry> out;
  for (int k : keys) out.emplace_back(be4(static_cast<uint32_t>(k)), 100 + k);
  return out;
}

// Order 3: root [5 10] over three leaves; record 0 is the root.
std::vector<Rec> threeLeaves(std::vector<int> a, std::vector<int> b, std::vector<int> c) {
  return {rec(-1, {5, 10}, {1, 2, 3}), rec(0, a), rec(0, b), rec(0, c)};
}

class ChangeTest : public CursorTest {
 protected:
  lltest::RecordingSupport support;
  Shape shape{3, 4};
};

// Splits, byte for byte: order 3 sends up the middle key (the new one itself when it sorts there)
// and reparents only the moved children; order 4 sends up the upper middle; order 2 leaves the
// right page of a split empty. The count on disk lags until the header is written.
TEST_F(ChangeTest, InsertionsSplitPagesIntoTheseRecords) {
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

// One deletion from a built file. Afterwards the file is as before with the header's keyCount,
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
    c.shape.build(path, c.recs, 0);
    std::string expected = lltest::readFile(path);
    {
      BTree tree(path, false, 0);
      ASSERT_TRUE(tree.deleteKey(c.key));
      EXPECT_EQ(checkModel(tree, entries(c.remaining), c.shape.order % 2 == 0), "");
    }
    const std::string after = lltest::readFile(path);
    expected.replace(24, 12, le4(static_cast<int32_t>(c.remaining.size())) + le4(c.shape.at(c.root)) +
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

// Arguments that are no key, and a slot too narrow for a value tail, find nothing to delete.
TEST_F(ChangeTest, ArgumentsThatAreNoKeyDeleteNothing) {
  BTree tree(path, 3, 2, false, 0, 0, 0);
  ASSERT_TRUE(tree.insertKey(1, "ab", 2));
  EXPECT_FALSE(tree.deleteKey(1, "ab", 2) || tree.deleteKey(1, nullptr, 2) || tree.deleteKey(1, "ab", -1));
  EXPECT_FALSE(tree.deleteKey(nullptr, 2) || tree.deleteKey("ab", -1));
  EXPECT_EQ(tree.getKeyCount(), 1);
}

// A missing key changes nothing but drops the cursor; a tree with duplicates refuses the forms
// without a value, with these reports, and leaves the cursor.
TEST_F(ChangeTest, RefusedChanges) {
  shape.build(path, threeLeaves({1}, {7}, {12}), 0);
  {
    BTree tree(path, false, 0);
    EXPECT_EQ(steps(tree, "F"), "101");
    EXPECT_FALSE(tree.deleteKey(2) || tree.replaceValue(1, 11));
    EXPECT_EQ(steps(tree, "C F"), "x 101");
    EXPECT_FALSE(tree.insertKey(0, 1));
    EXPECT_EQ(steps(tree, "C"), "x");
    EXPECT_EQ(tree.getKeyCount(), 5);
  }
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
    char key[8];
    int length = 8;
    EXPECT_TRUE(tree.getCurrentKey(key, length));
    EXPECT_FALSE(tree.deleteKey(9, "ab", 2));
    ASSERT_TRUE(tree.deleteKey(2, "ab", 2));
  }
  EXPECT_EQ(records(path), records(shape, 2, 0, {Rec{-1, {dup(1), dup(3)}, {}}}));
}

// replaceValue rewrites the value in place, in the root as in a leaf, and keeps the cursor.
TEST_F(ChangeTest, ReplaceValueRewritesOneWord) {
  std::vector<Rec> recs = {rec(-1, {10}, {1, 2}), rec(0, {5}), rec(0, {15})};
  shape.build(path, recs, 0);
  {
    BTree tree(path, false, 0);
    EXPECT_EQ(steps(tree, "f5"), "105");
    EXPECT_TRUE(tree.replaceValue(-7, 10) && tree.replaceValue(77, 15));
    EXPECT_EQ(steps(tree, "K"), "5");
  }
  recs[0].entries[0].value = -7, recs[2].entries[0].value = 77;
  EXPECT_EQ(records(path), records(shape, 3, 0, recs));
  EXPECT_TRUE(support.reports.empty());
}

// A read-only tree refuses every change and writes nothing; so does a change whose page names
// another parent than the one it was reached from.
TEST_F(ChangeTest, ReadOnlyAndMisplacedPagesChangeNothing) {
  std::vector<Rec> misplaced = threeLeaves({1}, {7}, {12});
  misplaced[2].parent = 1;
  for (bool readOnly : {false, true}) {
    shape.build(path, readOnly ? threeLeaves({1}, {7}, {12}) : misplaced, 0);
    const std::string before = lltest::readFile(path);
    {
      BTree tree(path, readOnly, 0);
      EXPECT_FALSE(tree.deleteKey(7));
      EXPECT_FALSE(readOnly && (tree.replaceValue(1, 5) || tree.insertKey(2, 2)));
      EXPECT_EQ(tree.getKeyCount(), 5);
    }
    EXPECT_TRUE(!readOnly || lltest::readFile(path) == before);
  }
}

}  // namespace
