#include "tools/rawtree.h"

#include <cstdio>

#include "tools/tool.h"

namespace {

int32_t le32(const unsigned char* p) {
  return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                              static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24);
}

int16_t le16(const unsigned char* p) {
  return static_cast<int16_t>(static_cast<uint16_t>(p[0] | p[1] << 8));
}

}  // namespace

bool RawPage::isLeaf() const {
  for (int32_t c : children) {
    if (c != -1) return false;
  }
  return true;
}

bool RawTree::readAt(int32_t offset, void* buffer, int32_t count) {
  if (offset < 0 || count < 0) return false;
  int64_t physical = static_cast<int64_t>(offset) + m_start;
  if (physical > INT32_MAX) return false;
  if (m_io->Seek(static_cast<int32_t>(physical), 0) != physical) return false;
  return m_io->Read(buffer, count) == count;
}

bool RawTree::open(const std::string& path, int32_t offset, std::string* error, bool belowLimit) {
  m_start = offset;
  int32_t length = -1;
  if (belowLimit && beyondFileLimit(path)) {
    std::string resolved = path;
    if (!ZFile::ResolvePath(resolved, false, false) || !m_plain.Open(resolved, 0x8000, 0)) {
      *error = "cannot open " + path;
      return false;
    }
    m_io = &m_plain;
    length = INT32_MAX;  // what lies below the limit
  } else if (m_file.Open(path, 0x8000, 0)) {
    length = m_file.Length();
  } else {
    *error = cannotOpen(path, path);
    return false;
  }
  if (length < 0 || length < offset) {
    *error = "cannot tell the size of " + path;
    return false;
  }
  m_length = length - offset;
  unsigned char h[46];
  if (!readAt(0, h, 46)) {
    *error = path + " is too short for a BTree header";
    return false;
  }
  m_header.version = le32(h);
  m_header.magic = le32(h + 4);
  m_header.headerSize = le32(h + 8);
  m_header.keyLength = le32(h + 12);
  m_header.order = le32(h + 16);
  m_header.duplicates = le16(h + 20);
  m_header.compressed = le16(h + 22);
  m_header.keyCount = le32(h + 24);
  m_header.rootOffset = le32(h + 28);
  m_header.freeListHead = le32(h + 32);
  m_header.lcid = static_cast<uint32_t>(le32(h + 36));
  m_header.mapFlags = static_cast<uint32_t>(le32(h + 40));
  m_header.spaceConversion = le16(h + 44);
  bool versionOk = m_header.version == 0x00010100 || m_header.version == 0x00010200 ||
                   m_header.version == 0x00010300 || m_header.version == 0x00010400;
  if (!versionOk || m_header.magic != 0x3154424B) {
    *error = path + " is not a BTree file (version or magic)";
    return false;
  }
  if (m_header.order < 2 || m_header.keyLength < 1 || m_header.order > 1000000 ||
      m_header.keyLength > 1000000) {
    *error = path + " has an impossible order or key length";
    return false;
  }
  int64_t n = m_header.order;
  m_recordSize = 28 + (n - 1) * m_header.keyLength + (n - 1) * 4 + n * 4;
  if (m_recordSize > INT32_MAX) {
    *error = path + " has records too large to address";
    return false;
  }
  return true;
}

bool RawTree::readLink(int32_t offset, int32_t* link) {
  unsigned char b[4];
  if (!readAt(offset, b, 4)) return false;
  *link = le32(b);
  return true;
}

bool RawTree::readPage(int32_t offset, RawPage* page, std::string* error) {
  const uint32_t order = static_cast<uint32_t>(m_header.order);
  const uint32_t maxKeys = order - 1;
  const uint32_t width = static_cast<uint32_t>(m_header.keyLength);
  char where[48];
  std::snprintf(where, sizeof where, "page at %d", static_cast<int>(offset));
  if (offset < 46 || offset >= m_length) {
    *error = std::string(where) + ": outside the file";
    return false;
  }
  RawPage p;
  if (m_header.compressed == 0) {
    if (offset + m_recordSize > m_length) {  // before allocating: a header may claim huge records
      *error = std::string(where) + ": truncated record";
      return false;
    }
    std::string record(static_cast<size_t>(m_recordSize), '\0');
    if (!readAt(offset, &record[0], static_cast<int32_t>(m_recordSize))) {
      *error = std::string(where) + ": truncated record";
      return false;
    }
    const unsigned char* r = reinterpret_cast<const unsigned char*>(record.data());
    p.offset = le32(r);
    p.parentOffset = le32(r + 4);
    uint32_t storedOrder = static_cast<uint32_t>(le32(r + 8));
    p.keyCount = static_cast<uint32_t>(le32(r + 20));
    uint32_t storedWidth = static_cast<uint32_t>(le32(r + 24));
    if (p.offset != offset) {
      *error = std::string(where) + ": record names itself " + std::to_string(p.offset);
      return false;
    }
    if (storedOrder != order || storedWidth != width) {
      *error = std::string(where) + ": order or key length differs from the header";
      return false;
    }
    if (p.keyCount > maxKeys) {
      *error = std::string(where) + ": key count " + std::to_string(p.keyCount) + " above " +
               std::to_string(maxKeys);
      return false;
    }
    const unsigned char* k = r + 28;
    for (uint32_t i = 0; i < p.keyCount; ++i) {
      p.keys.emplace_back(reinterpret_cast<const char*>(k + i * width), width);
    }
    const unsigned char* v = k + static_cast<size_t>(maxKeys) * width;
    for (uint32_t i = 0; i < maxKeys; ++i) p.values.push_back(le32(v + 4 * i));
    const unsigned char* c = v + 4 * maxKeys;
    for (uint32_t i = 0; i < order; ++i) p.children.push_back(le32(c + 4 * i));
    p.recordSize = static_cast<int32_t>(m_recordSize);
  } else {
    unsigned char head[12];
    if (!readAt(offset, head, 12)) {
      *error = std::string(where) + ": truncated record";
      return false;
    }
    p.offset = le32(head);
    p.parentOffset = le32(head + 4);
    p.keyCount = static_cast<uint32_t>(le32(head + 8));
    if (p.offset != offset) {
      *error = std::string(where) + ": record names itself " + std::to_string(p.offset);
      return false;
    }
    if (p.keyCount > maxKeys) {
      *error = std::string(where) + ": key count above the page's capacity";
      return false;
    }
    std::string table(2 * maxKeys, '\0');
    if (!readAt(offset + 12, &table[0], static_cast<int32_t>(table.size()))) {
      *error = std::string(where) + ": truncated key length table";
      return false;
    }
    const uint32_t room = m_header.duplicates ? width - 4 : width;
    int64_t sum = 0;
    std::vector<int16_t> lengths;
    for (uint32_t i = 0; i < maxKeys; ++i) {
      int16_t l = le16(reinterpret_cast<const unsigned char*>(table.data()) + 2 * i);
      if (l < 0 || static_cast<uint32_t>(l) > room || (i < p.keyCount && l == 0) ||
          (i >= p.keyCount && l != 0)) {
        *error = std::string(where) + ": bad key length table entry " + std::to_string(i);
        return false;
      }
      lengths.push_back(l);
      sum += l;
    }
    int64_t rest = sum + 4 * static_cast<int64_t>(maxKeys) + 4 * static_cast<int64_t>(order);
    if (offset + 12 + static_cast<int64_t>(table.size()) + rest > m_length) {
      *error = std::string(where) + ": truncated record";
      return false;
    }
    std::string body(static_cast<size_t>(rest), '\0');
    if (!readAt(offset + 12 + static_cast<int32_t>(table.size()), &body[0],
                static_cast<int32_t>(rest))) {
      *error = std::string(where) + ": truncated record";
      return false;
    }
    const unsigned char* b = reinterpret_cast<const unsigned char*>(body.data());
    const unsigned char* v = b + sum;
    for (uint32_t i = 0; i < maxKeys; ++i) p.values.push_back(le32(v + 4 * i));
    size_t pos = 0;
    for (uint32_t i = 0; i < p.keyCount; ++i) {
      std::string slot(width, '\0');
      slot.replace(0, static_cast<size_t>(lengths[i]), body, pos, static_cast<size_t>(lengths[i]));
      if (m_header.duplicates) {
        uint32_t value = static_cast<uint32_t>(p.values[i]);
        for (int j = 0; j < 4; ++j) slot[width - 4 + j] = static_cast<char>(value >> (24 - 8 * j));
      }
      pos += static_cast<size_t>(lengths[i]);
      p.keys.push_back(slot);
    }
    const unsigned char* c = v + 4 * maxKeys;
    for (uint32_t i = 0; i < order; ++i) p.children.push_back(le32(c + 4 * i));
    p.recordSize = static_cast<int32_t>(12 + table.size() + rest);
  }
  *page = std::move(p);
  return true;
}

std::string hexBytes(const std::string& bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

std::string displayKey(const std::string& slot, int width) {
  std::string key = slot.substr(0, width < 0 ? 0 : static_cast<size_t>(width));
  size_t end = key.find_last_not_of('\0');
  std::string trimmed = end == std::string::npos ? std::string() : key.substr(0, end + 1);
  bool printable = !trimmed.empty();
  for (unsigned char c : trimmed) {
    if (c < 0x20 || c == 0x7f) printable = false;
  }
  return printable ? trimmed : "0x" + hexBytes(key);
}
