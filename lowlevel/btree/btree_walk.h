// A bound on walks over a tree. Internal to the BTree module.
//
// A sound tree never leads a walk to more pages than its file holds, so a walk that has read more
// than that has met a corrupt link (a child that points at itself, at an ancestor or at a loop of
// pages) and fails instead of going on for ever. The limit needs the file length, which costs a
// system call, so it is only asked for once a walk has gone further than any sound tree of a
// reasonable size would take it.
#ifndef LOWLEVEL_BTREE_BTREE_WALK_H
#define LOWLEVEL_BTREE_BTREE_WALK_H

#include <cstdint>

class BTreePage;
class BTreePageFile;
class BTreePageKey;
struct BTreeRecord;

// The most page records that the file can hold (the page file's recordLimit, capped to 32 bits);
// 0 when the length cannot be had.
int32_t btreePageLimit(BTreePageFile& pageFile);

class BTreeWalkBudget {
 public:
  // Steps allowed before the file length is asked for.
  static constexpr int32_t kFreeSteps = 64;

  explicit BTreeWalkBudget(BTreePageFile& pageFile) : pageFile_(pageFile) {}
  // Counts one more page read; false once the walk has read more pages than the file can hold.
  bool step();

 private:
  BTreePageFile& pageFile_;
  int32_t steps_ = 0;
  int32_t limit_ = -1;  // not asked for yet
};

// The one descent of the tree: from `root` down to the page that holds `key`, or to the leaf where it
// would go. `index` is the first key of that page that does not sort before `key` (as a scan from
// the left finds it), `equal` whether that key is `key`. AtRoot: the page is `root` itself;
// AtRecord: `record` holds it as readRecord left it (valid until the next call of the page file);
// Failed: a read failed, or the descent went deeper than the file can hold (nothing reported).
enum class BTreeDescent { Failed, AtRoot, AtRecord };
BTreeDescent btreeDescend(BTreePageFile& pageFile, const BTreePage& root, const BTreePageKey& key,
                          BTreeRecord& record, uint32_t& index, bool& equal);

#endif
