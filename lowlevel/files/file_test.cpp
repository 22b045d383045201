#include "lowlevel/files/file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <random>

#include "compression/seekable_writer.h"
#include "lowlevel/platform/io.h"
#include "tests/testsupport/testing.h"

namespace io = lowlevel::platform;
using io::IoCall;

struct ZFileTestAccess {
  // "cd", "other" or "none": the list that holds the file; "broken" when it is listed twice.
  static std::string where(const ZFile& f) {
    auto n = [&](const std::vector<ZFile*>& l) { return std::count(l.begin(), l.end(), &f); };
    long cd = n(ZFile::m_vCdFiles), other = n(ZFile::m_vNonCdFiles);
    return cd + other > 1 ? "broken" : cd == 1 ? "cd" : other == 1 ? "other" : "none";
  }
  static size_t listed() { return ZFile::m_vCdFiles.size() + ZFile::m_vNonCdFiles.size(); }
};

namespace {

namespace fs = std::filesystem;
using Access = ZFileTestAccess;
using lltest::FailCalls;
const unsigned short kRead = io::kOpenReadOnly;

// The list that holds the file, then "+" while it is open or "-" while it is not.
std::string state(const ZFile& f) { return Access::where(f) + (f.IsOpen() ? "+" : "-"); }

// A changer of removable volumes: volume 1 is a directory that moves between two slots.
class ZFileTest : public ::testing::Test, public lltest::RecordingSupport {
 protected:
  const char* getCdPath(eCDVolType volume, bool bRetry, bool bHostFlag) override {
    const char* answer = RecordingSupport::getCdPath(volume, bRetry, bHostFlag);
    return bRetry && !retryAnswer.empty() ? retryAnswer.c_str() : answer;
  }
  const char* requestCdVolume(eCDVolType volume, bool bHostFlag) override {
    if (park) ZFile::CloseAll(ZFile::eAllFiles);  // the host may park files meanwhile
    return RecordingSupport::requestCdVolume(volume, bHostFlag);
  }
  void SetUp() override {
    fs::create_directory(slotA);
    fs::create_directory(slotB);
    lltest::writeFile(slotA + "/data.bin", data);
    lltest::writeFile(plain, data.substr(0, 100));
    std::string packed;
    ASSERT_TRUE(lowlevel::compression::compressToSeekable(data, {100, 3, true}, &packed, nullptr));
    lltest::writeFile(slotA + "/packed.zst", packed);
    cdCount = 2;
    cdPaths = {{1, slotA + "/"}};
  }
  void TearDown() override { EXPECT_EQ(listedBefore, Access::listed()); }
  // Moves the disc of volume 1 to the other slot.
  void moveVolume() {
    fs::remove(slotB);
    fs::rename(slotA, slotB);
    fs::create_directory(slotA);
    std::swap(slotA, slotB);
    cdPaths[0].second = slotA + "/";
  }

  size_t listedBefore = Access::listed();
  lltest::TempDir dir;
  std::string slotA = dir.file("slotA"), slotB = dir.file("slotB"), plain = dir.file("plain.bin");
  bool park = false;
  std::string data = lltest::randomBytes(700, 5), retryAnswer;
};

// Seeded scripts of Seek, Read, Position, Length and GetHandle on a plain and on a compressed file
// of a volume, checked against the bytes the file holds, while the host parks the files (CloseAll)
// and moves the volume, also while it is asked for the volume after a failed call, and the test
// goes on with copies, assigned objects and re-opened ones.
TEST_F(ZFileTest, ScriptsMatchTheBytesThroughFailuresParkingCopiesAndReopens) {
  std::mt19937 rng(5);
  const int32_t length = static_cast<int32_t>(data.size());
  size_t requests = 0;
  requestAnswer = "again";
  for (int script = 0; script < 40; ++script) {
    const bool packed = script % 2 == 1;  // expanded positions: seeks clamp, from the end go back
    const std::string path = packed ? "cd:packed.zst" : "cd:data.bin";
    const unsigned short flags = packed ? kRead | io::kOpenBinary : kRead;
    auto f = std::make_unique<ZFile>(path, flags, 0);
    int32_t pos = 0;
    for (int step = 0; step < 40; ++step) {
      SCOPED_TRACE(std::to_string(script) + " " + std::to_string(step));
      const int op = static_cast<int>(rng() % 10);
      // A failed call of a plain file asks for the volume and is made once more; the host parks
      // every file meanwhile now and then. (A compressed file's read fails short, see cmpfilbs.)
      std::optional<FailCalls> faults;
      if (!packed && op < 7 && rng() % 3 == 0) {
        faults.emplace(std::set<IoCall>{IoCall::Read, IoCall::Seek, IoCall::Tell, IoCall::Length},
                       std::set<int>{1});
      }
      park = rng() % 2;
      bool failed = false;
      if (op < 3) {
        const int origin = static_cast<int>(rng() % (packed ? 4 : 3));
        const int32_t offset = static_cast<int32_t>(rng() % 900) - 100;
        int64_t target = origin == 0 ? offset : origin == 1 ? pos + offset
                         : origin == 3 ? pos : packed ? length - offset : length + offset;
        if (packed) target = std::min<int64_t>(std::max<int64_t>(target, 0), length);
        failed = target < 0;
        if (!failed) pos = static_cast<int32_t>(target);
        ASSERT_EQ(failed ? -1 : pos, f->Seek(offset, origin));
      } else if (op < 6) {
        const int n = static_cast<int>(rng() % 250);
        const std::string want = pos < length ? data.substr(static_cast<size_t>(pos), n) : "";
        ASSERT_EQ(want, lltest::readSome(*f, n));
        pos += static_cast<int32_t>(want.size());
      } else if (op == 6) {
        ASSERT_EQ(std::to_string(pos) + " " + std::to_string(length),
                  std::to_string(f->Position()) + " " + std::to_string(f->Length()));
      } else if (op == 7) {
        ZFile::CloseAll(static_cast<ZFile::eFileTypes>(rng() % 3));
        if (rng() % 2) moveVolume();
        ASSERT_GE(f->GetHandle(), 0);
      } else if (op == 8) {
        auto g = std::make_unique<ZFile>();
        if (rng() % 2) *g = *f; else g = std::make_unique<ZFile>(*f);
        f = std::move(g);  // the copy reads on at the position, the original goes
        ASSERT_EQ("none", Access::where(*f));
      } else {
        ASSERT_TRUE(f->Open(path, flags, 0));
        pos = 0;
      }
      requests += failed || (faults && faults->failures > 0);
      ASSERT_EQ(requests, volumeRequests.size());  // one request for each failed operation
    }
  }
}

TEST_F(ZFileTest, OpensResolveLocationsAndAskForAVolumeOnceMore) {
  retryAnswer = slotA + "/";
  cdPaths[0].second = slotB + "/";  // the first answer is the wrong directory
  locationNames = {"DISC"};
  locationDirs = {"cd:"};
  // g: reported, then opened. Relative, as a drive letter's colon would keep the location away.
  const std::filesystem::path cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  ZFile f("data.bin", "DISC", kRead, 0), g("plain.bin", "NOPE", kRead, 0);
  std::filesystem::current_path(cwd);
  EXPECT_EQ("cd+other+1", state(f) + state(g) + std::to_string(reports.size()));
  retryAnswer = slotB + "/";
  EXPECT_FALSE(f.Open("cd:data.bin", kRead, 0));  // a failed open stays listed, closed
  EXPECT_EQ("cd- -1 -1", state(f) + " " + std::to_string(f.Read(nullptr, 0)) + " " +
                             std::to_string(f.Position()));
  retryAnswer.clear();
  cdPaths[0].second = slotA + "/";
  {
    FailCalls faults({IoCall::Open}, {1});  // the second attempt asks again and succeeds
    EXPECT_TRUE(f.Open("cd:data.bin", kRead, 0));
  }
  exeDir = slotB.c_str();
  ZFile e("ed:/data.bin", kRead, 0);  // on no volume: no second attempt
  cdPaths.clear();
  ZFile h("cd:data.bin", kRead, 0);  // does not resolve: not listed
  EXPECT_EQ("other-none-", state(e) + state(h));
  EXPECT_EQ("1 0 0,1 1 0,1 0 0,1 1 0,1 0 0,1 1 0,1 0 0", lltest::cdPathCallsText(*this));
  EXPECT_TRUE(volumeRequests.empty());
  {
    FailCalls faults({IoCall::Close}, {1});  // a failed close leaves the lists all the same
    EXPECT_FALSE(g.Close());
  }
  EXPECT_EQ("none-", state(g));
}

TEST_F(ZFileTest, AFailedOperationIsMadeOnceMoreOnlyWhenTheHostAnswers) {
  ZFile f("cd:data.bin", kRead, 0), other(plain, kRead, 0);
  lltest::FaultInjector faults({IoCall::Read});
  faults.failFrom = 1;
  requestAnswer = "again";
  std::string trace = lltest::readSome(f, 4);
  trace += std::to_string(faults.count);  // exactly one second try
  requestAnswer = nullptr;
  trace += lltest::readSome(f, 4);
  trace += std::to_string(faults.count);  // no answer: no second try
  EXPECT_EQ("<-1>2<-1>3<-1>", trace + lltest::readSome(other, 1));
  EXPECT_EQ((std::vector<int>{1, 1, 0}), volumeRequests);  // 0: on no volume
}

TEST_F(ZFileTest, ListsAndWhatCloseAllParks) {
  cdPaths.push_back({3, slotA + "/"});
  ZFile cd("c2:data.bin", kRead, 0), other(plain, kRead, 0);
  ZFile wrapped(io::open(plain.c_str(), kRead, 0)), copy(cd), failed("c2:none.bin", kRead, 0);
  other.Seek(5, 0);
  std::string trace;
  for (int types : {7, 2, 0}) {  // an unknown type parks nothing
    ZFile::CloseAll(static_cast<ZFile::eFileTypes>(types));
    trace += state(cd) + state(other) + state(wrapped) + state(copy) + state(failed) + " ";
  }
  EXPECT_EQ("cd+other+none+none+cd- cd+other-none+none+cd- cd-other-none+none+cd- ", trace);
  ZFile copyOfParked(cd);  // carries the pending mark: re-opens on first use, unlisted
  EXPECT_EQ(data.substr(0, 3), lltest::readSome(copyOfParked, 3));
  EXPECT_EQ(data.substr(5, 3), lltest::readSome(other, 3));
  EXPECT_EQ("none+cd-other+", state(copyOfParked) + state(cd) + state(other));
  {
    FailCalls faults({IoCall::Tell}, {1});  // a position not told at parking time comes back as 0
    ZFile::CloseAll(ZFile::eNonCdFiles);
  }
  EXPECT_EQ(0, other.Position());
  cdCount = 1;  // "c2:" is no prefix any more: the re-open tries a plain path, fails, moves lists
  EXPECT_EQ(-1, cd.Position());
  trace = Access::where(cd);
  cdCount = 2;
  EXPECT_EQ(0, cd.Position());
  trace += Access::where(cd);
  ZFile::CloseAll(ZFile::eAllFiles);
  EXPECT_TRUE(cd.Open(plain, kRead, 0));  // a parked file opened anew
  trace += Access::where(cd);
  EXPECT_TRUE(cd.Open("cd:data.bin", kRead, 0) && failed.Open("cd:data.bin", kRead, 0));
  EXPECT_EQ("othercdothercdcd", trace + Access::where(cd) + Access::where(failed));
  ZFile::CloseAll(ZFile::eAllFiles);
  EXPECT_FALSE(cd.Close());  // Close on a parked file ends its re-open
  EXPECT_EQ("none-", state(cd));
  EXPECT_EQ(-2, cd.Read(nullptr, 0) + cd.GetHandle());
  EXPECT_TRUE(wrapped.Close());
}

}  // namespace
