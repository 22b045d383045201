#include "compression/filecompression.h"

#include <algorithm>
#include <new>

#include <zstd.h>
#include <zstd_errors.h>

#include "lowlevel/platform/io.h"

using lowlevel::compression::SeekEntry;
using lowlevel::compression::SeekTable;

namespace {

// True when `data` starts with the magic number of a zstd data frame (skippable frames do not count).
bool isZstdFrame(const char* data, uint32_t size) {
  if (size < 4) return false;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(data);
  uint32_t magic = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                   static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
  return magic == ZSTD_MAGICNUMBER;
}

}  // namespace

ZfileCompression::Decoder::~Decoder() { ZSTD_freeDCtx(static_cast<ZSTD_DCtx*>(m_pContext)); }

void* ZfileCompression::Decoder::get() {
  if (m_pContext == nullptr) m_pContext = ZSTD_createDCtx();
  return m_pContext;
}

ZfileCompression::ZfileCompression() = default;
ZfileCompression::~ZfileCompression() = default;

bool ZfileCompression::fail(const std::string& message) {
  m_sErrMsg = message;
  return false;
}

void ZfileCompression::init(int handle, int32_t offset) {
  m_nHandle = handle;
  m_lBaseOffset = offset;
  m_bHasChecksums = false;
  m_lUncompressedLength = 0;
  m_sErrMsg.clear();
  m_vChunks.clear();
  m_nWalk = 0;
}

bool ZfileCompression::startExpand() {
  m_vChunks.clear();
  m_lUncompressedLength = 0;
  m_bHasChecksums = false;
  m_nWalk = 0;
  SeekTable table;
  std::string error;
  if (!lowlevel::compression::readSeekTable(m_nHandle, m_lBaseOffset, &table, &error)) {
    return fail("not a compressed file: " + error);
  }
  m_vChunks.swap(table.entries);
  m_bHasChecksums = table.checksums;
  m_lUncompressedLength = table.expandedLength;
  m_sErrMsg.clear();
  return true;
}

bool ZfileCompression::chunkWalkFirst(int32_t& compressedOffset, int32_t& expandedSize) {
  m_nWalk = 0;
  return chunkWalkNext(compressedOffset, expandedSize);
}

bool ZfileCompression::chunkWalkNext(int32_t& compressedOffset, int32_t& expandedSize) {
  if (m_nWalk >= m_vChunks.size()) {
    compressedOffset = 0;
    expandedSize = 0;
    return false;
  }
  const SeekEntry& e = m_vChunks[m_nWalk++];
  // The table was checked: the data lies within the file, so the sum fits.
  compressedOffset = m_lBaseOffset + e.compressedOffset;
  expandedSize = static_cast<int32_t>(e.expandedSize);
  return true;
}

bool ZfileCompression::chunkSizePossible(int32_t compressedOffset) {
  const int64_t relative = static_cast<int64_t>(compressedOffset) - m_lBaseOffset;
  auto it = std::lower_bound(m_vChunks.begin(), m_vChunks.end(), relative,
                             [](const SeekEntry& e, int64_t o) { return e.compressedOffset < o; });
  if (it == m_vChunks.end() || it->compressedOffset != relative) {
    return fail("offset " + std::to_string(compressedOffset) + " is not the start of a chunk");
  }
  char head[18];  // the largest frame header
  const uint32_t want = std::min<uint32_t>(it->compressedSize, sizeof head);
  if (lowlevel::platform::lseek(m_nHandle, compressedOffset, 0) != compressedOffset ||
      lowlevel::platform::read(m_nHandle, head, want) != static_cast<int>(want)) {
    return fail("cannot read the chunk at " + std::to_string(compressedOffset));
  }
  const unsigned long long stated = ZSTD_getFrameContentSize(head, want);
  // Without a stated size: every block takes at least 3 bytes and gives at most 128 KiB.
  const bool possible = stated == ZSTD_CONTENTSIZE_UNKNOWN
                            ? it->expandedSize <= (it->compressedSize / 3 + 1) * uint64_t{131072}
                            : stated == it->expandedSize;
  if (!possible) {
    return fail("the chunk at " + std::to_string(compressedOffset) +
                " cannot expand to the size in the seek table");
  }
  return true;
}

bool ZfileCompression::expandChunk(int32_t compressedOffset, char* destination, int32_t& length) {
  const int32_t capacity = length;
  length = 0;
  const int64_t relative = static_cast<int64_t>(compressedOffset) - m_lBaseOffset;
  auto it = std::lower_bound(m_vChunks.begin(), m_vChunks.end(), relative,
                             [](const SeekEntry& e, int64_t o) { return e.compressedOffset < o; });
  if (it == m_vChunks.end() || it->compressedOffset != relative) {
    return fail("offset " + std::to_string(compressedOffset) + " is not the start of a chunk");
  }
  const SeekEntry& e = *it;
  const int32_t expected = static_cast<int32_t>(e.expandedSize);
  if (capacity < expected || (expected > 0 && destination == nullptr)) {
    length = expected;
    return false;
  }

  try {
    if (m_vInput.size() < e.compressedSize) m_vInput.resize(e.compressedSize);
  } catch (const std::bad_alloc&) {
    return fail("no memory for the compressed chunk");
  }
  if (lowlevel::platform::lseek(m_nHandle, compressedOffset, 0) != compressedOffset) {
    return fail("cannot seek to the chunk at " + std::to_string(compressedOffset));
  }
  uint32_t done = 0;
  while (done < e.compressedSize) {
    int n = lowlevel::platform::read(m_nHandle, m_vInput.data() + done, e.compressedSize - done);
    if (n < 0) return fail("cannot read the chunk at " + std::to_string(compressedOffset));
    if (n == 0) return fail("the file ends inside the chunk at " + std::to_string(compressedOffset));
    done += static_cast<uint32_t>(n);
  }

  const char* input = m_vInput.data();
  if (!isZstdFrame(input, e.compressedSize) ||
      ZSTD_findFrameCompressedSize(input, e.compressedSize) != e.compressedSize) {
    return fail("the chunk at " + std::to_string(compressedOffset) + " is not exactly one zstd frame");
  }
  ZSTD_DCtx* context = static_cast<ZSTD_DCtx*>(m_decoder.get());
  if (context == nullptr) return fail("no memory for the decompression context");
  // A null destination is legal only for an empty chunk; give zstd a valid pointer all the same.
  char none = 0;
  char* target = destination != nullptr ? destination : &none;
  size_t result = ZSTD_decompressDCtx(context, target, static_cast<size_t>(expected), input, e.compressedSize);
  if (ZSTD_isError(result)) {
    if (ZSTD_getErrorCode(result) == ZSTD_error_dstSize_tooSmall) {
      return fail("the chunk at " + std::to_string(compressedOffset) + " expands to more than " +
                  std::to_string(expected) + " bytes");
    }
    return fail("the chunk at " + std::to_string(compressedOffset) + " is damaged: " + ZSTD_getErrorName(result));
  }
  if (result != static_cast<size_t>(expected)) {
    return fail("the chunk at " + std::to_string(compressedOffset) + " expands to " + std::to_string(result) +
                " bytes instead of " + std::to_string(expected));
  }
  if (m_bCheckCRC && m_bHasChecksums &&
      lowlevel::compression::frameChecksum(target, result) != e.checksum) {
    return fail("checksum mismatch in the chunk at " + std::to_string(compressedOffset));
  }
  length = expected;
  m_sErrMsg.clear();
  return true;
}
