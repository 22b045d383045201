// The process-wide page cache, and the switches of btree.h that set it.
#include "lowlevel/btree/btreepagecache.h"

#include <cstring>
#include <new>

#include "lowlevel/btree/btree.h"

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
  used_ -= charge(s.length);
  s.file = nullptr;
  s.bytes.reset();
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
    if (s.referenced) {
      s.referenced = false;
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
  std::unique_ptr<unsigned char[]> copy(new (std::nothrow) unsigned char[length == 0 ? 1 : length]);
  if (!copy) return;
  std::memcpy(copy.get(), bytes, length);
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
  s.length = length;
  s.referenced = false;
  s.note = 0;
  s.version = ++lastVersion_;
  s.bytes = std::move(copy);
  used_ += charge(length);
  file->index[position] = slot;
}

void BTreePageCache::patch(BTreeCacheFile* file, int32_t position, const unsigned char* bytes,
                           uint32_t length, unsigned char note) {
  auto it = file->index.find(position);
  if (it == file->index.end()) return;
  Slot& s = slots_[it->second];
  if (length <= s.length) {
    std::memcpy(s.bytes.get(), bytes, length);
    s.note = note;
    s.version = ++lastVersion_;
  } else {
    file->index.erase(it);
    release(static_cast<uint32_t>(&s - slots_.data()));
  }
}

void BTreePageCache::erase(BTreeCacheFile* file, int32_t position) {
  auto it = file->index.find(position);
  if (it == file->index.end()) return;
  const uint32_t slot = it->second;
  file->index.erase(it);
  release(slot);
}

void BTreePageCache::clear(BTreeCacheFile* file) {
  for (const auto& entry : file->index) release(entry.second);
  file->index.clear();
}

void BTreePageCache::clearAll() {
  for (auto& file : files_) clear(file.second.get());
}

void setBTreePageCacheSize(size_t bytes) { BTreePageCache::instance().setLimit(bytes); }
size_t getBTreePageCacheSize() { return BTreePageCache::instance().limit(); }
void setBTreePageCacheCheck(bool on) { BTreePageCache::instance().setCheckChanges(on); }
bool getBTreePageCacheCheck() { return BTreePageCache::instance().checkChanges(); }
