// Writing a page in the compressed record form: a 12-byte head (offset, parent, key count), a table
// of stored key lengths (signed 16-bit, 0 for an unused slot), the stored key bytes one behind the
// other, then all values and all children. A stored key is its slot less the trailing zero bytes,
// and less the value tail in a tree with duplicates (the reader rebuilds it from the values).
#include <cstdint>
#include <vector>

#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/files/filelimit.h"
#include "lowlevel/support/support.h"

namespace {

const char kModule[] = "btree";

void putInt32(std::vector<unsigned char>& out, int32_t v) {
  uint32_t u = static_cast<uint32_t>(v);
  out.push_back(static_cast<unsigned char>(u & 0xFF));
  out.push_back(static_cast<unsigned char>((u >> 8) & 0xFF));
  out.push_back(static_cast<unsigned char>((u >> 16) & 0xFF));
  out.push_back(static_cast<unsigned char>((u >> 24) & 0xFF));
}

void putInt16(std::vector<unsigned char>& out, int16_t v) {
  uint16_t u = static_cast<uint16_t>(v);
  out.push_back(static_cast<unsigned char>(u & 0xFF));
  out.push_back(static_cast<unsigned char>((u >> 8) & 0xFF));
}

}  // namespace

// Slots are measured by their key's data, so that an empty slot stores nothing. A used slot beyond
// keyCount (which a sound page never has) still gets its bytes written, so the record's table and
// its key bytes always agree and the record reads back.
//
// The record goes out in one write. A page that cannot be stored (a key of another width, a key of
// zero bytes) leaves only the record's head written, and false.
bool BTreePageFile::WriteCompressed(BTreePage& page) {
  if (page.isPlaceholder() || hdr.order < 1 || static_cast<int64_t>(page.order) != hdr.order ||
      static_cast<int64_t>(page.keyLength) != hdr.keyLength || page.maxKeys != page.order - 1 ||
      page.keyCount > page.maxKeys) {
    return false;
  }
  if (page.offset == -1) {
    // Nothing was placed yet: there is no position behind a record to go to.
    if (compressedWritePosition < kBTreeHeaderSize) return false;
    page.offset = compressedWritePosition;
  }
  if (page.offset < 0 || file.Seek(page.offset, 0) != page.offset) return false;

  std::vector<unsigned char> bytes;
  bytes.reserve(kBTreeCompressedPageHeadSize + static_cast<size_t>(keyLengthTableSize) +
                static_cast<size_t>(keyBufferSize) + 8 * static_cast<size_t>(page.order));
  putInt32(bytes, page.offset);
  putInt32(bytes, page.parentOffset);
  putInt32(bytes, static_cast<int32_t>(page.keyCount));
  auto headOnly = [&]() {
    return writeThrough(page.offset, bytes.data(), kBTreeCompressedPageHeadSize) ==
           kBTreeCompressedPageHeadSize;
  };

  if (!ensureKeyLengthTable()) {
    headOnly();
    return false;
  }
  const int64_t width = hdr.duplicates != 0 ? int64_t{hdr.keyLength} - 4 : hdr.keyLength;
  for (uint32_t i = 0; i < page.maxKeys; ++i) {
    const BTreePageKey& key = page.keys[i];
    if (key.data == nullptr) {
      keyLengthTable[i] = 0;
      continue;
    }
    if (static_cast<int64_t>(key.size) != hdr.keyLength || width > INT16_MAX) {
      headOnly();
      return false;
    }
    int64_t stored = width;
    while (stored > 0 && key.data[stored - 1] == 0) --stored;
    if (stored <= 0) {
      if (headOnly()) {
        reporterLL("zero length string", "BTreePageFile::WriteCompressed", eReportError, kModule,
                   __LINE__);
      }
      return false;
    }
    keyLengthTable[i] = static_cast<int16_t>(stored);
  }

  for (uint32_t i = 0; i < page.maxKeys; ++i) putInt16(bytes, keyLengthTable[i]);
  bytes.resize(kBTreeCompressedPageHeadSize + static_cast<size_t>(keyLengthTableSize), 0);
  for (uint32_t i = 0; i < page.maxKeys; ++i) {
    const int16_t length = keyLengthTable[i];
    if (length > 0) bytes.insert(bytes.end(), page.keys[i].data, page.keys[i].data + length);
  }
  for (uint32_t i = 0; i < page.maxKeys; ++i) putInt32(bytes, page.values[i]);
  for (uint32_t i = 0; i < page.order; ++i) putInt32(bytes, page.children[i]);
  const int total = static_cast<int>(bytes.size());
  if (!fitsFileLimit(page.offset, total)) {
    return refuseBeyondFileLimit(name, "BTreePageFile::WriteCompressed", kModule, __LINE__);
  }
  if (writeThrough(page.offset, bytes.data(), total) != total) return false;

  int32_t position = file.Position();
  if (position < 0) return false;
  compressedWritePosition = position;
  writeHeader();
  return true;
}
