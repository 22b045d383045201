// Copies of a finished tree into other forms. None of them changes the source.
//
// Common to all three: a source or target that does not open gives false. A target that names the
// same file as the source (after its location prefix is resolved, links included) is refused with
// a report before anything is created. A run that fails on a read or write (or on a corrupt source:
// links that lead to a page twice, or to a page that is not in the tree) returns false at once and
// leaves the incomplete target on disk as far as it was written: it must not be trusted, and its
// header may even open. The source is untouched in every case.
//
// The library itself never calls them, but they are exported: the `lowlevel` tool and users who
// ship trees build their read-only copies with them.
#ifndef LOWLEVEL_BTREE_BTREETOOLS_H
#define LOWLEVEL_BTREE_BTREETOOLS_H

#include <string>

#include "lowlevel/lowlevel_export.h"

// Writes a compressed, read-only copy of the tree `sourceName` to `targetName`: records cut down to
// the bytes they hold, in depth-first order. Refuses a compressed source and trees whose key width
// is too small to gain anything (both reported). Key widths above 32767 bytes do not fit the
// record's table of lengths and are refused (reported).
LOWLEVEL_EXPORT bool compressBTree(const std::string& sourceName, const std::string& targetName);

// Writes a copy whose pages lie in depth-first order, every child behind its parent, so that a
// descent reads the file forward. Refuses a compressed source (reported).
LOWLEVEL_EXPORT bool orderBTree(const std::string& sourceName, const std::string& targetName);

// Builds the tree anew from the source's keys in order, with full pages and the fewest levels, with
// `order` (below 2: the source's order). The result keeps key order but not the fill and balance
// rules that insertion and deletion rely on: it is meant for reading. Keys wider than 1024 bytes
// cannot be repacked.
LOWLEVEL_EXPORT bool repackBTree(const std::string& sourceName, const std::string& targetName,
                                 int order);

#endif
