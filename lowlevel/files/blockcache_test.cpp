#include "lowlevel/files/blockcache.h"

#include <gtest/gtest.h>

#include <string>

namespace {

typedef ZBlockCache<int32_t, int> Cache;

// What the cache holds for each key, as "value" or "-" on a miss, joined by blanks.
std::string lookup(Cache& cache, std::initializer_list<int32_t> keys) {
  std::string out;
  for (int32_t key : keys) {
    int* v = cache.get(key);
    out += (out.empty() ? "" : " ") + (v != nullptr ? std::to_string(*v) : std::string("-"));
  }
  return out;
}

// The victim's value, or "none".
std::string old(Cache& cache) {
  int* v = cache.getOld();
  return v != nullptr ? std::to_string(*v) : "none";
}

TEST(BlockCache, SizesBelowTwoBecomeTwoAndGetOldWaitsForAFullCache) {
  for (int size : {0, 1, -5}) {
    Cache cache(size);
    EXPECT_EQ("none -", old(cache) + " " + lookup(cache, {0}));
    cache.add(5, 50);
    EXPECT_EQ("none", old(cache));  // room left: no victim even though an entry exists
    cache.add(6, 60);
    EXPECT_EQ("50", old(cache));
    cache.add(7, 70);  // a third entry overwrites the oldest: the size is 2
    EXPECT_EQ("- 60 70", lookup(cache, {5, 6, 7}));
  }
}

TEST(BlockCache, HitsRefreshStampsMissesAndGetOldDoNot) {
  Cache cache(3);
  cache.add(0, 1);
  cache.add(100, 2);
  cache.add(200, 3);
  EXPECT_EQ("1", old(cache));
  EXPECT_EQ("- - -", lookup(cache, {50, 300, -1}));
  EXPECT_EQ("1 1", old(cache) + " " + old(cache));
  EXPECT_EQ("1", lookup(cache, {0}));  // the oldest is used again...
  EXPECT_EQ("2", old(cache));          // ...so the second oldest is the victim now
  cache.add(300, 4);
  EXPECT_EQ("- 1 3 4", lookup(cache, {100, 0, 200, 300}));
  *cache.get(300) = 40;  // the value of a hit can be changed in place
  EXPECT_EQ("40", lookup(cache, {300}));
}

TEST(BlockCache, FreeEntriesAreKeyedMinusOne) {
  Cache cache(3);
  for (int v : {7, 8, 9}) cache.add(-1, v);
  EXPECT_EQ("7", old(cache));
  int hit = *cache.get(-1);  // a hit on one of the free entries
  EXPECT_TRUE(hit == 7 || hit == 8 || hit == 9);
  EXPECT_EQ("-", lookup(cache, {0}));
  // Overwriting from the oldest on puts each value back in exactly one entry.
  for (int v : {7, 8, 9}) cache.add(10 * (v - 6), v);
  EXPECT_EQ("7 8 9 -", lookup(cache, {10, 20, 30, -1}));
}

TEST(BlockCache, BinarySearchFindsEveryKeyInAnyInsertionOrder) {
  const int32_t keys[] = {500, -3, 70, 1000000, 0, 69, 71, -1};
  Cache cache(8);
  for (int i = 0; i < 8; ++i) cache.add(keys[i], i);
  EXPECT_EQ("0 1 2 3 4 5 6 7", lookup(cache, {500, -3, 70, 1000000, 0, 69, 71, -1}));
  EXPECT_EQ("- - - - - - - - -", lookup(cache, {-4, -2, 1, 68, 72, 499, 501, 999999, 1000001}));
  // An add after a sort marks the order stale again; the next get still finds everything.
  cache.add(250, 8);  // overwrites the least recently used entry, key 500 (hit first)
  EXPECT_EQ("- 8 1", lookup(cache, {500, 250, -3}));
}

TEST(BlockCache, ShrinkingKeepsTheMostRecentlyUsed) {
  Cache cache(4);
  for (int k = 1; k <= 4; ++k) cache.add(k, 10 * k);
  EXPECT_EQ("10", lookup(cache, {1}));  // now 2 is the oldest, then 3
  cache.setSize(1);                     // becomes 2: keeps 1 and 4
  EXPECT_EQ("- - 40 10", lookup(cache, {2, 3, 4, 1}));
  EXPECT_EQ("40", old(cache));  // full at size 2
  cache.setSize(3);             // room again: no victim until a third entry
  EXPECT_EQ("none", old(cache));
  cache.add(5, 50);
  EXPECT_EQ("40", old(cache));
}

}  // namespace
