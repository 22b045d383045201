// The copying tools and the bulk builder: random trees against their compressed, ordered and
// repacked copies (also once stored as compressed files) and against bulk-built trees, the exact
// bytes of compressed and bulk-built records, the shapes of repacked trees, and every refusal with
// its report.
#include "lowlevel/btree/btreetools.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "compression/seekable_writer.h"
#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

using namespace btreetest;

std::string randomKey(std::mt19937& rng, const char* letters = "abcdef", int longest = 10) {
  std::string key(1 + rng() % static_cast<unsigned>(longest), 'a');
  for (char& c : key) c = letters[rng() % std::char_traits<char>::length(letters)];
  return key;
}

// Lookup answers for every probe: found or not, with the value, and where >= lands.
std::string lookups(BTree& tree, const std::vector<std::string>& probes) {
  std::string out;
  for (const std::string& probe : probes) {
    int32_t value = 0;
    out += tree.find(value, probe.c_str(), 0) ? "=" + std::to_string(value) : "-";
    out += tree.findGreaterThanOrEqual(value, probe.c_str(), 0) ? ">=" + std::to_string(value) + " " : ">- ";
  }
  return out;
}

TEST(BTreeTools, CopiesOfRandomTreesAnswerLikeTheirSource) {
  lltest::TempDir dir;
  std::mt19937 rng(20240611);
  const std::string src = dir.file("s.bt");
  lowlevel::compression::SeekableWriteOptions options;
  options.chunkSize = 700;
  for (int round = 0; round < 16; ++round) {
    const int order = 2 + round % 6;
    const bool dups = round % 2 == 1;
    {  // random insertions, then about half of them deleted
      BTree tree(src, order, 20, dups, 0, 0, 0);
      std::vector<Entry> in;
      for (int i = 50 + static_cast<int>(rng() % 400); i > 0; --i) {
        Entry e{randomKey(rng), static_cast<int32_t>(rng())};
        if (tree.insertKey(e.second, e.first.c_str(), 0)) in.push_back(e);
      }
      for (size_t i = 0; i < in.size(); i += 1 + rng() % 3)
        ASSERT_TRUE(dups ? tree.deleteKey(in[i].second, in[i].first.c_str(), 0) : tree.deleteKey(in[i].first.c_str(), 0));
    }
    // A compressed file's offset map is kept by path for the life of the process: new names.
    const std::string n = std::to_string(round);
    const std::vector<std::string> copies = {dir.file("c.bt"), dir.file("o.bt"), dir.file("r.bt"), dir.file("r3.bt"),
                                             dir.file("c" + n + ".zst"), dir.file("o" + n + ".zst")};
    const std::string before = lltest::readFile(src);
    std::string error;
    ASSERT_TRUE(compressBTree(src, copies[0]) && orderBTree(src, copies[1]) &&
                repackBTree(src, copies[2], 0) && repackBTree(src, copies[3], 3));
    for (int i : {0, 1})
      ASSERT_TRUE(lowlevel::compression::compressFileToSeekable(copies[i], copies[i + 4], options, &error)) << error;
    EXPECT_EQ(lltest::readFile(src), before);

    BTree source(src, true, 0);
    const std::vector<Entry> forward = walk(source, false);
    std::vector<std::string> probes(40);
    for (std::string& p : probes) p = randomKey(rng);
    for (const Entry& e : forward) probes.push_back(e.first);
    int32_t sourcePages = 0;
    source.test(true, nullptr, &sourcePages, nullptr);
    // Flags, order, the model's verdict, every lookup, and (but for repacked copies) the pages and
    // the children lying in front of their parents: none in a copy.
    for (size_t c = 0; c < copies.size(); ++c) {
      BTree copy(copies[c], true, 0);
      const bool layout = c != 2 && c != 3;
      int32_t back = -1, pages = 0;
      copy.test(true, nullptr, &pages, &back);
      EXPECT_EQ(std::to_string(copy.hasDuplicates()) + std::to_string(copy.isCompressed()) +
                    std::to_string(copy.getOrder()) + checkModel(copy, forward, true, layout) + lookups(copy, probes) +
                    (layout ? std::to_string(pages) + "/" + std::to_string(back) : ""),
                std::to_string(dups) + std::to_string(c == 0 || c == 4) + std::to_string(c == 3 ? 3 : order) +
                    lookups(source, probes) + (layout ? std::to_string(sourcePages) + "/0" : ""))
          << "round " << n << " copy " << copies[c];
    }
    // The ordered copy: the root at 46, no free records, each record's parent in front of it.
    const std::string file = lltest::readFile(copies[1]);
    const int32_t stride = static_cast<int32_t>(btreeRecordSize(order, dups ? 24 : 20));
    EXPECT_EQ(hex(file.substr(28, 8)) + std::to_string(file.size()),
              hex(le4(46) + le4(-1)) + std::to_string(46 + sourcePages * stride));
    for (int32_t at = 46 + stride; at < static_cast<int32_t>(file.size()); at += stride)
      EXPECT_LT(field(file, static_cast<size_t>(at) + 4), at);
  }
}

// A compressed record: offset, parent, keyCount, the table of stored key lengths, the keys
// without padding, the values and the children. An empty tree keeps a record of one empty key.
TEST(BTreeTools, CompressedRecordsByteForByteAndTheVersionKept) {
  lltest::TempDir dir;
  const std::string src = dir.file("s.bt"), dst = dir.file("c.bt"), full(20, 'z');
  auto compressed = [&](int order, bool dups, const std::vector<Entry>& entries) {
    EXPECT_TRUE(makeTree(src, order, 20, dups, entries) && compressBTree(src, dst));
    return lltest::readFile(dst);
  };
  std::string file = compressed(3, false, {{"ab", 7}, {"abc", 9}});
  EXPECT_EQ(hex(file),
            "00 04 01 00 4B 42 54 31 2E 00 00 00 14 00 00 00 03 00 00 00 00 00 01 00 02 00 00 00 "
            "2E 00 00 00 FF FF FF FF 00 00 00 00 00 00 00 00 00 00 "
            "2E 00 00 00 FF FF FF FF 02 00 00 00 02 00 03 00 61 62 61 62 63 07 00 00 00 09 00 00 "
            "00 FF FF FF FF FF FF FF FF FF FF FF FF " + hex(file.substr(87)));
  EXPECT_EQ(file.size(), 46u + 88u);  // the end of the empty root stays as leftover bytes
  EXPECT_EQ(hex(compressed(4, false, {{"abc", 1}, {std::string("a\0b", 3), 2}, {full, 3}}).substr(58, 32)),
            "03 00 03 00 14 00 61 00 62 61 62 63 " + hex(full));
  EXPECT_EQ(hex(compressed(4, true, {{"q", 5}, {"q", 3}, {full, -1}}).substr(58, 28)),
            "01 00 01 00 14 00 71 71 " + hex(full));
  // A traversal hands out the stored length of each key; an uncompressed tree the slot width.
  static std::vector<int> lengths;
  auto record = [](int32_t, const char*, int length) { lengths.push_back(length); };
  for (const std::string& path : {dst, src}) ASSERT_TRUE(BTree(path, true, 0).inOrder(record));
  EXPECT_EQ(lengths, (std::vector<int>{1, 1, 20, 24, 24, 24}));
  // The oldest version stores long keys little-endian: every copy keeps the version and so the
  // order, and reads inside a larger file.
  ASSERT_TRUE(makeTree(src, 3, 20, false, {}));
  lltest::writeFile(src, lltest::readFile(src).replace(1, 1, "\x01"));  // version 0x00010100
  {
    BTree tree(src, false, 0);
    ASSERT_TRUE(tree.insertKey(7, 1) && tree.insertKey(8, 256));
  }
  for (int tool = 0; tool < 3; ++tool) {
    ASSERT_TRUE(tool == 0 ? compressBTree(src, dst) : tool == 1 ? orderBTree(src, dst) : repackBTree(src, dst, 2));
    lltest::writeFile(dir.file("in.bin"), std::string(1000, 'J') + lltest::readFile(dst));
    BTree tree(dir.file("in.bin"), true, 1000);
    // 256 is 00 01 00 00, before 01 00 00 00.
    EXPECT_EQ(std::to_string(tree.getVersion()) + " " + steps(tree, "f256 F N"), "65792 8 8 7");
  }
  EXPECT_EQ(hex(compressed(3, false, {}).substr(46, 36)),
            "2E 00 00 00 FF FF FF FF 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 FF FF FF FF "
            "FF FF FF FF FF FF FF FF ");
  BTree empty(dst, true, 0);
  EXPECT_EQ(checkModel(empty, {}, true), "");
}

TEST(BTreeTools, RefusalsAndTheirReports) {
  lltest::TempDir dir;
  const std::string src = dir.file("s.bt"), dst = dir.file("t.bt"), cmp = dir.file("c.bt");
  const std::string w16 = dir.file("w16.bt"), d16 = dir.file("d16.bt"), zero = dir.file("z.bt");
  const std::string wide = dir.file("wide.bt"), same = dir.path() + "/./s.bt";
  const std::string cyc = dir.file("cyc.bt");
  ASSERT_TRUE(makeTree(src, 5, 20, false, {{"key", 1}}) && compressBTree(src, cmp));
  ASSERT_TRUE(makeTree(w16, 5, 16, false, {{"x", 1}}) && makeTree(d16, 5, 16, true, {{"x", 1}}));
  ASSERT_TRUE(makeTree(zero, 5, 20, true, {{"a", 1}, {std::string(20, '\0'), 5}}));
  ASSERT_TRUE(makeTree(wide, 3, 32768, false, {{"x", 1}}));
  std::vector<Entry> entries;
  for (int i = 0; i < 40; ++i) entries.emplace_back("key" + std::to_string(100 + i), i);
  ASSERT_TRUE(makeTree(cyc, 3, 20, false, entries));
  std::string cycBytes = lltest::readFile(cyc);
  const int32_t root = field(cycBytes, 28);  // the root's last child becomes the root itself
  const size_t last = static_cast<size_t>(root) + 76 + 4 * static_cast<size_t>(field(cycBytes, root + 20u));
  lltest::writeFile(cyc, cycBytes.replace(last, 4, le4(root)));
  const std::string narrow =
      "Compressing a BTree with a keylength less than 16, is unlikely to yield beneficial results.|compressBTree|1|btree\n";
  const std::string sameFile = "Source and target are the same file (" + same + ").|";
  const std::string missing = "Unable to open file (" + dir.file("none") + ").|BTreePageFile::BTreePageFile|2|btree\n";
  const std::string srcBytes = lltest::readFile(src);
  const std::vector<std::pair<std::function<bool()>, std::string>> cases = {
      {[&] { return compressBTree(cmp, dst); }, "Unable to compress a compressed BTree|compressBTree|2|btree\n"},
      {[&] { return orderBTree(cmp, dst); }, "Unable to order a compressed BTree|orderBTree|2|btree\n"},
      {[&] { return compressBTree(w16, dst); }, narrow},
      {[&] { return compressBTree(d16, dst); }, narrow},
      {[&] { return compressBTree(wide, dst); },
       "Unable to compress a BTree with keys wider than 32767 bytes|compressBTree|2|btree\n"},
      {[&] { return compressBTree(src, same); }, sameFile + "compressBTree|2|btree\n"},
      {[&] { return orderBTree(src, same); }, sameFile + "orderBTree|2|btree\n"},
      {[&] { return repackBTree(src, same, 3); }, sameFile + "repackBTree|2|btree\n"},
      {[&] { return compressBTree(zero, dst); }, "zero length string|BTreePageFile::WriteCompressed|2|btree\n"},
      {[&] { return compressBTree(dir.file("none"), dst); }, missing},
      {[&] { return orderBTree(dir.file("none"), dst); }, missing},
      {[&] { return repackBTree(dir.file("none"), dst, 3); }, missing},
      {[&] { return compressBTree(cyc, dst); }, ""},  // a looping file: refused without a report
      {[&] { return orderBTree(cyc, dst); }, ""},
  };
  for (const auto& c : cases) {
    lltest::RecordingSupport support;
    EXPECT_FALSE(c.first());
    EXPECT_EQ(lltest::reportsText(support.reports), c.second);
    EXPECT_EQ(lltest::fileExists(dst), c.second.empty() || c.second.rfind("zero", 0) == 0) << c.second;
    std::remove(dst.c_str());
    EXPECT_EQ(lltest::readFile(src), srcBytes);
  }
  repackBTree(cyc, dst, 3);  // goes by the cursor: it must come back, whatever it answers
  EXPECT_EQ(lltest::readFile(cyc), cycBytes);
  ASSERT_TRUE(makeTree(w16, 5, 17, false, {{"x", 1}}));
  EXPECT_TRUE(compressBTree(w16, dst) && repackBTree(cmp, dst, 0));
  BTree repacked(dst, true, 0);
  EXPECT_EQ(walk(repacked, false), (std::vector<Entry>{{"key" + std::string(17, '\0'), 1}}));
}

TEST(BTreeTools, RepackedShapes) {
  // counts: the keys of the root, then of each child's subtree.
  struct { int order, keys, depth; std::vector<int64_t> counts; } rows[] = {
      {5, 0, 0, {0, 0, 0, 0, 0, 0}},     {5, 4, 0, {4, 0, 0, 0, 0, 0}},
      {5, 6, 1, {4, 2, 0, 0, 0, 0}},     {5, 9, 1, {4, 4, 1, 0, 0, 0}},
      {5, 24, 1, {4, 4, 4, 4, 4, 4}},    {5, 30, 2, {4, 24, 2, 0, 0, 0}},
      {5, 124, 2, {4, 24, 24, 24, 24, 24}}, {5, 125, 2, {4, 24, 24, 24, 24, 25}},
      {3, 100, 4, {2, 80, 8, 10}},       {4, 10, 1, {3, 3, 3, 1, 0}},
      {2, 124, 6, {1, 63, 60}},          {1, 124, 2, {6, 48, 48, 6, 6, 6, 4, 0}},
  };
  lltest::TempDir dir;
  const std::string src = dir.file("s.bt"), dst = dir.file("r.bt");
  for (const auto& row : rows) {
    std::vector<Entry> entries;
    for (int i = 0; i < row.keys; ++i)
      entries.emplace_back("k" + std::to_string(100000 + (i * 7919) % row.keys) + std::string(3, '\0'), i);
    ASSERT_TRUE(makeTree(src, 7, 10, false, entries) && repackBTree(src, dst, row.order));
    BTree source(src, true, 0), target(dst, true, 0);
    std::vector<int64_t> counts(row.counts.size(), 0);  // by the depth of each entry in order
    size_t child = 1;
    int v = 0, depth = -1, index = -1;
    for (bool more = target.first(v); more && child < counts.size(); more = target.next(v)) {
      target.getCurrentKeyDepthAndIndex(depth, index);
      ++counts[depth == 0 ? 0 : child];
      child += depth == 0;
    }
    EXPECT_EQ(counts, row.counts) << row.order << "/" << row.keys;
    const bool full = row.order == 5 && (row.keys == 0 || row.keys == 4 || row.keys == 24 || row.keys == 124);
    EXPECT_EQ(checkModel(target, walk(source, false), true, false) + std::to_string(target.depth()) +
                  std::to_string(target.test(false, nullptr, nullptr, nullptr)),
              std::to_string(row.depth) + std::to_string(full));
  }
}

// Hands out `entries` (caller keys, with `length`) to bulkBuildBTree.
std::function<bool(BTreeBulkEntry&)> source(const std::vector<Entry>& entries, int length) {
  return [&entries, length, at = size_t{0}](BTreeBulkEntry& e) mutable {
    if (at < entries.size()) e = {entries[at].first.c_str(), length, entries[at].second};
    return at++ < entries.size();
  };
}

// Orders 3 to 8 with and without duplicates, counts around the sizes where levels appear, an
// upper-casing conversion (slots differ from the keys), fill from half to full: the built tree
// holds what inserts give, in sound pages, and then takes the same inserts and deletes.
TEST(BTreeBulk, SameTreeAsInsertsThenTakesInsertsAndDeletes) {
  lltest::TempDir dir;
  std::mt19937 rng(11);
  for (int order = 3; order <= 8; ++order) {
    for (int count : {0, 1, order - 1, order, order + 1, order * order, 700}) {
      SCOPED_TRACE(std::to_string(order) + "/" + std::to_string(count));
      const bool dups = count % 2 == 1;
      const uint32_t mapFlags = order == 5 ? 0x200 : 0;  // LCMAP_UPPERCASE
      BTree inserted(dir.file("i.btr"), order, 6, dups, 0x409, mapFlags, 0);
      std::map<std::string, Entry> bySlot;
      while (static_cast<int>(bySlot.size()) < count) {
        const Entry e{randomKey(rng, "aBcDe", 5), static_cast<int32_t>(rng() % 4) - 1};
        bySlot.emplace(btreeKeySlot(inserted, e.first.c_str(), 0, e.second), e);
      }
      std::vector<Entry> input;
      for (const auto& e : bySlot) input.push_back(e.second);
      std::vector<Entry> shuffled = input;
      std::shuffle(shuffled.begin(), shuffled.end(), rng);
      for (const Entry& e : shuffled) ASSERT_TRUE(inserted.insertKey(e.second, e.first.c_str(), 0));
      BTreeBulkShape shape{order, 6, dups, 0x409, mapFlags, 0, 50 + 10 * (count % 6)};
      ASSERT_TRUE(bulkBuildBTree(dir.file("b.btr"), shape, count, source(input, 0), nullptr));
      BTree built(dir.file("b.btr"), false, 0);
      // An even order cannot always give every page minKeys keys; inserts do not either.
      EXPECT_EQ("", checkModel(built, walk(inserted, false), order % 2 == 0));
      for (int step = 0; step < 300; ++step) {
        const Entry e = input.empty() ? Entry("x", 0) : input[rng() % input.size()];
        const std::string fresh = randomKey(rng, "aBcDe", 1) + "Z";
        const bool erase = rng() % 2;
        auto apply = [&](BTree& t) {
          return erase ? t.deleteKey(e.second, e.first.c_str(), 0) : t.insertKey(step, fresh.c_str(), 0);
        };
        EXPECT_EQ(apply(inserted), apply(built));
      }
      EXPECT_EQ("", checkModel(built, walk(inserted, false), true));
    }
  }
}

// Order 3, 4-byte keys 1..7 at full fill: three leaves under a root, laid down depth-first.
TEST(BTreeBulk, ExactBytesAndRefusals) {
  lltest::TempDir dir;
  std::vector<Entry> input;
  for (uint32_t k = 1; k <= 7; ++k) input.emplace_back(be4(k), 100 + static_cast<int>(k));
  ASSERT_TRUE(bulkBuildBTree(dir.file("b.btr"), BTreeBulkShape{3, 4, false, 0, 0, 0, 100}, 7, source(input, 4), nullptr));
  Shape{3, 4}.build(dir.file("e.btr"), {rec(-1, {3, 6}, {1, 2, 3}), rec(0, {1, 2}), rec(0, {4, 5}), rec(0, {7})}, 0);
  EXPECT_EQ(hex(lltest::readFile(dir.file("e.btr"))), hex(lltest::readFile(dir.file("b.btr"))));
  struct { std::vector<Entry> keys; int64_t count; std::string report; } cases[] = {
      {{{"a", 1}, {"c", 1}, {"b", 1}}, 3, "Entry 2 is out of order."},
      {{{"a", 1}, {"b", 1}, {"b", 1}}, 3, "Entry 2 repeats the key before it."},
      {{{"a", 1}, {"b", 1}}, 3, "Entry 2 is missing: fewer than the count."},
      {{{"a", 1}, {"b", 1}, {"c", 1}}, 2, "Entry 2 is one more than the count."},
  };
  for (const auto& c : cases) {
    lltest::RecordingSupport host;
    int64_t failed = -1;
    EXPECT_FALSE(bulkBuildBTree(dir.file("r.btr"), BTreeBulkShape{3, 4, false, 0, 0, 0, 100}, c.count,
                                source(c.keys, 0), &failed));
    EXPECT_EQ(failed, 2);
    EXPECT_FALSE(BTree(dir.file("r.btr"), true, 0).isOk());
    EXPECT_EQ(c.report + "|bulkBuildBTree|2|btree\nInvalid BTree (" + dir.file("r.btr") +
                  ").|BTreePageFile::BTreePageFile|2|btree\n",
              lltest::reportsText(host.reports));
  }
}

}  // namespace
