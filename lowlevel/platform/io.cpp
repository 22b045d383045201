#include "lowlevel/platform/io.h"

#include <climits>
#include <string>

#include "lowlevel/platform/io_system.h"

namespace lowlevel {
namespace platform {

namespace {

IoFaultHook* g_hook = nullptr;
IoCounters g_counters;

unsigned allowedBytes(IoCall call, int handle, unsigned count) {
  if (g_hook == nullptr) return count;
  unsigned allowed = g_hook->limitBytes(call, handle, count);
  return allowed < count ? allowed : count;
}

}  // namespace

bool injectedFailure(IoCall call, int handle) {
  return g_hook != nullptr && g_hook->shouldFail(call, handle);
}

void toHostPath(const char* path, char* out, unsigned capacity) {
  if (out == nullptr || capacity == 0) return;
  std::string p = sys::hostPath(path);
  size_t n = p.size() < capacity - 1 ? p.size() : capacity - 1;
  p.copy(out, n);
  out[n] = '\0';
}

int open(const char* path, unsigned flags, unsigned permission) {
  ++g_counters.opens;
  if (injectedFailure(IoCall::Open, -1)) return -1;
  if ((flags & 0x3u) == 0x3u) return -1;  // both access bits: no such mode
  const int fd = sys::open(path, flags, permission);
  if (fd >= 0 && g_hook != nullptr) g_hook->opened(fd, path, flags);
  return fd;
}

int syncPosition(int handle) { return sys::syncPosition(handle); }

int close(int handle) {
  ++g_counters.closes;
  if (handle < 0) return -1;
  if (injectedFailure(IoCall::Close, handle)) {
    // A failed close still releases the handle; do the same so nothing leaks.
    sys::close(handle);
    return -1;
  }
  return sys::close(handle);
}

int read(int handle, void* buffer, unsigned count) {
  ++g_counters.reads;
  if (handle < 0 || (buffer == nullptr && count > 0)) return -1;
  if (injectedFailure(IoCall::Read, handle)) return -1;
  if (count > static_cast<unsigned>(INT_MAX)) count = INT_MAX;
  return sys::read(handle, buffer, allowedBytes(IoCall::Read, handle, count));
}

int write(int handle, const void* buffer, unsigned count) {
  ++g_counters.writes;
  if (handle < 0 || (buffer == nullptr && count > 0)) return -1;
  if (injectedFailure(IoCall::Write, handle)) return -1;
  if (count > static_cast<unsigned>(INT_MAX)) count = INT_MAX;
  // No byte goes at or beyond offset 2^31 - 1, where positions stop fitting 32 bits: the whole
  // write is refused and nothing is written. (The callers check first and report; this is the
  // backstop.)
  const int64_t start = sys::writePosition(handle);
  if (start >= 0 && start + count > INT32_MAX) return -1;
  count = allowedBytes(IoCall::Write, handle, count);
  const int done = sys::write(handle, buffer, count);
  // The hook learns what reached the file, also of a write cut short.
  if (g_hook != nullptr && done > 0) {
    g_hook->wrote(handle, start, static_cast<const char*>(buffer), static_cast<unsigned>(done));
  }
  return done;
}

int32_t lseek(int handle, int32_t offset, int origin) {
  ++g_counters.seeks;
  if (handle < 0) return -1;
  if (injectedFailure(IoCall::Seek, handle)) return -1;
  if (origin < 0 || origin > 2) return -1;
  return sys::lseek(handle, offset, origin);
}

int32_t tell(int handle) {
  ++g_counters.tells;
  if (handle < 0) return -1;
  if (injectedFailure(IoCall::Tell, handle)) return -1;
  return sys::tell(handle);
}

int32_t filelength(int handle) {
  ++g_counters.lengths;
  if (handle < 0) return -1;
  if (injectedFailure(IoCall::Length, handle)) return -1;
  return sys::filelength(handle);
}

int dup(int handle) {
  ++g_counters.dups;
  if (handle < 0) return -1;
  if (injectedFailure(IoCall::Dup, handle)) return -1;
  return sys::dup(handle);
}

int fstat(int handle, FileStat* out) {
  ++g_counters.stats;
  if (handle < 0 || out == nullptr) return -1;
  if (injectedFailure(IoCall::Stat, handle)) return -1;
  return sys::fstat(handle, out);
}

bool sameFile(const char* pathA, const char* pathB) {
  if (pathA == nullptr || pathB == nullptr) return false;
  return sys::sameFile(pathA, pathB);
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
