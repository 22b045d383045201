// Logical paths of ZFile: locations put in front by BuildPath, prefixes resolved by ResolvePath.
#include <cctype>
#include <climits>
#include <cstdio>

#include "lowlevel/files/file.h"

namespace {

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

// Whether `path` begins with `prefix`, letters compared without regard to case.
bool startsWithNoCase(const std::string& path, const char* prefix) {
  size_t i = 0;
  for (; prefix[i] != '\0'; ++i) {
    if (i >= path.size() || lower(path[i]) != lower(prefix[i])) return false;
  }
  return true;
}

// The numbered volume prefix "c<N>:" at the start of `path`, N from 1 to `count` written without
// leading zeros: its length, with N in `number`, or 0. Reading the digits directly gives the same
// answer as trying "c1:", "c2:", ... in turn, without a loop as long as the count.
size_t numberedPrefix(const std::string& path, int count, int* number) {
  if (path.empty() || lower(path[0]) != 'c' || path.size() < 3 || path[1] < '1' || path[1] > '9') {
    return 0;
  }
  long long n = 0;
  size_t i = 1;
  for (; i < path.size() && path[i] >= '0' && path[i] <= '9'; ++i) {
    n = n * 10 + (path[i] - '0');
    if (n > count || n >= INT_MAX) return 0;  // N + 1 must stay a volume number
  }
  if (i >= path.size() || path[i] != ':') return 0;
  *number = static_cast<int>(n);
  return i + 1;
}

}  // namespace

bool ZFile::BuildPath(std::string& path, const char* location) {
  if (location == nullptr || location[0] == '\0') return false;
  if (path.find(':') != std::string::npos) return false;
  const char* directory = lowlevel::support().getDirectoryByIniName(location);
  if (directory != nullptr && directory[0] != '\0') {
    path.insert(0, directory);
    return true;
  }
  std::string message = "No location given for files.\nEntry: ";
  message += location;
  message += "\n";
  reporterLL(message, "ZFile::BuildPath", eReportError, "file", __LINE__);
  return false;
}

bool ZFile::ResolvePath(std::string& path, bool bRetry, bool bHostFlag) {
  eCDVolType volume = eCDVolNone;
  return ResolvePath(path, volume, bRetry, bHostFlag);
}

bool ZFile::ResolvePath(std::string& path, eCDVolType& volume, bool bRetry, bool bHostFlag) {
  ZlowLevelSupport& host = lowlevel::support();
  volume = eCDVolNone;
  const char* directory = nullptr;
  size_t prefixLength = 0;
  if (startsWithNoCase(path, "cd:")) {
    directory = host.getCdPath(eCDVolDefault, bRetry, bHostFlag);
    volume = eCDVolDefault;
    prefixLength = 3;
  } else {
    int number = 0;
    prefixLength = numberedPrefix(path, host.getCdCount(), &number);
    if (prefixLength > 0) {
      volume = static_cast<eCDVolType>(number + 1);
      directory = host.getCdPath(volume, bRetry, bHostFlag);
    } else if (startsWithNoCase(path, "ed:")) {
      directory = host.getExeDir();
      prefixLength = 3;
    } else if (startsWithNoCase(path, "id:")) {
      directory = host.getInstallDir();
      prefixLength = 3;
    } else if (startsWithNoCase(path, "ud:")) {
      directory = host.getUpdateDir();
      prefixLength = 3;
    } else {
      return true;  // a plain path
    }
  }
  if (directory == nullptr) return false;
  path.replace(0, prefixLength, directory);
  size_t doubled = path.find("\\\\");
  if (doubled != std::string::npos) path.erase(doubled, 1);
  return true;
}

bool ZFile::VerifyCd(int number, bool bRetry, bool bHostFlag) {
  if (number < 0 || number == INT_MAX) return false;
  std::string text = "cd:";
  if (number != 0) {
    if (number > lowlevel::support().getCdCount()) return false;
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "c%d:", number);
    text = buffer;
  }
  return ResolvePath(text, bRetry, bHostFlag);
}
