// The rollback journal: overlay of a batch, flush through the journal, commit, rollback, recovery.
#include "lowlevel/btree/btree_journal.h"

#include <xxhash.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/files/file.h"
#include "lowlevel/platform/io.h"

namespace io = lowlevel::platform;

namespace {

constexpr char kMagic[8] = {'L', 'L', 'B', 'T', 'J', 'N', 'L', '1'};
constexpr int kHeaderSize = 32;
constexpr int kRecordHead = 8;   // offset, length; the data and a checksum follow

void put32(unsigned char* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(v >> (8 * i));
}

uint32_t get32(const unsigned char* in) {
  return static_cast<uint32_t>(in[0]) | (static_cast<uint32_t>(in[1]) << 8) |
         (static_cast<uint32_t>(in[2]) << 16) | (static_cast<uint32_t>(in[3]) << 24);
}

uint32_t checksum(const unsigned char* bytes, size_t count, uint32_t seed) {
  return static_cast<uint32_t>(XXH64(bytes, count, seed));
}

uint32_t newSalt() {
  static uint32_t counter = 0;
  const uint64_t t = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  return static_cast<uint32_t>(XXH64(&t, sizeof t, ++counter)) | 1u;
}

bool writeAt(ZFile& file, int32_t position, const unsigned char* bytes, int count) {
  return file.Seek(position, 0) == position && file.Write(bytes, count) == count;
}

bool readAt(ZFile& file, int32_t position, unsigned char* bytes, int count) {
  return file.Seek(position, 0) == position && file.Read(bytes, count) == count;
}

// Puts back every sound record of `journal` into the tree, cuts the tree to its old length and
// makes it durable. A record that is cut short or fails its checksum ends the list: it was being
// written when the crash came, so the tree was not yet touched at its place.
bool rollBack(ZFile& tree, const std::vector<unsigned char>& journal) {
  const uint32_t salt = get32(journal.data() + 8);
  const int32_t oldLength = static_cast<int32_t>(get32(journal.data() + 12));
  size_t at = kHeaderSize;
  while (journal.size() - at >= kRecordHead + 4) {
    const unsigned char* r = journal.data() + at;
    const int32_t offset = static_cast<int32_t>(get32(r));
    const int32_t length = static_cast<int32_t>(get32(r + 4));
    if (offset < 0 || length <= 0 || length > oldLength - offset ||
        static_cast<size_t>(length) > journal.size() - at - kRecordHead - 4)
      break;
    if (get32(r + kRecordHead + length) != checksum(r, kRecordHead + static_cast<size_t>(length), salt))
      break;
    if (!writeAt(tree, offset, r + kRecordHead, length)) return false;
    at += kRecordHead + static_cast<size_t>(length) + 4;
  }
  const int handle = tree.GetHandle();
  return io::truncate(handle, oldLength) == 0 && io::sync(handle) == 0;
}

// The whole journal file, or false when it cannot be read.
bool readJournal(const std::string& path, std::vector<unsigned char>& out) {
  const int h = io::open(path.c_str(), io::kOpenBinary | io::kOpenReadOnly, 0);
  if (h < 0) return false;
  const int32_t size = io::filelength(h);
  bool ok = size >= 0;
  if (ok) {
    out.resize(static_cast<size_t>(size));
    ok = size == 0 || io::read(h, out.data(), static_cast<unsigned>(size)) == size;
  }
  io::close(h);
  return ok;
}

bool soundHeader(const std::vector<unsigned char>& j) {
  return j.size() >= static_cast<size_t>(kHeaderSize) && std::memcmp(j.data(), kMagic, 8) == 0 &&
         get32(j.data() + 28) == checksum(j.data(), 28, 0) &&
         static_cast<int32_t>(get32(j.data() + 12)) >= kBTreeHeaderSize;
}

}  // namespace

size_t BTreeJournal::spillBytes = 8u << 20;

BTreeJournal::BTreeJournal(std::string journalPath, int32_t recordSize)
    : path_(std::move(journalPath)),
      recordSize_(recordSize),
      slotSize_(static_cast<size_t>(recordSize > kBTreeHeaderSize ? recordSize : kBTreeHeaderSize)) {}

BTreeJournal::~BTreeJournal() {
  if (journal_ >= 0) io::close(journal_);
  if (lockedHandle_ >= 0) io::close(lockedHandle_);  // closing drops the lock
}

std::string BTreeJournal::pathFor(const std::string& fileName) {
  // Only a prefixed name is resolved: resolving asks the host, and an open of a plain name must
  // not make calls that it did not make before crash-safe mode existed.
  std::string path = fileName;
  const size_t colon = path.find(':');
  if (colon != std::string::npos && colon != 1) ZFile::ResolvePath(path, false, false);
  char host[4096];
  io::toHostPath(path.c_str(), host, sizeof host);
  return std::string(host) + "-journal";
}

int32_t BTreeJournal::blockStart(int32_t position) const {
  if (position < kBTreeHeaderSize) return 0;
  return kBTreeHeaderSize + (position - kBTreeHeaderSize) / recordSize_ * recordSize_;
}

int32_t BTreeJournal::blockSize(int32_t start) const {
  return start == 0 ? kBTreeHeaderSize : recordSize_;
}

// The lock is taken on a handle of the journal's own, not on the tree's: ZFile::CloseAll may park
// the tree in the middle of a batch and closing its handle would drop a lock held there.
bool BTreeJournal::begin(ZFile& tree, bool wait) {
  if (active_) return false;
  const std::string treePath = path_.substr(0, path_.size() - std::strlen("-journal"));
  const int handle = io::open(treePath.c_str(), io::kOpenBinary | io::kOpenReadOnly, 0);
  if (handle < 0) return false;
  if (io::lock(handle, wait) != 0) {
    io::close(handle);
    return false;
  }
  const int32_t length = tree.Length();
  if (length < 0) {
    io::unlock(handle);
    io::close(handle);
    return false;
  }
  lockedHandle_ = handle;
  oldLength_ = treeLength_ = length;
  salt_ = newSalt();
  writes_ = 0;
  active_ = true;
  return true;
}

size_t BTreeJournal::maxSlots() const {
  const size_t slots = spillBytes / slotSize_;
  return slots < 4 ? 4 : slots;
}

// A free slot of the arena: a new one while the arena is below spillBytes; else one of the clean
// blocks that dropClean lets go; else, when `mayFlush`, one freed by flushing the dirty blocks to
// the tree. kNoSlot when there is none (or the flush failed).
size_t BTreeJournal::takeSlot(ZFile& tree, bool mayFlush) {
  if (free_.empty()) {
    const size_t slots = arena_.size() / slotSize_;
    if (slots < maxSlots()) {
      const size_t grown = std::min(maxSlots(), std::max<size_t>(2 * slots, 16));
      arena_.resize(grown * slotSize_);
      for (size_t slot = grown; slot > slots; --slot) free_.push_back(slot - 1);
    } else {
      dropClean();
      if (free_.empty() && mayFlush) {
        if (!flush(tree)) return kNoSlot;
        dropClean();
      }
      if (free_.empty()) return kNoSlot;
    }
  }
  const size_t slot = free_.back();
  free_.pop_back();
  return slot;
}

// Lets go the clean blocks not used since the last sweep (second chance: the others are marked
// and go at the next one, or at once when this sweep freed nothing).
void BTreeJournal::dropClean() {
  for (int pass = 0; pass < 2 && free_.empty(); ++pass) {
    for (auto it = blocks_.begin(); it != blocks_.end();) {
      if (it->second.dirty || it->second.used) {
        it->second.used = false;
        ++it;
      } else {
        free_.push_back(it->second.slot);
        it = blocks_.erase(it);
      }
    }
  }
}

// Forgets every block; the arena's memory stays for the next batch unless it grew large.
void BTreeJournal::dropBlocks() {
  blocks_.clear();
  originals_.clear();
  dirtyBlocks_ = 0;
  overlayEnd_ = 0;
  if (arena_.size() > kKeepBytes || arena_.size() / slotSize_ > maxSlots()) {
    std::vector<unsigned char>().swap(arena_);
  }
  if (out_.size() > kKeepBytes) std::vector<unsigned char>().swap(out_);
  free_.clear();
  for (size_t slot = arena_.size() / slotSize_; slot > 0; --slot) free_.push_back(slot - 1);
}

// Reads the block at `start` into `slot` (zeros past the tree's end) and holds it, clean.
BTreeJournal::Block* BTreeJournal::load(ZFile& tree, int32_t start, size_t slot) {
  const int32_t size = blockSize(start);
  unsigned char* bytes = slotBytes(slot);
  const int32_t present = start >= treeLength_ ? 0 : treeLength_ - start < size ? treeLength_ - start : size;
  std::memset(bytes + present, 0, static_cast<size_t>(size - present));
  if (present > 0 && !readAt(tree, start, bytes, present)) {
    free_.push_back(slot);
    return nullptr;
  }
  Block held;
  held.slot = slot;
  return &blocks_.emplace(start, held).first->second;
}

bool BTreeJournal::read(ZFile& tree, int32_t position, void* out, int count) {
  unsigned char* to = static_cast<unsigned char*>(out);
  while (count > 0) {
    const int32_t start = blockStart(position);
    const int32_t skip = position - start;
    const int n = blockSize(start) - skip < count ? blockSize(start) - skip : count;
    auto found = blocks_.find(start);
    Block* held = found != blocks_.end() ? &found->second : nullptr;
    // Only bytes the tree has, or the batch wrote, can be read.
    if ((held == nullptr || !held->dirty) && position + n > treeLength_) return false;
    if (held == nullptr) {
      const size_t slot = takeSlot(tree, false);
      if (slot != kNoSlot && (held = load(tree, start, slot)) == nullptr) return false;
    }
    if (held != nullptr) {
      held->used = true;
      std::memcpy(to, slotBytes(held->slot) + skip, static_cast<size_t>(n));
    } else if (!readAt(tree, position, to, n)) {
      return false;
    }
    to += n;
    position += n;
    count -= n;
  }
  return true;
}

bool BTreeJournal::write(ZFile& tree, int32_t position, const void* in, int count) {
  const unsigned char* from = static_cast<const unsigned char*>(in);
  if (position < 0) return false;
  ++writes_;
  while (count > 0) {
    const int32_t start = blockStart(position);
    const int32_t skip = position - start;
    const int n = blockSize(start) - skip < count ? blockSize(start) - skip : count;
    auto found = blocks_.find(start);
    const bool firstWrite = found == blocks_.end() || !found->second.dirty;
    // A block first written keeps the tree's bytes for the journal (the tree still has them:
    // only flushed blocks reach it, and those are journaled). That slot is taken first, since
    // taking one may let the clean blocks go.
    size_t original = kNoSlot;
    if (firstWrite && start < oldLength_ && journaled_.count(start) == 0) {
      original = takeSlot(tree, true);
      if (original == kNoSlot) return false;
    }
    Block* held = nullptr;
    found = blocks_.find(start);
    if (found != blocks_.end()) {
      held = &found->second;
    } else {
      const size_t slot = takeSlot(tree, true);
      held = slot == kNoSlot ? nullptr : load(tree, start, slot);
    }
    if (held == nullptr) {
      if (original != kNoSlot) free_.push_back(original);
      return false;
    }
    if (original != kNoSlot) {
      const int32_t size = oldLength_ - start < blockSize(start) ? oldLength_ - start : blockSize(start);
      std::memcpy(slotBytes(original), slotBytes(held->slot), static_cast<size_t>(size));
      originals_[start] = Original{original, size};
    }
    if (!held->dirty) {
      held->dirty = true;
      ++dirtyBlocks_;
      const int32_t end = start + blockSize(start);
      if (end > overlayEnd_) overlayEnd_ = end;
    }
    std::memcpy(slotBytes(held->slot) + skip, from, static_cast<size_t>(n));
    from += n;
    position += n;
    count -= n;
  }
  return true;
}

int32_t BTreeJournal::length() const {
  return dirtyBlocks_ != 0 && overlayEnd_ > treeLength_ ? overlayEnd_ : treeLength_;
}

// The journal first: the original bytes of each block not yet in it, made durable; then the
// blocks of the overlay into the tree (not yet durable).
bool BTreeJournal::flush(ZFile& tree) {
  if (dirtyBlocks_ == 0) return true;
  size_t total = 0;
  for (const auto& entry : originals_) total += kRecordHead + static_cast<size_t>(entry.second.size) + 4;
  bool created = false;
  if (journal_ < 0) {
    journal_ = io::open(path_.c_str(),
                        io::kOpenBinary | io::kOpenCreate | io::kOpenTruncate | io::kOpenReadWrite,
                        io::kPermRead | io::kPermWrite);
    if (journal_ < 0) return false;
    created = true;
    total += kHeaderSize;
  }
  if (out_.size() < total) out_.resize(total);
  size_t at = 0;
  if (created) {
    std::memset(out_.data(), 0, kHeaderSize);
    std::memcpy(out_.data(), kMagic, 8);
    put32(out_.data() + 8, salt_);
    put32(out_.data() + 12, static_cast<uint32_t>(oldLength_));
    put32(out_.data() + 16, static_cast<uint32_t>(recordSize_));
    put32(out_.data() + 28, checksum(out_.data(), 28, 0));
    at = kHeaderSize;
  }
  for (const auto& entry : originals_) {
    const int32_t size = entry.second.size;
    unsigned char* r = out_.data() + at;
    put32(r, static_cast<uint32_t>(entry.first));
    put32(r + 4, static_cast<uint32_t>(size));
    std::memcpy(r + kRecordHead, slotBytes(entry.second.slot), static_cast<size_t>(size));
    put32(r + kRecordHead + size, checksum(r, kRecordHead + static_cast<size_t>(size), salt_));
    at += kRecordHead + static_cast<size_t>(size) + 4;
  }
  if (total > 0) {
    if (io::lseek(journal_, 0, 2) < 0 ||
        io::write(journal_, out_.data(), static_cast<unsigned>(total)) != static_cast<int>(total) ||
        io::sync(journal_) != 0 || (created && io::syncDirectoryOf(path_.c_str()) != 0))
      return false;
  }
  for (const auto& entry : originals_) journaled_.insert(entry.first);
  if (!writeBlocks(tree)) return false;
  // What was written is now the tree's: the blocks stay, clean, and the originals go.
  for (auto& entry : blocks_) entry.second.dirty = false;
  for (const auto& entry : originals_) free_.push_back(entry.second.slot);
  originals_.clear();
  dirtyBlocks_ = 0;
  overlayEnd_ = 0;
  return true;
}

// Writes the dirty blocks into the tree, each run of adjacent ones (up to kMaxRun bytes) in one
// write.
bool BTreeJournal::writeBlocks(ZFile& tree) {
  constexpr size_t kMaxRun = 1u << 20;
  int32_t runStart = 0;
  size_t runBytes = 0;
  auto writeRun = [&]() {
    if (runBytes == 0) return true;
    if (!writeAt(tree, runStart, out_.data(), static_cast<int>(runBytes))) return false;
    const int32_t end = runStart + static_cast<int32_t>(runBytes);
    if (end > treeLength_) treeLength_ = end;
    runBytes = 0;
    return true;
  };
  for (const auto& entry : blocks_) {
    if (!entry.second.dirty) continue;
    const size_t size = static_cast<size_t>(blockSize(entry.first));
    if (runBytes != 0 &&
        (entry.first != runStart + static_cast<int32_t>(runBytes) || runBytes + size > kMaxRun) &&
        !writeRun())
      return false;
    if (runBytes == 0) runStart = entry.first;
    if (out_.size() < runBytes + size) out_.resize(runBytes + size);
    std::memcpy(out_.data() + runBytes, slotBytes(entry.second.slot), size);
    runBytes += size;
  }
  return writeRun();
}

void BTreeJournal::end(ZFile& tree) {
  (void)tree;
  dropBlocks();
  journaled_.clear();
  if (journal_ >= 0) io::close(journal_);
  journal_ = -1;
  if (lockedHandle_ >= 0) {
    io::unlock(lockedHandle_);
    io::close(lockedHandle_);
  }
  lockedHandle_ = -1;
  active_ = false;
}

bool BTreeJournal::commit(ZFile& tree) {
  if (!active_) return false;
  if (dirtyBlocks_ == 0 && journal_ < 0) {  // nothing was changed
    end(tree);
    return true;
  }
  if (!flush(tree) || io::sync(tree.GetHandle()) != 0) {
    stuck_ = !rollback(tree);
    return false;
  }
  io::close(journal_);
  journal_ = -1;
  // Deleting the journal is the commit. When it fails, the journal stays and rolls the batch back
  // at the next open; the caller must treat the batch as not committed.
  const bool removed = io::remove(path_.c_str()) == 0;
  stuck_ = !removed;
  end(tree);
  return removed;
}

bool BTreeJournal::rollback(ZFile& tree) {
  if (!active_) return false;
  bool ok = true;
  if (journal_ >= 0) {
    // Blocks reached the tree: put the originals back from the journal as written.
    io::close(journal_);
    journal_ = -1;
    std::vector<unsigned char> bytes;
    ok = readJournal(path_, bytes) && soundHeader(bytes) && rollBack(tree, bytes) &&
         io::remove(path_.c_str()) == 0;
  }
  stuck_ = !ok;
  end(tree);
  return ok;
}

BTreeJournal::Recovery BTreeJournal::recover(ZFile& tree, const std::string& journalPath,
                                             bool writable) {
  if (!io::exists(journalPath.c_str())) return Recovery::NoJournal;
  const int handle = tree.GetHandle();
  if (io::lock(handle, true) != 0) return Recovery::Failed;
  Recovery result = Recovery::NoJournal;
  std::vector<unsigned char> bytes;
  if (!io::exists(journalPath.c_str())) {
    result = Recovery::NoJournal;  // its writer committed or rolled back while we waited
  } else if (!readJournal(journalPath, bytes)) {
    result = Recovery::Failed;
  } else if (!soundHeader(bytes)) {
    result = !writable ? Recovery::Discarded
             : io::remove(journalPath.c_str()) == 0 ? Recovery::Discarded : Recovery::Failed;
  } else if (!writable) {
    result = Recovery::NeedsWrite;
  } else {
    result = rollBack(tree, bytes) && io::remove(journalPath.c_str()) == 0 ? Recovery::RolledBack
                                                                            : Recovery::Failed;
  }
  io::unlock(handle);
  return result;
}
