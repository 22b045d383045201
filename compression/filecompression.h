// ZfileCompression: reads compressed files (the seekable zstd format, see docs/compressed-files.md).
// A compressed file is a sequence of chunks, each of which expands alone given its offset on disk.
//
// Call order: init, startExpand; after true, optionally chunkWalkFirst then chunkWalkNext until it
// gives false; then expandChunk any number of times in any order. init may come again with a new
// handle. The handle stays the caller's.
#ifndef LOWLEVEL_COMPRESSION_FILECOMPRESSION_H
#define LOWLEVEL_COMPRESSION_FILECOMPRESSION_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class ZfileCompression {
 public:
  ZfileCompression();
  ~ZfileCompression();

  // Binds an open handle; `offset` is where the compressed data starts in it (always 0 here).
  void init(int handle, int32_t offset);
  // True only for a well-formed compressed file; afterwards uncompressedLength() holds the total.
  // False for anything else, an empty file included, with getErrMsg() saying why. May move the
  // handle's position.
  bool startExpand();
  // The first chunk: its offset on disk and its expanded size. Succeeds after a true startExpand.
  bool chunkWalkFirst(int32_t& compressedOffset, int32_t& expandedSize);
  // The next chunk in file order; false after the last.
  bool chunkWalkNext(int32_t& compressedOffset, int32_t& expandedSize);
  // Expands the chunk at `compressedOffset` into `destination`, whose capacity is `length` on entry.
  // True: the chunk is in `destination` and `length` is its size. False with `length` non-zero: the
  // capacity is too small and `length` is the size needed. False with `length` 0: failure (damaged
  // data, checksum mismatch, I/O error), with getErrMsg() saying why.
  bool expandChunk(int32_t compressedOffset, char* destination, int32_t& length);

  int32_t uncompressedLength() const { return m_lUncompressedLength; }
  void setCheckCRC(bool check) { m_bCheckCRC = check; }
  const std::string& getErrMsg() const { return m_sErrMsg; }

 private:
  struct Chunk {
    int32_t compressedOffset;
    uint32_t compressedSize;
    uint32_t expandedSize;
    uint32_t checksum;
  };

  int m_nHandle = -1;
  int32_t m_lBaseOffset = 0;
  bool m_bCheckCRC = true;
  bool m_bHasChecksums = false;
  int32_t m_lUncompressedLength = 0;
  std::string m_sErrMsg;
  std::vector<Chunk> m_vChunks;              // the seek table, in file order
  std::map<int32_t, size_t> m_mChunkIndex;   // compressed offset -> index in m_vChunks
  size_t m_nWalk = 0;
  std::vector<char> m_vInput;                // compressed bytes of the chunk being expanded
  void* m_pDecoder = nullptr;                // decompression context, made on first use
};

#endif
