// The one descent of the tree, and the lookups built on it.
#include <cstring>
#include <new>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_walk.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/support/support.h"

namespace {
const char kModule[] = "btree";

// Eight bytes as a number whose order is the bytes' unsigned order.
inline uint64_t bigEndianWord(const unsigned char* p) {
  uint64_t word;
  std::memcpy(&word, p, sizeof word);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  word = __builtin_bswap64(word);
#endif
  return word;
}

// The comparison of BTreePageKey::compare (unsigned bytes, then the shorter first), for a slot of
// `width` bytes as it lies in a record. Eight bytes at a time: a search compares many keys, and a
// call of memcmp for each costs more than the comparison itself.
inline int compareSlot(const unsigned char* slot, uint32_t width, const BTreePageKey& key) {
  const uint32_t n = width < key.size ? width : key.size;
  const unsigned char* other = key.data;
  uint32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const uint64_t a = bigEndianWord(slot + i);
    const uint64_t b = bigEndianWord(other + i);
    if (a != b) return a < b ? -1 : 1;
  }
  for (; i < n; ++i) {
    if (slot[i] != other[i]) return slot[i] < other[i] ? -1 : 1;
  }
  if (width == key.size) return 0;
  return width < key.size ? -1 : 1;
}

// The first of `count` keys that does not sort before the key sought, scanning from the left as
// the search always has (on a page whose keys are out of order it gives what it gave before);
// `equal` tells whether that key is the one sought.
template <class Compare>
uint32_t scan(uint32_t count, Compare compare, bool& equal) {
  for (uint32_t i = 0; i < count; ++i) {
    const int order = compare(i);
    if (order >= 0) {
      equal = order == 0;
      return i;
    }
  }
  equal = false;
  return count;
}

// The index `scan` gives, found by halving: on keys that never sort before the key in front of
// them, the keys before the first one at or after the key sought are exactly the keys before it,
// so both give the same index and the same `equal`.
template <class Compare>
uint32_t halve(uint32_t count, Compare compare, bool& equal) {
  uint32_t low = 0, high = count;
  int atHigh = 1;
  while (low < high) {
    const uint32_t middle = low + (high - low) / 2;
    const int order = compare(middle);
    if (order < 0) {
      low = middle + 1;
    } else {
      high = middle;
      atHigh = order;
    }
  }
  equal = low < count && atHigh == 0;
  return low;
}

// Whether the slot `a` sorts after the slot `b`, both `width` bytes: memcmp's order, inline (the
// note of a cached record is taken again after every write of it, and a call per key costs more
// than the comparison).
inline bool slotAfter(const unsigned char* a, const unsigned char* b, uint32_t width) {
  uint32_t i = 0;
  for (; i + 8 <= width; i += 8) {
    const uint64_t x = bigEndianWord(a + i);
    const uint64_t y = bigEndianWord(b + i);
    if (x != y) return x > y;
  }
  for (; i < width; ++i) {
    if (a[i] != b[i]) return a[i] > b[i];
  }
  return false;
}

// Whether every key of `record` sorts at or after the one before it.
bool keysAscending(const BTreeRecord& record, uint32_t width) {
  for (uint32_t i = 1; i < record.keyCount; ++i) {
    const unsigned char* key = record.keys + size_t{i} * width;
    if (slotAfter(key - width, key, width)) return false;
  }
  return true;
}

// The scan's answer for a record. A record the page cache holds carries a note of whether its keys
// are in order, taken once per cached record; then halving gives the same answer in far fewer
// comparisons. A record whose keys are out of order (a damaged file) is always scanned.
template <class Compare>
uint32_t searchRecord(const BTreeRecord& record, uint32_t width, Compare compare, bool& equal) {
  if (record.keyOrder != nullptr) {
    if (*record.keyOrder == kKeyOrderUnknown) {
      *record.keyOrder = keysAscending(record, width) ? kKeyOrderAscending : kKeyOrderUnordered;
    }
    if (*record.keyOrder == kKeyOrderAscending) return halve(record.keyCount, compare, equal);
  }
  return scan(record.keyCount, compare, equal);
}

// A new cursor page holding what `result` held (result is left a placeholder).
BTreePage* cursorPage(BTreePage& result) {
  BTreePage* page = new BTreePage(0, 0);
  page->swap(result);
  return page;
}
}  // namespace

// Goes down one level per page read. The pages passed through are looked at where they lie in the
// page file's buffer or the page cache; none is built.
BTreeDescent btreeDescend(BTreePageFile& pageFile, const BTreePage& root, const BTreePageKey& key,
                          BTreeRecord& record, uint32_t& index, bool& equal) {
  equal = false;
  index = scan(
      root.keyCount,
      [&](uint32_t i) { return compareSlot(root.keys[i].data, root.keys[i].size, key); }, equal);
  int32_t child = root.children[index];
  if (equal || child == -1) return BTreeDescent::AtRoot;
  BTreeWalkBudget budget(pageFile);
  const uint32_t width = static_cast<uint32_t>(pageFile.hdr.keyLength);
  for (;;) {
    if (!budget.step() || !pageFile.readRecord(child, record)) return BTreeDescent::Failed;
    index = searchRecord(
        record, width,
        [&](uint32_t i) { return compareSlot(record.keys + size_t{i} * width, width, key); },
        equal);
    child = record.child(index);
    if (equal || child == -1) return BTreeDescent::AtRecord;
  }
}

void BTree::reportUnreadablePage() {
  reporterLL("Unable to read page.", "BTree::Search", eReportError, kModule, __LINE__);
}

// Only the page the search ends on is built. A read that fails, or a descent deeper than the file
// can hold (a corrupt link), reports and returns false with `result` untouched; callers pass a
// placeholder and tell that case by it.
bool BTree::Search(const BTreePage& page, const BTreePageKey& key, BTreePage& result,
                   uint32_t& index) {
  bool equal = false;
  BTreeRecord record;
  switch (btreeDescend(*pageFile, page, key, record, index, equal)) {
    case BTreeDescent::AtRoot:
      result = page;
      return equal;
    case BTreeDescent::AtRecord:
      if (pageFile->decodeRecord(record, result)) return equal;
      break;
    case BTreeDescent::Failed:
      break;
  }
  reportUnreadablePage();
  return false;
}

bool BTree::find(int32_t& value, const char* key, int length) {
  clearCurPage();
  if (root == nullptr) return false;  // the file never opened: nothing to search
  if (pageFile->hdr.duplicates != 0) {
    if (!findGreaterThanOrEqual(value, key, length)) return false;
    BTreePageKey first = prepareKey(key, length, 0);
    const BTreePageKey& there = curPage->keys[curIndex];
    if (std::memcmp(there.data, first.data, first.size - 4) != 0) {
      clearCurPage();
      return false;
    }
    value = curPage->values[curIndex];
    return true;
  }
  BTreePageKey slot = prepareKey(key, length, 0);
  BTreePage result(0, 0);
  BTreePageRecycler recycler(*pageFile, result);
  uint32_t index = 0;
  bool equal = false;
  BTreeRecord record;
  switch (btreeDescend(*pageFile, *root, slot, record, index, equal)) {
    case BTreeDescent::AtRoot:
      if (!equal) return false;
      result = *root;
      break;
    case BTreeDescent::AtRecord:
      if (!equal) return false;  // a miss builds no page
      if (record.bytes != nullptr && keepCursorRecord(record)) {
        curIndex = index;
        value = record.value(index);
        return true;
      }
      if (!pageFile->decodeRecord(record, result)) {
        reportUnreadablePage();
        return false;
      }
      break;
    case BTreeDescent::Failed:
      reportUnreadablePage();
      return false;
  }
  curPage = cursorPage(result);
  curIndex = index;
  value = curPage->values[index];
  return true;
}

bool BTree::keepCursorRecord(const BTreeRecord& record) {
  const int64_t size = btreeRecordSize(pageFile->hdr.order, pageFile->hdr.keyLength);
  if (size <= 0) return false;
  try {
    curRecord.resize(static_cast<size_t>(size));
  } catch (const std::bad_alloc&) {
    return false;  // the page is built at once instead
  }
  std::memcpy(curRecord.data(), record.bytes, static_cast<size_t>(size));
  curRecordOffset = record.offset;
  curRecordPending = true;
  return true;
}

bool BTree::cursorReady() {
  if (!curRecordPending) return curPage != nullptr;
  curRecordPending = false;
  BTreeRecord record;
  BTreePage result(0, 0);
  if (!pageFile->recordFromCopy(curRecordOffset, curRecord.data(), record) ||
      !pageFile->decodeRecord(record, result)) {
    reportUnreadablePage();
    return false;
  }
  curPage = cursorPage(result);
  return true;
}

bool BTree::findGreaterThanOrEqual(int32_t& value, const char* key, int length) {
  clearCurPage();
  if (root == nullptr) return false;
  BTreePageKey slot = prepareKey(key, length, 0);
  BTreePage result(0, 0);
  uint32_t index = 0;
  bool found = Search(*root, slot, result, index);
  // A failed read leaves the placeholder: there is no page to stand on.
  if (!found && result.isPlaceholder()) return false;
  curPage = cursorPage(result);
  curIndex = index;
  if (found || curIndex < curPage->keyCount) {
    value = curPage->values[index];
    return true;
  }
  // Behind every key of the leaf: step back onto its last key (wrapping past 0 on an empty leaf,
  // which next takes as standing before the first key) and let next climb to the following key.
  curIndex -= 1;
  return next(value);
}
