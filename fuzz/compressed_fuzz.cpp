// A file of arbitrary bytes read through ZCompressedFileBase: length, random
// seeks and reads, also through a copy and an assigned object.
//
// The object wraps a handle, so it builds a private offset map: opening by path
// would add every run's fresh temporary name to the process-wide map table,
// which lives until the process ends.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "lowlevel/files/cmpfilbs.h"
#include "lowlevel/platform/io.h"

namespace {

// Tells whether the file was taken for compressed: only then are positions kept within the length
// (a plain file may be positioned beyond its end).
struct ProbedFile : ZCompressedFileBase {
  explicit ProbedFile(int handle) : ZCompressedFileBase(handle) {}
  bool compressed() const { return m_bCompressed; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  // The first four bytes steer the reads; the rest is the file.
  char name[] = "/tmp/lowlevel-fuzz-cmp-XXXXXX";
  int fd = mkstemp(name);
  if (fd < 0) return 0;
  if (write(fd, data + 4, size - 4) != static_cast<ssize_t>(size - 4)) {
    close(fd);
    unlink(name);
    return 0;
  }
  close(fd);
  int handle = lowlevel::platform::open(name, 0x8000, 0);
  if (handle >= 0) {
    {
      ProbedFile file(handle);
      int32_t length = file.Length();
      std::vector<char> buffer(4096);
      uint32_t seed = static_cast<uint32_t>(data[0] | data[1] << 8 | data[2] << 16 | data[3] << 24);
      for (int i = 0; i < 16; ++i) {
        seed = seed * 1103515245u + 12345u;
        int32_t target =
            length > 0 ? static_cast<int32_t>(seed % (static_cast<uint32_t>(length) + 2)) : 0;
        file.Seek(target, static_cast<int>(seed >> 30) % 3);
        int n = file.Read(buffer.data(), static_cast<int>(seed % 4096));
        if (n < 0 || n > 4096) __builtin_trap();
        if (file.compressed() && (file.Position() < 0 || file.Position() > length)) __builtin_trap();
      }
      {
        ZCompressedFileBase copy(file);
        copy.Read(buffer.data(), 100);
        ZCompressedFileBase other;
        other = copy;
        other.Seek(0, 0);
        for (int i = 0; i < 64 && other.Read(buffer.data(), 4096) > 0; ++i) {
        }
      }
    }
    lowlevel::platform::close(handle);
  }
  unlink(name);
  return 0;
}
