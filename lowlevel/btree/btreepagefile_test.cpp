// Pages and keys in memory, and the page file: its exact bytes, refusals with their reports, the
// free chain, records that cannot be, and the 2 GiB limit.
#include "lowlevel/btree/btreepagefile.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

const std::string kEmpty102(
    "\x00\x04\x01\x00KBT1\x2E\x00\x00\x00\x04\x00\x00\x00\x03\x00\x00\x00\x00\x00\x00\x00"
    "\x00\x00\x00\x00\x2E\x00\x00\x00\xFF\xFF\xFF\xFF\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
    "\x2E\x00\x00\x00\xFF\xFF\xFF\xFF\x03\x00\x00\x00\x02\x00\x00\x00\x01\x00\x00\x00"
    "\x00\x00\x00\x00\x04\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
    "\x00\x00\x00\x00\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF",
    102);

std::string le32(int32_t v) { return btreetest::le4(v); }

void patch(std::string& bytes, size_t at, const std::string& with) { bytes.replace(at, with.size(), with); }

std::string makeEmpty(const lltest::TempDir& dir, const std::string& name = "t.bt") {
  std::string path = dir.file(name);
  { BTreePageFile pf(path, 3, 4, false, 0, 0, 0); }
  return path;
}

std::vector<std::string> messages(const lltest::RecordingSupport& s) {
  std::vector<std::string> out;
  for (const auto& r : s.reports) out.push_back(r.message);
  return out;
}

std::string bytesOf(const BTreePageKey& key) { return BTreeTestAccess::bytes(key); }

// Slots are padded or cut to their size, a value goes big-endian into the last four bytes and
// leaves the rest for the key; length 0 takes the key up to its terminator.
TEST(BTreePageKey, PadsCutsAndCarriesTheValueTail) {
  struct Case { BTreePageKey key; std::string bytes; unsigned length; } cases[] = {
      {BTreePageKey(6, "abc", 0), std::string("abc\0\0\0", 6), 3},
      {BTreePageKey(6, "a\0b", 3), std::string("a\0b\0\0\0", 6), 3},
      {BTreePageKey(4, "abcdef", 6), "abcd", 4},
      {BTreePageKey(8, "ab", 0, 1), std::string("ab\0\0\0\0\0\x01", 8), 2},
      {BTreePageKey(8, "abcdef", 0, 0x01020304), "abcd\x01\x02\x03\x04", 4},
      {BTreePageKey(8, "ab", 2, -1), std::string("ab\0\0\xFF\xFF\xFF\xFF", 8), 2}};
  for (const Case& c : cases) EXPECT_EQ(bytesOf(c.key) + "/" + std::to_string(c.key.length), c.bytes + "/" + std::to_string(c.length));
  // Differ only behind the slot; value tails and bytes compare unsigned; a shorter key first.
  EXPECT_EQ(BTreePageKey(4, "abcdef", 6).compare(BTreePageKey(4, "abcdXY", 0)), 0);
  EXPECT_GT(BTreePageKey(8, "ab", 2, -1).compare(BTreePageKey(8, "ab", 2, 1)), 0);
  EXPECT_GT(BTreePageKey(2, "\x80", 1).compare(BTreePageKey(2, "\x7F", 1)), 0);
  EXPECT_LT(BTreePageKey(2, "a", 1).compare(BTreePageKey(2, "ab", 2)), 0);
}

// A page as text: order max min offset parent keyCount, then the slots, values and children.
std::string dump(const BTreePage& page) {
  std::string out = std::to_string(page.order) + " " + std::to_string(page.maxKeys) + " " +
                    std::to_string(page.minKeys) + " " + std::to_string(page.offset) + " " +
                    std::to_string(page.parentOffset) + " " + std::to_string(page.keyCount) + " |";
  for (unsigned i = 0; i < page.maxKeys; ++i)
    out += " " + (page.keys[i].data ? bytesOf(page.keys[i]) : "-") + "=" + std::to_string(page.values[i]);
  out += " |";
  for (unsigned i = 0; i < page.order; ++i) out += " " + std::to_string(page.children[i]);
  return out;
}

// New pages of odd, even and the smallest order. Copies of keys and pages share no buffer, also
// beyond a key's own small buffer; the empty key and a placeholder page (whose maxKeys is no
// count) copy as themselves without a report.
TEST(BTreePage, NewShapesAndCopiesThatShareNoBuffer) {
  EXPECT_EQ(dump(BTreePage(7, 10)), "7 6 3 -1 -1 0 | -=0 -=0 -=0 -=0 -=0 -=0 | -1 -1 -1 -1 -1 -1 -1");
  EXPECT_EQ(dump(BTreePage(8, 10)), "8 7 4 -1 -1 0 | -=0 -=0 -=0 -=0 -=0 -=0 -=0 | -1 -1 -1 -1 -1 -1 -1 -1");
  EXPECT_EQ(dump(BTreePage(2, 10)), "2 1 1 -1 -1 0 | -=0 | -1 -1");
  BTreePage tenWide(0, 10);
  EXPECT_TRUE(tenWide.isPlaceholder() && tenWide.keyLength == 0u && tenWide.values == nullptr);
  lltest::RecordingSupport support;
  for (const std::string& text : {std::string("abcd"), std::string(40, 'w')}) {
    const unsigned n = static_cast<unsigned>(text.size());
    BTreePageKey source(n, text.data(), n), copy(source), empty;
    copy.data[0] = 'z';
    EXPECT_EQ(bytesOf(source), text);
    EXPECT_EQ(BTreePageKey(empty).data, nullptr);
    copy = empty;
    EXPECT_TRUE(copy.data == nullptr && copy.size == 0u);
    copy = source;
    const BTreePageKey& alias = copy;
    copy = alias;
    EXPECT_EQ(bytesOf(copy), text);
  }
  BTreePage source(4, 3), placeholder(0, 0), target(0, 0), other(7, 3);
  source.offset = 46;
  source.keyCount = 1;
  source.keys[0] = BTreePageKey(3, "ab", 2);
  source.values[0] = 9;
  source.children[1] = 200;
  BTreePage copy(source);
  copy.keys[0].data[0] = 'X';
  copy.values[0] = 1;
  target = source;
  other = source;  // another order: rebuilt at the source's size
  const std::string expected("4 3 2 46 -1 1 | ab\0=9 -=0 -=0 | -1 200 -1 -1", 44);
  EXPECT_EQ(dump(source) + dump(target) + dump(other), expected + expected + expected);
  EXPECT_TRUE(BTreePage(placeholder).isPlaceholder());
  target = placeholder;
  EXPECT_TRUE(target.isPlaceholder() && support.reports.empty());
}

TEST(BTreePageFile, EmptyFileByteForByteAndHeaderLag) {
  lltest::TempDir dir;
  std::string path = dir.file("t.bt");
  lltest::writeFile(path, std::string(500, 'x'));  // creating truncates
  {
    BTreePageFile pf(path, 3, 4, false, 0, 0, 0);
    EXPECT_EQ(pf.hdr.rootOffset, 46);
    std::string expected = kEmpty102;
    patch(expected, 28, le32(-1));  // the root offset lags until the next header write
    EXPECT_EQ(lltest::readFile(path), expected);
    BTreePageFile second(path, true, 0);  // the header is valid, the root read at -1 fails
    BTreePage page(0, 0);
    EXPECT_FALSE(!second.ok || second.readPage(second.hdr.rootOffset, page));
  }
  EXPECT_EQ(lltest::readFile(path), kEmpty102);
}

TEST(BTreePageFile, OpeningRefusesWithExactMessages) {
  lltest::TempDir dir;
  std::string good = lltest::readFile(makeEmpty(dir));
  auto openWith = [&](const std::string& bytes, bool readOnly) {
    lltest::writeFile(dir.file("x.bt"), bytes);
    lltest::RecordingSupport support;
    BTreePageFile pf(dir.file("x.bt"), readOnly, 0);
    EXPECT_FALSE(pf.ok);
    return messages(support);
  };
  const std::string invalid = "Invalid BTree (" + dir.file("x.bt") + ").";
  struct Case { size_t at; std::string with; bool readOnly; std::string message; } cases[] = {
      {0, le32(0x00010500), true, invalid},   {4, "kBT1", true, invalid},  {4, "KbT1", true, invalid},
      {4, "KBt1", true, invalid},             {4, "KBT\x11", true, invalid},
      {16, le32(1), true, invalid},           // order 1
      {12, le32(0), true, invalid},           // key length 0
      {12, le32(0x7FFFFFF0), true, invalid},  // record size beyond 32 bits
      {16, le32(4), true, invalid},           // file too short for one record of order 4
      {45, "", true, "Unable to read BTreePageFileHdr (" + dir.file("x.bt") + ")."},
      {22, "\x01", false, "Cannot modify a compressed BTree"}};
  for (const Case& c : cases) {
    std::string bad = good;
    if (c.with.empty()) bad.resize(c.at);
    patch(bad, c.at, c.with);
    EXPECT_EQ(openWith(bad, c.readOnly), std::vector<std::string>{c.message}) << c.at << " " << c.with;
  }
  lltest::RecordingSupport support;
  EXPECT_FALSE(BTreePageFile(dir.file("missing.bt"), true, 0).ok || BTreePageFile(dir.file("missing.bt"), false, 5).ok ||
               BTreePageFile(dir.file("no/such/dir.bt"), 3, 4, false, 0, 0, 0).ok);
  const std::string from = ").|BTreePageFile::BTreePageFile|2|btree\n";
  EXPECT_EQ(lltest::reportsText(support.reports),
            "Unable to open file (" + dir.file("missing.bt") + from +
                "You may not open a file with an offset for anything other than reading (" + dir.file("missing.bt") +
                from + "Unable to create file (" + dir.file("no/such/dir.bt") + from);
  EXPECT_FALSE(lltest::fileExists(dir.file("missing.bt")));
}

// The report of each failing call of a creation and of an opening, in call order.
TEST(BTreePageFile, FailingCallsReport) {
  lltest::TempDir dir;
  const std::string path = dir.file("t.bt");
  std::string seen;
  for (bool create : {true, false}) {
    for (int k = 1, failures = 1; failures > 0; ++k) {
      lltest::RecordingSupport support;
      lltest::FaultInjector faults;
      faults.failAt = {k};
      std::unique_ptr<BTreePageFile> pf(create ? new BTreePageFile(path, 3, 4, false, 0, 0, 0)
                                               : new BTreePageFile(path, true, 0));
      failures = faults.failures;
      EXPECT_EQ(support.reports.size(), pf->ok ? 0u : 1u);
      for (const auto& m : messages(support)) seen += std::to_string(k) + " " + m.substr(0, m.find(" (")) + "\n";
    }
  }
  EXPECT_EQ(seen,
            "1 Unable to create file\n5 Unable to write BTreePageFileHdr\n6 Unable to write root\n"
            "7 Unable to write root\n1 Unable to open file\n7 Unable to seek to header in file\n"
            "8 Unable to read BTreePageFileHdr\n9 Invalid BTree\n");
}

TEST(BTreePageFile, VersionsClearWhatTheyIgnore) {
  lltest::TempDir dir;
  std::string bytes = lltest::readFile(makeEmpty(dir));
  patch(bytes, 36, std::string("\x09\x04\x00\x00\x01\x04\x00\x00\x07\x00", 10));
  // lcid mapFlags spaceConversion as read, then the version, lcid and space the update stored
  const std::pair<int32_t, std::string> cases[] = {
      {kBTreeVersion1, "0 0 0 00 01 01 00 00 00 00 00 00 00 "},
      {kBTreeVersion2, "0 0 0 00 02 01 00 00 00 00 00 00 00 "},
      {kBTreeVersion3, "409 401 0 00 03 01 00 09 04 00 00 00 00 "},
      {kBTreeVersion4, "409 401 7 00 04 01 00 09 04 00 00 07 00 "}};
  for (const auto& [version, expected] : cases) {
    patch(bytes, 0, le32(version));
    lltest::writeFile(dir.file("v.bt"), bytes);
    char fields[40] = "-";
    {
      BTreePageFile pf(dir.file("v.bt"), false, 0);
      if (pf.ok) std::snprintf(fields, sizeof fields, "%x %x %d ", pf.hdr.lcid, pf.hdr.mapFlags, pf.hdr.spaceConversion);
    }
    const std::string after = lltest::readFile(dir.file("v.bt"));
    EXPECT_EQ(fields + btreetest::hex(after.substr(0, 4) + after.substr(36, 4) + after.substr(44, 2)), expected);
  }
}

TEST(BTreePageFile, FreeChainLastFreedFirstReused) {
  lltest::TempDir dir;
  const std::string path = makeEmpty(dir);
  BTreePageFile pf(path, false, 0);
  // Places pages in turn; answers each placement as offset/free head/root offset.
  auto place = [&](std::initializer_list<std::pair<BTreePage*, bool>> pages) {
    std::string out;
    for (const auto& [page, isRoot] : pages) {
      const bool ok = pf.writePage(*page, isRoot);
      out += (ok ? std::to_string(page->offset) : "-") + "/" + std::to_string(pf.hdr.freeListHead) +
             "/" + std::to_string(pf.hdr.rootOffset) + " ";
    }
    return out;
  };
  BTreePage a(3, 4), b(3, 4), c(3, 4), d(3, 4), e(3, 4), f(3, 4);
  EXPECT_EQ(place({{&a, false}, {&b, false}}), "102/-1/46 158/-1/46 ");
  const std::string before = lltest::readFile(path);
  ASSERT_TRUE(pf.freePage(102) && pf.freePage(158));
  std::string expected = before;
  patch(expected, 102, le32(-1));
  patch(expected, 158, le32(102));
  patch(expected, 32, le32(158));
  EXPECT_EQ(lltest::readFile(path), expected);  // only link words and the header changed
  EXPECT_EQ(place({{&c, false}, {&d, true}, {&e, false}}), "158/102/46 102/-1/102 214/-1/102 ");
  // A page with a place is rewritten there and leaves the chain alone.
  ASSERT_TRUE(pf.freePage(214));
  c.keyCount = 1;
  c.keys[0] = BTreePageKey(4, "ab", 2);
  EXPECT_EQ(place({{&c, false}}), "158/214/102 ");
  BTreePage back(0, 0);
  EXPECT_TRUE(pf.readPage(158, back) && back.keyCount == 1u && bytesOf(back.keys[0]) == std::string("ab\0\0", 4));
  // A damaged chain that loops onto itself is not followed.
  pf.freePage(158);
  pf.freePage(158);
  EXPECT_FALSE(pf.writePage(f, false));
}

TEST(BTreePageFile, ReadPageRefusesBadRecordsAndKeepsThePage) {
  lltest::TempDir dir;
  std::string good = lltest::readFile(makeEmpty(dir));
  good += good.substr(46);  // a second record at 102, offset field patched below
  patch(good, 102, le32(102));
  patch(good, 122, le32(1));  // keyCount 1
  patch(good, 130, "abcd");
  auto readAt = [&](const std::string& bytes, int32_t offset, BTreePage& page) {
    lltest::writeFile(dir.file("r.bt"), bytes);
    BTreePageFile pf(dir.file("r.bt"), true, 0);
    return pf.ok && pf.readPage(offset, page);
  };
  BTreePage page(3, 4);
  page.keyCount = 1;
  page.keys[0] = BTreePageKey(4, "keep", 4);
  ASSERT_TRUE(readAt(good, 102, page));
  EXPECT_TRUE(bytesOf(page.keys[0]) == "abcd" && page.keys[1].data == nullptr);  // unused slot stays empty
  page.keys[0] = BTreePageKey(4, "keep", 4);
  struct Bad { size_t at; int32_t value; int32_t offset; } bads[] = {
      {102, 102, 106},  // not the start of a record
      {102, 102, -1},   {102, 0, 102},  // stored offset differs
      {122, 3, 102},    // keyCount above maxKeys
      {122, -1, 102},   {110, 4, 102},  // order differs from the header
      {126, 5, 102}};   // key length differs
  for (const Bad& b : bads) {
    std::string bytes = good;
    patch(bytes, b.at, le32(b.value));
    EXPECT_TRUE(!readAt(bytes, b.offset, page) && bytesOf(page.keys[0]) == "keep") << b.at << " " << b.value;
  }
  for (size_t cut = 103; cut < good.size(); cut += 9)
    EXPECT_FALSE(readAt(good.substr(0, cut), 102, page)) << cut;
}

TEST(BTreePageFile, ReadOnlyAtAnOffsetAndWritesRefused) {
  lltest::TempDir dir;
  std::string tree = lltest::readFile(makeEmpty(dir));
  patch(tree, 24, le32(5));
  // In front of the tree, a record that would be sound at offset -100: negative offsets are refused.
  std::string front = std::string(1000, '\x5A');
  patch(front, 900, le32(-100) + tree.substr(50));
  lltest::writeFile(dir.file("big.bin"), front + tree + "tail");
  BTreePageFile pf(dir.file("big.bin"), true, 1000);
  BTreePage root(0, 0), other(4, 4);
  ASSERT_TRUE(pf.ok && pf.keyCount == 5 && pf.readPage(46, root) && root.order == 3u);
  EXPECT_FALSE(pf.readPage(1046, root) || pf.readPage(-100, root));
  pf.keyCount = 9;
  EXPECT_TRUE(pf.writeHeader());
  EXPECT_FALSE(pf.writePage(root, true) || pf.freePage(46) || pf.writePage(other, false));
  EXPECT_EQ(lltest::readFile(dir.file("big.bin")), front + tree + "tail");
}

TEST(BTreePageFile, CompressedRecordsRebuildSlots) {
  lltest::TempDir dir;
  {  // a page of another shape is not written
    BTreePageFile pf(dir.file("w.bt"), 3, 20, false, 0, 0, 0);
    pf.hdr.compressed = 1;
    BTreePage narrow(3, 8), wider(4, 20);
    narrow.offset = wider.offset = 46;
    EXPECT_FALSE(pf.WriteCompressed(narrow) || pf.WriteCompressed(wider));
  }
  std::string hdr = lltest::readFile(makeEmpty(dir)).substr(0, 46);
  patch(hdr, 12, le32(20));
  hdr[22] = 1;
  const std::string record = le32(46) + le32(-1) + le32(2) + std::string("\x02\x00\x03\x00", 4) +
                             "ababc" + le32(7) + le32(9) + le32(-1) + le32(-1) + le32(-1);
  ASSERT_EQ(record.size(), 41u);
  for (size_t body : {35u, 36u}) {  // a compressed file opens with room for its smallest record
    lltest::writeFile(dir.file("s.bt"), hdr + std::string(body, '\0'));
    EXPECT_EQ(BTreePageFile(dir.file("s.bt"), true, 0).ok, body == 36u);
  }
  auto open = [&](const std::string& h, const std::string& r, BTreePage& page) {
    lltest::writeFile(dir.file("c.bt"), h + r + std::string(60, '\0'));
    BTreePageFile pf(dir.file("c.bt"), true, 0);
    EXPECT_TRUE(pf.ok);
    EXPECT_EQ(pf.keyLengthTableSize, 4);
    return pf.ok && pf.readPage(46, page);
  };
  BTreePage page(0, 0);
  ASSERT_TRUE(open(hdr, record, page));
  EXPECT_TRUE(page.keyCount == 2u && page.keys[0].size == 20u && page.values[1] == 9);
  EXPECT_EQ(bytesOf(page.keys[1]), "abc" + std::string(17, '\0'));

  std::string dupHdr = hdr;
  patch(dupHdr, 12, le32(24));
  dupHdr[20] = 1;
  ASSERT_TRUE(open(dupHdr, record, page));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(page.keys[0].data), 24),
            "ab" + std::string(18, '\0') + std::string("\0\0\0\x07", 4));
  // Table entries that cannot be: negative, wider than the slot, 0 for a used key.
  for (const char* table : {"\xFF\xFF\x03\x00", "\x15\x00\x03\x00", "\x00\x00\x05\x00",
                            "\x02\x00\x00\x00"}) {
    std::string bad = record;
    patch(bad, 12, std::string(table, 4));
    EXPECT_FALSE(open(hdr, bad, page)) << table;
  }
}

// Trees at the 2 GiB limit, on sparse files: every write that would reach offset 2^31 - 1 is
// refused before it starts, with a report, and no key is ever lost; longer files are refused on
// opening with the reason.
constexpr int64_t kLimit = INT32_MAX;

std::string refusal(const std::string& path, const char* function) {
  return "Write refused: it would reach offset 2147483647, the 2 GiB limit (" + path + ").|" +
         function + "|2|btree\n";
}

int64_t size(const std::string& path) { return static_cast<int64_t>(std::filesystem::file_size(path)); }

// The length of a file of whole records (104 bytes: order 4, key width 16) that leaves room for
// `records` more.
int64_t roomFor(int64_t records) { return 46 + ((kLimit - 46) / 104 - records) * 104; }

std::string slot(unsigned k) { return ("k" + std::to_string(1000 + k)).append(11, '\0'); }

struct BTreeLimits : ::testing::Test {
  lltest::TempDir dir;
  lltest::RecordingSupport host;
  const std::string path = dir.file("near.btr");
};

// Inserts, deletes and replacements at random against a map, with room for three more records:
// refused insertions leave the tree exactly as it was, and the others go on succeeding.
TEST_F(BTreeLimits, ChangesNearTheLimitKeepEveryKey) {
  std::map<std::string, int32_t> model;
  for (unsigned k = 0; k < 60; k += 2) model[slot(k)] = 7;
  ASSERT_TRUE(btreetest::makeTree(path, 4, 16, false, {model.begin(), model.end()}));
  std::filesystem::resize_file(path, static_cast<uintmax_t>(roomFor(3)));
  auto tree = std::make_unique<BTree>(path, false, 0);
  std::mt19937 rng(17);
  int refused = 0, insertedAfterRefusal = 0;
  for (int step = 0; step < 800; ++step) {
    const std::string key = slot(rng() % 120);
    const bool present = model.count(key) != 0;
    const unsigned op = rng() % 5;
    if (op < 3 && tree->insertKey(step, key.data(), 16)) {
      model[key] = step;  // a present key is refused: checkModel counts
      insertedAfterRefusal += refused > 0;
    } else if (op < 3 && !present) {
      ASSERT_EQ(lltest::reportsText(host.reports), refusal(path, "BTreePageFile::writePage"));
      ++refused;
    } else if (op == 3) {
      ASSERT_EQ(tree->deleteKey(key.data(), 16), model.erase(key) == 1);
    } else if (op == 4 && present) {
      ASSERT_TRUE(tree->replaceValue(model[key] = step, key.data(), 16));
    }
    host.reports.clear();
    ASSERT_LE(size(path), kLimit);
    ASSERT_TRUE(step % 40 != 39 || btreetest::checkModel(*tree, {model.begin(), model.end()}, true).empty()) << step;
  }
  EXPECT_TRUE(refused > 10 && insertedAfterRefusal > 10) << refused << " " << insertedAfterRefusal;
  tree.reset();
  BTree reopened(path, true, 0);
  EXPECT_EQ(btreetest::checkModel(reopened, {model.begin(), model.end()}, true), "");
}

// The last record that fits is written; the next one, appended or compressed, writes nothing and
// takes nothing from the free chain.
TEST_F(BTreeLimits, PageFileRefusesTheFirstRecordBeyond) {
  BTreePageFile file(path, 4, 16, false, 0, 0, 0);
  std::filesystem::resize_file(path, static_cast<uintmax_t>(roomFor(1)));
  BTreePage last(4, 16), next(4, 16), packed(4, 16);
  ASSERT_TRUE(file.writePage(last, false));  // ends at roomFor(0), 81 bytes below the limit
  std::filesystem::resize_file(path, static_cast<uintmax_t>(kLimit));
  file.hdr.freeListHead = static_cast<int32_t>(roomFor(0));  // a record that crosses the limit
  EXPECT_FALSE(file.writePage(next, false));
  EXPECT_TRUE(next.offset == -1 && file.hdr.freeListHead == roomFor(0));
  file.hdr.compressed = 1;
  file.compressedWritePosition = static_cast<int32_t>(kLimit - 45);  // 46 bytes would reach it
  EXPECT_FALSE(file.writePage(packed, false));
  EXPECT_EQ(size(path), kLimit);
  EXPECT_EQ(lltest::reportsText(host.reports), refusal(path, "BTreePageFile::writePage") +
                                                   refusal(path, "BTreePageFile::WriteCompressed"));
}

// The platform layer writes nothing at or beyond the limit; the file classes refuse longer files.
TEST_F(BTreeLimits, FilesBeyondTheLimit) {
  delete new BTree(path, 4, 16, false, 0, 0, 0);
  const int handle = lowlevel::platform::open(path.c_str(), lowlevel::platform::kOpenReadWrite, 0);
  lowlevel::platform::lseek(handle, static_cast<int32_t>(kLimit - 4), 0);
  EXPECT_EQ(lowlevel::platform::write(handle, "abcde", 5), -1);  // 4 bytes would fit
  lowlevel::platform::close(handle);
  std::filesystem::resize_file(path, static_cast<uintmax_t>(kLimit) + 1);
  const std::string why = "File is larger than 2147483647 bytes, the 2 GiB limit (" + path +
                          ").|ZCompressedFileBase::Open|2|cmpfilbs\n";
  EXPECT_FALSE(BTree(path, true, 0).isOk());
  EXPECT_EQ(lltest::reportsText(host.reports),
            why + "Unable to open file (" + path + ").|BTreePageFile::BTreePageFile|2|btree\n");
}

}  // namespace
