// The page file: header, page records by logical offset, the free-page chain.
#include "lowlevel/btree/btreepagefile.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "lowlevel/files/filelimit.h"
#include "lowlevel/platform/io.h"
#include "lowlevel/support/support.h"

namespace {

const char kModule[] = "btree";
const char kOpenFunction[] = "BTreePageFile::BTreePageFile";

void put32(unsigned char* out, int32_t value) {
  const uint32_t v = static_cast<uint32_t>(value);
  out[0] = static_cast<unsigned char>(v);
  out[1] = static_cast<unsigned char>(v >> 8);
  out[2] = static_cast<unsigned char>(v >> 16);
  out[3] = static_cast<unsigned char>(v >> 24);
}

void put16(unsigned char* out, int16_t value) {
  const uint16_t v = static_cast<uint16_t>(value);
  out[0] = static_cast<unsigned char>(v);
  out[1] = static_cast<unsigned char>(v >> 8);
}

int32_t get32(const unsigned char* in) { return BTreeRecord::load32(in); }

int16_t get16(const unsigned char* in) {
  return static_cast<int16_t>(static_cast<uint16_t>(in[0] | (in[1] << 8)));
}

bool knownVersion(int32_t version) {
  return version == kBTreeVersion1 || version == kBTreeVersion2 || version == kBTreeVersion3 ||
         version == kBTreeVersion4;
}

// The most key bytes a compressed record can store for one key: the table entries are 16-bit.
constexpr int32_t kMaxCompressedKeyBytes = 32767;

// `count` little-endian 32-bit numbers from `in` to `out` and back: one copy on a little-endian
// host, byte by byte elsewhere.
void loadLittleEndian(int32_t* out, const unsigned char* in, uint32_t count) {
#if (defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) || defined(_WIN32)
  std::memcpy(out, in, 4 * static_cast<size_t>(count));
#else
  for (uint32_t i = 0; i < count; ++i) out[i] = get32(in + 4 * static_cast<size_t>(i));
#endif
}

void storeLittleEndian(unsigned char* out, const int32_t* in, uint32_t count) {
#if (defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) || defined(_WIN32)
  std::memcpy(out, in, 4 * static_cast<size_t>(count));
#else
  for (uint32_t i = 0; i < count; ++i) put32(out + 4 * static_cast<size_t>(i), in[i]);
#endif
}

// Replaces the whole content of `page` by that of `scratch`; the old arrays go with `scratch`.
void adoptPage(BTreePage& page, BTreePage& scratch) { page.swap(scratch); }

}  // namespace

// ---------------------------------------------------------------------------------------------
// Header

void BTreePageFileHdr::encode(unsigned char out[kBTreeHeaderSize]) const {
  put32(out + 0, version);
  put32(out + 4, magic);
  put32(out + 8, headerSize);
  put32(out + 12, keyLength);
  put32(out + 16, order);
  put16(out + 20, duplicates);
  put16(out + 22, compressed);
  put32(out + 24, keyCount);
  put32(out + 28, rootOffset);
  put32(out + 32, freeListHead);
  put32(out + 36, static_cast<int32_t>(lcid));
  put32(out + 40, static_cast<int32_t>(mapFlags));
  put16(out + 44, spaceConversion);
}

void BTreePageFileHdr::decode(const unsigned char in[kBTreeHeaderSize]) {
  version = get32(in + 0);
  magic = get32(in + 4);
  headerSize = get32(in + 8);
  keyLength = get32(in + 12);
  order = get32(in + 16);
  duplicates = get16(in + 20);
  compressed = get16(in + 22);
  keyCount = get32(in + 24);
  rootOffset = get32(in + 28);
  freeListHead = get32(in + 32);
  lcid = static_cast<uint32_t>(get32(in + 36));
  mapFlags = static_cast<uint32_t>(get32(in + 40));
  spaceConversion = get16(in + 44);
}

int64_t btreeRecordSize(int64_t order, int64_t keyLength) {
  if (order < 1 || keyLength < 0 || order > INT32_MAX || keyLength > INT32_MAX) return -1;
  const int64_t size = kBTreePageHeadSize + (order - 1) * keyLength + (order - 1) * 4 + order * 4;
  return size > INT32_MAX ? -1 : size;
}

// ---------------------------------------------------------------------------------------------
// Opening and creating

BTreePageFile::BTreePageFile(const std::string& fileName, bool readOnly_, int32_t offset)
    : keyCount(0),
      ok(false),
      keyBuffer(nullptr),
      keyBufferSize(0),
      readOnly(readOnly_),
      offsetStart(offset),
      compressedWritePosition(0),
      keyLengthTable(nullptr),
      keyLengthTableSize(0),
      name(fileName) {
  if (offset > 0 && !readOnly) {
    reporterLL("You may not open a file with an offset for anything other than reading (" +
                   fileName + ").",
               kOpenFunction, eReportError, kModule, __LINE__);
    return;
  }
  namespace io = lowlevel::platform;
  if (!file.Open(fileName, io::kOpenBinary | (readOnly ? io::kOpenReadOnly : io::kOpenReadWrite),
                 0)) {
    reporterLL("Unable to open file (" + fileName + ").", kOpenFunction, eReportError, kModule,
               __LINE__);
    return;
  }
  // A journal beside the tree means a crash-safe batch was cut off: the tree is rolled back to
  // its state before that batch before anything reads it.
  switch (BTreeJournal::recover(file, BTreeJournal::pathFor(fileName), !readOnly)) {
    case BTreeJournal::Recovery::NeedsWrite:
      reporterLL("An interrupted batch must be rolled back, and the tree is opened read-only (" +
                     fileName + ").",
                 kOpenFunction, eReportError, kModule, __LINE__);
      return;
    case BTreeJournal::Recovery::Failed:
      reporterLL("Unable to roll back the interrupted batch (" + fileName + ").", kOpenFunction,
                 eReportError, kModule, __LINE__);
      return;
    case BTreeJournal::Recovery::RolledBack:
      cacheForget();
      break;
    default: break;
  }
  if (file.Seek(offset, 0) != offset) {
    reporterLL("Unable to seek to header in file (" + fileName + ").", kOpenFunction, eReportError,
               kModule, __LINE__);
    return;
  }
  unsigned char bytes[kBTreeHeaderSize];
  if (file.Read(bytes, kBTreeHeaderSize) != kBTreeHeaderSize) {
    reporterLL("Unable to read BTreePageFileHdr (" + fileName + ").", kOpenFunction, eReportError,
               kModule, __LINE__);
    return;
  }
  hdr.decode(bytes);
  // Besides version and magic, a header whose shape cannot make a usable page is refused here,
  // before anything is allocated by it: order below 2, a slot without key bytes, a record size
  // beyond 32 bits, compressed key widths beyond the 16-bit table entries, and a file too short
  // to hold even one record of that shape.
  bool valid = knownVersion(hdr.version) && hdr.magic == kBTreeMagic;
  if (valid) {
    const int32_t keyRoom = hdr.keyLength - (hdr.duplicates != 0 ? 4 : 0);
    const int64_t recordSize = btreeRecordSize(hdr.order, hdr.keyLength);
    valid = hdr.order >= 2 && hdr.keyLength >= 1 && keyRoom >= 1 && recordSize > 0 &&
            (hdr.compressed == 0 || keyRoom <= kMaxCompressedKeyBytes);
    if (valid) {
      const int64_t length = file.Length();
      const int64_t minRecord =
          hdr.compressed != 0 ? 10 * static_cast<int64_t>(hdr.order) + 6 : recordSize;
      valid = length >= 0 && length - offset - kBTreeHeaderSize >= minRecord;
    }
  }
  if (!valid) {
    reporterLL("Invalid BTree (" + fileName + ").", kOpenFunction, eReportError, kModule,
               __LINE__);
    return;
  }
  if (hdr.version < kBTreeVersion4) hdr.spaceConversion = 0;
  if (hdr.version < kBTreeVersion3) {
    hdr.lcid = 0;
    hdr.mapFlags = 0;
  }
  if (hdr.compressed != 0) {
    if (!readOnly) {
      reporterLL("Cannot modify a compressed BTree", kOpenFunction, eReportError, kModule,
                 __LINE__);
      return;
    }
    if (!ensureKeyLengthTable()) {
      reporterLL("Out of Memory", kOpenFunction, eReportError, kModule, __LINE__);
      return;
    }
  }
  if (!allocateKeyBuffer()) {
    reporterLL("Out of Memory", kOpenFunction, eReportError, kModule, __LINE__);
    return;
  }
  keyCount = hdr.keyCount;
  ok = true;
}

BTreePageFile::BTreePageFile(const std::string& fileName, int order, int keyLength,
                             bool duplicates, uint32_t lcid, uint32_t mapFlags,
                             int16_t spaceConversion)
    : keyCount(0),
      ok(false),
      keyBuffer(nullptr),
      keyBufferSize(0),
      readOnly(false),
      offsetStart(0),
      compressedWritePosition(0),
      keyLengthTable(nullptr),
      keyLengthTableSize(0),
      name(fileName) {
  // The owner refuses impossible shapes with its own report; the file is not touched for them.
  const int64_t slot = static_cast<int64_t>(keyLength) + (duplicates ? 4 : 0);
  if (order < 2 || keyLength < 1 || btreeRecordSize(order, slot) < 0) {
    reporterLL("Invalid BTree (" + fileName + ").", kOpenFunction, eReportError, kModule,
               __LINE__);
    return;
  }
  // Binary, read-write, created and truncated, owner read and write. (The exclusive flag must not
  // be in it: creating replaces an existing file.)
  namespace io = lowlevel::platform;
  if (!file.Open(fileName,
                 io::kOpenBinary | io::kOpenTruncate | io::kOpenCreate | io::kOpenReadWrite,
                 io::kPermRead | io::kPermWrite)) {
    reporterLL("Unable to create file (" + fileName + ").", kOpenFunction, eReportError, kModule,
               __LINE__);
    return;
  }
  hdr.version = kBTreeVersion4;
  hdr.magic = kBTreeMagic;
  hdr.headerSize = kBTreeHeaderSize;
  hdr.keyLength = static_cast<int32_t>(slot);
  hdr.order = order;
  hdr.duplicates = duplicates ? 1 : 0;
  hdr.compressed = 0;
  hdr.keyCount = 0;
  hdr.rootOffset = -1;
  hdr.freeListHead = -1;
  hdr.lcid = lcid;
  hdr.mapFlags = mapFlags;
  hdr.spaceConversion = spaceConversion;
  cacheTruncated();
  unsigned char bytes[kBTreeHeaderSize];
  hdr.encode(bytes);
  if (writeThrough(0, bytes, kBTreeHeaderSize) != kBTreeHeaderSize) {
    reporterLL("Unable to write BTreePageFileHdr (" + fileName + ").", kOpenFunction,
               eReportError, kModule, __LINE__);
    return;
  }
  keyCount = 0;
  // The key buffer is needed by writePage already (it supplies the zero bytes of empty slots).
  if (!allocateKeyBuffer()) {
    reporterLL("Out of Memory", kOpenFunction, eReportError, kModule, __LINE__);
    return;
  }
  BTreePage rootPage(static_cast<unsigned>(hdr.order), static_cast<unsigned>(hdr.keyLength));
  if (!writePage(rootPage, false)) {
    reporterLL("Unable to write root (" + fileName + ").", kOpenFunction, eReportError, kModule,
               __LINE__);
    return;
  }
  hdr.rootOffset = rootPage.offset;
  ok = true;
}

BTreePageFile::~BTreePageFile() {
  if (ok && journal == nullptr) writeHeader();
  cacheDetach();
  std::free(keyBuffer);
  std::free(keyLengthTable);
  std::free(ioBuffer);
  std::free(expandedKeys);
}

bool BTreePageFile::allocateKeyBuffer() {
  if (keyBuffer != nullptr) return true;
  keyBufferSize = hdr.keyLength * (hdr.order - 1);
  keyBuffer = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(keyBufferSize) + 1));
  return keyBuffer != nullptr;
}

bool BTreePageFile::ensureKeyLengthTable() {
  if (keyLengthTable != nullptr) return true;
  if (hdr.order < 2) return false;
  keyLengthTableSize = 2 * hdr.order - 2;
  keyLengthTable = static_cast<int16_t*>(std::malloc(static_cast<size_t>(keyLengthTableSize)));
  if (keyLengthTable == nullptr) keyLengthTableSize = 0;
  return keyLengthTable != nullptr;
}

int64_t BTreePageFile::recordLimit() {
  if (hdr.order < 2) return 0;
  const int64_t length = batching() ? journal->length() : file.Length();
  if (length < 0) return 0;
  const int64_t minRecord = hdr.compressed != 0 ? 10 * static_cast<int64_t>(hdr.order) + 6
                                                : btreeRecordSize(hdr.order, hdr.keyLength);
  if (minRecord <= 0) return 0;
  const int64_t room = length - offsetStart - kBTreeHeaderSize;
  return room <= 0 ? 1 : room / minRecord + 1;
}

// ---------------------------------------------------------------------------------------------
// Scratch space

unsigned char* BTreePageFile::ioSpace(size_t bytes) {
  if (bytes > ioBufferSize) {
    unsigned char* grown = static_cast<unsigned char*>(std::malloc(bytes));
    if (grown == nullptr) return nullptr;
    std::free(ioBuffer);
    ioBuffer = grown;
    ioBufferSize = bytes;
  }
  return ioBuffer;
}

// The scratch page of the header's shape that the next read fills. It is the page that the
// previous read swapped out of its target, so in a steady walk no read allocates anything.
BTreePage* BTreePageFile::scratchPage() {
  const uint32_t order = static_cast<uint32_t>(hdr.order);
  const uint32_t keyLength = static_cast<uint32_t>(hdr.keyLength);
  if (spare.isPlaceholder() || spare.order != order || spare.keyLength != keyLength) {
    BTreePage fresh(order, keyLength);
    if (fresh.isPlaceholder()) return nullptr;
    adoptPage(spare, fresh);
  }
  spare.maxKeys = order - 1;
  spare.minKeys = order >> 1;
  return &spare;
}

// ---------------------------------------------------------------------------------------------
// Pages

bool BTreePageFile::readPage(int32_t offset, BTreePage& page) {
  BTreeRecord record;
  return readRecord(offset, record) && decodeRecord(record, page);
}

bool BTreePageFile::rereadPage(int32_t offset, BTreePage& page) {
  if (&page == rereadTarget && offset == rereadOffset && !batching()) {
    const int64_t position = static_cast<int64_t>(offset) + offsetStart;
    BTreeCacheFile* cached = position <= INT32_MAX ? cacheForRead(static_cast<int32_t>(position)) : nullptr;
    uint32_t length = 0;
    unsigned char* note = nullptr;
    uint64_t version = 0;
    if (cached != nullptr &&
        BTreePageCache::instance().find(cached, static_cast<int32_t>(position), &length, &note,
                                        &version) != nullptr &&
        version == rereadVersion)
      return true;
  }
  rereadTarget = nullptr;
  BTreeRecord record;
  if (!readRecord(offset, record) || !decodeRecord(record, page)) return false;
  if (record.cacheVersion != 0) {
    rereadTarget = &page;
    rereadOffset = offset;
    rereadVersion = record.cacheVersion;
  }
  return true;
}

bool BTreePageFile::readRecord(int32_t offset, BTreeRecord& record) {
  if (hdr.order < 2 || hdr.keyLength < 1 || keyBuffer == nullptr) return false;
  const int64_t position = static_cast<int64_t>(offset) + offsetStart;
  if (offset < 0 || position > INT32_MAX) return false;
  // In a batch the journal's overlay is the truth: the shared cache is passed by.
  if (batching()) {
    const bool read = hdr.compressed != 0 ? readCompressedRecord(offset, record, nullptr, 0)
                                          : readUncompressedRecord(offset, record, nullptr);
    if (read) record.keyOrder = nullptr;
    return read;
  }
  BTreeCacheFile* cached = cacheForRead(static_cast<int32_t>(position));
  if (cached != nullptr) {
    uint32_t length = 0;
    unsigned char* note = nullptr;
    uint64_t version = 0;
    const unsigned char* bytes = BTreePageCache::instance().find(
        cached, static_cast<int32_t>(position), &length, &note, &version);
    if (bytes != nullptr) {
      const bool read = hdr.compressed != 0 ? readCompressedRecord(offset, record, bytes, length)
                                            : readUncompressedRecord(offset, record, bytes);
      if (read) {
        record.keyOrder = note;
        record.cacheVersion = version;
      }
      return read;
    }
  }
  if (file.Seek(static_cast<int32_t>(position), 0) != position) return false;
  const bool read = hdr.compressed != 0 ? readCompressedRecord(offset, record, nullptr, 0)
                                        : readUncompressedRecord(offset, record, nullptr);
  if (read) record.keyOrder = nullptr;
  if (read && cached != nullptr) {
    BTreePageCache::instance().put(cached, static_cast<int32_t>(position), ioBuffer, recordBytes);
  }
  return read;
}

bool BTreePageFile::recordFromCopy(int32_t offset, const unsigned char* bytes, BTreeRecord& record) {
  if (hdr.compressed != 0 || !readUncompressedRecord(offset, record, bytes)) return false;
  record.keyOrder = nullptr;
  return true;
}

bool BTreePageFile::decodeRecord(const BTreeRecord& record, BTreePage& page) {
  BTreePage* scratch = scratchPage();
  if (scratch == nullptr) return false;
  scratch->offset = record.offset;
  scratch->parentOffset = record.parentOffset;
  scratch->keyCount = record.keyCount;
  const uint32_t k = scratch->keyLength;
  const uint32_t used = record.keyCount < scratch->maxKeys ? record.keyCount : scratch->maxKeys;
  for (uint32_t i = 0; i < used; ++i) {
    if (!scratch->keys[i].assign(record.keys + static_cast<size_t>(i) * k, k)) {
      reporterLL("Out of Memory", "BTreePageKey::BTreePageKey", eReportError, kModule, __LINE__);
      return false;
    }
  }
  if (hdr.compressed != 0) {
    for (uint32_t i = 0; i < used; ++i) {
      scratch->keys[i].length = static_cast<uint32_t>(keyLengthTable[i]);  // what the record stores
    }
  }
  // Slots from keyCount on stay empty: what the file holds there is never looked at.
  for (uint32_t i = used; i < scratch->maxKeys; ++i) {
    if (scratch->keys[i].data != nullptr) scratch->keys[i].clear();
  }
  loadLittleEndian(scratch->values, record.values, scratch->maxKeys);
  loadLittleEndian(scratch->children, record.children, scratch->order);
  adoptPage(page, *scratch);
  return true;
}

void BTreePageFile::recycle(BTreePage& page) {
  if (spare.isPlaceholder() && !page.isPlaceholder() &&
      page.order == static_cast<uint32_t>(hdr.order) &&
      page.keyLength == static_cast<uint32_t>(hdr.keyLength)) {
    adoptPage(spare, page);
  }
}

BTreePageRecycler::~BTreePageRecycler() { file_.recycle(page_); }

// The whole record in one read; its head is checked against what is asked and the header.
bool BTreePageFile::readUncompressedRecord(int32_t offset, BTreeRecord& record,
                                           const unsigned char* cached) {
  const int64_t recordSize = btreeRecordSize(hdr.order, hdr.keyLength);
  if (recordSize <= 0) return false;
  const unsigned char* bytes = cached;
  if (bytes == nullptr) {
    unsigned char* space = ioSpace(static_cast<size_t>(recordSize));
    if (space == nullptr) return false;
    if (batching() ? !journal->read(file, offset, space, static_cast<int>(recordSize))
                   : file.Read(space, static_cast<int>(recordSize)) != recordSize)
      return false;
    recordBytes = static_cast<uint32_t>(recordSize);
    bytes = space;
  }
  // maxKeys and minKeys of the record are not trusted: the page is shaped by the header.
  const uint32_t order = static_cast<uint32_t>(hdr.order);
  const uint32_t keyCount = static_cast<uint32_t>(get32(bytes + 20));
  if (static_cast<uint32_t>(get32(bytes + 8)) != order ||
      get32(bytes + 24) != hdr.keyLength || get32(bytes) != offset || keyCount > order - 1) {
    return false;
  }
  record.offset = offset;
  record.parentOffset = get32(bytes + 4);
  record.keyCount = keyCount;
  record.bytes = bytes;
  record.keys = bytes + kBTreePageHeadSize;
  record.values = record.keys + static_cast<size_t>(order - 1) * static_cast<size_t>(hdr.keyLength);
  record.children = record.values + 4 * static_cast<size_t>(order - 1);
  return true;
}

// Two reads: the head with the key length table, then keys, values and children, whose size the
// table tells. Nothing behind the record is read. The stored keys are expanded to full slots:
// padded with zero bytes and, with duplicates, ended by the value big-endian.
bool BTreePageFile::readCompressedRecord(int32_t offset, BTreeRecord& record,
                                         const unsigned char* cached, uint32_t cachedLength) {
  if (!ensureKeyLengthTable()) return false;
  const uint32_t maxKeys = static_cast<uint32_t>(hdr.order) - 1;
  const size_t valueBytes = 4 * static_cast<size_t>(maxKeys);
  const size_t childBytes = 4 * static_cast<size_t>(hdr.order);
  const size_t headBytes = kBTreeCompressedPageHeadSize + static_cast<size_t>(keyLengthTableSize);
  const size_t most = headBytes + static_cast<size_t>(keyBufferSize) + valueBytes + childBytes;
  if (most > INT32_MAX) return false;
  if (expandedKeys == nullptr) {
    expandedKeys = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(keyBufferSize) + 1));
    if (expandedKeys == nullptr) return false;
  }
  unsigned char* space = nullptr;
  const unsigned char* bytes = cached;
  if (cached == nullptr) {
    space = ioSpace(most);
    if (space == nullptr) return false;
    if (file.Read(space, static_cast<int>(headBytes)) != static_cast<int>(headBytes)) return false;
    bytes = space;
  } else if (cachedLength < headBytes) {
    return false;
  }
  const uint32_t keyCount = static_cast<uint32_t>(get32(bytes + 8));
  if (get32(bytes) != offset || keyCount > maxKeys) return false;

  const unsigned char* raw = bytes + kBTreeCompressedPageHeadSize;
  const uint32_t slots = static_cast<uint32_t>(keyLengthTableSize / 2);
  const int32_t keyRoom = hdr.keyLength - (hdr.duplicates != 0 ? 4 : 0);
  int64_t total = 0;
  for (uint32_t i = 0; i < slots; ++i) {
    const int16_t entry = get16(raw + 2 * static_cast<size_t>(i));
    keyLengthTable[i] = entry;
    // A used key stores at least one byte (0 would read as a terminated text); no key stores
    // more than its slot holds.
    if (entry < 0 || entry > keyRoom) return false;
    if (i < keyCount && entry == 0) return false;
    total += entry;
  }
  if (total > keyBufferSize) return false;
  const size_t rest = static_cast<size_t>(total) + valueBytes + childBytes;
  const unsigned char* body = bytes + headBytes;
  if (cached == nullptr) {
    if (file.Read(space + headBytes, static_cast<int>(rest)) != static_cast<int>(rest)) return false;
    recordBytes = static_cast<uint32_t>(headBytes + rest);
  } else if (cachedLength != headBytes + rest) {
    return false;
  }

  record.offset = offset;
  record.parentOffset = get32(bytes + 4);
  record.keyCount = keyCount;
  record.bytes = nullptr;
  record.keys = expandedKeys;
  record.values = body + total;
  record.children = record.values + valueBytes;
  const size_t k = static_cast<size_t>(hdr.keyLength);
  size_t p = 0;
  for (uint32_t i = 0; i < keyCount && i < slots; ++i) {
    const size_t n = static_cast<size_t>(keyLengthTable[i]);
    unsigned char* slot = expandedKeys + i * k;
    std::memcpy(slot, body + p, n);
    std::memset(slot + n, 0, k - n);
    if (hdr.duplicates != 0) {
      const uint32_t v = static_cast<uint32_t>(record.value(i));
      slot[k - 4] = static_cast<unsigned char>(v >> 24);
      slot[k - 3] = static_cast<unsigned char>(v >> 16);
      slot[k - 2] = static_cast<unsigned char>(v >> 8);
      slot[k - 1] = static_cast<unsigned char>(v);
    }
    p += n;
  }
  return true;
}

bool BTreePageFile::writePage(BTreePage& page, bool isRoot) {
  if (hdr.compressed != 0) return WriteCompressed(page);
  if (page.isPlaceholder() || page.order != static_cast<uint32_t>(hdr.order) ||
      page.keyLength != static_cast<uint32_t>(hdr.keyLength) || hdr.order < 2 ||
      page.maxKeys != page.order - 1 || page.keyCount > page.maxKeys || keyBuffer == nullptr)
    return false;
  // Nothing is ever written over the header.
  if (page.offset != -1 && page.offset < kBTreeHeaderSize) return false;
  const int64_t recordSize = btreeRecordSize(hdr.order, hdr.keyLength);
  if (recordSize <= 0) return false;
  unsigned char* record = ioSpace(static_cast<size_t>(recordSize));
  if (record == nullptr) return false;
  bool positioned = false;  // the file position already stands at page.offset
  int32_t place = page.offset;
  int32_t freeListHead = hdr.freeListHead;
  if (place == -1) {
    if (freeListHead != -1) {
      place = freeListHead;
      // A chain entry that is not the start of a record belongs to a damaged file.
      if (place < kBTreeHeaderSize || (place - kBTreeHeaderSize) % recordSize != 0) return false;
      unsigned char link[4];
      if (!readLink(place, link)) return false;
      freeListHead = get32(link);
      if (freeListHead == place) return false;  // a chain that loops onto itself
    } else {
      place = fileEnd();
      if (place == -1) return false;
      if (place < kBTreeHeaderSize) return false;
      positioned = true;  // the seek to the end left the position there
    }
  }
  // Nothing of the record is written, and nothing is taken from the chain, past the limit.
  if (!fitsFileLimit(place, recordSize)) {
    return refuseBeyondFileLimit(name, "BTreePageFile::writePage", kModule, __LINE__);
  }
  page.offset = place;
  hdr.freeListHead = freeListHead;
  if (!batching() && !positioned && file.Seek(page.offset, 0) != page.offset) return false;

  // The record goes out from one buffer in one write.
  put32(record, page.offset);
  put32(record + 4, page.parentOffset);
  put32(record + 8, static_cast<int32_t>(page.order));
  put32(record + 12, static_cast<int32_t>(page.maxKeys));
  put32(record + 16, static_cast<int32_t>(page.minKeys));
  put32(record + 20, static_cast<int32_t>(page.keyCount));
  put32(record + 24, static_cast<int32_t>(page.keyLength));
  unsigned char* p = record + kBTreePageHeadSize;
  const uint32_t width = static_cast<uint32_t>(hdr.keyLength);
  // An empty slot is written as zeros; a key of a stray width is cut or padded to the slot. The
  // slots are zeroed in one go, then the keys laid over them.
  std::memset(p, 0, static_cast<size_t>(page.maxKeys) * width);
  for (uint32_t i = 0; i < page.maxKeys; ++i, p += width) {
    const BTreePageKey& key = page.keys[i];
    if (key.data != nullptr) BTreePageKey::copyBytes(p, key.data, key.size < width ? key.size : width);
  }
  storeLittleEndian(p, page.values, page.maxKeys);
  p += 4 * static_cast<size_t>(page.maxKeys);
  storeLittleEndian(p, page.children, page.order);
  if (writeThrough(page.offset, record, static_cast<int>(recordSize)) != recordSize) return false;
  if (isRoot) hdr.rootOffset = page.offset;
  // The page is on disk; the header follows it but may lag (its failure is not the page's: the
  // next header write, at the latest the one when the file is closed, brings it up to date).
  if (headerAfterPageWrite) writeHeader();
  return true;
}

// The record of a leaf with room (or with a key to spare), in ioBuffer, ready to be changed: read
// from the file it lies there already; from the cache it is copied. Null when `record` is not such
// a leaf, or the record would end beyond the file limit (reported).
unsigned char* BTreePageFile::leafRecordToChange(const BTreeRecord& record, uint32_t index) {
  const uint32_t count = record.keyCount;
  if (hdr.compressed != 0 || hdr.order < 2 || keyBuffer == nullptr || record.keys == nullptr ||
      count >= static_cast<uint32_t>(hdr.order) || index > count ||
      record.offset < kBTreeHeaderSize || record.child(index) != -1)
    return nullptr;
  const int64_t recordSize = btreeRecordSize(hdr.order, hdr.keyLength);
  if (recordSize <= 0) return nullptr;
  if (!fitsFileLimit(record.offset, recordSize)) {
    refuseBeyondFileLimit(name, "BTreePageFile::writePage", kModule, __LINE__);
    return nullptr;
  }
  const unsigned char* from = record.keys - kBTreePageHeadSize;
  if (from == ioBuffer) return ioBuffer;
  unsigned char* out = ioSpace(static_cast<size_t>(recordSize));
  if (out != nullptr) std::memcpy(out, from, static_cast<size_t>(recordSize));
  return out;
}

// Writes `out`, the changed bytes of the leaf `record`, back where it stands, as writePage does:
// the page is shaped by the header, and the header follows. A key put in where the search found
// its place, or taken out, leaves keys that were in order in order: the cache keeps that note.
bool BTreePageFile::writeLeafRecord(const BTreeRecord& record, unsigned char* out,
                                    uint32_t keyCount) {
  const bool ordered = record.keyOrder != nullptr && *record.keyOrder == kKeyOrderAscending;
  const int32_t offset = record.offset;
  const uint32_t order = static_cast<uint32_t>(hdr.order);
  put32(out + 12, static_cast<int32_t>(order - 1));
  put32(out + 16, static_cast<int32_t>(order >> 1));
  put32(out + 20, static_cast<int32_t>(keyCount));
  const int recordSize = static_cast<int>(btreeRecordSize(hdr.order, hdr.keyLength));
  if (!batching() && file.Seek(offset, 0) != offset) return false;
  if (writeThrough(offset, out, recordSize, ordered ? kKeyOrderAscending : kKeyOrderUnknown) !=
      recordSize)
    return false;
  if (headerAfterPageWrite) writeHeader();
  return true;
}

bool BTreePageFile::insertIntoRecord(const BTreeRecord& record, uint32_t index,
                                     const BTreePageKey& key, int32_t value) {
  const uint32_t width = static_cast<uint32_t>(hdr.keyLength);
  const uint32_t maxKeys = static_cast<uint32_t>(hdr.order) - 1;
  const uint32_t count = record.keyCount;
  unsigned char* out = count < maxKeys ? leafRecordToChange(record, index) : nullptr;
  if (out == nullptr) return false;
  unsigned char* keys = out + kBTreePageHeadSize;
  unsigned char* slot = keys + size_t{index} * width;
  std::memmove(slot + width, slot, size_t{count - index} * width);
  std::memset(slot, 0, width);
  if (key.data != nullptr) BTreePageKey::copyBytes(slot, key.data, key.size < width ? key.size : width);
  // Slots behind the keys go out as zeros, as writePage writes empty slots.
  std::memset(keys + size_t{count + 1} * width, 0, size_t{maxKeys - count - 1} * width);
  unsigned char* values = keys + size_t{maxKeys} * width + 4 * size_t{index};
  std::memmove(values + 4, values, 4 * size_t{count - index});
  put32(values, value);
  return writeLeafRecord(record, out, count + 1);
}

bool BTreePageFile::removeFromRecord(const BTreeRecord& record, uint32_t index) {
  const uint32_t width = static_cast<uint32_t>(hdr.keyLength);
  const uint32_t maxKeys = static_cast<uint32_t>(hdr.order) - 1;
  const uint32_t count = record.keyCount;
  unsigned char* out = index < count ? leafRecordToChange(record, index) : nullptr;
  if (out == nullptr) return false;
  const uint32_t left = count - 1;
  unsigned char* keys = out + kBTreePageHeadSize;
  std::memmove(keys + size_t{index} * width, keys + size_t{index + 1} * width,
               size_t{left - index} * width);
  std::memset(keys + size_t{left} * width, 0, size_t{maxKeys - left} * width);
  unsigned char* values = keys + size_t{maxKeys} * width;
  std::memmove(values + 4 * size_t{index}, values + 4 * size_t{index + 1}, 4 * size_t{left - index});
  put32(values + 4 * size_t{left}, 0);
  // The children close up behind the key as in any page (a leaf's are all -1 unless damaged).
  unsigned char* children = values + 4 * size_t{maxKeys};
  std::memmove(children + 4 * size_t{index + 1}, children + 4 * size_t{index + 2},
               4 * size_t{left - index});
  put32(children + 4 * size_t{count}, -1);
  return writeLeafRecord(record, out, left);
}

int32_t BTreePageFile::fileEnd() { return batching() ? journal->length() : file.Seek(0, 2); }

bool BTreePageFile::readLink(int32_t at, unsigned char* link) {
  if (batching()) return journal->read(file, at, link, 4);
  return file.Seek(at, 0) == at && file.Read(link, 4) == 4;
}

bool BTreePageFile::roomForNewPages(int32_t pages, bool report) {
  if (hdr.compressed != 0 || pages <= 0) return true;
  const int64_t recordSize = btreeRecordSize(hdr.order, hdr.keyLength);
  const int32_t end = fileEnd();
  if (recordSize <= 0 || end < 0) return false;
  if (fitsFileLimit(end, pages * recordSize)) return true;
  // Near the limit: free records take new pages before the file grows.
  int32_t appended = pages;
  for (int32_t at = hdr.freeListHead; appended > 0 && at >= kBTreeHeaderSize;) {
    unsigned char link[4];
    if (!readLink(at, link)) return false;
    --appended;
    const int32_t next = get32(link);
    if (next == at) break;
    at = next;
  }
  if (fitsFileLimit(end, appended * recordSize)) return true;
  return report && refuseBeyondFileLimit(name, "BTreePageFile::writePage", kModule, __LINE__);
}

bool BTreePageFile::freePage(int32_t offset) {
  if (offset < kBTreeHeaderSize) return false;
  unsigned char link[4];
  put32(link, hdr.freeListHead);
  if (!batching() && file.Seek(offset, 0) != offset) return false;
  if (writeThrough(offset, link, 4) != 4) return false;
  hdr.freeListHead = offset;
  writeHeader();  // may lag, as after writePage
  return true;
}

bool BTreePageFile::writeHeader() {
  if (readOnly) return true;
  hdr.keyCount = keyCount;
  unsigned char bytes[kBTreeHeaderSize];
  hdr.encode(bytes);
  if (batching()) return writeThrough(0, bytes, kBTreeHeaderSize) == kBTreeHeaderSize;
  if (file.Seek(0, 0) == -1) return false;
  if (writeThrough(0, bytes, kBTreeHeaderSize) != kBTreeHeaderSize) return false;
  file.Flush();
  return true;
}

bool BTreePageFile::reloadHeader() {
  unsigned char bytes[kBTreeHeaderSize];
  if (file.Seek(offsetStart, 0) != offsetStart || file.Read(bytes, kBTreeHeaderSize) != kBTreeHeaderSize)
    return false;
  BTreePageFileHdr fresh;
  fresh.decode(bytes);
  if (fresh.magic != hdr.magic || fresh.version != hdr.version || fresh.order != hdr.order ||
      fresh.keyLength != hdr.keyLength || fresh.compressed != hdr.compressed)
    return false;
  // The fields that older versions do not use stay as opening cleared them.
  fresh.lcid = hdr.lcid;
  fresh.mapFlags = hdr.mapFlags;
  fresh.spaceConversion = hdr.spaceConversion;
  hdr = fresh;
  keyCount = hdr.keyCount;
  return true;
}
