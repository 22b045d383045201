#include "lowlevel/files/file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <random>

#include "compression/seekable_writer.h"
#include "lowlevel/platform/io.h"
#include "tests/testsupport/testing.h"

namespace io = lowlevel::platform;
namespace fs = std::filesystem;
using io::IoCall;
using lltest::FaultInjector;

struct ZFileTestAccess {
  // "cd", "other" or "none": the list that holds the file; "broken" when it is listed twice.
  static std::string where(const ZFile& f) {
    auto n = [&](const std::vector<ZFile*>& l) { return std::count(l.begin(), l.end(), &f); };
    long cd = n(ZFile::m_vCdFiles), other = n(ZFile::m_vNonCdFiles);
    return cd + other > 1 ? "broken" : cd == 1 ? "cd" : other == 1 ? "other" : "none";
  }
  static size_t listed() { return ZFile::m_vCdFiles.size() + ZFile::m_vNonCdFiles.size(); }
  // Each file's list, then "+" while it is open, "-" while not, "@N" while parked at position N.
  static std::string state(const std::vector<const ZFile*>& files) {
    std::string out;
    for (const ZFile* f : files)
      out += " " + where(*f) + (f->m_bReopenPending ? "@" + std::to_string(f->m_lSavedPosition)
                                : f->IsOpen() ? "+" : "-");
    return out;
  }
};
using Access = ZFileTestAccess;

const unsigned short kRead = io::kOpenReadOnly;

// A changer of removable volumes: volume 1 is a directory that moves between two slots.
class ZFileTest : public ::testing::Test, public lltest::RecordingSupport {
 protected:
  const char* getCdPath(eCDVolType volume, bool bRetry, bool bHostFlag) override {
    const char* answer = RecordingSupport::getCdPath(volume, bRetry, bHostFlag);
    return bRetry && answers.count("retry") != 0 ? answers["retry"].c_str() : answer;
  }
  const char* requestCdVolume(eCDVolType volume, bool bHostFlag) override {
    if (park) ZFile::CloseAll(ZFile::eAllFiles);  // the host may park files meanwhile
    ++requests;
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
    answers["c1"] = slotA + "/";
  }
  void TearDown() override { EXPECT_EQ(listedBefore, Access::listed()); }
  // Moves the disc of volume 1 to the other slot.
  void moveVolume() {
    fs::remove(slotB);
    fs::rename(slotA, slotB);
    fs::create_directory(slotA);
    std::swap(slotA, slotB);
    answers["c1"] = slotA + "/";
  }
  // A step's result, the state of the files `shown`, and what the host was asked or told since.
  void check(const std::string& result, const std::string& want) {
    EXPECT_EQ(want, result + Access::state(shown) + " " + log);
    log.clear();
  }
  void check(int32_t result, const std::string& want) { check(std::to_string(result), want); }

  size_t listedBefore = Access::listed(), requests = 0;
  lltest::TempDir dir;
  std::string slotA = dir.file("slotA"), slotB = dir.file("slotB"), plain = dir.file("plain.bin");
  bool park = false;
  std::string data = lltest::randomBytes(700, 5);
  std::vector<const ZFile*> shown;
};

// Seeded scripts of Seek, Read, Position, Length and GetHandle on a plain and on a compressed file
// of a volume, checked against the bytes the file holds, while the host parks the files (CloseAll)
// and moves the volume, also while it is asked for the volume after a failed call, and the test
// goes on with copies, assigned objects and re-opened ones.
TEST_F(ZFileTest, ScriptsMatchTheBytesThroughFailuresParkingCopiesAndReopens) {
  std::mt19937 rng(5);
  const int32_t length = static_cast<int32_t>(data.size());
  size_t expected = 0;
  answers["request"] = "again";
  for (int script = 0; script < 40; ++script) {
    bool copied = false;  // a copy is never listed, an object opened by name is
    const bool packed = script % 2 == 1;  // expanded positions: seeks clamp, from the end go back
    const std::string path = packed ? "cd:packed.zst" : "cd:data.bin";
    const unsigned short flags = packed ? kRead | io::kOpenBinary : kRead;
    auto f = std::make_unique<ZFile>(path, flags, 0);
    int32_t pos = 0;
    for (int step = 0; step < 40; ++step) {
      const int op = static_cast<int>(rng() % 10);
      // A failed call of a plain file asks for the volume and is made once more; the host parks
      // every file meanwhile now and then. (A compressed file's read fails short, see cmpfilbs.)
      const bool fail = !packed && op < 7 && rng() % 3 == 0;
      FaultInjector faults({IoCall::Read, IoCall::Seek, IoCall::Tell, IoCall::Length},
                       fail ? std::set<int>{1} : std::set<int>{});
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
        copied = true;
      } else {
        ASSERT_TRUE(f->Open(path, flags, 0));
        pos = 0;
        copied = false;
      }
      expected += failed || faults.failures > 0;  // one request for each failed operation
      ASSERT_EQ((copied ? "none " : "cd ") + std::to_string(expected),
                Access::where(*f) + " " + std::to_string(requests)) << script << " " << step;
    }
  }
}

// Opens through locations and volume prefixes, the second attempt of a failed volume open, and a
// failed operation made once more only when the host answers the request for the volume.
TEST_F(ZFileTest, OpensResolveLocationsAndFailuresAskForAVolumeOnceMore) {
  answers["retry"] = slotA + "/";
  answers["c1"] = slotB + "/";  // the first answer is the wrong directory
  answers["DISC"] = "cd:";
  // g: reported, then opened. Relative, as a drive letter's colon would keep the location away.
  const fs::path cwd = fs::current_path();
  fs::current_path(dir.path());
  ZFile f("data.bin", "DISC", kRead, 0), g("plain.bin", "NOPE", kRead, 0), e, h;
  fs::current_path(cwd);
  shown = {&f, &g, &e, &h};
  check(0, "0 cd+ other+ none- none- path 1 0 0;path 1 1 0;No location given for files.\n"
           "Entry: NOPE\n|ZFile::BuildPath|2|file\n");
  answers["retry"] = slotB + "/";  // a failed open stays listed, closed
  check(f.Open("cd:data.bin", kRead, 0), "0 cd- other+ none- none- path 1 0 0;path 1 1 0;");
  check(f.Read(nullptr, 0) + f.Position(), "-2 cd- other+ none- none- ");
  answers.erase("retry");
  answers["c1"] = slotA + "/";
  {
    FaultInjector faults({IoCall::Open}, {1});  // the second attempt asks again and succeeds
    check(f.Open("cd:data.bin", kRead, 0), "1 cd+ other+ none- none- path 1 0 0;path 1 1 0;");
  }
  answers["ed"] = slotB;
  check(e.Open("ed:/data.bin", kRead, 0), "0 cd+ other+ other- none- ");  // no second attempt
  answers.erase("c1");
  check(h.Open("cd:data.bin", kRead, 0), "0 cd+ other+ other- none- path 1 0 0;");  // unlisted
  answers["c1"] = slotA + "/";
  FaultInjector faults({IoCall::Read, IoCall::Close});
  faults.failFrom = 1;
  answers["request"] = "again";
  std::string got = lltest::readSome(f, 4);
  check(got + std::to_string(faults.count), "<-1>2 cd+ other+ other- none- request 1;");  // 1 retry
  answers.erase("request");
  got = lltest::readSome(f, 4);
  check(got + std::to_string(faults.count), "<-1>3 cd+ other+ other- none- request 1;");  // none
  check(lltest::readSome(g, 1), "<-1> cd+ other+ other- none- request 0;");  // 0: on no volume
  check(g.Close(), "0 cd+ none- other- none- ");  // a failed close leaves the lists all the same
}

TEST_F(ZFileTest, ListsAndWhatCloseAllParks) {
  answers["c3"] = slotA + "/";
  ZFile cd("c2:data.bin", kRead, 0), other(plain, kRead, 0);
  ZFile wrapped(io::open(plain.c_str(), kRead, 0)), copy(cd), failed("c2:none.bin", kRead, 0);
  shown = {&cd, &other, &wrapped, &copy, &failed};
  check(other.Seek(5, 0), "5 cd+ other+ none+ none+ cd- path 3 0 0;path 3 0 0;path 3 1 0;");
  ZFile::CloseAll(static_cast<ZFile::eFileTypes>(7));  // an unknown type parks nothing
  check(7, "7 cd+ other+ none+ none+ cd- ");
  ZFile::CloseAll(ZFile::eNonCdFiles);
  check(2, "2 cd+ other@5 none+ none+ cd- ");
  ZFile::CloseAll(ZFile::eAllFiles);
  check(0, "0 cd@0 other@5 none+ none+ cd- ");
  check(lltest::readSome(other, 3) == data.substr(5, 3), "1 cd@0 other+ none+ none+ cd- ");
  {
    FaultInjector faults({IoCall::Tell}, {1});  // a position not told when parked comes back as 0
    ZFile::CloseAll(ZFile::eNonCdFiles);
  }
  check(0, "0 cd@0 other@0 none+ none+ cd- ");
  cdCount = 1;  // "c2:" is no prefix any more: the re-open tries a plain path, fails, moves lists
  check(cd.Position(), "-1 other@0 other@0 none+ none+ cd- ");
  cdCount = 2;
  check(cd.Position(), "0 cd+ other@0 none+ none+ cd- path 3 0 0;");
  ZFile::CloseAll(ZFile::eAllFiles);
  check(cd.Open(plain, kRead, 0), "1 other+ other@0 none+ none+ cd- ");  // opened anew
  check(cd.Open("cd:data.bin", kRead, 0), "1 cd+ other@0 none+ none+ cd- path 1 0 0;");
  check(failed.Open("cd:data.bin", kRead, 0), "1 cd+ other@0 none+ none+ cd+ path 1 0 0;");
  ZFile::CloseAll(ZFile::eAllFiles);
  check(cd.Close(), "0 none- other@0 none+ none+ cd@0 ");  // ends a parked file's re-open
  check(cd.Read(nullptr, 0) + cd.GetHandle(), "-2 none- other@0 none+ none+ cd@0 ");
  check(wrapped.Close(), "1 none- other@0 none- none+ cd@0 ");
}
