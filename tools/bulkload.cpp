#include "tools/bulkload.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <queue>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"
#include "tools/tool.h"

namespace {

struct Record {
  std::string slot;  // what the tree stores: the sort key
  std::string key;   // what the caller gave
  int32_t value = 0;
  int64_t line = 0;  // ties keep input order
  bool operator<(const Record& o) const { return slot != o.slot ? slot < o.slot : line < o.line; }
};

// Rough bytes of a record in memory (two strings and their heap buffers).
int64_t footprint(const Record& r) {
  return static_cast<int64_t>(sizeof(Record) + r.slot.size() + r.key.size()) + 32;
}

void put(std::ostream& out, const Record& r) {
  const uint32_t sizes[2] = {static_cast<uint32_t>(r.slot.size()), static_cast<uint32_t>(r.key.size())};
  out.write(reinterpret_cast<const char*>(sizes), sizeof sizes);
  out.write(r.slot.data(), static_cast<std::streamsize>(r.slot.size()));
  out.write(r.key.data(), static_cast<std::streamsize>(r.key.size()));
  out.write(reinterpret_cast<const char*>(&r.value), sizeof r.value);
  out.write(reinterpret_cast<const char*>(&r.line), sizeof r.line);
}

bool get(std::istream& in, Record& r) {
  uint32_t sizes[2];
  if (!in.read(reinterpret_cast<char*>(sizes), sizeof sizes)) return false;
  r.slot.resize(sizes[0]);
  r.key.resize(sizes[1]);
  in.read(&r.slot[0], sizes[0]);
  in.read(&r.key[0], sizes[1]);
  in.read(reinterpret_cast<char*>(&r.value), sizeof r.value);
  return static_cast<bool>(in.read(reinterpret_cast<char*>(&r.line), sizeof r.line));
}

// The sorted runs of an external sort, in temporary files that go with the object.
class Runs {
 public:
  explicit Runs(const std::string& base) : base_(base) {}
  ~Runs() {
    for (const std::string& name : names_) std::remove(name.c_str());
  }
  std::string next() {
    names_.push_back(base_ + ".load" + std::to_string(names_.size()));
    return names_.back();
  }
  const std::vector<std::string>& names() const { return names_; }

 private:
  std::string base_;
  std::vector<std::string> names_;
};

// Merges sorted runs (files, then the sorted records in memory) and drops every record whose slot
// equals the one before (a key the tree holds once), counting it in `repeated`.
class Merge {
 public:
  Merge(const std::vector<std::string>& files, std::vector<Record>& memory) : memory_(memory) {
    for (const std::string& name : files) {
      streams_.emplace_back(new std::ifstream(name, std::ios::binary));
    }
    heads_.resize(streams_.size() + 1);  // the heap points into it: it must not move
    for (size_t i = 0; i <= streams_.size(); ++i) advance(i);
  }
  bool next(Record& out, int64_t& repeated) {
    while (!heap_.empty()) {
      const size_t source = heap_.top().second;
      heap_.pop();
      out = std::move(heads_[source]);
      advance(source);
      if (started_ && out.slot == last_) {
        ++repeated;
        continue;
      }
      started_ = true;
      last_ = out.slot;
      return true;
    }
    return false;
  }

 private:
  void advance(size_t source) {
    Record& r = heads_[source];
    bool got;
    if (source < streams_.size()) {
      got = get(*streams_[source], r);
    } else {
      got = at_ < memory_.size();
      if (got) r = std::move(memory_[at_++]);
    }
    if (got) heap_.push({&r, source});
  }
  struct Later {
    bool operator()(const std::pair<Record*, size_t>& a, const std::pair<Record*, size_t>& b) const {
      return *b.first < *a.first;
    }
  };
  std::vector<std::unique_ptr<std::ifstream>> streams_;
  std::vector<Record>& memory_;
  size_t at_ = 0;
  std::vector<Record> heads_;
  std::priority_queue<std::pair<Record*, size_t>, std::vector<std::pair<Record*, size_t>>, Later> heap_;
  bool started_ = false;
  std::string last_;
};

}  // namespace

bool bulkLoadApplies(BTree& tree) {
  return tree.getKeyCount() == 0 && tree.getVersion() == 0x00010400 && !tree.isCompressed();
}

int bulkLoad(bool json, std::unique_ptr<BTree> tree, const std::string& file,
             const std::string& path, std::istream& in, const std::string& inputName,
             const BulkLoadOptions& options) {
  BTreeBulkShape shape;
  shape.order = tree->getOrder();
  shape.keyLength = tree->getKeyLength();
  shape.duplicates = tree->hasDuplicates();
  tree->getLCIDandMapFlags(shape.lcid, shape.mapFlags);
  tree->getSpaceConversion(shape.spaceConversion);
  shape.fillPercent = options.fillPercent;
  const KeyForm form = options.longKeys ? KeyForm::Long : options.hex ? KeyForm::Hex : KeyForm::Text;

  Runs runs(path);
  std::vector<Record> memory;
  int64_t held = 0, lineNo = 0;
  std::string last;  // the slot of the line before, for --sorted
  bool first = true;
  auto spill = [&]() {
    if (!options.sorted) std::sort(memory.begin(), memory.end());
    std::ofstream out(runs.next(), std::ios::binary | std::ios::trunc);
    for (const Record& r : memory) put(out, r);
    memory.clear();
    held = 0;
    return static_cast<bool>(out.flush());
  };
  std::string line;
  while (std::getline(in, line)) {
    ++lineNo;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    const size_t tab = line.find('\t');
    Record r;
    if (tab == std::string::npos || !parseInt32(line.substr(tab + 1), &r.value)) {
      return fail(kExitUsage, inputName + ":" + std::to_string(lineNo) + ": expected KEY<TAB>VALUE");
    }
    std::string error;
    int32_t number = 0;
    if (!parseKey(line.substr(0, tab), form, &r.key, &number, &error)) {
      return fail(kExitUsage, inputName + ":" + std::to_string(lineNo) + ": " + error);
    }
    if (options.longKeys) {
      const uint32_t u = static_cast<uint32_t>(number);  // stored big-endian by this version
      r.key = {static_cast<char>(u >> 24), static_cast<char>(u >> 16), static_cast<char>(u >> 8),
               static_cast<char>(u)};
    }
    r.slot = btreeKeySlot(*tree, r.key.data(), static_cast<int>(r.key.size()), r.value);
    r.line = lineNo;
    if (options.sorted) {
      if (!first && r.slot < last) {
        return fail(kExitUsage, inputName + ":" + std::to_string(lineNo) + ": not in order (--sorted)");
      }
      first = false;
      last = r.slot;
    }
    held += footprint(r);
    memory.push_back(std::move(r));
    if (held > options.memoryBytes && !spill()) return fail(kExitIo, "cannot write beside " + file);
  }
  if (!options.sorted) std::sort(memory.begin(), memory.end());
  tree.reset();  // the file is built anew

  // One merged, de-duplicated pass counts the entries; with runs on disk it goes to one more file
  // so that the builder, which needs the count first, reads it once.
  int64_t count = 0, repeated = 0;
  std::vector<Record> merged;
  std::string mergedName;
  {
    Merge merge(runs.names(), memory);
    Record r;
    if (runs.names().empty()) {
      while (merge.next(r, repeated)) merged.push_back(std::move(r));
      count = static_cast<int64_t>(merged.size());
    } else {
      mergedName = runs.next();
      std::ofstream out(mergedName, std::ios::binary | std::ios::trunc);
      while (merge.next(r, repeated)) {
        put(out, r);
        ++count;
      }
      if (!out.flush()) return fail(kExitIo, "cannot write beside " + file);
    }
  }
  std::ifstream mergedIn;
  if (!mergedName.empty()) mergedIn.open(mergedName, std::ios::binary);
  size_t at = 0;
  Record current;
  auto source = [&](BTreeBulkEntry& e) {
    if (mergedName.empty()) {
      if (at >= merged.size()) return false;
      current = std::move(merged[at++]);
    } else if (!get(mergedIn, current)) {
      return false;
    }
    e.key = current.key.data();
    e.length = static_cast<int>(current.key.size());
    e.value = current.value;
    return true;
  };
  int64_t failed = -1;
  if (!bulkBuildBTree(path, shape, count, source, &failed)) {
    return fail(kExitIo, "cannot build B-tree " + file);
  }
  if (json) {
    printJson({{"file", file}, {"added", count}, {"refused", repeated}, {"keys", count}});
  } else {
    std::printf("%s: %lld added, %lld refused (present already or failed), %lld keys\n", file.c_str(),
                static_cast<long long>(count), static_cast<long long>(repeated),
                static_cast<long long>(count));
  }
  return kExitOk;
}
