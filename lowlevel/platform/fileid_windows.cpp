#ifdef _WIN32
#include <io.h>
#include <windows.h>

#include "lowlevel/platform/fileid.h"

namespace lowlevel {
namespace platform {

int fileIdentity(int handle, FileIdentity* id) {
  if (handle < 0 || id == nullptr) return -1;
  HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(handle));
  BY_HANDLE_FILE_INFORMATION info;
  if (h == INVALID_HANDLE_VALUE || !GetFileInformationByHandle(h, &info)) return -1;
  id->device = info.dwVolumeSerialNumber;
  id->number = (static_cast<uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
  id->size = static_cast<int64_t>((static_cast<uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow);
  // In 100-nanosecond ticks, not nanoseconds: stamps are only compared with each other.
  id->changeTime = static_cast<int64_t>(
      (static_cast<uint64_t>(info.ftLastWriteTime.dwHighDateTime) << 32) |
      info.ftLastWriteTime.dwLowDateTime);
  return 0;
}

}  // namespace platform
}  // namespace lowlevel
#endif
