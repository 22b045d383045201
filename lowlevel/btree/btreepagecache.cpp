// The process-wide page cache, and the switches of btree.h that set it.
#include "lowlevel/btree/btreepagecache.h"

#include <cstring>
#include <new>

#include "lowlevel/btree/btree.h"

bool BTreeCacheIndex::grow() {
  const size_t capacity = capacity_ == 0 ? 64 : 2 * capacity_;
  std::unique_ptr<Entry[]> entries(new (std::nothrow) Entry[capacity]);
  if (!entries) return false;
  for (size_t i = 0; i < capacity; ++i) entries[i].position = kEmpty;
  std::unique_ptr<Entry[]> old = std::move(entries_);
  const size_t oldCapacity = capacity_;
  entries_ = std::move(entries);
  capacity_ = capacity;
  mask_ = capacity - 1;
  shift_ = 32;
  for (size_t c = capacity; c > 1; c >>= 1) --shift_;
  for (size_t i = 0; i < oldCapacity; ++i) {
    if (old[i].position == kEmpty) continue;
    size_t at = home(old[i].position);
    while (entries_[at].position != kEmpty) at = (at + 1) & mask_;
    entries_[at] = old[i];
  }
  return true;
}

bool BTreeCacheIndex::set(int32_t position, BTreeCacheRef ref) {
  if (BTreeCacheRef* at = find(position)) {
    *at = ref;
    return true;
  }
  if (2 * (count_ + 1) > capacity_ && !grow()) return false;  // at most half full
  size_t at = home(position);
  while (entries_[at].position != kEmpty) at = (at + 1) & mask_;
  entries_[at] = Entry{position, ref};
  ++count_;
  return true;
}

// Backward shift: the entries after the hole that may move into it do, so that no probe sequence
// is cut by an empty entry.
void BTreeCacheIndex::erase(int32_t position) {
  if (count_ == 0) return;
  size_t hole = home(position);
  while (entries_[hole].position != position) {
    if (entries_[hole].position == kEmpty) return;
    hole = (hole + 1) & mask_;
  }
  for (size_t next = (hole + 1) & mask_; entries_[next].position != kEmpty; next = (next + 1) & mask_) {
    const size_t want = home(entries_[next].position);
    // `next` stays when its home lies cyclically in (hole, next].
    const bool stays = hole <= next ? (hole < want && want <= next) : (hole < want || want <= next);
    if (stays) continue;
    entries_[hole] = entries_[next];
    hole = next;
  }
  entries_[hole].position = kEmpty;
  --count_;
}

void BTreeCacheIndex::clear() {
  entries_.reset();
  capacity_ = mask_ = count_ = 0;
  shift_ = 32;
}

BTreePageCache& BTreePageCache::instance() {
  static BTreePageCache cache;
  return cache;
}

void BTreePageCache::setLimit(size_t bytes) {
  limit_ = bytes;
  if (bytes == 0) {
    clearAll();
    return;
  }
  while (used_ > limit_ && evictOne()) {
  }
}

BTreeCacheFile* BTreePageCache::attach(const lowlevel::platform::FileIdentity& id,
                                       const BTreeCacheLayout& layout) {
  std::unique_ptr<BTreeCacheFile>& file = files_[{id.device, id.number}];
  if (!file) {
    file.reset(new (std::nothrow) BTreeCacheFile);
    if (!file) {
      files_.erase({id.device, id.number});
      return nullptr;
    }
    file->device = id.device;
    file->number = id.number;
    file->layout = layout;
    file->stamp = id;
  }
  ++file->attached;
  return file.get();
}

void BTreePageCache::detach(BTreeCacheFile* file) {
  if (file == nullptr || --file->attached > 0) return;
  clear(file);
  files_.erase({file->device, file->number});
}

void BTreePageCache::release(uint32_t slot) {
  Slot& s = slots_[slot];
  used_ -= charge(s.block->length);
  s.file = nullptr;
  s.block.reset();
  freeSlots_.push_back(slot);
}

// CLOCK: a referenced entry gets one more round; the first one that has none is dropped.
bool BTreePageCache::evictOne() {
  if (slots_.empty() || used_ == 0) return false;
  for (size_t steps = 0; steps < 2 * slots_.size() + 1; ++steps) {
    if (hand_ >= slots_.size()) hand_ = 0;
    Slot& s = slots_[hand_];
    const uint32_t current = static_cast<uint32_t>(hand_++);
    if (s.file == nullptr) continue;
    if (s.block->referenced) {
      s.block->referenced = false;
      continue;
    }
    s.file->index.erase(s.position);
    release(current);
    return true;
  }
  return false;
}

void BTreePageCache::put(BTreeCacheFile* file, int32_t position, const unsigned char* bytes,
                         uint32_t length) {
  erase(file, position);
  if (charge(length) > limit_) return;
  while (used_ + charge(length) > limit_ && evictOne()) {
  }
  void* memory = ::operator new(sizeof(BTreeCacheBlock) + length, std::nothrow);
  if (memory == nullptr) return;
  std::unique_ptr<BTreeCacheBlock, FreeBlock> block(new (memory) BTreeCacheBlock);
  block->length = length;
  block->version = ++lastVersion_;
  std::memcpy(block->bytes(), bytes, length);
  uint32_t slot;
  if (!freeSlots_.empty()) {
    slot = freeSlots_.back();
    freeSlots_.pop_back();
  } else {
    slot = static_cast<uint32_t>(slots_.size());
    slots_.emplace_back();
  }
  Slot& s = slots_[slot];
  s.file = file;
  s.position = position;
  s.block = std::move(block);
  used_ += charge(length);
  if (!file->index.set(position, BTreeCacheRef{slot, s.block.get()}))
    release(slot);  // no memory for the index: not cached
}

void BTreePageCache::patch(BTreeCacheFile* file, int32_t position, const unsigned char* bytes,
                           uint32_t length, unsigned char note) {
  const BTreeCacheRef* at = file->index.find(position);
  if (at == nullptr) return;
  BTreeCacheBlock* block = at->block;
  if (length <= block->length) {
    std::memcpy(block->bytes(), bytes, length);
    block->note = note;
    block->version = ++lastVersion_;
  } else {
    const uint32_t slot = at->slot;
    file->index.erase(position);
    release(slot);
  }
}

void BTreePageCache::erase(BTreeCacheFile* file, int32_t position) {
  const BTreeCacheRef* at = file->index.find(position);
  if (at == nullptr) return;
  const uint32_t slot = at->slot;
  file->index.erase(position);
  release(slot);
}

void BTreePageCache::clear(BTreeCacheFile* file) {
  file->index.forEachSlot([this](uint32_t slot) { release(slot); });
  file->index.clear();
}

void BTreePageCache::clearAll() {
  for (auto& file : files_) clear(file.second.get());
}

void setBTreePageCacheSize(size_t bytes) { BTreePageCache::instance().setLimit(bytes); }
size_t getBTreePageCacheSize() { return BTreePageCache::instance().limit(); }
void setBTreePageCacheCheck(bool on) { BTreePageCache::instance().setCheckChanges(on); }
bool getBTreePageCacheCheck() { return BTreePageCache::instance().checkChanges(); }
