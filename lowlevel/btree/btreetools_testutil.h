// Helpers shared by the tests of the tree copying tools.
#ifndef LOWLEVEL_BTREE_BTREETOOLS_TESTUTIL_H
#define LOWLEVEL_BTREE_BTREETOOLS_TESTUTIL_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "lowlevel/btree/btree.h"

namespace btreetoolstest {

using Entry = std::pair<std::string, int32_t>;  // the key as getCurrentKey gives it, and its value

inline int32_t le32(const std::string& bytes, size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(bytes.at(at + i));
  return static_cast<int32_t>(v);
}

// Every entry by the cursor, forward (first/next) or backward (last/prev). A walk that does not end
// within `limit` steps is cut off, so a looping cursor shows as a wrong result, not a hang.
inline std::vector<Entry> walk(BTree& tree, bool backward, size_t limit = 100000) {
  std::vector<Entry> out;
  int32_t value = 0;
  bool more = backward ? tree.last(value) : tree.first(value);
  while (more && out.size() < limit) {
    std::string key(static_cast<size_t>(tree.getKeyLength()), '\0');
    int length = static_cast<int>(key.size());
    if (!tree.getCurrentKey(&key[0], length)) break;
    key.resize(static_cast<size_t>(length));
    out.emplace_back(key, value);
    more = backward ? tree.prev(value) : tree.next(value);
  }
  return out;
}

// Creates a tree at `path` holding `entries` (keys by their exact bytes).
inline bool makeTree(const std::string& path, int order, int width, bool duplicates,
                     const std::vector<Entry>& entries) {
  BTree tree(path, order, width, duplicates, 0, 0, 0);
  if (!tree.isOk()) return false;
  for (const Entry& e : entries) {
    if (!tree.insertKey(e.second, e.first.data(), static_cast<int>(e.first.size()))) return false;
  }
  return true;
}

}  // namespace btreetoolstest

#endif
