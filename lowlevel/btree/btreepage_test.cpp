#include "lowlevel/btree/btreepage.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/testsupport/testing.h"

namespace {

std::string bytesOf(const BTreePageKey& key) {
  return std::string(reinterpret_cast<const char*>(key.data), key.size);
}

TEST(BTreePageKey, PadsCutsAndTakesTerminatedLength) {
  BTreePageKey text(6, "abc", 0);
  EXPECT_EQ(bytesOf(text), std::string("abc\0\0\0", 6));
  EXPECT_EQ(text.length, 3u);
  BTreePageKey binary(6, "a\0b", 3);  // explicit length keeps the zero byte inside
  EXPECT_EQ(bytesOf(binary), std::string("a\0b\0\0\0", 6));
  BTreePageKey cut(4, "abcdef", 6);
  EXPECT_EQ(bytesOf(cut), "abcd");
  EXPECT_EQ(cut.length, 4u);
  EXPECT_EQ(cut.compare(BTreePageKey(4, "abcdXY", 0)), 0);  // differ only behind the slot
}

TEST(BTreePageKey, ValueTailIsBigEndianBehindTheKeyRoom) {
  EXPECT_EQ(bytesOf(BTreePageKey(8, "ab", 0, 1)), std::string("ab\0\0\0\0\0\x01", 8));
  BTreePageKey cut(8, "abcdef", 0, 0x01020304);
  EXPECT_EQ(bytesOf(cut), "abcd\x01\x02\x03\x04");
  EXPECT_EQ(cut.length, 4u);
  BTreePageKey minusOne(8, "ab", 2, -1);
  EXPECT_EQ(bytesOf(minusOne), std::string("ab\0\0\xFF\xFF\xFF\xFF", 8));
  EXPECT_GT(minusOne.compare(BTreePageKey(8, "ab", 2, 1)), 0);
  // Bytes compare unsigned.
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

TEST(BTreePage, ShapesOfNewPages) {
  struct Case { unsigned order, maxKeys, minKeys; } cases[] = {{7, 6, 3}, {8, 7, 4}, {2, 1, 1}};
  for (const Case& c : cases) {
    BTreePage page(c.order, 10);
    EXPECT_EQ(page.maxKeys, c.maxKeys);
    EXPECT_EQ(page.minKeys, c.minKeys);
    EXPECT_EQ(page.offset, -1);
    EXPECT_EQ(page.parentOffset, -1);
    EXPECT_EQ(page.keyCount, 0u);
    for (unsigned i = 0; i < page.maxKeys; ++i) {
      EXPECT_EQ(page.keys[i].data, nullptr);
      EXPECT_EQ(page.values[i], 0);
    }
    for (unsigned i = 0; i < page.order; ++i) EXPECT_EQ(page.children[i], -1);
  }
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
  ASSERT_FALSE(target.isPlaceholder());
  EXPECT_EQ(target.order, 4u);
  EXPECT_EQ(target.offset, 46);
  EXPECT_EQ(target.children[1], 200);
  EXPECT_EQ(bytesOf(target.keys[0]), std::string("ab\0", 3));
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
