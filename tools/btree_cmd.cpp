// `lowlevel btree ...`: create, load, put, get, del, replace, range, scan, info, check, repair,
// dump, compress, order, repack, salvage.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"
#include "tools/bulkload.h"
#include "tools/rawtree.h"
#include "tools/safe.h"
#include "tools/salvage.h"
#include "tools/tool.h"

namespace {

using nlohmann::json;

struct KeyOptions {
  bool longKeys = false;
  bool hex = false;
  KeyForm form() const { return longKeys ? KeyForm::Long : hex ? KeyForm::Hex : KeyForm::Text; }
};

void addKeyOptions(CLI::App* cmd, KeyOptions& k) {
  cmd->add_flag("--long-keys", k.longKeys, "keys are 32-bit numbers");
  cmd->add_flag("--hex", k.hex, "keys are written in hexadecimal");
}

// With `safe` the tree is opened in crash-safe mode.
std::unique_ptr<BTree> openTree(const std::string& path, bool readOnly, int32_t offset = 0,
                                bool safe = false) {
  auto tree = std::make_unique<BTree>(locate(path), readOnly, offset);
  if (!tree->isOk() || (safe && !tree->setCrashSafe(true))) return nullptr;
  return tree;
}

// Why a tree did not open: the 2 GiB limit, or "cannot open B-tree FILE" + `what`.
std::string cannotOpenTree(const std::string& path, const char* what) {
  if (beyondFileLimit(locate(path))) return cannotOpen(path, locate(path));
  return "cannot open B-tree " + path + what;
}

// The current key of the cursor, as the caller's key width of bytes.
std::string currentKey(BTree& tree) {
  int width = tree.getKeyLength();
  if (width <= 0) return std::string();
  std::string key(static_cast<size_t>(width), '\0');
  int length = width;
  if (!tree.getCurrentKey(&key[0], length)) return std::string();
  key.resize(static_cast<size_t>(length));
  return key;
}

std::string showKey(BTree& tree, const std::string& key, bool longKeys) {
  if (longKeys && key.size() >= 4) {
    uint32_t v;
    if (tree.getVersion() >= 0x00010200) {
      v = static_cast<uint32_t>(static_cast<unsigned char>(key[0])) << 24 |
          static_cast<uint32_t>(static_cast<unsigned char>(key[1])) << 16 |
          static_cast<uint32_t>(static_cast<unsigned char>(key[2])) << 8 |
          static_cast<unsigned char>(key[3]);
    } else {
      v = static_cast<uint32_t>(static_cast<unsigned char>(key[3])) << 24 |
          static_cast<uint32_t>(static_cast<unsigned char>(key[2])) << 16 |
          static_cast<uint32_t>(static_cast<unsigned char>(key[1])) << 8 |
          static_cast<unsigned char>(key[0]);
    }
    return std::to_string(static_cast<int32_t>(v));
  }
  return displayKey(key, static_cast<int>(key.size()));
}

struct Entry {
  std::string key;
  int32_t value;
};

void printEntries(ToolContext& ctx, BTree& tree, const std::vector<Entry>& entries, bool longKeys) {
  if (ctx.json) {
    json out = json::array();
    for (const auto& e : entries) {
      out.push_back({{"key", showKey(tree, e.key, longKeys)}, {"value", e.value}});
    }
    printJson(out);
    return;
  }
  for (const auto& e : entries) {
    std::printf("%s\t%d\n", showKey(tree, e.key, longKeys).c_str(), e.value);
  }
}

bool lookupArgs(const std::string& text, const KeyOptions& k, std::string* bytes, int32_t* number,
                int* code) {
  std::string error;
  if (!parseKey(text, k.form(), bytes, number, &error)) {
    *code = fail(kExitUsage, error);
    return false;
  }
  return true;
}

// --- create -----------------------------------------------------------------------------------

struct CreateOptions {
  std::string file;
  int order = 0;
  int keyLength = 0;
  bool duplicates = false;
  std::string lcid = "0";
  std::string mapFlags = "0";
  int spaceConversion = 0;
  bool safe = false;
};

int runCreate(ToolContext& ctx, const CreateOptions& o) {
  int32_t lcid;
  uint32_t flags;
  std::string error;
  if (!parseInt32(o.lcid, &lcid)) return fail(kExitUsage, "bad --lcid " + o.lcid);
  if (!parseMapFlags(o.mapFlags, &flags, &error)) return fail(kExitUsage, error);
  if (o.spaceConversion < INT16_MIN || o.spaceConversion > INT16_MAX) {
    return fail(kExitUsage, "bad --space-conversion");
  }
  BTree tree(locate(o.file), o.order, o.keyLength, o.duplicates, static_cast<uint32_t>(lcid), flags,
             static_cast<int16_t>(o.spaceConversion));
  if (!tree.isOk()) return fail(kExitIo, "cannot create B-tree " + o.file);
  if (o.safe && (!tree.setCrashSafe(true) || !makeDurable(locate(o.file)))) {
    return fail(kExitIo, "cannot make " + o.file + " durable");
  }
  if (ctx.json) {
    printJson({{"file", o.file}, {"order", o.order}, {"keyLength", o.keyLength},
               {"duplicates", o.duplicates}});
  } else {
    std::printf("created %s: order %d, key length %d%s\n", o.file.c_str(), o.order, o.keyLength,
                o.duplicates ? ", duplicates" : "");
  }
  return kExitOk;
}

// --- load / put / get / del / replace -----------------------------------------------------------

struct LoadOptions {
  bool safe = false;
  int64_t batch = 10000;
};

int runLoad(ToolContext& ctx, const std::string& file, const std::string& input, const KeyOptions& k,
            const LoadOptions& o, BulkLoadOptions bulk) {
  if (o.batch < 1) return fail(kExitUsage, "bad --batch " + std::to_string(o.batch));
  std::ifstream in;
  std::istream* src = &std::cin;
  int64_t total = -1;
  if (!input.empty() && input != "-") {
    in.open(input, std::ios::binary);
    if (!in) return fail(kExitIo, "cannot read " + input);
    in.seekg(0, std::ios::end);
    total = in.tellg();
    in.seekg(0);
    src = &in;
  }
  auto tree = openTree(file, false, 0, o.safe);
  if (!tree) return fail(kExitIo, cannotOpenTree(file, " for update"));
  // A crash-safe load goes in committed batches, one key at a time.
  if (!o.safe && bulkLoadApplies(*tree)) {
    bulk.longKeys = k.longKeys;
    bulk.hex = k.hex;
    return bulkLoad(ctx.json, std::move(tree), file, locate(file), *src,
                    input.empty() ? std::string("stdin") : input, bulk);
  }
  Progress progress("loading " + file, total);
  std::string line;
  int64_t lineNo = 0, added = 0, refused = 0, bytes = 0;
  // Crash-safe: a batch of --batch keys at a time. Whatever stops the load, the keys of the
  // committed batches stay and those of the batch under way are rolled back.
  int64_t inBatch = 0, committed = 0, batches = 0;
  auto stop = [&](int code, const std::string& why) {
    if (!o.safe) return fail(code, why);
    tree->rollbackBatch();
    return fail(code, why + "; " + std::to_string(committed) + " keys committed in " +
                          std::to_string(batches) + " batches, the batch under way rolled back");
  };
  if (o.safe) installInterruptHandlers();
  if (o.safe && !tree->beginBatch()) return fail(kExitIo, "cannot lock B-tree " + file);
  while (std::getline(*src, line)) {
    if (o.safe && interrupted()) break;
    ++lineNo;
    bytes += static_cast<int64_t>(line.size()) + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    size_t tab = line.find('\t');
    int32_t value = 0;
    if (tab == std::string::npos || !parseInt32(line.substr(tab + 1), &value)) {
      return stop(kExitUsage, (input.empty() ? std::string("stdin") : input) + ":" +
                                  std::to_string(lineNo) + ": expected KEY<TAB>VALUE");
    }
    std::string keyBytes, error;
    int32_t number = 0;
    if (!parseKey(line.substr(0, tab), k.form(), &keyBytes, &number, &error)) {
      return stop(kExitUsage, input + ":" + std::to_string(lineNo) + ": " + error);
    }
    bool done = k.longKeys ? tree->insertKey(value, number)
                           : tree->insertKey(value, keyBytes.data(), static_cast<int>(keyBytes.size()));
    if (done) ++added; else ++refused;
    progress.update(total > 0 ? bytes : lineNo);
    if (o.safe && done && ++inBatch == o.batch) {
      if (!tree->commitBatch()) return fail(kExitIo, "commit failed; " + std::to_string(committed) + " keys committed");
      committed += inBatch;
      ++batches;
      inBatch = 0;
      if (interrupted() || !tree->beginBatch()) break;
    }
  }
  if (o.safe && interrupted()) return stop(kExitIo, "interrupted");
  if (o.safe && (!tree->inBatch() || !tree->commitBatch())) {
    return fail(kExitIo, "load stopped; " + std::to_string(committed) + " keys committed");
  }
  if (ctx.json) {
    printJson({{"file", file}, {"added", added}, {"refused", refused}, {"keys", tree->getKeyCount()}});
  } else {
    std::printf("%s: %lld added, %lld refused (present already or failed), %d keys\n", file.c_str(),
                static_cast<long long>(added), static_cast<long long>(refused), tree->getKeyCount());
  }
  return kExitOk;
}

int runPut(ToolContext& ctx, const std::string& file, const std::string& keyText,
           const std::string& valueText, const KeyOptions& k, bool replace, bool safe) {
  int32_t value;
  if (!parseInt32(valueText, &value)) return fail(kExitUsage, "not a 32-bit value: " + valueText);
  std::string bytes;
  int32_t number = 0;
  int code = kExitOk;
  if (!lookupArgs(keyText, k, &bytes, &number, &code)) return code;
  auto tree = openTree(file, false, 0, safe);
  if (!tree) return fail(kExitIo, cannotOpenTree(file, " for update"));
  bool done;
  if (replace) {
    done = k.longKeys ? tree->replaceValue(value, number)
                      : tree->replaceValue(value, bytes.data(), static_cast<int>(bytes.size()));
  } else {
    done = k.longKeys ? tree->insertKey(value, number)
                      : tree->insertKey(value, bytes.data(), static_cast<int>(bytes.size()));
  }
  if (!done) {
    return fail(kExitNotFound, replace ? "key " + keyText + " not replaced in " + file
                                       : "key " + keyText + " not added to " + file +
                                             " (present already, or the file failed)");
  }
  if (ctx.json) printJson({{"key", keyText}, {"value", value}, {"done", true}});
  return kExitOk;
}

int runGet(ToolContext& ctx, const std::string& file, const std::string& keyText, const KeyOptions& k) {
  std::string bytes;
  int32_t number = 0;
  int code = kExitOk;
  if (!lookupArgs(keyText, k, &bytes, &number, &code)) return code;
  auto tree = openTree(file, true);
  if (!tree) return fail(kExitIo, cannotOpenTree(file, ""));
  int32_t value = 0;
  bool found = k.longKeys ? tree->find(value, number)
                          : tree->find(value, bytes.data(), static_cast<int>(bytes.size()));
  if (!found) {
    if (ctx.json) printJson({{"key", keyText}, {"found", false}});
    return kExitNotFound;
  }
  std::vector<int32_t> values{value};
  if (tree->hasDuplicates()) {
    std::string key = currentKey(*tree);
    int32_t v;
    while (tree->next(v) && currentKey(*tree) == key) values.push_back(v);
  }
  if (ctx.json) {
    printJson({{"key", keyText}, {"found", true}, {"values", values}});
  } else {
    for (int32_t v : values) std::printf("%d\n", v);
  }
  return kExitOk;
}

int runDel(ToolContext& ctx, const std::string& file, const std::string& keyText,
           const std::string& valueText, const KeyOptions& k, bool safe) {
  std::string bytes;
  int32_t number = 0;
  int code = kExitOk;
  if (!lookupArgs(keyText, k, &bytes, &number, &code)) return code;
  auto tree = openTree(file, false, 0, safe);
  if (!tree) return fail(kExitIo, cannotOpenTree(file, " for update"));
  bool done;
  if (!valueText.empty()) {
    int32_t value;
    if (!parseInt32(valueText, &value)) return fail(kExitUsage, "not a 32-bit value: " + valueText);
    done = k.longKeys ? tree->deleteKey(value, number)
                      : tree->deleteKey(value, bytes.data(), static_cast<int>(bytes.size()));
  } else {
    done = k.longKeys ? tree->deleteKey(number)
                      : tree->deleteKey(bytes.data(), static_cast<int>(bytes.size()));
  }
  if (!done) return fail(kExitNotFound, "key " + keyText + " not deleted from " + file);
  if (ctx.json) printJson({{"key", keyText}, {"deleted", true}});
  return kExitOk;
}

// --- range / scan -------------------------------------------------------------------------------

struct RangeOptions {
  std::string file, from, to;
  int64_t limit = -1;
  bool reverse = false;
  KeyOptions keys;
};

int runRange(ToolContext& ctx, const RangeOptions& o, bool whole) {
  auto tree = openTree(o.file, true);
  if (!tree) return fail(kExitIo, cannotOpenTree(o.file, ""));
  auto findGe = [&](const std::string& text, int32_t& value, bool& ok) {
    std::string bytes, error;
    int32_t number = 0;
    ok = parseKey(text, o.keys.form(), &bytes, &number, &error);
    if (!ok) return false;
    return o.keys.longKeys ? tree->findGreaterThanOrEqual(value, number)
                           : tree->findGreaterThanOrEqual(value, bytes.data(), static_cast<int>(bytes.size()));
  };
  auto findExact = [&](const std::string& text, int32_t& value) {
    std::string bytes, error;
    int32_t number = 0;
    if (!parseKey(text, o.keys.form(), &bytes, &number, &error)) return false;
    return o.keys.longKeys ? tree->find(value, number)
                           : tree->find(value, bytes.data(), static_cast<int>(bytes.size()));
  };
  // Bounds as slot bytes: [lower, upper] inclusive or upper exclusive.
  bool haveLower = false, haveUpper = false, upperInclusive = false;
  std::string lower, upper;
  int32_t value = 0;
  bool parsed = true;
  if (!whole) {
    if (findGe(o.from, value, parsed)) {
      haveLower = true;
      lower = currentKey(*tree);
    } else if (!parsed) {
      return fail(kExitUsage, "bad key " + o.from);
    } else {
      printEntries(ctx, *tree, {}, o.keys.longKeys);
      return kExitOk;  // nothing at or after FROM
    }
    if (!o.to.empty()) {
      if (findExact(o.to, value)) {
        haveUpper = true;
        upperInclusive = true;
        upper = currentKey(*tree);
        if (tree->hasDuplicates()) {  // the last entry of that key
          int32_t v;
          while (tree->next(v) && currentKey(*tree).compare(0, upper.size() - 4, upper, 0, upper.size() - 4) == 0) {
            upper = currentKey(*tree);
          }
        }
      } else if (findGe(o.to, value, parsed)) {
        haveUpper = true;
        upper = currentKey(*tree);
      } else if (!parsed) {
        return fail(kExitUsage, "bad key " + o.to);
      }
    }
  }
  auto inRange = [&](const std::string& key) {
    if (haveLower && key < lower) return false;
    if (haveUpper && (upperInclusive ? key > upper : key >= upper)) return false;
    return true;
  };
  std::vector<Entry> entries;
  bool positioned;
  if (!o.reverse) {
    positioned = haveLower ? findGe(o.from, value, parsed) : tree->first(value);
    while (positioned && (o.limit < 0 || static_cast<int64_t>(entries.size()) < o.limit)) {
      std::string key = currentKey(*tree);
      if (!inRange(key)) break;
      entries.push_back({key, value});
      positioned = tree->next(value);
    }
  } else {
    if (haveUpper) {
      findGe(o.to, value, parsed);
      if (upperInclusive) {
        while (currentKey(*tree) != upper && tree->next(value)) {}
        positioned = true;
      } else {
        positioned = tree->prev(value);
      }
    } else {
      positioned = tree->last(value);
    }
    while (positioned && (o.limit < 0 || static_cast<int64_t>(entries.size()) < o.limit)) {
      std::string key = currentKey(*tree);
      if (!inRange(key)) break;
      entries.push_back({key, value});
      positioned = tree->prev(value);
    }
  }
  printEntries(ctx, *tree, entries, o.keys.longKeys);
  return kExitOk;
}

// --- info / check / dump ------------------------------------------------------------------------

struct Survey {
  int64_t pages = 0, keys = 0, freePages = 0, backwardLinks = 0, bytesInPages = 0;
  std::vector<std::string> faults;
  size_t chainFaults = 0;    // faults of the free chain, which come last in `faults`
  std::set<int32_t> inUse;   // the records reached from the root
};

// Walks the tree from the root by the bytes alone, checking what the tree's own test does not.
Survey surveyTree(RawTree& raw, bool checkOrder) {
  Survey s;
  const RawHeader& h = raw.header();
  std::set<int32_t> seen;
  struct Item { int32_t offset; int32_t parent; std::string lower, upper; bool hasLower, hasUpper; int depth; };
  std::vector<Item> stack{{h.rootOffset, -1, "", "", false, false, 0}};
  int leafDepth = -1;
  int64_t limit = raw.fileLength() / 10 + 2;  // no file holds more records than this
  while (!stack.empty()) {
    Item it = stack.back();
    stack.pop_back();
    if (!seen.insert(it.offset).second) {
      s.faults.push_back("page " + std::to_string(it.offset) + " is reachable twice");
      continue;
    }
    if (static_cast<int64_t>(seen.size()) > limit) {
      s.faults.push_back("more pages reachable than the file can hold; stopped");
      break;
    }
    RawPage p;
    std::string error;
    if (!raw.readPage(it.offset, &p, &error)) {
      s.faults.push_back(error);
      continue;
    }
    ++s.pages;
    s.keys += p.keyCount;
    s.bytesInPages += p.recordSize;
    if (p.parentOffset != it.parent) {
      s.faults.push_back("page " + std::to_string(it.offset) + " names parent " +
                         std::to_string(p.parentOffset) + ", reached from " + std::to_string(it.parent));
    }
    if (checkOrder) {
      for (uint32_t i = 0; i + 1 < p.keyCount; ++i) {
        if (!(p.keys[i] < p.keys[i + 1])) {
          s.faults.push_back("page " + std::to_string(it.offset) + ": keys " + std::to_string(i) +
                             " and " + std::to_string(i + 1) + " out of order");
        }
      }
      for (uint32_t i = 0; i < p.keyCount; ++i) {
        if ((it.hasLower && !(it.lower < p.keys[i])) || (it.hasUpper && !(p.keys[i] < it.upper))) {
          s.faults.push_back("page " + std::to_string(it.offset) + ": key " + std::to_string(i) +
                             " outside the range its parent gives it");
          break;
        }
      }
    }
    bool leaf = p.isLeaf();
    if (leaf) {
      if (leafDepth < 0) leafDepth = it.depth;
      else if (leafDepth != it.depth) {
        s.faults.push_back("leaf " + std::to_string(it.offset) + " at depth " + std::to_string(it.depth) +
                           ", others at " + std::to_string(leafDepth));
      }
      continue;
    }
    for (uint32_t i = p.keyCount + 1; i < p.children.size(); ++i) {
      if (p.children[i] != -1) {
        s.faults.push_back("page " + std::to_string(it.offset) + ": child " + std::to_string(i) +
                           " set beyond the key count");
      }
    }
    for (int i = static_cast<int>(p.keyCount); i >= 0; --i) {
      int32_t child = p.children[static_cast<size_t>(i)];
      if (child == -1) continue;
      if (child < it.offset) ++s.backwardLinks;
      Item c{child, it.offset, it.lower, it.upper, it.hasLower, it.hasUpper, it.depth + 1};
      if (i > 0) { c.lower = p.keys[static_cast<size_t>(i) - 1]; c.hasLower = true; }
      if (static_cast<uint32_t>(i) < p.keyCount) { c.upper = p.keys[static_cast<size_t>(i)]; c.hasUpper = true; }
      stack.push_back(c);
    }
  }
  // The free chain: no cycle, records on the stride, none in use.
  const size_t pageFaults = s.faults.size();
  int32_t link = h.freeListHead;
  std::set<int32_t> freeSeen;
  while (link != -1) {
    if (!freeSeen.insert(link).second) {
      s.faults.push_back("free chain has a cycle at " + std::to_string(link));
      break;
    }
    if (h.compressed == 0 && (link < 46 || (link - 46) % raw.recordSize() != 0 ||
                              link + raw.recordSize() > raw.fileLength())) {
      s.faults.push_back("free chain points outside the records: " + std::to_string(link));
      break;
    }
    if (seen.count(link) != 0) {
      s.faults.push_back("page " + std::to_string(link) + " is both free and in use");
    }
    ++s.freePages;
    if (!raw.readLink(link, &link)) {
      s.faults.push_back("free chain cannot be read");
      break;
    }
  }
  s.chainFaults = s.faults.size() - pageFaults;
  s.inUse = std::move(seen);
  return s;
}

// Opens `file` read-only twice: by its bytes and as a tree. 0, or the exit code after a message.
int openBothViews(const std::string& file, RawTree* raw, std::unique_ptr<BTree>* tree) {
  std::string error;
  if (!raw->open(locate(file), 0, &error)) return fail(kExitIo, error);
  *tree = openTree(file, true);
  if (!*tree) return fail(kExitIo, cannotOpenTree(file, ""));
  return kExitOk;
}

int runInfo(ToolContext& ctx, const std::string& file) {
  RawTree raw;
  std::unique_ptr<BTree> tree;
  if (int code = openBothViews(file, &raw, &tree)) return code;
  const RawHeader& h = raw.header();
  Survey s = surveyTree(raw, false);
  int32_t testKeys = 0, testPages = 0, backward = 0;
  tree->test(true, &testKeys, &testPages, &backward);
  int depth = tree->depth();
  double fill = s.pages > 0 ? static_cast<double>(s.keys) / (static_cast<double>(s.pages) * (h.order - 1)) : 0;
  char version[16];
  std::snprintf(version, sizeof version, "0x%08X", static_cast<unsigned>(h.version));
  json j = {{"file", file},
            {"version", version},
            {"order", h.order},
            {"keyLength", tree->getKeyLength()},
            {"slotWidth", h.keyLength},
            {"duplicates", h.duplicates != 0},
            {"compressed", h.compressed != 0},
            {"lcid", h.lcid},
            {"mapFlags", h.mapFlags},
            {"spaceConversion", h.spaceConversion},
            {"keyCount", h.keyCount},
            {"keysFound", s.keys},
            {"rootOffset", h.rootOffset},
            {"freeListHead", h.freeListHead},
            {"depth", depth},
            {"fileSize", raw.fileLength()},
            {"pagesInUse", s.pages},
            {"pagesFree", s.freePages},
            {"averageFill", fill},
            {"backwardLinks", backward}};
  if (ctx.json) {
    printJson(j);
  } else {
    std::printf("file            %s\n", file.c_str());
    std::printf("version         %s%s\n", version, h.compressed ? " (compressed pages)" : "");
    std::printf("order           %d\n", h.order);
    std::printf("key width       %d (slot %d)%s\n", tree->getKeyLength(), h.keyLength,
                h.duplicates ? ", duplicates" : "");
    std::printf("conversion      lcid 0x%08X, flags 0x%08X, space conversion %d\n", h.lcid, h.mapFlags,
                h.spaceConversion);
    std::printf("keys            %d in header, %lld found\n", h.keyCount, static_cast<long long>(s.keys));
    std::printf("depth           %d\n", depth);
    std::printf("file size       %d bytes (%.1f bytes per key)\n", raw.fileLength(),
                s.keys > 0 ? static_cast<double>(raw.fileLength()) / static_cast<double>(s.keys) : 0.0);
    std::printf("pages           %lld in use, %lld free\n", static_cast<long long>(s.pages),
                static_cast<long long>(s.freePages));
    std::printf("average fill    %.1f%%\n", fill * 100);
    std::printf("backward links  %d\n", backward);
  }
  return kExitOk;
}

int runCheck(ToolContext& ctx, const std::string& file) {
  RawTree raw;
  std::unique_ptr<BTree> tree;
  if (int code = openBothViews(file, &raw, &tree)) return code;
  int32_t testKeys = 0, testPages = 0, backward = 0;
  bool shapeOk = tree->test(true, &testKeys, &testPages, &backward);
  bool strictOk = tree->test(false, nullptr, nullptr, nullptr);
  Survey s = surveyTree(raw, true);
  std::vector<std::string> faults = s.faults;
  if (!shapeOk) faults.insert(faults.begin(), "the tree's self-test fails");
  if (s.keys != raw.header().keyCount) {
    faults.push_back("header counts " + std::to_string(raw.header().keyCount) + " keys, pages hold " +
                     std::to_string(s.keys));
  }
  bool sound = faults.empty();
  if (ctx.json) {
    printJson({{"file", file}, {"sound", sound}, {"strictShape", strictOk}, {"keys", s.keys},
               {"pages", s.pages}, {"freePages", s.freePages}, {"backwardLinks", backward},
               {"faults", faults}});
  } else {
    for (const auto& f : faults) std::printf("fault: %s\n", f.c_str());
    std::printf("%s: %s, %lld keys in %lld pages, %lld free, %d backward links%s\n", file.c_str(),
                sound ? "sound" : "NOT sound", static_cast<long long>(s.keys),
                static_cast<long long>(s.pages), static_cast<long long>(s.freePages), backward,
                strictOk ? "" : " (pages below half full: a repacked tree)");
  }
  return sound ? kExitOk : kExitNotFound;
}

// --- repair ---------------------------------------------------------------------------------------

// The head of the longest chain of records not in use in which each record links to another such
// record, ending with -1: the free chain that the header should name. -1 when there is none.
// `chained` receives the records on it. Records that are not on it stay unused, as they are.
int32_t freeChainHead(RawTree& raw, const std::set<int32_t>& inUse, int64_t* chained) {
  std::map<int32_t, int32_t> link;  // record -> the first 4 bytes of it, for records not in use
  for (int64_t at = 46; at + raw.recordSize() <= raw.fileLength(); at += raw.recordSize()) {
    int32_t next = 0;
    if (inUse.count(static_cast<int32_t>(at)) == 0 && raw.readLink(static_cast<int32_t>(at), &next)) {
      link[static_cast<int32_t>(at)] = next;
    }
  }
  std::set<int32_t> linkedTo;
  for (const auto& [at, next] : link) linkedTo.insert(next);
  int32_t best = -1;
  *chained = 0;
  for (const auto& entry : link) {
    if (linkedTo.count(entry.first) != 0) continue;  // not the start of a chain
    std::set<int32_t> visited;
    int32_t at = entry.first;
    while (at != -1 && link.count(at) != 0 && visited.insert(at).second) at = link[at];
    const int64_t length = static_cast<int64_t>(visited.size());
    if (at == -1 && length > *chained) {
      best = entry.first;
      *chained = length;
    }
  }
  return best;
}

// Records off the tree that still read as pages holding keys the tree does not reach: the new
// page of a split that was interrupted before its parent learnt of it. Counting only the reachable
// keys would hide them; salvage brings them back. One fault per such record.
std::vector<std::string> strandedKeys(RawTree& raw, const std::set<int32_t>& inUse) {
  std::set<std::string> reached;
  RawPage page;
  std::string error;
  for (int32_t at : inUse) {
    if (raw.readPage(at, &page, &error)) reached.insert(page.keys.begin(), page.keys.end());
  }
  std::vector<std::string> faults;
  for (int64_t at = 46; at + raw.recordSize() <= raw.fileLength(); at += raw.recordSize()) {
    if (inUse.count(static_cast<int32_t>(at)) != 0 || !raw.readPage(static_cast<int32_t>(at), &page, &error)) continue;
    int64_t stranded = 0;
    for (const std::string& key : page.keys) stranded += reached.count(key) == 0;
    if (stranded > 0) {
      faults.push_back("page at " + std::to_string(at) + " holds " + std::to_string(stranded) +
                       (stranded == 1 ? " key" : " keys") + " that the tree does not reach");
    }
  }
  return faults;
}

// Puts `keyCount` and `freeListHead` into the header of `path` with one write of its 46 bytes.
bool writeHeaderFields(const std::string& path, int32_t keyCount, int32_t freeListHead) {
  ZFile file(path, 0x8002, 0);
  unsigned char h[46];
  if (!file.IsOpen() || file.Seek(0, 0) != 0 || file.Read(h, 46) != 46) return false;
  for (int i = 0; i < 4; ++i) {
    h[24 + i] = static_cast<unsigned char>(static_cast<uint32_t>(keyCount) >> (8 * i));
    h[32 + i] = static_cast<unsigned char>(static_cast<uint32_t>(freeListHead) >> (8 * i));
  }
  if (file.Seek(0, 0) != 0 || file.Write(h, 46) != 46) return false;
  file.Flush();
  return file.Close();
}

// Brings a lagging key count and free-list head in the header up to what the pages hold, after
// checking everything that `check` checks; anything else wrong leaves the file untouched.
int runRepair(ToolContext& ctx, const std::string& file) {
  RawTree raw;
  Survey s;
  {
    std::string error;
    if (!raw.open(locate(file), 0, &error)) return fail(kExitIo, error);
    if (raw.header().compressed != 0) {
      return fail(kExitUsage, file + " has compressed pages, which are never changed");
    }
    std::unique_ptr<BTree> tree = openTree(file, true);
    const bool shapeOk = tree && tree->test(true, nullptr, nullptr, nullptr);
    s = surveyTree(raw, true);
    std::vector<std::string> faults(s.faults.begin(), s.faults.end() - static_cast<long>(s.chainFaults));
    if (!tree) faults.insert(faults.begin(), "the tree does not open");
    else if (!shapeOk) faults.insert(faults.begin(), "the tree's self-test fails");
    if (faults.empty()) faults = strandedKeys(raw, s.inUse);
    if (!faults.empty()) {
      return fail(kExitNotFound, file + ": " + faults.front() + "; not repaired in place: `lowlevel btree salvage " +
                                     file + " NEW` copies its keys into a new tree");
    }
  }
  const RawHeader& h = raw.header();
  int64_t chained = 0;
  const int32_t head = freeChainHead(raw, s.inUse, &chained);
  const int32_t keys = static_cast<int32_t>(s.keys);
  std::vector<std::string> changes;
  if (h.keyCount != keys) {
    changes.push_back("key count " + std::to_string(h.keyCount) + " -> " + std::to_string(keys));
  }
  if (h.freeListHead != head) {
    changes.push_back("free-list head " + std::to_string(h.freeListHead) + " -> " + std::to_string(head));
  }
  if (!changes.empty() && !writeHeaderFields(locate(file), keys, head)) {
    return fail(kExitIo, "cannot write the header of " + file);
  }
  if (ctx.json) {
    printJson({{"file", file}, {"changed", !changes.empty()}, {"changes", changes}, {"keys", keys},
               {"freeListHead", head}, {"freeRecords", chained}});
    return kExitOk;
  }
  std::string text;
  for (const std::string& c : changes) text += (text.empty() ? "" : ", ") + c;
  std::printf("%s: %s\n", file.c_str(),
              changes.empty() ? "sound, nothing to repair" : (text + "; header written").c_str());
  return kExitOk;
}

json pageJson(const RawPage& p, const RawHeader& h) {
  json keys = json::array();
  int width = h.duplicates ? h.keyLength - 4 : h.keyLength;
  for (uint32_t i = 0; i < p.keyCount; ++i) {
    keys.push_back({{"key", displayKey(p.keys[i], width)}, {"value", p.values[i]}});
  }
  json children = json::array();
  for (int32_t c : p.children) children.push_back(c);
  return {{"offset", p.offset}, {"parent", p.parentOffset}, {"keyCount", p.keyCount},
          {"keys", keys}, {"children", children}, {"recordSize", p.recordSize}};
}

void printPage(const RawPage& p, const RawHeader& h) {
  std::printf("page %d  parent %d  keys %u  %s\n", p.offset, p.parentOffset, p.keyCount,
              p.isLeaf() ? "leaf" : "interior");
  int width = h.duplicates ? h.keyLength - 4 : h.keyLength;
  for (uint32_t i = 0; i < p.keyCount; ++i) {
    std::printf("  [%u] %s = %d\n", i, displayKey(p.keys[i], width).c_str(), p.values[i]);
  }
  if (!p.isLeaf()) {
    std::printf("  children");
    for (uint32_t i = 0; i <= p.keyCount && i < p.children.size(); ++i) std::printf(" %d", p.children[i]);
    std::printf("\n");
  }
}

int runDump(ToolContext& ctx, const std::string& file, int64_t onePage) {
  RawTree raw;
  std::string error;
  if (!raw.open(locate(file), 0, &error)) return fail(kExitIo, error);
  const RawHeader& h = raw.header();
  std::vector<int32_t> order;
  if (onePage >= 0) {
    order.push_back(static_cast<int32_t>(onePage));
  } else {
    std::vector<int32_t> stack{h.rootOffset};
    std::set<int32_t> seen;
    while (!stack.empty()) {
      int32_t off = stack.back();
      stack.pop_back();
      if (!seen.insert(off).second) continue;
      order.push_back(off);
      RawPage p;
      if (!raw.readPage(off, &p, &error)) continue;
      for (int i = static_cast<int>(p.keyCount); i >= 0; --i) {
        if (p.children[static_cast<size_t>(i)] != -1) stack.push_back(p.children[static_cast<size_t>(i)]);
      }
    }
  }
  json pages = json::array();
  int code = kExitOk;
  for (int32_t off : order) {
    RawPage p;
    if (!raw.readPage(off, &p, &error)) {
      if (!ctx.json) std::printf("page %d  UNREADABLE: %s\n", off, error.c_str());
      pages.push_back({{"offset", off}, {"error", error}});
      code = kExitNotFound;
      continue;
    }
    if (ctx.json) pages.push_back(pageJson(p, h));
    else printPage(p, h);
  }
  if (ctx.json) printJson(pages);
  return code;
}

int runCopy(ToolContext& ctx, const std::string& what, const std::string& src, const std::string& dst,
            int order, bool safe) {
  bool done;
  Progress progress(what + " " + src, -1);
  progress.update(0);
  if (what == "compress") done = compressBTree(locate(src), locate(dst));
  else if (what == "order") done = orderBTree(locate(src), locate(dst));
  else done = repackBTree(locate(src), locate(dst), order);
  if (!done) return fail(kExitIo, what + " of " + src + " into " + dst + " failed");
  if (safe && !makeDurable(locate(dst))) return fail(kExitIo, "cannot make " + dst + " durable");
  if (ctx.json) printJson({{"source", src}, {"target", dst}, {"done", true}});
  else std::printf("%s: %s -> %s\n", what.c_str(), src.c_str(), dst.c_str());
  return kExitOk;
}

}  // namespace

void addBtreeCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* bt = app.add_subcommand("btree", "create, change, query and check B-tree index files");
  bt->require_subcommand(1);

  static CreateOptions create;
  CLI::App* c = bt->add_subcommand("create", "create an empty B-tree file");
  c->add_option("FILE", create.file, "the file to create (replaced if it exists)")->required();
  c->add_option("--order", create.order, "most children of a page (at least 2)")->required();
  c->add_option("--key-length", create.keyLength, "width of a key in bytes")->required();
  c->add_flag("--duplicates", create.duplicates, "allow several values for one key");
  c->add_option("--lcid", create.lcid, "Windows locale identifier for key mapping, e.g. 0x0409");
  c->add_option("--map-flags", create.mapFlags, "key mapping flags by name or number, e.g. sortkey,ignorecase");
  c->add_option("--space-conversion", create.spaceConversion, "0: blanks become '0' before a mapping that ignores symbols");
  addSafeFlag(c, create.safe, false);
  c->footer("Example: lowlevel btree create words.btr --order 64 --key-length 16");
  onRun(c, ctx, [&ctx] { return runCreate(ctx, create); });

  static std::string loadFile, loadInput;
  static KeyOptions loadKeys;
  static LoadOptions load;
  CLI::App* l = bt->add_subcommand("load", "insert KEY<TAB>VALUE lines from a file or standard input");
  l->add_option("FILE", loadFile, "the B-tree file")->required();
  l->add_option("INPUT", loadInput, "lines to load (default: standard input)");
  addKeyOptions(l, loadKeys);
  addSafeFlag(l, load.safe, true);
  l->add_option("--batch", load.batch, "with --safe: keys per committed batch (default 10000)");
  static BulkLoadOptions loadBulk;
  static int64_t sortKiB = loadBulk.memoryBytes >> 10;
  l->add_flag("--sorted", loadBulk.sorted,
              "into an empty tree: the lines are in key order already (checked, not sorted)");
  l->add_option("--sort-kib", sortKiB, "into an empty tree: KiB of lines sorted in memory before "
                "sorted runs go to temporary files beside FILE")->capture_default_str();
  l->add_option("--fill", loadBulk.fillPercent, "into an empty tree: percent of a page's keys to fill")
      ->capture_default_str()->check(CLI::Range(50, 100));
  l->footer("Example: printf 'apple\\t1\\npear\\t2\\n' | lowlevel btree load words.btr\n"
            "An empty tree is built in one pass from the sorted lines; a tree with entries takes "
            "them one at a time.");
  onRun(l, ctx, [&ctx] {
    loadBulk.memoryBytes = sortKiB << 10;
    return runLoad(ctx, loadFile, loadInput, loadKeys, load, loadBulk);
  });

  static std::string oneFile, oneKey, oneValue;
  static KeyOptions oneKeys;
  static bool oneSafe = false;
  // A command on one key: FILE KEY [VALUE] and the key form options.
  auto keyCommand = [&](const char* name, const char* help, bool withValue, const std::string& example) {
    CLI::App* cmd = bt->add_subcommand(name, help);
    cmd->add_option("FILE", oneFile)->required();
    cmd->add_option("KEY", oneKey)->required();
    if (withValue) cmd->add_option("VALUE", oneValue)->required();
    addKeyOptions(cmd, oneKeys);
    if (std::string(name) != "get") addSafeFlag(cmd, oneSafe, true);
    cmd->footer("Example: " + example);
    return cmd;
  };
  onRun(keyCommand("put", "insert one key with its value", true, "lowlevel btree put words.btr apple 17"),
        ctx, [&ctx] { return runPut(ctx, oneFile, oneKey, oneValue, oneKeys, false, oneSafe); });
  onRun(keyCommand("replace", "replace the value of a key (trees without duplicates)", true,
                   "lowlevel btree replace words.btr apple 18"),
        ctx, [&ctx] { return runPut(ctx, oneFile, oneKey, oneValue, oneKeys, true, oneSafe); });
  onRun(keyCommand("get", "print the value(s) of a key; exit 1 when absent", false,
                   "lowlevel --host host.ini btree get cd:\\index.btr apple"),
        ctx, [&ctx] { return runGet(ctx, oneFile, oneKey, oneKeys); });
  CLI::App* del = keyCommand("del", "delete a key (with --value: that entry of a duplicates tree)", false,
                             "lowlevel btree del words.btr apple");
  del->add_option("--value", oneValue, "the value of the entry to delete");
  onRun(del, ctx, [&ctx] { return runDel(ctx, oneFile, oneKey, oneValue, oneKeys, oneSafe); });

  static RangeOptions range;
  CLI::App* r = bt->add_subcommand("range", "list keys from FROM up to TO (inclusive)");
  r->add_option("FILE", range.file)->required();
  r->add_option("FROM", range.from)->required();
  r->add_option("TO", range.to);
  r->add_option("--limit", range.limit, "at most this many keys");
  r->add_flag("--reverse", range.reverse, "from the high end down");
  addKeyOptions(r, range.keys);
  r->footer("Example: lowlevel btree range words.btr b c --limit 10");
  onRun(r, ctx, [&ctx] { return runRange(ctx, range, false); });

  static RangeOptions scan;
  CLI::App* s = bt->add_subcommand("scan", "list every key in order");
  s->add_option("FILE", scan.file)->required();
  s->add_option("--limit", scan.limit, "at most this many keys");
  s->add_flag("--reverse", scan.reverse, "from the last key down");
  addKeyOptions(s, scan.keys);
  s->footer("Example: lowlevel btree scan words.btr --reverse --limit 5");
  onRun(s, ctx, [&ctx] { return runRange(ctx, scan, true); });

  static std::string infoFile;
  CLI::App* info = bt->add_subcommand("info", "header fields, counts, depth, fill and layout");
  info->add_option("FILE", infoFile)->required();
  info->footer("Example: lowlevel --json btree info words.btr");
  onRun(info, ctx, [&ctx] { return runInfo(ctx, infoFile); });

  CLI::App* check = bt->add_subcommand("check", "check the tree; exit 1 and list faults when it is not sound");
  check->add_option("FILE", infoFile)->required();
  check->footer("Example: lowlevel btree check words.btr");
  onRun(check, ctx, [&ctx] { return runCheck(ctx, infoFile); });

  static int64_t dumpPage = -1;
  CLI::App* repair = bt->add_subcommand(
      "repair", "bring a lagging key count and free-list head in the header up to the pages");
  repair->add_option("FILE", infoFile)->required();
  repair->footer("Only the header is written, and only when every other check passes; otherwise use salvage.\n"
                 "Example: lowlevel btree repair words.btr");
  onRun(repair, ctx, [&ctx] { return runRepair(ctx, infoFile); });

  CLI::App* dump = bt->add_subcommand("dump", "print pages (all, depth first, or one)");
  dump->add_option("FILE", infoFile)->required();
  dump->add_option("--page", dumpPage, "logical offset of one page");
  dump->footer("Example: lowlevel btree dump words.btr --page 46");
  onRun(dump, ctx, [&ctx] { return runDump(ctx, infoFile, dumpPage); });

  static std::string copySrc, copyDst;
  static int copyOrder = 0;
  static bool copySafe = false;
  for (const char* what : {"compress", "order", "repack"}) {
    std::string name = what;
    std::string help = name == "compress" ? "write a compressed read-only copy"
                       : name == "order"  ? "write a copy with pages in depth-first order"
                                          : "rebuild with full pages (optionally another order)";
    CLI::App* cmd = bt->add_subcommand(name, help);
    cmd->add_option("SRC", copySrc)->required();
    cmd->add_option("DST", copyDst)->required();
    if (name == "repack") cmd->add_option("--order", copyOrder, "order of the new tree (default: the source's)");
    addSafeFlag(cmd, copySafe, false);
    cmd->footer("Example: lowlevel btree " + name + " words.btr words-" + name + ".btr");
    onRun(cmd, ctx, [&ctx, name] { return runCopy(ctx, name, copySrc, copyDst, copyOrder, copySafe); });
  }
  addSalvageCommand(bt, ctx);

}
