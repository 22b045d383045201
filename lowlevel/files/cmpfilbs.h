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

class ZCompressedFileBase : public ZFileBase {
 public:
  ZCompressedFileBase();
  explicit ZCompressedFileBase(int handle);
  ZCompressedFileBase(const ZCompressedFileBase& other);
  ZCompressedFileBase(const std::string& path, unsigned short openFlags,
                      unsigned short permissionMode);
  ~ZCompressedFileBase() override;
  ZCompressedFileBase& operator=(const ZCompressedFileBase& other);

  bool Open(const std::string& path, unsigned short openFlags,
            unsigned short permissionMode) override;
  bool Close() override;
  int32_t Position() override;
  int32_t Length() override;
  int32_t Seek(int32_t offset, int origin) override;
  int Read(void* buffer, int count) override;
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
  bool readBuffer();
  void flushCache();
};

#endif
