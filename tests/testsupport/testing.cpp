#include "tests/testsupport/testing.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace lltest {

namespace fs = std::filesystem;

TempDir::TempDir() {
  // A fresh name that nobody else holds: create_directory fails on an existing one.
  std::random_device seed;
  for (int attempt = 0; attempt < 100; ++attempt) {
    fs::path candidate = fs::temp_directory_path() / ("lowlevel-test-" + std::to_string(seed()));
    if (fs::create_directory(candidate)) {
      path_ = candidate.generic_string();
      return;
    }
  }
  throw std::runtime_error("cannot make a temporary directory");
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool fileExists(const std::string& path) { return fs::exists(path); }

RecordingSupport::RecordingSupport() { setLowLevelSupportPtr(this); }

RecordingSupport::~RecordingSupport() { setLowLevelSupportPtr(nullptr); }

const char* RecordingSupport::getDirectoryByIniName(const char* name) {
  for (size_t i = 0; i < locationNames.size() && i < locationDirs.size(); ++i) {
    if (name != nullptr && locationNames[i] == name) return locationDirs[i].c_str();
  }
  return nullptr;
}

const char* RecordingSupport::getCdPath(eCDVolType volume, bool bRetry, bool bHostFlag) {
  cdPathCalls.push_back({static_cast<int>(volume), bRetry, bHostFlag});
  for (const auto& entry : cdPaths) {
    if (entry.first == static_cast<int>(volume)) return entry.second.c_str();
  }
  return nullptr;
}

const char* RecordingSupport::requestCdVolume(eCDVolType volume, bool /*bHostFlag*/) {
  volumeRequests.push_back(static_cast<int>(volume));
  return requestAnswer;
}

void RecordingSupport::reporter(const char* message, const char* function, ZEReporterFlag flag,
                                const char* sourceModule, int line) {
  reports.push_back({message != nullptr ? message : "<null>", function != nullptr ? function : "<null>",
                     flag, sourceModule != nullptr ? sourceModule : "<null>", line});
}

FaultInjector::FaultInjector(std::set<lowlevel::platform::IoCall> c) : calls(std::move(c)) {
  previous_ = lowlevel::platform::setIoFaultHook(this);
}

FaultInjector::~FaultInjector() { lowlevel::platform::setIoFaultHook(previous_); }

std::set<lowlevel::platform::IoCall> FaultInjector::allCalls() {
  using lowlevel::platform::IoCall;
  return {IoCall::Open, IoCall::Close, IoCall::Read,   IoCall::Write, IoCall::Seek,
          IoCall::Tell, IoCall::Length, IoCall::Dup, IoCall::Stat};
}

bool FaultInjector::shouldFail(lowlevel::platform::IoCall call, int handle) {
  bool fail = failHandle >= 0 && handle == failHandle;
  if (calls.count(call) != 0) {
    ++count;
    if (failAt.count(count) != 0 || (failFrom > 0 && count >= failFrom)) fail = true;
  }
  if (fail) ++failures;
  return fail;
}

unsigned FaultInjector::limitBytes(lowlevel::platform::IoCall call, int /*handle*/, unsigned n) {
  if (call == lowlevel::platform::IoCall::Write && writeLimit >= 0 &&
      n > static_cast<unsigned>(writeLimit)) {
    return static_cast<unsigned>(writeLimit);
  }
  return n;
}

std::string randomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::string out(n, '\0');
  for (char& c : out) c = static_cast<char>(rng());
  return out;
}

}  // namespace lltest
