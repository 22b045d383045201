// The cursor: one private copy of a page and an index into it. It climbs through the parent links
// that every page keeps on disk, so it holds no path.
//
// Choices where the file is not sound:
// - a page read that fails inside first, last, next or prev drops the cursor, so a position that
//   became undefined is never used; the call returns false;
// - every descent and climb is bounded by the number of pages the file can hold, so a corrupt link
//   makes the call fail (and drop the cursor) instead of looping;
// - a cursor that has moved more often than the file can hold entries runs in a cycle, so next and
//   prev fail from then on (see cursorStep);
// - a leaf without keys (order 2 splits leave them) is stepped over, so the cursor always stands on
//   a real key.
#include <cstring>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_walk.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"

namespace {

// The cursor's fields, handed to the helpers below.
struct Cursor {
  BTreePageFile& file;
  BTreePage*& page;
  uint32_t& index;
  BTreeWalkBudget budget;

  Cursor(BTreePageFile& f, BTreePage*& p, uint32_t& i) : file(f), page(p), index(i), budget(f) {}

  void drop() {
    if (page != nullptr) file.recycle(*page);
    delete page;
    page = nullptr;
  }
  // Replaces the cursor's page by the one at `offset`; on failure the cursor is dropped.
  bool load(int32_t offset) {
    if (budget.step() && file.readPage(offset, *page)) return true;
    drop();
    return false;
  }
  bool land(int32_t& value) {
    value = page->values[index];
    return true;
  }

  // From the leftmost key of the subtree at `child` on.
  bool firstBelow(int32_t child, int32_t& value) {
    if (!load(child)) return false;
    while (page->children[0] != -1)
      if (!load(page->children[0])) return false;
    index = 0;
    if (page->keyCount > 0) return land(value);
    return climbForward(value);
  }
  // From the rightmost key of the subtree at `child` on.
  bool lastBelow(int32_t child, int32_t& value) {
    if (!load(child)) return false;
    index = page->keyCount;
    while (page->children[index] != -1) {
      if (!load(page->children[index])) return false;
      index = page->keyCount;
    }
    if (index > 0) {
      index -= 1;
      return land(value);
    }
    return climbBackward(value);
  }
  // The page is used up going forward: the following key is the one to the right of the child we
  // come from, in the first ancestor where that child is not the last.
  bool climbForward(int32_t& value) {
    for (;;) {
      if (page->parentOffset == -1) {
        drop();
        return false;
      }
      int32_t from = page->offset;
      if (!load(page->parentOffset)) return false;
      for (index = 0; index < page->keyCount; ++index)
        if (page->children[index] == from) return land(value);
    }
  }
  // The page is used up going backward: the preceding key is the one to the left of the child we
  // come from, in the first ancestor where that child is not the first.
  bool climbBackward(int32_t& value) {
    for (;;) {
      if (page->parentOffset == -1) {
        drop();
        return false;
      }
      int32_t from = page->offset;
      if (!load(page->parentOffset)) return false;
      for (index = 0; index <= page->keyCount; ++index) {
        if (page->children[index] != from) continue;
        if (index == 0) break;
        index -= 1;
        return land(value);
      }
    }
  }
};

}  // namespace

bool BTree::first(int32_t& value) {
  clearCurPage();
  if (root == nullptr || root->keyCount == 0) return false;
  curPage = new BTreePage(*root);
  curIndex = 0;
  Cursor cursor(*pageFile, curPage, curIndex);
  if (curPage->children[0] != -1) return cursor.firstBelow(curPage->children[0], value);
  return cursor.land(value);
}

bool BTree::last(int32_t& value) {
  clearCurPage();
  if (root == nullptr || root->keyCount == 0) return false;
  curPage = new BTreePage(*root);
  curIndex = curPage->keyCount;
  Cursor cursor(*pageFile, curPage, curIndex);
  int32_t child = curPage->children[curIndex];
  if (child != -1) return cursor.lastBelow(child, value);
  curIndex -= 1;
  return cursor.land(value);
}

bool BTree::cursorStep() {
  // The length costs a system call, so it is only asked for after the first steps of a walk.
  constexpr int64_t kFreeSteps = 64;
  if (++curSteps <= kFreeSteps) return true;
  if (curStepLimit < 0) curStepLimit = pageFile->recordLimit() * (pageFile->hdr.order - 1);
  return curSteps <= curStepLimit;
}

bool BTree::next(int32_t& value) {
  if (!cursorReady()) return false;
  Cursor cursor(*pageFile, curPage, curIndex);
  if (!cursorStep()) {
    cursor.drop();
    return false;
  }
  // Unsigned: a cursor stepped back before index 0 of an empty leaf comes to 0 here.
  uint32_t i = curIndex + 1;
  if (i > curPage->keyCount) {  // never made by this class; refuse rather than read past the page
    cursor.drop();
    return false;
  }
  if (curPage->children[i] != -1) return cursor.firstBelow(curPage->children[i], value);
  if (i < curPage->keyCount) {
    curIndex = i;
    return cursor.land(value);
  }
  return cursor.climbForward(value);
}

bool BTree::prev(int32_t& value) {
  if (!cursorReady()) return false;
  Cursor cursor(*pageFile, curPage, curIndex);
  if (!cursorStep()) {
    cursor.drop();
    return false;
  }
  if (curIndex > curPage->keyCount) {
    cursor.drop();
    return false;
  }
  if (curPage->children[curIndex] != -1) return cursor.lastBelow(curPage->children[curIndex], value);
  if (curIndex > 0) {
    curIndex -= 1;
    return cursor.land(value);
  }
  return cursor.climbBackward(value);
}

bool BTree::getCurrentKey(char* key, int& length) {
  if (!cursorReady() || curIndex >= curPage->keyCount) return false;
  const BTreePageKey& current = curPage->keys[curIndex];
  if (current.data == nullptr) return false;
  int n = static_cast<int>(current.size) - (pageFile->hdr.duplicates != 0 ? 4 : 0);
  if (n < 0) n = 0;
  if (n > length) {
    length = n;
    return false;
  }
  length = n;
  std::memcpy(key, current.data, static_cast<size_t>(n));
  return true;
}

bool BTree::getCurrentKeyDepthAndIndex(int& depth, int& index) {
  if (!cursorReady()) return false;
  depth = 0;
  BTreePage page(*curPage);
  BTreeWalkBudget budget(*pageFile);
  while (page.parentOffset != -1) {
    if (!budget.step() || !pageFile->readPage(page.parentOffset, page)) return false;
    ++depth;
  }
  index = static_cast<int>(curIndex);
  return true;
}

int BTree::depth() {
  if (root == nullptr) return -1;
  BTreePage page(*root);
  BTreeWalkBudget budget(*pageFile);
  int levels = 0;
  while (page.children[0] != -1) {
    if (!budget.step() || !pageFile->readPage(page.children[0], page)) return -1;
    ++levels;
  }
  return levels;
}
