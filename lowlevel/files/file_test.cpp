#include "lowlevel/files/file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "compression/seekable_writer.h"
#include "lowlevel/platform/io.h"
#include "tests/testsupport/testing.h"

namespace io = lowlevel::platform;
using io::IoCall;

struct ZFileTestAccess {
  // "cd", "other" or "none": the list that holds the file. "broken" when the lists' invariant fails
  // for it (more than one entry over both lists).
  static std::string where(const ZFile& f) {
    auto n = [&](const std::vector<ZFile*>& l) { return std::count(l.begin(), l.end(), &f); };
    long cd = n(ZFile::m_vCdFiles), other = n(ZFile::m_vNonCdFiles);
    if (cd + other > 1) return "broken";
    return cd == 1 ? "cd" : other == 1 ? "other" : "none";
  }
  static size_t listed() { return ZFile::m_vCdFiles.size() + ZFile::m_vNonCdFiles.size(); }
  static const OffsetMap* map(const ZFile& f) { return f.m_pOffsetMap; }
};

namespace {

namespace fs = std::filesystem;
using Access = ZFileTestAccess;
using lltest::FailCalls;
const unsigned short kRead = io::kOpenReadOnly;

// The list that holds the file, then "+" while it is open or "-" while it is not.
std::string state(const ZFile& f) { return Access::where(f) + (f.IsOpen() ? "+" : "-"); }

// A changer of removable volumes: each volume is a directory under a scratch directory, and can be
// taken out (getCdPath answers null) or put back under another directory.
class Changer : public lltest::RecordingSupport {
 public:
  const char* getCdPath(eCDVolType volume, bool bRetry, bool bHostFlag) override {
    const char* answer = RecordingSupport::getCdPath(volume, bRetry, bHostFlag);
    return bRetry && !retryAnswer.empty() ? retryAnswer.c_str() : answer;
  }
  const char* requestCdVolume(eCDVolType volume, bool bHostFlag) override {
    const char* answer = RecordingSupport::requestCdVolume(volume, bHostFlag);
    if (onRequest) onRequest();
    return answer;
  }
  void mount(int volume, const std::string& dir) {
    eject(volume);
    cdPaths.push_back({volume, dir + "/"});
  }
  void eject(int volume) {
    auto same = [&](const std::pair<int, std::string>& e) { return e.first == volume; };
    cdPaths.erase(std::remove_if(cdPaths.begin(), cdPaths.end(), same), cdPaths.end());
  }
  std::string retryAnswer;
  std::function<void()> onRequest;
};

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('A' + i % 53);
  return s;
}

class ZFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directory(slotA);
    fs::create_directory(slotB);
    lltest::writeFile(slotA + "/data.bin", data);
    lltest::writeFile(plain, data);
    host.cdCount = 2;
    host.mount(1, slotA);
  }
  void TearDown() override { EXPECT_EQ(listedBefore, Access::listed()); }
  // Moves the disc of volume 1 to the other slot.
  void moveVolume() {
    std::string from = inA ? slotA : slotB, to = inA ? slotB : slotA;
    fs::remove(to);
    fs::rename(from, to);
    fs::create_directory(from);
    host.mount(1, to);
    inA = !inA;
  }
  // The bytes read, or "<result>" when the read fails.
  std::string readN(ZFile& f, int n) {
    std::string buf(static_cast<size_t>(n), '\0');
    int got = f.Read(&buf[0], n);
    return got < 0 ? "<" + std::to_string(got) + ">" : buf.substr(0, static_cast<size_t>(got));
  }

  size_t listedBefore = Access::listed();
  lltest::TempDir dir;
  std::string slotA = dir.file("slotA"), slotB = dir.file("slotB"), plain = dir.file("plain.bin");
  bool inA = true;
  std::string data = pattern(100);
  Changer host;
};

TEST_F(ZFileTest, ParkedFilesComeBackOnEveryKindOfUse) {
  for (int use = 0; use < 5; ++use) {
    SCOPED_TRACE(use);
    ZFile f("cd:data.bin", kRead, 0);
    EXPECT_EQ(7, f.Seek(7, 0));
    ZFile::CloseAll(ZFile::eCdFiles);
    EXPECT_EQ("cd-", state(f));
    ZFile::CloseAll(ZFile::eCdFiles);  // passed over: the saved position stays
    moveVolume();                      // re-resolution finds the volume in its new directory
    switch (use) {
      case 0: EXPECT_GE(f.GetHandle(), 0); break;
      case 1: EXPECT_EQ(7, f.Position()); break;
      case 2: EXPECT_EQ(100, f.Length()); break;
      case 3: EXPECT_EQ(10, f.Seek(3, 1)); break;
      case 4: EXPECT_EQ(data.substr(7, 5), readN(f, 5)); break;
    }
    EXPECT_EQ("cd+", state(f));
    EXPECT_EQ(use == 3 ? 10 : use == 4 ? 12 : 7, f.Position());
  }
  EXPECT_TRUE(host.volumeRequests.empty());
}

TEST_F(ZFileTest, CloseAllSelectsLists) {
  ZFile cd("cd:data.bin", kRead, 0), other(plain, kRead, 0);
  other.Seek(5, 0);
  ZFile::CloseAll(static_cast<ZFile::eFileTypes>(7));
  EXPECT_EQ("cd+other+", state(cd) + state(other));
  ZFile::CloseAll(ZFile::eNonCdFiles);
  EXPECT_EQ("cd+other-", state(cd) + state(other));
  ZFile::CloseAll(ZFile::eAllFiles);
  EXPECT_EQ("cd-other-", state(cd) + state(other));
  EXPECT_EQ(data.substr(5, 3), readN(other, 3));
  EXPECT_EQ(data.substr(0, 3), readN(cd, 3));
  EXPECT_EQ("cd+other+", state(cd) + state(other));
  {
    FailCalls faults({IoCall::Tell}, {1});  // a position not told at parking time comes back as 0
    ZFile::CloseAll(ZFile::eNonCdFiles);
  }
  EXPECT_EQ(0, other.Position());
}

TEST_F(ZFileTest, AVolumeFileIsAskedForOnceMoreWhenItsOpenFails) {
  host.retryAnswer = slotA + "/";
  host.mount(1, slotB);  // the first answer is the wrong directory
  ZFile f("cd:data.bin", kRead, 0);
  EXPECT_EQ("cd+", state(f));
  EXPECT_EQ("1 0 0,1 1 0", lltest::cdPathCallsText(host));

  host.retryAnswer = slotB + "/";
  host.cdPathCalls.clear();
  EXPECT_FALSE(f.Open("cd:data.bin", kRead, 0));
  EXPECT_EQ("1 0 0,1 1 0", lltest::cdPathCallsText(host));
  EXPECT_EQ("cd-", state(f));  // a failed open stays listed, closed
  EXPECT_EQ(-1, f.Read(nullptr, 0));
  EXPECT_EQ(-1, f.Position());
  EXPECT_TRUE(host.volumeRequests.empty());

  host.cdPathCalls.clear();
  host.exeDir = slotB.c_str();
  ZFile g("ed:/data.bin", kRead, 0);  // on no volume: no second attempt
  EXPECT_EQ("other-", state(g));
  EXPECT_EQ("", lltest::cdPathCallsText(host));

  host.eject(1);
  ZFile h("cd:data.bin", kRead, 0);  // does not resolve: not listed
  EXPECT_EQ("none-", state(h));
  EXPECT_FALSE(h.Close());
}

TEST_F(ZFileTest, AFailedOperationAsksForTheVolumeAndTriesOnce) {
  ZFile f("cd:data.bin", kRead, 0);
  host.requestAnswer = "again";
  {
    FailCalls faults({IoCall::Read}, {1});
    EXPECT_EQ(data.substr(0, 4), readN(f, 4));
    EXPECT_EQ(std::vector<int>{1}, host.volumeRequests);
  }
  {
    lltest::FaultInjector faults({IoCall::Read});
    faults.failFrom = 1;
    EXPECT_EQ("<-1>", readN(f, 4));
    EXPECT_EQ(2, faults.count);  // exactly one second try
    host.requestAnswer = nullptr;
    EXPECT_EQ("<-1>", readN(f, 4));
    EXPECT_EQ(3, faults.count);  // no answer: no second try
  }
  {
    FailCalls faults({IoCall::Seek, IoCall::Length, IoCall::Tell}, {1, 3, 5});
    host.requestAnswer = "again";
    EXPECT_EQ(9, f.Seek(5, 1));
    EXPECT_EQ(100, f.Length());
    EXPECT_EQ(9, f.Position());
  }
  EXPECT_EQ(6u, host.volumeRequests.size());
  ZFile other(plain, kRead, 0);
  host.volumeRequests.clear();
  {
    FailCalls faults({IoCall::Read}, {1});
    EXPECT_EQ(data.substr(0, 2), readN(other, 2));
  }
  EXPECT_EQ(std::vector<int>{0}, host.volumeRequests);  // asked with no volume
}

TEST_F(ZFileTest, TheHostMayParkFilesWhileItIsAskedForTheVolume) {
  ZFile f("cd:data.bin", kRead, 0), other(plain, kRead, 0);
  f.Seek(20, 0);
  host.requestAnswer = "changed";
  host.onRequest = [&] {
    ZFile::CloseAll(ZFile::eAllFiles);
    moveVolume();
  };
  {
    FailCalls faults({IoCall::Read}, {1});
    EXPECT_EQ(data.substr(20, 10), readN(f, 10));
  }
  EXPECT_EQ(30, f.Position());
  EXPECT_EQ(-1, other.Write("x", 1));  // Write and Flush bring nothing back
  other.Flush();
  EXPECT_EQ("cd+other-", state(f) + state(other));
  EXPECT_EQ(data, lltest::readFile(plain));
}

TEST_F(ZFileTest, HandleFilesAndCopiesAreNeverParked) {
  ZFile f("cd:data.bin", kRead, 0);
  f.Seek(3, 0);
  ZFile wrapped(io::open((slotA + "/data.bin").c_str(), kRead, 0)), copy(f);
  EXPECT_EQ(3, copy.Position());
  ZFile::CloseAll(ZFile::eAllFiles);
  EXPECT_EQ("none+none+cd-", state(wrapped) + state(copy) + state(f));
  ZFile copyOfParked(f);  // carries the pending mark: re-opens on first use, unlisted
  EXPECT_EQ("none-", state(copyOfParked));
  EXPECT_EQ(data.substr(3, 4), readN(copyOfParked, 4));
  EXPECT_EQ("none+cd-", state(copyOfParked) + state(f));
  EXPECT_TRUE(wrapped.Close());
}

TEST_F(ZFileTest, CloseOnAParkedFileEndsItsReopen) {
  ZFile f("cd:data.bin", kRead, 0);
  ZFile::CloseAll(ZFile::eCdFiles);
  EXPECT_FALSE(f.Close());
  EXPECT_EQ("none-", state(f));
  EXPECT_EQ(-1, f.Read(nullptr, 0));
  EXPECT_EQ(-1, f.GetHandle());
  EXPECT_TRUE(f.Open("cd:data.bin", kRead, 0));
  EXPECT_EQ(0, f.Position());
  EXPECT_TRUE(f.Close());
  EXPECT_EQ("none", Access::where(f));
}

TEST_F(ZFileTest, ListsStayConsistentWhenTheVolumeTypeChanges) {
  host.mount(3, slotA);
  ZFile f("c2:data.bin", kRead, 0);
  EXPECT_EQ("cd+", state(f));
  ZFile::CloseAll(ZFile::eAllFiles);
  host.cdCount = 1;  // "c2:" is no prefix any more: the re-open tries a plain path and fails
  EXPECT_EQ(-1, f.Position());
  EXPECT_EQ("other", Access::where(f));
  host.cdCount = 2;
  EXPECT_EQ(0, f.Position());
  EXPECT_EQ("cd", Access::where(f));
  ZFile::CloseAll(ZFile::eAllFiles);
  EXPECT_TRUE(f.Open(plain, kRead, 0));  // a parked file opened anew
  EXPECT_EQ("other", Access::where(f));
  EXPECT_TRUE(f.Open("cd:data.bin", kRead, 0));  // an open file opened anew
  EXPECT_EQ("cd", Access::where(f));
  ZFile failed("c2:none.bin", kRead, 0);
  EXPECT_EQ("cd", Access::where(failed));
  EXPECT_TRUE(failed.Open("cd:data.bin", kRead, 0));
  EXPECT_EQ("cd", Access::where(failed));
}

TEST_F(ZFileTest, ACompressedFileParksAtItsExpandedPosition) {
  std::string expanded = pattern(240), packed;
  ASSERT_TRUE(lowlevel::compression::compressToSeekable(expanded, {100, 3, true}, &packed, 0));
  lltest::writeFile(slotA + "/packed.zst", packed);
  ZFile f("cd:packed.zst", kRead | io::kOpenBinary, 0);
  EXPECT_EQ(240, f.Length());
  EXPECT_EQ(expanded.substr(0, 150), readN(f, 150));
  const OffsetMap* map = Access::map(f);
  size_t tables = offsetMapTable.size();
  ZFile::CloseAll(ZFile::eCdFiles);
  EXPECT_EQ(expanded.substr(150, 50), readN(f, 50));
  EXPECT_EQ(map, Access::map(f));
  EXPECT_EQ(tables, offsetMapTable.size());
  EXPECT_EQ(0, f.Write("x", 1));
  EXPECT_EQ(230, f.Seek(10, 2));
}

TEST_F(ZFileTest, AssignmentMakesAnIndependentUnlistedCopy) {
  ZFile a("cd:data.bin", kRead, 0), b(plain, kRead, 0);
  a.Seek(11, 0);
  b = a;
  EXPECT_EQ("none+cd+", state(b) + state(a));
  EXPECT_NE(a.GetHandle(), b.GetHandle());
  EXPECT_TRUE(a.Close());
  EXPECT_EQ(data.substr(11, 4), readN(b, 4));
  ZFile& alias = b;
  b = alias;  // self-assignment changes nothing
  EXPECT_EQ(15, b.Position());
}

TEST_F(ZFileTest, LocationsAndFailingCloses) {
  host.locationNames = {"DISC"};
  host.locationDirs = {"cd:"};
  ZFile f("data.bin", "DISC", kRead, 0);
  EXPECT_EQ("cd", Access::where(f));
  // Reported, then opened unchanged. Relative, as a drive letter's colon would keep the location away.
  const std::filesystem::path cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  ZFile g("plain.bin", "NOPE", kRead, 0);
  std::filesystem::current_path(cwd);
  EXPECT_EQ("other+", state(g));
  ASSERT_EQ(1u, host.reports.size());
  EXPECT_EQ("ZFile::BuildPath", host.reports[0].function);
  {
    lltest::FaultInjector faults({IoCall::Close});
    faults.failFrom = 1;
    EXPECT_FALSE(g.Close());
  }
  EXPECT_EQ("none-", state(g));
  {
    FailCalls faults({IoCall::Open}, {1});  // the second attempt asks again and succeeds
    EXPECT_TRUE(f.Open("cd:data.bin", kRead, 0));
  }
  EXPECT_EQ("1 0 0,1 0 0,1 1 0", lltest::cdPathCallsText(host));
}

}  // namespace
