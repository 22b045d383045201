#include "tools/salvage.h"

#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/platform/io.h"
#include "tools/rawtree.h"
#include "tools/safe.h"

namespace {

void put32(std::string& bytes, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

// Writes the source's version and conversion fields into the closed new tree's header.
bool patchHeader(const std::string& path, const RawHeader& h) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  std::string head(46, '\0');
  if (!file.read(&head[0], 46)) return false;
  put32(head, 0, static_cast<uint32_t>(h.version));
  put32(head, 36, h.lcid);
  put32(head, 40, h.mapFlags);
  head[44] = static_cast<char>(h.spaceConversion & 0xFF);
  head[45] = static_cast<char>((h.spaceConversion >> 8) & 0xFF);
  file.seekp(0);
  return static_cast<bool>(file.write(head.data(), 46).flush());
}

int32_t valueOfTail(const std::string& slot) {
  const size_t n = slot.size();
  uint32_t v = 0;
  for (size_t i = n - 4; i < n; ++i) v = v << 8 | static_cast<unsigned char>(slot[i]);
  return static_cast<int32_t>(v);
}

}  // namespace

bool salvageBTree(const std::string& damaged, const std::string& target, SalvageReport* report,
                  std::string* error) {
  *report = SalvageReport();
  if (lowlevel::platform::sameFile(damaged.c_str(), target.c_str())) {
    *error = "the new file must not be the damaged one";
    return false;
  }
  RawTree raw;
  if (!raw.open(damaged, 0, error, true)) return false;  // a file pushed past the limit too
  const RawHeader& h = raw.header();
  if (h.compressed != 0) {
    *error = damaged + " is compressed; only an uncompressed tree can be salvaged";
    return false;
  }
  const int64_t size = raw.recordSize();
  const bool duplicates = h.duplicates != 0;
  const int callerWidth = h.keyLength - (duplicates ? 4 : 0);
  if (callerWidth < 1) {
    *error = damaged + " has a key length that leaves no key bytes";
    return false;
  }

  // The free chain, followed as far as it leads to record places not seen before.
  const int64_t room = raw.fileLength() - 46;
  const int64_t places = room <= 0 ? 0 : (room + size - 1) / size;
  std::set<int32_t> freeRecords;
  for (int32_t at = h.freeListHead; at >= 46 && at < raw.fileLength() && (at - 46) % size == 0 &&
                                    freeRecords.insert(at).second;) {
    if (!raw.readLink(at, &at)) break;
  }

  // Every entry by its slot; a slot met again is counted once more as seen twice.
  std::map<std::string, int32_t> entries;
  for (int64_t k = 0; k < places; ++k) {
    const int32_t at = static_cast<int32_t>(46 + k * size);
    report->records += 1;
    RawPage page;
    std::string why;
    // A short tail is not read at all: the record may be far larger than the file.
    bool sound = at + size <= raw.fileLength() && raw.readPage(at, &page, &why);
    for (size_t i = 1; sound && i < page.keys.size(); ++i) sound = page.keys[i - 1] < page.keys[i];
    if (!sound) {
      // A free record names the next one where a page names itself, so it never looks sound;
      // a damaged chain cannot hide a page.
      if (freeRecords.count(at) != 0) report->free += 1;
      else report->bad += 1;
      continue;
    }
    report->pages += 1;
    for (size_t i = 0; i < page.keys.size(); ++i) {
      // In a tree with duplicates the slot's tail is the value; the slot decides.
      int32_t value = duplicates ? valueOfTail(page.keys[i]) : page.values[i];
      if (!entries.emplace(page.keys[i], value).second) report->seenTwice += 1;
    }
  }

  {
    BTree tree(target, h.order, callerWidth, duplicates, 0, 0, 0);
    if (!tree.isOk()) {
      *error = "cannot create " + target;
      return false;
    }
    for (const auto& [slot, value] : entries) {
      if (!tree.insertKey(value, slot.data(), callerWidth)) {
        *error = "cannot write " + target;
        return false;
      }
      report->keys += 1;
    }
  }
  if (!patchHeader(target, h)) {
    *error = "cannot write the header of " + target;
    return false;
  }
  return true;
}

void addSalvageCommand(CLI::App* btree, ToolContext& ctx) {
  static std::string damaged, target;
  static bool safe = false;
  CLI::App* cmd = btree->add_subcommand(
      "salvage", "copy every key of a damaged tree's sound pages into a new tree");
  cmd->add_option("DAMAGED", damaged)->required();
  cmd->add_option("NEW", target)->required();
  addSafeFlag(cmd, safe, false);
  cmd->footer("Example: lowlevel btree salvage words.btr words-saved.btr");
  onRun(cmd, ctx, [&ctx]() -> int {
    SalvageReport r;
    std::string error;
    if (!salvageBTree(locate(damaged), locate(target), &r, &error)) return fail(kExitIo, error);
    if (safe && !makeDurable(locate(target))) return fail(kExitIo, "cannot make " + target + " durable");
    if (ctx.json) {
      printJson({{"source", damaged}, {"target", target}, {"records", r.records},
                 {"pages", r.pages}, {"free", r.free}, {"bad", r.bad}, {"keys", r.keys},
                 {"seenTwice", r.seenTwice}});
    } else {
      std::printf("%s -> %s: %lld keys from %lld pages; %lld records, %lld free, %lld unreadable, "
                  "%lld keys seen twice\n",
                  damaged.c_str(), target.c_str(), static_cast<long long>(r.keys),
                  static_cast<long long>(r.pages), static_cast<long long>(r.records),
                  static_cast<long long>(r.free), static_cast<long long>(r.bad),
                  static_cast<long long>(r.seenTwice));
    }
    return kExitOk;
  });
}
