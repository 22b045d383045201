// Copies of a finished tree into other forms. None of them changes the source.
//
// Common to all three: a source or target that does not open gives false. A target that names the
// same file as the source (after its location prefix is resolved, links included) is refused with
// a report before anything is created. A run that fails on a read or write (or on a corrupt source:
// links that lead to a page twice, or to a page that is not in the tree) returns false at once and
// leaves the incomplete target on disk as far as it was written: it must not be trusted, and its
// header may even open. The source is untouched in every case. No target grows to offset
// 2^31 - 1: the record that would reach it is refused with a report before it is written, and the
// copy stops there, as after any failed write. (An ordered copy is never longer than its source.)
//
// The library itself never calls them, but they are exported: the `lowlevel` tool and users who
// ship trees build their read-only copies with them.
#ifndef LOWLEVEL_BTREE_BTREETOOLS_H
#define LOWLEVEL_BTREE_BTREETOOLS_H

#include <cstdint>
#include <functional>
#include <string>

#include "lowlevel/lowlevel_export.h"

class BTree;

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

// One entry for bulkBuildBTree: the caller's key as insertKey takes it, and its value.
struct BTreeBulkEntry {
  const char* key = nullptr;
  int length = 0;  // 0: a zero-terminated text
  int32_t value = 0;
};

// The shape of the tree bulkBuildBTree makes, as the creating BTree constructor takes it, and how
// full its pages are: `fillPercent` of order - 1 keys (kept between minKeys and order - 1).
struct BTreeBulkShape {
  int order = 64;
  int keyLength = 16;
  bool duplicates = false;
  uint32_t lcid = 0;
  uint32_t mapFlags = 0;
  int16_t spaceConversion = 0;
  int fillPercent = 100;
};

// Builds a new tree in `targetName` (replacing a file of that name) from exactly `count` entries
// that `next` hands out one at a time (false: no more), in the order of the tree: their slots, after
// the key conversion that insertKey applies, strictly ascending; with duplicates a key's entries
// come in the order of their values as the slot stores them (big-endian, unsigned). Every page is
// written once, depth-first, the root at 46 and each child behind its parent; all leaves lie at
// one depth and every page but the root holds at least minKeys keys (for an even order, where no
// such shape exists for a count, minKeys - 1, as a split leaves them). The result takes inserts and
// deletes like any tree.
//
// Refused, with the 0-based position of the entry in `failedEntry` and a report: an entry whose
// slot is below the one before ("out of order") or equal to it ("repeats"), fewer or more entries
// than `count`. A shape the constructor refuses, or a failing write, is false with -1 there. After
// any refusal the target's header is cleared, so that the file never opens as a tree.
LOWLEVEL_EXPORT bool bulkBuildBTree(const std::string& targetName, const BTreeBulkShape& shape,
                                    int64_t count, const std::function<bool(BTreeBulkEntry&)>& next,
                                    int64_t* failedEntry);

// The slot `tree` would store for a key (conversion, cut or padding, value tail), for callers that
// sort entries for bulkBuildBTree. Empty when the tree is not ok.
LOWLEVEL_EXPORT std::string btreeKeySlot(BTree& tree, const char* key, int length, int32_t value);

#endif
