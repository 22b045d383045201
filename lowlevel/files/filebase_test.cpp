#include "lowlevel/files/filebase.h"

#include <gtest/gtest.h>

#include "lowlevel/platform/io.h"
#include "tests/testsupport/testing.h"

namespace io = lowlevel::platform;
using io::IoCall;

namespace {

const unsigned short kRead = io::kOpenReadOnly | io::kOpenBinary;
const unsigned short kCreate = io::kOpenCreate | io::kOpenReadWrite | io::kOpenTruncate;

// True while `handle` is an open descriptor.
bool handleOpen(int handle) {
  io::FileStat st;
  return io::fstat(handle, &st) == 0;
}

// The results of Position, Length, Seek, Read and Write, joined by blanks.
std::string results(ZFileBase& f) {
  char c = 'x';
  std::string out = std::to_string(f.Position());
  out += " " + std::to_string(f.Length());
  out += " " + std::to_string(f.Seek(1, 0));
  out += " " + std::to_string(f.Read(&c, 1));
  return out + " " + std::to_string(f.Write(&c, 1));
}

class FileBaseTest : public ::testing::Test {
 protected:
  void SetUp() override { lltest::writeFile(path, "0123456789"); }
  lltest::TempDir dir;
  std::string path = dir.file("data.bin");
};

TEST_F(FileBaseTest, OwnershipDecidesWhatTheDestructorCloses) {
  int h = io::open(path.c_str(), kRead, 0), copyHandle;
  {
    ZFileBase wrapped(h);
    EXPECT_EQ(h, wrapped.GetHandle());
    ZFileBase copy(wrapped);  // a duplicate, owned even though the source is not
    copyHandle = copy.GetHandle();
    EXPECT_NE(h, copyHandle);
    EXPECT_EQ(3, copy.Seek(3, 0));
    EXPECT_EQ(3, wrapped.Position());  // the duplicate shares the position
  }
  EXPECT_TRUE(handleOpen(h));  // not owned: left open
  EXPECT_FALSE(handleOpen(copyHandle));
  {
    ZFileBase wrapped(h);
    EXPECT_TRUE(wrapped.Close());  // an explicit Close closes a handle merely given
    EXPECT_FALSE(handleOpen(h));
    EXPECT_TRUE(wrapped.Open(path, kRead, 0));  // still not owning afterwards
    h = wrapped.GetHandle();
  }
  EXPECT_TRUE(handleOpen(h));
  io::close(h);
  ZFileBase closed, closedCopy(closed);
  EXPECT_EQ(-1, closedCopy.GetHandle());
  // Handle 0 is open, a negative one closed.
  EXPECT_TRUE(ZFileBase(0).IsOpen());
  ZFileBase negative(-7);
  EXPECT_EQ(-1, negative.GetHandle());
  EXPECT_FALSE(negative.Close());
}

TEST_F(FileBaseTest, OpenTwiceCloseTwiceAndAssignment) {
  ZFileBase f(path, kRead, 0);
  int h = f.GetHandle();
  EXPECT_EQ(4, f.Seek(4, 0));
  EXPECT_FALSE(f.Open(dir.file("other"), kCreate, io::kPermWrite));
  EXPECT_EQ(h, f.GetHandle());
  EXPECT_EQ(4, f.Position());
  EXPECT_FALSE(lltest::fileExists(dir.file("other")));
  {
    ZFileBase g;
    g = f;  // same number, no duplicate
    EXPECT_EQ(h, g.GetHandle());
    EXPECT_TRUE(g.Close());
  }
  EXPECT_FALSE(handleOpen(h));
  EXPECT_FALSE(f.Close());  // the number is stale: its close fails, and f counts as closed
  EXPECT_FALSE(f.IsOpen());
  EXPECT_FALSE(f.Close());
  f.Flush();  // nothing to do on a closed file
  EXPECT_EQ("-1 -1 -1 -1 -1", results(f));
  EXPECT_TRUE(f.Open(path, kRead, 0));  // reusable after closing
}

TEST_F(FileBaseTest, ReadWriteSeekAndFlushOnAnOpenFile) {
  ZFileBase f(dir.file("w"), kCreate, io::kPermRead | io::kPermWrite);
  EXPECT_EQ(6, f.Write("abcdef", 6));
  f.Flush();
  EXPECT_EQ(6, f.Position());  // Flush leaves the handle open at its position
  EXPECT_EQ(6, f.Length());
  EXPECT_EQ(0, f.SeekToBegin());
  char buf[8] = {};
  EXPECT_EQ(6, f.Read(buf, 8));
  EXPECT_STREQ("abcdef", buf);
  EXPECT_EQ(0, f.Read(buf, 8));
  EXPECT_EQ(6, f.SeekToEnd());
  EXPECT_EQ(-1, f.Read(buf, -1));
}

TEST_F(FileBaseTest, EveryFailingCallGivesItsFailureResult) {
  {
    lltest::FailCalls faults({IoCall::Open}, {1});
    ZFileBase f(path, kRead, 0);
    EXPECT_FALSE(f.IsOpen());
    EXPECT_TRUE(f.Open(path, kRead, 0));  // a failed open leaves the object reusable
  }
  ZFileBase f(path, kRead, 0);
  int h = f.GetHandle();
  lltest::FaultInjector faults;
  faults.failHandle = h;
  EXPECT_EQ("-1 -1 -1 -1 -1", results(f));
  f.Flush();  // a failed duplicate is dropped
  ZFileBase copy(f);
  EXPECT_FALSE(copy.IsOpen());
  EXPECT_FALSE(f.Close());  // a failed close still leaves the object closed
  EXPECT_FALSE(f.IsOpen());
  EXPECT_FALSE(handleOpen(h));
}

}  // namespace
