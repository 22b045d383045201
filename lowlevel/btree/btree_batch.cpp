// Crash-safe mode: batches around the change operations, through the page file's journal.
#include <string>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_journal.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/support/support.h"

namespace {
const char kModule[] = "btree";
}

bool BTree::setCrashSafe(bool on) {
  if (pageFile == nullptr || !ok) return false;
  if (!on) {
    if (inBatch()) return false;
    pageFile->journal.reset();
    return true;
  }
  if (pageFile->journal != nullptr) return true;
  if (pageFile->readOnly || pageFile->hdr.compressed != 0) {
    reporterLL("A read-only BTree cannot be made crash-safe (" + fileName + ").",
               "BTree::setCrashSafe", eReportError, kModule, __LINE__);
    return false;
  }
  // From now on the header reaches the file only inside batches; bring it up to date first.
  if (!pageFile->writeHeader()) return false;
  pageFile->journal.reset(new BTreeJournal(
      BTreeJournal::pathFor(fileName),
      static_cast<int32_t>(btreeRecordSize(pageFile->hdr.order, pageFile->hdr.keyLength))));
  return true;
}

bool BTree::isCrashSafe() { return pageFile != nullptr && pageFile->journal != nullptr; }

bool BTree::inBatch() { return pageFile != nullptr && pageFile->batching(); }

bool BTree::reloadFromFile() {
  clearCurPage();
  pageFile->cacheForget();
  return pageFile->reloadHeader() && pageFile->readPage(pageFile->hdr.rootOffset, *root);
}

bool BTree::beginBatch(bool wait) {
  if (!ok || !isCrashSafe() || inBatch()) return false;
  if (!pageFile->journal->begin(pageFile->file, wait)) {
    reporterLL("Another writer holds the lock on the BTree (" + fileName + ").",
               "BTree::beginBatch", eReportError, kModule, __LINE__);
    return false;
  }
  batchSpoiled = false;
  if (!reloadFromFile()) {
    pageFile->journal->rollback(pageFile->file);
    return false;
  }
  return true;
}

bool BTree::abandonBatch() {
  const bool rolledBack = pageFile->journal->rollback(pageFile->file);
  batchSpoiled = false;
  if (rolledBack && reloadFromFile()) return true;
  reporterLL("Unable to roll back the batch; the next open of the BTree will (" + fileName + ").",
             "BTree::rollbackBatch", eReportError, kModule, __LINE__);
  ok = false;
  return false;
}

bool BTree::commitBatch() {
  if (!inBatch()) return false;
  if (batchSpoiled) {
    reporterLL("A change of the batch failed halfway; the batch is rolled back (" + fileName +
                   ").",
               "BTree::commitBatch", eReportError, kModule, __LINE__);
    abandonBatch();
    return false;
  }
  // The live key count goes into the header with the batch.
  if (!pageFile->writeHeader()) {
    abandonBatch();
    return false;
  }
  if (pageFile->journal->commit(pageFile->file)) {
    pageFile->cacheForget();
    return true;
  }
  if (pageFile->journal->stuck()) {
    reporterLL("Unable to commit the batch; the next open of the BTree rolls it back (" +
                   fileName + ").",
               "BTree::commitBatch", eReportError, kModule, __LINE__);
    ok = false;
    return false;
  }
  reporterLL("Unable to commit the batch; it is rolled back (" + fileName + ").",
             "BTree::commitBatch", eReportError, kModule, __LINE__);
  if (!reloadFromFile()) ok = false;
  return false;
}

bool BTree::rollbackBatch() {
  if (!inBatch()) return false;
  return abandonBatch();
}

template <class Change>
bool BTree::applyChange(Change change) {
  if (root == nullptr) return false;  // the file never opened
  if (!ok || !isCrashSafe()) return change();
  const bool own = !inBatch();
  if (own && !beginBatch(true)) return false;
  const uint64_t before = pageFile->journal->writes();
  const bool done = change();
  if (!done && pageFile->journal->writes() != before) batchSpoiled = true;
  if (!own) return done;
  if (done) return commitBatch();
  abandonBatch();
  return false;
}

bool BTree::insertKey(int32_t value, const char* key, int length) {
  return applyChange([&] { return insertKeyNow(value, key, length); });
}

bool BTree::deleteKey(const char* key, int length) {
  return applyChange([&] { return deleteKeyNow(key, length); });
}

bool BTree::deleteKey(int32_t value, const char* key, int length) {
  return applyChange([&] { return deleteKeyNow(value, key, length); });
}

bool BTree::replaceValue(int32_t value, const char* key, int length) {
  return applyChange([&] { return replaceValueNow(value, key, length); });
}
