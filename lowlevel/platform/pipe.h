// An anonymous pipe on handles of the kind io.h works with, for code that needs a file that is not
// a regular file (a FIFO to fstat).
#ifndef LOWLEVEL_PLATFORM_PIPE_H
#define LOWLEVEL_PLATFORM_PIPE_H

namespace lowlevel {
namespace platform {

// Fills handles[0] (read end) and handles[1] (write end). 0 on success, -1 on failure. Both ends
// are closed with close() of io.h or of the system.
int makePipe(int handles[2]);

}  // namespace platform
}  // namespace lowlevel

#endif
