#include "lowlevel/btree/btreetools.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools_testutil.h"
#include "tests/testsupport/testing.h"

using btreetoolstest::Entry;
using btreetoolstest::le32;
using btreetoolstest::makeTree;
using btreetoolstest::walk;
using btreetest::hex;

namespace {

std::vector<Entry> numbered(int count, int width) {
  std::vector<Entry> out;
  for (int i = 0; i < count; ++i) {
    int k = (i * 7919) % count;  // a scrambled insertion order
    std::string key = "k" + std::to_string(100000 + k);
    out.emplace_back(key + std::string(static_cast<size_t>(width) - key.size(), '\0'), k * 3 - 50);
  }
  return out;
}

// Keys in the subtree of the uncompressed record at `at`.
int64_t subtreeKeys(const std::string& file, int32_t at, int order, int keyLength) {
  size_t base = static_cast<size_t>(at);
  int64_t sum = le32(file, base + 20);
  size_t children = base + 28 + static_cast<size_t>((order - 1) * (keyLength + 4));
  for (int i = 0; i < order; ++i) {
    int32_t child = le32(file, children + 4 * static_cast<size_t>(i));
    if (child != -1) sum += subtreeKeys(file, child, order, keyLength);
  }
  return sum;
}

TEST(BTreeTools, CompressedRecordBytesAndEmptyTree) {
  lltest::TempDir dir;
  std::string src = dir.file("s.bt"), dst = dir.file("c.bt");
  ASSERT_TRUE(makeTree(src, 3, 20, false, {{"ab", 7}, {"abc", 9}}));
  std::string before = lltest::readFile(src);
  ASSERT_TRUE(compressBTree(src, dst));
  EXPECT_EQ(lltest::readFile(src), before);
  std::string file = lltest::readFile(dst);
  ASSERT_EQ(file.size(), 46u + 88u);  // the end of the empty root stays as leftover bytes
  EXPECT_EQ(hex(file.substr(0, 46)),
            "00 04 01 00 4B 42 54 31 2E 00 00 00 14 00 00 00 03 00 00 00 00 00 01 00 02 00 00 00 "
            "2E 00 00 00 FF FF FF FF 00 00 00 00 00 00 00 00 00 00 ");
  EXPECT_EQ(hex(file.substr(46, 41)),
            "2E 00 00 00 FF FF FF FF 02 00 00 00 02 00 03 00 61 62 61 62 63 07 00 00 00 09 00 00 "
            "00 FF FF FF FF FF FF FF FF FF FF FF FF ");
  BTree tree(dst, true, 0);
  ASSERT_TRUE(tree.isOk());
  int32_t value = 0, keys = -1, pages = -1, back = -1;
  EXPECT_TRUE(tree.find(value, "abc", 0));
  EXPECT_EQ(value, 9);
  EXPECT_FALSE(tree.find(value, "abd", 0));
  EXPECT_TRUE(tree.test(false, &keys, &pages, &back));
  EXPECT_EQ(keys * 100 + pages * 10 + back, 210);

  ASSERT_TRUE(makeTree(src, 3, 20, false, {}));
  ASSERT_TRUE(compressBTree(src, dst));
  file = lltest::readFile(dst);
  EXPECT_EQ(hex(file.substr(46, 36)),
            "2E 00 00 00 FF FF FF FF 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 FF FF FF FF "
            "FF FF FF FF FF FF FF FF ");
  BTree empty(dst, true, 0);
  EXPECT_TRUE(empty.isOk() && empty.getKeyCount() == 0 && !empty.first(value));
}

TEST(BTreeTools, StoredKeyLengthsAndDuplicates) {
  lltest::TempDir dir;
  std::string src = dir.file("s.bt"), dst = dir.file("c.bt");
  std::string full(20, 'z');
  ASSERT_TRUE(makeTree(src, 4, 20, false, {{"abc", 1}, {std::string("a\0b", 3), 2}, {full, 3}}));
  ASSERT_TRUE(compressBTree(src, dst));
  std::string file = lltest::readFile(dst);
  EXPECT_EQ(hex(file.substr(58, 6 + 26)),
            "03 00 03 00 14 00 61 00 62 61 62 63 " + hex(full));

  ASSERT_TRUE(makeTree(src, 4, 20, true, {{"q", 5}, {"q", 3}, {full, -1}}));
  ASSERT_TRUE(compressBTree(src, dst));
  file = lltest::readFile(dst);
  EXPECT_EQ(hex(file.substr(58, 6 + 22)), "01 00 01 00 14 00 71 71 " + hex(full));
  BTree tree(dst, true, 0);
  ASSERT_TRUE(tree.isOk());
  EXPECT_EQ(walk(tree, false),
            (std::vector<Entry>{{std::string("q") + std::string(19, '\0'), 3},
                                {std::string("q") + std::string(19, '\0'), 5},
                                {full, -1}}));
  // A traversal hands out the stored length of each key, where an uncompressed tree gives the
  // slot width.
  static std::vector<int> lengths;
  lengths.clear();
  auto record = [](int32_t, const char*, int length) { lengths.push_back(length); };
  ASSERT_TRUE(tree.inOrder(record));
  EXPECT_EQ(lengths, (std::vector<int>{1, 1, 20}));
  BTree source(src, true, 0);
  lengths.clear();
  ASSERT_TRUE(source.inOrder(record));
  EXPECT_EQ(lengths, (std::vector<int>{24, 24, 24}));
}

TEST(BTreeTools, RefusalsAndTheirReports) {
  lltest::TempDir dir;
  std::string src = dir.file("s.bt"), dst = dir.file("t.bt"), cmp = dir.file("c.bt");
  ASSERT_TRUE(makeTree(src, 5, 20, false, {{"key", 1}}));
  ASSERT_TRUE(compressBTree(src, cmp));
  std::string srcBytes = lltest::readFile(src);
  struct Case {
    std::function<bool()> run;
    std::string message, function;
    int flag;
  };
  const std::string narrow = "Compressing a BTree with a keylength less than 16, is unlikely to "
                             "yield beneficial results.";
  std::string w16 = dir.file("w16.bt"), d16 = dir.file("d16.bt"), zero = dir.file("z.bt");
  ASSERT_TRUE(makeTree(w16, 5, 16, false, {{"x", 1}}));
  ASSERT_TRUE(makeTree(d16, 5, 16, true, {{"x", 1}}));
  ASSERT_TRUE(makeTree(zero, 5, 20, true, {{"a", 1}, {std::string(20, '\0'), 5}}));
  std::string same = dir.path() + "/./s.bt";
  std::string sameReport = "Source and target are the same file (" + same + ").";
  std::vector<Case> cases = {
      {[&] { return compressBTree(cmp, dst); }, "Unable to compress a compressed BTree",
       "compressBTree", 2},
      {[&] { return orderBTree(cmp, dst); }, "Unable to order a compressed BTree", "orderBTree", 2},
      {[&] { return compressBTree(w16, dst); }, narrow, "compressBTree", 1},
      {[&] { return compressBTree(d16, dst); }, narrow, "compressBTree", 1},
      {[&] { return compressBTree(src, same); }, sameReport, "compressBTree", 2},
      {[&] { return orderBTree(src, same); }, sameReport, "orderBTree", 2},
      {[&] { return repackBTree(src, same, 3); }, sameReport, "repackBTree", 2},
  };
  for (const Case& c : cases) {
    lltest::RecordingSupport support;
    EXPECT_FALSE(c.run()) << c.message;
    ASSERT_EQ(support.reports.size(), 1u) << c.message;
    const lltest::Report& r = support.reports[0];
    EXPECT_EQ(r.message + "|" + r.function + "|" + r.module,
              c.message + "|" + c.function + "|btree");
    EXPECT_EQ(static_cast<int>(r.flag), c.flag);
    EXPECT_FALSE(lltest::fileExists(dst)) << c.message;
    EXPECT_EQ(lltest::readFile(src), srcBytes);
  }
  {
    lltest::RecordingSupport support;
    EXPECT_FALSE(compressBTree(zero, dst));
    ASSERT_EQ(support.reports.size(), 1u);
    EXPECT_EQ(support.reports[0].message + "|" + support.reports[0].function,
              "zero length string|BTreePageFile::WriteCompressed");
    EXPECT_FALSE(compressBTree(dir.file("missing.bt"), dir.file("m2.bt")));
    EXPECT_FALSE(orderBTree(dir.file("missing.bt"), dir.file("m2.bt")));
    EXPECT_FALSE(repackBTree(dir.file("missing.bt"), dir.file("m2.bt"), 3));
    EXPECT_FALSE(lltest::fileExists(dir.file("m2.bt")));
  }
  std::string w17 = dir.file("w17.bt");
  ASSERT_TRUE(makeTree(w17, 5, 17, false, {{"x", 1}}));
  EXPECT_TRUE(compressBTree(w17, dst));
  EXPECT_TRUE(repackBTree(cmp, dst, 0));
  BTree repacked(dst, true, 0);
  EXPECT_EQ(walk(repacked, false), (std::vector<Entry>{{"key" + std::string(17, '\0'), 1}}));
}

TEST(BTreeTools, VersionAndLongKeysKeptInsideALargerFile) {
  lltest::TempDir dir;
  std::string src = dir.file("s.bt"), dst = dir.file("c.bt");
  ASSERT_TRUE(makeTree(src, 3, 20, false, {}));
  std::string bytes = lltest::readFile(src);
  bytes[1] = 0x01;  // version 0x00010100: long keys stored little-endian
  lltest::writeFile(src, bytes);
  {
    BTree tree(src, false, 0);
    ASSERT_TRUE(tree.isOk() && tree.insertKey(7, 1) && tree.insertKey(8, 256));
  }
  std::string inside = dir.file("inside.bin");
  for (const auto& tool : std::vector<std::function<bool()>>{
           [&] { return compressBTree(src, dst); }, [&] { return orderBTree(src, dst); },
           [&] { return repackBTree(src, dst, 2); }}) {
    ASSERT_TRUE(tool());
    lltest::writeFile(inside, std::string(1000, 'J') + lltest::readFile(dst));
    BTree tree(inside, true, 1000);
    ASSERT_TRUE(tree.isOk());
    int32_t value = 0;
    EXPECT_EQ(tree.getVersion(), 0x00010100);
    EXPECT_TRUE(tree.find(value, 256) && value == 8);
    EXPECT_TRUE(tree.first(value) && value == 8);  // 256 is 00 01 00 00, before 1: 01 00 00 00
  }
}

TEST(BTreeTools, OrderedCopyLayout) {
  lltest::TempDir dir;
  std::string src = dir.file("s.bt"), dst = dir.file("o.bt");
  std::vector<Entry> entries = numbered(300, 8);
  {
    ASSERT_TRUE(makeTree(src, 5, 8, true, entries));
    BTree tree(src, false, 0);
    for (int i = 0; i < 300; i += 3) {
      ASSERT_TRUE(tree.deleteKey(entries[i].second, entries[i].first.data(), 8));
    }
  }
  std::string before = lltest::readFile(src);
  ASSERT_TRUE(orderBTree(src, dst));
  EXPECT_EQ(lltest::readFile(src), before);
  BTree source(src, true, 0), target(dst, true, 0);
  int32_t sk = 0, sp = 0, sb = 0, tk = 0, tp = 0, tb = -1;
  ASSERT_TRUE(source.test(false, &sk, &sp, &sb) && target.test(false, &tk, &tp, &tb));
  EXPECT_EQ(tk * 1000 + tp, sk * 1000 + sp);
  EXPECT_EQ(tb, 0);
  EXPECT_EQ(target.depth(), source.depth());
  EXPECT_EQ(walk(target, false), walk(source, false));
  const int stride = 28 + 4 * 12 + 4 * 4 + 5 * 4;  // order 5, slot 12 (key 8 + value tail)
  std::string file = lltest::readFile(dst);
  EXPECT_EQ(file.size(), 46u + static_cast<size_t>(tp * stride));
  EXPECT_LT(file.size(), before.size());
  EXPECT_EQ(le32(file, 24) * 10000 + le32(file, 28), 200 * 10000 + 46);
  EXPECT_EQ(le32(file, 32), -1);
  for (int32_t at = 46 + stride; at < static_cast<int32_t>(file.size()); at += stride) {
    EXPECT_LT(le32(file, static_cast<size_t>(at) + 4), at);  // parent in front of its child
  }

  ASSERT_TRUE(makeTree(src, 4, 6, false, {{"one", 1}, {"two", 2}}));
  ASSERT_TRUE(orderBTree(src, dst));
  EXPECT_EQ(lltest::readFile(dst).substr(46), lltest::readFile(src).substr(46));
}

TEST(BTreeTools, RepackedShapes) {
  struct Row {
    int order, keys;
    std::vector<int64_t> counts;  // keys of the root, then of each child's subtree
  };
  const std::vector<Row> rows = {
      {5, 4, {4, 0, 0, 0, 0, 0}},          {5, 6, {4, 2, 0, 0, 0, 0}},
      {5, 9, {4, 4, 1, 0, 0, 0}},          {5, 24, {4, 4, 4, 4, 4, 4}},
      {5, 30, {4, 24, 2, 0, 0, 0}},        {5, 124, {4, 24, 24, 24, 24, 24}},
      {5, 125, {4, 24, 24, 24, 24, 25}},   {3, 100, {2, 80, 8, 10}},
      {4, 10, {3, 3, 3, 1, 0}},
  };
  lltest::TempDir dir;
  std::string src = dir.file("s.bt"), dst = dir.file("r.bt");
  for (const Row& row : rows) {
    std::vector<Entry> entries = numbered(row.keys, 10);
    ASSERT_TRUE(makeTree(src, 7, 10, false, entries));
    ASSERT_TRUE(repackBTree(src, dst, row.order));
    std::string file = lltest::readFile(dst);
    std::vector<int64_t> counts = {le32(file, 46 + 20)};
    size_t children = 46 + 28 + static_cast<size_t>((row.order - 1) * 14);
    for (int i = 0; i < row.order; ++i) {
      int32_t child = le32(file, children + 4 * static_cast<size_t>(i));
      counts.push_back(child == -1 ? 0 : subtreeKeys(file, child, row.order, 10));
    }
    EXPECT_EQ(counts, row.counts) << row.order << "/" << row.keys;
    BTree source(src, true, 0), target(dst, true, 0);
    int32_t keys = 0, pages = 0, back = 0;
    EXPECT_TRUE(target.test(true, &keys, &pages, &back));
    int rootChildren = static_cast<int>(row.counts.size()) - 1;
    for (size_t i = 1; i < row.counts.size(); ++i) rootChildren -= row.counts[i] == 0;
    EXPECT_EQ(back, pages - 1 - rootChildren);  // every child lies in front of its parent
    EXPECT_EQ(keys * 10 + target.getKeyCount(), row.keys * 11);
    EXPECT_EQ(walk(target, false), walk(source, false));
    bool perfect = row.keys == 4 || row.keys == 24 || row.keys == 124;
    EXPECT_EQ(target.test(false, nullptr, nullptr, nullptr), perfect) << row.keys;
  }
  ASSERT_TRUE(makeTree(src, 7, 10, false, numbered(124, 10)));
  ASSERT_TRUE(repackBTree(src, dst, 5));
  BTree full(dst, true, 0);
  int32_t keys = 0, pages = 0;
  EXPECT_TRUE(full.test(false, &keys, &pages, nullptr));
  EXPECT_EQ(keys * 100 + pages * 10 + full.depth(), 124 * 100 + 31 * 10 + 2);

  ASSERT_TRUE(repackBTree(src, dst, 1));
  EXPECT_EQ(BTree(dst, true, 0).getOrder(), 7);
  ASSERT_TRUE(repackBTree(src, dst, 2));
  BTree binary(dst, true, 0);
  EXPECT_EQ(binary.getOrder(), 2);
  EXPECT_EQ(binary.depth(), 6);  // 2^7 - 1 = 127 >= 124
  ASSERT_TRUE(makeTree(src, 7, 10, false, {}));
  ASSERT_TRUE(repackBTree(src, dst, 3));
  std::string file = lltest::readFile(dst);
  EXPECT_EQ(file.size(), 46u + 28u + 2u * 14u + 12u);
  EXPECT_EQ(le32(file, 24) * 100 + le32(file, 28), 46);
}

// Every I/O call of a run, failed in turn: false, no crash, the source's bytes unchanged, and the
// target left behind still opens read-only and walks.
TEST(BTreeTools, FailingIoLeavesTheSourceAlone) {
  lltest::TempDir dir;
  std::string src = dir.file("s.bt"), dst = dir.file("t.bt");
  ASSERT_TRUE(makeTree(src, 4, 20, true, numbered(20, 20)));
  const std::string before = lltest::readFile(src);
  const std::vector<std::function<bool()>> tools = {[&] { return compressBTree(src, dst); },
                                                    [&] { return orderBTree(src, dst); },
                                                    [&] { return repackBTree(src, dst, 3); }};
  for (size_t t = 0; t < tools.size(); ++t) {
    bool done = false, injected = true;
    int k = 1;
    for (; injected && k < 20000; ++k) {
      {
        lltest::FaultInjector faults;
        faults.failAt = {k};
        done = tools[t]();
        injected = faults.failures > 0;
      }
      ASSERT_EQ(lltest::readFile(src), before) << t << " " << k;
      if (!done && lltest::fileExists(dst)) {
        BTree left(dst, true, 0);
        if (left.isOk()) walk(left, false, 1000);
      }
    }
    EXPECT_TRUE(done) << t;
    EXPECT_GT(k, 50) << t;
    BTree result(dst, true, 0);
    EXPECT_EQ(walk(result, false).size(), 20u) << t;
  }
}

}  // namespace
