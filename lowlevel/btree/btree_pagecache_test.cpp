// The page cache changes nothing but speed: one random run of changes, lookups, walks, parked files
// and a compressed copy gives the same answers, reports and file bytes with the cache off, tiny
// (always evicting) and large. Warm lookups make no system call; change checks see another writer.
// Searches of cached pages halve the keys when they are in order; on a damaged file whose leaves
// hold their keys in reverse, every answer must still be the left-to-right scan's.
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"
#include "lowlevel/btree/btreepagecache.h"
#include "lowlevel/btree/btreetools.h"
#include "lowlevel/files/file.h"
#include "tests/testsupport/testing.h"

namespace {

std::string key(uint32_t n) { return "k" + std::to_string(n % 500); }

std::string transcript(size_t cacheBytes) {
  setBTreePageCacheSize(cacheBytes);
  lltest::TempDir dir;
  lltest::RecordingSupport host;
  const std::string path = dir.file("t.btr");
  std::string out;
  std::mt19937 rng(7);
  {
    BTree tree(path, 5, 16, false, 0, 0, 0);
    tree.insertKey(1, "k1", 0);
    BTree reader(path, true, 0);  // shares the file's cached pages; its root stays as it was read
    for (int step = 0; step < 3000; ++step) {
      const std::string k = key(rng());
      int32_t v = static_cast<int32_t>(rng() % 1000);
      bool r = false;
      switch (rng() % 6) {
        case 0: case 1: r = tree.insertKey(v, k.c_str(), 0); break;
        case 2: r = tree.deleteKey(k.c_str(), 0); break;
        case 3: r = tree.find(v, k.c_str(), 0) && tree.next(v) && tree.prev(v); break;
        case 4: r = reader.findGreaterThanOrEqual(v, k.c_str(), 0) && reader.next(v); break;
        default: r = tree.replaceValue(v, k.c_str(), 0); break;
      }
      out += std::to_string(r) + ":" + std::to_string(v) + " ";
      if (step % 97 == 0) ZFile::CloseAll(ZFile::eAllFiles);
      if (step % 10 == 0) out += std::to_string(std::hash<std::string>()(lltest::readFile(path)));
      if (cacheBytes > 0 && BTreePageCache::instance().bytesUsed() > cacheBytes) return "over";
    }
    int32_t keys = 0, pages = 0, back = 0;
    out += std::to_string(tree.test(false, &keys, &pages, &back)) + std::to_string(keys);
  }
  out += lltest::readFile(path);
  {
    BTree source(dir.file("s.btr"), 5, 20, false, 0, 0, 0);
    for (uint32_t i = 0; i < 300; ++i) source.insertKey(static_cast<int32_t>(i), key(i * 7).c_str(), 0);
  }
  EXPECT_TRUE(compressBTree(dir.file("s.btr"), dir.file("c.btr")));
  BTree packed(dir.file("c.btr"), true, 0);
  for (int pass = 0; pass < 2; ++pass)
    for (const auto& e : btreetest::walk(packed, false)) out += std::to_string(e.second) + ",";
  out += lltest::reportsText(host.reports);
  setBTreePageCacheSize(0);
  return out;
}

TEST(BTreePageCache, NothingChangesButSpeedAndWarmLookupsMakeNoSystemCall) {
  const std::string plain = transcript(0);
  EXPECT_EQ(plain, transcript(4096));
  EXPECT_EQ(plain, transcript(kBTreePageCacheDefaultSize));
  EXPECT_EQ(0u, BTreePageCache::instance().bytesUsed());
  namespace io = lowlevel::platform;
  lltest::TempDir dir;
  for (size_t size : {size_t{0}, kBTreePageCacheDefaultSize}) {
    setBTreePageCacheSize(size);
    {
      BTree tree(dir.file("w.btr"), 8, 4, false, 0, 0, 0);
      for (int32_t i = 0; i < 2000; ++i) ASSERT_TRUE(tree.insertKey(i, i * 7));
      int32_t v = 0;
      ASSERT_TRUE(tree.find(v, 700));
      io::resetIoCounters();
      EXPECT_TRUE(tree.find(v, 700) && v == 100);
      // Off: one read for each of the four levels below the root. On: nothing at all.
      EXPECT_EQ(size == 0 ? 4u : 0u, size == 0 ? io::ioCounters().reads : io::ioCounters().total());
    }
    EXPECT_EQ(0u, BTreePageCache::instance().bytesUsed());
  }
  setBTreePageCacheSize(0);
}

// Another process is stood in for by bytes written past the library: the file of a tree with the
// same shape and other values, longer by a few bytes (so the size tells even where the clock
// cannot). Without checks the reader keeps what it cached; with them it reads the file afresh.
TEST(BTreePageCache, ChangeChecksSeeAWriterOutsideTheProcess) {
  lltest::TempDir dir;
  auto build = [&](const std::string& name, int32_t bias) {
    BTree tree(dir.file(name), 4, 4, false, 0, 0, 0);
    for (int32_t i = 0; i < 200; ++i) tree.insertKey(i + bias, i);
  };
  build("b.btr", 1000);
  const std::string other = lltest::readFile(dir.file("b.btr")) + std::string(64, '\0');
  for (bool check : {false, true}) {
    build("t.btr", 0);
    setBTreePageCacheSize(kBTreePageCacheDefaultSize);
    setBTreePageCacheCheck(check);
    BTree reader(dir.file("t.btr"), true, 0);
    int32_t v = 0, depth = 0, index = 0;
    ASSERT_TRUE(reader.find(v, 77) && reader.getCurrentKeyDepthAndIndex(depth, index) && depth > 0);
    lltest::writeFile(dir.file("t.btr"), other);
    EXPECT_TRUE(reader.find(v, 77) && v == (check ? 1077 : 77));
  }
  setBTreePageCacheCheck(false);
  setBTreePageCacheSize(0);
}

std::string answers(const std::string& path, size_t cacheBytes) {
  setBTreePageCacheSize(cacheBytes);
  BTree tree(path, true, 0);
  std::string out;
  for (uint32_t n = 0; n < 260; ++n) {  // every probe twice: cold, then warm
    int32_t v = -1, w = -1;
    out += std::to_string(tree.find(v, key(100 + n % 130).c_str(), 0)) + std::to_string(v) + " ";
    out += std::to_string(tree.findGreaterThanOrEqual(w, key(100 + n % 130).c_str(), 0)) + std::to_string(w);
  }
  return out;
}

TEST(BTreePageCache, HalvingAnswersAsTheScanOnPagesInAndOutOfOrder) {
  lltest::TempDir dir;
  const std::string path = dir.file("t.btr");
  std::vector<btreetest::Entry> entries;
  for (uint32_t n = 0; n < 120; n += 2) entries.emplace_back(key(100 + n), n);
  ASSERT_TRUE(btreetest::makeTree(path, 8, 8, false, entries));
  const std::string sorted = answers(path, 0);
  EXPECT_EQ(sorted, answers(path, 1 << 20));
  // Every leaf (first child -1) gets its keys reversed: record = 28-byte head, 7 slots of 8 bytes,
  // 7 values, 8 children.
  std::string bytes = lltest::readFile(path);
  int moved = 0;
  for (size_t at = 46; at + 144 <= bytes.size(); at += 144) {
    if (bytes.compare(at + 112, 4, "\xff\xff\xff\xff") != 0) continue;
    std::string keys;
    for (size_t i = static_cast<unsigned char>(bytes[at + 20]); i-- > 0; ++moved) keys += bytes.substr(at + 28 + 8 * i, 8);
    bytes.replace(at + 28, keys.size(), keys);
  }
  ASSERT_GT(moved, 30);
  lltest::writeFile(path, bytes);
  const std::string reversed = answers(path, 0);
  EXPECT_NE(sorted, reversed);  // the damage shows: some keys are no longer found
  EXPECT_EQ(reversed, answers(path, 1 << 20));
  setBTreePageCacheSize(0);
}


// The index of cached positions against a map, through growth, erasures that shift probe chains
// back, and clearing. Half the positions hash to the last buckets of the table (found with the
// index's hash), so that their chains wrap around its end.
TEST(BTreeCacheIndex, AgreesWithAMap) {
  std::vector<int32_t> crowded;
  for (int32_t p = 46; crowded.size() < 40; p += 104)
    if ((static_cast<uint32_t>(p) * 2654435769u) >> 24 >= 0xFC) crowded.push_back(p);
  BTreeCacheIndex index;
  std::map<int32_t, uint32_t> model;
  std::mt19937 rng(3);
  for (uint32_t step = 0; step < 20000; ++step) {
    const int32_t position = rng() % 2 ? crowded[rng() % crowded.size()] : static_cast<int32_t>(rng() % 300) * 46;
    if (step == 15000) {
      index.clear();
      model.clear();
    } else if (rng() % 3 == 0) {
      index.erase(position);
      model.erase(position);
    } else {
      ASSERT_TRUE(index.set(position, BTreeCacheRef{step, nullptr}));
      model[position] = step;
    }
    const BTreeCacheRef* at = index.find(position);
    ASSERT_EQ(at ? int64_t{at->slot} : -1, model.count(position) ? int64_t{model[position]} : -1) << step;
  }
  size_t slots = 0;
  index.forEachSlot([&](uint32_t) { ++slots; });
  EXPECT_EQ(slots, model.size());
  for (const auto& entry : model) EXPECT_EQ(index.find(entry.first)->slot, entry.second);
}

}  // namespace
