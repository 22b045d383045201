// The BTree object: construction, accessors, key preparation and the long-key forms.
#include "lowlevel/btree/btree.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/platform/lcmap.h"
#include "lowlevel/support/support.h"

namespace {

const char kModule[] = "btree";

void encodeLong(int32_t value, char bytes[4]) {
  const uint32_t v = static_cast<uint32_t>(value);
  bytes[0] = static_cast<char>(v & 0xFF);
  bytes[1] = static_cast<char>((v >> 8) & 0xFF);
  bytes[2] = static_cast<char>((v >> 16) & 0xFF);
  bytes[3] = static_cast<char>((v >> 24) & 0xFF);
}

int32_t decodeLong(const char bytes[4]) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(bytes);
  return static_cast<int32_t>(static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
                              (static_cast<uint32_t>(b[2]) << 16) |
                              (static_cast<uint32_t>(b[3]) << 24));
}

}  // namespace

namespace {

// Makes the root image and reads it from the file; false when either fails (a failed allocation
// is reported, a failed read is not: the page file has its own reports).
bool readRoot(BTreePageFile* pageFile, BTreePage** root) {
  *root = new (std::nothrow) BTreePage(0, 0);
  if (*root == nullptr) {
    reporterLL("Out of Memory", "BTree::BTree", eReportError, kModule, __LINE__);
    return false;
  }
  return pageFile->readPage(pageFile->hdr.rootOffset, **root);
}

}  // namespace

BTree::BTree(const std::string& fileName_, bool readOnly, int32_t offset)
    : ok(false),
      fileName(fileName_),
      pageFile(nullptr),
      root(nullptr),
      traverseCallback(nullptr),
      curPage(nullptr),
      curIndex(0),
      lcid(0),
      mapFlags(0),
      spaceConversion(0),
      convertBuffer(nullptr),
      convertLength(0),
      convertCapacity(0) {
  pageFile = new (std::nothrow) BTreePageFile(fileName, readOnly, offset);
  if (pageFile == nullptr) {
    reporterLL("Out of Memory", "BTree::BTree", eReportError, kModule, __LINE__);
    return;
  }
  if (!pageFile->ok || !readRoot(pageFile, &root)) return;
  lcid = pageFile->hdr.lcid;
  mapFlags = pageFile->hdr.mapFlags;
  spaceConversion = pageFile->hdr.spaceConversion;
  ok = true;
}

BTree::BTree(const std::string& fileName_, int order, int keyLength, bool duplicates,
             uint32_t lcid_, uint32_t mapFlags_, int16_t spaceConversion_)
    : ok(false),
      fileName(fileName_),
      pageFile(nullptr),
      root(nullptr),
      traverseCallback(nullptr),
      curPage(nullptr),
      curIndex(0),
      lcid(lcid_),
      mapFlags(mapFlags_),
      spaceConversion(spaceConversion_),
      convertBuffer(nullptr),
      convertLength(0),
      convertCapacity(0) {
  // Shapes that cannot work are refused before any file is touched.
  if (order < 2) {
    reporterLL("A BTree needs an order of at least 2, not " + std::to_string(order) + " (" +
                   fileName + ").",
               "BTree::BTree", eReportError, kModule, __LINE__);
    return;
  }
  if (keyLength < 1) {
    reporterLL("A BTree needs a key length of at least 1, not " + std::to_string(keyLength) +
                   " (" + fileName + ").",
               "BTree::BTree", eReportError, kModule, __LINE__);
    return;
  }
  if (btreeRecordSize(order, static_cast<int64_t>(keyLength) + (duplicates ? 4 : 0)) < 0) {
    reporterLL("The pages of a BTree of order " + std::to_string(order) + " and key length " +
                   std::to_string(keyLength) + " are too large (" + fileName + ").",
               "BTree::BTree", eReportError, kModule, __LINE__);
    return;
  }
  pageFile = new (std::nothrow)
      BTreePageFile(fileName, order, keyLength, duplicates, lcid, mapFlags, spaceConversion);
  if (pageFile == nullptr) {
    reporterLL("Out of Memory", "BTree::BTree", eReportError, kModule, __LINE__);
    return;
  }
  if (!pageFile->ok || !readRoot(pageFile, &root)) return;
  ok = true;
}

BTree::~BTree() {
  if (inBatch()) rollbackBatch();
  delete pageFile;
  delete root;
  delete curPage;
  std::free(convertBuffer);
}

// ---------------------------------------------------------------------------------------------
// Accessors. A page file that failed to open counts as none: its header holds nothing sure.

bool BTree::isOk() { return ok; }

int32_t BTree::getVersion() {
  return pageFile != nullptr && pageFile->ok ? pageFile->hdr.version : 0;
}

int BTree::getOrder() {
  return root != nullptr ? static_cast<int>(root->order) : 0;
}

int BTree::getKeyLength() {
  if (root == nullptr || root->isPlaceholder() || pageFile == nullptr || !pageFile->ok) return -1;
  return static_cast<int>(root->keyLength) - (pageFile->hdr.duplicates != 0 ? 4 : 0);
}

bool BTree::hasDuplicates() {
  return pageFile != nullptr && pageFile->ok && pageFile->hdr.duplicates != 0;
}

bool BTree::isCompressed() {
  return pageFile != nullptr && pageFile->ok && pageFile->hdr.compressed != 0;
}

int BTree::getKeyCount() {
  return pageFile != nullptr && pageFile->ok ? pageFile->keyCount : -1;
}

bool BTree::getLCIDandMapFlags(uint32_t& lcid_, uint32_t& mapFlags_) {
  if (pageFile == nullptr || !pageFile->ok) return false;
  lcid_ = pageFile->hdr.lcid;
  mapFlags_ = pageFile->hdr.mapFlags;
  return true;
}

bool BTree::getSpaceConversion(int16_t& spaceConversion_) {
  if (pageFile == nullptr || !pageFile->ok) return false;
  spaceConversion_ = pageFile->hdr.spaceConversion;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Keys

int32_t BTree::btreeReverseLong(int32_t value) {
  if (getVersion() < kBTreeVersion2) return value;
  const uint32_t v = static_cast<uint32_t>(value);
  return static_cast<int32_t>((v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) |
                              (v << 24));
}

bool BTree::convertKey(const char* key, int length) {
  if (lcid == 0 && mapFlags == 0) return false;
  if (key == nullptr) return false;
  if (length <= 0) length = -1;
  const char* source = key;
  std::string blanksReplaced;
  if (spaceConversion == 0 && length == -1 && (mapFlags & lowlevel::platform::kNormIgnoreSymbols)) {
    blanksReplaced = key;
    for (char& c : blanksReplaced)
      if (c == ' ') c = '0';
    source = blanksReplaced.c_str();
  }
  using lowlevel::platform::lcMapString;
  int result = lcMapString(lcid, mapFlags, source, length, nullptr, 0);
  if (result > 0) {
    convertLength = result;
    if (convertLength > convertCapacity) {
      const int64_t wanted = 2 * static_cast<int64_t>(convertLength);
      const int capacity = wanted > INT32_MAX ? INT32_MAX : static_cast<int>(wanted);
      std::free(convertBuffer);
      convertBuffer = static_cast<char*>(std::malloc(static_cast<size_t>(capacity)));
      if (convertBuffer == nullptr) {
        convertCapacity = 0;
        convertLength = 0;
        reporterLL("Out of Memory", "BTree::convertKey", eReportError, kModule, __LINE__);
        return false;
      }
      convertCapacity = capacity;
    }
    result = lcMapString(lcid, mapFlags, source, length, convertBuffer, convertCapacity);
  }
  convertLength = result > 0 ? result : 0;
  if (result <= 0) {
    const int error = static_cast<int>(lowlevel::platform::lastMapError());
    // The key as it went into the mapping: a terminated text, or its given bytes up to a zero.
    const std::string shown =
        length == -1 ? std::string(source)
                     : std::string(source, strnlen(source, static_cast<size_t>(length)));
    const char* format = "Failed to convert key (LCMapString - %d).\nKey: %s\nLCID: %08X\nFlags: %08X";
    const int needed = std::snprintf(nullptr, 0, format, error, shown.c_str(), lcid, mapFlags);
    std::string message(needed > 0 ? static_cast<size_t>(needed) : 0, '\0');
    if (needed > 0)
      std::snprintf(&message[0], message.size() + 1, format, error, shown.c_str(), lcid, mapFlags);
    reporterLL(message, "BTree::convertKey", eReportError, kModule, __LINE__);
    return false;
  }
  return true;
}

void BTree::clearCurPage() {
  // The page's arrays go back to the page file, so the next lookup builds its page without
  // allocating.
  if (curPage != nullptr && pageFile != nullptr) pageFile->recycle(*curPage);
  delete curPage;
  curPage = nullptr;
  curRecordPending = false;
  curSteps = 0;
  curStepLimit = -1;
}

BTreePageKey BTree::prepareKey(const char* key, int length, int32_t value) {
  // A negative length is taken as 0: the key is a terminated text.
  if (length < 0) length = 0;
  const char* bytes = key;
  unsigned count = static_cast<unsigned>(length);
  if (convertKey(key, length)) {
    bytes = convertBuffer;
    count = static_cast<unsigned>(convertLength);
  }
  const unsigned slot = root->keyLength;
  if (pageFile->hdr.duplicates != 0) return BTreePageKey(slot, bytes, count, value);
  return BTreePageKey(slot, bytes, count);
}

// ---------------------------------------------------------------------------------------------
// Long keys: the four bytes of the number, in the order the file's version stores them.

bool BTree::insertKey(int32_t value, int32_t key) {
  char bytes[4];
  encodeLong(btreeReverseLong(key), bytes);
  return insertKey(value, bytes, 4);
}

bool BTree::replaceValue(int32_t value, int32_t key) {
  char bytes[4];
  encodeLong(btreeReverseLong(key), bytes);
  return replaceValue(value, bytes, 4);
}

bool BTree::deleteKey(int32_t key) {
  char bytes[4];
  encodeLong(btreeReverseLong(key), bytes);
  return deleteKey(bytes, 4);
}

bool BTree::deleteKey(int32_t value, int32_t key) {
  char bytes[4];
  encodeLong(btreeReverseLong(key), bytes);
  return deleteKey(value, bytes, 4);
}

bool BTree::find(int32_t& value, int32_t key) {
  char bytes[4];
  encodeLong(btreeReverseLong(key), bytes);
  return find(value, bytes, 4);
}

bool BTree::findGreaterThanOrEqual(int32_t& value, int32_t key) {
  char bytes[4];
  encodeLong(btreeReverseLong(key), bytes);
  return findGreaterThanOrEqual(value, bytes, 4);
}

bool BTree::getCurrentKey(int32_t& key) {
  char bytes[4];
  int length = 4;
  if (!getCurrentKey(bytes, length)) return false;
  key = btreeReverseLong(decodeLong(bytes));
  return true;
}
