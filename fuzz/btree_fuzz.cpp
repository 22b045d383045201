// A BTree file of arbitrary bytes: opened read-only (at offset 0 and inside a larger file) and for
// update on the same file; every read operation, then inserts, deletes and replacements.
//
// Input: one flag byte, then the file. Flag bits 0-1: 1 sets the header's compressed field, 2
// clears it (so both record forms are reached from any seed); bit 2 picks number keys for the
// changes; bits 3-7 seed the keys changed. A cursor walk that visits more entries than the file
// could hold is a finding (it would loop for ever in a caller's while (next()) loop).
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "lowlevel/btree/btree.h"

namespace {

void noteKey(int32_t, const char*, int) {}

std::string writeTemp(const char* prefix, const std::string& bytes, size_t pad) {
  std::string pattern = std::string("/tmp/lowlevel-fuzz-") + prefix + "-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  int fd = mkstemp(name.data());
  if (fd < 0) return std::string();
  std::string all = std::string(pad, 'x') + bytes;
  bool good = write(fd, all.data(), all.size()) == static_cast<ssize_t>(all.size());
  close(fd);
  if (!good) {
    unlink(name.data());
    return std::string();
  }
  return name.data();
}

// Walks both ways; a walk longer than `bound` entries never ends by itself.
void walks(BTree& tree, size_t bound) {
  int32_t value = 0;
  size_t steps = 0;
  for (bool more = tree.first(value); more; more = tree.next(value)) {
    char key[64];
    int length = sizeof key;
    tree.getCurrentKey(key, length);
    int depth, index;
    if (steps < 50) tree.getCurrentKeyDepthAndIndex(depth, index);
    if (++steps > bound) __builtin_trap();
  }
  steps = 0;
  for (bool more = tree.last(value); more; more = tree.prev(value))
    if (++steps > bound) __builtin_trap();
}

// No file holds more entries than it has bytes: a record of any form is larger than its keys.
void readAll(BTree& tree, const std::string& path) {
  if (!tree.isOk()) return;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return;
  walks(tree, static_cast<size_t>(st.st_size) + 64);
  int32_t value = 0;
  tree.find(value, "key", 0);
  tree.findGreaterThanOrEqual(value, "k", 0);
  for (int i = 0; i < 3 && tree.next(value); ++i) {
  }
  tree.find(value, 7);
  tree.findGreaterThanOrEqual(value, 0x10);
  for (int i = 0; i < 3 && tree.prev(value); ++i) {
  }
  int32_t number;
  tree.getCurrentKey(number);
  tree.depth();
  tree.inOrder(noteKey);
  int32_t keys, pages, backward;
  tree.test(false, &keys, &pages, &backward);
  tree.test(true, nullptr, nullptr, nullptr);
  uint32_t lcid, flags;
  int16_t space;
  tree.getLCIDandMapFlags(lcid, flags);
  tree.getSpaceConversion(space);
  tree.getOrder();
  tree.getKeyCount();
}

void change(BTree& tree, unsigned flags) {
  const bool numbers = (flags & 4) != 0;
  const int32_t seed = static_cast<int32_t>(flags >> 3);
  for (int32_t i = 0; i < 16; ++i) {
    int32_t k = (i * 7919 + seed * 31) % 97;
    char key[8];
    std::snprintf(key, sizeof key, "k%03d", k);
    if (numbers) tree.insertKey(i, k);
    else tree.insertKey(i, key, 0);
  }
  for (int32_t i = 0; i < 16; i += 2) {
    int32_t k = (i * 7919 + seed * 31) % 97;
    char key[8];
    std::snprintf(key, sizeof key, "k%03d", k);
    if (tree.hasDuplicates()) {
      if (numbers) tree.deleteKey(i, k);
      else tree.deleteKey(i, key, 0);
    } else {
      if (numbers) tree.deleteKey(k);
      else tree.deleteKey(key, 0);
    }
  }
  tree.replaceValue(2, "k001", 0);
  tree.replaceValue(3, 5);
  int32_t value;
  if (tree.first(value)) {  // deleting what a walk of the damaged file shows
    char key[64];
    int length = sizeof key;
    if (tree.getCurrentKey(key, length)) tree.deleteKey(value, key, length);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const unsigned flags = data[0];
  std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (bytes.size() >= 24 && (flags & 3) == 1) {
    bytes[22] = 1;
    bytes[23] = 0;
  } else if (bytes.size() >= 24 && (flags & 3) == 2) {
    bytes[22] = 0;
    bytes[23] = 0;
  }
  std::string plain = writeTemp("plain", bytes, 0);
  std::string embedded = writeTemp("embedded", bytes, 1000);
  if (!plain.empty() && !embedded.empty()) {
    {
      BTree tree(plain, true, 0);
      readAll(tree, plain);
    }
    {
      BTree tree(embedded, true, 1000);
      readAll(tree, embedded);
    }
    {
      BTree tree(plain, false, 0);
      if (tree.isOk()) {
        change(tree, flags);
        readAll(tree, plain);
      }
    }
    {
      BTree tree(plain, true, 0);  // what the update left behind, as written by the destructor
      readAll(tree, plain);
    }
  }
  if (!plain.empty()) unlink(plain.c_str());
  if (!embedded.empty()) unlink(embedded.c_str());
  return 0;
}
