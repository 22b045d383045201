// Crash harness: kills and simulated power cuts against crash-safe writers, and the same kills
// against default-mode writers as a measurement.
//
//   crash_harness [--kills N] [--cuts N] [--default-kills N] [--seed S] [--tool PATH] [--dir DIR]
//
// 1. Kills: a child process loads, deletes and replaces keys in crash-safe batches and appends the
//    number of each batch to a side file after commitBatch returns; it is killed with SIGKILL after
//    a random time. The tree must then open, pass the self-test, and hold exactly the entries after
//    the last logged batch (or after the one behind it, committed but not yet logged).
// 2. Power cuts, through the platform seam: the machine stops after the k-th write of a batch, for
//    every k, and only what was made durable survives, plus (by mode) nothing else, the later
//    writes in order with the last one torn, or a random subset of them each torn at a random
//    byte. The tree must open, pass the self-test and hold exactly the entries before the batch.
//    Where a cut leaves a hot journal, the rollback at the next open is cut after each of its
//    writes in turn, and the open after that must still give the entries before the batch.
// 3. The kills of 1 against default-mode writers: how often the tree is unsound afterwards, and
//    (with --tool) how often the tool's `btree repair` makes it sound in place, with how many of
//    the entries, and how many of the entries its `btree salvage` recovers.
// Exit status 0 when every crash-safe outcome held; the figures go to standard output.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btree_journal.h"
#include "lowlevel/platform/io.h"

namespace io = lowlevel::platform;

namespace {

using Model = std::map<std::string, int32_t>;
constexpr int kOrder = 8, kWidth = 12, kOpsPerBatch = 40, kKeySpace = 3000;

std::string keyOf(uint32_t n) {
  char text[16];
  std::snprintf(text, sizeof text, "key%07u", n);
  return text;
}

// Batch `b` of run `seed`: applies its operations to `model`, and to `tree` when given, and
// checks that the tree answers as the model does. False on a disagreement.
bool runBatch(uint64_t seed, int b, Model& model, BTree* tree) {
  std::mt19937_64 rng(seed * 1000003u + static_cast<uint64_t>(b));
  for (int i = 0; i < kOpsPerBatch; ++i) {
    const std::string key = keyOf(static_cast<uint32_t>(rng() % kKeySpace));
    const int32_t value = static_cast<int32_t>(rng() & 0x7fffffff);
    const int kind = static_cast<int>(rng() % 4);  // two inserts for each delete and replace
    const bool present = model.count(key) != 0;
    bool expected, got = true;
    if (kind <= 1) {
      expected = !present;
      if (expected) model[key] = value;
      if (tree != nullptr) got = tree->insertKey(value, key.c_str(), 0);
    } else if (kind == 2) {
      expected = present;
      model.erase(key);
      if (tree != nullptr) got = tree->deleteKey(key.c_str(), 0);
    } else {
      expected = present;
      if (present) model[key] = value;
      if (tree != nullptr) got = tree->replaceValue(value, key.c_str(), 0);
    }
    if (tree != nullptr && got != expected) return false;
  }
  return true;
}

Model modelAfter(uint64_t seed, int batches) {
  Model m;
  for (int b = 0; b < batches; ++b) runBatch(seed, b, m, nullptr);
  return m;
}

std::string g_tool;  // the lowlevel tool, for `btree check` and `btree salvage`; may be empty

// "" when the tree opens, passes the self-test (and the tool's check) and its entries are read
// by the cursor into `out`.
std::string readTree(const std::string& path, Model& out) {
  if (!g_tool.empty() && std::system(("'" + g_tool + "' btree check '" + path + "' >/dev/null 2>&1").c_str()) != 0) {
    BTree t(path, false, 0);  // the check opens read-only: a hot journal is rolled back first
    if (!t.isOk() || std::system(("'" + g_tool + "' btree check '" + path + "' >/dev/null 2>&1").c_str()) != 0)
      return "btree check finds faults";
  }
  BTree t(path, false, 0);
  if (!t.isOk()) return "does not open";
  int32_t keys = 0, pages = 0, back = 0;
  if (!t.test(true, &keys, &pages, &back) || keys != t.getKeyCount()) return "fails the self-test";
  int32_t value = 0;
  for (bool more = t.first(value); more; more = t.next(value)) {
    char key[kWidth + 1] = {};
    int length = kWidth;
    if (!t.getCurrentKey(key, length)) return "cursor fails";
    out[std::string(key, strnlen(key, static_cast<size_t>(length)))] = value;
  }
  if (static_cast<int>(out.size()) != t.getKeyCount()) return "key count differs from the entries";
  return "";
}

void createTree(const std::string& path) {
  std::remove((path + "-journal").c_str());
  std::remove((path + ".log").c_str());
  BTree t(path, kOrder, kWidth, false, 0, 0, 0);
}

// --- 1 and 3: kills ---------------------------------------------------------------------------

[[noreturn]] void child(const std::string& path, uint64_t seed, bool safe) {
  BTree t(path, false, 0);
  if (!t.isOk() || (safe && !t.setCrashSafe(true))) _exit(2);
  Model m;
  FILE* log = std::fopen((path + ".log").c_str(), "w");
  for (int b = 0;; ++b) {
    if (safe && !t.beginBatch()) _exit(2);
    if (!runBatch(seed, b, m, &t)) _exit(3);
    if (safe && !t.commitBatch()) _exit(2);
    std::fprintf(log, "%d\n", b);
    std::fflush(log);
  }
}

int lastLogged(const std::string& path) {
  std::ifstream in(path + ".log");
  int b = -1, last = -1;
  while (in >> b) last = b;
  return last;
}

struct KillFigures {
  int runs = 0, exact = 0, exactNext = 0, failed = 0, unsound = 0;
  int64_t entries = 0, salvaged = 0, salvageRuns = 0;
  int repaired = 0;              // unsound trees that `repair` made sound
  int64_t repairedEntries = 0, repairedKept = 0;  // the last completed batches' entries, kept
};

// How many entries of `done` `got` holds with the same value.
int64_t kept(const Model& done, const Model& got) {
  int64_t same = 0;
  for (const auto& e : done) {
    const auto it = got.find(e.first);
    same += it != got.end() && it->second == e.second;
  }
  return same;
}

bool runTool(const std::string& tool, const std::string& args) {
  return std::system(("'" + tool + "' " + args + " >/dev/null 2>&1").c_str()) == 0;
}

bool killOnce(const std::string& path, uint64_t seed, bool safe, std::mt19937_64& rng,
              const std::string& tool, KillFigures& f) {
  createTree(path);
  const pid_t pid = fork();
  if (pid == 0) child(path, seed, safe);
  std::this_thread::sleep_for(std::chrono::microseconds(2000 + rng() % 150000));
  kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  ++f.runs;
  if (!WIFSIGNALED(status)) {
    std::printf("  seed %llu: the child ended by itself (status %d)\n",
                static_cast<unsigned long long>(seed), status);
    ++f.failed;
    return false;
  }
  const int logged = lastLogged(path);
  const Model done = modelAfter(seed, logged + 1), next = modelAfter(seed, logged + 2);
  f.entries += static_cast<int64_t>(done.size());
  Model got;
  const std::string fault = readTree(path, got);
  if (!safe) {
    if (!fault.empty()) ++f.unsound;
    if (!tool.empty()) {
      const std::string saved = path + ".saved";
      Model rescued;
      if (runTool(tool, "btree salvage '" + path + "' '" + saved + "'") && readTree(saved, rescued).empty()) {
        f.salvaged += kept(done, rescued);
        ++f.salvageRuns;
      }
      Model mended;  // repair works in place, so it comes after salvage has read the original
      if (!fault.empty() && runTool(tool, "btree repair '" + path + "'") && readTree(path, mended).empty()) {
        ++f.repaired;
        f.repairedEntries += static_cast<int64_t>(done.size());
        f.repairedKept += kept(done, mended);
      }
    }
    return true;
  }
  if (fault.empty() && got == done) { ++f.exact; return true; }
  if (fault.empty() && got == next) { ++f.exactNext; return true; }
  std::printf("  seed %llu, %d batches logged: %s\n", static_cast<unsigned long long>(seed),
              logged + 1, fault.empty() ? "entries differ from the last committed batch" : fault.c_str());
  ++f.failed;
  return false;
}

// --- 2: power cuts ------------------------------------------------------------------------------

// A machine that stops after the k-th write. It keeps, for each file, the bytes made durable
// and the writes since the last sync; after the stop every call fails.
class Machine : public io::IoFaultHook {
 public:
  struct Write { int32_t position; std::string bytes; bool cut = false; };  // cut: a truncation
  struct File { std::string durable; std::vector<Write> pending; bool exists = true; };

  Machine(int stopAt, uint64_t seed) : stopAt_(stopAt), rng_(seed) {}
  bool shouldFail(io::IoCall, int) override { return stopped_; }
  void opened(int handle, const char* path, unsigned flags) override {
    names_[handle] = path;
    File& f = files_[path];
    if (files_seen_.insert(path).second) f.durable = readAll(path);  // as synced before the run
    if (flags & io::kOpenTruncate) f = File();  // creation counts as durable: its directory is synced
  }
  void wrote(int handle, int64_t position, const void* data, unsigned count) override {
    File& f = files_[names_[handle]];
    f.pending.push_back({static_cast<int32_t>(position), std::string(static_cast<const char*>(data), count)});
    if (++writes_ == stopAt_) {
      stopped_ = true;
      torn_ = &f.pending.back();
    }
  }
  void synced(int handle) override {
    File& f = files_[names_[handle]];
    for (const Write& w : f.pending) apply(f.durable, w);
    f.pending.clear();
  }
  void truncated(int handle, int32_t length) override {
    files_[names_[handle]].pending.push_back({length, std::string(), true});
  }
  void removed(const char* path) override { files_[path] = File{std::string(), {}, false}; }

  int writes() const { return writes_; }
  // Puts on disk what the power cut leaves: mode 0 the durable bytes alone, 1 the later writes
  // in order with the stopping one torn, 2 a random subset of them, each possibly torn.
  void leave(int mode) {
    if (torn_ != nullptr && !torn_->cut) torn_->bytes.resize(rng_() % (torn_->bytes.size() + 1));
    for (auto& entry : files_) {
      File& f = entry.second;
      if (!f.exists) { std::remove(entry.first.c_str()); continue; }
      std::string bytes = f.durable;
      for (Write w : f.pending) {
        if (mode == 0 || (mode == 2 && rng_() % 2 == 0)) continue;
        if (mode == 2 && !w.cut) w.bytes.resize(rng_() % (w.bytes.size() + 1));
        apply(bytes, w);
      }
      std::ofstream(entry.first, std::ios::binary | std::ios::trunc) << bytes;
    }
  }

 private:
  static std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  static void apply(std::string& file, const Write& w) {
    if (w.cut) { file.resize(static_cast<size_t>(w.position)); return; }
    const size_t end = static_cast<size_t>(w.position) + w.bytes.size();
    if (file.size() < end) file.resize(end);
    file.replace(static_cast<size_t>(w.position), w.bytes.size(), w.bytes);
  }

  int stopAt_, writes_ = 0;
  bool stopped_ = false;
  Write* torn_ = nullptr;
  std::mt19937_64 rng_;
  std::map<int, std::string> names_;
  std::map<std::string, File> files_;
  std::set<std::string> files_seen_;
};

struct CutFigures { int cuts = 0, failed = 0, recoveryCuts = 0; };

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A power cut during the rollback of a hot journal, after each of its writes: the journal must
// stay, and the next open must roll back again. Leaves the files as it found them.
void cutRecovery(const std::string& path, const Model& expected, uint64_t seed, CutFigures& f) {
  const std::string tree = slurp(path), journal = slurp(path + "-journal");
  for (int j = 1;; ++j) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << tree;
    std::ofstream(path + "-journal", std::ios::binary | std::ios::trunc) << journal;
    Machine machine(j, seed + static_cast<uint64_t>(j));
    io::setIoFaultHook(&machine);
    { BTree t(path, false, 0); }
    io::setIoFaultHook(nullptr);
    if (machine.writes() < j) break;
    machine.leave(0);
    ++f.recoveryCuts;
    Model got;
    const std::string fault = readTree(path, got);
    if (fault.empty() && got == expected) continue;
    ++f.failed;
    std::printf("  seed %llu, cut after write %d of a rollback: %s\n", static_cast<unsigned long long>(seed),
                j, fault.empty() ? "entries differ from those before the batch" : fault.c_str());
  }
  std::ofstream(path, std::ios::binary | std::ios::trunc) << tree;
  std::ofstream(path + "-journal", std::ios::binary | std::ios::trunc) << journal;
}

// Batch `b` of `seed` on a tree that holds batches 0..b-1, cut after each of its writes in turn.
void cutBatch(const std::string& path, uint64_t seed, int b, size_t spill, CutFigures& f) {
  createTree(path);
  {
    BTree t(path, false, 0);
    Model m;
    for (int i = 0; i < b; ++i) runBatch(seed, i, m, &t);
  }
  const std::string before = slurp(path);
  const Model expected = modelAfter(seed, b);
  BTreeJournal::spillBytes = spill;
  for (int k = 1;; ++k) {
    for (int mode = 0; mode < 3; ++mode) {
      std::ofstream(path, std::ios::binary | std::ios::trunc) << before;
      Machine machine(k, seed ^ static_cast<uint64_t>(k * 3 + mode));
      io::setIoFaultHook(&machine);
      {
        BTree t(path, false, 0);
        Model scratch = expected;
        if (t.setCrashSafe(true) && t.beginBatch()) {
          runBatch(seed, b, scratch, &t);
          t.commitBatch();
        }
      }
      io::setIoFaultHook(nullptr);
      if (machine.writes() < k) {  // no k-th write: the batch committed whole
        BTreeJournal::spillBytes = 8u << 20;
        Model got;
        const std::string fault = readTree(path, got);
        if (fault.empty() && got == modelAfter(seed, b + 1)) return;
        ++f.failed;
        std::printf("  seed %llu batch %d without a cut: %s\n", static_cast<unsigned long long>(seed),
                    b, fault.empty() ? "entries differ from those after the batch" : fault.c_str());
        return;
      }
      machine.leave(mode);
      ++f.cuts;
      if (mode == 1 && access((path + "-journal").c_str(), F_OK) == 0) cutRecovery(path, expected, seed, f);
      Model got;
      const std::string fault = readTree(path, got);
      if (fault.empty() && got == expected && access((path + "-journal").c_str(), F_OK) != 0) continue;
      ++f.failed;
      std::printf("  seed %llu batch %d, cut after write %d, mode %d: %s\n",
                  static_cast<unsigned long long>(seed), b, k, mode,
                  fault.empty() ? "entries differ from those before the batch" : fault.c_str());
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  int kills = 20, cuts = 4, defaultKills = 10;
  uint64_t seed = 1;
  std::string tool, dir = "/tmp";
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string a = argv[i], v = argv[i + 1];
    if (a == "--kills") kills = std::atoi(v.c_str());
    else if (a == "--cuts") cuts = std::atoi(v.c_str());
    else if (a == "--default-kills") defaultKills = std::atoi(v.c_str());
    else if (a == "--seed") seed = std::strtoull(v.c_str(), nullptr, 10);
    else if (a == "--tool") tool = g_tool = v;
    else if (a == "--dir") dir = v;
  }
  const std::string path = dir + "/crash_harness_" + std::to_string(getpid()) + ".btr";
  std::mt19937_64 rng(seed);

  KillFigures safe;
  for (int i = 0; i < kills; ++i) killOnce(path, seed + static_cast<uint64_t>(i), true, rng, "", safe);
  std::printf("crash-safe kills: %d runs, %d at the last logged batch, %d one batch further "
              "(committed, not yet logged), %d wrong\n",
              safe.runs, safe.exact, safe.exactNext, safe.failed);

  CutFigures cut;
  for (int i = 0; i < cuts; ++i) {
    cutBatch(path, seed + static_cast<uint64_t>(i), 3 + i % 5, i % 2 == 0 ? 8u << 20 : 2048, cut);
  }
  std::printf("crash-safe power cuts: %d cuts (every write of %d batches, three ways each) and %d "
              "cuts of the rollbacks they left, %d wrong\n", cut.cuts, cuts, cut.recoveryCuts, cut.failed);

  KillFigures plain;
  for (int i = 0; i < defaultKills; ++i) {
    killOnce(path, seed + static_cast<uint64_t>(i), false, rng, tool, plain);
  }
  std::printf("default-mode kills: %d runs, %d left a tree that fails to open or its self-test",
              plain.runs, plain.unsound);
  if (!tool.empty()) {
    std::printf("; repair made %d of them sound in place, keeping %lld of their %lld entries of the "
                "last completed batches", plain.repaired, static_cast<long long>(plain.repairedKept),
                static_cast<long long>(plain.repairedEntries));
  }
  if (plain.salvageRuns > 0) {
    std::printf("; salvage recovered %lld of %lld entries of the last completed batches",
                static_cast<long long>(plain.salvaged), static_cast<long long>(plain.entries));
  }
  std::printf("\n");
  for (const char* suffix : {"", "-journal", ".log", ".base", ".saved", ".saved-journal"})
    std::remove((path + suffix).c_str());
  return safe.failed == 0 && cut.failed == 0 ? 0 : 1;
}
