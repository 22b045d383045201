// The page file's side of the page cache: when a page file may use the shared entries of its file,
// and the one place where its writes reach the file and the cache together.
//
// The invariant: every cached entry holds exactly the bytes the file holds at its position. Reads
// cache only records that passed the page checks, at positions where the layout puts records; each
// write of the file patches or replaces what it overlaps, and a write whose overlap cannot be known
// (another layout, the compressed form, a position off the layout) drops the file's entries.
#include <cstdint>

#include "lowlevel/btree/btreepagecache.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/platform/fileid.h"

namespace io = lowlevel::platform;

BTreeCacheLayout BTreePageFile::cacheLayout() const {
  BTreeCacheLayout layout;
  layout.headerPosition = offsetStart;
  layout.recordSize = hdr.compressed != 0 ? -1 : btreeRecordSize(hdr.order, hdr.keyLength);
  return layout;
}

// The file's shared entries, attaching on first use; null while the cache is off or the file is
// parked. A parked file may come back as another file (another volume in the drive), so the
// entries are dropped and the page file attaches afresh once the file is open again.
BTreeCacheFile* BTreePageFile::cachedFile() {
  BTreePageCache& cache = BTreePageCache::instance();
  if (cache.limit() == 0) return nullptr;
  if (!file.IsOpen()) {
    if (cacheFile != nullptr) cache.clear(cacheFile);
    cacheDetach();
    return nullptr;
  }
  if (cacheFile == nullptr) {
    const int handle = file.GetHandle();
    io::FileIdentity id;
    if (io::fileIdentity(handle, &id) != 0) return nullptr;
    cacheFile = cache.attach(id, cacheLayout());
    cacheHandle = handle;
  }
  return cacheFile;
}

void BTreePageFile::cacheDetach() {
  BTreePageCache::instance().detach(cacheFile);
  cacheFile = nullptr;
  cacheHandle = -1;
}

// A file just created (truncated) holds none of what was cached for it, and its layout is ours.
void BTreePageFile::cacheTruncated() {
  BTreeCacheFile* cached = cachedFile();
  if (cached == nullptr) return;
  BTreePageCache::instance().clear(cached);
  cached->layout = cacheLayout();
}

// The entries a read at `position` may use: the file's, when they are laid out as this page file
// sees the file and `position` is where a record starts. With change checks on, a file whose size
// or change time moved since this process last looked loses its entries first.
BTreeCacheFile* BTreePageFile::cacheForRead(int32_t position) {
  BTreeCacheFile* cached = cachedFile();
  if (cached == nullptr) return nullptr;
  const BTreeCacheLayout layout = cacheLayout();
  if (!(cached->layout == layout)) return nullptr;
  if (layout.recordSize > 0) {
    const int64_t first = static_cast<int64_t>(layout.headerPosition) + kBTreeHeaderSize;
    if (position < first || (position - first) % layout.recordSize != 0) return nullptr;
  }
  BTreePageCache& cache = BTreePageCache::instance();
  if (cache.checkChanges()) {
    io::FileIdentity now;
    if (io::fileIdentity(cacheHandle, &now) != 0) return nullptr;
    if (now.size != cached->stamp.size || now.changeTime != cached->stamp.changeTime) {
      cache.clear(cached);
      cached->stamp = now;
    }
  }
  return cached;
}

void BTreePageFile::cacheForget() {
  if (BTreePageCache::instance().limit() == 0) return;
  BTreeCacheFile* cached = cachedFile();
  if (cached != nullptr) BTreePageCache::instance().clear(cached);
}

int BTreePageFile::writeThrough(int32_t position, const void* bytes, int length,
                                unsigned char note) {
  // A batch's writes wait in the journal's overlay and reads in a batch pass the cache by; the
  // entries are dropped when the batch ends (cacheForget), as other readers may have cached bytes
  // the batch then changed.
  if (batching()) return journal->write(file, position, bytes, length) ? length : -1;
  const int written = file.Write(bytes, length);
  BTreePageCache& cache = BTreePageCache::instance();
  if (cache.limit() == 0) return written;
  BTreeCacheFile* cached = cachedFile();
  if (cached == nullptr) {
    cache.clearAll();  // which entries are this file's cannot be told: none may go stale
    return written;
  }
  const BTreeCacheLayout layout = cacheLayout();
  const int64_t first = static_cast<int64_t>(layout.headerPosition) + kBTreeHeaderSize;
  const unsigned char* data = static_cast<const unsigned char*>(bytes);
  if (position == layout.headerPosition && length <= kBTreeHeaderSize && layout.recordSize > 0 &&
      cached->layout == layout) {
    // The header: no record lies there.
  } else if (!(cached->layout == layout) || layout.recordSize <= 0 || position < first ||
             (position - first) % layout.recordSize != 0) {
    cache.clear(cached);
  } else if (written != length) {
    cache.erase(cached, position);  // what the file holds there now is not known
  } else {
    // A page that is cached takes the new bytes; one that is not stays out (a bulk build or a
    // long run of inserts would otherwise push out what reads brought in).
    cache.patch(cached, position, data, static_cast<uint32_t>(length), note);
  }
  if (cache.checkChanges()) io::fileIdentity(cacheHandle, &cached->stamp);
  return written;
}
