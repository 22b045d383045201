// The bulk builder against trees made by inserts: same entries, walks and lookups, sound pages, and
// then the same model of inserts and deletes on top. Exact bytes of one small build; refusals.
#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "lowlevel/btree/btreetools.h"
#include "tests/testsupport/testing.h"

namespace {

using btreetest::Entry;

struct Input {
  std::vector<std::pair<std::string, int32_t>> entries;  // caller keys, in slot order
  int64_t at = 0;
  std::function<bool(BTreeBulkEntry&)> source() {
    return [this](BTreeBulkEntry& e) {
      if (at >= static_cast<int64_t>(entries.size())) return false;
      e.key = entries[at].first.c_str();
      e.length = 0;
      e.value = entries[at++].second;
      return true;
    };
  }
};

// Orders 3 to 8 with and without duplicates, counts around the sizes where levels appear, an
// upper-casing conversion (slots differ from the keys), fill from half to full.
TEST(BTreeBulk, SameTreeAsInsertsThenTakesInsertsAndDeletes) {
  lltest::TempDir dir;
  std::mt19937 rng(11);
  for (int order = 3; order <= 8; ++order) {
    for (int count : {0, 1, order - 1, order, order + 1, order * order, 700}) {
      const bool dups = count % 2 == 1;
      const uint32_t mapFlags = order == 5 ? 0x200 : 0;  // LCMAP_UPPERCASE
      const int fill = 50 + 10 * (count % 6);
      BTree inserted(dir.file("i.btr"), order, 6, dups, 0x409, mapFlags, 0);
      Input input;
      std::map<std::string, std::pair<std::string, int32_t>> bySlot;
      for (int i = 0; static_cast<int>(bySlot.size()) < count; ++i) {
        std::string key(1 + rng() % 5, 'a');
        for (char& c : key) c = "aBcDe"[rng() % 5];
        const int32_t value = static_cast<int32_t>(rng() % 4) - 1;
        bySlot.emplace(btreeKeySlot(inserted, key.c_str(), 0, value), std::make_pair(key, value));
      }
      for (const auto& e : bySlot) input.entries.push_back(e.second);
      std::vector<size_t> shuffled(input.entries.size());
      for (size_t i = 0; i < shuffled.size(); ++i) shuffled[i] = i;
      std::shuffle(shuffled.begin(), shuffled.end(), rng);
      for (size_t i : shuffled) {
        ASSERT_TRUE(inserted.insertKey(input.entries[i].second, input.entries[i].first.c_str(), 0));
      }
      BTreeBulkShape shape{order, 6, dups, 0x409, mapFlags, 0, fill};
      int64_t failed = 0;
      ASSERT_TRUE(bulkBuildBTree(dir.file("b.btr"), shape, count, input.source(), &failed));
      BTree built(dir.file("b.btr"), false, 0);
      ASSERT_TRUE(built.isOk());
      const std::vector<Entry> expected = btreetest::walk(inserted, false);
      const std::string where = std::to_string(order) + "/" + std::to_string(count);
      // An even order cannot always give every page minKeys keys; inserts do not either.
      EXPECT_EQ("", btreetest::checkModel(built, expected, order % 2 == 0)) << where;
      for (int probe = 0; probe < 40; ++probe) {
        std::string key(1 + rng() % 5, 'a');
        for (char& c : key) c = "aBcDe"[rng() % 5];
        int32_t a = 9, b = 9;
        EXPECT_EQ(inserted.findGreaterThanOrEqual(a, key.c_str(), 0),
                  built.findGreaterThanOrEqual(b, key.c_str(), 0)) << where;
        EXPECT_EQ(a, b) << where;
      }
      for (int step = 0; step < 300; ++step) {
        const auto& e = input.entries.empty() ? std::make_pair(std::string("x"), 0)
                                              : input.entries[rng() % input.entries.size()];
        const std::string fresh = std::string(1, "aBcDe"[rng() % 5]) + "Z";
        if (rng() % 2) {
          EXPECT_EQ(inserted.deleteKey(e.second, e.first.c_str(), 0),
                    built.deleteKey(e.second, e.first.c_str(), 0)) << where;
        } else {
          EXPECT_EQ(inserted.insertKey(step, fresh.c_str(), 0),
                    built.insertKey(step, fresh.c_str(), 0)) << where;
        }
      }
      EXPECT_EQ("", btreetest::checkModel(built, btreetest::walk(inserted, false), true)) << where;
    }
  }
}

// Order 3, 4-byte keys 1..7 at full fill: three leaves under a root, laid down depth-first.
TEST(BTreeBulk, ExactBytes) {
  lltest::TempDir dir;
  Input input;
  for (uint32_t k = 1; k <= 7; ++k) input.entries.push_back({btreetest::be4(k), 100 + static_cast<int>(k)});
  BTreeBulkShape shape{3, 4, false, 0, 0, 0, 100};
  auto source = [&input](BTreeBulkEntry& e) {
    if (input.at >= 7) return false;
    e.key = input.entries[input.at].first.data();
    e.length = 4;
    e.value = input.entries[input.at++].second;
    return true;
  };
  ASSERT_TRUE(bulkBuildBTree(dir.file("b.btr"), shape, 7, source, nullptr));
  const btreetest::Shape s{3, 4};
  ASSERT_TRUE(s.build(dir.file("e.btr"), {btreetest::rec(-1, {3, 6}, {1, 2, 3}),
                                          btreetest::rec(0, {1, 2}), btreetest::rec(0, {4, 5}),
                                          btreetest::rec(0, {7})}, 0));
  EXPECT_EQ(btreetest::hex(lltest::readFile(dir.file("e.btr"))),
            btreetest::hex(lltest::readFile(dir.file("b.btr"))));
}

TEST(BTreeBulk, RefusesAndLeavesNoTree) {
  lltest::TempDir dir;
  struct Case {
    std::vector<std::string> keys;
    int64_t count;
    int64_t failed;
    std::string report;
  };
  const Case cases[] = {
      {{"a", "c", "b"}, 3, 2, "Entry 2 is out of order."},
      {{"a", "b", "b"}, 3, 2, "Entry 2 repeats the key before it."},
      {{"a", "b"}, 3, 2, "Entry 2 is missing: fewer than the count."},
      {{"a", "b", "c"}, 2, 2, "Entry 2 is one more than the count."},
  };
  for (const Case& c : cases) {
    lltest::RecordingSupport host;
    Input input;
    for (const std::string& k : c.keys) input.entries.push_back({k, 1});
    int64_t failed = -1;
    EXPECT_FALSE(bulkBuildBTree(dir.file("r.btr"), BTreeBulkShape{3, 4, false, 0, 0, 0, 100},
                                c.count, input.source(), &failed));
    EXPECT_EQ(c.failed, failed);
    BTree reopened(dir.file("r.btr"), true, 0);
    EXPECT_FALSE(reopened.isOk());
    EXPECT_EQ(c.report + "|bulkBuildBTree|2|btree\nInvalid BTree (" + dir.file("r.btr") +
                  ").|BTreePageFile::BTreePageFile|2|btree\n",
              lltest::reportsText(host.reports));
  }
}

}  // namespace
