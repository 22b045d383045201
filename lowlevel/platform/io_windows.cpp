// The file calls on Windows, on the C runtime's handle functions. Files are always opened in binary
// mode unless text mode is asked for, so that bytes read and written are the same as elsewhere.
// Reads and closes run with the system's critical-error prompts off (SetErrorMode 1, then 0), so
// that a volume that has gone away fails the call at once instead of stopping the process.
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "lowlevel/platform/io_system.h"
#include "lowlevel/platform/pipe.h"
#include "lowlevel/platform/stdstreams.h"

namespace lowlevel {
namespace platform {
namespace sys {

namespace {

// Sets error mode 1 for the life of the object and 0 after it. 0, not the mode before: another
// thread may have changed it meanwhile, and 0 is the process's usual mode.
class NoErrorPrompts {
 public:
  NoErrorPrompts() { SetErrorMode(1); }
  ~NoErrorPrompts() { SetErrorMode(0); }
  NoErrorPrompts(const NoErrorPrompts&) = delete;
  NoErrorPrompts& operator=(const NoErrorPrompts&) = delete;
};

int32_t fitted(int64_t value) { return value < 0 || value > INT32_MAX ? -1 : static_cast<int32_t>(value); }

}  // namespace

std::string hostPath(const char* path) {
  // The system takes either separator; turning backslashes into slashes gives every system the
  // same host paths. Drive letters stay.
  std::string result(path != nullptr ? path : "");
  for (char& c : result) {
    if (c == '\\') c = '/';
  }
  return result;
}

int open(const char* path, unsigned flags, unsigned permission) {
  // The flag numbers of io.h are the runtime's own; only the mode is chosen here.
  int hostFlags = static_cast<int>(flags & (kOpenWriteOnly | kOpenReadWrite | kOpenAppend |
                                            kOpenCreate | kOpenTruncate | kOpenExclusive));
  hostFlags |= (flags & kOpenText) != 0 ? _O_TEXT : _O_BINARY;
  hostFlags |= _O_NOINHERIT;
  int mode = _S_IREAD;
  if (permission & kPermWrite) mode |= _S_IWRITE;
  int fd = ::_open(hostPath(path).c_str(), hostFlags, mode);
  if (fd < 0) return -1;
  struct _stat64 st;
  if (::_fstat64(fd, &st) != 0 || (st.st_mode & _S_IFMT) == _S_IFDIR) {
    ::_close(fd);
    return -1;
  }
  return fd;
}

int syncPosition(int /*handle*/) { return 0; }

int64_t writePosition(int handle) { return ::_telli64(handle); }  // the runtime keeps the only position

int close(int handle) {
  NoErrorPrompts quiet;
  return ::_close(handle) == 0 ? 0 : -1;
}

int read(int handle, void* buffer, unsigned count) {
  NoErrorPrompts quiet;
  char* p = static_cast<char*>(buffer);
  unsigned done = 0;
  while (done < count) {
    int n = ::_read(handle, p + done, count - done);
    if (n < 0) return done > 0 ? static_cast<int>(done) : -1;
    if (n == 0) break;
    done += static_cast<unsigned>(n);
  }
  return static_cast<int>(done);
}

int write(int handle, const void* buffer, unsigned count) {
  const char* p = static_cast<const char*>(buffer);
  unsigned done = 0;
  while (done < count) {
    int n = ::_write(handle, p + done, count - done);
    if (n < 0) return done > 0 ? static_cast<int>(done) : -1;
    if (n == 0) break;
    done += static_cast<unsigned>(n);
  }
  return static_cast<int>(done);
}

int32_t lseek(int handle, int32_t offset, int origin) {
  int64_t base = 0;
  if (origin == 1) base = ::_telli64(handle);
  if (origin == 2) base = ::_filelengthi64(handle);
  if (base < 0) return -1;
  int64_t target = base + offset;
  if (target < 0 || target > INT32_MAX) return -1;  // refused before anything moves
  return fitted(::_lseeki64(handle, target, SEEK_SET));
}

int32_t tell(int handle) { return fitted(::_telli64(handle)); }

int32_t filelength(int handle) { return fitted(::_filelengthi64(handle)); }

int dup(int handle) {
  int fd = ::_dup(handle);
  return fd < 0 ? -1 : fd;
}

int fstat(int handle, FileStat* out) {
  struct _stat64 st;
  if (::_fstat64(handle, &st) != 0) return -1;
  switch (st.st_mode & _S_IFMT) {
    case _S_IFREG: out->mode = kModeRegular; break;
    case _S_IFDIR: out->mode = kModeDirectory; break;
    case _S_IFCHR: out->mode = kModeCharDevice; break;
    case _S_IFIFO: out->mode = kModeFifo; break;
    default: out->mode = 0; break;
  }
  out->size = st.st_size > INT32_MAX ? -1 : static_cast<int32_t>(st.st_size);
  return 0;
}

namespace {

// The volume serial number and file index of an existing file or directory.
bool fileIdentity(const char* path, BY_HANDLE_FILE_INFORMATION* info) {
  HANDLE h = CreateFileA(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  bool ok = GetFileInformationByHandle(h, info) != 0;
  CloseHandle(h);
  return ok;
}

}  // namespace

bool sameFile(const char* pathA, const char* pathB) {
  BY_HANDLE_FILE_INFORMATION a;
  BY_HANDLE_FILE_INFORMATION b;
  if (!fileIdentity(hostPath(pathA).c_str(), &a) || !fileIdentity(hostPath(pathB).c_str(), &b))
    return false;
  return a.dwVolumeSerialNumber == b.dwVolumeSerialNumber &&
         a.nFileIndexHigh == b.nFileIndexHigh && a.nFileIndexLow == b.nFileIndexLow;
}

}  // namespace sys

int makePipe(int handles[2]) { return ::_pipe(handles, 4096, _O_BINARY) == 0 ? 0 : -1; }

void useBinaryStandardStreams() {
  _setmode(0, _O_BINARY);
  _setmode(1, _O_BINARY);
  _setmode(2, _O_BINARY);
}

}  // namespace platform
}  // namespace lowlevel
