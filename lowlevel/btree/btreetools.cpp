// Copies of a finished tree: the compressed read-only form, the depth-first ordered form and the
// repacked form. The source is always opened read-only and never written.
//
// Copying by the page: the root goes to the target's first record, then copyChildPages writes every
// page before its children and finishes each subtree before the next, remembering in a map where
// each source page went. The copied records still hold source offsets in their links; a last pass
// replaces them through the map.
#include "lowlevel/btree/btreetools.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreepage.h"
#include "lowlevel/btree/btreepagefile.h"
#include "lowlevel/files/file.h"
#include "lowlevel/platform/io.h"
#include "lowlevel/support/support.h"

bool copyChildPages(BTree& source, BTree& target, const BTreePage& page,
                    std::map<int32_t, int32_t>& offsetMap);
bool buildPage(BTree& source, BTree& target, int keys, int order, BTreePage& page);
bool nextSourceKey(BTree& source, BTreePageKey& key, int32_t& value);

namespace {

const char kModule[] = "btree";
// Stored key lengths are signed 16-bit numbers in a compressed record.
const int kMaxCompressedKeyWidth = 32767;
// Below this width (the caller's, without a value tail) the table costs about what trimming saves.
const int kMinCompressedKeyWidth = 16;
// The cursor hands keys over through a buffer of this size; a wider key cannot be repacked.
const int kKeyBufferSize = 1024;

// True when both names lead to one existing file. Writing the target would truncate the source,
// so every tool refuses this before the target is created.
bool sameFiles(const std::string& sourceName, const std::string& targetName,
               const char* function) {
  std::string source = sourceName;
  std::string target = targetName;
  if (!ZFile::ResolvePath(source, false, false) || !ZFile::ResolvePath(target, false, false)) {
    return false;  // an unresolved target cannot be created anyway
  }
  if (!lowlevel::platform::sameFile(source.c_str(), target.c_str())) return false;
  reporterLL("Source and target are the same file (" + targetName + ").", function, eReportError,
             kModule, __LINE__);
  return true;
}

// The target's slot width as the creating constructor wants it: without the value tail.
int callerWidth(const BTreePageFileHdr& hdr) {
  return hdr.duplicates != 0 ? hdr.keyLength - 4 : hdr.keyLength;
}

// Looks `offset` up in the map; false when the source's link led to a page that was not copied.
bool mapped(const std::map<int32_t, int32_t>& offsetMap, int32_t& offset) {
  auto it = offsetMap.find(offset);
  if (it == offsetMap.end()) return false;
  offset = it->second;
  return true;
}

// Replaces the source offsets in the links of `page` by those of the copies.
bool relink(const std::map<int32_t, int32_t>& offsetMap, BTreePage& page) {
  if (page.parentOffset != -1 && !mapped(offsetMap, page.parentOffset)) return false;
  for (uint32_t i = 0; i < page.order && page.children[i] != -1; ++i) {
    if (!mapped(offsetMap, page.children[i])) return false;
  }
  return true;
}

// Writes a copy of the source's root in the place of the target's empty root and copies all pages
// below it. On return the map holds every page copied.
bool copyTree(BTree& source, const BTreePage& sourceRoot, BTree& target, BTreePageFile& targetFile,
              BTreePage& rootCopy, std::map<int32_t, int32_t>& offsetMap) {
  rootCopy = sourceRoot;
  rootCopy.offset = targetFile.hdr.rootOffset;
  if (!targetFile.writePage(rootCopy, false)) return false;
  offsetMap[sourceRoot.offset] = rootCopy.offset;
  return copyChildPages(source, target, rootCopy, offsetMap);
}

}  // namespace

// Depth-first, each page before its children. An explicit stack takes the place of recursion, so a
// deep corrupt chain of links cannot exhaust the call stack, and a page that is reached a second
// time (a cycle or a shared child in a corrupt source) ends the copy with false. So the work is
// bounded by the pages that the source file holds.
bool copyChildPages(BTree& source, BTree& target, const BTreePage& page,
                    std::map<int32_t, int32_t>& offsetMap) {
  struct Level {
    const BTreePage* page;
    uint32_t next;
  };
  std::vector<std::unique_ptr<BTreePage>> pages;  // the pages of the levels below `page`
  std::vector<Level> stack;
  stack.push_back(Level{&page, 0});
  while (!stack.empty()) {
    Level& level = stack.back();
    const BTreePage& current = *level.page;
    uint32_t i = level.next;
    if (current.isPlaceholder() || i >= current.order || current.children[i] == -1) {
      stack.pop_back();
      if (!pages.empty() && stack.size() == pages.size()) pages.pop_back();
      continue;
    }
    level.next = i + 1;
    int32_t old = current.children[i];
    if (offsetMap.count(old) != 0) return false;
    std::unique_ptr<BTreePage> child(new BTreePage(0, 0));
    if (!source.pageFile->readPage(old, *child)) return false;
    child->offset = -1;
    if (!target.pageFile->writePage(*child, false)) return false;
    offsetMap[old] = child->offset;
    stack.push_back(Level{child.get(), 0});
    pages.push_back(std::move(child));
  }
  return true;
}

bool compressBTree(const std::string& sourceName, const std::string& targetName) {
  BTree source(sourceName, true, 0);
  if (!source.isOk()) return false;
  if (source.isCompressed()) {
    reporterLL("Unable to compress a compressed BTree", "compressBTree", eReportError, kModule,
               __LINE__);
    return false;
  }
  if (source.getKeyLength() <= kMinCompressedKeyWidth) {
    reporterLL("Compressing a BTree with a keylength less than " +
                   std::to_string(kMinCompressedKeyWidth) +
                   ", is unlikely to yield beneficial results.",
               "compressBTree", eReportWarning, kModule, __LINE__);
    return false;
  }
  if (source.getKeyLength() > kMaxCompressedKeyWidth) {
    reporterLL("Unable to compress a BTree with keys wider than " +
                   std::to_string(kMaxCompressedKeyWidth) + " bytes",
               "compressBTree", eReportError, kModule, __LINE__);
    return false;
  }
  if (sameFiles(sourceName, targetName, "compressBTree")) return false;

  const BTreePageFileHdr& hdr = source.pageFile->hdr;
  BTree target(targetName, hdr.order, callerWidth(hdr), hdr.duplicates != 0, hdr.lcid,
               hdr.mapFlags, hdr.spaceConversion);
  if (!target.isOk()) return false;
  target.pageFile->keyCount = source.pageFile->keyCount;
  target.pageFile->hdr.compressed = 1;
  target.pageFile->hdr.version = source.getVersion();

  BTreePage page(0, 0);
  std::map<int32_t, int32_t> offsetMap;
  if (!copyTree(source, *source.root, target, *target.pageFile, page, offsetMap)) return false;

  // Records have no stride here, so the pages are found again through the map. Each rewrite has the
  // same keys and so the same size as the record it replaces.
  for (const auto& entry : offsetMap) {
    if (!target.pageFile->readPage(entry.second, page)) return false;
    if (!relink(offsetMap, page)) return false;
    if (!target.pageFile->writePage(page, false)) return false;
  }
  return true;
}

bool orderBTree(const std::string& sourceName, const std::string& targetName) {
  BTree source(sourceName, true, 0);
  if (!source.isOk()) return false;
  if (source.isCompressed()) {
    reporterLL("Unable to order a compressed BTree", "orderBTree", eReportError, kModule,
               __LINE__);
    return false;
  }
  if (sameFiles(sourceName, targetName, "orderBTree")) return false;

  const BTreePageFileHdr& hdr = source.pageFile->hdr;
  BTree target(targetName, hdr.order, callerWidth(hdr), hdr.duplicates != 0, hdr.lcid,
               hdr.mapFlags, hdr.spaceConversion);
  if (!target.isOk()) return false;
  target.pageFile->keyCount = source.pageFile->keyCount;
  target.pageFile->hdr.version = source.getVersion();

  BTreePage page(0, 0);
  std::map<int32_t, int32_t> offsetMap;
  if (!copyTree(source, *source.root, target, *target.pageFile, page, offsetMap)) return false;

  // All records have one size and stand without gaps from the root on, so the file is walked.
  BTreePageFile& file = *target.pageFile;
  const int64_t end = file.file.Length();
  const int64_t stride = btreeRecordSize(file.hdr.order, file.hdr.keyLength);
  if (end < 0 || stride <= 0) return false;
  for (int64_t position = file.hdr.rootOffset; position < end; position += stride) {
    if (!file.readPage(static_cast<int32_t>(position), page)) return false;
    if (!relink(offsetMap, page)) return false;
    if (!file.writePage(page, false)) return false;
  }
  return true;
}

bool repackBTree(const std::string& sourceName, const std::string& targetName, int order) {
  BTree source(sourceName, true, 0);
  if (!source.isOk()) return false;
  if (order < 2) order = source.getOrder();
  if (sameFiles(sourceName, targetName, "repackBTree")) return false;

  const BTreePageFileHdr& hdr = source.pageFile->hdr;
  BTree target(targetName, order, source.getKeyLength(), source.hasDuplicates(), hdr.lcid,
               hdr.mapFlags, hdr.spaceConversion);
  if (!target.isOk()) return false;
  const int32_t keys = source.pageFile->keyCount;
  target.pageFile->keyCount = keys;
  target.pageFile->hdr.version = source.getVersion();
  if (keys < 0) return false;
  if (keys == 0) return true;

  BTreePage page(*target.root);
  if (!buildPage(source, target, keys, order, page)) return false;
  return target.pageFile->writePage(page, true);
}

// Places order - 1 keys in `page` whenever it can, gives each child in turn the largest perfect
// subtree (order^h - 1 keys) that the rest still holds, and gives the last child, or a child whose
// keys fit one page, all that is left. Sizes are computed in 64 bits: with fewer than 2^31 keys a
// power that still fits the rest times the order stays below 2^62.
bool buildPage(BTree& source, BTree& target, int keys, int order, BTreePage& page) {
  if (keys < 1 || order < 2 || page.isPlaceholder() || page.order != static_cast<uint32_t>(order)) {
    return false;
  }
  std::vector<int64_t> counts(static_cast<size_t>(order), 0);
  int64_t rest = int64_t{keys} - (order - 1);
  page.keyCount = rest > 0 ? static_cast<uint32_t>(order - 1) : static_cast<uint32_t>(keys);
  int64_t power = order;
  int64_t size = order - 1;
  while (power - 1 <= rest) {
    size = power - 1;
    power *= order;
  }
  for (size_t i = 0; rest > 0; ++i) {
    if (i + 1 == static_cast<size_t>(order) || rest < order) {
      counts[i] = rest;
      break;
    }
    while (size > rest && size > 1) size = (size + 1) / order - 1;
    if (size < 1) size = 1;
    counts[i] = size;
    rest -= size;
  }

  const uint32_t keyLength = target.pageFile->hdr.keyLength;
  auto buildChild = [&](uint32_t i) {
    BTreePage child(static_cast<unsigned>(order), keyLength);
    if (!buildPage(source, target, static_cast<int>(counts[i]), order, child)) return false;
    page.children[i] = child.offset;
    return true;
  };
  for (uint32_t i = 0; i < page.keyCount; ++i) {
    if (counts[i] > 0 && !buildChild(i)) return false;
    BTreePageKey key;
    int32_t value = 0;
    if (!nextSourceKey(source, key, value)) return false;
    page.keys[i] = key;
    page.values[i] = value;
  }
  if (counts[page.keyCount] > 0 && !buildChild(page.keyCount)) return false;
  if (!target.pageFile->writePage(page, false)) return false;

  // The children were written before this page had its place: give them their parent now.
  BTreePage child(0, 0);
  for (uint32_t i = 0; i <= page.keyCount && page.children[i] != -1; ++i) {
    if (!target.pageFile->readPage(page.children[i], child)) return false;
    child.parentOffset = page.offset;
    if (!target.pageFile->writePage(child, false)) return false;
  }
  return true;
}

// The first call of a run finds no cursor and starts at the smallest key; every later call goes on
// from the cursor. A walk that runs out early fails instead of starting over, so a header that
// counts more keys than the tree holds cannot bring keys twice.
bool nextSourceKey(BTree& source, BTreePageKey& key, int32_t& value) {
  bool found = source.curPage == nullptr ? source.first(value) : source.next(value);
  if (!found) return false;
  char buffer[kKeyBufferSize];
  int length = kKeyBufferSize;
  if (!source.getCurrentKey(buffer, length) || length <= 0) return false;
  if (source.hasDuplicates()) {
    key = BTreePageKey(static_cast<unsigned>(source.getKeyLength() + 4), buffer,
                       static_cast<unsigned>(length), value);
  } else {
    key = BTreePageKey(static_cast<unsigned>(source.getKeyLength()), buffer,
                       static_cast<unsigned>(length));
  }
  return true;
}
