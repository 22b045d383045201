#include "compression/seektable.h"

#include <limits>
#include <new>

#include <xxhash.h>

#include "lowlevel/platform/io.h"

namespace lowlevel {
namespace compression {

namespace {

uint32_t le32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void put32(std::string& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

bool setError(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
  return false;
}

// Reads exactly `size` bytes at `position`; false on an I/O error or a short file.
bool readAt(int handle, int32_t position, unsigned char* buffer, uint32_t size) {
  if (platform::lseek(handle, position, 0) != position) return false;
  uint32_t done = 0;
  while (done < size) {
    int n = platform::read(handle, buffer + done, size - done);
    if (n <= 0) return false;
    done += static_cast<uint32_t>(n);
  }
  return true;
}

}  // namespace

bool readSeekTable(int handle, int32_t baseOffset, SeekTable* table, std::string* error) {
  *table = SeekTable();
  if (handle < 0) return setError(error, "no file is bound");
  int32_t length = platform::filelength(handle);
  if (length < 0) return setError(error, "cannot get the length of the file");
  if (length == 0) return setError(error, "the file is empty");
  if (baseOffset < 0 || baseOffset > length) return setError(error, "the data offset lies outside the file");
  const int64_t available = static_cast<int64_t>(length) - baseOffset;
  if (available < 8 + kFooterSize) return setError(error, "the file is too short to hold a seek table");

  unsigned char footer[kFooterSize];
  if (!readAt(handle, length - static_cast<int32_t>(kFooterSize), footer, kFooterSize)) {
    return setError(error, "cannot read the seek table footer");
  }
  if (le32(footer + 5) != kSeekableMagic) return setError(error, "no seek table (footer magic number missing)");
  const uint8_t descriptor = footer[4];
  if ((descriptor & kReservedBits) != 0) return setError(error, "reserved bits of the seek table descriptor are set");
  const bool checksums = (descriptor & kChecksumFlag) != 0;
  const uint64_t count = le32(footer);
  const uint64_t entrySize = checksums ? 12 : 8;
  const uint64_t frameBytes = 8 + count * entrySize + kFooterSize;  // at most about 5 * 10^10
  if (frameBytes > static_cast<uint64_t>(available)) {
    return setError(error, "the seek table claims more frames than the file can hold");
  }
  const int32_t tableStart = length - static_cast<int32_t>(frameBytes);

  std::vector<unsigned char> bytes;
  try {
    bytes.resize(static_cast<size_t>(frameBytes));
  } catch (const std::bad_alloc&) {
    return setError(error, "no memory for the seek table");
  }
  if (!readAt(handle, tableStart, bytes.data(), static_cast<uint32_t>(frameBytes))) {
    return setError(error, "cannot read the seek table");
  }
  if (le32(bytes.data()) != kSkippableMagic) return setError(error, "the seek table frame has the wrong magic number");
  if (le32(bytes.data() + 4) != frameBytes - 8) {
    return setError(error, "the seek table frame size does not match its number of frames");
  }

  std::vector<SeekEntry> entries;
  try {
    entries.resize(static_cast<size_t>(count));
  } catch (const std::bad_alloc&) {
    return setError(error, "no memory for the seek table");
  }
  uint64_t compressed = 0, expanded = 0;
  const uint64_t dataBytes = static_cast<uint64_t>(tableStart - baseOffset);
  for (uint64_t i = 0; i < count; ++i) {
    const unsigned char* p = bytes.data() + 8 + i * entrySize;
    SeekEntry& e = entries[static_cast<size_t>(i)];
    e.compressedSize = le32(p);
    e.expandedSize = le32(p + 4);
    e.checksum = checksums ? le32(p + 8) : 0;
    if (e.compressedSize == 0) {
      return setError(error, "frame " + std::to_string(i) + " has a compressed size of 0");
    }
    // The checks below keep both sums within a signed 32-bit number before the next entry.
    e.compressedOffset = static_cast<int32_t>(compressed);
    e.expandedOffset = static_cast<int32_t>(expanded);
    compressed += e.compressedSize;
    expanded += e.expandedSize;
    if (compressed > dataBytes) {
      return setError(error, "the compressed sizes in the seek table run past the seek table");
    }
    if (expanded > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
      return setError(error, "the expanded length does not fit a signed 32-bit number");
    }
  }
  if (compressed != dataBytes) {
    return setError(error, "the compressed sizes in the seek table do not add up to its position");
  }
  table->entries.swap(entries);
  table->checksums = checksums;
  table->tableOffset = tableStart - baseOffset;
  table->tableSize = static_cast<int32_t>(frameBytes);
  table->expandedLength = static_cast<int32_t>(expanded);
  return true;
}

std::string encodeSeekTable(const std::vector<SeekEntry>& entries, bool checksums) {
  const uint32_t entrySize = checksums ? 12 : 8;
  std::string out;
  out.reserve(8 + entries.size() * entrySize + kFooterSize);
  put32(out, kSkippableMagic);
  put32(out, static_cast<uint32_t>(entries.size() * entrySize + kFooterSize));
  for (const SeekEntry& e : entries) {
    put32(out, e.compressedSize);
    put32(out, e.expandedSize);
    if (checksums) put32(out, e.checksum);
  }
  put32(out, static_cast<uint32_t>(entries.size()));
  out.push_back(static_cast<char>(checksums ? kChecksumFlag : 0));
  put32(out, kSeekableMagic);
  return out;
}

uint32_t frameChecksum(const void* data, size_t size) {
  return static_cast<uint32_t>(XXH64(data, size, 0) & 0xFFFFFFFFu);
}

}  // namespace compression
}  // namespace lowlevel
