// Keys and pages in memory: deep-copying value classes.
#include "lowlevel/btree/btreepage.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "lowlevel/support/support.h"

namespace {

const char kModule[] = "btree";

// The bytes of a key given as (key, length): length 0 means a terminated text; a null key has none.
unsigned givenLength(const void* key, unsigned length) {
  if (key == nullptr) return 0;
  if (length == 0) return static_cast<unsigned>(std::strlen(static_cast<const char*>(key)));
  return length;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// BTreePageKey

BTreePageKey::BTreePageKey() : data(nullptr), length(0), size(0) {}

unsigned char* BTreePageKey::allocate(unsigned bytes) {
  if (bytes <= kSmallSize) return small;
  return static_cast<unsigned char*>(std::malloc(bytes));
}

unsigned char* BTreePageKey::resize(unsigned size_) {
  // A buffer of the same width is reused; any other is given back first.
  if (data == nullptr || size != size_) {
    release();
    data = allocate(size_ ? size_ : 1);
  }
  if (data == nullptr) {
    length = 0;
    size = 0;
    return nullptr;
  }
  length = size_;
  size = size_;
  return data;
}

BTreePageKey::BTreePageKey(unsigned size_, const void* key, unsigned length_)
    : data(nullptr), length(0), size(size_) {
  data = allocate(size ? size : 1);
  if (data == nullptr) {
    // Left as the empty key: a slot that was never filled.
    reporterLL("Out of Memory", "BTreePageKey::BTreePageKey", eReportError, kModule, __LINE__);
    size = 0;
    return;
  }
  unsigned n = givenLength(key, length_);
  if (n > size) n = size;
  length = n;
  if (n > 0) std::memcpy(data, key, n);
  if (size > n) std::memset(data + n, 0, size - n);
}

BTreePageKey::BTreePageKey(unsigned size_, const void* key, unsigned length_, int32_t value)
    : data(nullptr), length(0), size(size_) {
  data = allocate(size ? size : 1);
  if (data == nullptr) {
    reporterLL("Out of Memory", "BTreePageKey::BTreePageKey", eReportError, kModule, __LINE__);
    size = 0;
    return;
  }
  // A slot narrower than the tail has no room for key bytes and keeps only zeros.
  const unsigned room = size >= 4 ? size - 4 : 0;
  unsigned n = givenLength(key, length_);
  if (n > room) n = room;
  length = n;
  if (n > 0) std::memcpy(data, key, n);
  if (size > n) std::memset(data + n, 0, size - n);
  if (size >= 4) {
    const uint32_t v = static_cast<uint32_t>(value);
    data[room] = static_cast<unsigned char>(v >> 24);
    data[room + 1] = static_cast<unsigned char>(v >> 16);
    data[room + 2] = static_cast<unsigned char>(v >> 8);
    data[room + 3] = static_cast<unsigned char>(v);
  }
}

BTreePageKey::BTreePageKey(const BTreePageKey& other)
    : data(nullptr), length(other.length), size(other.size) {
  if (other.data == nullptr) return;
  data = allocate(size ? size : 1);
  if (data == nullptr) {
    reporterLL("Out of Memory", "BTreePageKey::BTreePageKey", eReportError, kModule, __LINE__);
    length = 0;
    size = 0;
    return;
  }
  if (size > 0) std::memcpy(data, other.data, size);
}

BTreePageKey& BTreePageKey::assignFrom(const BTreePageKey& other) {
  if (this == &other) return *this;
  if (other.data == nullptr) {
    clear();
    return *this;
  }
  // The same outcome as freeing and copying, but a buffer of the right width is kept.
  if (data == nullptr || size != other.size) {
    release();
    data = allocate(other.size ? other.size : 1);
    if (data == nullptr) {
      reporterLL("Out of Memory", "BTreePageKey::operator =", eReportError, kModule, __LINE__);
      length = 0;
      size = 0;
      return *this;
    }
  }
  length = other.length;
  size = other.size;
  if (size > 0) std::memcpy(data, other.data, size);
  return *this;
}

int BTreePageKey::compare(const BTreePageKey& other) const {
  // All keys of one tree have one size; the shorter size bounds the comparison so that a stray
  // key of another width can never be read past its end.
  const uint32_t n = size < other.size ? size : other.size;
  if (n > 0) {
    const int c = std::memcmp(data, other.data, n);
    if (c != 0) return c < 0 ? -1 : 1;
  }
  if (size == other.size) return 0;
  return size < other.size ? -1 : 1;
}

// ---------------------------------------------------------------------------------------------
// BTreePage

BTreePage::BTreePage(unsigned order_, unsigned keyLength_)
    : offset(-1),
      parentOffset(-1),
      order(order_),
      maxKeys(order_ - 1),
      minKeys(order_ >> 1),
      keyCount(0),
      keyLength(order_ == 0 ? 0 : keyLength_),
      keys(nullptr),
      values(nullptr),
      children(nullptr) {
  if (order > 0) allocate();
}

BTreePage::BTreePage(const BTreePage& other)
    : offset(other.offset),
      parentOffset(other.parentOffset),
      order(other.order),
      maxKeys(other.maxKeys),
      minKeys(other.minKeys),
      keyCount(other.keyCount),
      keyLength(other.keyLength),
      keys(nullptr),
      values(nullptr),
      children(nullptr) {
  if (other.isPlaceholder()) return;  // its maxKeys is no count: nothing to build
  allocate();
  if (isPlaceholder()) return;
  for (uint32_t i = 0; i < maxKeys; ++i) keys[i] = other.keys[i];
  std::memcpy(values, other.values, sizeof(int32_t) * maxKeys);
  std::memcpy(children, other.children, sizeof(int32_t) * order);
}

BTreePage& BTreePage::operator=(const BTreePage& other) {
  if (this == &other) return *this;
  release();
  offset = other.offset;
  parentOffset = other.parentOffset;
  order = other.order;
  maxKeys = other.maxKeys;
  minKeys = other.minKeys;
  keyCount = other.keyCount;
  keyLength = other.keyLength;
  if (other.isPlaceholder()) return *this;
  allocate();
  if (isPlaceholder()) return *this;
  for (uint32_t i = 0; i < maxKeys; ++i) keys[i] = other.keys[i];
  std::memcpy(values, other.values, sizeof(int32_t) * maxKeys);
  std::memcpy(children, other.children, sizeof(int32_t) * order);
  return *this;
}

BTreePage::~BTreePage() { release(); }

void BTreePage::swap(BTreePage& other) {
  std::swap(offset, other.offset);
  std::swap(parentOffset, other.parentOffset);
  std::swap(order, other.order);
  std::swap(maxKeys, other.maxKeys);
  std::swap(minKeys, other.minKeys);
  std::swap(keyCount, other.keyCount);
  std::swap(keyLength, other.keyLength);
  std::swap(keys, other.keys);
  std::swap(values, other.values);
  std::swap(children, other.children);
}

void BTreePage::allocate() {
  // maxKeys follows from order here, so a page can never hold arrays shorter than its counts.
  maxKeys = order - 1;
  keys = new (std::nothrow) BTreePageKey[maxKeys];
  if (keys == nullptr)
    reporterLL("Out of Memory", "BTreePage::BTreePage", eReportError, kModule, __LINE__);
  values = static_cast<int32_t*>(std::malloc(sizeof(int32_t) * (static_cast<size_t>(maxKeys) + 1)));
  if (values == nullptr)
    reporterLL("Out of Memory", "BTreePage::BTreePage", eReportError, kModule, __LINE__);
  children = static_cast<int32_t*>(std::malloc(sizeof(int32_t) * static_cast<size_t>(order)));
  if (children == nullptr)
    reporterLL("Out of Memory", "BTreePage::BTreePage", eReportError, kModule, __LINE__);
  if (keys == nullptr || values == nullptr || children == nullptr) {
    // Unusable: the page becomes an empty placeholder of order 0 with no slots at all, which
    // every page write refuses and no loop over maxKeys or order can run over.
    release();
    order = 0;
    maxKeys = 0;
    minKeys = 0;
    keyCount = 0;
    keyLength = 0;
    return;
  }
  for (uint32_t i = 0; i < maxKeys; ++i) values[i] = 0;
  for (uint32_t i = 0; i < order; ++i) children[i] = -1;
}

void BTreePage::release() {
  delete[] keys;
  std::free(values);
  std::free(children);
  keys = nullptr;
  values = nullptr;
  children = nullptr;
}
