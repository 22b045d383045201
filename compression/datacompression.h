// ZdataCompression: the interface of a block codec. Buffers in, buffers out; no files, no state
// beyond the compression level. Implementations: ZzstdCompression (compression/zstdcompression.h).
#ifndef LOWLEVEL_COMPRESSION_DATACOMPRESSION_H
#define LOWLEVEL_COMPRESSION_DATACOMPRESSION_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "lowlevel/lowlevel_export.h"

class LOWLEVEL_EXPORT ZdataCompression {
 public:
  // Defined out of line: the class's vtable and typeinfo live in the library alone.
  virtual ~ZdataCompression();

  // A short name of the codec, e.g. "zstd".
  virtual const char* name() const = 0;
  // The most bytes that compress() can produce for `inputSize` bytes of input; 0 when the input is
  // too large for the codec.
  virtual size_t maxCompressedSize(size_t inputSize) const = 0;
  // Compresses `size` bytes at `source` into one self-contained block at `destination`, whose
  // capacity is `capacity`. True with `written` set; false with `error` (may be null) saying why.
  virtual bool compress(const void* source, size_t size, void* destination, size_t capacity,
                        size_t& written, std::string* error) = 0;
  // Expands exactly one block of `size` bytes. True with `written` set; false (a damaged block, more
  // than `capacity` bytes of output, or trailing bytes after the block) with `error` saying why.
  virtual bool decompress(const void* source, size_t size, void* destination, size_t capacity,
                          size_t& written, std::string* error) = 0;
  // The expanded size recorded in the block's header. False when the header does not record it or
  // is not a valid header.
  virtual bool decompressedSize(const void* source, size_t size, uint64_t& expanded) const = 0;
  // Sets the level for later compress() calls. False, and the level unchanged, when out of range.
  virtual bool setLevel(int level) = 0;
  virtual int level() const = 0;
};

#endif
