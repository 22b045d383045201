// The rollback journal of a crash-safe BTree writer. Internal to the BTree module.
//
// Within a batch every write of the page file lands in an overlay of whole blocks (the header, or
// one page record) kept here, and every read sees the overlay first. Blocks read in a batch stay
// in memory too: the batch holds the lock, so nobody else changes them. flush() moves the
// overlay to the tree: the original bytes of each block that lies below the tree's length at the
// start of the batch go to the journal first (once per block and batch; kept from when the block
// was read, so not read again), the journal is made durable, and only then are the blocks
// written, runs of adjacent blocks in one write each. commit() flushes, makes the tree durable and deletes the
// journal; that deletion is the moment the batch becomes permanent. A journal found beside a
// tree is rolled back by recover(). The bytes are described in docs/journal-format.md.
#ifndef LOWLEVEL_BTREE_BTREE_JOURNAL_H
#define LOWLEVEL_BTREE_BTREE_JOURNAL_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

class ZFile;

class BTreeJournal {
 public:
  // `journalPath` is the tree's host path + "-journal"; `recordSize` the size of a page record.
  BTreeJournal(std::string journalPath, int32_t recordSize);
  ~BTreeJournal();
  BTreeJournal(const BTreeJournal&) = delete;
  BTreeJournal& operator=(const BTreeJournal&) = delete;

  // Bytes of blocks held in memory. When they are full, the clean blocks (read, or already
  // flushed) make room; when all are dirty, the overlay goes to the tree (through the journal)
  // before the commit.
  static size_t spillBytes;

  // The journal's name beside the tree `fileName` (its prefix resolved).
  static std::string pathFor(const std::string& fileName);

  // Takes the lock on the tree, through a handle of its own that stays open for the batch (so a
  // tree parked by ZFile::CloseAll keeps it), and notes its length. False when the lock is not had.
  bool begin(ZFile& tree, bool wait);
  bool active() const { return active_; }
  // Reads or writes `count` bytes at `position` through the overlay. False on a failed read of
  // the tree (for a block first touched) or a failed flush.
  bool read(ZFile& tree, int32_t position, void* out, int count);
  bool write(ZFile& tree, int32_t position, const void* in, int count);
  // The length the tree has with the overlay written.
  int32_t length() const;
  // Writes that reached the overlay in this batch.
  uint64_t writes() const { return writes_; }
  // Ends the batch durably. On false the batch is undone on disk if it could be; otherwise the
  // journal stays, and the next open rolls it back.
  bool commit(ZFile& tree);
  // True when a commit or rollback failed and left the journal on disk: the tree may be half
  // written until the next open rolls it back.
  bool stuck() const { return stuck_; }
  // Ends the batch without keeping anything: drops the overlay and, if blocks reached the tree
  // already, rolls them back from the journal. False when that fails (the journal then stays).
  bool rollback(ZFile& tree);

  enum class Recovery { NoJournal, RolledBack, Discarded, NeedsWrite, Failed };
  // Looks for a journal beside the open tree. A journal whose header is sound is hot: its blocks
  // are written back, the tree is cut to its old length and made durable, and the journal is
  // deleted (RolledBack), which needs `writable` (else NeedsWrite, nothing done). A journal
  // without a sound header was never followed by a write to the tree; it is deleted when
  // `writable` (Discarded). Takes the tree's lock meanwhile, waiting for a live writer.
  static Recovery recover(ZFile& tree, const std::string& journalPath, bool writable);

 private:
  static constexpr size_t kKeepBytes = 4u << 20;

  static constexpr size_t kNoSlot = static_cast<size_t>(-1);

  struct Block {
    size_t slot = 0;     // its bytes in arena_ (zeros past the tree's end)
    bool dirty = false;  // written since the last flush
    bool used = false;   // read since the last sweep of dropClean
  };
  struct Original {
    size_t slot;   // the tree's bytes of a dirty block, for the journal
    int32_t size;  // at most a block; less for a block the tree's old length cuts
  };

  int32_t blockStart(int32_t position) const;
  int32_t blockSize(int32_t start) const;
  size_t maxSlots() const;
  size_t takeSlot(ZFile& tree, bool mayFlush);
  unsigned char* slotBytes(size_t slot) { return arena_.data() + slot * slotSize_; }
  Block* load(ZFile& tree, int32_t start, size_t slot);
  bool writeBlocks(ZFile& tree);
  void dropClean();
  void dropBlocks();
  bool flush(ZFile& tree);
  void end(ZFile& tree);

  std::string path_;
  int32_t recordSize_;
  bool active_ = false;
  bool stuck_ = false;
  int lockedHandle_ = -1;   // the journal's own handle on the tree, locked during a batch
  int journal_ = -1;        // handle of the journal file while a batch has one
  uint32_t salt_ = 0;
  int32_t oldLength_ = 0;   // the tree's length when the batch began
  int32_t treeLength_ = 0;  // the tree's length now, without the overlay
  uint64_t writes_ = 0;
  size_t slotSize_;              // a page record, or the header if that is larger
  int32_t overlayEnd_ = 0;       // the end of the last dirty block
  size_t dirtyBlocks_ = 0;
  std::map<int32_t, Block> blocks_;        // every block read or written since the last flush
  std::map<int32_t, Original> originals_;  // tree bytes of the dirty blocks to journal
  // Buffers kept from batch to batch (up to kKeepBytes each), so that a run of batches does not
  // allocate, and fault in, fresh memory every time. The arena holds blocks and originals in
  // slots of slotSize_ bytes, at most spillBytes of them (and at least four slots).
  std::vector<unsigned char> arena_;
  std::vector<size_t> free_;
  std::vector<unsigned char> out_;
  std::set<int32_t> journaled_;  // blocks whose original bytes are in the journal
};

#endif
