// Durability and advisory locks on POSIX systems: fsync, flock, ftruncate, unlink.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "lowlevel/platform/io.h"
#include "lowlevel/platform/io_system.h"

namespace lowlevel {
namespace platform {

int sync(int handle) {
  countSync();
  if (handle < 0 || injectedFailure(IoCall::Sync, handle)) return -1;
  int rc;
  do {
    rc = ::fsync(handle);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return -1;
  if (IoFaultHook* hook = ioFaultHook()) hook->synced(handle);
  return 0;
}

int syncDirectoryOf(const char* path) {
  if (injectedFailure(IoCall::Sync, -1)) return -1;
  std::string dir = sys::hostPath(path);
  const size_t slash = dir.rfind('/');
  dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : dir.substr(0, slash));
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  countSync();
  // Some file systems refuse to sync a directory (EINVAL); their entries are durable anyway.
  const int rc = ::fsync(fd) == 0 || errno == EINVAL ? 0 : -1;
  ::close(fd);
  return rc;
}

int lock(int handle, bool wait) {
  if (handle < 0 || injectedFailure(IoCall::Lock, handle)) return -1;
  int rc;
  do {
    rc = ::flock(handle, LOCK_EX | (wait ? 0 : LOCK_NB));
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? 0 : -1;
}

int unlock(int handle) {
  if (handle < 0) return -1;
  return ::flock(handle, LOCK_UN) == 0 ? 0 : -1;
}

int truncate(int handle, int32_t length) {
  if (handle < 0 || length < 0 || injectedFailure(IoCall::Truncate, handle)) return -1;
  if (::ftruncate(handle, static_cast<off_t>(length)) != 0) return -1;
  if (IoFaultHook* hook = ioFaultHook()) hook->truncated(handle, length);
  return 0;
}

int remove(const char* path) {
  if (path == nullptr || injectedFailure(IoCall::Remove, -1)) return -1;
  if (::unlink(sys::hostPath(path).c_str()) != 0) return -1;
  if (IoFaultHook* hook = ioFaultHook()) hook->removed(path);
  return syncDirectoryOf(path);
}

bool exists(const char* path) {
  struct stat st;
  return path != nullptr && ::stat(sys::hostPath(path).c_str(), &st) == 0;
}

}  // namespace platform
}  // namespace lowlevel
