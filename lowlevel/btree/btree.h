// BTree: a persistent B-tree index in one file. Keys are byte strings of one fixed width (or 32-bit
// numbers), each with one 32-bit value, with or without duplicates, optionally passed through a
// locale mapping before they are stored. A tree can be created, opened (also read-only inside a
// larger file), searched, walked with a cursor, and changed key by key.
//
// Every operation answers with bool. A key argument is a pointer and a length; length 0 means a
// zero-terminated text. After construction test isOk(): an object that is not ok is meant only for
// its accessors and destructor; other calls on one whose file never opened answer false (-1 for
// depth) and do nothing, rather than fail in worse ways.
#ifndef LOWLEVEL_BTREE_BTREE_H
#define LOWLEVEL_BTREE_BTREE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lowlevel/lowlevel_export.h"

class BTreePage;
struct BTreeRecord;
class BTreePageKey;
class BTreePageFile;

class BTree {
 public:
  typedef void (*TraverseCallback)(int32_t value, const char* key, int length);

  // Opens an existing tree. `offset` is its position inside a larger file (0 when it stands alone);
  // only a read-only tree may have one.
  LOWLEVEL_EXPORT BTree(const std::string& fileName, bool readOnly, int32_t offset);
  // Creates a tree, replacing any file of that name. `order` is the most children of a page (at
  // least 2), `keyLength` the width of the caller's keys (at least 1). With `lcid` or `mapFlags`
  // non-zero every key is passed through the locale mapping first; `spaceConversion` 0 replaces
  // blanks of terminated keys by '0' before a mapping that ignores symbols. An order below 2, a key
  // width below 1 or a page record too large for a signed 32-bit size is refused with a report,
  // and the object is not ok.
  LOWLEVEL_EXPORT BTree(const std::string& fileName, int order, int keyLength, bool duplicates,
                        uint32_t lcid, uint32_t mapFlags, int16_t spaceConversion);
  // Copying would leave two objects owning one page file; it is forbidden.
  BTree(const BTree&) = delete;
  BTree& operator=(const BTree&) = delete;
  // Writes the header (when opened for update) and closes the file.
  LOWLEVEL_EXPORT ~BTree();

  // --- Accessors: the only operations allowed on an object that is not ok. ---
  LOWLEVEL_EXPORT bool isOk();
  LOWLEVEL_EXPORT int32_t getVersion();  // 0 without a usable page file
  LOWLEVEL_EXPORT int getOrder();  // 0 without a root
  LOWLEVEL_EXPORT int getKeyLength();  // the caller's key width; -1 without a root or page file
  LOWLEVEL_EXPORT bool hasDuplicates();
  LOWLEVEL_EXPORT bool isCompressed();
  LOWLEVEL_EXPORT int getKeyCount();  // the live count; -1 without a page file
  LOWLEVEL_EXPORT bool getLCIDandMapFlags(uint32_t& lcid, uint32_t& mapFlags);
  LOWLEVEL_EXPORT bool getSpaceConversion(int16_t& spaceConversion);

  // --- Lookup (they place the cursor). ---
  // A page that cannot be read on the way down is reported ("Unable to read page.") and the
  // lookup fails as if the key were absent, leaving no cursor. So does a descent deeper than the
  // file has records (a corrupt link). The cursor holds a private copy of the page the lookup
  // ended on, as it was then: a change made meanwhile through another object does not move it.
  LOWLEVEL_EXPORT bool find(int32_t& value, const char* key, int length);
  LOWLEVEL_EXPORT bool findGreaterThanOrEqual(int32_t& value, const char* key, int length);

  // --- Changes. ---
  // insertKey: a failed read on the way down ends it with false before anything is written.
  // No file grows to offset 2^31 - 1: an insertion whose pages would reach it is refused with a
  // report naming the file and the limit, before its first write. A split's growth is known
  // beforehand (one new page for each full page from the leaf up, one more when the root splits,
  // free records used first), so a refused insertion leaves no half-done split: the tree stays as
  // it was, and deletions, replacements and insertions into pages with room still work.
  LOWLEVEL_EXPORT bool insertKey(int32_t value, const char* key, int length);
  // deleteKey removes one entry; the form without a value refuses a tree with duplicates (reported).
  // A page that falls below half full borrows a key from a sibling or is merged with one. When a
  // merge would not fit in one page (trees of even order), the page merges with its other sibling
  // if that fits, and otherwise stays under-full: the deletion succeeds and the tree stays sound
  // for search and walks, only less tightly packed. replaceValue refuses a tree with duplicates.
  LOWLEVEL_EXPORT bool deleteKey(const char* key, int length);
  LOWLEVEL_EXPORT bool deleteKey(int32_t value, const char* key, int length);
  LOWLEVEL_EXPORT bool replaceValue(int32_t value, const char* key, int length);

  // --- Long keys: the key is the 4 bytes of a 32-bit number, stored so that bytewise order is the
  // unsigned numeric order (except in the oldest file version). ---
  LOWLEVEL_EXPORT bool insertKey(int32_t value, int32_t key);
  LOWLEVEL_EXPORT bool replaceValue(int32_t value, int32_t key);
  LOWLEVEL_EXPORT bool deleteKey(int32_t key);
  LOWLEVEL_EXPORT bool deleteKey(int32_t value, int32_t key);
  LOWLEVEL_EXPORT bool find(int32_t& value, int32_t key);
  LOWLEVEL_EXPORT bool findGreaterThanOrEqual(int32_t& value, int32_t key);
  LOWLEVEL_EXPORT bool getCurrentKey(int32_t& key);

  // --- Cursor. ---
  // A failed page read, or a walk that goes further than the file has records (a corrupt link),
  // returns false and drops the cursor, as running off an end does; a position made undefined is
  // never used. A leaf without keys (order 2 leaves them behind splits) is stepped over.
  LOWLEVEL_EXPORT bool first(int32_t& value);
  LOWLEVEL_EXPORT bool last(int32_t& value);
  LOWLEVEL_EXPORT bool next(int32_t& value);
  LOWLEVEL_EXPORT bool prev(int32_t& value);
  // Copies the current key's bytes into `key`, whose capacity is `length` on entry. Too small:
  // false, `length` set to the size needed, nothing copied, cursor kept. No terminator is written.
  LOWLEVEL_EXPORT bool getCurrentKey(char* key, int& length);
  LOWLEVEL_EXPORT bool getCurrentKeyDepthAndIndex(int& depth, int& index);
  LOWLEVEL_EXPORT int depth();  // levels below the root; -1 on a read failure

  // --- Crash-safe mode: off unless turned on; the file format is the same in both modes. ---
  // In the default mode each page write goes straight to the file and an interrupted operation
  // can leave the tree unsound. In crash-safe mode every change belongs to a batch: one the caller
  // opened with beginBatch, or else a batch of its own around each insertKey, deleteKey and
  // replaceValue. A batch's writes are held in memory (large batches spill early through the
  // journal) and reach the file at commitBatch: the original bytes of every record and of the
  // header that the batch overwrites go first to a rollback journal beside the tree (the file's
  // name + "-journal"), which is made durable; then the tree is written and made durable; then
  // the journal is deleted, and only that makes the batch permanent. A crash or power cut at any
  // moment leaves the tree as before the batch or as after it: any later open of the tree, in
  // either mode, rolls back a journal it finds (a read-only open refuses with a report instead).
  // From beginBatch to its end the writer holds an exclusive advisory lock on the tree file, so
  // that a second crash-safe writer waits (or fails) instead of mixing pages.
  //
  // setCrashSafe(true) writes the header as the default mode does at close, then turns the mode
  // on; refused (reported) on a read-only, compressed or not-ok tree. setCrashSafe(false) ends
  // the mode and is refused while a batch is open. In crash-safe mode the destructor writes
  // nothing but rolls back a batch still open.
  LOWLEVEL_EXPORT bool setCrashSafe(bool on);
  LOWLEVEL_EXPORT bool isCrashSafe();
  // Opens a batch: takes the lock (waits for it with `wait`, else fails at once with a report),
  // then reads the header and the root again, as another writer may have changed them, and drops
  // the cursor. False outside crash-safe mode or inside a batch.
  LOWLEVEL_EXPORT bool beginBatch(bool wait = true);
  // Makes the batch permanent. A change that failed after it had written (a failing read or
  // write halfway) spoils the batch: commitBatch then rolls back, reports, and answers false.
  // Whenever it answers false the tree is as it was before the batch, on disk at once or, when
  // even the rollback failed, at the next open (the object is then no longer ok).
  LOWLEVEL_EXPORT bool commitBatch();
  // Drops the batch: the file and this object's view of it are as before beginBatch.
  LOWLEVEL_EXPORT bool rollbackBatch();
  LOWLEVEL_EXPORT bool inBatch();

  // --- Traversal and self-test. ---
  // Both walk at most as many pages as the file has records and fail beyond that.
  LOWLEVEL_EXPORT bool inOrder(TraverseCallback callback);
  LOWLEVEL_EXPORT bool test(bool relaxed, int32_t* keyCount, int32_t* pageCount,
                            int32_t* backwardLinks);

 private:
  friend struct BTreeTestAccess;
  friend class BTreeBulkBuilder;
  friend std::string btreeKeySlot(BTree& tree, const char* key, int length, int32_t value);
  friend bool compressBTree(const std::string& sourceName, const std::string& targetName);
  friend bool orderBTree(const std::string& sourceName, const std::string& targetName);
  friend bool repackBTree(const std::string& sourceName, const std::string& targetName, int order);
  friend bool copyChildPages(BTree& source, BTree& target, const BTreePage& page,
                             std::map<int32_t, int32_t>& offsetMap);
  friend bool buildPage(BTree& source, BTree& target, int keys, int order, BTreePage& page);
  friend bool nextSourceKey(BTree& source, BTreePageKey& key, int32_t& value);

  // The change operations themselves; the public ones put them into a batch in crash-safe mode.
  bool insertKeyNow(int32_t value, const char* key, int length);
  bool deleteKeyNow(const char* key, int length);
  bool deleteKeyNow(int32_t value, const char* key, int length);
  bool replaceValueNow(int32_t value, const char* key, int length);
  template <class Change>
  bool applyChange(Change change);
  // Reads the header and the root from the file again and drops the cursor.
  bool reloadFromFile();
  // Ends a batch that must not stay: rolls it back; an object whose rollback failed is not ok.
  bool abandonBatch();

  int32_t btreeReverseLong(int32_t value);
  // Counts one cursor move; false once the cursor has moved more often than the file holds entries.
  bool cursorStep();
  bool convertKey(const char* key, int length);
  void clearCurPage();
  // The slot for a caller's key: converted when the tree says so, cut or padded to the slot width,
  // with `value` as tail in a tree with duplicates. A negative length counts as 0 (terminated text).
  BTreePageKey prepareKey(const char* key, int length, int32_t value);

  bool Search(const BTreePage& page, const BTreePageKey& key, BTreePage& result, uint32_t& index);
  // The report of a page that a search cannot read.
  void reportUnreadablePage();
  bool PromoteInternal(BTreePage& page, const BTreePageKey& key, int32_t value, int32_t rightChild);
  bool PromoteRoot(const BTreePageKey& key, int32_t value, BTreePage& left, BTreePage& right);
  // Whether the split of the full `leaf`, and of every full page above it, fits below the 2 GiB
  // limit; reports when not. False also when a page above cannot be read.
  bool roomForSplit(const BTreePage& leaf);
  bool internalDeleteKey(BTreePageKey& key);
  bool AdjustTree(BTreePage& page);
  bool Redistribute(uint32_t separator, BTreePage& left, BTreePage& parent, BTreePage& right);
  bool Concatenate(uint32_t separator, BTreePage& left, BTreePage& parent, BTreePage& right);
  // Deletion helpers. AdjustTree climbs in a loop, at most `levelsLeft` levels, so that corrupt
  // parent links can neither make it loop nor exhaust the stack. This Concatenate merges and
  // writes without climbing: `climb` tells whether the parent has become under-full.
  bool AdjustTree(BTreePage& page, int32_t levelsLeft);
  bool Concatenate(uint32_t separator, BTreePage& left, BTreePage& parent, BTreePage& right,
                   bool& climb);
  bool deleteFromInterior(BTreePage& page, uint32_t index);
  bool RecurseTraverse(const BTreePage& page);
  bool testRecurse(const BTreePage& page, bool relaxed);

  bool ok;
  std::string fileName;
  BTreePageFile* pageFile;
  BTreePage* root;
  TraverseCallback traverseCallback;
  BTreePage* curPage;
  uint32_t curIndex;
  // A lookup that finds its key in an uncompressed page below the root keeps that page's record
  // bytes here and leaves curPage null: curPage is built from them when the cursor is first
  // used, since most lookups never use it and building a page costs about as much as the search.
  std::vector<unsigned char> curRecord;
  int32_t curRecordOffset = -1;
  bool curRecordPending = false;
  // Builds curPage from curRecord when a lookup left it pending. False when there is no cursor.
  bool cursorReady();
  // Copies the record for cursorReady; false (nothing kept) when there is no memory for it.
  bool keepCursorRecord(const BTreeRecord& record);
  int64_t curSteps = 0;       // cursor moves since the cursor was placed
  int64_t curStepLimit = -1;  // the most moves of a sound file; -1 until asked for
  uint32_t lcid;
  uint32_t mapFlags;
  int16_t spaceConversion;
  char* convertBuffer;
  int convertLength;
  int convertCapacity;
  bool batchSpoiled = false;  // a change of the open batch failed after writing
};

// --- Page cache (process-wide; off unless turned on). ---
// With a size above 0, page records read from tree files stay in memory, shared by every BTree of
// the process open on the same file (the same device and file number), up to `bytes` in all, the
// least recently used going first (CLOCK). Every page and header write of a BTree goes to the file
// and to the cache at once, so within the process nothing changes but speed: the same results,
// reports, file bytes and calls of the support object. A read that the cache cannot answer goes to
// the file as before, and its failure asks for the volume as before. A file closed by
// ZFile::CloseAll loses its cached pages. Memory for cached pages stays within `bytes`, whatever
// the size of the trees; a file's pages are dropped when its last BTree closes. 0 (the default)
// turns the cache off and frees it.
//
// Other processes, and writes that do not go through a BTree of this process: nothing of theirs
// is seen by default, just as the root page, which every BTree keeps in memory, is never read
// again. With setBTreePageCacheCheck(true), each page read that the cache answers first asks the
// system for the file's size and change time (one system call); when they differ from what this
// process last saw, the file's cached pages are dropped and read afresh. A change that keeps the
// size and falls within the file system's time resolution of this process's own last write can go
// unseen; the root page held by a BTree is not refreshed either.
constexpr size_t kBTreePageCacheDefaultSize = size_t{64} << 20;
LOWLEVEL_EXPORT void setBTreePageCacheSize(size_t bytes);
LOWLEVEL_EXPORT size_t getBTreePageCacheSize();
LOWLEVEL_EXPORT void setBTreePageCacheCheck(bool on);
LOWLEVEL_EXPORT bool getBTreePageCacheCheck();

#endif
