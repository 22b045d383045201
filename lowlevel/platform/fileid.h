// Which file an open handle stands for, and a stamp of its last change: what a cache of a file's
// bytes needs to tell files apart and to notice a change made through other handles.
#ifndef LOWLEVEL_PLATFORM_FILEID_H
#define LOWLEVEL_PLATFORM_FILEID_H

#include <cstdint>

namespace lowlevel {
namespace platform {

struct FileIdentity {
  uint64_t device = 0;  // device and file number: equal for every handle on one file
  uint64_t number = 0;
  int64_t size = 0;        // bytes
  int64_t changeTime = 0;  // the later of the last data and status changes (a stamp to compare)
};

// Fills `id` for the open `handle`: one system call. 0 on success, -1 on failure. Like sameFile, not
// a counted call and not subject to the fault seam: it only asks, never changes.
int fileIdentity(int handle, FileIdentity* id);

}  // namespace platform
}  // namespace lowlevel

#endif
