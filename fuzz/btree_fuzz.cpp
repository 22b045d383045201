// A BTree file of arbitrary bytes: opened read-only (at offset 0 and inside a larger file) and for
// update on a copy; every read operation, then inserts and deletes.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "lowlevel/btree/btree.h"

namespace {

void noteKey(int32_t, const char*, int) {}

std::string writeTemp(const std::string& prefix, const uint8_t* data, size_t size) {
  std::string pattern = "/tmp/lowlevel-fuzz-" + prefix + "-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  int fd = mkstemp(name.data());
  if (fd < 0) return std::string();
  if (prefix == "embedded") {
    std::string pad(1000, 'x');
    if (write(fd, pad.data(), pad.size()) != 1000) {}
  }
  if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) {}
  close(fd);
  return name.data();
}

void readAll(BTree& tree) {
  if (!tree.isOk()) return;
  int32_t value = 0;
  int steps = 0;
  for (bool more = tree.first(value); more && steps < 10000; more = tree.next(value)) {
    char key[64];
    int length = sizeof key;
    tree.getCurrentKey(key, length);
    int depth, index;
    tree.getCurrentKeyDepthAndIndex(depth, index);
    ++steps;
  }
  steps = 0;
  for (bool more = tree.last(value); more && steps < 10000; more = tree.prev(value)) ++steps;
  tree.find(value, "key", 0);
  tree.findGreaterThanOrEqual(value, "k", 0);
  tree.find(value, 7);
  tree.depth();
  tree.inOrder(noteKey);
  int32_t keys, pages, backward;
  tree.test(false, &keys, &pages, &backward);
  tree.test(true, nullptr, nullptr, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string plain = writeTemp("plain", data, size);
  std::string embedded = writeTemp("embedded", data, size);
  if (plain.empty() || embedded.empty()) return 0;
  {
    BTree tree(plain, true, 0);
    readAll(tree);
  }
  {
    BTree tree(embedded, true, 1000);
    readAll(tree);
  }
  {
    BTree tree(plain, false, 0);
    if (tree.isOk()) {
      for (int32_t i = 0; i < 20; ++i) tree.insertKey(i, i * 7919);
      for (int32_t i = 0; i < 20; i += 2) tree.deleteKey(i * 7919);
      tree.insertKey(1, "abc", 0);
      tree.replaceValue(2, "abc", 0);
      tree.deleteKey(1, "abc", 0);
      readAll(tree);
    }
  }
  unlink(plain.c_str());
  unlink(embedded.c_str());
  return 0;
}
