#include "lowlevel/files/blockcache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

// Seeded scripts of get, getOld, add and setSize against a list ordered from least to most
// recently used, on distinct keys (free entries share the key -1; the file reader never looks
// them up).
TEST(BlockCache, MatchesALeastRecentlyUsedList) {
  std::mt19937 rng(3);
  for (int script = 0; script < 300; ++script) {
    ZBlockCache<int32_t, int> cache(script % 6 - 1);
    int size = std::max(2, script % 6 - 1);
    std::vector<std::pair<int32_t, int>> model;  // least recently used first
    for (int step = 0; step < 40; ++step) {
      const int32_t key = static_cast<int32_t>(rng() % 9) * 100 - 300;  // -300 .. 500
      auto it = std::find_if(model.begin(), model.end(), [&](auto& e) { return e.first == key; });
      const int op = static_cast<int>(rng() % 8);
      if (op < 4) {  // get
        const int* value = cache.get(key);  // values are steps: -1 stands for none
        ASSERT_EQ(it != model.end() ? it->second : -1, value ? *value : -1) << script << " " << step;
        if (it != model.end()) std::rotate(it, it + 1, model.end());
      } else if (op < 7 && it == model.end()) {  // add
        if (static_cast<int>(model.size()) == size) model.erase(model.begin());
        model.emplace_back(key, step);
        cache.add(key, step);
      } else if (op == 7) {  // setSize keeps the most recently used
        size = static_cast<int>(rng() % 6) - 1;
        cache.setSize(size);
        size = size < 2 ? 2 : size;
        if (static_cast<int>(model.size()) > size) model.erase(model.begin(), model.end() - size);
      }
      int* old = cache.getOld();  // only once full; changes nothing
      const bool full = static_cast<int>(model.size()) == size;
      ASSERT_EQ(full ? model.front().second : -1, old != nullptr ? *old : -1) << script << step;
    }
  }
}
