// Test-only access to the insides of a BTree, a checker that walks a whole tree on disk, and
// hand-built files of records. Included by the BTree module's tests only.
#ifndef LOWLEVEL_BTREE_BTREE_TESTING_H
#define LOWLEVEL_BTREE_BTREE_TESTING_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "tests/testsupport/testing.h"

struct BTreeTestAccess {
  static BTreePageFile* pageFile(BTree& t) { return t.pageFile; }
  static BTreePage* root(BTree& t) { return t.root; }
  static BTreePage* curPage(BTree& t) { return t.curPage; }
  static uint32_t curIndex(BTree& t) { return t.curIndex; }
  static char* convertBuffer(BTree& t) { return t.convertBuffer; }
  static int convertLength(BTree& t) { return t.convertLength; }
  static int convertCapacity(BTree& t) { return t.convertCapacity; }
  static void setConversion(BTree& t, uint32_t lcid, uint32_t mapFlags, int16_t space) {
    t.lcid = lcid;
    t.mapFlags = mapFlags;
    t.spaceConversion = space;
  }
  static bool convertKey(BTree& t, const char* key, int length) { return t.convertKey(key, length); }
  static BTreePageKey prepareKey(BTree& t, const char* key, int length, int32_t value) {
    return t.prepareKey(key, length, value);
  }

  // The slot bytes of a key as a string (empty for the empty key).
  static std::string bytes(const BTreePageKey& key) {
    return key.data == nullptr ? std::string()
                               : std::string(reinterpret_cast<const char*>(key.data), key.size);
  }

  // Walks the tree on disk from its root and checks what every sound tree keeps: each page reads,
  // each child names its parent, keys ascend across the whole tree, leaves lie at one depth with
  // -1 children, interior pages have children 0..keyCount and -1 behind, unused slots are empty,
  // every page but the root holds at least minKeys keys (unless `relaxed`), and the keys add up to
  // the page file's keyCount. Returns "" when all hold, else what broke first; `pages` receives
  // the number of pages reached. Bounded by the records the file can hold.
  static std::string checkTree(BTree& t, bool relaxed = false, int32_t* pages = nullptr) {
    BTreePageFile* pf = t.pageFile;
    BTreePage rootPage(0, 0);
    if (pf == nullptr || !pf->ok || !pf->readPage(pf->hdr.rootOffset, rootPage)) return "no root";
    if (rootPage.parentOffset != -1) return "root has a parent";
    Walk walk(pf, pf->recordLimit(), relaxed);
    std::string problem = walk.visit(rootPage, 0, true);
    if (pages != nullptr) *pages = walk.pages;
    if (problem.empty() && walk.keys != pf->keyCount) problem = "keyCount differs from the keys";
    return problem;
  }

 private:
  struct Walk {
    Walk(BTreePageFile* f, int64_t l, bool r) : pf(f), limit(l), relaxed(r) {}
    BTreePageFile* pf;
    int64_t limit;
    bool relaxed;
    int32_t keys = 0, pages = 0;
    int leafDepth = -1;
    std::string previous;

    std::string visit(const BTreePage& page, int depth, bool isRoot) {
      if (++pages > limit) return "more pages than the file can hold";
      const std::string at = " (page " + std::to_string(page.offset) + ")";
      if (page.keyCount > page.maxKeys) return "keyCount above maxKeys" + at;
      if (!isRoot && !relaxed && page.keyCount < page.minKeys) return "page under minKeys" + at;
      for (uint32_t i = page.keyCount; i < page.maxKeys; ++i)
        if (page.keys[i].data != nullptr) return "unused slot holds a key" + at;
      const bool leaf = page.children[0] == -1;
      for (uint32_t i = 0; i < page.order; ++i)
        if ((!leaf && i <= page.keyCount) == (page.children[i] == -1)) return "children do not match the keys" + at;
      if (leaf && leafDepth == -1) leafDepth = depth;
      if (leaf && leafDepth != depth) return "leaves at different depths" + at;
      keys += static_cast<int32_t>(page.keyCount);
      for (uint32_t i = 0; i <= page.keyCount; ++i) {
        BTreePage child(0, 0);
        if (!leaf && !pf->readPage(page.children[i], child)) return "a child does not read" + at;
        if (!leaf && child.parentOffset != page.offset) return "child names another parent" + at;
        std::string problem = leaf ? "" : visit(child, depth + 1, false);
        if (!problem.empty()) return problem;
        if (i == page.keyCount) break;
        std::string key = bytes(page.keys[i]);
        if (key.size() != page.keyLength) return "key of wrong size" + at;
        if (!previous.empty() && !(previous < key)) return "keys out of order" + at;
        previous = key;
      }
      return "";
    }
  };
};

namespace btreetest {

using Entry = std::pair<std::string, int32_t>;  // the key as getCurrentKey gives it, and its value

// Every entry by the cursor, forward (first/next) or backward (last/prev). A walk that does not end
// within `limit` steps is cut off, so a looping cursor shows as a wrong result, not a hang.
inline std::vector<Entry> walk(BTree& tree, bool backward, size_t limit = 100000) {
  std::vector<Entry> out;
  int32_t value = 0;
  for (bool more = backward ? tree.last(value) : tree.first(value); more && out.size() < limit;
       more = backward ? tree.prev(value) : tree.next(value)) {
    std::string key(static_cast<size_t>(tree.getKeyLength()), '\0');
    int length = static_cast<int>(key.size());
    if (!tree.getCurrentKey(&key[0], length)) break;
    out.emplace_back(key.substr(0, static_cast<size_t>(length)), value);
  }
  return out;
}

// Checks a tree against the entries it must hold, in order: its count, walks from both ends, its
// own test() with the count it finds, and the pages on disk (checkTree, under-full pages allowed
// when `relaxed`; skipped without `pages`, for trees laid out another way). "" when all agree.
inline std::string checkModel(BTree& tree, const std::vector<Entry>& expected, bool relaxed,
                              bool pages = true) {
  const int32_t n = static_cast<int32_t>(expected.size());
  if (tree.getKeyCount() != n) return "getKeyCount " + std::to_string(tree.getKeyCount());
  std::string problem = pages ? BTreeTestAccess::checkTree(tree, relaxed) : "";
  if (!problem.empty()) return problem;
  int32_t keys = -1;
  if (!tree.test(relaxed, &keys, nullptr, nullptr) || keys != n) return "test() fails or counts " + std::to_string(keys);
  if (walk(tree, false, expected.size() + 1) != expected) return "forward walk differs";
  std::vector<Entry> backward = walk(tree, true, expected.size() + 1);
  std::reverse(backward.begin(), backward.end());
  return backward == expected ? "" : "backward walk differs";
}

// Creates a tree at `path` holding `entries` (keys by their exact bytes).
inline bool makeTree(const std::string& path, int order, int width, bool duplicates,
                     const std::vector<Entry>& entries) {
  BTree tree(path, order, width, duplicates, 0, 0, 0);
  bool ok = tree.isOk();
  for (const Entry& e : entries) ok = ok && tree.insertKey(e.second, e.first.data(), static_cast<int>(e.first.size()));
  return ok;
}

inline std::string be4(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8), static_cast<char>(v)};
}
inline std::string le4(int32_t v) {
  const uint32_t u = static_cast<uint32_t>(v);
  return {static_cast<char>(u), static_cast<char>(u >> 8), static_cast<char>(u >> 16), static_cast<char>(u >> 24)};
}
inline int32_t field(const std::string& file, size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(file.at(at + i));
  return static_cast<int32_t>(v);
}
inline std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : bytes) out += {digits[c >> 4], digits[c & 15], ' '};
  return out;
}

// Hand-built files of trees. A record's `parent` and `kids` are record numbers (-1: none); record
// n lies at 46 + n x record size. rec() makes key k (4-byte slot 00 00 00 k) with value 100 + k.
struct Slot {
  std::string bytes;  // the whole slot, value tail included
  int32_t value;
};
struct Rec {
  int parent;
  std::vector<Slot> entries;
  std::vector<int> kids;
};
inline Rec rec(int parent, std::vector<int> keys, std::vector<int> kids = {}) {
  Rec r{parent, {}, std::move(kids)};
  for (int k : keys) r.entries.push_back({be4(static_cast<uint32_t>(k)), 100 + k});
  return r;
}

struct Shape {
  int order;
  int slot;  // slot width
  int32_t recordSize() const { return 28 + (order - 1) * (slot + 4) + order * 4; }
  int32_t at(int n) const { return n < 0 ? -1 : 46 + n * recordSize(); }

  // The exact bytes of record `self`.
  std::string encode(int self, const Rec& r) const {
    const size_t n = r.entries.size(), keys = static_cast<size_t>(order - 1);
    std::string out = le4(at(self)) + le4(at(r.parent)) + le4(order) + le4(order - 1) +
                      le4(order >> 1) + le4(static_cast<int32_t>(n)) + le4(slot);
    for (size_t i = 0; i < keys; ++i) out += i < n ? r.entries[i].bytes : std::string(static_cast<size_t>(slot), '\0');
    for (size_t i = 0; i < keys; ++i) out += le4(i < n ? r.entries[i].value : 0);
    for (size_t i = 0; i <= keys; ++i) out += le4(i < r.kids.size() ? at(r.kids[i]) : -1);
    return out;
  }

  // Writes a file of these records, record n at its place, under the header of a new tree of
  // this shape with the keyCount their sum and the root at `rootRecord`.
  void build(const std::string& path, const std::vector<Rec>& recs, int rootRecord, bool duplicates = false) const {
    { BTreePageFile pf(path, order, duplicates ? slot - 4 : slot, duplicates, 0, 0, 0); }
    std::string file = lltest::readFile(path).substr(0, 46);
    int32_t total = 0;
    for (size_t n = 0; n < recs.size(); ++n) {
      file += encode(static_cast<int>(n), recs[n]);
      total += static_cast<int32_t>(recs[n].entries.size());
    }
    lltest::writeFile(path, file.replace(24, 8, le4(total) + le4(at(rootRecord))));
  }
};

// Runs steps given as words and answers each, joined by spaces: F first, L last, N next, P prev,
// f<k> find and g<k> findGreaterThanOrEqual of the long key k (the value reached or "-"); K the
// current long key ("-" without one), D depth and index ("d,i" or "-"), I the index in the current
// page, C whether a cursor remains ("c"/"x"), R whether it stands on the root ("r"/"x"); +<k>
// inserts the long key k with the value 100 + k, -<k> deletes it, =<k> gives it the value -k, O
// runs inOrder ("+" or "-"); H the depth, W<0|1> the length of a walk forward|backward, T<0|1>
// the strict|relaxed test() as "ok:keys/pages/backward links".
inline std::string steps(BTree& tree, const std::string& words) {
  std::string out;
  for (size_t at = 0, end; at < words.size(); at = end + 1) {
    end = std::min(words.find(' ', at), words.size());
    const char step = words[at];
    const int32_t arg = end > at + 1 ? static_cast<int32_t>(std::stol(words.substr(at + 1, end - at - 1))) : 0;
    int32_t v = 0;
    int depth = -1, index = -1;
    const BTreePage* cur = BTreeTestAccess::curPage(tree);
    bool ok = step == 'F' ? tree.first(v) : step == 'L' ? tree.last(v) : step == 'N' ? tree.next(v)
            : step == 'P' ? tree.prev(v) : step == 'f' ? tree.find(v, arg)
            : step == 'g' ? tree.findGreaterThanOrEqual(v, arg) : step == '+' ? tree.insertKey(100 + arg, arg)
            : step == '-' ? tree.deleteKey(arg)
            : step == '=' ? tree.replaceValue(-arg, arg) : step == 'O' ? tree.inOrder([](int32_t, const char*, int) {})
            : step == 'K' && tree.getCurrentKey(v);
    std::string answer = ok ? (std::strchr("+-=O", step) ? "+" : std::to_string(v)) : "-";
    int32_t keys = -1, pages = -1, links = -1;
    if (step == 'T') answer = std::to_string(tree.test(arg != 0, &keys, &pages, &links));
    if (step == 'T') answer += ":" + std::to_string(keys) + "/" + std::to_string(pages) + "/" + std::to_string(links);
    if (step == 'H') answer = std::to_string(tree.depth());
    if (step == 'W') answer = std::to_string(walk(tree, arg != 0).size());
    if (step == 'D' && tree.getCurrentKeyDepthAndIndex(depth, index))
      answer = std::to_string(depth) + "," + std::to_string(index);
    if (step == 'I' && cur) answer = std::to_string(BTreeTestAccess::curIndex(tree));
    if (step == 'C') answer = cur ? "c" : "x";
    if (step == 'R') answer = cur && cur->offset == BTreeTestAccess::root(tree)->offset ? "r" : "x";
    out += (out.empty() ? "" : " ") + answer;
  }
  return out;
}

}  // namespace btreetest

#endif
