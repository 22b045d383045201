// Uses the shared library from another project: a support object, a file, a number conversion, a
// tree and a command line. Includes every public header, so an installed set must be complete.
#include <cstdio>
#include <string>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"
#include "lowlevel/cmdline/cmdline.h"
#include "lowlevel/files/file.h"
#include "lowlevel/support/support.h"

namespace {
class Host : public ZlowLevelSupport {
 public:
  const char* getExeDir() override { return "."; }
};
}  // namespace

int main() {
  Host host;
  setLowLevelSupportPtr(&host);
  std::string path = "ed:\\consumer-check.txt";
  if (!ZFile::ResolvePath(path, false, false) || path != ".\\consumer-check.txt") {
    std::fprintf(stderr, "consumer: path resolution gave %s\n", path.c_str());
    return 1;
  }
  if (convertStringToLong("0xff") != 255) return 1;
  {
    ZFile file("ed:\\consumer-check.txt", 0x8000 | 0x0002 | 0x0100 | 0x0200, 0x0100 | 0x0080);
    if (!file.IsOpen() || file.Write("hello", 5) != 5) return 1;
  }
  ZFile file("ed:\\consumer-check.txt", 0x8000, 0);
  char buffer[8] = {};
  if (file.Read(buffer, 8) != 5 || std::string(buffer) != "hello") return 1;
  file.Close();
  std::remove("consumer-check.txt");
  {
    BTree tree("consumer-check.btr", 4, 8, false, 0, 0, 0);
    int32_t value = 0;
    if (!tree.insertKey(7, "pear", 0) || !tree.find(value, "pear", 0) || value != 7) return 1;
  }
  std::remove("consumer-check.btr");
  ZCmdLine line("mode=fast");
  std::string mode;
  if (!line.GetValue("mode", mode) || mode != "fast") return 1;
  setLowLevelSupportPtr(nullptr);
  std::printf("consumer: ok\n");
  return 0;
}
