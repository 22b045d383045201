// Scanning a command line is linear in its text: a line of 1 MB and one of 2 MB, and lookups in a
// scanned line.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "lowlevel/cmdline/cmdline.h"

namespace {

// A line of about `bytes` bytes mixing bare, quoted and bracketed names and values. The last entry
// is named "last".
std::string MakeLine(size_t bytes) {
  std::string text;
  text.reserve(bytes + 64);
  for (uint32_t i = 0; text.size() < bytes; ++i) {
    const std::string n = std::to_string(i);
    switch (i % 4) {
      case 0: text += "name" + n + "=value" + n + " "; break;
      case 1: text += "\"quoted name " + n + "\"={braced {nested} " + n + "} "; break;
      case 2: text += "<angle " + n + ">=[square " + n + "] "; break;
      default: text += "flag" + n + "  "; break;
    }
  }
  text += "last=end";
  return text;
}

void BM_Scan(benchmark::State& state) {
  const std::string text = MakeLine(static_cast<size_t>(state.range(0)));
  ZCmdLine line(text);
  for (auto _ : state) {
    line.UseSeparator('=');  // the entries must be made afresh
    line.Scan();
  }
  std::string value;
  if (!line.GetValue("last", value) || value != "end") state.SkipWithError("wrong parse");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
  state.SetComplexityN(static_cast<int64_t>(text.size()));
}
// On a shared machine the fastest of several repetitions (--benchmark_repetitions) is the one
// least disturbed by other work, hence the "min" statistic.
BENCHMARK(BM_Scan)
    ->RangeMultiplier(2)
    ->Range(1 << 20, 2 << 20)
    ->Complexity(benchmark::oN)
    ->ComputeStatistics("min",
                        [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); })
    ->Unit(benchmark::kMillisecond);

// A scan of a 1 MB line followed by lookups of its first, a middle and its last entry.
void BM_ScanAndLookUp(benchmark::State& state) {
  const std::string text = MakeLine(1 << 20);
  ZCmdLine line(text);
  std::string value;
  int32_t number = 0;
  for (auto _ : state) {
    line.UseSeparator('=');
    benchmark::DoNotOptimize(line.GetValue("name0", value));
    benchmark::DoNotOptimize(line.GetValue("QUOTED NAME 20001", value));
    benchmark::DoNotOptimize(line.GetLongValue("last", number));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ScanAndLookUp)->Unit(benchmark::kMillisecond);

// A lookup of the last entry of a scanned 1 MB line: a walk over every entry, no parsing.
void BM_LookUpInScannedLine(benchmark::State& state) {
  ZCmdLine line(MakeLine(1 << 20));
  line.Scan();
  std::string value;
  for (auto _ : state) benchmark::DoNotOptimize(line.GetValue("last", value));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_LookUpInScannedLine)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
