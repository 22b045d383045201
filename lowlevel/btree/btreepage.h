// Keys and pages in memory. Internal to the BTree module.
//
// BTreePageKey is one key slot; BTreePage is the image of one page record. Both own their buffers
// and copy them deeply: tree operations work on local copies of pages, never on shared ones.
#ifndef LOWLEVEL_BTREE_BTREEPAGE_H
#define LOWLEVEL_BTREE_BTREEPAGE_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

class BTreePageKey {
 public:
  // The empty key (data null, length 0, size 0): the mark of an unused slot. Never compared.
  BTreePageKey();
  // A slot of `size` bytes holding `key`: `length` bytes (0: the length of `key` as a terminated
  // text), cut to `size`, padded with zero bytes.
  BTreePageKey(unsigned size, const void* key, unsigned length);
  // The same for a tree with duplicates: the key gets size - 4 bytes at most, and the last four
  // bytes of the slot hold `value` big-endian. `length` does not count the tail.
  BTreePageKey(unsigned size, const void* key, unsigned length, int32_t value);
  // When a buffer cannot be allocated, the constructors and the assignment report "Out of Memory"
  // and leave the empty key. A slot narrower than 4 bytes keeps no tail and no key bytes.
  BTreePageKey(const BTreePageKey& other);
  // Frees this key's buffer, then copies (assigning the empty key empties the slot).
  BTreePageKey& operator=(const BTreePageKey& other) {
    // Most assignments move keys between slots of one width: the buffer stays, the bytes move.
    if (data != nullptr && other.data != nullptr && size == other.size && this != &other) {
      length = other.length;
      copyBytes(data, other.data, size);
      return *this;
    }
    return assignFrom(other);
  }
  ~BTreePageKey() { release(); }

  // Unsigned bytewise comparison over this key's size: negative when this key sorts first (-1, 0
  // or 1). Keys of different sizes compare over the shorter size, then the shorter sorts first.
  int compare(const BTreePageKey& other) const;

  // Makes this key a buffer of `size` bytes (reusing the one it has when that is big enough) and
  // returns it, or null when it cannot be allocated (the key is then empty). The bytes are
  // undefined; `length` is set to `size`.
  unsigned char* resize(unsigned size);
  // Makes this key a copy of the `size` bytes at `bytes` (length = size), reusing its buffer when
  // the width is the same. False when no buffer can be had: the key is then empty.
  bool assign(const unsigned char* bytes, unsigned size) {
    if (data == nullptr && size != 0 && size <= kSmallSize) {
      data = small;  // what resize gives an empty key of this width, without the call
      this->size = size;
    } else if (data == nullptr || this->size != size || size == 0) {
      if (resize(size) == nullptr) return false;
    }
    length = size;
    copyBytes(data, bytes, size);
    return true;
  }
  // Copies `n` bytes that do not overlap. Keys are short and of one width per tree: a few
  // overlapping word copies beat a call of memcpy, and nothing is touched past either end.
  static void copyBytes(unsigned char* to, const unsigned char* from, unsigned n) {
    if (n > 32) {
      std::memcpy(to, from, n);
    } else if (n >= 16) {
      unsigned char head[16], tail[16];
      std::memcpy(head, from, 16);
      std::memcpy(tail, from + n - 16, 16);
      std::memcpy(to, head, 16);
      std::memcpy(to + n - 16, tail, 16);
    } else if (n >= 8) {
      uint64_t head, tail;
      std::memcpy(&head, from, 8);
      std::memcpy(&tail, from + n - 8, 8);
      std::memcpy(to, &head, 8);
      std::memcpy(to + n - 8, &tail, 8);
    } else if (n >= 4) {
      uint32_t head, tail;
      std::memcpy(&head, from, 4);
      std::memcpy(&tail, from + n - 4, 4);
      std::memcpy(to, &head, 4);
      std::memcpy(to + n - 4, &tail, 4);
    } else {
      for (unsigned i = 0; i < n; ++i) to[i] = from[i];
    }
  }
  // Makes this the empty key.
  void clear() {
    release();
    length = 0;
    size = 0;
  }

  unsigned char* data;
  uint32_t length;  // key bytes given, after cutting; no decision rests on it
  uint32_t size;    // the slot width, value tail included

 private:
  // Keys up to this width live inside the object, so building, copying and reading a page of
  // such keys allocates nothing per key. `data` then points at `small`; wider keys get a heap
  // buffer. Either way `data` is owned by this key and never shared.
  static constexpr unsigned kSmallSize = 32;
  unsigned char* allocate(unsigned bytes);
  BTreePageKey& assignFrom(const BTreePageKey& other);
  void release() {
    if (data != small && data != nullptr) std::free(data);
    data = nullptr;
  }
  unsigned char small[kSmallSize];
};

class BTreePage {
 public:
  // An empty page of `order` (order 0 builds the placeholder, which exists only to be assigned to:
  // its arrays are null and maxKeys must not be used as a count).
  // When an array cannot be allocated ("Out of Memory" is reported) the page is left a placeholder
  // with order, maxKeys, keyCount and keyLength 0: isPlaceholder() tells, and every page write
  // refuses it. Copying or assigning from a placeholder gives a placeholder and allocates nothing.
  BTreePage(unsigned order, unsigned keyLength);
  BTreePage(const BTreePage& other);
  // Rebuilds the arrays at the source's sizes, so a placeholder or a page of another order becomes
  // a full copy. Assigning a page to itself changes nothing.
  BTreePage& operator=(const BTreePage& other);
  ~BTreePage();

  bool isPlaceholder() const { return keys == nullptr; }
  // Exchanges the whole content of two pages (head fields and arrays) without copying a key.
  void swap(BTreePage& other);

  int32_t offset;        // own logical offset; -1 until placed in the file
  int32_t parentOffset;  // -1 in the root
  uint32_t order;
  uint32_t maxKeys;      // order - 1
  uint32_t minKeys;      // order >> 1
  uint32_t keyCount;
  uint32_t keyLength;    // slot width
  BTreePageKey* keys;    // maxKeys entries
  int32_t* values;       // maxKeys entries
  int32_t* children;     // order entries

 private:
  void allocate();  // builds the three arrays for order and maxKeys
  void release();
};

#endif
