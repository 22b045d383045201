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

using btreetest::le4;
using T = BTreeTestAccess;

// A new tree of order 3 and key width 4: the header, then an empty root record.
const std::string kEmpty102 = std::string("\x00\x04\x01\x00KBT1\x2E\0\0\0\x04\0\0\0\x03\0\0\0\0\0\0\0"
                                          "\0\0\0\0\x2E\0\0\0\xFF\xFF\xFF\xFF\0\0\0\0\0\0\0\0\0\0", 46) +
                              btreetest::Shape{3, 4}.encode(0, btreetest::rec(-1, {}));

std::string& patch(std::string& bytes, size_t at, const std::string& with) {
  return bytes.replace(at, with.size(), with);
}

// Slots are padded or cut to their size, a value goes big-endian into the last four bytes and
// leaves the rest for the key; length 0 takes the key up to its terminator. Copies share no
// buffer, also beyond a key's own small buffer; the empty key copies as itself, and a key assigned
// to itself stays whole. (How keys compare is checked against an ordered map of their bytes by the
// model tests.)
TEST(BTreePageKey, PadsCutsCarriesTheValueTailAndCopies) {
  const std::string wide(40, 'w');
  struct Case { BTreePageKey key; std::string bytes; unsigned length; } cases[] = {
      {BTreePageKey(6, "abc", 0), std::string("abc\0\0\0", 6), 3},
      {BTreePageKey(6, "a\0b", 3), std::string("a\0b\0\0\0", 6), 3},
      {BTreePageKey(4, "abcdef", 6), "abcd", 4},
      {BTreePageKey(8, "ab", 0, 1), std::string("ab\0\0\0\0\0\x01", 8), 2},
      {BTreePageKey(8, "abcdef", 0, 0x01020304), "abcd\x01\x02\x03\x04", 4},
      {BTreePageKey(8, "ab", 2, -1), std::string("ab\0\0\xFF\xFF\xFF\xFF", 8), 2},
      {BTreePageKey(40, wide.data(), 40), wide, 40}};
  for (const Case& c : cases) {
    BTreePageKey copy(c.key), empty, assigned(empty);
    copy.data[0] = 'z';
    const bool emptyCopied = assigned.data == nullptr && assigned.size == 0u;
    assigned = c.key;
    const BTreePageKey& alias = assigned;
    assigned = alias;
    copy = empty;
    EXPECT_EQ(T::bytes(c.key) + "/" + std::to_string(c.key.length) + " " + T::bytes(assigned) + " " +
                  std::to_string(emptyCopied && copy.data == nullptr && copy.size == 0u),
              c.bytes + "/" + std::to_string(c.length) + " " + c.bytes + " 1");
  }
}

// A page as text: order max min offset parent keyCount, then the slots, values and children.
std::string dump(const BTreePage& page) {
  std::string out = std::to_string(page.order) + " " + std::to_string(page.maxKeys) + " " +
                    std::to_string(page.minKeys) + " " + std::to_string(page.offset) + " " +
                    std::to_string(page.parentOffset) + " " + std::to_string(page.keyCount) + " |";
  for (unsigned i = 0; i < page.maxKeys; ++i)
    out += " " + (page.keys[i].data ? T::bytes(page.keys[i]) : "-") + "=" + std::to_string(page.values[i]);
  out += " |";
  for (unsigned i = 0; i < page.order; ++i) out += " " + std::to_string(page.children[i]);
  return out;
}

// Copies of pages share no buffer; a placeholder page (whose maxKeys is no count) copies as itself
// without a report. (New pages of each order are compared byte for byte in the records of the
// tree's tests.)
TEST(BTreePage, CopiesThatShareNoBuffer) {
  BTreePage tenWide(0, 10);
  EXPECT_TRUE(tenWide.isPlaceholder() && tenWide.keyLength == 0u && tenWide.values == nullptr);
  lltest::RecordingSupport support;
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
    std::string expected = kEmpty102;
    patch(expected, 28, le4(-1));  // the root offset lags until the next header write
    EXPECT_EQ(std::to_string(pf.hdr.rootOffset) + lltest::readFile(path), "46" + expected);
    BTreePageFile second(path, true, 0);  // the header is valid, the root read at -1 fails
    BTreePage page(0, 0);
    EXPECT_FALSE(!second.ok || second.readPage(second.hdr.rootOffset, page));
  }
  EXPECT_EQ(lltest::readFile(path), kEmpty102);
}

// Each refused opening with its report: a header patched at `at` or cut there (`with` empty), a
// missing file, an offset for writing, a directory that is not there.
TEST(BTreePageFile, OpeningRefusesWithExactReports) {
  lltest::TempDir dir;
  const std::string good = kEmpty102, x = dir.file("x.bt"), missing = dir.file("missing.bt");
  const std::string invalid = "Invalid BTree (" + x + ").";
  struct Case { size_t at; std::string with; bool readOnly; std::string message; } cases[] = {
      {0, le4(0x00010500), true, invalid},   {4, "kBT1", true, invalid},  {4, "KbT1", true, invalid},
      {4, "KBt1", true, invalid},            {4, "KBT\x11", true, invalid},
      {16, le4(1), true, invalid},           // order 1
      {12, le4(0), true, invalid},           // key length 0
      {12, le4(0x7FFFFFF0), true, invalid},  // record size beyond 32 bits
      {16, le4(4), true, invalid},           // file too short for one record of order 4
      {45, "", true, "Unable to read BTreePageFileHdr (" + x + ")."},
      {22, "\x01", false, "Cannot modify a compressed BTree"}};
  for (const Case& c : cases) {
    std::string bad = good;
    if (c.with.empty()) bad.resize(c.at);
    lltest::writeFile(x, bad.replace(c.at, c.with.size(), c.with));
    lltest::RecordingSupport support;
    EXPECT_FALSE(BTreePageFile(x, c.readOnly, 0).ok);
    EXPECT_EQ(support.reports.size() == 1 ? support.reports[0].message : "", c.message) << c.at << " " << c.with;
  }
  lltest::RecordingSupport support;
  EXPECT_FALSE(BTreePageFile(missing, true, 0).ok || BTreePageFile(missing, false, 5).ok ||
               BTreePageFile(dir.file("no/such/dir.bt"), 3, 4, false, 0, 0, 0).ok);
  const std::string from = ").|BTreePageFile::BTreePageFile|2|btree\n";
  EXPECT_EQ(lltest::reportsText(support.reports),
            "Unable to open file (" + missing + from + "You may not open a file with an offset for anything other "
            "than reading (" + missing + from + "Unable to create file (" + dir.file("no/such/dir.bt") + from);
  EXPECT_FALSE(lltest::fileExists(missing));
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
      for (const auto& r : support.reports)
        seen += std::to_string(k) + " " + r.message.substr(0, r.message.find(" (")) + "\n";
    }
  }
  EXPECT_EQ(seen,
            "1 Unable to create file\n5 Unable to write BTreePageFileHdr\n6 Unable to write root\n"
            "7 Unable to write root\n1 Unable to open file\n7 Unable to seek to header in file\n"
            "8 Unable to read BTreePageFileHdr\n9 Invalid BTree\n");
}

TEST(BTreePageFile, VersionsClearWhatTheyIgnore) {
  lltest::TempDir dir;
  std::string bytes = kEmpty102;
  patch(bytes, 36, std::string("\x09\x04\x00\x00\x01\x04\x00\x00\x07\x00", 10));
  // lcid mapFlags spaceConversion as read, then the version, lcid and space the update stored
  const std::pair<int32_t, std::string> cases[] = {
      {kBTreeVersion1, "0 0 0 00 01 01 00 00 00 00 00 00 00 "},
      {kBTreeVersion2, "0 0 0 00 02 01 00 00 00 00 00 00 00 "},
      {kBTreeVersion3, "409 401 0 00 03 01 00 09 04 00 00 00 00 "},
      {kBTreeVersion4, "409 401 7 00 04 01 00 09 04 00 00 07 00 "}};
  for (const auto& [version, expected] : cases) {
    lltest::writeFile(dir.file("v.bt"), patch(bytes, 0, le4(version)));
    char fields[40] = "-";
    {
      BTreePageFile pf(dir.file("v.bt"), false, 0);
      if (pf.ok) std::snprintf(fields, sizeof fields, "%x %x %d ", pf.hdr.lcid, pf.hdr.mapFlags, pf.hdr.spaceConversion);
    }
    const std::string after = lltest::readFile(dir.file("v.bt"));
    EXPECT_EQ(fields + btreetest::hex(after.substr(0, 4) + after.substr(36, 4) + after.substr(44, 2)), expected);
  }
}

// The last freed record is the first reused; a page with a place is rewritten there and leaves the
// chain alone; a chain that loops onto itself is not followed. (The link words and header that
// freeing writes are compared byte for byte by the tree's rebalancing tests.)
TEST(BTreePageFile, FreeChainLastFreedFirstReused) {
  lltest::TempDir dir;
  lltest::writeFile(dir.file("t.bt"), kEmpty102);
  BTreePageFile pf(dir.file("t.bt"), false, 0);
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
  BTreePage a(3, 4), b(3, 4), c(3, 4), d(3, 4), e(3, 4), f(3, 4), back(0, 0);
  EXPECT_EQ(place({{&a, false}, {&b, false}}), "102/-1/46 158/-1/46 ");
  ASSERT_TRUE(pf.freePage(102) && pf.freePage(158));
  EXPECT_EQ(place({{&c, false}, {&d, true}, {&e, false}}), "158/102/46 102/-1/102 214/-1/102 ");
  ASSERT_TRUE(pf.freePage(214));
  c.keyCount = 1;
  c.keys[0] = BTreePageKey(4, "ab", 2);
  EXPECT_EQ(place({{&c, false}}), "158/214/102 ");
  EXPECT_TRUE(pf.readPage(158, back) && back.keyCount == 1u && T::bytes(back.keys[0]) == std::string("ab\0\0", 4));
  pf.freePage(158);
  pf.freePage(158);
  EXPECT_FALSE(pf.writePage(f, false));
}

// A record whose stored offset, order, key length or keyCount cannot be, or that the file cuts
// short, is refused and the page keeps what it held; a good one leaves unused slots empty.
TEST(BTreePageFile, ReadPageRefusesBadRecordsAndReadOnlyFilesRefuseWrites) {
  lltest::TempDir dir;
  std::string good = kEmpty102 + btreetest::Shape{3, 4}.encode(1, btreetest::rec(-1, {}));
  patch(good, 122, le4(1));  // keyCount 1
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
  EXPECT_TRUE(T::bytes(page.keys[0]) == "abcd" && page.keys[1].data == nullptr);
  page.keys[0] = BTreePageKey(4, "keep", 4);
  struct Bad { size_t at; int32_t value; int32_t offset; } bads[] = {
      {102, 102, 106},  // not the start of a record
      {102, 102, -1},   {102, 0, 102},  // stored offset differs
      {122, 3, 102},    // keyCount above maxKeys
      {122, -1, 102},   {110, 4, 102},  // order differs from the header
      {126, 5, 102}};   // key length differs
  for (const Bad& b : bads) {
    std::string bytes = good;
    patch(bytes, b.at, le4(b.value));
    EXPECT_TRUE(!readAt(bytes, b.offset, page) && T::bytes(page.keys[0]) == "keep") << b.at << " " << b.value;
  }
  for (size_t cut = 103; cut < good.size(); cut += 9) EXPECT_FALSE(readAt(good.substr(0, cut), 102, page)) << cut;
  // A tree read at an offset in a larger file: its records are found from there, a record in
  // front of it (sound at offset -100) is refused, and every write but the header's is refused.
  std::string tree = kEmpty102, front(1000, '\x5A');
  patch(tree, 24, le4(5));
  patch(front, 900, le4(-100) + tree.substr(50));
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

// Compressed records: a page of another shape is not written; a file opens with room for its
// smallest record; key length tables that cannot be (negative, wider than the slot, 0 for a used
// key) are refused. (Sound compressed records are read back by the copy tool's tests.)
TEST(BTreePageFile, CompressedRecords) {
  lltest::TempDir dir;
  BTreePageFile written(dir.file("w.bt"), 3, 20, false, 0, 0, 0);
  BTreePage narrow(3, 8), wider(4, 20);
  written.hdr.compressed = 1;
  narrow.offset = wider.offset = 46;
  EXPECT_FALSE(written.WriteCompressed(narrow) || written.WriteCompressed(wider));
  std::string hdr = kEmpty102.substr(0, 46);
  patch(hdr, 12, le4(20));
  hdr[22] = 1;
  const std::string record = le4(46) + le4(-1) + le4(2) + std::string("\x02\x00\x03\x00", 4) + "ababc" + le4(7) +
                             le4(9) + le4(-1) + le4(-1) + le4(-1);
  for (size_t body : {35u, 36u}) {
    lltest::writeFile(dir.file("s.bt"), hdr + std::string(body, '\0'));
    EXPECT_EQ(BTreePageFile(dir.file("s.bt"), true, 0).ok, body == 36u);
  }
  for (const char* table : {"\x02\x00\x03\x00", "\xFF\xFF\x03\x00", "\x15\x00\x03\x00", "\x00\x00\x05\x00",
                            "\x02\x00\x00\x00"}) {
    std::string bytes = record;
    lltest::writeFile(dir.file("c.bt"), hdr + patch(bytes, 12, std::string(table, 4)) + std::string(60, '\0'));
    BTreePageFile pf(dir.file("c.bt"), true, 0);
    BTreePage page(0, 0);
    EXPECT_TRUE(pf.ok);
    EXPECT_EQ(pf.readPage(46, page), table[0] == 2 && table[2] == 3) << btreetest::hex(std::string(table, 4));
  }
}

// Trees at the 2 GiB limit, on sparse files: every write that would reach offset 2^31 - 1 is
// refused before it starts, with a report, and no key is ever lost; longer files are refused on
// opening with the reason.
constexpr int64_t kLimit = INT32_MAX;

std::string refusal(const std::string& path, const char* function) {
  return "Write refused: it would reach offset 2147483647, the 2 GiB limit (" + path + ").|" + function + "|2|btree\n";
}

// The length of a file of whole records (104 bytes: order 4, key width 16) that leaves room for
// `records` more.
int64_t roomFor(int64_t records) { return 46 + ((kLimit - 46) / 104 - records) * 104; }

struct BTreeLimits : ::testing::Test {
  lltest::TempDir dir;
  lltest::RecordingSupport host;
  const std::string path = dir.file("near.btr");
  int64_t size() const { return static_cast<int64_t>(std::filesystem::file_size(path)); }
};

// Insertions and deletions at random against a map, with room for three more records: refused
// insertions leave the tree exactly as it was, and the others go on succeeding.
TEST_F(BTreeLimits, ChangesNearTheLimitKeepEveryKey) {
  std::map<std::string, int32_t> model;
  auto slot = [](unsigned k) { return ("k" + std::to_string(1000 + k)).append(11, '\0'); };
  for (unsigned k = 0; k < 60; k += 2) model[slot(k)] = 7;
  ASSERT_TRUE(btreetest::makeTree(path, 4, 16, false, {model.begin(), model.end()}));
  std::filesystem::resize_file(path, static_cast<uintmax_t>(roomFor(3)));
  auto tree = std::make_unique<BTree>(path, false, 0);
  std::mt19937 rng(17);
  int refused = 0, insertedAfterRefusal = 0;
  for (int step = 0; step < 800; ++step) {
    const std::string key = slot(rng() % 120);
    if (rng() % 4 == 3) {
      ASSERT_EQ(tree->deleteKey(key.data(), 16), model.erase(key) == 1);
    } else if (tree->insertKey(step, key.data(), 16)) {
      model[key] = step;
      insertedAfterRefusal += refused > 0;
    } else if (model.count(key) == 0) {
      ASSERT_EQ(lltest::reportsText(host.reports), refusal(path, "BTreePageFile::writePage"));
      ++refused;
    }
    host.reports.clear();
    ASSERT_LE(size(), kLimit);
    ASSERT_TRUE(step % 40 != 39 || btreetest::checkModel(*tree, {model.begin(), model.end()}, true).empty()) << step;
  }
  EXPECT_TRUE(refused > 10 && insertedAfterRefusal > 10) << refused << " " << insertedAfterRefusal;
  tree.reset();
  BTree reopened(path, true, 0);
  EXPECT_EQ(btreetest::checkModel(reopened, {model.begin(), model.end()}, true), "");
}

// The last record that fits is written; the next one, appended or compressed, writes nothing and
// takes nothing from the free chain. The platform layer writes nothing at or beyond the limit; the
// file classes refuse longer files.
TEST_F(BTreeLimits, RecordsAndFilesBeyondTheLimit) {
  {
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
    EXPECT_EQ(size(), kLimit);
  }
  const int handle = lowlevel::platform::open(path.c_str(), lowlevel::platform::kOpenReadWrite, 0);
  lowlevel::platform::lseek(handle, static_cast<int32_t>(kLimit - 4), 0);
  EXPECT_EQ(lowlevel::platform::write(handle, "abcde", 5), -1);  // 4 bytes would fit
  lowlevel::platform::close(handle);
  std::filesystem::resize_file(path, static_cast<uintmax_t>(kLimit) + 1);
  EXPECT_FALSE(BTree(path, true, 0).isOk());
  EXPECT_EQ(lltest::reportsText(host.reports),
            refusal(path, "BTreePageFile::writePage") + refusal(path, "BTreePageFile::WriteCompressed") +
                "File is larger than 2147483647 bytes, the 2 GiB limit (" + path + ").|ZCompressedFileBase::Open|2|"
                "cmpfilbs\nUnable to open file (" + path + ").|BTreePageFile::BTreePageFile|2|btree\n");
}

}  // namespace
