#include "lowlevel/btree/btreepage.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/testsupport/testing.h"

namespace {

std::string bytesOf(const BTreePageKey& key) {
  return std::string(reinterpret_cast<const char*>(key.data), key.size);
}

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
  for (const Case& c : cases) {
    EXPECT_EQ(bytesOf(c.key), c.bytes);
    EXPECT_EQ(c.key.length, c.length) << c.bytes;
  }
  // Differ only behind the slot; value tails and bytes compare unsigned; a shorter key first.
  EXPECT_EQ(BTreePageKey(4, "abcdef", 6).compare(BTreePageKey(4, "abcdXY", 0)), 0);
  EXPECT_GT(BTreePageKey(8, "ab", 2, -1).compare(BTreePageKey(8, "ab", 2, 1)), 0);
  EXPECT_GT(BTreePageKey(2, "\x80", 1).compare(BTreePageKey(2, "\x7F", 1)), 0);
  EXPECT_LT(BTreePageKey(2, "a", 1).compare(BTreePageKey(2, "ab", 2)), 0);
}

TEST(BTreePageKey, CopiesAreDeepAndEmptyStaysEmpty) {
  BTreePageKey source(4, "abcd", 4);
  BTreePageKey copy(source);
  ASSERT_NE(copy.data, source.data);
  copy.data[0] = 'z';
  EXPECT_EQ(bytesOf(source), "abcd");
  BTreePageKey empty;
  BTreePageKey emptyCopy(empty);
  EXPECT_EQ(emptyCopy.data, nullptr);
  copy = empty;  // assigning the empty key frees the slot
  EXPECT_EQ(copy.data, nullptr);
  EXPECT_EQ(copy.size, 0u);
  copy = source;
  EXPECT_EQ(bytesOf(copy), "abcd");
  const BTreePageKey& alias = copy;
  copy = alias;
  EXPECT_EQ(bytesOf(copy), "abcd");
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

TEST(BTreePage, ShapesOfNewPages) {
  EXPECT_EQ(dump(BTreePage(7, 10)), "7 6 3 -1 -1 0 | -=0 -=0 -=0 -=0 -=0 -=0 | -1 -1 -1 -1 -1 -1 -1");
  EXPECT_EQ(dump(BTreePage(8, 10)), "8 7 4 -1 -1 0 | -=0 -=0 -=0 -=0 -=0 -=0 -=0 | -1 -1 -1 -1 -1 -1 -1 -1");
  EXPECT_EQ(dump(BTreePage(2, 10)), "2 1 1 -1 -1 0 | -=0 | -1 -1");
  BTreePage placeholder(0, 10);
  EXPECT_TRUE(placeholder.isPlaceholder());
  EXPECT_EQ(placeholder.keyLength, 0u);
  EXPECT_EQ(placeholder.values, nullptr);
}

TEST(BTreePage, CopyAndAssignmentShareNoBuffer) {
  BTreePage source(4, 3);
  source.offset = 46;
  source.keyCount = 1;
  source.keys[0] = BTreePageKey(3, "ab", 2);
  source.values[0] = 9;
  source.children[1] = 200;

  BTreePage copy(source);
  EXPECT_NE(copy.keys[0].data, source.keys[0].data);
  EXPECT_EQ(copy.keys[1].data, nullptr);
  copy.keys[0].data[0] = 'X';
  copy.values[0] = 1;
  EXPECT_EQ(bytesOf(source.keys[0]), std::string("ab\0", 3));
  EXPECT_EQ(source.values[0], 9);

  BTreePage target(0, 0);
  target = source;
  EXPECT_EQ(dump(target), std::string("4 3 2 46 -1 1 | ab\0=9 -=0 -=0 | -1 200 -1 -1", 44));
  BTreePage other(7, 3);
  other = source;  // another order: rebuilt at the source's size
  EXPECT_EQ(other.maxKeys, 3u);

  // A placeholder's maxKeys is no count: copying it allocates nothing and reports nothing.
  lltest::RecordingSupport support;
  BTreePage placeholder(0, 0);
  BTreePage fromPlaceholder(placeholder);
  EXPECT_TRUE(fromPlaceholder.isPlaceholder());
  target = placeholder;
  EXPECT_TRUE(target.isPlaceholder());
  EXPECT_TRUE(support.reports.empty());
}

}  // namespace
