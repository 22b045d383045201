// The page cache shared by every page file of the process: page records by file and physical
// position, bounded in bytes, evicted by the CLOCK policy. Internal to the BTree module; the public
// switches are in btree.h. Not thread-safe, like the rest of the process-wide state of the library.
#ifndef LOWLEVEL_BTREE_BTREEPAGECACHE_H
#define LOWLEVEL_BTREE_BTREEPAGECACHE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "lowlevel/platform/fileid.h"

// How a file's records are laid out for one page file: where the header stands and how long a
// record is (-1: the compressed form, records of any length). Page files that see one file through
// different layouts cannot share its entries safely; see BTreePageFile.
struct BTreeCacheLayout {
  int32_t headerPosition = 0;
  int64_t recordSize = -1;
  bool operator==(const BTreeCacheLayout& o) const {
    return headerPosition == o.headerPosition && recordSize == o.recordSize;
  }
};

// The head of a cached entry's memory block; the entry's bytes follow it. What a lookup needs
// lies here, beside the bytes, so that a lookup touches the index and the block only.
struct BTreeCacheBlock {
  uint64_t version = 0;
  uint32_t length = 0;
  unsigned char note = 0;
  bool referenced = false;
  unsigned char* bytes() { return reinterpret_cast<unsigned char*>(this + 1); }
};

// What the index holds for a position: the entry's slot and its block.
struct BTreeCacheRef {
  uint32_t slot;
  BTreeCacheBlock* block;
};

// Physical position -> slot and block, by open addressing with linear probing. Every level of
// every search looks a position up; a node-based map costs two dependent cache misses there, this
// usually one.
class BTreeCacheIndex {
 public:
  // What is at `position`, or null. Positions are never negative.
  BTreeCacheRef* find(int32_t position) {
    if (count_ == 0) return nullptr;
    for (size_t i = home(position);; i = (i + 1) & mask_) {
      if (entries_[i].position == position) return &entries_[i].ref;
      if (entries_[i].position == kEmpty) return nullptr;
    }
  }
  // Sets what is at `position`. False when the table could not grow (no memory): nothing changed.
  bool set(int32_t position, BTreeCacheRef ref);
  void erase(int32_t position);
  // Forgets every position and frees the table.
  void clear();
  template <class F>
  void forEachSlot(F f) const {
    for (size_t i = 0; i < capacity_; ++i)
      if (entries_[i].position != kEmpty) f(entries_[i].ref.slot);
  }

 private:
  struct Entry {
    int32_t position;
    BTreeCacheRef ref;
  };
  static constexpr int32_t kEmpty = -1;
  // Fibonacci hashing: positions are a header plus multiples of the record size.
  size_t home(int32_t position) const {
    return (static_cast<uint32_t>(position) * 2654435769u) >> shift_;
  }
  bool grow();

  std::unique_ptr<Entry[]> entries_;
  size_t capacity_ = 0, mask_ = 0, count_ = 0;
  unsigned shift_ = 32;
};

// The entries of one file, shared by every page file attached to it.
struct BTreeCacheFile {
  uint64_t device = 0, number = 0;
  int attached = 0;
  BTreeCacheLayout layout;                   // set by the first page file to attach, or a creator
  lowlevel::platform::FileIdentity stamp;    // size and change time last seen (change checks)
  BTreeCacheIndex index;                     // physical position -> slot
};

class BTreePageCache {
 public:
  static BTreePageCache& instance();

  size_t limit() const { return limit_; }
  // Evicts down to the new limit; 0 empties the cache.
  void setLimit(size_t bytes);
  bool checkChanges() const { return check_; }
  void setCheckChanges(bool on) { check_ = on; }
  size_t bytesUsed() const { return used_; }

  // The shared entries of the file `id` names, created for the first page file; null when no memory.
  BTreeCacheFile* attach(const lowlevel::platform::FileIdentity& id, const BTreeCacheLayout& layout);
  // The last page file to detach drops the file's entries.
  void detach(BTreeCacheFile* file);

  // The bytes cached at `position`, and their count in `length`; null when there are none.
  // `note` receives the entry's note byte: 0 when the entry is put or patched, free for the page
  // file to remember what it learnt from these bytes (the order of a record's keys). `version`
  // receives a number that changes whenever the entry's bytes do (a new one for every put and
  // patch, never 0): equal numbers mean unchanged bytes.
  const unsigned char* find(BTreeCacheFile* file, int32_t position, uint32_t* length,
                            unsigned char** note, uint64_t* version) {
    const BTreeCacheRef* at = file->index.find(position);
    if (at == nullptr) return nullptr;
    BTreeCacheBlock* block = at->block;
    block->referenced = true;
    *length = block->length;
    *note = &block->note;
    *version = block->version;
    return block->bytes();
  }
  // Puts a copy of `length` bytes at `position`, replacing what is there. Too large for the limit,
  // or no memory: the position is left uncached.
  void put(BTreeCacheFile* file, int32_t position, const unsigned char* bytes, uint32_t length);
  // Overwrites the start of the entry at `position` with `length` bytes, when there is one that
  // long; its note becomes `note`.
  void patch(BTreeCacheFile* file, int32_t position, const unsigned char* bytes, uint32_t length,
             unsigned char note = 0);
  void erase(BTreeCacheFile* file, int32_t position);
  void clear(BTreeCacheFile* file);
  void clearAll();

 private:
  struct FreeBlock {
    void operator()(BTreeCacheBlock* block) const { ::operator delete(block); }
  };
  struct Slot {
    BTreeCacheFile* file = nullptr;  // null: free
    int32_t position = 0;
    std::unique_ptr<BTreeCacheBlock, FreeBlock> block;
  };
  static size_t charge(uint32_t length) { return length + kSlotOverhead; }
  void release(uint32_t slot);
  bool evictOne();

  // The slot, the block head, its share of the index (kept a quarter to half full), the allocator.
  static constexpr size_t kSlotOverhead = 96;
  size_t limit_ = 0;
  size_t used_ = 0;
  bool check_ = false;
  std::vector<Slot> slots_;
  std::vector<uint32_t> freeSlots_;
  size_t hand_ = 0;
  uint64_t lastVersion_ = 0;
  std::map<std::pair<uint64_t, uint64_t>, std::unique_ptr<BTreeCacheFile>> files_;
};

#endif
