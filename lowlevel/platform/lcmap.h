// Locale mapping of key text: LCMapStringA on Windows, and the library's stand-in for it, built on
// ICU, elsewhere.
//
// `lcid` is a Windows locale identifier (0 and the system/user default identifiers mean the root
// locale); text is one byte to a character in the locale's Windows ANSI code page. `mapFlags` uses
// the Windows values below. With kLcmapSortKey the output is the locale's collation sort key, so that
// byte order of outputs is the locale's order of texts; otherwise it is the text with the asked-for
// case mapping, and with symbols or non-spacing marks removed where the NORM_ flags say so.
#ifndef LOWLEVEL_PLATFORM_LCMAP_H
#define LOWLEVEL_PLATFORM_LCMAP_H

#include <cstdint>

namespace lowlevel {
namespace platform {

constexpr uint32_t kLcmapLowercase = 0x100;
constexpr uint32_t kLcmapUppercase = 0x200;
constexpr uint32_t kLcmapSortKey = 0x400;
constexpr uint32_t kNormIgnoreCase = 0x1;
constexpr uint32_t kNormIgnoreNonSpace = 0x2;
constexpr uint32_t kNormIgnoreSymbols = 0x4;
constexpr uint32_t kNormIgnoreKanaType = 0x10000;
constexpr uint32_t kNormIgnoreWidth = 0x20000;
constexpr uint32_t kSortStringSort = 0x1000;

// Error codes, as the Windows ones.
constexpr uint32_t kErrorInsufficientBuffer = 122;
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorInvalidFlags = 1004;

// Maps `source` (`sourceLength` bytes, or -1 for a zero-terminated text whose terminator then counts
// in the result). With `capacity` 0 returns the size needed; otherwise fills `destination` and
// returns the size written. 0 means failure, with lastMapError() telling why.
int lcMapString(uint32_t lcid, uint32_t mapFlags, const char* source, int sourceLength,
                char* destination, int capacity);

// The error code of the last failed lcMapString on this thread.
uint32_t lastMapError();

}  // namespace platform
}  // namespace lowlevel

#endif
