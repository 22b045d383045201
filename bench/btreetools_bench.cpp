// Lookups and cursor walks on one tree in its four forms: as grown by insertions and deletions,
// compressed, ordered and repacked. Each benchmark reports the form's size on disk per key
// (counter "bytes_per_key") and the system calls per operation ("syscalls"). The copying tools
// themselves are timed as well.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"
#include "lowlevel/platform/io.h"

namespace {

constexpr int kKeyLength = 32;
constexpr int kOrder = 16;
constexpr int kInserted = 60000;

std::string benchPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() / ("lowlevel_btreetools_bench_" + name + ".btr"))
      .string();
}

// Text keys of 4 to 24 letters: the kind of key that leaves most of a wide slot empty.
std::vector<std::string> randomKeys(int count, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<std::string> keys(static_cast<size_t>(count));
  for (std::string& key : keys) {
    key.resize(4 + rng() % 21);
    for (char& c : key) c = static_cast<char>('a' + rng() % 26);
  }
  return keys;
}

enum Form { kSource, kCompressed, kOrdered, kRepacked };
const char* const kNames[] = {"source", "compressed", "ordered", "repacked"};

// Builds the source once (every key inserted, every third deleted) and its three copies.
struct Trees {
  std::vector<std::string> keys;  // the keys still in the tree
  Trees() {
    std::vector<std::string> all = randomKeys(kInserted, 7);
    std::filesystem::remove(benchPath(kNames[kSource]));
    {
      BTree tree(benchPath(kNames[kSource]), kOrder, kKeyLength, false, 0, 0, 0);
      for (size_t i = 0; i < all.size(); ++i) {
        if (tree.insertKey(static_cast<int32_t>(i), all[i].data(), 0) && i % 3 != 0) {
          keys.push_back(all[i]);
        }
      }
      for (size_t i = 0; i < all.size(); i += 3) tree.deleteKey(all[i].data(), 0);
    }
    compressBTree(path(kSource), path(kCompressed));
    orderBTree(path(kSource), path(kOrdered));
    repackBTree(path(kSource), path(kRepacked), kOrder);
  }
  static std::string path(Form form) { return benchPath(kNames[form]); }
};

Trees& trees() {
  static Trees instance;
  return instance;
}

void report(benchmark::State& state, Form form, int64_t operations, uint64_t calls) {
  BTree tree(Trees::path(form), true, 0);
  const double keys = tree.getKeyCount() > 0 ? tree.getKeyCount() : 1;
  state.SetItemsProcessed(operations);
  state.counters["bytes_per_key"] =
      static_cast<double>(std::filesystem::file_size(Trees::path(form))) / keys;
  state.counters["syscalls"] =
      benchmark::Counter(operations > 0 ? static_cast<double>(calls) / operations : 0.0);
}

void BM_Find(benchmark::State& state) {
  const Form form = static_cast<Form>(state.range(0));
  const std::vector<std::string>& keys = trees().keys;
  BTree tree(Trees::path(form), true, 0);
  std::mt19937 rng(3);
  int64_t operations = 0;
  const uint64_t before = lowlevel::platform::ioCounters().total();
  for (auto _ : state) {
    int32_t value = 0;
    const std::string& key = keys[rng() % keys.size()];
    benchmark::DoNotOptimize(tree.find(value, key.data(), 0));
    ++operations;
  }
  report(state, form, operations, lowlevel::platform::ioCounters().total() - before);
  state.SetLabel(kNames[form]);
}
BENCHMARK(BM_Find)->DenseRange(kSource, kRepacked);

void BM_Walk(benchmark::State& state) {
  const Form form = static_cast<Form>(state.range(0));
  trees();
  BTree tree(Trees::path(form), true, 0);
  int64_t operations = 0;
  const uint64_t before = lowlevel::platform::ioCounters().total();
  for (auto _ : state) {
    int32_t value = 0;
    for (bool more = tree.first(value); more; more = tree.next(value)) ++operations;
  }
  report(state, form, operations, lowlevel::platform::ioCounters().total() - before);
  state.SetLabel(kNames[form]);
}
BENCHMARK(BM_Walk)->DenseRange(kSource, kRepacked)->Unit(benchmark::kMillisecond);

void BM_Copy(benchmark::State& state) {
  const Form form = static_cast<Form>(state.range(0));
  trees();
  const std::string source = Trees::path(kSource), target = benchPath("copy");
  for (auto _ : state) {
    bool ok = form == kCompressed ? compressBTree(source, target)
              : form == kOrdered  ? orderBTree(source, target)
                                  : repackBTree(source, target, kOrder);
    benchmark::DoNotOptimize(ok);
  }
  state.SetLabel(kNames[form]);
}
BENCHMARK(BM_Copy)->DenseRange(kCompressed, kRepacked)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
