// ZzstdCompression: ZdataCompression over zstd. Each compressed block is one zstd frame that records
// its expanded size. The contexts are made on first use and kept for the object's life.
#ifndef LOWLEVEL_COMPRESSION_ZSTDCOMPRESSION_H
#define LOWLEVEL_COMPRESSION_ZSTDCOMPRESSION_H

#include "compression/datacompression.h"

class ZzstdCompression : public ZdataCompression {
 public:
  // Levels run from minLevel() to maxLevel(); 0 means zstd's default (3).
  explicit ZzstdCompression(int level = 3);
  ~ZzstdCompression() override;
  ZzstdCompression(const ZzstdCompression&) = delete;
  ZzstdCompression& operator=(const ZzstdCompression&) = delete;

  const char* name() const override { return "zstd"; }
  size_t maxCompressedSize(size_t inputSize) const override;
  bool compress(const void* source, size_t size, void* destination, size_t capacity,
                size_t& written, std::string* error) override;
  bool decompress(const void* source, size_t size, void* destination, size_t capacity,
                  size_t& written, std::string* error) override;
  bool decompressedSize(const void* source, size_t size, uint64_t& expanded) const override;
  bool setLevel(int level) override;
  int level() const override { return m_nLevel; }

  static int minLevel();
  static int maxLevel();

 private:
  int m_nLevel = 3;
  void* m_pCompressor = nullptr;    // ZSTD_CCtx
  void* m_pDecompressor = nullptr;  // ZSTD_DCtx
};

#endif
