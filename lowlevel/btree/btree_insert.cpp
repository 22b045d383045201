// Insertion: a new entry enters at a leaf; a full page splits around its median, which moves up
// into the parent, and a split of the root puts a new root on top.
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_walk.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"

// A failed read inside Search ends the insertion with false (the leaf is then a placeholder, never
// written to). Nothing is rolled back after a failed write: the pages written so far stay.
bool BTree::insertKeyNow(int32_t value, const char* key, int length) {
  clearCurPage();
  BTreePageKey slot = prepareKey(key, length, value);
  BTreePage page(0, 0);
  uint32_t index = 0;
  bool equal = false;
  BTreeRecord leaf;
  switch (btreeDescend(*pageFile, *root, slot, leaf, index, equal)) {
    case BTreeDescent::AtRoot:
      if (equal) return false;
      page = *root;
      break;
    case BTreeDescent::AtRecord:
      if (equal) return false;
      // Most insertions find room in a leaf below the root: its record takes the key as it lies.
      if (leaf.keyCount + 1 < static_cast<uint32_t>(pageFile->hdr.order) &&
          pageFile->hdr.compressed == 0) {
        if (!pageFile->insertIntoRecord(leaf, index, slot, value)) return false;
        pageFile->keyCount += 1;
        return pageFile->rereadPage(pageFile->hdr.rootOffset, *root);
      }
      if (pageFile->decodeRecord(leaf, page)) break;
      reportUnreadablePage();
      return false;
    case BTreeDescent::Failed:
      reportUnreadablePage();
      return false;
  }

  if (page.keyCount < page.maxKeys) {
    for (uint32_t i = page.keyCount; i > index; --i) {
      page.keys[i] = page.keys[i - 1];
      page.values[i] = page.values[i - 1];
    }
    page.keys[index] = slot;
    page.values[index] = value;
    page.keyCount += 1;
    if (!pageFile->writePage(page, false)) return false;
  } else {
    if (!roomForSplit(page)) return false;
    const uint32_t maxKeys = page.maxKeys;
    const uint32_t minKeys = page.minKeys;
    // The page's entries with the new one in its place.
    std::vector<BTreePageKey> keys(maxKeys + 1);
    std::vector<int32_t> values(maxKeys + 1);
    for (uint32_t i = 0, j = 0; j <= maxKeys; ++j) {
      if (j == index) {
        keys[j] = slot;
        values[j] = value;
      } else {
        keys[j] = page.keys[i];
        values[j] = page.values[i];
        ++i;
      }
    }
    BTreePage right(page.order, page.keyLength);
    right.parentOffset = page.parentOffset;
    page.keyCount = 0;
    for (uint32_t i = 0; i < minKeys; ++i) {
      page.keys[i] = keys[i];
      page.values[i] = values[i];
      page.keyCount += 1;
    }
    for (uint32_t i = minKeys + 1; i <= maxKeys; ++i) {
      right.keys[i - minKeys - 1] = keys[i];
      right.values[i - minKeys - 1] = values[i];
      right.keyCount += 1;
    }
    for (uint32_t i = minKeys; i < maxKeys; ++i) {
      page.keys[i] = BTreePageKey();
      page.values[i] = 0;
    }
    if (!pageFile->writePage(page, false)) return false;
    if (!pageFile->writePage(right, false)) return false;
    bool promoted;
    if (page.parentOffset == -1) {
      promoted = PromoteRoot(keys[minKeys], values[minKeys], page, right);
    } else {
      BTreePage parent(0, 0);
      if (!pageFile->readPage(page.parentOffset, parent)) return false;
      promoted = PromoteInternal(parent, keys[minKeys], values[minKeys], right.offset);
    }
    if (!promoted) return false;
  }
  pageFile->keyCount += 1;
  pageFile->recycle(page);  // its arrays take in the root read next
  return pageFile->rereadPage(pageFile->hdr.rootOffset, *root);
}

// Far from the limit this costs one look at the file's end. Near it, the full pages above the
// leaf are read to count the splits exactly, so that an insertion that fits still succeeds.
bool BTree::roomForSplit(const BTreePage& leaf) {
  // No tree of a file below the limit is this deep: even order 2 halves the pages per level.
  constexpr int32_t kMostNewPages = 64;
  if (pageFile->roomForNewPages(kMostNewPages, false)) return true;
  BTreeWalkBudget budget(*pageFile);
  BTreePage parent(0, 0);
  int32_t pages = 1;  // the leaf's new right half
  for (int32_t up = leaf.parentOffset; up != -1; up = parent.parentOffset) {
    if (!budget.step() || !pageFile->readPage(up, parent)) return false;
    if (parent.keyCount < parent.maxKeys) return pageFile->roomForNewPages(pages);
    pages += 1;  // this parent splits too
  }
  return pageFile->roomForNewPages(pages + 1);  // and a new root goes on top
}

// Goes up level by level instead of recursing, so that a parent link that leads round in a circle
// (a corrupt file) fails once more levels have been split than the file can hold.
bool BTree::PromoteInternal(BTreePage& page, const BTreePageKey& key, int32_t value,
                            int32_t rightChild) {
  BTreeWalkBudget budget(*pageFile);
  BTreePage* target = &page;
  BTreePage parent(0, 0);
  BTreePageKey up = key;
  int32_t upValue = value;
  int32_t upChild = rightChild;
  for (;;) {
    BTreePage& p = *target;
    uint32_t position = 0;
    while (position < p.keyCount && p.keys[position].compare(up) < 0) ++position;

    if (p.keyCount < p.maxKeys) {
      for (uint32_t i = p.keyCount; i-- > position;) {
        p.keys[i + 1] = p.keys[i];
        p.values[i + 1] = p.values[i];
        p.children[i + 2] = p.children[i + 1];
      }
      p.keys[position] = up;
      p.values[position] = upValue;
      p.children[position + 1] = upChild;
      p.keyCount += 1;
      return pageFile->writePage(p, false);
    }

    const uint32_t maxKeys = p.maxKeys;
    const uint32_t minKeys = p.minKeys;
    std::vector<BTreePageKey> keys(maxKeys + 1);
    std::vector<int32_t> values(maxKeys + 1);
    std::vector<int32_t> children(maxKeys + 2);
    children[0] = p.children[0];
    keys[position] = up;
    values[position] = upValue;
    children[position + 1] = upChild;
    for (uint32_t i = 0, j = 0; i < maxKeys; ++i, ++j) {
      if (j == position) ++j;
      keys[j] = p.keys[i];
      values[j] = p.values[i];
      children[j + 1] = p.children[i + 1];
    }

    BTreePage right(p.order, p.keyLength);
    right.parentOffset = p.parentOffset;
    p.keyCount = 0;
    p.children[0] = children[0];
    for (uint32_t i = 0; i < minKeys; ++i) {
      p.keys[i] = keys[i];
      p.values[i] = values[i];
      p.children[i + 1] = children[i + 1];
      p.keyCount += 1;
    }
    right.children[0] = children[minKeys + 1];
    for (uint32_t i = minKeys + 1; i <= maxKeys; ++i) {
      right.keys[i - 1 - minKeys] = keys[i];
      right.values[i - 1 - minKeys] = values[i];
      right.children[i - minKeys] = children[i + 1];
      right.keyCount += 1;
    }
    for (uint32_t i = minKeys; i < maxKeys; ++i) {
      p.keys[i] = BTreePageKey();
      p.values[i] = 0;
      p.children[i + 1] = -1;
    }
    if (!pageFile->writePage(p, false)) return false;
    if (!pageFile->writePage(right, false)) return false;
    // The children that moved to the right page learn their new parent.
    BTreePage child(0, 0);
    for (uint32_t i = 0; i <= right.keyCount; ++i) {
      if (!pageFile->readPage(right.children[i], child)) return false;
      child.parentOffset = right.offset;
      if (!pageFile->writePage(child, false)) return false;
    }
    if (p.parentOffset == -1) return PromoteRoot(keys[minKeys], values[minKeys], p, right);
    if (!budget.step()) return false;
    if (!pageFile->readPage(p.parentOffset, parent)) return false;
    target = &parent;
    up = keys[minKeys];
    upValue = values[minKeys];
    upChild = right.offset;
  }
}

bool BTree::PromoteRoot(const BTreePageKey& key, int32_t value, BTreePage& left, BTreePage& right) {
  BTreePage newRoot(root->order, root->keyLength);
  newRoot.keys[0] = key;
  newRoot.values[0] = value;
  newRoot.children[0] = left.offset;
  newRoot.children[1] = right.offset;
  newRoot.keyCount = 1;
  if (!pageFile->writePage(newRoot, true)) return false;
  left.parentOffset = newRoot.offset;
  right.parentOffset = newRoot.offset;
  if (!pageFile->writePage(left, false)) return false;
  return pageFile->writePage(right, false);
}
