// Random mixes of insertions, deletions and value replacements, checked against an ordered model
// after every batch: lookups, walks both ways, counts, parent links and the records of the file.
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

using Entry = std::pair<uint32_t, uint32_t>;  // key, value as the tree orders them

using btreetest::be4;

struct Config {
  int order;
  bool duplicates;
};

class DeleteModel : public ::testing::TestWithParam<Config> {
 protected:
  void SetUp() override {
    order = GetParam().order;
    dups = GetParam().duplicates;
    rng.seed(static_cast<unsigned>(order * 2 + dups));
    tree = std::make_unique<BTree>(path(), order, 4, dups, 0, 0, 0);
    ASSERT_TRUE(tree->isOk());
  }

  std::string path() const { return dir.file("m.btr"); }

  void reopen() {
    tree.reset();
    tree = std::make_unique<BTree>(path(), false, 0);
    ASSERT_TRUE(tree->isOk());
  }

  int32_t fileLength() const { return static_cast<int32_t>(std::filesystem::file_size(path())); }

  void insert(uint32_t key, uint32_t value) {
    int32_t before = fileLength();
    bool present = dups ? model.count({key, value}) > 0 : keyed.count(key) > 0;
    std::string k = be4(key);
    ASSERT_EQ(tree->insertKey(static_cast<int32_t>(value), k.data(), 4), !present);
    if (!present) add(key, value);
    // Records on the free chain are used up before the file grows.
    ASSERT_TRUE(fileLength() == before || btreetest::field(lltest::readFile(path()), 32) == -1);
  }

  void add(uint32_t key, uint32_t value) {
    model.insert({key, value});
    keyed[key] = value;
  }

  void erase(uint32_t key, uint32_t value, bool byValue) {
    int32_t before = fileLength();
    std::string k = be4(key);
    bool present = model.count({key, value}) > 0;
    bool done = byValue ? tree->deleteKey(static_cast<int32_t>(value), k.data(), 4)
                        : tree->deleteKey(k.data(), 4);
    ASSERT_EQ(done, present) << "key " << key;
    if (present) model.erase({key, value});
    if (present && !dups) keyed.erase(key);
    ASSERT_EQ(fileLength(), before);
  }

  void replace(uint32_t key, uint32_t value) {
    std::string k = be4(key);
    bool present = keyed.count(key) > 0;
    ASSERT_EQ(tree->replaceValue(static_cast<int32_t>(value), k.data(), 4), present);
    if (present) model.erase({key, keyed[key]});
    if (present) add(key, value);
  }

  // One random step. `insertShare` of 100 steps insert, the rest delete or replace.
  void step(int insertShare) {
    int roll = static_cast<int>(rng() % 100);
    uint32_t key = rng() % kKeySpace;
    uint32_t value = static_cast<uint32_t>(rng());
    if (dups) value = rng() % 3 == 0 ? 0xFFFFFFF0u + rng() % 16 : rng() % 8;
    if (roll < insertShare || model.empty()) return insert(key, value);
    if (!dups && roll % 10 == 0) return replace(key, value);
    if (roll % 7 == 0) {  // a miss, or a hit when the key happens to be there
      if (dups) return erase(key, value, true);
      return erase(key, keyed.count(key) ? keyed[key] : value, false);
    }
    auto it = model.begin();
    std::advance(it, rng() % model.size());
    erase(it->first, it->second, dups);
  }

  // Besides the model check: every record of the file is either reached from the root or free.
  void verify() {
    std::vector<btreetest::Entry> expected;
    for (const Entry& e : model) expected.emplace_back(be4(e.first), static_cast<int32_t>(e.second));
    ASSERT_EQ(btreetest::checkModel(*tree, expected, order % 2 == 0), "");
    for (auto it = model.begin(); it != model.end(); it = model.lower_bound({it->first + 1, 0})) {
      int32_t found = 0;
      std::string k = be4(it->first);
      ASSERT_TRUE(tree->find(found, k.data(), 4)) << it->first;
      EXPECT_EQ(static_cast<uint32_t>(found), it->second);
    }
    const BTreePageFileHdr& hdr = BTreeTestAccess::pageFile(*tree)->hdr;
    const int32_t records = (fileLength() - kBTreeHeaderSize) /
                            static_cast<int32_t>(btreeRecordSize(hdr.order, hdr.keyLength));
    const std::string file = lltest::readFile(path());
    int32_t pages = 0, free = 0;
    ASSERT_EQ(BTreeTestAccess::checkTree(*tree, true, &pages), "");
    for (int32_t at = btreetest::field(file, 32); at != -1 && free <= records; ++free)
      at = btreetest::field(file, static_cast<size_t>(at));
    EXPECT_EQ(pages + free, records);
  }

  void runUntil(size_t target, int insertShare) {
    for (int n = 1; model.size() != target && n < 20000; ++n) {
      step(insertShare);
      if (HasFatalFailure()) return;
      if (n % 60 == 0) verify();
    }
    verify();
  }

  static constexpr uint32_t kKeySpace = 400;
  int order = 0;
  bool dups = false;
  std::mt19937 rng;
  lltest::TempDir dir;
  std::unique_ptr<BTree> tree;
  std::set<Entry> model;
  std::map<uint32_t, uint32_t> keyed;  // without duplicates: key to value
};

TEST_P(DeleteModel, MixesUntilEmptyAndRefilled) {
  runUntil(220, 70);
  reopen();
  verify();
  runUntil(0, 30);
  runUntil(120, 90);
  reopen();
  runUntil(0, 10);
  EXPECT_EQ(tree->depth(), 0);
  int32_t value = 0;
  EXPECT_FALSE(tree->first(value));
}

INSTANTIATE_TEST_SUITE_P(Orders, DeleteModel,
                         ::testing::Values(Config{2, false}, Config{3, false}, Config{4, false},
                                           Config{5, false}, Config{8, false}, Config{16, false},
                                           Config{64, false}, Config{3, true}, Config{4, true},
                                           Config{5, true}, Config{16, true}),
                         [](const ::testing::TestParamInfo<Config>& info) {
                           return "order" + std::to_string(info.param.order) +
                                  (info.param.duplicates ? "dups" : "");
                         });

}  // namespace
