#include "compression/seekable_writer.h"

#include <algorithm>
#include <limits>
#include <new>

#include "compression/filecompression.h"
#include "compression/seektable.h"
#include "compression/zstdcompression.h"
#include "lowlevel/platform/io.h"

namespace lowlevel {
namespace compression {

namespace {

constexpr uint64_t kMaxLength = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());

bool setError(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
  return false;
}

// Closes a handle of platform::open when it goes, unless release() took it.
class Handle {
 public:
  explicit Handle(int handle) : m_nHandle(handle) {}
  ~Handle() {
    if (m_nHandle >= 0) platform::close(m_nHandle);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  int get() const { return m_nHandle; }
  // Closes now; false when the close fails.
  bool close() {
    int h = m_nHandle;
    m_nHandle = -1;
    return platform::close(h) == 0;
  }

 private:
  int m_nHandle;
};

bool writeAll(int handle, const char* data, size_t size) {
  while (size > 0) {
    unsigned part = static_cast<unsigned>(std::min<size_t>(size, 1u << 30));
    int n = platform::write(handle, data, part);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool readAll(int handle, char* data, size_t size) {
  while (size > 0) {
    int n = platform::read(handle, data, static_cast<unsigned>(size));
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

int openForWriting(const std::string& path) {
  return platform::open(path.c_str(),
                        platform::kOpenWriteOnly | platform::kOpenCreate | platform::kOpenTruncate |
                            platform::kOpenBinary,
                        platform::kPermRead | platform::kPermWrite);
}

// Compresses chunks one after another and keeps their seek-table entries.
class FrameEncoder {
 public:
  explicit FrameEncoder(const SeekableWriteOptions& options) : m_options(options) {}

  bool checkOptions(std::string* error) {
    if (m_options.chunkSize == 0) return setError(error, "the chunk size must be above 0");
    if (!m_codec.setLevel(m_options.level)) {
      return setError(error, "compression level " + std::to_string(m_options.level) + " is outside " +
                                 std::to_string(ZzstdCompression::minLevel()) + " to " +
                                 std::to_string(ZzstdCompression::maxLevel()));
    }
    return true;
  }

  // Compresses one chunk into frame(); false with `error` set.
  bool encode(const char* data, size_t size, std::string* error) {
    try {
      m_frame.resize(m_codec.maxCompressedSize(size));
    } catch (const std::bad_alloc&) {
      return setError(error, "no memory for a compressed chunk");
    }
    size_t written = 0;
    if (!m_codec.compress(data, size, m_frame.data(), m_frame.size(), written, error)) return false;
    m_frame.resize(written);
    m_compressedTotal += written;
    if (m_compressedTotal + kFooterSize + 8 + 12 * (m_entries.size() + 1) > kMaxLength) {
      return setError(error, "the compressed file would reach offset 2147483647, the 2 GiB limit");
    }
    SeekEntry entry;
    entry.compressedSize = static_cast<uint32_t>(written);
    entry.expandedSize = static_cast<uint32_t>(size);
    entry.checksum = m_options.checksums ? frameChecksum(data, size) : 0;
    m_entries.push_back(entry);
    return true;
  }

  const std::string& frame() const { return m_frame; }
  std::string table() const { return encodeSeekTable(m_entries, m_options.checksums); }

 private:
  SeekableWriteOptions m_options;
  ZzstdCompression m_codec;
  std::string m_frame;
  std::vector<SeekEntry> m_entries;
  uint64_t m_compressedTotal = 0;
};

}  // namespace

bool compressToSeekable(const std::string& data, const SeekableWriteOptions& options, std::string* out,
                        std::string* error) {
  FrameEncoder encoder(options);
  if (!encoder.checkOptions(error)) return false;
  if (data.size() > kMaxLength) return setError(error, "the input is larger than 2^31 - 1 bytes");
  std::string result;
  size_t position = 0;
  do {
    size_t size = std::min<size_t>(options.chunkSize, data.size() - position);
    if (!encoder.encode(data.data() + position, size, error)) return false;
    result += encoder.frame();
    position += size;
  } while (position < data.size());
  result += encoder.table();
  out->swap(result);
  return true;
}

bool compressFileToSeekable(const std::string& srcPath, const std::string& dstPath,
                            const SeekableWriteOptions& options, std::string* error) {
  FrameEncoder encoder(options);
  if (!encoder.checkOptions(error)) return false;
  if (srcPath == dstPath) return setError(error, "source and target are the same file");
  Handle src(platform::open(srcPath.c_str(), platform::kOpenReadOnly | platform::kOpenBinary, 0));
  if (src.get() < 0) return setError(error, "cannot open " + srcPath);
  int32_t length = platform::filelength(src.get());
  platform::FileStat stat;
  if (length < 0 && platform::fstat(src.get(), &stat) == 0 && stat.size < 0) {
    return setError(error, srcPath + " is larger than 2147483647 bytes, the 2 GiB limit");
  }
  if (length < 0) return setError(error, "cannot get the length of " + srcPath);
  Handle dst(openForWriting(dstPath));
  if (dst.get() < 0) return setError(error, "cannot create " + dstPath);

  std::vector<char> chunk;
  try {
    chunk.resize(std::min<size_t>(options.chunkSize, static_cast<size_t>(length)));
  } catch (const std::bad_alloc&) {
    return setError(error, "no memory for a chunk");
  }
  size_t remaining = static_cast<size_t>(length);
  do {
    size_t size = std::min<size_t>(options.chunkSize, remaining);
    if (!readAll(src.get(), chunk.data(), size)) return setError(error, "cannot read " + srcPath);
    if (!encoder.encode(chunk.data(), size, error)) {
      if (error != nullptr) *error = dstPath + ": " + *error;  // written so far, nothing beyond
      return false;
    }
    if (!writeAll(dst.get(), encoder.frame().data(), encoder.frame().size())) {
      return setError(error, "cannot write " + dstPath);
    }
    remaining -= size;
  } while (remaining > 0);
  std::string table = encoder.table();
  if (!writeAll(dst.get(), table.data(), table.size()) || !dst.close()) {
    return setError(error, "cannot write " + dstPath);
  }
  return true;
}

bool expandSeekableFile(const std::string& srcPath, const std::string& dstPath, std::string* error) {
  if (srcPath == dstPath) return setError(error, "source and target are the same file");
  Handle src(platform::open(srcPath.c_str(), platform::kOpenReadOnly | platform::kOpenBinary, 0));
  if (src.get() < 0) return setError(error, "cannot open " + srcPath);
  ZfileCompression reader;
  reader.init(src.get(), 0);
  if (!reader.startExpand()) return setError(error, srcPath + ": " + reader.getErrMsg());
  Handle dst(openForWriting(dstPath));
  if (dst.get() < 0) return setError(error, "cannot create " + dstPath);

  std::vector<char> buffer;
  int32_t offset = 0, size = 0;
  for (bool more = reader.chunkWalkFirst(offset, size); more; more = reader.chunkWalkNext(offset, size)) {
    try {
      if (buffer.size() < static_cast<size_t>(size)) buffer.resize(static_cast<size_t>(size));
    } catch (const std::bad_alloc&) {
      return setError(error, "no memory for a chunk");
    }
    int32_t length = static_cast<int32_t>(buffer.size());
    if (!reader.expandChunk(offset, buffer.data(), length)) {
      return setError(error, srcPath + ": " + reader.getErrMsg());
    }
    if (!writeAll(dst.get(), buffer.data(), static_cast<size_t>(length))) {
      return setError(error, "cannot write " + dstPath);
    }
  }
  if (!dst.close()) return setError(error, "cannot write " + dstPath);
  return true;
}

bool describeSeekableFile(const std::string& path, SeekableInfo* info, std::string* error) {
  Handle file(platform::open(path.c_str(), platform::kOpenReadOnly | platform::kOpenBinary, 0));
  if (file.get() < 0) return setError(error, "cannot open " + path);
  SeekTable table;
  std::string why;
  if (!readSeekTable(file.get(), 0, &table, &why)) return setError(error, path + ": not a compressed file: " + why);
  SeekableInfo result;
  result.fileLength = table.tableOffset + table.tableSize;
  result.expandedLength = table.expandedLength;
  result.tableSize = table.tableSize;
  result.checksums = table.checksums;
  for (const SeekEntry& e : table.entries) {
    SeekableFrameInfo frame;
    frame.compressedOffset = e.compressedOffset;
    frame.compressedSize = e.compressedSize;
    frame.expandedOffset = e.expandedOffset;
    frame.expandedSize = e.expandedSize;
    frame.checksum = e.checksum;
    result.frames.push_back(frame);
  }
  *info = std::move(result);
  return true;
}

}  // namespace compression
}  // namespace lowlevel
