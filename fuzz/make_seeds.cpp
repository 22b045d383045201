// Writes the seed corpora of the fuzz targets into <dir>/btree_fuzz, <dir>/compressed_fuzz and
// <dir>/cmdline_fuzz: valid files of the shapes the library makes, so that fuzzing starts from
// inputs that get past the first checks. Usage: make_seeds <dir>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "compression/seekable_writer.h"
#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"

namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void put(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

struct TreeShape {
  const char* name;
  int order, width;
  bool duplicates, numbers;
  int keys;
  uint32_t lcid;
};

// Builds a tree in `scratch` and returns its bytes (empty on failure).
std::string makeTree(const std::string& scratch, const TreeShape& s) {
  {
    BTree tree(scratch, s.order, s.width, s.duplicates, s.lcid, s.lcid != 0 ? 0x100u : 0u, 0);
    if (!tree.isOk()) return std::string();
    for (int i = 0; i < s.keys; ++i) {
      int32_t k = (i * 37) % 101;
      if (s.numbers) {
        tree.insertKey(i, k);
      } else {
        char key[16];
        std::snprintf(key, sizeof key, "k%03d", k);
        tree.insertKey(i, key, 0);
        if (s.duplicates && i % 3 == 0) tree.insertKey(i + 1000, key, 0);
      }
    }
    // A few deletions leave free records and borrowed keys behind.
    for (int i = 0; i < s.keys / 4; ++i) {
      if (s.numbers) tree.deleteKey((i * 37 * 3) % 101);
    }
  }
  return slurp(scratch);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds <dir>\n");
    return 2;
  }
  const std::string dir = argv[1];
  for (const char* sub : {"btree_fuzz", "compressed_fuzz", "cmdline_fuzz"})
    mkdir((dir + "/" + sub).c_str(), 0755);
  const std::string scratch = "/tmp/lowlevel-seeds-" + std::to_string(getpid());

  // btree_fuzz: a flag byte (0: the file as it is) and the file.
  const TreeShape shapes[] = {
      {"empty-o3", 3, 4, false, false, 0, 0},
      {"depth1-o3", 3, 4, false, false, 4, 0},
      {"depth2-o3", 3, 4, false, false, 12, 0},
      {"depth3-o3", 3, 4, false, false, 30, 0},
      {"depth2-o4-dup", 4, 6, true, false, 16, 0},
      {"depth3-o3-dup", 3, 6, true, false, 24, 0},
      {"depth2-o5-long", 5, 4, false, true, 30, 0},
      {"depth3-o3-long", 3, 4, false, true, 40, 0},
      {"depth1-o2", 2, 4, false, false, 5, 0},
      {"depth2-o6-wide", 6, 20, false, false, 30, 0},
      {"depth2-o4-lcid", 4, 8, false, false, 14, 0x409},
      {"depth3-o3-wide", 3, 16, true, false, 30, 0},
  };
  int written = 0;
  for (const TreeShape& s : shapes) {
    std::string bytes = makeTree(scratch, s);
    if (bytes.empty()) continue;
    put(dir + "/btree_fuzz/" + s.name, std::string(1, '\0') + bytes);
    ++written;
    if (s.width >= 6) {
      std::string copy = scratch + ".copy";
      if (compressBTree(scratch, copy)) {
        put(dir + "/btree_fuzz/" + s.name + "-compressed", std::string(1, '\0') + slurp(copy));
        ++written;
      }
      if (orderBTree(scratch, copy)) {
        put(dir + "/btree_fuzz/" + s.name + "-ordered", std::string(1, '\0') + slurp(copy));
        ++written;
      }
      if (repackBTree(scratch, copy, 3)) {
        put(dir + "/btree_fuzz/" + s.name + "-repacked", std::string(1, '\0') + slurp(copy));
        ++written;
      }
      unlink(copy.c_str());
    }
  }

  // compressed_fuzz: four steering bytes and the file.
  namespace cz = lowlevel::compression;
  std::string text;
  for (int i = 0; i < 600; ++i) text += "line " + std::to_string(i * 7) + " of the seed text\n";
  const struct { const char* name; size_t length; uint32_t chunk; bool checksums; } packs[] = {
      {"empty", 0, 64, true},         {"one-chunk", 100, 4096, true},
      {"chunks-64", 2000, 64, true},  {"chunks-1000-nosum", 9000, 1000, false},
      {"chunks-4096", 15000, 4096, true}, {"tiny-chunks", 300, 7, false},
  };
  for (const auto& p : packs) {
    cz::SeekableWriteOptions options;
    options.chunkSize = p.chunk;
    options.checksums = p.checksums;
    std::string out;
    if (!cz::compressToSeekable(text.substr(0, p.length), options, &out, nullptr)) continue;
    put(dir + "/compressed_fuzz/" + p.name, std::string("\x11\x22\x33\x44", 4) + out);
    ++written;
  }
  put(dir + "/compressed_fuzz/plain", std::string("\x01\x02\x03\x04", 4) + text.substr(0, 500));
  ++written;

  // cmdline_fuzz: a separator byte, an edit byte and the text.
  const char* lines[] = {
      "a=1 b=2 c",
      "name=\"quoted value\" other=<angle {nested}> x=[1 2] y={a {b} c}",
      "-v --file=\"C:\\\\dir\\\\x.txt\" count=12 count=13",
      "key:value other:\"a b\" last:",
      "\"unterminated name=value",
      "a={unterminated [x] y",
      "  spaced   out  =  entries  ",
      "A=1 a=2 B b NAME=\"\"",
      "",
      "=novalue ==x ===",
      "big=2147483647 small=-2147483648 over=99999999999 hex=0x10",
  };
  int n = 0;
  for (const char* line : lines) {
    for (unsigned char edit : {0, 1, 2, 3, 4, 5, 9}) {
      if ((n++ % 3) != 0 && edit != 0) continue;
      std::string bytes = std::string(1, static_cast<char>(n % 2 == 0 ? 0 : 3)) +
                          std::string(1, static_cast<char>(edit)) + line;
      put(dir + "/cmdline_fuzz/line" + std::to_string(n), bytes);
      ++written;
    }
  }
  unlink(scratch.c_str());
  std::printf("%d seeds written\n", written);
  return 0;
}
