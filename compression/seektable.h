// The seek table of a seekable zstd file: reading it from an open handle and writing it.
//
// Layout (little-endian): zstd frames, then one skippable frame
//   magic 0x184D2A5E, u32 frame size (bytes that follow),
//   per data frame: u32 compressed size, u32 expanded size, [u32 checksum],
//   u32 number of frames, u8 descriptor (bit 7: checksums present; bits 6-2 zero), u32 0x8F92EAB1.
// The checksum is the low 32 bits of XXH64, seed 0, of the frame's expanded bytes.
#ifndef LOWLEVEL_COMPRESSION_SEEKTABLE_H
#define LOWLEVEL_COMPRESSION_SEEKTABLE_H

#include <cstdint>
#include <string>
#include <vector>

namespace lowlevel {
namespace compression {

constexpr uint32_t kSkippableMagic = 0x184D2A5E;
constexpr uint32_t kSeekableMagic = 0x8F92EAB1;
constexpr uint8_t kChecksumFlag = 0x80;
constexpr uint8_t kReservedBits = 0x7C;
constexpr uint32_t kFooterSize = 9;

struct SeekEntry {
  int32_t compressedOffset = 0;  // from the start of the compressed data
  uint32_t compressedSize = 0;
  uint32_t expandedSize = 0;
  int32_t expandedOffset = 0;
  uint32_t checksum = 0;  // 0 when the table has none
};

struct SeekTable {
  std::vector<SeekEntry> entries;  // in file order
  bool checksums = false;
  int32_t tableOffset = 0;     // where the skippable frame starts, from the start of the data
  int32_t tableSize = 0;       // bytes of the skippable frame, header and footer included
  int32_t expandedLength = 0;  // sum of the expanded sizes
};

// Reads and checks the seek table of the data that starts at `baseOffset` in `handle` and runs to
// the end of the file. True only when the table is wholly consistent: both magic numbers, a frame
// size that matches the count and descriptor, reserved bits zero, no frame of compressed size 0,
// compressed sizes that add up exactly to the table's position, and an expanded total that fits a
// signed 32-bit number. Otherwise false with `error` saying why. Moves the handle's position.
bool readSeekTable(int handle, int32_t baseOffset, SeekTable* table, std::string* error);

// The skippable frame for `entries` (compressed and expanded sizes, and checksums when `checksums`).
std::string encodeSeekTable(const std::vector<SeekEntry>& entries, bool checksums);

// The checksum the table stores for `size` expanded bytes.
uint32_t frameChecksum(const void* data, size_t size);

}  // namespace compression
}  // namespace lowlevel

#endif
