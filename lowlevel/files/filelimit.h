// The 2 GiB limit. Positions and lengths are signed 32-bit numbers throughout the library, so no
// byte of a file may lie at or beyond offset 2^31 - 1: the longest file it writes or reads is
// 2^31 - 1 bytes. Writers ask here before they write; readers refuse a longer file with a report
// that says why, rather than the bare -1 of a length that does not fit.
#ifndef LOWLEVEL_FILES_FILELIMIT_H
#define LOWLEVEL_FILES_FILELIMIT_H

#include <cstdint>
#include <string>

constexpr int64_t kFileOffsetLimit = INT32_MAX;  // 2^31 - 1: the first offset no byte may take

// True when `count` bytes written at `position` all lie below the limit.
inline bool fitsFileLimit(int64_t position, int64_t count) {
  return position >= 0 && count >= 0 && position <= kFileOffsetLimit - count;
}

// The report of a write that would cross the limit:
// "Write refused: it would reach offset 2147483647, the 2 GiB limit (PATH)."
std::string fileLimitWriteMessage(const std::string& path);
// The report of a file that is longer than the limit:
// "File is larger than 2147483647 bytes, the 2 GiB limit (PATH)."
std::string fileLimitReadMessage(const std::string& path);

// Reports fileLimitWriteMessage through reporterLL as an error of `function` and answers false,
// so that a writer can `return refuseBeyondFileLimit(...)`.
bool refuseBeyondFileLimit(const std::string& path, const char* function, const char* module,
                           int line);

// True when the open `handle` is a regular file longer than the limit (the platform layer then
// answers -1 for its length). False for every other file and for a handle it cannot examine.
bool fileBeyondLimit(int handle);

#endif
