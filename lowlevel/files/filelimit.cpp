#include "lowlevel/files/filelimit.h"

#include "lowlevel/platform/io.h"
#include "lowlevel/support/support.h"

std::string fileLimitWriteMessage(const std::string& path) {
  return "Write refused: it would reach offset 2147483647, the 2 GiB limit (" + path + ").";
}

std::string fileLimitReadMessage(const std::string& path) {
  return "File is larger than 2147483647 bytes, the 2 GiB limit (" + path + ").";
}

bool refuseBeyondFileLimit(const std::string& path, const char* function, const char* module,
                           int line) {
  reporterLL(fileLimitWriteMessage(path), function, eReportError, module, line);
  return false;
}

bool fileBeyondLimit(int handle) {
  namespace io = lowlevel::platform;
  io::FileStat st;
  // The platform layer gives -1 for a size that does not fit 32 bits.
  return io::fstat(handle, &st) == 0 && st.mode == io::kModeRegular && st.size < 0;
}
