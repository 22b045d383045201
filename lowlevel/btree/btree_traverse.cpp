// Whole-tree walks: inOrder hands every key to a callback in ascending order, test checks the
// shape of the tree and counts keys, pages and backward links.
//
// Both walk depth first with a stack of pages on the heap rather than by recursion, so that a
// degenerate or corrupt file cannot exhaust the machine stack, and both give up (false) once they
// have read more pages than the file can hold, which only a corrupt link makes them do.
#include <memory>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_walk.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"

namespace {

// Counters of the last run of test, shared by all trees.
int32_t testKeyCount = 0;
int32_t testPageCount = 0;
int32_t testBackwardLinks = 0;

// One page on the way down, and the index of the next child to visit.
struct Frame {
  const BTreePage* page;
  std::unique_ptr<BTreePage> owned;
  uint32_t next;
};

}  // namespace

bool BTree::inOrder(TraverseCallback callback) {
  traverseCallback = callback;
  return root != nullptr && RecurseTraverse(*root);
}

bool BTree::RecurseTraverse(const BTreePage& top) {
  BTreeWalkBudget budget(*pageFile);
  std::vector<Frame> stack;
  stack.push_back(Frame{&top, nullptr, 0});
  while (!stack.empty()) {
    Frame& frame = stack.back();
    const BTreePage& page = *frame.page;
    // Coming back from child next - 1 (or past its absent place): its key follows.
    if (frame.next > 0 && frame.next - 1 < page.keyCount) {
      const BTreePageKey& key = page.keys[frame.next - 1];
      traverseCallback(page.values[frame.next - 1], reinterpret_cast<const char*>(key.data),
                       static_cast<int>(key.length));
    }
    if (frame.next > page.keyCount) {
      stack.pop_back();
      continue;
    }
    int32_t child = page.children[frame.next];
    frame.next += 1;
    if (child == -1) continue;
    std::unique_ptr<BTreePage> below(new BTreePage(0, 0));
    if (!budget.step() || !pageFile->readPage(child, *below)) return false;
    const BTreePage* raw = below.get();
    stack.push_back(Frame{raw, std::move(below), 0});
  }
  return true;
}

bool BTree::test(bool relaxed, int32_t* keyCount, int32_t* pageCount, int32_t* backwardLinks) {
  testKeyCount = 0;
  testPageCount = 0;
  testBackwardLinks = 0;
  bool sound = root != nullptr && testRecurse(*root, relaxed);
  if (keyCount != nullptr) *keyCount = testKeyCount;
  if (pageCount != nullptr) *pageCount = testPageCount;
  if (backwardLinks != nullptr) *backwardLinks = testBackwardLinks;
  return sound;
}

namespace {

// The checks of one page as the walk meets it; true when its children are to be visited (it is
// sound and not a leaf), with `sound` false when the walk must stop.
bool visitPage(const BTreePage& page, bool isRoot, bool relaxed, bool& sound) {
  testKeyCount += static_cast<int32_t>(page.keyCount);
  testPageCount += 1;
  sound = false;
  if (!isRoot && page.keyCount < page.minKeys && !relaxed) return false;
  if (page.keyCount > page.maxKeys) return false;
  sound = true;
  if (page.children[0] == -1) return false;
  for (uint32_t i = 1; i <= page.keyCount; ++i) {
    if (page.children[i] == -1 && !relaxed) {
      sound = false;
      return false;
    }
  }
  return true;
}

}  // namespace

bool BTree::testRecurse(const BTreePage& top, bool relaxed) {
  bool sound = true;
  if (!visitPage(top, true, relaxed, sound)) return sound;
  BTreeWalkBudget budget(*pageFile);
  std::vector<Frame> stack;
  stack.push_back(Frame{&top, nullptr, 0});
  while (!stack.empty()) {
    Frame& frame = stack.back();
    const BTreePage& page = *frame.page;
    if (frame.next > page.keyCount) {
      stack.pop_back();
      continue;
    }
    int32_t child = page.children[frame.next];
    frame.next += 1;
    if (child == -1) continue;
    if (child < page.offset) testBackwardLinks += 1;
    std::unique_ptr<BTreePage> below(new BTreePage(0, 0));
    if (!budget.step() || !pageFile->readPage(child, *below)) return false;
    if (!visitPage(*below, false, relaxed, sound)) {
      if (!sound) return false;
      continue;
    }
    const BTreePage* raw = below.get();
    stack.push_back(Frame{raw, std::move(below), 0});
  }
  return true;
}
