// Reading a compressed file through ZCompressedFileBase against the practical limit: decompressing
// the same file with libzstd in one pass. Sequential and random 4 KiB reads; bytes per second.
#include <benchmark/benchmark.h>
#include <zstd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "compression/seekable_writer.h"
#include "lowlevel/files/cmpfilbs.h"

namespace {

constexpr int kFileBytes = 32 << 20;

// A 32 MiB file of text-like data (compresses about 3:1), packed with 64 KiB chunks.
const std::string& packedPath() {
  static std::string path;
  if (!path.empty()) return path;
  std::mt19937 rng(7);
  const char* words[] = {"index ", "volume ", "chunk ", "page ", "key ", "value ", "tree ", "file ",
                         "seek ", "read ", "cache ", "offset "};
  std::string data;
  data.reserve(kFileBytes);
  while (data.size() < static_cast<size_t>(kFileBytes)) {
    data += words[rng() % 12];
    if (rng() % 7 == 0) data += std::to_string(rng() % 100000) + "\n";
  }
  data.resize(kFileBytes);
  std::string packed, error;
  lowlevel::compression::SeekableWriteOptions options;
  if (!lowlevel::compression::compressToSeekable(data, options, &packed, &error)) std::abort();
  char name[] = "/tmp/lowlevel-bench-XXXXXX";
  int fd = mkstemp(name);
  if (fd < 0 || write(fd, packed.data(), packed.size()) != static_cast<ssize_t>(packed.size())) std::abort();
  close(fd);
  path = name;
  std::atexit([] { std::remove(packedPath().c_str()); });
  return path;
}

std::string readRaw(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  std::string s;
  char buf[1 << 16];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
  std::fclose(f);
  return s;
}

// The limit: one streaming decompression of the whole file (the seek table is a skippable frame).
void BM_OnePassZstd(benchmark::State& state) {
  std::string raw = readRaw(packedPath());
  std::vector<char> out(kFileBytes);
  ZSTD_DCtx* dctx = ZSTD_createDCtx();
  for (auto _ : state) {
    ZSTD_inBuffer in{raw.data(), raw.size(), 0};
    ZSTD_outBuffer o{out.data(), out.size(), 0};
    ZSTD_DCtx_reset(dctx, ZSTD_reset_session_only);
    while (in.pos < in.size) {
      size_t r = ZSTD_decompressStream(dctx, &o, &in);
      if (ZSTD_isError(r)) state.SkipWithError("zstd failed");
      if (ZSTD_isError(r)) break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  ZSTD_freeDCtx(dctx);
  state.SetBytesProcessed(state.iterations() * kFileBytes);
}
BENCHMARK(BM_OnePassZstd)->Unit(benchmark::kMillisecond);

void BM_SequentialReads4K(benchmark::State& state) {
  std::vector<char> buf(4096);
  for (auto _ : state) {
    ZCompressedFileBase file(packedPath(), 0x8000, 0);
    int64_t total = 0;
    int n;
    while ((n = file.Read(buf.data(), 4096)) > 0) total += n;
    if (total != kFileBytes) state.SkipWithError("short read");
  }
  state.SetBytesProcessed(state.iterations() * kFileBytes);
}
BENCHMARK(BM_SequentialReads4K)->Unit(benchmark::kMillisecond);

void BM_RandomReads4K(benchmark::State& state) {
  ZCompressedFileBase file(packedPath(), 0x8000, 0);
  std::mt19937 rng(11);
  std::vector<char> buf(4096);
  for (auto _ : state) {
    file.Seek(static_cast<int32_t>(rng() % (kFileBytes - 4096)), 0);
    if (file.Read(buf.data(), 4096) != 4096) state.SkipWithError("short read");
  }
  state.SetBytesProcessed(state.iterations() * 4096);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RandomReads4K);

}  // namespace

BENCHMARK_MAIN();
