// Trees at the 2 GiB limit, on sparse files: every write that would reach offset 2^31 - 1 is
// refused before it starts, with a report, and no key is ever lost; longer files are refused on
// opening with the reason.
#include <filesystem>
#include <map>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

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
