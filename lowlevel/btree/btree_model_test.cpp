// Seeded scripts of insertions, deletions and value replacements, mirrored in an ordered map of slot
// bytes (the key cut or padded to the slot, and with duplicates the value as a big-endian tail).
// Every answer must match the map; at checkpoints the whole tree must too: counts, walks both ways
// from the ends and from findGreaterThanOrEqual positions, every lookup, sound pages and parent
// links, and every record of the file either in the tree or on the free chain.
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

using btreetest::be4;
using Model = std::map<std::string, int32_t>;

// Number: 4 bytes from a small space, so deletions hit. Binary: few distinct bytes, zero among
// them, up to 3 bytes cut off. Text: terminated, length 0. Wide: a 48-byte slot with a long
// common prefix.
enum class Keys { Number, Binary, Text, Wide };
struct Config { int order; Keys keys; bool dups; };
struct Key { std::string bytes; int length; };  // as the caller passes it; length 0: terminated text

class BTreeModel : public ::testing::TestWithParam<Config> {
 protected:
  void SetUp() override {
    c = GetParam();
    width = c.keys == Keys::Number ? 4 : c.keys == Keys::Binary ? 8 : c.keys == Keys::Text ? 6 : 48;
    target = c.order * 3 > 220 ? c.order * 3 : 220;
    rng.seed(static_cast<unsigned>(c.order * 31 + static_cast<int>(c.keys) * 7 + c.dups));
    tree = std::make_unique<BTree>(path(), c.order, width, c.dups, 0u, 0u, int16_t{0});
  }
  std::string path() const { return dir.file("m.bt"); }
  int pick(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }

  Key randomKey() {
    Key k{"", 0};
    if (c.keys == Keys::Number) {
      k = {be4(static_cast<uint32_t>(pick(2 * target))), 4};
    } else if (c.keys == Keys::Binary) {
      static const unsigned char alphabet[] = {0x00, 0x01, 0x7F, 0x80, 0xFF};
      for (int i = 1 + pick(11); i > 0; --i)
        k.bytes += static_cast<char>(pick(4) == 0 ? pick(256) : alphabet[pick(5)]);
      k.length = static_cast<int>(k.bytes.size());
    } else if (c.keys == Keys::Text) {
      for (int i = 1 + pick(4); i > 0; --i) k.bytes += static_cast<char>('a' + pick(4));
    } else {
      k.bytes = "a long common prefix of many keys/";
      for (int i = pick(30); i > 0; --i) k.bytes += static_cast<char>('0' + pick(10));
      k.length = pick(2) == 0 ? 0 : static_cast<int>(k.bytes.size());
    }
    return k;
  }
  std::string slot(const Key& k, int32_t value) const {
    std::string s = k.bytes.substr(0, static_cast<size_t>(width));
    s.resize(static_cast<size_t>(width), '\0');
    return c.dups ? s + be4(static_cast<uint32_t>(value)) : s;
  }
  std::string visible(const std::string& s) const { return s.substr(0, static_cast<size_t>(width)); }
  std::string current() {
    char buffer[64];
    int length = sizeof buffer;
    return tree->getCurrentKey(buffer, length) ? std::string(buffer, static_cast<size_t>(length)) : "-";
  }

  // One random operation, its answer checked against the model.
  void step(int insertShare) {
    const int roll = pick(100);
    Key k = randomKey();
    int32_t v = c.dups && pick(3) == 0 ? pick(4) - 2 : static_cast<int32_t>(rng());  // collisions, negatives
    if (roll >= insertShare && !model.empty() && roll % 3 != 0) {  // an entry that is there
      auto it = std::next(model.begin(), pick(static_cast<int>(model.size())));
      k = {visible(it->first), width};  // as a caller gives it: the whole visible slot
      v = it->second;
    }
    const std::string s = slot(k, v);
    auto at = model.find(s);
    if (roll < insertShare) {
      const auto before = std::filesystem::file_size(path());
      ASSERT_EQ(tree->insertKey(v, k.bytes.data(), k.length), at == model.end()) << "insert";
      if (at == model.end()) model[s] = v;
      // The file grows only once the free chain is used up.
      ASSERT_TRUE(std::filesystem::file_size(path()) == before || BTreeTestAccess::pageFile(*tree)->hdr.freeListHead == -1);
    } else if (!c.dups && roll % 5 == 0) {
      ASSERT_EQ(tree->replaceValue(v ^ 0x5A5A, k.bytes.data(), k.length), at != model.end()) << "replace";
      if (at != model.end()) at->second = v ^ 0x5A5A;
    } else {
      ASSERT_EQ(c.dups ? tree->deleteKey(v, k.bytes.data(), k.length) : tree->deleteKey(k.bytes.data(), k.length),
                at != model.end()) << "delete";
      if (at != model.end()) model.erase(at);
    }
  }

  // From the entry `it` where the cursor stands, `n` steps forward and then back to the start, or
  // until an end of the tree, where the step must answer false.
  void walkFrom(Model::const_iterator it, int n) {
    std::string want, got;
    for (int i = 0; i < 3 * n; ++i) {
      const bool back = i >= n;
      const bool more = back ? it != model.begin() : std::next(it) != model.end();
      if (more) it = back ? std::prev(it) : std::next(it);
      want += more ? visible(it->first) + "=" + std::to_string(it->second) + " " : "-";
      int32_t v = 0;
      got += (back ? tree->prev(v) : tree->next(v)) ? current() + "=" + std::to_string(v) + " " : "-";
      if (!more) break;
    }
    ASSERT_EQ(got, want);
  }

  void verify() {
    SCOPED_TRACE(model.size());
    std::vector<btreetest::Entry> expected;
    for (const auto& e : model) expected.emplace_back(visible(e.first), e.second);
    ASSERT_EQ(btreetest::checkModel(*tree, expected, c.order % 2 == 0), "");
    int32_t v = 0;
    for (const auto& e : model) {  // with duplicates, found at the lowest value
      ASSERT_TRUE(tree->find(v, visible(e.first).data(), width));
      ASSERT_EQ(v, model.lower_bound(visible(e.first) + (c.dups ? be4(0) : ""))->second);
      ASSERT_EQ(current(), visible(e.first));
    }
    for (int i = 0; i < 60; ++i) {  // the cursor lands on the first entry at or after the probe
      Key probe = randomKey();
      auto at = model.lower_bound(slot(probe, 0));
      const bool landed = tree->findGreaterThanOrEqual(v, probe.bytes.data(), probe.length);
      ASSERT_EQ(current() + "=" + std::to_string(landed ? v : 0),
                at == model.end() ? "-=0" : visible(at->first) + "=" + std::to_string(at->second));
      if (!landed) continue;
      if (i % 10 == 0) walkFrom(at, 8);
      if (HasFatalFailure()) return;
      const bool hit = visible(at->first) == visible(slot(probe, 0));  // a miss drops the cursor
      ASSERT_EQ(tree->find(v, probe.bytes.data(), probe.length) ? "hit" : current(), hit ? "hit" : "-");
    }
    // Every record is reached from the root or lies on the free chain.
    BTreePageFile* pf = BTreeTestAccess::pageFile(*tree);
    const std::string file = lltest::readFile(path());
    const int64_t records = (static_cast<int64_t>(file.size()) - 46) / btreeRecordSize(c.order, pf->hdr.keyLength);
    int32_t pages = 0, free = 0;
    BTreeTestAccess::checkTree(*tree, true, &pages);
    for (int32_t at = pf->hdr.freeListHead; at != -1 && free <= records; ++free)
      at = btreetest::field(file, static_cast<size_t>(at));
    ASSERT_EQ(pages + free, records);
  }

  void runUntil(int size, int insertShare) {
    for (int n = 1; model.size() != static_cast<size_t>(size) && n < 40000 && !HasFatalFailure(); ++n) {
      step(insertShare);
      if (n % 150 == 0 && !HasFatalFailure()) verify();
    }
    if (!HasFatalFailure()) verify();
  }

  Config c{};
  int width = 0, target = 0;
  std::mt19937 rng;
  lltest::TempDir dir;
  std::unique_ptr<BTree> tree;
  Model model;
};

TEST_P(BTreeModel, GrowShrinkAndRegrowAcrossReopening) {
  const int plan[][3] = {{target, 75, 1}, {0, 30, 0}, {target / 2, 90, 1}, {0, 10, 0}};  // size, % inserts, reopen
  for (const auto& p : plan) {
    ASSERT_NO_FATAL_FAILURE(runUntil(p[0], p[1]));
    if (p[2] == 0) continue;
    tree.reset();
    tree = std::make_unique<BTree>(path(), false, 0);
    ASSERT_EQ(tree->getKeyCount(), static_cast<int>(model.size())) << "count written on closing";
  }
  int32_t value = 0;
  EXPECT_FALSE(tree->depth() != 0 || tree->first(value));
}

constexpr Keys N = Keys::Number, B = Keys::Binary, T = Keys::Text, W = Keys::Wide;
const Config kConfigs[] = {
    {2, N, false},   {3, N, false}, {4, N, false}, {5, N, false}, {8, N, false}, {16, N, false}, {64, N, false},
    {3, N, true},    {4, N, true},  {5, N, true},  {16, N, true}, {3, B, false}, {5, B, false},  {8, B, false},
    {255, B, false}, {5, B, true},  {2, T, true},  {3, T, true},  {4, T, true},  {7, T, true},   {255, T, true},
    {3, W, false},   {8, W, false}, {16, W, true},
};

INSTANTIATE_TEST_SUITE_P(Shapes, BTreeModel, ::testing::ValuesIn(kConfigs));

}  // namespace
