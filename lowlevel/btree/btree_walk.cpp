#include "lowlevel/btree/btree_walk.h"

#include "lowlevel/btree/btreepagefile.h"

int32_t btreePageLimit(BTreePageFile& pageFile) {
  int64_t length = pageFile.file.Length();
  int64_t record = pageFile.hdr.compressed
                       ? kBTreeCompressedPageHeadSize
                       : btreeRecordSize(pageFile.hdr.order, pageFile.hdr.keyLength);
  if (length < 0 || record <= 0) return 0;
  int64_t records = length > kBTreeHeaderSize ? (length - kBTreeHeaderSize) / record + 1 : 1;
  return records > INT32_MAX ? INT32_MAX : static_cast<int32_t>(records);
}

bool BTreeWalkBudget::step() {
  if (steps_ == INT32_MAX) return false;
  ++steps_;
  if (steps_ <= kFreeSteps) return true;
  if (limit_ < 0) limit_ = btreePageLimit(pageFile_);
  return steps_ <= limit_;
}
