#ifndef _WIN32
#include <sys/stat.h>

#include "lowlevel/platform/fileid.h"

namespace lowlevel {
namespace platform {

namespace {

int64_t nanoseconds(const struct timespec& t) {
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + static_cast<int64_t>(t.tv_nsec);
}

}  // namespace

int fileIdentity(int handle, FileIdentity* id) {
  struct stat st;
  if (handle < 0 || id == nullptr || ::fstat(handle, &st) != 0) return -1;
  id->device = static_cast<uint64_t>(st.st_dev);
  id->number = static_cast<uint64_t>(st.st_ino);
  id->size = static_cast<int64_t>(st.st_size);
#ifdef __APPLE__
  const int64_t data = nanoseconds(st.st_mtimespec), status = nanoseconds(st.st_ctimespec);
#else
  const int64_t data = nanoseconds(st.st_mtim), status = nanoseconds(st.st_ctim);
#endif
  id->changeTime = data > status ? data : status;
  return 0;
}

}  // namespace platform
}  // namespace lowlevel
#endif
