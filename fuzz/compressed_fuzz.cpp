// A file of arbitrary bytes read through ZCompressedFileBase: length, random seeks and reads.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "lowlevel/files/cmpfilbs.h"

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
  {
    // A fresh path each run, so the process-wide map table is exercised on new files.
    ZCompressedFileBase file(name, 0x8000, 0);
    if (file.IsOpen()) {
      int32_t length = file.Length();
      std::vector<char> buffer(4096);
      uint32_t seed = static_cast<uint32_t>(data[0] | data[1] << 8 | data[2] << 16 | data[3] << 24);
      for (int i = 0; i < 16; ++i) {
        seed = seed * 1103515245u + 12345u;
        int32_t target = length > 0 ? static_cast<int32_t>(seed % (static_cast<uint32_t>(length) + 2)) : 0;
        file.Seek(target, static_cast<int>(seed >> 30) % 3);
        int n = file.Read(buffer.data(), static_cast<int>(seed % 4096));
        if (n < 0 || n > 4096) __builtin_trap();
        if (file.Position() < 0 || (length >= 0 && file.Position() > length)) __builtin_trap();
      }
      ZCompressedFileBase copy(file);
      copy.Read(buffer.data(), 100);
    }
  }
  unlink(name);
  return 0;
}
