// Random insertions mirrored in an ordered map of slot bytes: after every phase the tree must hold
// exactly the map, found key by key, walked in both directions from the ends and from random
// findGreaterThanOrEqual positions, with sound pages and parent links.
//
// LOWLEVEL_BTREE_MODEL_KEYS sets the number of insertions per configuration (default: a few
// thousand, fewer for the widest pages).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "tests/testsupport/testing.h"

namespace {

enum class Keys { Binary, Text, Long };

struct Config {
  int order;
  Keys keys;
  bool duplicates;
};

std::string name(const Config& c) {
  const char* kind = c.keys == Keys::Binary ? "Binary" : c.keys == Keys::Text ? "Text" : "Long";
  return "Order" + std::to_string(c.order) + kind + (c.duplicates ? "Dups" : "");
}

int keyWidth(Keys keys) { return keys == Keys::Binary ? 8 : keys == Keys::Text ? 6 : 48; }

using btreetest::be4;

// A caller's key: its bytes, and the length argument that goes with them (0: terminated text).
struct Key {
  std::string bytes;
  int length;
};

Key randomKey(Keys kind, std::mt19937& rng) {
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  Key key;
  switch (kind) {
    case Keys::Binary: {
      // Few distinct bytes, zero among them, so keys share prefixes and collide; up to 3 bytes
      // longer than the slot, which are cut.
      static const unsigned char alphabet[] = {0x00, 0x01, 0x7F, 0x80, 0xFF};
      int n = 1 + pick(11);
      for (int i = 0; i < n; ++i)
        key.bytes += static_cast<char>(pick(4) == 0 ? pick(256) : alphabet[pick(5)]);
      key.length = n;
      break;
    }
    case Keys::Text: {
      int n = 1 + pick(4);
      for (int i = 0; i < n; ++i) key.bytes += static_cast<char>('a' + pick(4));
      key.length = 0;
      break;
    }
    case Keys::Long: {
      key.bytes = "a long common prefix of many keys/";
      int n = pick(30);
      for (int i = 0; i < n; ++i) key.bytes += static_cast<char>('0' + pick(10));
      key.length = pick(2) == 0 ? 0 : static_cast<int>(key.bytes.size());
      break;
    }
  }
  return key;
}

class ModelTest : public ::testing::TestWithParam<Config> {
 protected:
  void SetUp() override {
    config = GetParam();
    width = keyWidth(config.keys);
    rng.seed(static_cast<unsigned>(config.order * 31 + static_cast<int>(config.keys) * 7 +
                                   (config.duplicates ? 3 : 0)));
    path = dir.file("model.bt");
  }

  // The slot a key and value occupy: cut or padded to the width, value tail with duplicates.
  std::string slot(const Key& key, int32_t value) const {
    std::string s = key.bytes.substr(0, static_cast<size_t>(width));
    s.resize(static_cast<size_t>(width), '\0');
    if (config.duplicates) s += be4(static_cast<uint32_t>(value));
    return s;
  }
  std::string visible(const std::string& slotBytes) const {
    return slotBytes.substr(0, static_cast<size_t>(width));
  }
  std::string current(BTree& tree) {
    char buffer[64];
    int length = sizeof buffer;
    if (!tree.getCurrentKey(buffer, length)) return "<none>";
    return std::string(buffer, static_cast<size_t>(length));
  }

  void insertRandom(BTree& tree, int count) {
    for (int i = 0; i < count; ++i) {
      Key key = randomKey(config.keys, rng);
      int32_t value = static_cast<int32_t>(rng());
      if (config.duplicates && rng() % 3 == 0) value = static_cast<int32_t>(rng() % 4) - 2;
      const std::string s = slot(key, value);
      const bool fresh = model.find(s) == model.end();
      ASSERT_EQ(tree.insertKey(value, key.bytes.data(), key.length), fresh) << i;
      if (fresh) {
        model[s] = value;
        callers[s] = key;
      }
    }
  }

  // From `at`, where the cursor stands, `steps` entries forward and then twice as many back, or
  // until an end of the tree, where the step must answer false.
  void walkFrom(BTree& tree, std::map<std::string, int32_t>::const_iterator it, int steps) {
    std::string want, got;
    for (int i = 0; i < 3 * steps; ++i) {
      const bool back = i >= steps;
      const bool more = back ? it != model.begin() : std::next(it) != model.end();
      if (more) it = back ? std::prev(it) : std::next(it);
      want += more ? visible(it->first) + "=" + std::to_string(it->second) + " " : "-";
      int32_t v = 0;
      got += (back ? tree.prev(v) : tree.next(v)) ? current(tree) + "=" + std::to_string(v) + " " : "-";
      if (!more) break;
    }
    ASSERT_EQ(got, want);
  }

  void verify(BTree& tree) {
    SCOPED_TRACE(model.size());
    std::vector<btreetest::Entry> expected;
    for (const auto& entry : model) expected.emplace_back(visible(entry.first), entry.second);
    ASSERT_EQ(btreetest::checkModel(tree, expected, config.order % 2 == 0), "");
    int32_t v = 0;
    for (const auto& entry : model) {  // with duplicates, found at the lowest value
      const Key& key = callers[entry.first];
      ASSERT_TRUE(tree.find(v, key.bytes.data(), key.length)) << visible(entry.first);
      ASSERT_EQ(v, model.lower_bound(slot(key, 0))->second);
      ASSERT_EQ(current(tree), visible(entry.first));
    }
    // Random probes: the cursor lands on the first entry at or after the probe and walks on.
    for (int i = 0; i < 200; ++i) {
      Key probe = randomKey(config.keys, rng);
      auto at = model.lower_bound(slot(probe, 0));
      bool landed = tree.findGreaterThanOrEqual(v, probe.bytes.data(), probe.length);
      ASSERT_EQ(landed, at != model.end());
      if (!landed) {
        EXPECT_EQ(current(tree), "<none>");
        continue;
      }
      ASSERT_EQ(v, at->second);
      ASSERT_EQ(current(tree), visible(at->first));
      if (i % 10 == 0) walkFrom(tree, at, 12);
      const bool present = at->first.compare(0, static_cast<size_t>(width), slot(probe, 0), 0,
                                             static_cast<size_t>(width)) == 0;
      ASSERT_EQ(tree.find(v, probe.bytes.data(), probe.length), present);
    }
  }

  int insertions() const {
    if (const char* env = std::getenv("LOWLEVEL_BTREE_MODEL_KEYS")) return std::max(2, std::atoi(env));
    return config.order >= 64 ? 1500 : 3000;
  }

  Config config;
  int width = 0;
  std::mt19937 rng;
  lltest::TempDir dir;
  std::string path;
  std::map<std::string, int32_t> model;  // slot bytes -> value
  std::map<std::string, Key> callers;    // slot bytes -> the key as the caller gave it
};

TEST_P(ModelTest, TreeMatchesTheModelAcrossReopening) {
  const int total = insertions();
  {
    BTree tree(path, config.order, width, config.duplicates, 0u, 0u, int16_t{0});
    ASSERT_TRUE(tree.isOk());
    ASSERT_NO_FATAL_FAILURE(insertRandom(tree, total / 2));
    ASSERT_NO_FATAL_FAILURE(verify(tree));
  }
  BTree tree(path, false, 0);
  ASSERT_TRUE(tree.isOk());
  ASSERT_EQ(tree.getKeyCount(), static_cast<int>(model.size())) << "count written on closing";
  ASSERT_NO_FATAL_FAILURE(insertRandom(tree, total - total / 2));
  ASSERT_NO_FATAL_FAILURE(verify(tree));
}

std::vector<Config> configs() {
  std::vector<Config> out;
  for (int order : {2, 3, 4, 5, 7, 8, 16, 64, 255}) {
    out.push_back({order, Keys::Binary, false});
    out.push_back({order, Keys::Text, true});
  }
  for (int order : {3, 8, 255}) out.push_back({order, Keys::Long, false});
  out.push_back({16, Keys::Long, true});
  out.push_back({5, Keys::Binary, true});
  return out;
}

INSTANTIATE_TEST_SUITE_P(Shapes, ModelTest, ::testing::ValuesIn(configs()),
                         [](const ::testing::TestParamInfo<Config>& info) { return name(info.param); });

}  // namespace
