// Randomized trees, built by insertions and deletions, against their compressed, ordered and
// repacked copies: the same entries in both directions and the same lookup answers, also once the
// copies are stored as compressed files.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "compression/seekable_writer.h"
#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"
#include "lowlevel/btree/btreetools_testutil.h"
#include "tests/testsupport/testing.h"

using btreetoolstest::Entry;
using btreetoolstest::le32;
using btreetoolstest::walk;

namespace {

const int kWidth = 20;

std::string randomKey(std::mt19937& rng) {
  std::string key(1 + rng() % 10, 'a');
  for (char& c : key) c = static_cast<char>('a' + rng() % 6);
  return key;
}

// Builds a tree of `order` at `path` by random insertions and deletions.
void buildRandomTree(const std::string& path, int order, bool duplicates, std::mt19937& rng) {
  BTree tree(path, order, kWidth, duplicates, 0, 0, 0);
  ASSERT_TRUE(tree.isOk());
  std::vector<Entry> inserted;
  int n = 50 + static_cast<int>(rng() % 400);
  for (int i = 0; i < n; ++i) {
    std::string key = randomKey(rng);
    int32_t value = static_cast<int32_t>(rng());
    if (tree.insertKey(value, key.data(), static_cast<int>(key.size()))) {
      inserted.emplace_back(key, value);
    }
  }
  for (size_t i = 0; i < inserted.size(); i += 1 + rng() % 3) {
    const Entry& e = inserted[i];
    int length = static_cast<int>(e.first.size());
    ASSERT_TRUE(duplicates ? tree.deleteKey(e.second, e.first.data(), length)
                           : tree.deleteKey(e.first.data(), length));
  }
}

// Lookup answers for every key of `probes`: found or not, with the value and the entry reached.
std::vector<std::string> lookups(BTree& tree, const std::vector<std::string>& probes) {
  std::vector<std::string> out;
  for (const std::string& probe : probes) {
    int32_t value = 0;
    bool found = tree.find(value, probe.data(), static_cast<int>(probe.size()));
    std::string answer = found ? "=" + std::to_string(value) : "-";
    found = tree.findGreaterThanOrEqual(value, probe.data(), static_cast<int>(probe.size()));
    answer += found ? ">=" + std::to_string(value) : ">-";
    out.push_back(answer);
  }
  return out;
}

TEST(BTreeToolsModel, CopiesAnswerLikeTheirSource) {
  lltest::TempDir dir;
  std::mt19937 rng(20240611);
  const std::string src = dir.file("s.bt");
  lowlevel::compression::SeekableWriteOptions options;
  options.chunkSize = 700;
  for (int round = 0; round < 16; ++round) {
    // A compressed file's offset map is kept by path for the life of the process, so every round
    // stores its compressed files under new names.
    const std::string n = std::to_string(round);
    const std::vector<std::string> copies = {dir.file("c.bt"),  dir.file("o.bt"),
                                             dir.file("r.bt"),  dir.file("r3.bt"),
                                             dir.file("c" + n + ".zst"),
                                             dir.file("o" + n + ".zst")};
    const int order = 3 + round % 5;
    const bool duplicates = round % 2 == 1;
    buildRandomTree(src, order, duplicates, rng);
    const std::string before = lltest::readFile(src);
    ASSERT_TRUE(compressBTree(src, copies[0]));
    ASSERT_TRUE(orderBTree(src, copies[1]));
    ASSERT_TRUE(repackBTree(src, copies[2], 0));
    ASSERT_TRUE(repackBTree(src, copies[3], 3));
    std::string error;
    using lowlevel::compression::compressFileToSeekable;
    for (int i : {0, 1})
      ASSERT_TRUE(compressFileToSeekable(copies[i], copies[i + 4], options, &error)) << error;
    EXPECT_EQ(lltest::readFile(src), before);

    BTree source(src, true, 0);
    ASSERT_TRUE(source.isOk());
    const std::vector<Entry> forward = walk(source, false);
    ASSERT_EQ(btreetest::checkModel(source, forward, true), "");
    std::vector<std::string> probes;
    for (const Entry& e : forward) probes.push_back(e.first);
    for (int i = 0; i < 40; ++i) probes.push_back(randomKey(rng));
    const std::vector<std::string> answers = lookups(source, probes);
    for (size_t c = 0; c < copies.size(); ++c) {
      SCOPED_TRACE("round " + std::to_string(round) + " copy " + copies[c]);
      BTree copy(copies[c], true, 0);
      ASSERT_TRUE(copy.isOk());
      EXPECT_EQ(copy.hasDuplicates(), duplicates);
      EXPECT_EQ(btreetest::checkModel(copy, forward, true, c != 2 && c != 3), "");
      EXPECT_EQ(lookups(copy, probes), answers);
      int32_t back = -1;
      EXPECT_TRUE(copy.test(true, nullptr, nullptr, &back));
      EXPECT_TRUE(back == 0 || c == 2 || c == 3);
    }
  }
}

// A child link of the root that leads back to the root: the copies fail instead of running on,
// and the source stays as it was.
TEST(BTreeToolsModel, CyclicLinksFail) {
  lltest::TempDir dir;
  const std::string src = dir.file("s.bt"), dst = dir.file("t.bt");
  std::vector<Entry> entries;
  for (int i = 0; i < 40; ++i) entries.emplace_back("key" + std::to_string(100 + i), i);
  ASSERT_TRUE(btreetoolstest::makeTree(src, 3, kWidth, false, entries));
  std::string bytes = lltest::readFile(src);
  const size_t children = 28 + 2 * kWidth + 2 * 4;  // order 3, no duplicates
  const int32_t root = le32(bytes, 28);
  const size_t last = static_cast<size_t>(root) + children + 4 * le32(bytes, root + 20u);
  for (int i = 0; i < 4; ++i) {  // the root's last child becomes the root itself
    bytes[last + static_cast<size_t>(i)] =
        static_cast<char>((static_cast<uint32_t>(root) >> (8 * i)) & 0xFF);
  }
  lltest::writeFile(src, bytes);
  EXPECT_FALSE(compressBTree(src, dst));
  EXPECT_FALSE(orderBTree(src, dst));
  repackBTree(src, dst, 3);  // goes by the cursor: it must come back, whatever it answers
  EXPECT_EQ(lltest::readFile(src), bytes);
}

}  // namespace
