#include "lowlevel/files/cmpfilbs.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>

#include "compression/seekable_writer.h"
#include "lowlevel/platform/io.h"
#include "tests/testsupport/testing.h"

namespace io = lowlevel::platform;
namespace cz = lowlevel::compression;
using io::IoCall;

namespace {

const unsigned short kBinary = io::kOpenReadOnly | io::kOpenBinary;

// Exposes the object's state for checks.
struct Probe : ZCompressedFileBase {
  using ZCompressedFileBase::ZCompressedFileBase;
  OffsetMap* map() const { return m_pOffsetMap; }
  bool ownsMap() const { return m_bOwnsOffsetMap; }
  bool compressed() const { return m_bCompressed; }
  int32_t bufferOffset(int i) const { return m_vBuffers[static_cast<size_t>(i)]->offset; }
  void growCache() { m_cache.setSize(4); }
};

// Bytes that differ at every offset; random ones do not compress, so corrupting them changes data.
std::string pattern(size_t n, bool random = false) {
  std::string s(n, '\0');
  std::mt19937 rng(42);
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(random ? rng() : (i * 7 + 3) % 251);
  return s;
}

std::string packed(const std::string& data, uint32_t chunk) {
  cz::SeekableWriteOptions options;
  options.chunkSize = chunk;
  std::string out, error;
  EXPECT_TRUE(cz::compressToSeekable(data, options, &out, &error)) << error;
  return out;
}

std::string readAt(ZCompressedFileBase& f, int32_t position, int count, int* got) {
  f.Seek(position, 0);
  std::string buf(static_cast<size_t>(count), '\0');
  *got = f.Read(&buf[0], count);
  buf.resize(*got > 0 ? static_cast<size_t>(*got) : 0);
  return buf;
}

class CompressedFileTest : public ::testing::Test {
 protected:
  void SetUp() override { lltest::writeFile(path, packed(data, 100)); }
  lltest::TempDir dir;
  std::string data = pattern(240);
  std::string path = dir.file("c.zst");
};

TEST_F(CompressedFileTest, ChunksOf100_100_40ReadAsTheExpandedBytes) {
  Probe f(path, kBinary, 0);
  ASSERT_TRUE(f.IsOpen());
  ASSERT_TRUE(f.compressed());
  ASSERT_NE(nullptr, f.map());
  EXPECT_EQ((OffsetMap{{0, f.map()->at(0)}, {100, f.map()->at(100)}, {200, f.map()->at(200)}}),
            *f.map());
  EXPECT_EQ(240, f.Length());
  EXPECT_EQ(0, f.Position());
  int got;
  EXPECT_EQ(data.substr(170, 60), readAt(f, 170, 60, &got));
  EXPECT_EQ(230, f.Position());
  char buf[60];
  EXPECT_EQ(10, f.Read(buf, 60));
  EXPECT_EQ(data.substr(230), std::string(buf, 10));
  EXPECT_EQ(240, f.Position());
  EXPECT_EQ(0, f.Read(buf, 60));
  EXPECT_EQ(0, f.Read(buf, 0));
  EXPECT_EQ(240, f.Position());
  EXPECT_EQ(data, readAt(f, 0, 1000, &got));  // spans all chunks
  // The handle's own position says nothing about Position.
  EXPECT_EQ(3, f.Seek(3, 0));
  EXPECT_NE(3, io::tell(f.GetHandle()));
}

TEST_F(CompressedFileTest, SeekClampsAndWriteRefuses) {
  Probe f(path, kBinary | io::kOpenReadWrite, 0);
  ASSERT_TRUE(f.compressed());
  EXPECT_EQ(230, f.Seek(10, 2));  // a positive offset counts back from the end
  EXPECT_EQ(240, f.Seek(-10, 2));
  EXPECT_EQ(240, f.Seek(500, 0));
  EXPECT_EQ(0, f.Seek(-1, 0));
  EXPECT_EQ(50, f.Seek(50, 1));
  EXPECT_EQ(0, f.Seek(-60, 1));
  EXPECT_EQ(240, f.Seek(INT32_MAX, 1));
  EXPECT_EQ(240, f.Seek(77, 3));  // an unknown origin keeps the position
  EXPECT_EQ(240, f.SeekToEnd());
  std::string before = lltest::readFile(path);
  EXPECT_EQ(0, f.Write("xyz", 3));
  EXPECT_EQ(before, lltest::readFile(path));
}

TEST_F(CompressedFileTest, WithoutTheBinaryFlagTheRawBytesAreRead) {
  std::string raw = lltest::readFile(path);
  Probe f(path, io::kOpenReadOnly, 0);
  EXPECT_FALSE(f.compressed());
  EXPECT_EQ(static_cast<int32_t>(raw.size()), f.Length());
  int got;
  EXPECT_EQ(raw.substr(0, 16), readAt(f, 0, 16, &got));
  EXPECT_EQ(-1, f.Seek(-1, 0));  // plain seeks are not clamped
  // A plain file opened with the flag reads as itself.
  lltest::writeFile(dir.file("plain"), "plain text");
  Probe p(dir.file("plain"), kBinary | io::kOpenReadWrite, 0);
  EXPECT_FALSE(p.compressed());
  EXPECT_EQ(10, p.Length());
  EXPECT_EQ(0, p.Position());
  EXPECT_EQ(10, p.SeekToEnd());
  EXPECT_EQ(1, p.Write("!", 1));
  EXPECT_EQ("plain text!", lltest::readFile(dir.file("plain")));
}

TEST_F(CompressedFileTest, ObjectsOnOnePathShareOneMapAndReopenWithoutAWalk) {
  size_t tableBefore = offsetMapTable.size();
  Probe a(path, kBinary, 0);
  Probe b(path, kBinary, 0);
  EXPECT_EQ(tableBefore + 1, offsetMapTable.size());
  EXPECT_EQ(a.map(), b.map());
  EXPECT_FALSE(a.ownsMap());
  int got;
  EXPECT_EQ(data.substr(120, 30), readAt(a, 120, 30, &got));
  EXPECT_EQ(data.substr(10, 5), readAt(b, 10, 5, &got));  // own positions and buffers
  EXPECT_EQ(150, a.Position());
  OffsetMap* shared = a.map();
  EXPECT_TRUE(a.Close());
  EXPECT_TRUE(a.Open(path, kBinary, 0));
  EXPECT_EQ(shared, a.map());
  EXPECT_EQ(0, a.Position());
  EXPECT_EQ(tableBefore + 1, offsetMapTable.size());
}

TEST_F(CompressedFileTest, BuffersAreFilledInOrderAndCloseForgetsTheChunks) {
  Probe f(path, kBinary, 0);
  int got;
  readAt(f, 0, 1, &got);
  readAt(f, 100, 1, &got);
  readAt(f, 200, 1, &got);
  EXPECT_EQ(0, f.bufferOffset(0));
  EXPECT_EQ(100, f.bufferOffset(1));
  EXPECT_EQ(200, f.bufferOffset(2));
  // Reads inside held chunks touch no disk.
  io::resetIoCounters();
  EXPECT_EQ(data.substr(5, 200), readAt(f, 5, 200, &got));
  EXPECT_EQ(0u, io::ioCounters().reads);
  EXPECT_TRUE(f.Close());
  EXPECT_TRUE(f.Open(path, kBinary, 0));
  io::resetIoCounters();
  EXPECT_EQ(data.substr(0, 10), readAt(f, 0, 10, &got));
  EXPECT_GT(io::ioCounters().reads, 0u);  // expanded again after Close
}

TEST_F(CompressedFileTest, HandleConstructorRewindsAndKeepsAPrivateMap) {
  int h = io::open(path.c_str(), io::kOpenReadOnly, 0);
  ASSERT_GE(h, 0);
  io::lseek(h, 17, 0);
  size_t tableBefore = offsetMapTable.size();
  {
    Probe f(h);
    ASSERT_TRUE(f.compressed());
    EXPECT_TRUE(f.ownsMap());
    EXPECT_EQ(tableBefore, offsetMapTable.size());
    int got;
    EXPECT_EQ(data.substr(90, 20), readAt(f, 90, 20, &got));
    // After Close it may open a path: the private map goes, the table's map is taken.
    EXPECT_TRUE(f.Close());
    EXPECT_TRUE(f.Open(path, kBinary, 0));
    EXPECT_FALSE(f.ownsMap());
    EXPECT_EQ(data.substr(0, 8), readAt(f, 0, 8, &got));
  }
  Probe again(path, kBinary, 0);  // the table's map survived the object
  int got;
  EXPECT_EQ(data.substr(230), readAt(again, 230, 100, &got));

  // A regular plain file is rewound; the object does not close the handle.
  lltest::writeFile(dir.file("plain"), "abcdef");
  h = io::open(dir.file("plain").c_str(), io::kOpenReadOnly, 0);
  io::lseek(h, 4, 0);
  { Probe f(h); EXPECT_EQ(0, io::tell(h)); }
  EXPECT_EQ(0, io::close(h));

  // A pipe stays plain and unmoved; a negative handle is a closed plain object.
  lltest::RecordingSupport host;
  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  ASSERT_EQ(2, ::write(fds[1], "hi", 2));
  {
    Probe p(fds[0]);
    EXPECT_FALSE(p.compressed());
    char buf[2];
    EXPECT_EQ(2, p.Read(buf, 2));
    Probe closed(-3);
    EXPECT_FALSE(closed.IsOpen());
  }
  ::close(fds[0]);
  ::close(fds[1]);
  EXPECT_TRUE(host.reports.empty());
}

TEST_F(CompressedFileTest, FailedStatIsReported) {
  lltest::RecordingSupport host;
  int h = io::open(path.c_str(), io::kOpenReadOnly, 0);
  {
    lltest::FaultInjector faults({IoCall::Stat});
    faults.failAt = {1};
    Probe f(h);
    EXPECT_TRUE(f.IsOpen());
    EXPECT_FALSE(f.compressed());
  }
  ASSERT_EQ(1u, host.reports.size());
  EXPECT_EQ("Unable to retrieve stat for file handle.", host.reports[0].message);
  EXPECT_EQ("ZCompressedFileBase::ZCompressedFileBase( handle )", host.reports[0].function);
  EXPECT_EQ(eReportError, host.reports[0].flag);
  EXPECT_EQ("cmpfilbs", host.reports[0].module);
  io::close(h);
}

TEST_F(CompressedFileTest, CopiesAndAssignmentsReadOnTheirOwn) {
  Probe a(path, kBinary, 0);
  int got;
  readAt(a, 150, 1, &got);
  Probe copy(a);
  EXPECT_NE(a.GetHandle(), copy.GetHandle());
  EXPECT_EQ(151, copy.Position());
  EXPECT_EQ(a.map(), copy.map());
  char buf[100];
  EXPECT_EQ(89, copy.Read(buf, 100));
  EXPECT_EQ(data.substr(151), std::string(buf, 89));
  EXPECT_EQ(151, a.Position());

  int h = io::open(path.c_str(), io::kOpenReadOnly, 0);
  Probe fromHandle(h);
  Probe privateCopy(fromHandle);
  EXPECT_TRUE(privateCopy.ownsMap());
  EXPECT_NE(fromHandle.map(), privateCopy.map());

  Probe left(dir.file("c.zst"), kBinary, 0);
  {
    Probe right(fromHandle);
    right.Seek(40, 0);
    io::resetIoCounters();
    left = right;
    EXPECT_EQ(1u, io::ioCounters().closes);  // the left side closed the handle it owned
    EXPECT_NE(right.GetHandle(), left.GetHandle());
    EXPECT_TRUE(left.ownsMap());
  }
  EXPECT_EQ(data.substr(40, 60), readAt(left, 40, 60, &got));
  Probe& alias = left;
  left = alias;  // self-assignment changes nothing
  EXPECT_EQ(data.substr(0, 4), readAt(left, 0, 4, &got));
  io::close(h);
}

TEST(CompressedFileFailures, FailedExpansionsGiveShortCountsAndNeverStaleBytes) {
  lltest::TempDir dir;
  std::string data = pattern(500, true);
  std::string bytes = packed(data, 100);
  cz::SeekableInfo info;
  std::string path = dir.file("bad.zst");
  lltest::writeFile(path, bytes);
  std::string error;
  ASSERT_TRUE(cz::describeSeekableFile(path, &info, &error)) << error;
  ASSERT_EQ(5u, info.frames.size());
  const auto& last = info.frames[4];
  bytes[static_cast<size_t>(last.compressedOffset + last.compressedSize / 2)] ^= 0x5a;
  lltest::writeFile(path, bytes);

  Probe f(path, kBinary, 0);
  ASSERT_TRUE(f.compressed());
  int got;
  EXPECT_EQ(data.substr(0, 300), readAt(f, 0, 300, &got));  // three buffers hold 0, 100, 200
  EXPECT_EQ(data.substr(300, 100), readAt(f, 300, 500, &got));  // stops short at the bad chunk
  EXPECT_EQ(400, f.Position());
  // The failure went into the buffer that held chunk 100; that chunk must be expanded again.
  for (int32_t at : {100, 0, 200, 300}) {
    EXPECT_EQ(data.substr(static_cast<size_t>(at), 100), readAt(f, at, 100, &got)) << at;
  }
  EXPECT_EQ(0u, readAt(f, 450, 10, &got).size());
  EXPECT_EQ(0, got);
  EXPECT_EQ(450, f.Position());

  // Read errors during expansion also give short counts.
  Probe g(path, kBinary, 0);
  {
    lltest::FaultInjector faults({IoCall::Read});
    faults.failFrom = 1;
    EXPECT_EQ(0u, readAt(g, 10, 50, &got).size());
    EXPECT_EQ(0, got);
  }
  EXPECT_EQ(data.substr(10, 50), readAt(g, 10, 50, &got));
}

TEST(CompressedFileFailures, ACacheWithoutAVictimIsReported) {
  lltest::TempDir dir;
  lltest::writeFile(dir.file("c.zst"), packed(pattern(240), 100));
  lltest::RecordingSupport host;
  Probe f(dir.file("c.zst"), kBinary, 0);
  f.growCache();  // three entries in a cache of four: no old entry to hand out
  char buf[10];
  EXPECT_EQ(0, f.Read(buf, 10));
  ASSERT_EQ(1u, host.reports.size());
  EXPECT_EQ("Failed to getOld buffer from cache.", host.reports[0].message);
  EXPECT_EQ("ZCompressedFileBase::readBuffer", host.reports[0].function);
  EXPECT_EQ("cmpfilbs", host.reports[0].module);
  EXPECT_EQ(eReportError, host.reports[0].flag);
}

TEST(CompressedFileFailures, OpenFailuresAndEmptyFiles) {
  lltest::TempDir dir;
  Probe f;
  EXPECT_FALSE(f.Open(dir.file("missing"), kBinary, 0));
  EXPECT_FALSE(f.IsOpen());
  lltest::writeFile(dir.file("empty"), "");
  EXPECT_TRUE(f.Open(dir.file("empty"), kBinary, 0));
  EXPECT_FALSE(f.compressed());
  EXPECT_EQ(0, f.Length());
  EXPECT_TRUE(f.Close());
  EXPECT_FALSE(f.Close());
  // An empty input still packs to a compressed file of length 0.
  lltest::writeFile(dir.file("e.zst"), packed("", 100));
  EXPECT_TRUE(f.Open(dir.file("e.zst"), kBinary, 0));
  EXPECT_TRUE(f.compressed());
  EXPECT_EQ(0, f.Length());
  char buf[4];
  EXPECT_EQ(0, f.Read(buf, 4));
  EXPECT_EQ(0, f.Read(buf, -4));
}

}  // namespace
