// Random deletions from a filled tree: the cost of one deleteKey, rebalancing included.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "lowlevel/btree/btree.h"

namespace {

std::string benchPath() {
  return (std::filesystem::temp_directory_path() / "lowlevel_btree_delete_bench.btr").string();
}

// Arguments: order, number of keys. The tree is refilled (untimed) whenever it has been emptied.
void BM_RandomDelete(benchmark::State& state) {
  const int order = static_cast<int>(state.range(0));
  const int count = static_cast<int>(state.range(1));
  std::vector<int32_t> keys(static_cast<size_t>(count));
  std::iota(keys.begin(), keys.end(), 0);
  std::mt19937 rng(7);
  std::unique_ptr<BTree> tree;
  size_t next = keys.size();
  for (auto _ : state) {
    if (next == keys.size()) {
      state.PauseTiming();
      tree.reset();
      std::filesystem::remove(benchPath());
      tree = std::make_unique<BTree>(benchPath(), order, 4, false, 0, 0, 0);
      std::shuffle(keys.begin(), keys.end(), rng);
      for (int32_t key : keys) tree->insertKey(key, key);
      std::shuffle(keys.begin(), keys.end(), rng);
      next = 0;
      state.ResumeTiming();
    }
    if (!tree->deleteKey(keys[next++])) {
      state.SkipWithError("deleteKey failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
  tree.reset();
  std::filesystem::remove(benchPath());
}

BENCHMARK(BM_RandomDelete)->Args({5, 5000})->Args({16, 5000})->Args({64, 5000});

}  // namespace

BENCHMARK_MAIN();
