// The host's side of the library: the support object that answers for directories and volumes and
// takes reports, the one reporting function of every module, and a number conversion.
#ifndef LOWLEVEL_SUPPORT_SUPPORT_H
#define LOWLEVEL_SUPPORT_SUPPORT_H

#include <cstdint>
#include <string>

#include "lowlevel/lowlevel_export.h"

// The volume a path names. Values beyond the named ones are numbered volumes: volume N is N + 1.
enum eCDVolType : int {
  eCDVolNone = 0,     // the path names no volume
  eCDVolDefault = 1,  // the volume of the prefix "cd:"
  eCDVolFirst = 2     // numbered volume 1, prefix "c1:"; "c2:" is 3, and so on
};

// The level of a report.
enum ZEReporterFlag : int {
  eReportWarning = 1,  // a request turned down as not worth doing
  eReportError = 2     // the operation failed
};

// Everything the library asks of its surroundings. The host derives from it, overrides what it
// needs and installs its object with setLowLevelSupportPtr. Every default answers "nothing":
// null directories, no volumes, and reports are swallowed.
//
// Directory texts stay the property of the object; the library reads them at once and keeps no
// pointer to them.
class LOWLEVEL_EXPORT ZlowLevelSupport {
 public:
  constexpr ZlowLevelSupport() {}
  constexpr ZlowLevelSupport(const ZlowLevelSupport&) {}
  ZlowLevelSupport& operator=(const ZlowLevelSupport&) { return *this; }
  virtual ~ZlowLevelSupport() {}

  // Directories of the prefixes "ed:", "id:" and "ud:", or null when there is none.
  virtual const char* getExeDir() { return nullptr; }
  virtual const char* getInstallDir() { return nullptr; }
  virtual const char* getUpdateDir() { return nullptr; }
  // The directory of a location name from the host's configuration; null or empty when unknown.
  virtual const char* getDirectoryByIniName(const char* /*name*/) { return nullptr; }
  // How many numbered volumes exist.
  virtual int getCdCount() { return 0; }
  // The directory of a volume, or null. bRetry is true on the second attempt to reach a file,
  // after an open on the first answer failed. bHostFlag is false within the library.
  virtual const char* getCdPath(eCDVolType /*volume*/, bool /*bRetry*/, bool /*bHostFlag*/) {
    return nullptr;
  }
  // Asked after an operation on a file failed: non-null to try once more, null to give up.
  // May call ZFile::CloseAll.
  virtual const char* requestCdVolume(eCDVolType /*volume*/, bool /*bHostFlag*/) { return nullptr; }
  // Takes a report. What it does with it is the host's business; it may return.
  virtual void reporter(const char* /*message*/, const char* /*function*/, ZEReporterFlag /*flag*/,
                        const char* /*sourceModule*/, int /*line*/) {}
};

// Installs the host's support object, replacing whatever was installed. No ownership is taken and
// the object must outlive every file, tree and command line of the library. A null pointer
// reinstalls the library's default object, so the library never calls through a null pointer.
LOWLEVEL_EXPORT void setLowLevelSupportPtr(ZlowLevelSupport* support);

// Passes a report to the installed object's reporter, unchanged.
LOWLEVEL_EXPORT void reporterLL(const char* message, const char* function, ZEReporterFlag flag,
                                const char* sourceModule, int line);
// The same with strings; an empty string passes as an empty text, never as null.
LOWLEVEL_EXPORT void reporterLL(const std::string& message, const std::string& function,
                                ZEReporterFlag flag, const char* sourceModule, int line);

// "0x" followed by hexadecimal digits (lower-case x only) gives their value in 32 bits, digits
// beyond the eighth pushing the first ones out; every character is taken as a digit, none refused.
// Anything else is read as a decimal number with optional blanks and sign in front, stopping at the
// first other character, saturating at the 32-bit limits; 0 when there are no digits. A null text
// gives 0.
LOWLEVEL_EXPORT int32_t convertStringToLong(const char* text);

namespace lowlevel {
// The installed support object; never null. For the library's own use.
ZlowLevelSupport& support();
}  // namespace lowlevel

#endif
