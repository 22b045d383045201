#include "lowlevel/platform/io.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "lowlevel/platform/pipe.h"
#include "tests/testsupport/testing.h"

namespace io = lowlevel::platform;

TEST(PlatformIo, OpenFlagsMapToAccessModes) {
  lltest::TempDir dir;
  std::string path = dir.file("a.bin");
  // Read-only does not create.
  EXPECT_EQ(-1, io::open(path.c_str(), io::kOpenReadOnly, 0));
  int h = io::open(path.c_str(), io::kOpenCreate | io::kOpenReadWrite | io::kOpenBinary,
                   io::kPermRead | io::kPermWrite);
  ASSERT_GE(h, 0);
  EXPECT_EQ(5, io::write(h, "hello", 5));
  EXPECT_EQ(0, io::close(h));
  EXPECT_EQ(-1, io::close(h));  // not open any more

  // Exclusive create refuses an existing file; both access bits together are no mode.
  EXPECT_EQ(-1, io::open(path.c_str(), io::kOpenCreate | io::kOpenExclusive | io::kOpenWriteOnly,
                         io::kPermWrite));
  EXPECT_EQ(-1, io::open(path.c_str(), io::kOpenWriteOnly | io::kOpenReadWrite, 0));

  // Read-only refuses writes; write-only refuses reads.
  char buf[8];
  h = io::open(path.c_str(), io::kOpenReadOnly, 0);
  const int w = io::open(path.c_str(), io::kOpenWriteOnly, 0);
  EXPECT_EQ(-1, io::write(h, "x", 1));
  EXPECT_EQ(-1, io::read(w, buf, 1));
  EXPECT_EQ(0, io::close(h) + io::close(w));

  // Append writes at the end whatever the position; truncate empties.
  h = io::open(path.c_str(), io::kOpenWriteOnly | io::kOpenAppend, 0);
  io::lseek(h, 0, 0);
  EXPECT_EQ(1, io::write(h, "!", 1));
  io::close(h);
  EXPECT_EQ("hello!", lltest::readFile(path));
  h = io::open(path.c_str(), io::kOpenWriteOnly | io::kOpenTruncate, 0);
  io::close(h);
  EXPECT_EQ("", lltest::readFile(path));

  // A file created without the write permission is read-only.
  std::string ro = dir.file("ro.bin");
  h = io::open(ro.c_str(), io::kOpenCreate | io::kOpenWriteOnly, io::kPermRead);
  ASSERT_GE(h, 0);
  io::close(h);
  auto perms = std::filesystem::status(ro).permissions();
  EXPECT_EQ(std::filesystem::perms::none, perms & std::filesystem::perms::owner_write);
}

// A file opened through backslashes: seeks, its stat and reads; directories and pipes.
TEST(PlatformIo, SeeksStatsAndBackslashedPaths) {
  lltest::TempDir dir;
  std::filesystem::create_directory(dir.file("sub"));
  lltest::writeFile(dir.file("sub/f"), "0123456789");
  int h = io::open((dir.path() + "\\sub\\f").c_str(), io::kOpenReadOnly, 0);
  ASSERT_GE(h, 0);
  // Failed seeks do not move; past the end is allowed.
  const int32_t seeks[][3] = {{4, 0, 4},   {-5, 1, -1}, {-11, 2, -1}, {INT32_MAX, 1, -1},
                              {0, 3, -1},  {0, 1, 4},   {3, 1, 7},    {-2, 2, 8}, {10, 2, 20}};
  for (const auto& s : seeks) EXPECT_EQ(s[2], io::lseek(h, s[0], s[1])) << s[0] << " " << s[1];
  EXPECT_EQ(10, io::filelength(h));
  char buf[4] = {};
  EXPECT_EQ(7, io::lseek(h, 7, 0));
  EXPECT_EQ(3, io::read(h, buf, 4));
  EXPECT_EQ(0, io::read(h, buf, 4));
  io::FileStat st;
  ASSERT_EQ(0, io::fstat(h, &st));
  EXPECT_EQ("789 32768 10", std::string(buf) + " " + std::to_string(st.mode) + " " + std::to_string(st.size));
  EXPECT_EQ(0, io::close(h));
  EXPECT_EQ(-1, io::open(dir.file("sub").c_str(), io::kOpenReadOnly, 0));
  EXPECT_EQ(-1, io::open((dir.path() + "\\sub").c_str(), io::kOpenReadOnly, 0));
  int fds[2];
  ASSERT_EQ(0, io::makePipe(fds));
  ASSERT_EQ(0, io::fstat(fds[0], &st));
  EXPECT_EQ(io::kModeFifo, st.mode);
  EXPECT_EQ(0, io::close(fds[0]) + io::close(fds[1]));
  for (int32_t r : {io::tell(-1), io::filelength(-1), io::dup(-1), io::fstat(-1, &st)}) EXPECT_EQ(-1, r);
  char out[8];
  io::toHostPath("a\\b\\cdefgh", out, sizeof out);
  EXPECT_STREQ("a/b/cde", out);  // cut to the capacity, terminated
}

TEST(PlatformIo, FaultHookFailsAndTearsCalls) {
  lltest::TempDir dir;
  std::string path = dir.file("t");
  int h = io::open(path.c_str(), io::kOpenCreate | io::kOpenReadWrite, io::kPermWrite);
  ASSERT_GE(h, 0);
  {
    lltest::FaultInjector torn({io::IoCall::Write});
    torn.writeLimit = 3;
    EXPECT_EQ(3, io::write(h, "abcdef", 6));
    torn.writeLimit = -1;
    torn.failAt = {2};
    EXPECT_EQ(-1, io::write(h, "zz", 2));
    EXPECT_EQ(1, torn.failures);  // the torn write is no failure; only call 2 failed
  }
  EXPECT_EQ("abc", lltest::readFile(path));
  {
    lltest::FaultInjector all;
    all.failHandle = h;
    for (int32_t r : {io::lseek(h, 0, 0), io::tell(h), io::filelength(h), io::dup(h)}) {
      EXPECT_EQ(-1, r);
    }
    all.failHandle = -1;
    all.failFrom = all.count + 1;
    EXPECT_EQ(-1, io::open(path.c_str(), io::kOpenReadOnly, 0));
  }
  io::resetIoCounters();  // every counter starts at 0; the close counts one
  EXPECT_EQ(0, io::close(h));
  const io::IoCounters counted = io::ioCounters();
  EXPECT_EQ("1 1", std::to_string(counted.total()) + " " + std::to_string(counted.closes));
}

// The layer keeps a file's position itself; duplicates share it, and the system's position catches
// up when the handle is handed out (syncPosition) or closed, so code outside the layer sees it.
TEST(PlatformIo, KeptPositionIsSharedAndHandedOut) {
  lltest::TempDir dir;
  std::string path = dir.file("p");
  lltest::writeFile(path, "0123456789abcdef");
  int h = io::open(path.c_str(), io::kOpenReadWrite, 0);
  ASSERT_GE(h, 0);
  int d = io::dup(h);
  ASSERT_GE(d, 0);
  char buf[4] = {};
  EXPECT_EQ(10, io::lseek(h, 10, 0));
  EXPECT_EQ(3, io::read(h, buf, 3));
  EXPECT_EQ("abc", std::string(buf, 3));
  EXPECT_EQ(13, io::tell(d));
  EXPECT_EQ(11, io::lseek(d, -2, 1));
  EXPECT_EQ(2, io::write(h, "XY", 2));
  EXPECT_EQ(0, io::syncPosition(d));
  EXPECT_EQ(13, ::lseek(d, 0, SEEK_CUR));
  EXPECT_EQ(1, ::read(d, buf, 1));  // the system's position goes on from there
  EXPECT_EQ('d', buf[0]);
  EXPECT_EQ(0, io::close(d) + io::close(h));
  EXPECT_EQ("0123456789aXYdef", lltest::readFile(path));
}
