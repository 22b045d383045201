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
  BTreePageKey& operator=(const BTreePageKey& other);
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
    if (data == nullptr || this->size != size || size == 0) {
      if (resize(size) == nullptr) return false;
    }
    length = size;
    // Keys are short and of one width per tree: eight bytes at a time beats a call of memcpy.
    unsigned i = 0;
    for (; i + 8 <= size; i += 8) std::memcpy(data + i, bytes + i, 8);
    for (; i < size; ++i) data[i] = bytes[i];
    return true;
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
