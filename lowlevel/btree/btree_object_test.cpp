#include "lowlevel/btree/btree.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <type_traits>

#include "lowlevel/btree/btree_testing.h"
#include "lowlevel/platform/lcmap.h"
#include "tests/testsupport/testing.h"

namespace {

using T = BTreeTestAccess;
namespace lc = lowlevel::platform;

static_assert(!std::is_copy_constructible<BTree>::value, "a BTree owns its page file alone");
static_assert(!std::is_copy_assignable<BTree>::value, "a BTree owns its page file alone");

std::string le32(int32_t v) { return btreetest::le4(v); }

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
  struct Case { int order, keyLength; bool duplicates; } cases[] = {
      {1, 4, false}, {0, 4, false}, {-3, 4, false}, {3, 0, false}, {3, -1, true},
      {0x10000, 0x10000, false}, {2, 0x7FFFFFF0, true}};
  for (const Case& c : cases) {
    lltest::RecordingSupport support;
    BTree t(path, c.order, c.keyLength, c.duplicates, 0, 0, 0);
    expectNoTree(t);
    ASSERT_EQ(support.reports.size(), 1u) << c.order << " " << c.keyLength;
    const lltest::Report& r = support.reports[0];
    EXPECT_EQ(r.function + "|" + r.module + "|" + std::to_string(r.flag == eReportError), "BTree::BTree|btree|1");
    EXPECT_NE(support.reports[0].message.find(path), std::string::npos);
    EXPECT_FALSE(lltest::fileExists(path));
  }
}

TEST(BTreeObject, FailedOpeningsAnswerTheAccessors) {
  lltest::TempDir dir;
  const std::string path = dir.file("t.bt");
  { BTree created(path, 3, 4, false, 0, 0, 0); ASSERT_TRUE(created.isOk()); }
  lltest::RecordingSupport support;
  {
    BTree missing(dir.file("none.bt"), true, 0);
    expectNoTree(missing);
  }
  ASSERT_EQ(support.reports.size(), 1u);
  patchFile(path, 28, le32(47));  // the root is not where the header says: no report
  {
    BTree t(path, false, 0);
    EXPECT_EQ(accessors(t).substr(0, 14), "0 10400 0 -1 0");
  }
  EXPECT_EQ(support.reports.size(), 1u);
  EXPECT_EQ(lltest::readFile(path).substr(28, 4), le32(47));  // a failed tree writes nothing back
  patchFile(path, 16, le32(1));
  { BTree t(path, true, 0); expectNoTree(t); }
  EXPECT_EQ(support.reports.back().message, "Invalid BTree (" + path + ").");
}

TEST(BTreeObject, AccessorsAndKeyPreparation) {
  lltest::TempDir dir;
  BTree t(dir.file("d.bt"), 5, 4, true, 0x409, 0, 1);
  ASSERT_TRUE(t.isOk());
  EXPECT_EQ(accessors(t), "1 10400 5 4 0 1 0 409/0 1");
  EXPECT_EQ(T::root(t)->keyLength, 8u);
  // lcid alone switches conversion on; the mapping keeps "ab" and its terminator.
  EXPECT_EQ(T::bytes(T::prepareKey(t, "ab", 0, 1)), std::string("ab\0\0\0\0\0\x01", 8));
  T::setConversion(t, 0, 0, 0);
  EXPECT_EQ(T::bytes(T::prepareKey(t, "abcdef", 6, 0x01020304)), "abcd\x01\x02\x03\x04");
}

TEST(BTreeObject, LongKeysFollowTheVersion) {
  lltest::TempDir dir;
  const std::string v4 = dir.file("v4.bt"), v1 = dir.file("v1.bt");
  { BTree t(v1, 3, 4, false, 0, 0, 0); }
  patchFile(v1, 0, le32(0x00010100));
  struct Case { std::string path; std::string stored; } cases[] = {
      {v4, std::string("\0\0\0\x01", 4)}, {v1, std::string("\x01\0\0\0", 4)}};
  for (const Case& c : cases) {
    std::unique_ptr<BTree> tree(c.path == v4 ? new BTree(v4, 3, 4, false, 0, 0, 0)
                                             : new BTree(v1, false, 0));
    BTree& t = *tree;
    ASSERT_TRUE(t.isOk());
    ASSERT_TRUE(t.insertKey(7, 1));
    EXPECT_EQ(T::bytes(T::root(t)->keys[0]), c.stored);
    EXPECT_EQ(btreetest::steps(t, "f1 K"), "7 1");
  }
  BTree t(v4, false, 0);
  ASSERT_TRUE(t.insertKey(8, -1));
  ASSERT_TRUE(t.insertKey(9, 256));
  EXPECT_EQ(T::shape(t, true), "158:[256=9]->(46,102) 46:[1=7] 102:[4294967295=8]");  // unsigned order: -1 last
  EXPECT_EQ(T::reverseLong(t, 0x01020304), 0x04030201);
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
  ASSERT_TRUE(t.isOk());
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
    ASSERT_TRUE(t.isOk());
    ASSERT_TRUE(t.insertKey(1, "Apple", 0));
    ASSERT_TRUE(t.insertKey(2, "banana", 0));
    EXPECT_FALSE(t.insertKey(3, "APPLE", 0));  // the same sort key
    char expected[24] = {};
    ASSERT_GT(lc::lcMapString(0x409, flags, "apple", -1, expected, sizeof expected), 0);
    EXPECT_EQ(T::bytes(T::root(t)->keys[0]), std::string(expected, 24));
  }
  BTree t(path, true, 0);
  ASSERT_TRUE(t.isOk());
  int32_t apple = 0, banana = 0;
  EXPECT_TRUE(t.find(apple, "aPPle", 0) && t.find(banana, "BANANA", 0));
  EXPECT_EQ(apple * 10 + banana + 100 * t.getKeyCount(), 212);
}

// Every failing I/O call while a tree is created or opened leaves an object that is not ok or
// a working one; nothing crashes or leaks.
TEST(BTreeObject, IoFailuresWhileConstructing) {
  lltest::TempDir dir;
  const std::string path = dir.file("f.bt");
  for (int mode = 0; mode < 2; ++mode) {
    for (int k = 1;; ++k) {
      lltest::RecordingSupport support;
      lltest::FaultInjector faults;
      faults.failAt = {k};
      bool ok;
      {
        std::unique_ptr<BTree> t(mode == 0 ? new BTree(path, 3, 4, false, 0, 0, 0)
                                           : new BTree(path, true, 0));
        ok = t->isOk();
        if (!ok) {
          EXPECT_EQ(t->getOrder(), 0);
        }
      }
      if (ok && faults.failures == 0) break;
      ASSERT_LT(k, 40);
    }
  }
  BTree t(path, true, 0);
  EXPECT_TRUE(t.isOk());
}

}  // namespace
