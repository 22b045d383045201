#include "compression/zstdcompression.h"

#include <zstd.h>

namespace {

bool setError(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
  return false;
}

}  // namespace

ZzstdCompression::ZzstdCompression(int level) {
  if (!setLevel(level)) m_nLevel = ZSTD_CLEVEL_DEFAULT;
}

ZzstdCompression::~ZzstdCompression() {
  ZSTD_freeCCtx(static_cast<ZSTD_CCtx*>(m_pCompressor));
  ZSTD_freeDCtx(static_cast<ZSTD_DCtx*>(m_pDecompressor));
}

int ZzstdCompression::minLevel() { return ZSTD_minCLevel(); }
int ZzstdCompression::maxLevel() { return ZSTD_maxCLevel(); }

bool ZzstdCompression::setLevel(int level) {
  if (level < minLevel() || level > maxLevel()) return false;
  m_nLevel = level;
  return true;
}

size_t ZzstdCompression::maxCompressedSize(size_t inputSize) const {
  size_t bound = ZSTD_compressBound(inputSize);
  return ZSTD_isError(bound) ? 0 : bound;
}

bool ZzstdCompression::compress(const void* source, size_t size, void* destination, size_t capacity,
                                size_t& written, std::string* error) {
  written = 0;
  if (m_pCompressor == nullptr) m_pCompressor = ZSTD_createCCtx();
  if (m_pCompressor == nullptr) return setError(error, "no memory for the compression context");
  size_t result = ZSTD_compressCCtx(static_cast<ZSTD_CCtx*>(m_pCompressor), destination, capacity,
                                    source, size, m_nLevel);
  if (ZSTD_isError(result)) return setError(error, std::string("zstd: ") + ZSTD_getErrorName(result));
  written = result;
  return true;
}

bool ZzstdCompression::decompress(const void* source, size_t size, void* destination, size_t capacity,
                                  size_t& written, std::string* error) {
  written = 0;
  size_t frame = ZSTD_findFrameCompressedSize(source, size);
  if (ZSTD_isError(frame)) return setError(error, std::string("zstd: ") + ZSTD_getErrorName(frame));
  if (frame != size) return setError(error, "bytes follow the compressed block");
  if (m_pDecompressor == nullptr) m_pDecompressor = ZSTD_createDCtx();
  if (m_pDecompressor == nullptr) return setError(error, "no memory for the decompression context");
  size_t result = ZSTD_decompressDCtx(static_cast<ZSTD_DCtx*>(m_pDecompressor), destination, capacity,
                                      source, size);
  if (ZSTD_isError(result)) return setError(error, std::string("zstd: ") + ZSTD_getErrorName(result));
  written = result;
  return true;
}

bool ZzstdCompression::decompressedSize(const void* source, size_t size, uint64_t& expanded) const {
  unsigned long long n = ZSTD_getFrameContentSize(source, size);
  if (n == ZSTD_CONTENTSIZE_UNKNOWN || n == ZSTD_CONTENTSIZE_ERROR) return false;
  expanded = n;
  return true;
}
