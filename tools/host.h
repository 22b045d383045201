// The tool's support object: directories, volumes and named locations from an INI file, and reports
// written to standard error.
#ifndef LOWLEVEL_TOOLS_HOST_H
#define LOWLEVEL_TOOLS_HOST_H

#include <map>
#include <string>

#include "lowlevel/support/support.h"

// INI layout:
//   [directories]  program = DIR   install = DIR   update = DIR
//   [volumes]      cd = DIR        1 = DIR         2 = DIR ...
//   [locations]    NAME = DIR
// Relative directories count from the INI file's own directory.
class ToolHost : public ZlowLevelSupport {
 public:
  // Reads the INI file; false with `error` set when it cannot be read or a line is malformed.
  bool load(const std::string& path, std::string* error);

  const char* getExeDir() override { return answer(m_sExeDir); }
  const char* getInstallDir() override { return answer(m_sInstallDir); }
  const char* getUpdateDir() override { return answer(m_sUpdateDir); }
  const char* getDirectoryByIniName(const char* name) override;
  int getCdCount() override;
  const char* getCdPath(eCDVolType volume, bool bRetry, bool bHostFlag) override;
  const char* requestCdVolume(eCDVolType volume, bool bHostFlag) override;
  void reporter(const char* message, const char* function, ZEReporterFlag flag,
                const char* sourceModule, int line) override;

  int reportCount() const { return m_nReports; }
  // Sets a directory by hand (used by the demo).
  void setVolume(int volume, const std::string& dir) { m_mVolumes[volume] = dir; }
  void setLocation(const std::string& name, const std::string& dir) { m_mLocations[name] = dir; }
  void setExeDir(const std::string& dir) { m_sExeDir = dir; }
  bool quiet = false;

 private:
  static const char* answer(const std::string& s) { return s.empty() ? nullptr : s.c_str(); }
  std::string m_sExeDir, m_sInstallDir, m_sUpdateDir;
  std::map<int, std::string> m_mVolumes;  // eCDVolType value -> directory
  std::map<std::string, std::string> m_mLocations;
  int m_nReports = 0;
};

#endif
