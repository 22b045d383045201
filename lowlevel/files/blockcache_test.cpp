#include "lowlevel/files/blockcache.h"

#include <gtest/gtest.h>

namespace {

typedef ZBlockCache<int32_t, int> Cache;

// The value at `key`, or -999 on a miss.
int lookup(Cache& cache, int32_t key) {
  int* v = cache.get(key);
  return v != nullptr ? *v : -999;
}

TEST(BlockCache, SizesBelowTwoBecomeTwoAndGetOldWaitsForAFullCache) {
  for (int size : {0, 1, -5}) {
    Cache cache(size);
    EXPECT_EQ(nullptr, cache.getOld());
    EXPECT_EQ(nullptr, cache.get(0));
    cache.add(5, 50);
    EXPECT_EQ(nullptr, cache.getOld());  // room left: no victim even though an entry exists
    cache.add(6, 60);
    ASSERT_NE(nullptr, cache.getOld());
    EXPECT_EQ(50, *cache.getOld());
    cache.add(7, 70);  // a third entry overwrites the oldest: the size is 2
    EXPECT_EQ(-999, lookup(cache, 5));
    EXPECT_EQ(60, lookup(cache, 6));
    EXPECT_EQ(70, lookup(cache, 7));
  }
}

TEST(BlockCache, HitsRefreshStampsMissesAndGetOldDoNot) {
  Cache cache(3);
  cache.add(0, 1);
  cache.add(100, 2);
  cache.add(200, 3);
  EXPECT_EQ(1, *cache.getOld());
  EXPECT_EQ(-999, lookup(cache, 50));  // a miss between keys
  EXPECT_EQ(-999, lookup(cache, 300));
  EXPECT_EQ(-999, lookup(cache, -1));
  EXPECT_EQ(1, *cache.getOld());
  EXPECT_EQ(1, *cache.getOld());
  EXPECT_EQ(1, lookup(cache, 0));  // the oldest is used again...
  EXPECT_EQ(2, *cache.getOld());   // ...so the second oldest is the victim now
  cache.add(300, 4);
  EXPECT_EQ(-999, lookup(cache, 100));
  EXPECT_EQ(1, lookup(cache, 0));
  EXPECT_EQ(3, lookup(cache, 200));
  EXPECT_EQ(4, lookup(cache, 300));
  // The value of a hit can be changed in place.
  *cache.get(300) = 40;
  EXPECT_EQ(40, lookup(cache, 300));
}

TEST(BlockCache, FreeEntriesAreKeyedMinusOne) {
  Cache cache(3);
  cache.add(-1, 7);
  cache.add(-1, 8);
  cache.add(-1, 9);
  EXPECT_EQ(7, *cache.getOld());
  int hit = lookup(cache, -1);  // a hit on one of the free entries
  EXPECT_TRUE(hit == 7 || hit == 8 || hit == 9);
  EXPECT_EQ(-999, lookup(cache, 0));
  // Overwriting from the oldest on puts each value back in exactly one entry.
  cache.add(10, 7);
  cache.add(20, 8);
  cache.add(30, 9);
  EXPECT_EQ(7, lookup(cache, 10));
  EXPECT_EQ(8, lookup(cache, 20));
  EXPECT_EQ(9, lookup(cache, 30));
  EXPECT_EQ(-999, lookup(cache, -1));
}

TEST(BlockCache, BinarySearchFindsEveryKeyInAnyInsertionOrder) {
  const int32_t keys[] = {500, -3, 70, 1000000, 0, 69, 71, -1};
  Cache cache(8);
  for (int i = 0; i < 8; ++i) cache.add(keys[i], i);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(i, lookup(cache, keys[i])) << keys[i];
  for (int32_t missing : {-4, -2, 1, 68, 72, 499, 501, 999999, 1000001}) {
    EXPECT_EQ(-999, lookup(cache, missing)) << missing;
  }
  // An add after a sort marks the order stale again; the next get still finds everything.
  cache.add(250, 8);  // overwrites the least recently used entry, key 500 (hit first)
  EXPECT_EQ(-999, lookup(cache, 500));
  EXPECT_EQ(8, lookup(cache, 250));
  EXPECT_EQ(1, lookup(cache, -3));
}

TEST(BlockCache, ShrinkingKeepsTheMostRecentlyUsed) {
  Cache cache(4);
  cache.add(1, 10);
  cache.add(2, 20);
  cache.add(3, 30);
  cache.add(4, 40);
  EXPECT_EQ(10, lookup(cache, 1));  // now 2 is the oldest, then 3
  cache.setSize(1);                  // becomes 2: keeps 1 and 4
  EXPECT_EQ(-999, lookup(cache, 2));
  EXPECT_EQ(-999, lookup(cache, 3));
  EXPECT_EQ(40, lookup(cache, 4));
  EXPECT_EQ(10, lookup(cache, 1));
  EXPECT_EQ(40, *cache.getOld());  // full at size 2
  cache.setSize(3);                // room again: no victim until a third entry
  EXPECT_EQ(nullptr, cache.getOld());
  cache.add(5, 50);
  EXPECT_EQ(40, *cache.getOld());
}

}  // namespace
