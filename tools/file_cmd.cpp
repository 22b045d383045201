// `lowlevel pack`, `unpack` and `cat`: compressed files in the seekable zstd format.
#include <cstdio>
#include <vector>

#include "compression/seekable_writer.h"
#include "lowlevel/files/file.h"
#include "tools/tool.h"

namespace {

struct PackOptions {
  std::string src, dst;
  uint32_t chunkSize = 65536;
  int level = 3;
  bool noChecksums = false;
};

int runPack(ToolContext& ctx, const PackOptions& o) {
  lowlevel::compression::SeekableWriteOptions options;
  options.chunkSize = o.chunkSize;
  options.level = o.level;
  options.checksums = !o.noChecksums;
  if (o.chunkSize == 0) return fail(kExitUsage, "--chunk-size must be above 0");
  std::string error;
  Progress progress("packing " + o.src, -1);
  progress.update(0);
  if (!lowlevel::compression::compressFileToSeekable(o.src, o.dst, options, &error)) {
    return fail(kExitIo, "pack " + o.src + ": " + error);
  }
  if (ctx.json) printJson({{"source", o.src}, {"target", o.dst}, {"chunkSize", o.chunkSize}, {"level", o.level}});
  else std::printf("packed %s -> %s\n", o.src.c_str(), o.dst.c_str());
  return kExitOk;
}

// Copies a file read through the transparent decompression to `out`.
int copyExpanded(const std::string& src, FILE* out, const std::string& outName) {
  ZFile in(locate(src), 0x8000, 0);
  if (!in.IsOpen()) return fail(kExitIo, cannotOpen(src, locate(src)));
  int32_t length = in.Length();
  Progress progress("reading " + src, length);
  std::vector<char> buffer(1 << 16);
  int64_t done = 0;
  for (;;) {
    int n = in.Read(buffer.data(), static_cast<int>(buffer.size()));
    if (n < 0) return fail(kExitIo, "read error in " + src);
    if (n == 0) break;
    if (std::fwrite(buffer.data(), 1, static_cast<size_t>(n), out) != static_cast<size_t>(n)) {
      return fail(kExitIo, "cannot write " + outName);
    }
    done += n;
    progress.update(done);
  }
  if (length >= 0 && done != length) {
    return fail(kExitIo, src + ": read " + std::to_string(done) + " of " + std::to_string(length) +
                             " bytes (damaged compressed data?)");
  }
  return kExitOk;
}

}  // namespace

void addFileCommands(CLI::App& app, ToolContext& ctx) {
  static PackOptions pack;
  CLI::App* p = app.add_subcommand("pack", "compress a file into the seekable zstd format");
  p->add_option("SRC", pack.src)->required();
  p->add_option("DST", pack.dst)->required();
  p->add_option("--chunk-size", pack.chunkSize, "bytes of input per independently readable chunk (default 65536)");
  p->add_option("--level", pack.level, "zstd compression level (default 3)");
  p->add_flag("--no-checksums", pack.noChecksums, "leave out the per-chunk checksums");
  p->footer("Example: lowlevel pack index.btr index.btr.zst --chunk-size 16384");
  onRun(p, ctx, [&ctx] { return runPack(ctx, pack); });

  static std::string src, dst;
  CLI::App* u = app.add_subcommand("unpack", "expand a compressed file (plain files are copied)");
  u->add_option("SRC", src)->required();
  u->add_option("DST", dst)->required();
  u->footer("Example: lowlevel unpack index.btr.zst index.btr");
  onRun(u, ctx, [] {
    FILE* out = std::fopen(dst.c_str(), "wb");
    if (out == nullptr) return fail(kExitIo, "cannot create " + dst);
    int code = copyExpanded(src, out, dst);
    if (std::fclose(out) != 0 && code == kExitOk) code = fail(kExitIo, "cannot write " + dst);
    return code;
  });

  CLI::App* c = app.add_subcommand("cat", "write a file to standard output, expanded if compressed");
  c->add_option("FILE", src)->required();
  c->footer("Example: lowlevel --host host.ini cat cd:\\notes.txt.zst");
  onRun(c, ctx, [] {
    int code = copyExpanded(src, stdout, "standard output");
    std::fflush(stdout);
    return code;
  });
}
