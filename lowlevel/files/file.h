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

class ZFile : public ZCompressedFileBase {
 public:
  enum eFileTypes : int { eAllFiles = 0, eCdFiles = 1, eNonCdFiles = 2 };

  ZFile();
  explicit ZFile(int handle);
  ZFile(const ZFile& other);
  ZFile(const std::string& path, unsigned short openFlags, unsigned short permissionMode);
  ZFile(const std::string& path, const std::string& location, unsigned short openFlags,
        unsigned short permissionMode);
  ~ZFile() override;
  ZFile& operator=(const ZFile& other);

  bool Open(const std::string& path, unsigned short openFlags,
            unsigned short permissionMode) override;
  bool Open(const std::string& path, const std::string& location, unsigned short openFlags,
            unsigned short permissionMode);
  bool Close() override;
  int GetHandle() override;
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
  // Whether volume `number` (0 the default volume, N numbered volume N) can be reached.
  static bool VerifyCd(int number, bool bRetry, bool bHostFlag);

 private:
  static bool ResolvePath(std::string& path, eCDVolType& volume, bool bRetry, bool bHostFlag);

  bool OpenInternal(bool addToList);
  bool ReopenInternal();
  bool CloseInternal();
  void AddObject();
  bool RemoveObject();
  bool IsCdFile() const { return m_eCdVolType >= 1; }

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
