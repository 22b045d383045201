// Uses the shared library from another project: one real call into each module. Includes every
// public header, so an installed set must be complete.
#include <cstdio>
#include <string>

#include "lowlevel/btree/btree.h"
#include "lowlevel/btree/btreetools.h"
#include "lowlevel/cmdline/cmdline.h"
#include "lowlevel/files/file.h"
#include "lowlevel/support/support.h"

struct Host : ZlowLevelSupport {
  const char* getExeDir() override { return "."; }
};

int main() {
  Host host;
  setLowLevelSupportPtr(&host);
  std::string path = "ed:\\consumer-check.btr", mode;
  int32_t value = 0;
  bool ok = ZFile::ResolvePath(path, false, false) && path == ".\\consumer-check.btr";
  {
    BTree tree("consumer-check.btr", 4, 8, false, 0, 0, 0);
    ok = ok && tree.insertKey(7, "pear", 0) && tree.find(value, "pear", 0) && value == 7;
  }
  std::remove("consumer-check.btr");
  ZCmdLine line("mode=fast");
  ok = ok && line.GetValue("mode", mode) && mode == "fast" && convertStringToLong("0xff") == 255;
  setLowLevelSupportPtr(nullptr);
  std::printf("consumer: %s (path %s)\n", ok ? "ok" : "failed", path.c_str());
  return ok ? 0 : 1;
}
