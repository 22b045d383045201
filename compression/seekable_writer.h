// Writing, expanding and describing seekable zstd files (layout in compression/seektable.h).
//
// The writer cuts the input into chunks of `chunkSize` bytes (the last may be shorter), compresses
// each into its own zstd frame and appends the seek table. Empty input gives one frame of expanded
// size 0, so every file it writes has at least one frame; a reader still accepts a table of zero
// frames as an empty compressed file. Any zstd decoder expands the result to the original bytes.
// Inputs above 2^31 - 1 bytes are refused, since readers measure expanded lengths in signed 32 bits.
// All file access goes through lowlevel/platform/io.h.
#ifndef LOWLEVEL_COMPRESSION_SEEKABLE_WRITER_H
#define LOWLEVEL_COMPRESSION_SEEKABLE_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

namespace lowlevel {
namespace compression {

struct SeekableWriteOptions {
  uint32_t chunkSize = 65536;  // bytes of input per frame; must be above 0
  int level = 3;               // zstd level
  bool checksums = true;       // store a checksum per frame in the seek table
};

// Compresses `data` into `out` (replaced). False, `out` unchanged, with `error` (may be null) set
// for a chunk size of 0, a level outside zstd's range or an input that is too large.
bool compressToSeekable(const std::string& data, const SeekableWriteOptions& options, std::string* out,
                        std::string* error);

// Compresses the file `srcPath` into `dstPath` (created or truncated), chunk by chunk. False with
// `error` set when an option is bad or a file cannot be read or written; `dstPath` may then hold
// an incomplete file. A source longer than 2^31 - 1 bytes is refused with that reason, and no frame
// is written that would bring the target (with its seek table) to offset 2^31 - 1: the error then
// names `dstPath` and the limit.
bool compressFileToSeekable(const std::string& srcPath, const std::string& dstPath,
                            const SeekableWriteOptions& options, std::string* error);

// Expands the seekable file `srcPath` into `dstPath` (created or truncated), checking the stored
// checksums. False with `error` set when `srcPath` is not a consistent seekable file, a frame is
// damaged, or a file cannot be read or written.
bool expandSeekableFile(const std::string& srcPath, const std::string& dstPath, std::string* error);

struct SeekableFrameInfo {
  int32_t compressedOffset = 0;
  uint32_t compressedSize = 0;
  int32_t expandedOffset = 0;
  uint32_t expandedSize = 0;
  uint32_t checksum = 0;  // 0 when the file stores none
};

struct SeekableInfo {
  int32_t fileLength = 0;      // bytes on disk
  int32_t expandedLength = 0;  // bytes after expansion
  int32_t tableSize = 0;       // bytes of the seek-table frame
  bool checksums = false;
  std::vector<SeekableFrameInfo> frames;
};

// Reads the seek table of `path` without expanding anything. False with `error` set when the file
// cannot be read or is not a consistent seekable file.
bool describeSeekableFile(const std::string& path, SeekableInfo* info, std::string* error);

}  // namespace compression
}  // namespace lowlevel

#endif
