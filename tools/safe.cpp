// `--safe`: durable new files, and the interruption flag of a crash-safe load.
#include "tools/safe.h"

#include <csignal>

#include "lowlevel/platform/io.h"

namespace {

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void onInterrupt(int) { g_interrupted = 1; }

}  // namespace

void addSafeFlag(CLI::App* cmd, bool& flag, bool changes) {
  cmd->add_flag("--safe", flag,
                changes ? "crash-safe: a rollback journal keeps the tree as before or after each "
                          "batch whatever happens"
                        : "make the new file durable (synced to disk) before reporting success");
}

bool makeDurable(const std::string& path) {
  namespace io = lowlevel::platform;
  const int handle = io::open(path.c_str(), io::kOpenBinary | io::kOpenReadWrite, 0);
  if (handle < 0) return false;
  const bool synced = io::sync(handle) == 0;
  return io::close(handle) == 0 && synced && io::syncDirectoryOf(path.c_str()) == 0;
}

bool interrupted() { return g_interrupted != 0; }

void installInterruptHandlers() {
  std::signal(SIGINT, onInterrupt);
  std::signal(SIGTERM, onInterrupt);
}
