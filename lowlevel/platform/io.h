// The handle-based file calls that the file classes are built on, and the seam through which tests
// make any of them fail.
//
// Contract of every call: integer handles, -1 for failure, byte counts and positions that fit a signed
// 32-bit number. Flags and permission modes keep the numbers that callers of the file classes use
// (see the constants below) and are mapped to the host system here, and nowhere else. A backslash in
// a path is a directory separator on every system.
#ifndef LOWLEVEL_PLATFORM_IO_H
#define LOWLEVEL_PLATFORM_IO_H

#include <cstdint>

namespace lowlevel {
namespace platform {

// Open flags.
constexpr unsigned kOpenReadOnly = 0x0000;
constexpr unsigned kOpenWriteOnly = 0x0001;
constexpr unsigned kOpenReadWrite = 0x0002;
constexpr unsigned kOpenAppend = 0x0008;
constexpr unsigned kOpenCreate = 0x0100;
constexpr unsigned kOpenTruncate = 0x0200;
constexpr unsigned kOpenExclusive = 0x0400;
constexpr unsigned kOpenText = 0x4000;    // no meaning on POSIX systems
constexpr unsigned kOpenBinary = 0x8000;  // no meaning to the system; the file classes look at it

// Permission modes for a file that an open creates.
constexpr unsigned kPermRead = 0x0100;
constexpr unsigned kPermWrite = 0x0080;

// Bits of FileStat::mode.
constexpr unsigned kModeRegular = 0x8000;
constexpr unsigned kModeDirectory = 0x4000;
constexpr unsigned kModeCharDevice = 0x2000;
constexpr unsigned kModeFifo = 0x1000;

struct FileStat {
  uint16_t mode = 0;  // one of the kMode bits above, 0 for anything else
  int32_t size = 0;   // bytes; -1 when the size does not fit
};

// Opens `path` (backslashes count as separators). Refuses directories. Returns a handle or -1.
int open(const char* path, unsigned flags, unsigned permission);
// Closes the handle. 0 on success, -1 on failure (also for a handle that is not open).
int close(int handle);
// Reads up to `count` bytes at the handle's position. Returns the bytes read (fewer only at the end
// of the file), 0 at the end, -1 on failure.
int read(int handle, void* buffer, unsigned count);
// Writes `count` bytes at the handle's position. Returns the bytes written, -1 on failure. A write
// to a file this layer opened that would put a byte at or beyond offset 2^31 - 1 writes nothing
// and gives -1.
int write(int handle, const void* buffer, unsigned count);
// Moves the position: origin 0 from the beginning, 1 from the current position, 2 from the end.
// Returns the new position, or -1 (without moving) when it would be negative or above 2^31 - 1.
int32_t lseek(int handle, int32_t offset, int origin);
// The current position, -1 on failure.
int32_t tell(int handle);
// The size of the file in bytes, -1 on failure or when it does not fit.
int32_t filelength(int handle);
// A new handle on the same open file, sharing its position. -1 on failure.
int dup(int handle);
// The layer keeps the position of the regular files it opened, so that a seek costs no system call
// and the read or write after it is one positioned call. This brings the system's own position of
// the handle up to date, for code that uses the handle outside this layer. 0, or -1 on failure.
int syncPosition(int handle);
// Fills `stat`. 0 on success, -1 on failure.
int fstat(int handle, FileStat* stat);

// True when both paths name one existing file (the same device and file number, so links and
// different spellings of one path count as the same). False when either does not exist or cannot
// be examined. Not a counted call and not subject to the fault seam: it only asks, never changes.
bool sameFile(const char* pathA, const char* pathB);

// Turns a path written with backslashes into one for the host system.
void toHostPath(const char* path, char* out, unsigned capacity);

// --- Durability and locks (crash-safe writers) ----------------------------------------------------

// Makes everything written through the handle durable: it survives a power cut once this returns
// 0 (fsync; FlushFileBuffers on Windows). -1 on failure.
int sync(int handle);
// Makes the existence of a file just created in the directory of `path` durable (a directory
// sync where the system needs one). 0, or -1 on failure.
int syncDirectoryOf(const char* path);
// An exclusive advisory lock on the whole file, held until unlock or close. With `wait` false a
// lock held through another open of the file gives -1 at once; with `wait` true the call waits.
int lock(int handle, bool wait);
int unlock(int handle);
// Cuts or extends the file to `length` bytes. 0, or -1 on failure.
int truncate(int handle, int32_t length);
// Deletes the file and makes the deletion durable. 0, or -1 on failure (also when it is missing).
int remove(const char* path);
// True when `path` names an existing file. Not counted and not subject to the fault seam.
bool exists(const char* path);

// --- Fault seam -----------------------------------------------------------------------------------

enum class IoCall { Open, Close, Read, Write, Seek, Tell, Length, Dup, Stat, Sync, Lock, Truncate, Remove };

// Installed by tests to make calls fail. Every call above asks the installed hook first.
class IoFaultHook {
 public:
  virtual ~IoFaultHook() = default;
  // True makes the call fail as the system would: -1, and nothing done. For Open the handle is -1.
  virtual bool shouldFail(IoCall call, int handle) = 0;
  // For Read and Write: how many of `count` bytes the call may move (a torn write or a short read).
  // Only asked when shouldFail said false.
  virtual unsigned limitBytes(IoCall /*call*/, int /*handle*/, unsigned count) { return count; }
  // Told of every change after it is made, so that a test can keep a shadow of what a power cut
  // would leave: an open (with its flags), the bytes of a write at their position (-1 when the
  // layer does not know it), a sync, a truncation and a removal.
  virtual void opened(int /*handle*/, const char* /*path*/, unsigned /*flags*/) {}
  virtual void wrote(int /*handle*/, int64_t /*position*/, const void* /*data*/, unsigned /*count*/) {}
  virtual void synced(int /*handle*/) {}
  virtual void truncated(int /*handle*/, int32_t /*length*/) {}
  virtual void removed(const char* /*path*/) {}
};

// Installs `hook` (null removes it) and returns the one it replaces. Not owned.
IoFaultHook* setIoFaultHook(IoFaultHook* hook);
// The installed hook, or null.
IoFaultHook* ioFaultHook();

// Process-wide count of calls made, for benchmarks that report system calls per operation.
struct IoCounters {
  uint64_t opens = 0, closes = 0, reads = 0, writes = 0, seeks = 0, tells = 0, lengths = 0,
           dups = 0, stats = 0, syncs = 0;
  uint64_t total() const {
    return opens + closes + reads + writes + seeks + tells + lengths + dups + stats + syncs;
  }
};
IoCounters ioCounters();
void resetIoCounters();
// Counts one sync (the durability calls live beside this file, one file per system).
void countSync();

}  // namespace platform
}  // namespace lowlevel

#endif
