// Member definitions of ZBlockCache; included by blockcache.h only.
//
// Entries are kept highest key first. add() only marks the vector unsorted; the sort waits for the
// next get(). Every use takes the next clock value as its stamp, so stamps are unique and the lowest
// one names the least recently used entry. The clock is never reset; should it wrap after 2^32 uses,
// only the choice of victim is affected.
#ifndef LOWLEVEL_FILES_BLOCKCACHE_IMPL_H
#define LOWLEVEL_FILES_BLOCKCACHE_IMPL_H

#include <algorithm>

template <class Key, class Value>
ZBlockCache<Key, Value>::ZBlockCache(int size) : m_nSize(size < 2 ? 2 : size), m_bUnsorted(false),
                                                 m_nClock(1) {
  m_vEntries.reserve(static_cast<size_t>(m_nSize));
}

template <class Key, class Value>
void ZBlockCache<Key, Value>::setSize(int size) {
  if (size < 2) size = 2;
  if (static_cast<size_t>(size) < m_vEntries.size()) {
    // Keep the most recently used entries.
    std::sort(m_vEntries.begin(), m_vEntries.end(),
              [](const ZBlockCacheEntry<Key, Value>& a, const ZBlockCacheEntry<Key, Value>& b) {
                return a.stamp < b.stamp;
              });
    std::reverse(m_vEntries.begin(), m_vEntries.end());
    m_vEntries.resize(static_cast<size_t>(size));
    m_bUnsorted = true;
  }
  if (m_vEntries.capacity() < static_cast<size_t>(size)) {
    m_vEntries.reserve(static_cast<size_t>(size));
  }
  m_nSize = size;
}

template <class Key, class Value>
Value* ZBlockCache<Key, Value>::get(const Key& key) {
  if (m_vEntries.empty()) return nullptr;
  if (m_bUnsorted) {
    std::sort(m_vEntries.begin(), m_vEntries.end(),
              [](const ZBlockCacheEntry<Key, Value>& a, const ZBlockCacheEntry<Key, Value>& b) {
                return b.key < a.key;
              });
    m_bUnsorted = false;
  }
  // The first entry whose key is below the wanted one, then one step back.
  auto it = std::upper_bound(
      m_vEntries.begin(), m_vEntries.end(), key,
      [](const Key& wanted, const ZBlockCacheEntry<Key, Value>& e) { return e.key < wanted; });
  if (it != m_vEntries.begin()) --it;
  if (!(it->key == key)) return nullptr;
  it->stamp = m_nClock++;
  return &it->value;
}

template <class Key, class Value>
Value* ZBlockCache<Key, Value>::getOld() {
  if (m_vEntries.size() < static_cast<size_t>(m_nSize)) return nullptr;
  size_t oldest = 0;
  for (size_t i = 1; i < m_vEntries.size(); ++i) {
    if (m_vEntries[i].stamp < m_vEntries[oldest].stamp) oldest = i;
  }
  return &m_vEntries[oldest].value;
}

template <class Key, class Value>
void ZBlockCache<Key, Value>::add(const Key& key, const Value& value) {
  m_bUnsorted = true;
  if (m_vEntries.size() < static_cast<size_t>(m_nSize)) {
    m_vEntries.push_back(ZBlockCacheEntry<Key, Value>{m_nClock, key, value});
  } else {
    size_t oldest = 0;
    for (size_t i = 1; i < m_vEntries.size(); ++i) {
      if (m_vEntries[i].stamp < m_vEntries[oldest].stamp) oldest = i;
    }
    m_vEntries[oldest].stamp = m_nClock;
    m_vEntries[oldest].key = key;
    m_vEntries[oldest].value = value;
  }
  ++m_nClock;
}

#endif
