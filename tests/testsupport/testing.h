// Shared helpers for the unit tests: scratch directories, a support object that records reports,
// and fault injection through the platform seam.
#ifndef LOWLEVEL_TESTS_TESTING_H
#define LOWLEVEL_TESTS_TESTING_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "lowlevel/platform/io.h"
#include "lowlevel/support/support.h"

namespace lltest {

// A fresh directory under the system's temporary directory, removed with everything in it when the
// object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);
bool fileExists(const std::string& path);

struct Report {
  std::string message, function;
  ZEReporterFlag flag;
  std::string module;
  int line;
};

// Each report as "message|function|flag|module" on a line of its own; line numbers left out.
inline std::string reportsText(const std::vector<Report>& reports) {
  std::string out;
  for (const Report& r : reports)
    out += r.message + "|" + r.function + "|" + std::to_string(static_cast<int>(r.flag)) + "|" +
           r.module + "\n";
  return out;
}

// A support object that records every report. Installs itself while it lives and puts the default
// object back afterwards. A directory is answered from `answers` by key ("ed", "id" and "ud" for
// the program's directories, "cN" for the volume of eCDVolType value N, a location's own name),
// and a request for a volume by the key "request"; a missing key answers null. `log` records each
// volume question as "path N retry hostFlag;" (flags as 0 or 1), each request as "request N;" and
// each report as reportsText writes it.
class RecordingSupport : public ZlowLevelSupport {
 public:
  RecordingSupport();
  ~RecordingSupport() override;

  const char* getExeDir() override { return answer("ed"); }
  const char* getInstallDir() override { return answer("id"); }
  const char* getUpdateDir() override { return answer("ud"); }
  const char* getDirectoryByIniName(const char* name) override { return answer(name ? name : ""); }
  int getCdCount() override { return cdCount; }
  const char* getCdPath(eCDVolType volume, bool bRetry, bool bHostFlag) override;
  const char* requestCdVolume(eCDVolType volume, bool bHostFlag) override;
  void reporter(const char* message, const char* function, ZEReporterFlag flag,
                const char* sourceModule, int line) override;
  const char* answer(const std::string& key) const;

  std::vector<Report> reports;
  std::map<std::string, std::string> answers;
  int cdCount = 0;
  std::string log;
};

// Makes I/O calls fail through the platform seam while it lives.
//
// Counting: every call whose kind is in `calls` counts; the calls numbered in `failAt` (1-based,
// first set from `at`) fail. failFrom > 0 makes every counted call from that number on fail.
// failHandle >= 0 makes every call on that handle fail. writeLimit >= 0 cuts each write to that
// many bytes (torn writes).
class FaultInjector : public lowlevel::platform::IoFaultHook {
 public:
  explicit FaultInjector(std::set<lowlevel::platform::IoCall> calls = allCalls(),
                         std::set<int> at = {});
  ~FaultInjector() override;
  FaultInjector(const FaultInjector&) = delete;
  FaultInjector& operator=(const FaultInjector&) = delete;

  static std::set<lowlevel::platform::IoCall> allCalls();

  bool shouldFail(lowlevel::platform::IoCall call, int handle) override;
  unsigned limitBytes(lowlevel::platform::IoCall call, int handle, unsigned count) override;

  std::set<lowlevel::platform::IoCall> calls;
  std::set<int> failAt;
  int failFrom = 0;
  int failHandle = -1;
  int writeLimit = -1;
  int count = 0;     // counted calls so far
  int failures = 0;  // calls made to fail so far

 private:
  lowlevel::platform::IoFaultHook* previous_;
};

// `n` bytes drawn from a generator seeded with `seed`; they do not compress.
std::string randomBytes(size_t n, unsigned seed);

// Reads up to `n` bytes with f.Read(buffer, n): the bytes read, or "<result>" when it fails.
template <class File>
std::string readSome(File& f, int n) {
  std::string buf(static_cast<size_t>(n), '\0');
  const int got = f.Read(&buf[0], n);
  return got < 0 ? "<" + std::to_string(got) + ">" : buf.substr(0, static_cast<size_t>(got));
}

}  // namespace lltest

#endif
