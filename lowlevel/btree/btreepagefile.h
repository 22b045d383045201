// The page file: the layer between the tree logic and the file. Internal to the BTree module.
//
// It owns the ZFile that holds the pages, keeps the 46-byte header in memory, validates a file on
// opening, lays a new file down, reads and writes pages by logical offset (the distance from the
// header's first byte), keeps the free-page chain and decides when the header goes back to disk.
// See docs/btree-format.md for the bytes.
#ifndef LOWLEVEL_BTREE_BTREEPAGEFILE_H
#define LOWLEVEL_BTREE_BTREEPAGEFILE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "lowlevel/btree/btree_journal.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagecache.h"
#include "lowlevel/files/file.h"

constexpr int32_t kBTreeVersion1 = 0x00010100;
constexpr int32_t kBTreeVersion2 = 0x00010200;
constexpr int32_t kBTreeVersion3 = 0x00010300;
constexpr int32_t kBTreeVersion4 = 0x00010400;
constexpr int32_t kBTreeMagic = 0x3154424B;  // "KBT1"
constexpr int kBTreeHeaderSize = 46;
constexpr int kBTreePageHeadSize = 28;
constexpr int kBTreeCompressedPageHeadSize = 12;

// The 46-byte header, field by field; encode/decode give the exact little-endian bytes.
struct BTreePageFileHdr {
  int32_t version = 0;
  int32_t magic = 0;
  int32_t headerSize = 0;
  int32_t keyLength = 0;   // slot width, value tail included
  int32_t order = 0;
  int16_t duplicates = 0;
  int16_t compressed = 0;
  int32_t keyCount = 0;
  int32_t rootOffset = -1;
  int32_t freeListHead = -1;
  uint32_t lcid = 0;
  uint32_t mapFlags = 0;
  int16_t spaceConversion = 0;

  void encode(unsigned char out[kBTreeHeaderSize]) const;
  void decode(const unsigned char in[kBTreeHeaderSize]);
};

// Bytes of an uncompressed page record of `order` and slot width `keyLength`, or -1 when that does
// not fit a signed 32-bit number (or order < 1 or keyLength < 0).
int64_t btreeRecordSize(int64_t order, int64_t keyLength);

// A page record as it lies in the page file's buffers after readRecord, checked as readPage checks
// it. `keys` holds maxKeys slots of the header's key width one behind the other (a compressed
// record's keys are expanded to full slots); `values` and `children` point at the record's
// little-endian numbers. Valid until the next call of the page file.
struct BTreeRecord {
  int32_t offset = -1;
  int32_t parentOffset = -1;
  uint32_t keyCount = 0;
  // The first byte of an uncompressed record (btreeRecordSize bytes); null for a compressed one.
  const unsigned char* bytes = nullptr;
  const unsigned char* keys = nullptr;
  const unsigned char* values = nullptr;
  const unsigned char* children = nullptr;
  // For a record the page cache answered: its note about the order of the keys (kKeyOrder...),
  // which a search may read and set; null for a record read from the file.
  unsigned char* keyOrder = nullptr;
  // For a record the page cache answered: the version of its entry (BTreePageCache::find); else 0.
  uint64_t cacheVersion = 0;

  int32_t value(uint32_t i) const { return load32(values + 4 * static_cast<size_t>(i)); }
  int32_t child(uint32_t i) const { return load32(children + 4 * static_cast<size_t>(i)); }
  static int32_t load32(const unsigned char* in) {
    return static_cast<int32_t>(static_cast<uint32_t>(in[0]) | (static_cast<uint32_t>(in[1]) << 8) |
                                (static_cast<uint32_t>(in[2]) << 16) |
                                (static_cast<uint32_t>(in[3]) << 24));
  }
};

// What a record's keyOrder note says: not yet looked at, every key sorts at or after the one
// before it, or not.
constexpr unsigned char kKeyOrderUnknown = 0;
constexpr unsigned char kKeyOrderAscending = 1;
constexpr unsigned char kKeyOrderUnordered = 2;

class BTreePageFile;

// Hands a local page back to the page file (BTreePageFile::recycle) when it goes out of scope.
class BTreePageRecycler {
 public:
  BTreePageRecycler(BTreePageFile& file, BTreePage& page) : file_(file), page_(page) {}
  ~BTreePageRecycler();
  BTreePageRecycler(const BTreePageRecycler&) = delete;
  BTreePageRecycler& operator=(const BTreePageRecycler&) = delete;

 private:
  BTreePageFile& file_;
  BTreePage& page_;
};

class BTreePageFile {
 public:
  // Opens an existing file at `offset` inside it (only a read-only file may have one). Failures are
  // reported and leave ok false. Besides a wrong version or magic, a header whose order is below 2,
  // whose slot holds no key byte, whose record size does not fit 32 bits, whose compressed keys are
  // wider than 32767 bytes, or whose file is too short for one record is "Invalid BTree (name).".
  BTreePageFile(const std::string& fileName, bool readOnly, int32_t offset);
  // Creates a new file, replacing one of that name: header and an empty root at offset 46. The file
  // is opened binary, read-write, created and truncated (never exclusive), owner read and write.
  // A shape that cannot work (order below 2, key width below 1, a record beyond 32 bits) is
  // reported as "Invalid BTree (name)." and no file is touched; BTree refuses these first.
  // `keyLength` is the caller's key width, without the value tail of a tree with duplicates.
  BTreePageFile(const std::string& fileName, int order, int keyLength, bool duplicates,
                uint32_t lcid, uint32_t mapFlags, int16_t spaceConversion);
  // When ok: writes the header (nothing when read-only). Closes the file.
  ~BTreePageFile();
  BTreePageFile(const BTreePageFile&) = delete;
  BTreePageFile& operator=(const BTreePageFile&) = delete;

  // Reads the page at logical `offset` into `page` (either form). On false `page` is unchanged.
  // Refused: a record whose offset, order or keyLength differ from what is asked and the header,
  // a keyCount above maxKeys, and in the compressed form a key length entry that is negative,
  // wider than the slot, or 0 for a used key. The record's maxKeys and minKeys are not trusted: the
  // page is built from the header.
  bool readPage(int32_t offset, BTreePage& page);
  // readPage for a page kept between operations (the tree's root). When the last call of this
  // read `page` at `offset` from the page cache and the cached bytes have not changed since, the
  // read would answer from the cache with the same page, so it is skipped: same result, same
  // calls, without decoding the record again. Anything else reads as readPage does.
  bool rereadPage(int32_t offset, BTreePage& page);
  // Puts `key` with `value` in at `index` of the leaf `record` (readRecord's, of an uncompressed
  // file, with room for one more key), and writes it where it stands, followed by the header as
  // writePage does. The bytes written are those writePage would write after the same insertion into
  // the page that readPage builds from `record`; only the page is never built. False (nothing
  // written) when `record` is not such a leaf, and when a write fails.
  bool insertIntoRecord(const BTreeRecord& record, uint32_t index, const BTreePageKey& key,
                        int32_t value);
  // Takes key `index` out of the leaf `record` (as insertIntoRecord's, with a key to spare) and
  // writes it as writePage would write the page after the same removal, then the header.
  bool removeFromRecord(const BTreeRecord& record, uint32_t index);
  // The same read and the same checks as readPage, without building a page: a search that only
  // passes through a page looks at the record where it lies. On false `record` is unchanged.
  bool readRecord(int32_t offset, BTreeRecord& record);
  // A record view of `bytes`, a copy of an uncompressed record that readRecord gave for `offset`,
  // checked again as readRecord checks it. False for a compressed file.
  bool recordFromCopy(int32_t offset, const unsigned char* bytes, BTreeRecord& record);
  // Builds `page` from the record that the last readRecord gave (no I/O). On false (no memory)
  // `page` is unchanged.
  bool decodeRecord(const BTreeRecord& record, BTreePage& page);
  // Takes the arrays of a page that is no longer needed, to fill the next read without allocating.
  // `page` is left a placeholder.
  void recycle(BTreePage& page);
  // Writes `page`; a page with offset -1 gets a place (the head of the free chain, else the end of
  // the file). With isRoot, hdr.rootOffset becomes its offset. Rewrites the header afterwards.
  // Refuses a page of another shape, a keyCount above maxKeys, an offset inside the header, and a
  // free-chain entry that is not the start of a record or links to itself (a damaged file).
  // A record that would reach offset 2^31 - 1 is refused with a report (filelimit.h) before
  // anything is written or taken from the chain.
  bool writePage(BTreePage& page, bool isRoot);
  // While false, writePage leaves the header to the caller, who writes it with writeHeader when
  // done (the bulk builder: its header stays unusable until the last page is down, and one
  // header write per page would cost as much as the pages).
  bool headerAfterPageWrite = true;
  // True when `pages` new records fit below the 2 GiB limit: the first from the free chain (at
  // most `pages` links are read, and only when appending them all would not fit), the rest
  // appended. Otherwise reports as writePage does, when `report`, and answers false. Also false
  // when the end of the file cannot be found. A compressed file answers true: its records are
  // checked one by one as they are written.
  bool roomForNewPages(int32_t pages, bool report = true);
  // Puts the record at `offset` at the front of the free chain (overwrites its first 4 bytes).
  // An offset inside the header is refused.
  bool freePage(int32_t offset);
  // Sends the header to the file with the live keyCount, then flushes. True without writing when
  // read-only.
  bool writeHeader();
  // Writes `page` as a compressed record (the read-only compact form). A record that would reach
  // offset 2^31 - 1 is refused with a report before it is written.
  bool WriteCompressed(BTreePage& page);
  // Makes sure keyLengthTable exists (2 x hdr.order - 2 bytes, std::malloc'ed, freed by the
  // destructor with std::free) and sets keyLengthTableSize. False when it cannot be allocated.
  bool ensureKeyLengthTable();
  // How many page records the file can hold at most, from its length: every record is at least
  // 10 x order + 6 bytes (compressed) or the full record size. A walk of more levels or pages
  // than this runs in a cycle of a corrupt file. At least 1; 0 when the length is unknown.
  int64_t recordLimit();

  int32_t keyCount;  // the live key count; reaches the header at the next header write
  bool ok;
  ZFile file;
  BTreePageFileHdr hdr;
  unsigned char* keyBuffer;  // keyBufferSize bytes, std::malloc'ed
  int keyBufferSize;
  bool readOnly;
  int32_t offsetStart;
  int32_t compressedWritePosition;
  int16_t* keyLengthTable;
  int keyLengthTableSize;
  // Present in crash-safe mode: while its batch is active, every read and write of the header
  // and of records goes through it, and the destructor writes no header (a batch does).
  std::unique_ptr<BTreeJournal> journal;
  bool batching() const { return journal != nullptr && journal->active(); }
  // Reads the header from the file again (after a batch was rolled back or another writer's
  // batch); keyCount follows it. False, with nothing changed, when it cannot be read or is not
  // the header of this tree.
  bool reloadHeader();
  // Drops the shared cache's entries of this file: after a batch ended or was rolled back, or a
  // cut-off batch was rolled back at open, what any page file cached of it may be stale.
  void cacheForget();

 private:
  // `cached`: the record's bytes from the page cache; null reads them from the file position.
  bool readUncompressedRecord(int32_t offset, BTreeRecord& record, const unsigned char* cached);
  bool readCompressedRecord(int32_t offset, BTreeRecord& record, const unsigned char* cached,
                            uint32_t cachedLength);
  // The page cache (btreepagefile_cache.cpp). Every write of the file goes through writeThrough,
  // which keeps the cached bytes equal to the file's.
  BTreeCacheLayout cacheLayout() const;
  BTreeCacheFile* cachedFile();
  BTreeCacheFile* cacheForRead(int32_t position);
  void cacheDetach();
  void cacheTruncated();
  // `note`: what the cache may keep as the written record's note (kKeyOrder...).
  int writeThrough(int32_t position, const void* bytes, int length,
                   unsigned char note = kKeyOrderUnknown);
  unsigned char* ioSpace(size_t bytes);
  unsigned char* leafRecordToChange(const BTreeRecord& record, uint32_t index);
  bool writeLeafRecord(const BTreeRecord& record, unsigned char* out, uint32_t keyCount);
  BTreePage* scratchPage();
  bool allocateKeyBuffer();
  // The end of the file as the tree sees it (through the journal in a batch), -1 when unknown.
  int32_t fileEnd();
  // Reads the free-chain link at `at` (through the journal in a batch).
  bool readLink(int32_t at, unsigned char* link);

  std::string name;  // the file's name as given, for reports
  unsigned char* ioBuffer = nullptr;  // a whole record going to or coming from the file
  size_t ioBufferSize = 0;
  unsigned char* expandedKeys = nullptr;  // a compressed record's keys as full slots
  BTreePage spare{0, 0};  // the scratch page of the next read, kept to be reused
  uint32_t recordBytes = 0;  // bytes of the record that the last read from the file took
  BTreeCacheFile* cacheFile = nullptr;  // attached on first use while the cache is on
  int cacheHandle = -1;                 // the handle the file had when attached
  // What the last rereadPage took from the cache: the page it filled, where from, which version.
  const BTreePage* rereadTarget = nullptr;
  int32_t rereadOffset = -1;
  uint64_t rereadVersion = 0;
};

#endif
