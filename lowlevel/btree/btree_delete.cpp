// Deletion, rebalancing and value replacement.
//
// A key leaves a page physically only at a leaf: a key of an interior page is replaced by its
// in-order successor. A page that falls below minKeys borrows one key through its parent from a
// sibling, or is merged with a sibling and the separator; a merge takes a key out of the parent and
// may carry the underflow up to the root, which then loses a level. All work is done on local
// copies of pages; `root` is brought up to date whenever the root page is written.
#include <cstdint>
#include <deque>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_walk.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/support/support.h"

namespace {

const char kModule[] = "btree";

// An unused slot: empty key, value 0.
void clearSlot(BTreePage& page, uint32_t i) {
  page.keys[i] = BTreePageKey();
  page.values[i] = 0;
}

// Copies key and value of slot `from` of `source` to slot `to` of `target`.
void moveSlot(const BTreePage& source, uint32_t from, BTreePage& target, uint32_t to) {
  target.keys[to] = source.keys[from];
  target.values[to] = source.values[from];
}

// Takes key `keyIndex` and child `childIndex` (keyIndex or keyIndex + 1) out of `page`, closing
// both gaps and clearing the slots that fall out of use.
void removeKeyAndChild(BTreePage& page, uint32_t keyIndex, uint32_t childIndex) {
  page.keyCount -= 1;
  for (uint32_t j = keyIndex; j < page.keyCount; ++j) moveSlot(page, j + 1, page, j);
  clearSlot(page, page.keyCount);
  for (uint32_t j = childIndex; j <= page.keyCount; ++j) page.children[j] = page.children[j + 1];
  page.children[page.keyCount + 1] = -1;
}

bool isRoot(const BTreePage& page) { return page.parentOffset == -1; }

// Reads the page at `offset`, gives it `parentOffset` and writes it back.
bool reparent(BTreePageFile& pageFile, int32_t offset, int32_t parentOffset) {
  BTreePage child(0, 0);
  if (!pageFile.readPage(offset, child)) return false;
  child.parentOffset = parentOffset;
  return pageFile.writePage(child, false);
}

}  // namespace

bool BTree::deleteKeyNow(const char* key, int length) {
  if (pageFile->hdr.duplicates != 0) {
    reporterLL("Duplicates are NOT supported by deleteKey without specifying associated value.",
               "BTree::deleteKey", eReportError, kModule, __LINE__);
    return false;
  }
  if (key == nullptr || length < 0) {
    clearCurPage();
    return false;
  }
  if (convertKey(key, length)) {
    key = convertBuffer;
    length = convertLength;
  }
  BTreePageKey slot(root->keyLength, key, static_cast<unsigned>(length));
  if (!internalDeleteKey(slot)) return false;
  pageFile->keyCount -= 1;
  return true;
}

// The value goes into the slot's last four bytes whether or not the tree has duplicates; a slot
// narrower than that tail cannot be built, and the deletion then finds nothing.
bool BTree::deleteKeyNow(int32_t value, const char* key, int length) {
  if (key == nullptr || length < 0 || root->keyLength < 4) {
    clearCurPage();
    return false;
  }
  if (convertKey(key, length)) {
    key = convertBuffer;
    length = convertLength;
  }
  BTreePageKey slot(root->keyLength, key, static_cast<unsigned>(length), value);
  if (!internalDeleteKey(slot)) return false;
  pageFile->keyCount -= 1;
  return true;
}

bool BTree::replaceValueNow(int32_t value, const char* key, int length) {
  if (pageFile->hdr.duplicates != 0) {
    reporterLL("Duplicates are NOT supported.", "BTree::replaceValue", eReportError, kModule,
               __LINE__);
    return false;
  }
  if (key == nullptr || length < 0) return false;
  if (convertKey(key, length)) {
    key = convertBuffer;
    length = convertLength;
  }
  BTreePageKey slot(root->keyLength, key, static_cast<unsigned>(length));
  BTreePage page(0, 0);
  BTreePageRecycler recycler(*pageFile, page);
  uint32_t index = 0;
  if (!Search(*root, slot, page, index) || page.isPlaceholder() || index >= page.keyCount) {
    return false;
  }
  page.values[index] = value;
  if (!pageFile->writePage(page, false)) return false;
  if (isRoot(page)) *root = page;
  return true;
}

bool BTree::internalDeleteKey(BTreePageKey& key) {
  clearCurPage();
  BTreePage page(0, 0);
  BTreePageRecycler recycler(*pageFile, page);
  uint32_t index = 0;
  bool equal = false;
  BTreeRecord record;
  switch (btreeDescend(*pageFile, *root, key, record, index, equal)) {
    case BTreeDescent::AtRoot:
      if (!equal) return false;
      page = *root;
      break;
    case BTreeDescent::AtRecord:
      if (!equal) return false;
      // Most deletions take a key from a leaf below the root that has one to spare: its record
      // gives the key up as it lies.
      if (record.child(0) == -1 && record.parentOffset != -1 &&
          record.keyCount > static_cast<uint32_t>(pageFile->hdr.order >> 1) &&
          pageFile->hdr.compressed == 0)
        return pageFile->removeFromRecord(record, index);
      if (pageFile->decodeRecord(record, page)) break;
      reportUnreadablePage();
      return false;
    case BTreeDescent::Failed:
      reportUnreadablePage();
      return false;
  }
  if (index >= page.keyCount) return false;
  if (page.children[0] != -1) return deleteFromInterior(page, index);

  removeKeyAndChild(page, index, index + 1);
  if (!pageFile->writePage(page, false)) return false;
  if (isRoot(page)) {
    *root = page;
    return true;
  }
  if (page.keyCount < page.minKeys) return AdjustTree(page);
  return true;
}

// Replaces key `index` of the interior page by its in-order successor: key 0 of the lowest page
// with keys on the leftmost way down the right subtree. Normally that is the leftmost leaf. Only a
// tree of order 2 has pages without keys (one child each) on that way; they hold nothing, and
// they leave the tree together with the key that stood beside them.
bool BTree::deleteFromInterior(BTreePage& page, uint32_t index) {
  int32_t bound = btreePageLimit(*pageFile);
  std::deque<BTreePage> way;
  int32_t next = page.children[index + 1];
  for (;;) {
    if (static_cast<int64_t>(way.size()) >= bound) return false;
    way.emplace_back(0u, 0u);
    if (!pageFile->readPage(next, way.back())) return false;
    if (way.back().children[0] == -1) break;
    next = way.back().children[0];
  }
  size_t giver = way.size();
  for (size_t k = way.size(); k-- > 0;) {
    if (way[k].keyCount > 0) {
      giver = k;
      break;
    }
  }

  if (giver == way.size()) {
    // The right subtree holds no key at all: the key goes, and the subtree with it.
    removeKeyAndChild(page, index, index + 1);
    if (isRoot(page) && page.keyCount == 0) {
      // The root kept one child and no key: the child becomes the root.
      BTreePage child(0, 0);
      if (!pageFile->readPage(page.children[0], child)) return false;
      pageFile->freePage(page.offset);
      for (const BTreePage& empty : way) pageFile->freePage(empty.offset);
      child.parentOffset = -1;
      if (!pageFile->writePage(child, true)) return false;
      *root = child;
      return true;
    }
    if (!pageFile->writePage(page, false)) return false;
    for (const BTreePage& empty : way) pageFile->freePage(empty.offset);
    if (isRoot(page)) {
      *root = page;
      return true;
    }
    if (page.keyCount < page.minKeys) return AdjustTree(page);
    return true;
  }

  BTreePage& successor = way[giver];
  moveSlot(successor, 0, page, index);
  // A leaf closes its gap as any page; an interior giver loses the empty child left of key 0.
  bool leaf = successor.children[0] == -1;
  removeKeyAndChild(successor, 0, leaf ? 1 : 0);
  if (!pageFile->writePage(page, false)) return false;
  if (!pageFile->writePage(successor, false)) return false;
  for (size_t k = giver + 1; k < way.size(); ++k) pageFile->freePage(way[k].offset);
  if (isRoot(page)) *root = page;
  if (successor.keyCount < successor.minKeys) return AdjustTree(successor);
  return true;
}

bool BTree::AdjustTree(BTreePage& page) { return AdjustTree(page, btreePageLimit(*pageFile)); }

// A loop, not a recursion: a long chain of corrupt parent links must not exhaust the call stack.
bool BTree::AdjustTree(BTreePage& start, int32_t levelsLeft) {
  BTreePage page(start);
  for (; !isRoot(page); --levelsLeft) {
    if (levelsLeft <= 0) return false;
    BTreePage parent(0, 0);
    if (!pageFile->readPage(page.parentOffset, parent)) return false;
    uint32_t i = 0;
    while (i <= parent.keyCount && parent.children[i] != page.offset) ++i;
    if (i > parent.keyCount) return false;  // the page is not among its parent's children

    bool hasRight = i < parent.keyCount;
    bool hasLeft = i > 0;
    BTreePage left(0, 0);
    BTreePage right(0, 0);
    if (hasRight && !pageFile->readPage(parent.children[i + 1], right)) return false;
    if (hasLeft && !pageFile->readPage(parent.children[i - 1], left)) return false;
    if (!hasLeft && !hasRight) return true;  // a parent without keys: nothing to balance with

    uint32_t leftKeys = hasLeft ? left.keyCount : 0;
    uint32_t rightKeys = hasRight ? right.keyCount : 0;
    auto fits = [](const BTreePage& a, const BTreePage& b) {
      return static_cast<uint64_t>(a.keyCount) + 1 + b.keyCount <= a.maxKeys;
    };
    bool climb = false;
    if (hasLeft && (!hasRight || leftKeys > rightKeys)) {
      if (leftKeys > left.minKeys) return Redistribute(i - 1, left, parent, page);
      if (fits(left, page)) {
        if (!Concatenate(i - 1, left, parent, page, climb)) return false;
      } else if (hasRight && fits(page, right)) {
        if (!Concatenate(i, page, parent, right, climb)) return false;
      }
    } else {
      if (rightKeys > right.minKeys) return Redistribute(i, page, parent, right);
      if (fits(page, right)) {
        if (!Concatenate(i, page, parent, right, climb)) return false;
      } else if (hasLeft && fits(left, page)) {
        if (!Concatenate(i - 1, left, parent, page, climb)) return false;
      }
    }
    if (!climb) return true;
    page = parent;
  }
  return true;
}

bool BTree::Redistribute(uint32_t separator, BTreePage& left, BTreePage& parent,
                         BTreePage& right) {
  const uint32_t s = separator;
  const bool leftGives = left.keyCount > right.keyCount;
  BTreePage& giver = leftGives ? left : right;
  BTreePage& taker = leftGives ? right : left;
  if (s >= parent.keyCount || giver.keyCount == 0 || taker.keyCount >= taker.maxKeys) return false;
  const bool leaf = left.children[0] == -1;

  if (leftGives) {
    for (uint32_t j = right.keyCount; j >= 1; --j) {
      moveSlot(right, j - 1, right, j);
      if (!leaf) right.children[j + 1] = right.children[j];
    }
    moveSlot(parent, s, right, 0);
    if (!leaf) {
      right.children[1] = right.children[0];
      right.children[0] = left.children[left.keyCount];
      if (!reparent(*pageFile, right.children[0], right.offset)) return false;
    }
    right.keyCount += 1;
    left.keyCount -= 1;
    moveSlot(left, left.keyCount, parent, s);
    clearSlot(left, left.keyCount);
    if (!leaf) left.children[left.keyCount + 1] = -1;
  } else {
    moveSlot(parent, s, left, left.keyCount);
    if (!leaf) {
      left.children[left.keyCount + 1] = right.children[0];
      if (!reparent(*pageFile, right.children[0], left.offset)) return false;
    }
    left.keyCount += 1;
    moveSlot(right, 0, parent, s);
    right.keyCount -= 1;
    for (uint32_t j = 0; j < right.keyCount; ++j) {
      moveSlot(right, j + 1, right, j);
      if (!leaf) right.children[j] = right.children[j + 1];
    }
    if (!leaf) {
      right.children[right.keyCount] = right.children[right.keyCount + 1];
      right.children[right.keyCount + 1] = -1;
    }
    clearSlot(right, right.keyCount);
  }

  if (!pageFile->writePage(left, false)) return false;
  if (!pageFile->writePage(parent, false)) return false;
  if (!pageFile->writePage(right, false)) return false;
  if (isRoot(parent)) *root = parent;
  return true;
}

bool BTree::Concatenate(uint32_t separator, BTreePage& left, BTreePage& parent,
                        BTreePage& right) {
  bool climb = false;
  if (!Concatenate(separator, left, parent, right, climb)) return false;
  return !climb || AdjustTree(parent);
}

bool BTree::Concatenate(uint32_t separator, BTreePage& left, BTreePage& parent, BTreePage& right,
                        bool& climb) {
  climb = false;
  const uint32_t s = separator;
  // The merged page must fit; AdjustTree never asks for one that doesn't.
  if (s >= parent.keyCount ||
      static_cast<uint64_t>(left.keyCount) + 1 + right.keyCount > left.maxKeys) {
    return false;
  }
  moveSlot(parent, s, left, left.keyCount);
  left.children[left.keyCount + 1] = right.children[0];
  left.keyCount += 1;
  removeKeyAndChild(parent, s, s + 1);

  uint32_t k = left.keyCount;
  for (uint32_t j = 0; j < right.keyCount; ++j, ++k) {
    left.keyCount += 1;
    moveSlot(right, j, left, k);
    left.children[k + 1] = right.children[j + 1];
  }
  pageFile->freePage(right.offset);

  if (left.children[0] != -1) {
    for (uint32_t j = 0; j <= left.keyCount; ++j) {
      if (!reparent(*pageFile, left.children[j], left.offset)) return false;
    }
  }

  if (isRoot(parent) && parent.keyCount == 0) {
    pageFile->freePage(parent.offset);
    left.parentOffset = -1;
    if (!pageFile->writePage(left, true)) return false;
    *root = left;
    return true;
  }
  if (!pageFile->writePage(left, false)) return false;
  if (!pageFile->writePage(parent, false)) return false;
  if (isRoot(parent)) {
    *root = parent;
    return true;
  }
  climb = parent.keyCount < parent.minKeys;
  return true;
}
