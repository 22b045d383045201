// Durability and advisory locks on Windows: FlushFileBuffers, LockFileEx, _chsize, _unlink.
#include <io.h>
#include <sys/stat.h>
#include <windows.h>

#include <string>

#include "lowlevel/platform/io.h"
#include "lowlevel/platform/io_system.h"

namespace lowlevel {
namespace platform {

namespace {

HANDLE osHandle(int handle) { return reinterpret_cast<HANDLE>(_get_osfhandle(handle)); }

}  // namespace

int sync(int handle) {
  countSync();
  if (handle < 0 || injectedFailure(IoCall::Sync, handle)) return -1;
  HANDLE h = osHandle(handle);
  if (h == INVALID_HANDLE_VALUE || !FlushFileBuffers(h)) return -1;
  if (IoFaultHook* hook = ioFaultHook()) hook->synced(handle);
  return 0;
}

// Directory entries are written through on NTFS; there is nothing to sync.
int syncDirectoryOf(const char*) { return injectedFailure(IoCall::Sync, -1) ? -1 : 0; }

// The lock covers one byte at 2^31, beyond the 2 GiB limit, where no data is ever written: a lock
// on the whole file would also refuse this process's own writes through its other handles.
static OVERLAPPED lockByte() {
  OVERLAPPED at = {};
  at.Offset = 0x80000000u;
  return at;
}

int lock(int handle, bool wait) {
  if (handle < 0 || injectedFailure(IoCall::Lock, handle)) return -1;
  HANDLE h = osHandle(handle);
  const DWORD flags = LOCKFILE_EXCLUSIVE_LOCK | (wait ? 0 : LOCKFILE_FAIL_IMMEDIATELY);
  OVERLAPPED at = lockByte();
  return h != INVALID_HANDLE_VALUE && LockFileEx(h, flags, 0, 1, 0, &at) ? 0 : -1;
}

int unlock(int handle) {
  if (handle < 0) return -1;
  HANDLE h = osHandle(handle);
  OVERLAPPED at = lockByte();
  return h != INVALID_HANDLE_VALUE && UnlockFileEx(h, 0, 1, 0, &at) ? 0 : -1;
}

int truncate(int handle, int32_t length) {
  if (handle < 0 || length < 0 || injectedFailure(IoCall::Truncate, handle)) return -1;
  if (_chsize(handle, static_cast<long>(length)) != 0) return -1;
  if (IoFaultHook* hook = ioFaultHook()) hook->truncated(handle, length);
  return 0;
}

int remove(const char* path) {
  if (path == nullptr || injectedFailure(IoCall::Remove, -1)) return -1;
  if (_unlink(path) != 0) return -1;
  if (IoFaultHook* hook = ioFaultHook()) hook->removed(path);
  return 0;
}

bool exists(const char* path) {
  struct _stat st;
  return path != nullptr && _stat(path, &st) == 0;
}

}  // namespace platform
}  // namespace lowlevel
