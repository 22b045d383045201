// Locale mapping of key text on Windows: the system's own LCMapStringA, so that keys map exactly as
// in the programs that made the files.
#include <windows.h>

#include "lowlevel/platform/lcmap.h"

namespace lowlevel {
namespace platform {
namespace {

thread_local uint32_t tLastError = 0;

}  // namespace

int lcMapString(uint32_t lcid, uint32_t mapFlags, const char* source, int sourceLength,
                char* destination, int capacity) {
  SetLastError(0);
  int result = LCMapStringA(static_cast<LCID>(lcid), static_cast<DWORD>(mapFlags), source,
                            sourceLength, destination, capacity);
  if (result == 0) tLastError = static_cast<uint32_t>(GetLastError());
  return result;
}

uint32_t lastMapError() { return tLastError; }

}  // namespace platform
}  // namespace lowlevel
