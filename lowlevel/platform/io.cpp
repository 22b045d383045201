#include "lowlevel/platform/io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <string>
#include <vector>

namespace lowlevel {
namespace platform {

namespace {

IoFaultHook* g_hook = nullptr;
IoCounters g_counters;

bool injectedFailure(IoCall call, int handle) {
  return g_hook != nullptr && g_hook->shouldFail(call, handle);
}

unsigned allowedBytes(IoCall call, int handle, unsigned count) {
  if (g_hook == nullptr) return count;
  unsigned allowed = g_hook->limitBytes(call, handle, count);
  return allowed < count ? allowed : count;
}

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

std::string hostPath(const char* path) {
  std::string result(path != nullptr ? path : "");
  for (char& c : result) {
    if (c == '\\') c = '/';
  }
  return result;
}

}  // namespace

void toHostPath(const char* path, char* out, unsigned capacity) {
  if (out == nullptr || capacity == 0) return;
  std::string p = hostPath(path);
  size_t n = p.size() < capacity - 1 ? p.size() : capacity - 1;
  p.copy(out, n);
  out[n] = '\0';
}

int open(const char* path, unsigned flags, unsigned permission) {
  ++g_counters.opens;
  if (injectedFailure(IoCall::Open, -1)) return -1;
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
  if (g_hook != nullptr) g_hook->opened(fd, path, flags);
  return fd;
}

int syncPosition(int handle) {
  TrackedPosition* p = tracked(handle);
  if (p == nullptr || p->position == p->system) return 0;
  if (::lseek(handle, static_cast<off_t>(p->position), SEEK_SET) < 0) return -1;
  p->system = p->position;
  return 0;
}

int close(int handle) {
  ++g_counters.closes;
  if (handle < 0) return -1;
  syncPosition(handle);  // handles made by dup elsewhere in the process go on from here
  track(handle, nullptr);
  if (injectedFailure(IoCall::Close, handle)) {
    // A failed close still releases the handle on POSIX systems; do the same so nothing leaks.
    ::close(handle);
    return -1;
  }
  return ::close(handle) == 0 ? 0 : -1;
}

int read(int handle, void* buffer, unsigned count) {
  ++g_counters.reads;
  if (handle < 0 || (buffer == nullptr && count > 0)) return -1;
  if (injectedFailure(IoCall::Read, handle)) return -1;
  if (count > static_cast<unsigned>(INT_MAX)) count = INT_MAX;
  count = allowedBytes(IoCall::Read, handle, count);
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
  ++g_counters.writes;
  if (handle < 0 || (buffer == nullptr && count > 0)) return -1;
  if (injectedFailure(IoCall::Write, handle)) return -1;
  if (count > static_cast<unsigned>(INT_MAX)) count = INT_MAX;
  TrackedPosition* at = tracked(handle);
  // No byte goes at or beyond offset 2^31 - 1, where positions stop fitting 32 bits: the whole
  // write is refused and nothing is written. (The callers check first and report; this is the
  // backstop.)
  if (at != nullptr && at->position + count > INT32_MAX) return -1;
  count = allowedBytes(IoCall::Write, handle, count);
  const char* p = static_cast<const char*>(buffer);
  unsigned done = 0;
  const int64_t start = at != nullptr ? at->position : -1;
  struct Report {  // tells the hook what reached the file, however the loop ends
    int handle; int64_t start; const char* data; const unsigned& done;
    ~Report() { if (g_hook != nullptr && done > 0) g_hook->wrote(handle, start, data, done); }
  } report{handle, start, p, done};
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
  ++g_counters.seeks;
  if (handle < 0) return -1;
  if (injectedFailure(IoCall::Seek, handle)) return -1;
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
  ++g_counters.tells;
  if (handle < 0) return -1;
  if (injectedFailure(IoCall::Tell, handle)) return -1;
  TrackedPosition* at = tracked(handle);
  off_t cur = at != nullptr ? static_cast<off_t>(at->position) : ::lseek(handle, 0, SEEK_CUR);
  if (cur < 0 || cur > INT32_MAX) return -1;
  return static_cast<int32_t>(cur);
}

int32_t filelength(int handle) {
  ++g_counters.lengths;
  if (handle < 0) return -1;
  if (injectedFailure(IoCall::Length, handle)) return -1;
  struct stat st;
  if (::fstat(handle, &st) != 0 || st.st_size > INT32_MAX) return -1;
  return static_cast<int32_t>(st.st_size);
}

int dup(int handle) {
  ++g_counters.dups;
  if (handle < 0) return -1;
  if (injectedFailure(IoCall::Dup, handle)) return -1;
  int fd = ::fcntl(handle, F_DUPFD_CLOEXEC, 0);
  if (fd < 0) return -1;
  TrackedPosition* at = tracked(handle);
  track(fd, at != nullptr ? g_positions[static_cast<size_t>(handle)] : nullptr);
  return fd;
}

int fstat(int handle, FileStat* out) {
  ++g_counters.stats;
  if (handle < 0 || out == nullptr) return -1;
  if (injectedFailure(IoCall::Stat, handle)) return -1;
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
  if (pathA == nullptr || pathB == nullptr) return false;
  struct stat a;
  struct stat b;
  if (::stat(hostPath(pathA).c_str(), &a) != 0) return false;
  if (::stat(hostPath(pathB).c_str(), &b) != 0) return false;
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

IoFaultHook* setIoFaultHook(IoFaultHook* hook) {
  IoFaultHook* previous = g_hook;
  g_hook = hook;
  return previous;
}

IoFaultHook* ioFaultHook() { return g_hook; }

void countSync() { ++g_counters.syncs; }

IoCounters ioCounters() { return g_counters; }

void resetIoCounters() { g_counters = IoCounters(); }

}  // namespace platform
}  // namespace lowlevel
