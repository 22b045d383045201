// Insertion, lookups and cursor walks on trees of random 16-byte keys, with the number of system
// calls each operation costs (counter "syscalls").
//
// The million-key insertions take minutes; leave them out with
//   --benchmark_filter='-BM_InsertMillion'
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/platform/io.h"

namespace {

constexpr int kKeyLength = 16;
constexpr int kTreeKeys = 100000;

std::string benchPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() / ("lowlevel_btree_bench_" + name + ".btr"))
      .string();
}

// `count` random keys of 16 bytes (any byte values), the same for the same seed.
std::vector<std::string> randomKeys(int count, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<std::string> keys(static_cast<size_t>(count), std::string(kKeyLength, '\0'));
  for (std::string& key : keys)
    for (char& c : key) c = static_cast<char>(rng());
  return keys;
}

uint64_t ioCalls() { return lowlevel::platform::ioCounters().total(); }

void setRates(benchmark::State& state, int64_t operations, uint64_t calls) {
  state.SetItemsProcessed(operations);
  state.counters["syscalls"] =
      benchmark::Counter(operations > 0 ? static_cast<double>(calls) / operations : 0.0);
}

std::unique_ptr<BTree> createTree(const std::string& path, int order) {
  std::filesystem::remove(path);
  return std::make_unique<BTree>(path, order, kKeyLength, false, 0, 0, 0);
}

// Arguments: order, number of keys inserted into a new tree.
void insertRun(benchmark::State& state) {
  const int order = static_cast<int>(state.range(0));
  const int count = static_cast<int>(state.range(1));
  const std::vector<std::string> keys = randomKeys(count, 1);
  const std::string path = benchPath("insert");
  uint64_t calls = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<BTree> tree = createTree(path, order);
    const uint64_t before = ioCalls();
    state.ResumeTiming();
    for (int i = 0; i < count; ++i) tree->insertKey(i, keys[static_cast<size_t>(i)].data(), kKeyLength);
    state.PauseTiming();
    calls += ioCalls() - before;
    if (tree->getKeyCount() != count) state.SkipWithError("keys missing after insertion");
    tree.reset();
    state.ResumeTiming();
  }
  setRates(state, state.iterations() * count, calls);
  std::filesystem::remove(path);
}

void BM_Insert(benchmark::State& state) { insertRun(state); }
void BM_InsertMillion(benchmark::State& state) { insertRun(state); }

// A filled tree of kTreeKeys keys per order, built once and kept for the lookup benchmarks.
struct Filled {
  std::string path;
  std::unique_ptr<BTree> tree;
  std::vector<std::string> present;
  ~Filled() {
    tree.reset();
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove(path, ignored);
  }
};
Filled& filled(int order) {
  static std::map<int, Filled> trees;
  Filled& f = trees[order];
  if (!f.tree) {
    f.present = randomKeys(kTreeKeys, 2);
    f.path = benchPath("lookup" + std::to_string(order));
    f.tree = createTree(f.path, order);
    for (int i = 0; i < kTreeKeys; ++i)
      f.tree->insertKey(i, f.present[static_cast<size_t>(i)].data(), kKeyLength);
  }
  return f;
}

void BM_FindPresent(benchmark::State& state) {
  Filled& f = filled(static_cast<int>(state.range(0)));
  std::mt19937 rng(3);
  const uint64_t before = ioCalls();
  int32_t value = 0;
  for (auto _ : state) {
    const std::string& key = f.present[rng() % f.present.size()];
    if (!f.tree->find(value, key.data(), kKeyLength)) state.SkipWithError("key not found");
  }
  setRates(state, state.iterations(), ioCalls() - before);
}

void BM_FindAbsent(benchmark::State& state) {
  Filled& f = filled(static_cast<int>(state.range(0)));
  const std::vector<std::string> absent = randomKeys(4096, 4);
  size_t next = 0;
  const uint64_t before = ioCalls();
  int32_t value = 0;
  for (auto _ : state) {
    const std::string& key = absent[next++ % absent.size()];
    benchmark::DoNotOptimize(f.tree->find(value, key.data(), kKeyLength));
  }
  setRates(state, state.iterations(), ioCalls() - before);
}

void BM_CursorWalk(benchmark::State& state) {
  Filled& f = filled(static_cast<int>(state.range(0)));
  const uint64_t before = ioCalls();
  int64_t steps = 0;
  for (auto _ : state) {
    int32_t value = 0;
    for (bool more = f.tree->first(value); more; more = f.tree->next(value)) ++steps;
    if (steps % kTreeKeys != 0) state.SkipWithError("walk missed keys");
  }
  setRates(state, steps, ioCalls() - before);
}

void BM_FindGreaterOrEqual(benchmark::State& state) {
  Filled& f = filled(static_cast<int>(state.range(0)));
  const std::vector<std::string> probes = randomKeys(4096, 5);
  size_t next = 0;
  const uint64_t before = ioCalls();
  int32_t value = 0;
  for (auto _ : state) {
    const std::string& key = probes[next++ % probes.size()];
    benchmark::DoNotOptimize(f.tree->findGreaterThanOrEqual(value, key.data(), kKeyLength));
  }
  setRates(state, state.iterations(), ioCalls() - before);
}

BENCHMARK(BM_Insert)
    ->ArgsProduct({{16, 64, 256}, {100000}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InsertMillion)
    ->ArgsProduct({{16, 64, 256}, {1000000}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FindPresent)->Arg(16)->Arg(64)->Arg(256);
BENCHMARK(BM_FindAbsent)->Arg(16)->Arg(64)->Arg(256);
BENCHMARK(BM_CursorWalk)->Arg(16)->Arg(64)->Arg(256)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FindGreaterOrEqual)->Arg(16)->Arg(64)->Arg(256);

}  // namespace

BENCHMARK_MAIN();
