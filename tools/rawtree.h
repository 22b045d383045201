// A reader of BTree files that works from the bytes alone (through ZFile, so logical paths and
// compressed files work), independent of the BTree class: used by `btree info`, `check` and `dump`
// to see what the tree operations do not show, and to judge a damaged file without trusting it.
#ifndef LOWLEVEL_TOOLS_RAWTREE_H
#define LOWLEVEL_TOOLS_RAWTREE_H

#include <cstdint>
#include <string>
#include <vector>

#include "lowlevel/files/file.h"

struct RawHeader {
  int32_t version = 0, magic = 0, headerSize = 0, keyLength = 0, order = 0;
  int16_t duplicates = 0, compressed = 0;
  int32_t keyCount = 0, rootOffset = -1, freeListHead = -1;
  uint32_t lcid = 0, mapFlags = 0;
  int16_t spaceConversion = 0;
};

struct RawPage {
  int32_t offset = -1, parentOffset = -1;
  uint32_t keyCount = 0;
  std::vector<std::string> keys;  // full slots, keyCount of them
  std::vector<int32_t> values;    // maxKeys
  std::vector<int32_t> children;  // order
  int32_t recordSize = 0;         // bytes the record takes in the file
  bool isLeaf() const;
};

class RawTree {
 public:
  // Opens the file read-only at `offset`; false with `error` for an unreadable or invalid header.
  // A file longer than 2^31 - 1 bytes is refused with the reason, unless `belowLimit`: then it is
  // read as far as the limit (for salvage), as a plain file.
  bool open(const std::string& path, int32_t offset, std::string* error, bool belowLimit = false);
  // Reads the record at logical `offset`; false with `error` when it cannot be read or is not a
  // valid record there.
  bool readPage(int32_t offset, RawPage* page, std::string* error);
  // Reads the first 4 bytes of the record at `offset` (the free-chain link).
  bool readLink(int32_t offset, int32_t* link);

  const RawHeader& header() const { return m_header; }
  int32_t fileLength() const { return m_length; }    // bytes after the header's start
  int64_t recordSize() const { return m_recordSize; }  // uncompressed record size
  uint32_t maxKeys() const { return static_cast<uint32_t>(m_header.order - 1); }

 private:
  bool readAt(int32_t offset, void* buffer, int32_t count);
  ZFile m_file;
  ZFileBase m_plain;            // a file beyond the limit, read below it
  ZFileBase* m_io = &m_file;  // the one of the two that is open
  RawHeader m_header;
  int32_t m_start = 0;
  int32_t m_length = 0;
  int64_t m_recordSize = 0;
};

// "text" when every byte of `key` before its zero padding is printable, else hex; `width` limits
// the slot bytes that count (the caller's key width, without a value tail).
std::string displayKey(const std::string& slot, int width);
std::string hexBytes(const std::string& bytes);

#endif
