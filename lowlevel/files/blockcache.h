// ZBlockCache: a small least-recently-used cache held in a plain vector, used by the compressed file
// reader to find expanded chunks and to choose which chunk buffer to overwrite.
#ifndef LOWLEVEL_FILES_BLOCKCACHE_H
#define LOWLEVEL_FILES_BLOCKCACHE_H

#include <cstdint>
#include <vector>

template <class Key, class Value>
struct ZBlockCacheEntry {
  uint32_t stamp;  // clock value at the last use; lowest is least recently used
  Key key;
  Value value;     // not owned
};

template <class Key, class Value>
class ZBlockCache {
 public:
  // A size below 2 becomes 2.
  explicit ZBlockCache(int size);
  // Changes the most entries held, dropping the least recently used ones if need be.
  void setSize(int size);
  // The value stored under `key` (the entry becomes the most recently used), or null on a miss.
  // The pointer is good until the next operation on the cache.
  Value* get(const Key& key);
  // The value of the least recently used entry, or null while the cache is not full. Evicts nothing
  // and changes no stamp.
  Value* getOld();
  // Stores the pair, overwriting the least recently used entry when the cache is full.
  void add(const Key& key, const Value& value);

 private:
  int m_nSize;
  bool m_bUnsorted;
  uint32_t m_nClock;
  std::vector<ZBlockCacheEntry<Key, Value>> m_vEntries;
};

#include "lowlevel/files/blockcache_impl.h"

#endif
