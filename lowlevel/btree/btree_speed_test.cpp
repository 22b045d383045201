// Searches of cached pages halve the keys when they are in order; on a damaged file whose leaves
// hold their keys in reverse, every answer must still be the left-to-right scan's, cold and warm,
// with the cache off and on.
#include <cstdint>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "tests/testsupport/testing.h"

namespace {

std::string probe(int n) { return "k" + std::to_string(100 + n); }

std::string answers(const std::string& path, size_t cacheBytes) {
  setBTreePageCacheSize(cacheBytes);
  BTree tree(path, true, 0);
  std::string out;
  for (int pass = 0; pass < 2; ++pass) {
    for (int n = 0; n < 130; ++n) {
      int32_t v = -1, w = -1;
      out += std::to_string(tree.find(v, probe(n).c_str(), 0)) + std::to_string(v) + " ";
      out += std::to_string(tree.findGreaterThanOrEqual(w, probe(n).c_str(), 0)) + std::to_string(w);
    }
  }
  return out;
}

TEST(BTreeSpeed, HalvingAnswersAsTheScanOnPagesInAndOutOfOrder) {
  lltest::TempDir dir;
  const std::string path = dir.file("t.btr");
  {
    BTree tree(path, 8, 8, false, 0, 0, 0);
    for (int n = 0; n < 120; n += 2) ASSERT_TRUE(tree.insertKey(n, probe(n).c_str(), 0));
  }
  const std::string sorted = answers(path, 0);
  EXPECT_EQ(sorted, answers(path, 1 << 20));
  // Every leaf (first child -1) gets its keys reversed: record = 28-byte head, 7 slots of 8 bytes,
  // 7 values, 8 children.
  std::string bytes = lltest::readFile(path);
  int leaves = 0;
  for (size_t at = 46; at + 144 <= bytes.size(); at += 144) {
    const uint32_t count = static_cast<unsigned char>(bytes[at + 20]);
    if (bytes.compare(at + 112, 4, "\xff\xff\xff\xff") != 0 || count < 2) continue;
    for (uint32_t i = 0; i < count / 2; ++i) {
      const size_t left = at + 28 + 8 * i, right = at + 28 + 8 * (count - 1 - i);
      for (size_t b = 0; b < 8; ++b) std::swap(bytes[left + b], bytes[right + b]);
    }
    ++leaves;
  }
  ASSERT_GT(leaves, 3);
  lltest::writeFile(path, bytes);
  const std::string reversed = answers(path, 0);
  EXPECT_NE(sorted, reversed);  // the damage shows: some keys are no longer found
  EXPECT_EQ(reversed, answers(path, 1 << 20));
  setBTreePageCacheSize(0);
}

}  // namespace
