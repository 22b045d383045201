// Sort-key conversions of 16-byte keys per second, as a tree with a locale mapping makes them.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "lowlevel/platform/lcmap.h"

namespace {

using namespace lowlevel::platform;

std::vector<std::string> makeKeys() {
  std::mt19937 random(42);
  const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ \xE9\xE8\xFC";
  std::vector<std::string> keys(1024);
  for (std::string& key : keys) {
    for (int i = 0; i < 16; ++i) key.push_back(letters[random() % letters.size()]);
  }
  return keys;
}

// The size call followed by the fill call, for each key in turn.
void sortKeyPair(benchmark::State& state) {
  const uint32_t flags = static_cast<uint32_t>(state.range(0));
  std::vector<std::string> keys = makeKeys();
  char out[256];
  size_t next = 0;
  for (auto _ : state) {
    const std::string& key = keys[next++ % keys.size()];
    int size = lcMapString(0x0409, flags, key.data(), 16, nullptr, 0);
    benchmark::DoNotOptimize(lcMapString(0x0409, flags, key.data(), 16, out, size));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(sortKeyPair)->Arg(kLcmapSortKey)->Arg(kLcmapSortKey | kNormIgnoreCase);

// One fill call per key.
void sortKeyFill(benchmark::State& state) {
  std::vector<std::string> keys = makeKeys();
  char out[256];
  size_t next = 0;
  for (auto _ : state) {
    const std::string& key = keys[next++ % keys.size()];
    benchmark::DoNotOptimize(lcMapString(0x0409, kLcmapSortKey, key.data(), 16, out, sizeof out));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(sortKeyFill);

}  // namespace

BENCHMARK_MAIN();
