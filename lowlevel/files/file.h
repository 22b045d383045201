// ZFile: a file named by a logical path (a location and a prefix for a well-known directory or a
// removable volume), resolved afresh at each open. All open files are known to two class-wide
// lists, so the host can close every file on volumes, or all others, at once with CloseAll; each
// comes back by itself on its next use, at the position where it was. An operation that fails asks
// the support object for the volume and tries once more.
#ifndef LOWLEVEL_FILES_FILE_H
#define LOWLEVEL_FILES_FILE_H

#include <cstdint>
#include <string>
#include <vector>

#include "lowlevel/files/cmpfilbs.h"
#include "lowlevel/support/support.h"
#include "lowlevel/lowlevel_export.h"

class LOWLEVEL_EXPORT ZFile : public ZCompressedFileBase {
 public:
  enum eFileTypes : int { eAllFiles = 0, eCdFiles = 1, eNonCdFiles = 2 };

  // Closed, no path, not listed.
  ZFile();
  // Wraps a handle opened elsewhere (see ZCompressedFileBase). Not listed, so CloseAll never
  // touches it; path empty, volume none.
  explicit ZFile(int handle);
  // A copy on a duplicate handle with the other's path, flags, volume type and parking state. Not
  // listed, even when the other is; a copy of a parked file re-opens on first use, still unlisted.
  ZFile(const ZFile& other);
  // Store path, flags and mode, then Open with an empty location / with `location`.
  ZFile(const std::string& path, unsigned short openFlags, unsigned short permissionMode);
  ZFile(const std::string& path, const std::string& location, unsigned short openFlags,
        unsigned short permissionMode);
  // Leaves the lists, then closes as the base classes do.
  ~ZFile() override;
  // The left side leaves the lists and becomes what a copy of the right side would be: its own
  // duplicate handle and decompression state (see ZCompressedFileBase::operator=), the right side's
  // path, flags, volume type and parking state, and not listed. No two objects own one handle.
  ZFile& operator=(const ZFile& other);

  // Open with an empty location.
  bool Open(const std::string& path, unsigned short openFlags,
            unsigned short permissionMode) override;
  // Closes an open file first (a closed one that is still listed leaves the lists), stores the path
  // with the location's directory in front (BuildPath), resolves its prefix and opens. The file is
  // listed once the path resolves, also when the open then fails. A volume file whose open fails
  // asks for the volume once more with bRetry true and tries again.
  bool Open(const std::string& path, const std::string& location, unsigned short openFlags,
            unsigned short permissionMode);
  // Leaves the lists and closes. False on a parked file. A listed file's re-open ends here for
  // good; an unlisted copy of a parked file keeps its parking and re-opens on its next use.
  bool Close() override;
  // Re-opens a parked file first.
  int GetHandle() override;
  // These four re-open a parked file first (at its saved position) and give -1 on a closed file.
  // A negative result asks the support object's requestCdVolume once; on a non-null answer the
  // operation runs once more and its second result is returned.
  int32_t Position() override;
  int32_t Length() override;
  int32_t Seek(int32_t offset, int origin) override;
  int Read(void* buffer, int count) override;

  // Parks every open file of the selected lists at its position; each comes back on its next use.
  static void CloseAll(eFileTypes types);

  // Puts the directory of `location` in front of `path`. False when there is no location, when
  // the path has a colon already, or when the location is not configured (reported).
  static bool BuildPath(std::string& path, const char* location);
  // Replaces a recognised prefix by its directory. False when a recognised prefix has no directory.
  static bool ResolvePath(std::string& path, bool bRetry, bool bHostFlag);
  // Whether volume `number` (0 the default volume, N numbered volume N) can be reached. A number
  // above getCdCount() or below 0 is false without asking for a directory.
  static bool VerifyCd(int number, bool bRetry, bool bHostFlag);

 private:
  static bool ResolvePath(std::string& path, eCDVolType& volume, bool bRetry, bool bHostFlag);

  bool OpenInternal(bool addToList);
  bool ReopenInternal();
  bool CloseInternal();
  void AddObject();
  bool RemoveObject();
  bool IsCdFile() const { return m_eCdVolType >= 1; }
  template <class Operation>
  auto withRetry(Operation operation) -> decltype(operation());

  eCDVolType m_eCdVolType;
  std::string m_sPath;
  unsigned short m_nOpenFlags;
  unsigned short m_nPermission;
  bool m_bReopenPending;
  int32_t m_lSavedPosition;

  static std::vector<ZFile*> m_vCdFiles;
  static std::vector<ZFile*> m_vNonCdFiles;

  friend struct ZFileTestAccess;  // lets tests check the lists' invariant
};

#endif
