// The cost of crash-safe mode: batches of 1 000 inserts in the default and the crash-safe mode, and
// single inserts, each its own durable batch, beside SQLite with a rollback journal
// (journal_mode=DELETE) and synchronous=FULL, one transaction per insert.
//
// Files go to $LOWLEVEL_BENCH_DIR (default /tmp); durability costs depend on its file system.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

#include "lowlevel/btree/btree.h"
#ifdef LOWLEVEL_HAVE_SQLITE
#include <sqlite3.h>
#endif

namespace {

constexpr int kOrder = 64, kWidth = 16, kPrefill = 10000;

std::string dir() {
  const char* d = std::getenv("LOWLEVEL_BENCH_DIR");
  return d != nullptr ? d : "/tmp";
}

// The n-th key: a scrambled number, so inserts land all over the tree.
std::string keyOf(uint32_t n) {
  char text[24];
  std::snprintf(text, sizeof text, "%010u", (n * 2654435761u) ^ 0x5bd1e995u);
  return text;
}

void removeTree(const std::string& path) {
  std::remove(path.c_str());
  std::remove((path + "-journal").c_str());
}

// A tree of kPrefill keys; the benchmarks insert behind them.
std::string prefilledTree(const char* name) {
  const std::string path = dir() + "/" + name;
  removeTree(path);
  BTree t(path, kOrder, kWidth, false, 0, 0, 0);
  for (uint32_t i = 0; i < kPrefill; ++i) t.insertKey(static_cast<int32_t>(i), keyOf(i).c_str(), 0);
  return path;
}

// Arg 0: default mode; 1: crash-safe, the 1 000 inserts in one batch. Second arg: 1 with the
// page cache on at its default size (as the tool runs), 0 with it off (the library's default).
void BM_Batch1000Inserts(benchmark::State& state) {
  const bool safe = state.range(0) == 1;
  setBTreePageCacheSize(state.range(1) == 1 ? kBTreePageCacheDefaultSize : 0);
  const std::string path = prefilledTree(safe ? "bench-batch-safe.btr" : "bench-batch-plain.btr");
  {
    BTree t(path, false, 0);
    if (safe && !t.setCrashSafe(true)) state.SkipWithError("no crash-safe mode");
    uint32_t next = kPrefill;
    for (auto _ : state) {
      if (safe) t.beginBatch();
      for (int i = 0; i < 1000; ++i, ++next) t.insertKey(static_cast<int32_t>(next), keyOf(next).c_str(), 0);
      if (safe && !t.commitBatch()) state.SkipWithError("commit failed");
    }
    state.SetItemsProcessed(state.iterations() * 1000);
  }
  removeTree(path);
  setBTreePageCacheSize(0);
}
// A fixed count of batches, so that both modes insert into trees of the same sizes (from 10 000
// to 60 000 keys); left to itself, the benchmark would run more batches of the mode that uses less
// CPU and measure it on a larger tree.
BENCHMARK(BM_Batch1000Inserts)->ArgsProduct({{0, 1}, {0, 1}})->Iterations(50)->UseRealTime()->Unit(benchmark::kMillisecond);

// Arg 0: default mode (nothing made durable); 1: crash-safe, each insert a durable batch.
void BM_SingleInsert(benchmark::State& state) {
  const bool safe = state.range(0) == 1;
  const std::string path = prefilledTree(safe ? "bench-one-safe.btr" : "bench-one-plain.btr");
  {
    BTree t(path, false, 0);
    if (safe && !t.setCrashSafe(true)) state.SkipWithError("no crash-safe mode");
    uint32_t next = kPrefill;
    for (auto _ : state) {
      if (!t.insertKey(static_cast<int32_t>(next), keyOf(next).c_str(), 0)) state.SkipWithError("insert failed");
      ++next;
    }
    state.SetItemsProcessed(state.iterations());
  }
  removeTree(path);
}
BENCHMARK(BM_SingleInsert)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

#ifdef LOWLEVEL_HAVE_SQLITE
void BM_SqliteSingleInsert(benchmark::State& state) {
  const std::string path = dir() + "/bench-one.sqlite";
  std::remove(path.c_str());
  std::remove((path + "-journal").c_str());
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_exec(db,
               "PRAGMA journal_mode=DELETE; PRAGMA synchronous=FULL;"
               "CREATE TABLE t(k BLOB PRIMARY KEY, v INTEGER) WITHOUT ROWID;",
               nullptr, nullptr, nullptr);
  sqlite3_stmt* put = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO t VALUES(?, ?)", -1, &put, nullptr);
  auto insert = [&](uint32_t n) {
    const std::string k = keyOf(n);
    sqlite3_bind_blob(put, 1, k.data(), kWidth, SQLITE_TRANSIENT);
    sqlite3_bind_int(put, 2, static_cast<int>(n));
    const bool ok = sqlite3_step(put) == SQLITE_DONE;
    sqlite3_reset(put);
    return ok;
  };
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  for (uint32_t i = 0; i < kPrefill; ++i) insert(i);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  uint32_t next = kPrefill;
  for (auto _ : state) {
    if (!insert(next++)) state.SkipWithError("insert failed");  // one transaction each
  }
  state.SetItemsProcessed(state.iterations());
  sqlite3_finalize(put);
  sqlite3_close(db);
  std::remove(path.c_str());
}
BENCHMARK(BM_SqliteSingleInsert)->Unit(benchmark::kMicrosecond);
#endif

}  // namespace

BENCHMARK_MAIN();
