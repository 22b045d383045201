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

#include "compression/seektable.h"

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
  // The first chunk: its offset on disk and its expanded size. Succeeds after a true startExpand,
  // except on a file of zero frames (a compressed file of length 0): false, both outputs 0.
  bool chunkWalkFirst(int32_t& compressedOffset, int32_t& expandedSize);
  // The next chunk in file order; false after the last.
  bool chunkWalkNext(int32_t& compressedOffset, int32_t& expandedSize);
  // Expands the chunk at `compressedOffset` into `destination`, whose capacity is `length` on entry.
  // True: the chunk is in `destination` and `length` is its size. False with `length` non-zero: the
  // capacity is too small and `length` is the size needed. False with `length` 0: failure (damaged
  // data, checksum mismatch, I/O error), with getErrMsg() saying why.
  bool expandChunk(int32_t compressedOffset, char* destination, int32_t& length);
  // Whether the chunk at `compressedOffset` can expand to the size the seek table gives it, from its
  // frame header alone: a frame that states its size must state that one, and one that does not
  // must be long enough to hold that many blocks. A damaged table may claim any size, so a caller
  // asks this before it makes room for a chunk. False (with getErrMsg) also on a read failure.
  bool chunkSizePossible(int32_t compressedOffset);

  int32_t uncompressedLength() const { return m_lUncompressedLength; }
  void setCheckCRC(bool check) { m_bCheckCRC = check; }
  const std::string& getErrMsg() const { return m_sErrMsg; }

 private:
  // Owns a zstd decompression context. A copy starts without one and makes its own on first use,
  // so that copies of a ZfileCompression never share or double-free a context.
  class Decoder {
   public:
    Decoder() = default;
    Decoder(const Decoder&) {}
    Decoder& operator=(const Decoder&) { return *this; }
    ~Decoder();
    void* get();  // ZSTD_DCtx, null when it cannot be made

   private:
    void* m_pContext = nullptr;
  };

  bool fail(const std::string& message);

  int m_nHandle = -1;
  int32_t m_lBaseOffset = 0;
  bool m_bCheckCRC = true;
  bool m_bHasChecksums = false;
  int32_t m_lUncompressedLength = 0;
  std::string m_sErrMsg;
  std::vector<lowlevel::compression::SeekEntry> m_vChunks;  // the seek table, in file order,
                                                            // compressed offsets rising
  size_t m_nWalk = 0;
  std::vector<char> m_vInput;  // compressed bytes of the chunk being expanded
  Decoder m_decoder;
};

#endif
