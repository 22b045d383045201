// The one descent of the tree, and the lookups built on it.
#include <cstring>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_walk.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/support/support.h"

namespace {
const char kModule[] = "btree";

// Hands the page the search stopped on to `result`: a page read on the way is handed over whole,
// the page the search started from is copied.
void settle(const BTreePage* current, BTreePage& below, BTreePage& result) {
  if (current == &below) {
    result.swap(below);
  } else {
    result = *current;
  }
}

// A new cursor page holding what `result` held (result is left a placeholder).
BTreePage* cursorPage(BTreePage& result) {
  BTreePage* page = new BTreePage(0, 0);
  page->swap(result);
  return page;
}
}  // namespace

// Scans each page from the left and goes down one level per page read. A read that fails, or a
// descent deeper than the file can hold (a corrupt link), reports and returns false with `result`
// untouched; callers pass a placeholder and tell that case by it.
bool BTree::Search(const BTreePage& page, const BTreePageKey& key, BTreePage& result,
                   uint32_t& index) {
  BTreeWalkBudget budget(*pageFile);
  BTreePage below(0, 0);
  const BTreePage* current = &page;
  for (;;) {
    index = 0;
    while (index < current->keyCount) {
      int order = current->keys[index].compare(key);
      if (order == 0) {
        settle(current, below, result);
        return true;
      }
      if (order > 0) break;
      ++index;
    }
    int32_t child = current->children[index];
    if (child == -1) {
      settle(current, below, result);
      return false;
    }
    if (!budget.step() || !pageFile->readPage(child, below)) {
      reporterLL("Unable to read page.", "BTree::Search", eReportError, kModule, __LINE__);
      return false;
    }
    current = &below;
  }
}

bool BTree::find(int32_t& value, const char* key, int length) {
  clearCurPage();
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
  uint32_t index = 0;
  if (!Search(*root, slot, result, index)) return false;
  curPage = cursorPage(result);
  curIndex = index;
  value = curPage->values[index];
  return true;
}

bool BTree::findGreaterThanOrEqual(int32_t& value, const char* key, int length) {
  clearCurPage();
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
