#include "lowlevel/files/cmpfilbs.h"

#include <cstring>
#include <new>

#include "compression/filecompression.h"
#include "lowlevel/files/filelimit.h"
#include "lowlevel/platform/io.h"
#include "lowlevel/support/support.h"

namespace io = lowlevel::platform;

ZOffsetMapTable offsetMapTable;

ZOffsetMapTable::~ZOffsetMapTable() {
  for (auto& entry : m_mMaps) {
    delete entry.second;
    entry.second = nullptr;
  }
}

namespace {

const char kModule[] = "cmpfilbs";
const char kNoMapMemory[] = "Unable to allocate Uncompressed offset to compressed offset map.";

// Walks the chunks of a file whose startExpand said true and records, for each chunk, the expanded
// offset of its first byte against its offset on disk. A chunk of size 0 gives way to the chunk
// behind it. When the first step of the walk fails the map stays empty and reads give nothing.
void buildOffsetMap(ZfileCompression* compression, OffsetMap* map) {
  int32_t compressedOffset = 0;
  int32_t expandedSize = 0;
  if (!compression->chunkWalkFirst(compressedOffset, expandedSize)) return;
  int64_t running = 0;
  do {
    if (running > INT32_MAX || expandedSize < 0) return;  // a damaged table: stop where it breaks
    (*map)[static_cast<int32_t>(running)] = compressedOffset;
    running += expandedSize;
  } while (compression->chunkWalkNext(compressedOffset, expandedSize));
}

int32_t clampToLong(int64_t value) {
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

}  // namespace

ZCompressedFileBase::ZCompressedFileBase() : ZFileBase(), m_cache(2) { init(); }

ZCompressedFileBase::ZCompressedFileBase(int handle) : ZFileBase(handle), m_cache(2) {
  init();
  if (!(m_nHandle > -1)) return;
  io::FileStat st;
  if (io::fstat(m_nHandle, &st) != 0) {
    reporterLL("Unable to retrieve stat for file handle.",
               "ZCompressedFileBase::ZCompressedFileBase( handle )", eReportError, kModule,
               __LINE__);
    return;
  }
  if ((st.mode & io::kModeRegular) == 0) return;  // a device or a pipe stays plain, unmoved
  m_pCompression->init(m_nHandle, 0);
  m_bCompressed = m_pCompression->startExpand();
  if (m_bCompressed) {
    OffsetMap* map = new (std::nothrow) OffsetMap;
    if (map == nullptr) {
      reporterLL(kNoMapMemory, "ZCompressedFileBase::ZCompressedFileBase( handle )", eReportError,
                 kModule, __LINE__);
      return;
    }
    buildOffsetMap(m_pCompression, map);
    m_pOffsetMap = map;
    m_bOwnsOffsetMap = true;
  }
  Seek(0, 0);
}

ZCompressedFileBase::ZCompressedFileBase(const ZCompressedFileBase& other)
    : ZFileBase(other), m_cache(2) {
  init();
  m_bCompressed = other.m_bCompressed;
  m_lPosition = other.m_lPosition;
  bindCopy(other);
}

ZCompressedFileBase::ZCompressedFileBase(const std::string& path, unsigned short openFlags,
                                         unsigned short permissionMode)
    : ZFileBase(), m_cache(2) {
  init();
  ZCompressedFileBase::Open(path, openFlags, permissionMode);
}

ZCompressedFileBase::~ZCompressedFileBase() {
  delete m_pCompression;
  m_pCompression = nullptr;
  for (ChunkBuffer* buffer : m_vBuffers) {
    delete[] buffer->data;
    delete buffer;
  }
  m_vBuffers.clear();
  releasePrivateMap();
}

ZCompressedFileBase& ZCompressedFileBase::operator=(const ZCompressedFileBase& other) {
  if (this == &other) return *this;
  // Let go of what this object holds: the handle (closed only when owned), the chunks held and a
  // private map. The compression object and the buffers stay this object's own.
  flushCache();
  m_pCurrentBuffer = nullptr;
  if (m_bOwnsHandle) ZFileBase::Close();
  releasePrivateMap();
  m_pOffsetMap = nullptr;
  m_nHandle = io::dup(other.m_nHandle);
  m_bOwnsHandle = true;
  m_bCompressed = other.m_bCompressed;
  m_lPosition = other.m_lPosition;
  bindCopy(other);
  return *this;
}

void ZCompressedFileBase::bindCopy(const ZCompressedFileBase& other) {
  if (!m_bCompressed || !(m_nHandle > -1)) return;
  // The copy reads through its own duplicate handle with its own compression object. The handle
  // position it may move is shared with the source, which keeps its own position in m_lPosition.
  m_pCompression->init(m_nHandle, 0);
  if (!m_pCompression->startExpand() || other.m_pOffsetMap == nullptr) return;  // reads give 0
  if (!other.m_bOwnsOffsetMap) {
    m_pOffsetMap = other.m_pOffsetMap;  // a map of offsetMapTable lives until unload
    return;
  }
  OffsetMap* map = new (std::nothrow) OffsetMap(*other.m_pOffsetMap);
  if (map == nullptr) return;
  m_pOffsetMap = map;
  m_bOwnsOffsetMap = true;
}

void ZCompressedFileBase::releasePrivateMap() {
  if (m_bOwnsOffsetMap) delete m_pOffsetMap;
  m_bOwnsOffsetMap = false;
}

void ZCompressedFileBase::init() {
  m_bCompressed = false;
  m_pCompression = new ZfileCompression;
  m_pOffsetMap = nullptr;
  m_bOwnsOffsetMap = false;
  m_lPosition = 0;
  m_vBuffers.resize(3);
  for (ChunkBuffer*& buffer : m_vBuffers) buffer = new ChunkBuffer;
  m_cache.setSize(3);
  flushCache();
  m_pCurrentBuffer = nullptr;
}

bool ZCompressedFileBase::Open(const std::string& path, unsigned short openFlags,
                               unsigned short permissionMode) {
  if (!ZFileBase::Open(path, openFlags, permissionMode)) return false;
  // Positions and lengths are 32-bit: a longer file is refused, with the reason, rather than
  // opened with a length of -1.
  if (fileBeyondLimit(m_nHandle)) {
    reporterLL(fileLimitReadMessage(path), "ZCompressedFileBase::Open", eReportError, kModule,
               __LINE__);
    ZFileBase::Close();
    return false;
  }
  // A private map from the handle constructor belongs to the file that object was made on.
  if (m_bOwnsOffsetMap) {
    releasePrivateMap();
    m_pOffsetMap = nullptr;
  }
  m_pCurrentBuffer = nullptr;
  if ((openFlags & io::kOpenBinary) == 0) {
    m_bCompressed = false;
    return true;
  }
  m_pCompression->init(GetHandle(), 0);
  m_bCompressed = m_pCompression->startExpand();
  if (m_bCompressed) {
    OffsetMap*& entry = offsetMapTable.entry(path);
    m_pOffsetMap = entry;
    if (m_pOffsetMap == nullptr) {
      OffsetMap* map = new (std::nothrow) OffsetMap;
      if (map == nullptr) {
        reporterLL(kNoMapMemory, "ZCompressedFileBase::Open", eReportError, kModule, __LINE__);
        return false;
      }
      buildOffsetMap(m_pCompression, map);
      entry = map;
      m_pOffsetMap = map;
    }
  }
  Seek(0, 0);
  return true;
}

bool ZCompressedFileBase::Close() {
  flushCache();
  return ZFileBase::Close();
}

int32_t ZCompressedFileBase::Position() {
  if (m_bCompressed) return m_lPosition;
  return ZFileBase::Position();
}

int32_t ZCompressedFileBase::Length() {
  if (m_bCompressed) return m_pCompression->uncompressedLength();
  return ZFileBase::Length();
}

int32_t ZCompressedFileBase::Seek(int32_t offset, int origin) {
  if (!m_bCompressed) return ZFileBase::Seek(offset, origin);
  int64_t target;
  switch (origin) {
    case 0: target = offset; break;
    case 1: target = static_cast<int64_t>(m_lPosition) + offset; break;
    case 2: target = static_cast<int64_t>(Length()) - offset; break;
    default: target = m_lPosition; break;
  }
  if (target < 0) {
    target = 0;
  } else {
    int32_t length = Length();
    if (target > length) target = length < 0 ? 0 : length;
  }
  m_lPosition = clampToLong(target);
  return m_lPosition;
}

int ZCompressedFileBase::Read(void* buffer, int count) {
  if (!m_bCompressed) return ZFileBase::Read(buffer, count);
  if (count <= 0 || buffer == nullptr) return 0;
  char* out = static_cast<char*>(buffer);
  int total = 0;
  const int32_t length = Length();
  // The first pass copies from inside the chunk that holds the position; each later pass starts at
  // the first byte of the next chunk. A chunk that holds nothing at the position ends the read, so
  // a damaged file cannot stall it.
  do {
    if (!readBuffer()) break;
    const ChunkBuffer* chunk = m_pCurrentBuffer;
    int64_t skip = static_cast<int64_t>(m_lPosition) - chunk->offset;
    int64_t available = static_cast<int64_t>(chunk->length) - skip;
    if (skip < 0 || available <= 0) break;
    int n = available < count ? static_cast<int>(available) : count;
    std::memcpy(out, chunk->data + skip, static_cast<size_t>(n));
    m_lPosition += n;
    total += n;
    out += n;
    count -= n;
  } while (count > 0 && m_lPosition < length);
  return total;
}

int ZCompressedFileBase::Write(const void* buffer, int count) {
  if (m_bCompressed) return 0;
  return ZFileBase::Write(buffer, count);
}

bool ZCompressedFileBase::readBuffer() {
  if (m_pOffsetMap == nullptr) return false;
  auto entry = m_pOffsetMap->upper_bound(m_lPosition);
  if (entry == m_pOffsetMap->begin()) return false;
  --entry;
  const int32_t key = entry->first;
  if (ChunkBuffer** hit = m_cache.get(key)) {
    m_pCurrentBuffer = *hit;
    return true;
  }
  ChunkBuffer** old = m_cache.getOld();
  if (old == nullptr) {
    reporterLL("Failed to getOld buffer from cache.", "ZCompressedFileBase::readBuffer",
               eReportError, kModule, __LINE__);
    return false;
  }
  ChunkBuffer* chunk = *old;
  m_pCurrentBuffer = chunk;
  chunk->length = chunk->capacity;
  bool expanded = m_pCompression->expandChunk(entry->second, chunk->data, chunk->length);
  // Room is made only for a size the chunk can really have: a damaged table may claim 2 GiB.
  if (!expanded && chunk->length > chunk->capacity &&
      !m_pCompression->chunkSizePossible(entry->second)) {
    chunk->length = 0;
  }
  if (!expanded && chunk->length > 0) {
    if (chunk->length > chunk->capacity) {
      delete[] chunk->data;
      chunk->data = new (std::nothrow) char[static_cast<size_t>(chunk->length)];
      chunk->capacity = chunk->data != nullptr ? chunk->length : 0;
    }
    if (chunk->data != nullptr) {
      chunk->length = chunk->capacity;
      expanded = m_pCompression->expandChunk(entry->second, chunk->data, chunk->length);
    }
  }
  if (expanded && (chunk->length < 0 || chunk->length > chunk->capacity)) expanded = false;
  if (!expanded) {
    // The buffer may hold anything now: take it out of the entry that named its old chunk, so that
    // no later hit hands those bytes out.
    chunk->offset = -1;
    chunk->length = 0;
    m_cache.add(-1, chunk);
    m_pCurrentBuffer = nullptr;
    return false;
  }
  chunk->offset = key;
  m_cache.add(key, chunk);
  return true;
}

void ZCompressedFileBase::flushCache() {
  for (ChunkBuffer* buffer : m_vBuffers) m_cache.add(-1, buffer);
}
