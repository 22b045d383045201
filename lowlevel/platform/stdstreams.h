// Standard input, output and error as byte streams.
#ifndef LOWLEVEL_PLATFORM_STDSTREAMS_H
#define LOWLEVEL_PLATFORM_STDSTREAMS_H

namespace lowlevel {
namespace platform {

// Makes the three standard streams pass bytes unchanged (no line-end translation), so that a
// program prints the same bytes on every system. Call before anything is read or written.
void useBinaryStandardStreams();

}  // namespace platform
}  // namespace lowlevel

#endif
