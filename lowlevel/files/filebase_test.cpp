#include "lowlevel/files/filebase.h"

#include <gtest/gtest.h>

#include "lowlevel/platform/io.h"
#include "tests/testsupport/testing.h"

namespace io = lowlevel::platform;

// Position, Length, Seek(1, 0), Read and Write of one byte, SeekToEnd, SeekToBegin, a Read of -1
// bytes and IsOpen, in this order (a braced list is evaluated in order).
static std::string results(ZFileBase& f) {
  char c;
  std::string out;
  for (int32_t r : {f.Position(), f.Length(), f.Seek(1, 0), f.Read(&c, 1), f.Write("w", 1),
                    f.SeekToEnd(), f.SeekToBegin(), f.Read(&c, -1), int32_t{f.IsOpen()}})
    out += std::to_string(r) + " ";
  return out;
}

TEST(FileBase, OwnershipDecidesWhatIsClosed) {
  lltest::TempDir dir;
  const std::string path = dir.file("data.bin");
  lltest::writeFile(path, "0123456789");
  int h = io::open(path.c_str(), io::kOpenReadOnly, 0), copyHandle, opened;
  {
    ZFileBase wrapped(h), copy(wrapped);  // a duplicate, owned though the source is not
    copyHandle = copy.GetHandle();
    EXPECT_EQ(3, copy.Seek(3, 0));
    EXPECT_EQ("3 10 1 1 -1 10 0 -1 1 ", results(wrapped));
    // Open already: left alone, nothing created.
    EXPECT_TRUE(!wrapped.Open(dir.file("other"), io::kOpenCreate | io::kOpenReadWrite, 0600) &&
                wrapped.GetHandle() == h && !lltest::fileExists(dir.file("other")));
    ZFileBase assigned;
    assigned = copy;  // the same number, no duplicate
    EXPECT_EQ(copyHandle, assigned.GetHandle());
    assigned = ZFileBase();  // and the owner closes it
  }
  io::FileStat st;  // fstat tells whether a handle is open
  EXPECT_TRUE(io::fstat(h, &st) == 0 && io::fstat(copyHandle, &st) != 0);  // not owned: left open
  {
    ZFileBase wrapped(h);
    // An explicit Close closes a handle merely given.
    EXPECT_TRUE(wrapped.Close() && !wrapped.Close());
    EXPECT_TRUE(wrapped.Open(path, io::kOpenReadWrite, 0));  // still not owning afterwards
    opened = wrapped.GetHandle();
    EXPECT_EQ("0 10 1 1 1 10 0 -1 1 ", results(wrapped));
    wrapped.Flush();
  }
  EXPECT_TRUE(lltest::readFile(path) == "01w3456789" && io::close(opened) == 0);  // left open
  ZFileBase closed, closedCopy(closed), negative(-7);
  for (ZFileBase* x : {&closedCopy, &negative})
    EXPECT_EQ("-1 -1 -1 -1 -1 -1 -1 -1 0 ", results(*x));
  // Handle 0 is open.
  EXPECT_TRUE(closedCopy.GetHandle() + negative.GetHandle() == -2 && ZFileBase(0).IsOpen());
  EXPECT_FALSE(negative.Close() || ZFileBase(dir.file("none"), io::kOpenReadOnly, 0).IsOpen());
  ZFileBase f(path, io::kOpenReadOnly, 0);
  h = f.GetHandle();
  lltest::FaultInjector faults;  // every call on the handle fails
  faults.failHandle = h;
  EXPECT_EQ("-1 -1 -1 -1 -1 -1 -1 -1 1 ", results(f));
  ZFileBase copy(f);  // a failed duplicate is dropped
  EXPECT_FALSE(f.Close() || copy.IsOpen() || f.IsOpen());  // a failed close leaves it closed
  faults.failHandle = -1;
  EXPECT_NE(0, io::fstat(h, &st));  // released all the same
}
