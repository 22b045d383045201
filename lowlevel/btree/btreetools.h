// Copies of a finished tree into other forms. None of them changes the source.
#ifndef LOWLEVEL_BTREE_BTREETOOLS_H
#define LOWLEVEL_BTREE_BTREETOOLS_H

#include <string>

// Writes a compressed, read-only copy of the tree `sourceName` to `targetName`: records cut down to
// the bytes they hold, in depth-first order. Refuses a compressed source and trees whose key width
// is too small to gain anything (both reported).
bool compressBTree(const std::string& sourceName, const std::string& targetName);

// Writes a copy whose pages lie in depth-first order, every child behind its parent, so that a
// descent reads the file forward. Refuses a compressed source (reported).
bool orderBTree(const std::string& sourceName, const std::string& targetName);

// Builds the tree anew from the source's keys in order, with full pages and the fewest levels, with
// `order` (below 2: the source's order).
bool repackBTree(const std::string& sourceName, const std::string& targetName, int order);

#endif
