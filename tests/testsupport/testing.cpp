#include "tests/testsupport/testing.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

namespace lltest {

namespace fs = std::filesystem;
using lowlevel::platform::IoCall;

TempDir::TempDir() {
  // A fresh name that nobody else holds: create_directory fails on an existing one.
  std::random_device seed;
  for (int attempt = 0; attempt < 100 && path_.empty(); ++attempt) {
    fs::path candidate = fs::temp_directory_path() / ("lowlevel-test-" + std::to_string(seed()));
    if (fs::create_directory(candidate)) path_ = candidate.generic_string();
  }
  if (path_.empty()) throw std::runtime_error("cannot make a temporary directory");
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool fileExists(const std::string& path) { return fs::exists(path); }

RecordingSupport::RecordingSupport() { setLowLevelSupportPtr(this); }

RecordingSupport::~RecordingSupport() { setLowLevelSupportPtr(nullptr); }

const char* RecordingSupport::answer(const std::string& key) const {
  const auto it = answers.find(key);
  return it != answers.end() ? it->second.c_str() : nullptr;
}

const char* RecordingSupport::getCdPath(eCDVolType volume, bool bRetry, bool bHostFlag) {
  const std::string n = std::to_string(static_cast<int>(volume));
  log += "path " + n + " " + std::to_string(bRetry) + " " + std::to_string(bHostFlag) + ";";
  return answer("c" + n);
}

const char* RecordingSupport::requestCdVolume(eCDVolType volume, bool /*bHostFlag*/) {
  log += "request " + std::to_string(static_cast<int>(volume)) + ";";
  return answer("request");
}

void RecordingSupport::reporter(const char* message, const char* function, ZEReporterFlag flag,
                                const char* sourceModule, int line) {
  reports.push_back({message != nullptr ? message : "<null>", function != nullptr ? function : "<null>",
                     flag, sourceModule != nullptr ? sourceModule : "<null>", line});
  log += reportsText({reports.back()});
}

FaultInjector::FaultInjector(std::set<IoCall> c, std::set<int> at)
    : calls(std::move(c)), failAt(std::move(at)),
      previous_(lowlevel::platform::setIoFaultHook(this)) {}

FaultInjector::~FaultInjector() { lowlevel::platform::setIoFaultHook(previous_); }

std::set<IoCall> FaultInjector::allCalls() {
  return {IoCall::Open, IoCall::Close, IoCall::Read,   IoCall::Write, IoCall::Seek,
          IoCall::Tell, IoCall::Length, IoCall::Dup, IoCall::Stat};
}

bool FaultInjector::shouldFail(IoCall call, int handle) {
  const int number = calls.count(call) != 0 ? ++count : 0;  // 0: not counted
  const bool fail = (failHandle >= 0 && handle == failHandle) || failAt.count(number) != 0 ||
                    (failFrom > 0 && number >= failFrom);
  failures += fail;
  return fail;
}

unsigned FaultInjector::limitBytes(IoCall call, int /*handle*/, unsigned n) {
  return call == IoCall::Write && writeLimit >= 0 && n > static_cast<unsigned>(writeLimit)
             ? static_cast<unsigned>(writeLimit) : n;
}

std::string randomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::string out(n, '\0');
  for (char& c : out) c = static_cast<char>(rng());
  return out;
}

}  // namespace lltest
