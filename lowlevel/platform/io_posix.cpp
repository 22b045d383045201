// The file calls on POSIX systems.
#include <fcntl.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "lowlevel/platform/io_system.h"
#include "lowlevel/platform/pipe.h"
#include "lowlevel/platform/stdstreams.h"

namespace lowlevel {
namespace platform {
namespace sys {

namespace {

// The position of an open regular file, kept here so that a seek costs no system call: a read or
// write after it goes to the kept position in one positioned call. Handles made by dup share one
// record, as they share one position in the system. The system's own position is brought up to
// date (syncPosition) before a handle is handed out of the layer; handles this layer did not open
// are not tracked and work on the system's position directly.
struct TrackedPosition {
  int64_t position = 0;  // where the next read or write goes
  int64_t system = 0;    // where the system's position stands
};

std::vector<std::shared_ptr<TrackedPosition>> g_positions;  // by handle

TrackedPosition* tracked(int handle) {
  if (handle < 0 || static_cast<size_t>(handle) >= g_positions.size()) return nullptr;
  return g_positions[static_cast<size_t>(handle)].get();
}

void track(int handle, std::shared_ptr<TrackedPosition> position) {
  if (handle < 0) return;
  if (static_cast<size_t>(handle) >= g_positions.size()) g_positions.resize(static_cast<size_t>(handle) + 1);
  g_positions[static_cast<size_t>(handle)] = std::move(position);
}

}  // namespace

std::string hostPath(const char* path) {
  std::string result(path != nullptr ? path : "");
  for (char& c : result) {
    if (c == '\\') c = '/';
  }
  return result;
}

int open(const char* path, unsigned flags, unsigned permission) {
  int hostFlags = O_CLOEXEC;
  switch (flags & 0x3u) {
    case kOpenReadOnly: hostFlags |= O_RDONLY; break;
    case kOpenWriteOnly: hostFlags |= O_WRONLY; break;
    case kOpenReadWrite: hostFlags |= O_RDWR; break;
    default: return -1;  // both access bits: no such mode
  }
  if (flags & kOpenAppend) hostFlags |= O_APPEND;
  if (flags & kOpenCreate) hostFlags |= O_CREAT;
  if (flags & kOpenTruncate) hostFlags |= O_TRUNC;
  if (flags & kOpenExclusive) hostFlags |= O_EXCL;
  // Files are always readable; the write permission decides whether a created file is read-only.
  mode_t mode = S_IRUSR | S_IRGRP | S_IROTH;
  if (permission & kPermWrite) mode |= S_IWUSR | S_IWGRP | S_IWOTH;
  std::string p = hostPath(path);
  int fd;
  do {
    fd = ::open(p.c_str(), hostFlags, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  struct stat st;
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    ::close(fd);
    return -1;
  }
  track(fd, S_ISREG(st.st_mode) && !(flags & kOpenAppend) ? std::make_shared<TrackedPosition>() : nullptr);
  return fd;
}

int64_t writePosition(int handle) {
  TrackedPosition* at = tracked(handle);
  return at != nullptr ? at->position : -1;
}

int syncPosition(int handle) {
  TrackedPosition* p = tracked(handle);
  if (p == nullptr || p->position == p->system) return 0;
  if (::lseek(handle, static_cast<off_t>(p->position), SEEK_SET) < 0) return -1;
  p->system = p->position;
  return 0;
}

int close(int handle) {
  syncPosition(handle);  // handles made by dup elsewhere in the process go on from here
  track(handle, nullptr);
  return ::close(handle) == 0 ? 0 : -1;
}

int read(int handle, void* buffer, unsigned count) {
  char* p = static_cast<char*>(buffer);
  unsigned done = 0;
  TrackedPosition* at = tracked(handle);
  while (done < count) {
    ssize_t n = at != nullptr ? ::pread(handle, p + done, count - done, static_cast<off_t>(at->position))
                              : ::read(handle, p + done, count - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return done > 0 ? static_cast<int>(done) : -1;
    }
    if (n == 0) break;
    done += static_cast<unsigned>(n);
    if (at != nullptr) at->position += n;
  }
  return static_cast<int>(done);
}

int write(int handle, const void* buffer, unsigned count) {
  const char* p = static_cast<const char*>(buffer);
  unsigned done = 0;
  TrackedPosition* at = tracked(handle);
  while (done < count) {
    ssize_t n = at != nullptr ? ::pwrite(handle, p + done, count - done, static_cast<off_t>(at->position))
                              : ::write(handle, p + done, count - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return done > 0 ? static_cast<int>(done) : -1;
    }
    if (n == 0) break;
    done += static_cast<unsigned>(n);
    if (at != nullptr) at->position += n;
  }
  return static_cast<int>(done);
}

int32_t lseek(int handle, int32_t offset, int origin) {
  TrackedPosition* at = tracked(handle);
  int64_t base;
  switch (origin) {
    case 0: base = 0; break;
    case 1: {
      off_t cur = at != nullptr ? static_cast<off_t>(at->position) : ::lseek(handle, 0, SEEK_CUR);
      if (cur < 0) return -1;
      base = cur;
      break;
    }
    case 2: {
      struct stat st;
      if (::fstat(handle, &st) != 0) return -1;
      base = st.st_size;
      break;
    }
    default: return -1;
  }
  int64_t target = base + offset;
  if (target < 0 || target > INT32_MAX) return -1;
  if (at != nullptr) {
    at->position = target;
    return static_cast<int32_t>(target);
  }
  off_t got = ::lseek(handle, static_cast<off_t>(target), SEEK_SET);
  if (got < 0) return -1;
  return static_cast<int32_t>(got);
}

int32_t tell(int handle) {
  TrackedPosition* at = tracked(handle);
  off_t cur = at != nullptr ? static_cast<off_t>(at->position) : ::lseek(handle, 0, SEEK_CUR);
  if (cur < 0 || cur > INT32_MAX) return -1;
  return static_cast<int32_t>(cur);
}

int32_t filelength(int handle) {
  struct stat st;
  if (::fstat(handle, &st) != 0 || st.st_size > INT32_MAX) return -1;
  return static_cast<int32_t>(st.st_size);
}

int dup(int handle) {
  int fd = ::fcntl(handle, F_DUPFD_CLOEXEC, 0);
  if (fd < 0) return -1;
  TrackedPosition* at = tracked(handle);
  track(fd, at != nullptr ? g_positions[static_cast<size_t>(handle)] : nullptr);
  return fd;
}

int fstat(int handle, FileStat* out) {
  struct stat st;
  if (::fstat(handle, &st) != 0) return -1;
  if (S_ISREG(st.st_mode)) out->mode = kModeRegular;
  else if (S_ISDIR(st.st_mode)) out->mode = kModeDirectory;
  else if (S_ISCHR(st.st_mode)) out->mode = kModeCharDevice;
  else if (S_ISFIFO(st.st_mode)) out->mode = kModeFifo;
  else out->mode = 0;
  out->size = st.st_size > INT32_MAX ? -1 : static_cast<int32_t>(st.st_size);
  return 0;
}

bool sameFile(const char* pathA, const char* pathB) {
  struct stat a;
  struct stat b;
  if (::stat(hostPath(pathA).c_str(), &a) != 0) return false;
  if (::stat(hostPath(pathB).c_str(), &b) != 0) return false;
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace sys

int makePipe(int handles[2]) { return ::pipe(handles) == 0 ? 0 : -1; }

void useBinaryStandardStreams() {}  // streams carry bytes unchanged already

}  // namespace platform
}  // namespace lowlevel
