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

const unsigned short kRead = io::kOpenReadOnly;

// A changer of removable volumes: volume 1 is a directory that moves between two slots.
// (The library lets this fixture see the lists of files.)
struct ZFileTestAccess : public ::testing::Test, public lltest::RecordingSupport {
 protected:
  static size_t listed() { return ZFile::m_vCdFiles.size() + ZFile::m_vNonCdFiles.size(); }
  // Each file's list ("cd", "other", "none"; "broken" when listed twice), then "+" while it is
  // open, "-" while not, "@N" while parked at position N.
  static std::string state(const std::vector<const ZFile*>& files) {
    std::string out;
    for (const ZFile* f : files) {
      auto n = [&](const std::vector<ZFile*>& l) { return std::count(l.begin(), l.end(), f); };
      const long cd = n(ZFile::m_vCdFiles), other = n(ZFile::m_vNonCdFiles);
      out += cd + other > 1 ? " broken" : cd == 1 ? " cd" : other == 1 ? " other" : " none";
      out += f->m_bReopenPending ? "@" + std::to_string(f->m_lSavedPosition)
                                 : f->IsOpen() ? "+" : "-";
    }
    return out;
  }
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
    lltest::writeFile(slotA + "/data.bin", data);
    lltest::writeFile(plain, data);
    std::string packed;
    ASSERT_TRUE(lowlevel::compression::compressToSeekable(data, {100, 3, true}, &packed, nullptr));
    lltest::writeFile(slotA + "/packed.zst", packed);
    cdCount = 2;
    answers["c1"] = slotA + "/";
  }
  void TearDown() override { EXPECT_EQ(listedBefore, listed()); }
  // A step's result, the state of the files `shown`, and what the host was asked or told since.
  void check(const std::string& result, const std::string& want) {
    EXPECT_EQ(want, result + state(shown) + " " + log);
    log.clear();
  }
  void check(int32_t result, const std::string& want) { check(std::to_string(result), want); }

  size_t listedBefore = listed(), requests = 0;
  lltest::TempDir dir;
  std::string slotA = dir.file("slotA"), slotB = dir.file("slotB"), plain = dir.file("plain.bin");
  bool park = false;
  std::string data = lltest::randomBytes(700, 5);
  std::vector<const ZFile*> shown;
};

// Seeded scripts on a plain or a compressed file of a volume or a plain file elsewhere: Seek, Read,
// Position and Length against the bytes the file holds; CloseAll of some list (3: none) parks the
// file exactly when it is open in a list parked, at its position (0 when that cannot be told); a
// parked file comes back on use; copies and assigned objects are never listed and carry the
// parking; Close (false on a parked file) and re-opens by name; each failed call asks for the
// volume once, while the host now and then parks every file meanwhile and the volume moves.
TEST_F(ZFileTestAccess, ScriptsMatchTheBytesThroughFailuresParkingCopiesAndReopens) {
  std::mt19937 rng(5);
  const int32_t length = static_cast<int32_t>(data.size());
  size_t expected = 0;
  answers["request"] = "again";
  for (int script = 0; script < 60; ++script) {
    const bool packed = script % 3 == 1;  // expanded positions: seeks clamp, from the end go back
    const std::string path = script % 3 == 0 ? "cd:data.bin" : packed ? "cd:packed.zst" : plain;
    const unsigned short flags = packed ? kRead | io::kOpenBinary : kRead;
    auto f = std::make_unique<ZFile>(path, flags, 0);
    std::string list = path == plain ? "other" : "cd";
    bool parked = false;
    int32_t pos = 0;
    for (int step = 0; step < 40; ++step) {
      const int op = static_cast<int>(rng() % 10);
      // A failed call of a plain file asks for the volume and is made once more; the host parks
      // every file meanwhile now and then. (A compressed file's read fails short, see cmpfilbs.)
      const bool fail = !packed && !parked && op < 7 && rng() % 3 == 0;
      lltest::FaultInjector faults(
          {io::IoCall::Read, io::IoCall::Seek, io::IoCall::Tell, io::IoCall::Length},
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
        ASSERT_TRUE(f->Position() == pos && f->Length() == length);
      } else if (op == 7) {
        const int types = static_cast<int>(rng() % 4);
        const bool parks =
            !parked && list != "none" && (types == 0 || types == (list == "cd" ? 1 : 2));
        if (parks && !packed && rng() % 3 == 0) faults.failAt = {1};  // the position untold
        ZFile::CloseAll(static_cast<ZFile::eFileTypes>(types));
        if (faults.failures > 0) pos = 0;
        parked = parked || parks;
        if (rng() % 2) {  // the disc of volume 1 moves to the other slot
          std::swap(slotA, slotB);
          fs::rename(slotB, slotA);
          answers["c1"] = slotA + "/";
        }
      } else if (op == 8) {
        auto g = std::make_unique<ZFile>();
        if (rng() % 2) *g = *f; else g = std::make_unique<ZFile>(*f);
        f = std::move(g);  // the copy reads on at the position, the original goes
        list = "none";
      } else {
        // Close (false on a parked file) ends a listed file's re-open. (A parked copy's goes on.)
        const bool close = rng() % 2;
        ASSERT_TRUE(!close || f->Close() == !parked);
        ASSERT_TRUE(!close || list == "none" || state({f.get()}) == " none-");
        ASSERT_TRUE(f->Open(path, flags, 0));
        pos = 0;
        list = path == plain ? "other" : "cd";
      }
      parked = parked && op >= 7 && op != 9;
      expected += failed || (op < 7 && faults.failures > 0);  // one request for each failed call
      ASSERT_EQ(" " + list + (parked ? "@" + std::to_string(pos) : "+") + std::to_string(expected),
                state({f.get()}) + std::to_string(requests)) << script << " " << step;
    }
  }
}

// Opens through locations and volume prefixes, the second attempt of a failed volume open, a
// failed operation made once more only when the host answers the request for the volume, and the
// lists of files on numbered volumes and of handles given from outside.
TEST_F(ZFileTestAccess, OpensResolveLocationsAndFailuresAskForAVolumeOnceMore) {
  // The first answer for volume 1 is the wrong directory, the second the right one.
  answers = {{"c1", slotB + "/"}, {"retry", slotA + "/"}, {"DISC", "cd:"}, {"ed", slotB}};
  // g: reported, then opened. Relative, as a drive letter's colon would keep the location away.
  const fs::path cwd = fs::current_path();
  fs::current_path(dir.path());
  ZFile f("data.bin", "DISC", kRead, 0), g("plain.bin", "NOPE", kRead, 0), e, h;
  fs::current_path(cwd);
  ZFile wrapped(io::open(plain.c_str(), kRead, 0));  // never listed
  shown = {&f, &g, &e, &h, &wrapped};
  check(0, "0 cd+ other+ none- none- none+ path 1 0 0;path 1 1 0;No location given for files.\n"
           "Entry: NOPE\n|ZFile::BuildPath|2|file\n");
  answers["retry"] = slotB + "/";  // a failed open stays listed, closed
  check(f.Open("cd:data.bin", kRead, 0), "0 cd- other+ none- none- none+ path 1 0 0;path 1 1 0;");
  check(f.Read(nullptr, 0) + f.Position(), "-2 cd- other+ none- none- none+ ");
  answers["retry"] = slotA + "/";  // the second attempt asks again and succeeds
  check(f.Open("cd:data.bin", kRead, 0), "1 cd+ other+ none- none- none+ path 1 0 0;path 1 1 0;");
  check(e.Open("ed:/data.bin", kRead, 0), "0 cd+ other+ other- none- none+ ");  // no second try
  check(h.Open("c2:data.bin", kRead, 0), "0 cd+ other+ other- none- none+ path 3 0 0;");  // none
  lltest::FaultInjector faults({io::IoCall::Read, io::IoCall::Close});
  faults.failFrom = 1;
  answers["request"] = "again";
  check(lltest::readSome(f, 4), "<-1> cd+ other+ other- none- none+ request 1;");
  answers.erase("request");
  check(lltest::readSome(f, 4), "<-1> cd+ other+ other- none- none+ request 1;");
  EXPECT_EQ(3, faults.count);  // exactly one second try, and none without an answer
  check(lltest::readSome(g, 1), "<-1> cd+ other+ other- none- none+ request 0;");  // 0: no volume
  check(g.Close(), "0 cd+ none- other- none- none+ ");  // a failed close: out of the lists
  faults.failFrom = 0;
  answers["c3"] = slotA + "/";
  check(h.Open("c2:data.bin", kRead, 0), "1 cd+ none- other- cd+ none+ path 3 0 0;");
  ZFile::CloseAll(ZFile::eCdFiles);
  cdCount = 1;  // "c2:" is no prefix any more: the re-open tries a plain path, fails, moves lists
  check(h.Position(), "-1 cd@0 none- other- other@0 none+ ");
  cdCount = 2;
  check(h.Position(), "0 cd@0 none- other- cd+ none+ path 3 0 0;");
  check(wrapped.Close(), "1 cd@0 none- other- cd+ none- ");
}
