#include "lowlevel/btree/btree_walk.h"

#include "lowlevel/btree/btreepagefile.h"

int32_t btreePageLimit(BTreePageFile& pageFile) {
  int64_t records = pageFile.recordLimit();
  if (records < 0) return 0;
  return records > INT32_MAX ? INT32_MAX : static_cast<int32_t>(records);
}

bool BTreeWalkBudget::step() {
  if (steps_ == INT32_MAX) return false;
  ++steps_;
  if (steps_ <= kFreeSteps) return true;
  if (limit_ < 0) limit_ = btreePageLimit(pageFile_);
  return steps_ <= limit_;
}
