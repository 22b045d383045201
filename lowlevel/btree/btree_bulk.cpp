// Building a tree in one pass from entries in key order. The shape is planned from the count
// first, level by level from the leaves up, so that each page's parent and place are known when it
// is opened: pages are numbered in the order they are opened (depth-first, parent before
// children), filled from the input, and written once when complete.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/btree/btreetools.h"
#include "lowlevel/support/support.h"

namespace {

const char kFunction[] = "bulkBuildBTree";

// One level of the plan: `pages` pages sharing `units` units, a unit being a key plus one (a leaf)
// or a child (an interior page). The first units % pages pages get one unit more.
struct Level {
  int64_t pages = 1;
  int64_t units = 1;
  int64_t opened = 0;
  int64_t unitsOf(int64_t page) const {
    return units / pages + (page < units % pages ? 1 : 0);
  }
};

int64_t ceilDiv(int64_t a, int64_t b) { return (a + b - 1) / b; }

// Levels from the leaves up; the last one is the root. Each level takes as many pages as the fill
// target asks, moved into the range where every page holds minKeys to maxKeys keys when that range
// is not empty.
std::vector<Level> plan(int64_t count, int64_t maxKeys, int64_t minKeys, int64_t target) {
  std::vector<Level> levels;
  int64_t units = count + 1;
  while (units > maxKeys + 1) {
    const int64_t fewest = ceilDiv(units, maxKeys + 1);
    const int64_t most = units / (minKeys + 1);
    int64_t pages = ceilDiv(units, target + 1);
    if (pages > most) pages = most;
    if (pages < fewest) pages = fewest;
    Level level;
    level.pages = pages;
    level.units = units;
    levels.push_back(level);
    units = pages;
  }
  Level root;
  root.units = units;
  levels.push_back(root);
  return levels;
}

}  // namespace

class BTreeBulkBuilder {
 public:
  BTreeBulkBuilder(BTree& tree, int64_t count, const std::function<bool(BTreeBulkEntry&)>& next)
      : tree_(tree), count_(count), next_(next) {}

  // False with failed_ the entry's position (or -1 for a write).
  bool run(int fillPercent) {
    BTreePageFile& file = *tree_.pageFile;
    const int64_t maxKeys = file.hdr.order - 1;
    const int64_t minKeys = file.hdr.order >> 1;
    int64_t target = (maxKeys * fillPercent + 50) / 100;
    if (target < minKeys) target = minKeys;
    if (target > maxKeys) target = maxKeys;
    levels_ = plan(count_, maxKeys, minKeys, target);
    recordSize_ = btreeRecordSize(file.hdr.order, file.hdr.keyLength);
    for (size_t i = 0; i < levels_.size(); ++i) {
      pages_.emplace_back(static_cast<unsigned>(file.hdr.order),
                          static_cast<unsigned>(file.hdr.keyLength));
      if (pages_.back().isPlaceholder()) return false;
    }
    // Until the last header write the file does not open as a tree.
    file.hdr.magic = 0;
    // The pages go out behind a header that does not open; without it the build does not start.
    if (!file.writeHeader()) return false;
    file.headerAfterPageWrite = false;
    const bool built = build(levels_.size() - 1, -1) >= 0;
    file.headerAfterPageWrite = true;
    if (!built) return false;
    BTreeBulkEntry extra;
    if (next_(extra)) return refuse(count_, "is one more than the count");
    file.keyCount = static_cast<int32_t>(count_);
    file.hdr.magic = kBTreeMagic;
    return file.writeHeader();
  }

  // Whatever was written must not open as a tree: the header goes, and is not written again.
  void abandon() {
    BTreePageFile& file = *tree_.pageFile;
    const unsigned char zeros[kBTreeHeaderSize] = {};
    if (file.file.Seek(0, 0) == 0) file.file.Write(zeros, kBTreeHeaderSize);
    file.ok = false;
  }

  int64_t failed_ = -1;

 private:
  // Opens the next page of `level` below `parent`, fills it (children first, depth-first) and
  // writes it. Its offset, or -1.
  int32_t build(size_t level, int32_t parent) {
    BTreePageFile& file = *tree_.pageFile;
    const int64_t offset = kBTreeHeaderSize + recordSize_ * placed_++;
    if (offset > INT32_MAX) return -1;
    Level& plan = levels_[level];
    const int64_t units = plan.unitsOf(plan.opened++);
    const uint32_t keys = static_cast<uint32_t>(units - 1);  // a leaf's keys, or children - 1
    std::vector<int32_t> children;
    for (uint32_t i = 0; i <= keys && level > 0; ++i) {
      const int32_t child = build(level - 1, static_cast<int32_t>(offset));
      if (child < 0) return -1;
      children.push_back(child);
      if (i < keys && !take(pages_[level], i)) return -1;
    }
    BTreePage& page = pages_[level];
    if (level == 0) {
      for (uint32_t i = 0; i < keys; ++i) {
        if (!take(page, i)) return -1;
      }
    }
    page.offset = static_cast<int32_t>(offset);
    page.parentOffset = parent;
    page.keyCount = keys;
    for (uint32_t i = keys; i < page.maxKeys; ++i) {
      page.keys[i].clear();
      page.values[i] = 0;
    }
    for (uint32_t i = 0; i < page.order; ++i) {
      page.children[i] = i < children.size() ? children[i] : -1;
    }
    if (!file.writePage(page, parent == -1)) return -1;
    return page.offset;
  }

  // The next entry into slot `i` of `page`, checked against the one before.
  bool take(BTreePage& page, uint32_t i) {
    BTreeBulkEntry entry;
    if (taken_ >= count_ || !next_(entry)) return refuse(taken_, "is missing: fewer than the count");
    page.keys[i] = tree_.prepareKey(entry.key, entry.length, entry.value);
    page.values[i] = entry.value;
    const BTreePageKey& slot = page.keys[i];
    if (slot.data == nullptr) return false;
    if (taken_ > 0) {
      const int order = slot.compare(previous_);
      if (order < 0) return refuse(taken_, "is out of order");
      if (order == 0) return refuse(taken_, "repeats the key before it");
    }
    previous_ = slot;
    if (previous_.data == nullptr) return false;
    ++taken_;
    return true;
  }

  bool refuse(int64_t position, const char* why) {
    failed_ = position;
    reporterLL("Entry " + std::to_string(position) + " " + why + ".", kFunction, eReportError,
               "btree", __LINE__);
    return false;
  }

  BTree& tree_;
  const int64_t count_;
  const std::function<bool(BTreeBulkEntry&)>& next_;
  std::vector<Level> levels_;
  std::vector<BTreePage> pages_;  // the open page of each level
  int64_t recordSize_ = 0;
  int64_t placed_ = 0;
  int64_t taken_ = 0;
  BTreePageKey previous_;  // the slot of the entry taken last
};

bool bulkBuildBTree(const std::string& targetName, const BTreeBulkShape& shape, int64_t count,
                    const std::function<bool(BTreeBulkEntry&)>& next, int64_t* failedEntry) {
  if (failedEntry != nullptr) *failedEntry = -1;
  if (count < 0 || count > INT32_MAX) return false;
  BTree tree(targetName, shape.order, shape.keyLength, shape.duplicates, shape.lcid,
             shape.mapFlags, shape.spaceConversion);
  if (!tree.isOk()) return false;
  BTreeBulkBuilder builder(tree, count, next);
  if (builder.run(shape.fillPercent)) return true;
  if (failedEntry != nullptr) *failedEntry = builder.failed_;
  builder.abandon();
  return false;
}

std::string btreeKeySlot(BTree& tree, const char* key, int length, int32_t value) {
  if (!tree.isOk()) return std::string();
  BTreePageKey slot = tree.prepareKey(key, length, value);
  if (slot.data == nullptr) return std::string();
  return std::string(reinterpret_cast<const char*>(slot.data), slot.size);
}
