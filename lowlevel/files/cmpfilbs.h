// ZCompressedFileBase: makes a compressed file read like a plain one. Whether a file opened with the
// binary flag (0x8000) is compressed is decided once, at open; from then on every operation tests one
// flag and either goes straight to the handle or works on the expanded data: positions, lengths and
// counts are then in expanded bytes, reads go through a shared offset map and three cached chunk
// buffers, and writes are refused (0).
#ifndef LOWLEVEL_FILES_CMPFILBS_H
#define LOWLEVEL_FILES_CMPFILBS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lowlevel/files/blockcache.h"
#include "lowlevel/files/filebase.h"
#include "lowlevel/lowlevel_export.h"

class ZfileCompression;

// Expanded offset of a chunk's first byte -> the chunk's offset on disk.
typedef std::map<int32_t, int32_t> OffsetMap;

// One expanded chunk.
struct ChunkBuffer {
  char* data = nullptr;   // owned; null until the first expansion
  int32_t capacity = 0;   // size of data; only grows
  int32_t offset = -1;    // expanded offset of the chunk held, -1 for none
  int32_t length = 0;     // expanded bytes held
};

// The process-wide table of offset maps, one per path text, built once and kept until unload.
class ZOffsetMapTable {
 public:
  ZOffsetMapTable() = default;
  ~ZOffsetMapTable();
  ZOffsetMapTable(const ZOffsetMapTable&) = delete;
  ZOffsetMapTable& operator=(const ZOffsetMapTable&) = delete;
  // The entry for `path`, made with a null map when there is none.
  OffsetMap*& entry(const std::string& path) { return m_mMaps[path]; }
  size_t size() const { return m_mMaps.size(); }

 private:
  std::map<std::string, OffsetMap*> m_mMaps;
};

extern ZOffsetMapTable offsetMapTable;

class LOWLEVEL_EXPORT ZCompressedFileBase : public ZFileBase {
 public:
  ZCompressedFileBase();
  // Wraps a handle opened elsewhere (not owned). A regular file is checked for compression and
  // rewound to 0; a compressed one gets a private offset map. A device or pipe stays plain and
  // unmoved. A failed stat is reported and leaves the object plain.
  explicit ZCompressedFileBase(int handle);
  // A duplicate of the other's handle, owned, at the other's read position. A copy of a compressed
  // file binds its own compression object to its duplicate and reads on its own: it shares the
  // other's map when that comes from offsetMapTable, and takes a private copy of a private map.
  // Its chunk cache starts cold. If the copy cannot read the file's chunk table, reads give 0.
  ZCompressedFileBase(const ZCompressedFileBase& other);
  // Closed and owning, then Open; test IsOpen afterwards.
  ZCompressedFileBase(const std::string& path, unsigned short openFlags,
                      unsigned short permissionMode);
  ~ZCompressedFileBase() override;
  // Makes the left side what a copy of the right side would be, keeping its own compression object
  // and buffers: it first closes its handle if it owns it (a handle it was merely given is left
  // open), forgets the chunks it held and frees its private map, then takes a duplicate of the
  // right side's handle, owned, and the right side's kind and position. No two objects ever own one
  // handle, compression object, buffer or map.
  ZCompressedFileBase& operator=(const ZCompressedFileBase& other);

  // Opens the path. With the binary flag (0x8000) the file is checked for compression; a
  // compressed file takes the map of its path from offsetMapTable, built by one walk over the
  // chunks on the first open of that path. Rewinds to 0 (the plain file too). A private map held
  // from the handle constructor is freed here; a map of the table is never freed by an object.
  // A regular file longer than 2^31 - 1 bytes is refused, closed and reported ("File is larger
  // than 2147483647 bytes, the 2 GiB limit (path).", see filelimit.h).
  bool Open(const std::string& path, unsigned short openFlags,
            unsigned short permissionMode) override;
  // Forgets the chunks held (the buffers keep their memory) and closes the handle.
  bool Close() override;
  // On a compressed file: the read position in expanded bytes, kept in the object.
  int32_t Position() override;
  // On a compressed file: the expanded length.
  int32_t Length() override;
  // On a compressed file no disk is touched: origin 0, 1 as usual, 2 counts a positive offset back
  // from the end; any other origin keeps the position. The result is clamped to 0..Length().
  int32_t Seek(int32_t offset, int origin) override;
  // On a compressed file: the bytes copied, fewer than asked only at the end of the data or after a
  // failed expansion, 0 at the end; never negative. An object without a map reads 0.
  int Read(void* buffer, int count) override;
  // On a compressed file nothing is written and the result is 0.
  int Write(const void* buffer, int count) override;

 protected:
  bool m_bCompressed;
  ZfileCompression* m_pCompression;
  OffsetMap* m_pOffsetMap;
  bool m_bOwnsOffsetMap;
  int32_t m_lPosition;
  ZBlockCache<int32_t, ChunkBuffer*> m_cache;
  std::vector<ChunkBuffer*> m_vBuffers;
  ChunkBuffer* m_pCurrentBuffer;

 private:
  void init();
  // Makes the chunk holding m_lPosition the current buffer. A buffer whose expansion failed is
  // re-keyed as free (-1), so a later hit never hands out what it holds.
  bool readBuffer();
  void flushCache();
  void bindCopy(const ZCompressedFileBase& other);
  void releasePrivateMap();
};

#endif
