// The system half of the file calls in io.h: one implementation per system (io_posix.cpp,
// io_windows.cpp). io.cpp counts the calls, asks the fault seam and checks the arguments that every
// system treats alike, then calls these. Same contracts as the calls of the same name in io.h.
#ifndef LOWLEVEL_PLATFORM_IO_SYSTEM_H
#define LOWLEVEL_PLATFORM_IO_SYSTEM_H

#include <cstdint>
#include <string>

#include "lowlevel/platform/io.h"

namespace lowlevel {
namespace platform {
namespace sys {

int open(const char* path, unsigned flags, unsigned permission);
// Releases the handle even when the system reports a failure, so nothing leaks.
int close(int handle);
// Loop until `count` bytes moved, the end of the file, or a failure (then what moved, or -1).
int read(int handle, void* buffer, unsigned count);
int write(int handle, const void* buffer, unsigned count);
int32_t lseek(int handle, int32_t offset, int origin);
int32_t tell(int handle);
int32_t filelength(int handle);
int dup(int handle);
int syncPosition(int handle);
// Where the next write to `handle` goes, when this layer knows it without asking the system
// (a file whose position it keeps); -1 otherwise.
int64_t writePosition(int handle);
int fstat(int handle, FileStat* stat);
bool sameFile(const char* pathA, const char* pathB);
std::string hostPath(const char* path);

}  // namespace sys

// Whether the installed fault hook fails this call (false without a hook). Every platform file
// asks it before the system call, so the seam works the same for all of them.
bool injectedFailure(IoCall call, int handle);

}  // namespace platform
}  // namespace lowlevel

#endif
