// Helpers shared by the tests of the tree copying tools.
#ifndef LOWLEVEL_BTREE_BTREETOOLS_TESTUTIL_H
#define LOWLEVEL_BTREE_BTREETOOLS_TESTUTIL_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_testing.h"

namespace btreetoolstest {

using btreetest::Entry;
using btreetest::walk;

inline int32_t le32(const std::string& bytes, size_t at) { return btreetest::field(bytes, at); }

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
