// Runs a fuzz target's entry function over saved inputs, without libFuzzer: every file named on the
// command line, and every file in a directory named there. Exit status 0 when all inputs ran (a
// fault in the target aborts the program, so the test fails); 1 when an argument cannot be read.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool runFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream bytes;
  bytes << in.rdbuf();
  const std::string input = bytes.str();
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int inputs = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat st;
    if (stat(argv[i], &st) != 0) {
      std::fprintf(stderr, "cannot read %s\n", argv[i]);
      return 1;
    }
    std::vector<std::string> files;
    if (S_ISDIR(st.st_mode)) {
      DIR* dir = opendir(argv[i]);
      if (dir == nullptr) return 1;
      while (dirent* entry = readdir(dir)) {
        std::string path = std::string(argv[i]) + "/" + entry->d_name;
        if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(path);
      }
      closedir(dir);
      std::sort(files.begin(), files.end());
    } else {
      files.push_back(argv[i]);
    }
    for (const std::string& path : files) {
      if (!runFile(path)) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
      }
      ++inputs;
    }
  }
  std::printf("%d inputs replayed\n", inputs);
  return 0;
}
