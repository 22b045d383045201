#include "lowlevel/files/cmpfilbs.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>

#include "compression/seekable_writer.h"
#include "lowlevel/platform/io.h"
#include "lowlevel/platform/pipe.h"
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
  int32_t bufferOffset(int i) const { return m_vBuffers[static_cast<size_t>(i)]->offset; }
  void growCache() { m_cache.setSize(4); }
  // "plain", or "private"/"shared" for a compressed object by who owns its map.
  std::string kind() const {
    return !m_bCompressed ? "plain" : m_bOwnsOffsetMap ? "private" : "shared";
  }
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

// Seeks to `position` (unless -1) and reads: the bytes, or "<result>" when the read fails.
std::string readAt(ZCompressedFileBase& f, int32_t position, int count) {
  if (position >= 0) f.Seek(position, 0);
  std::string buf(static_cast<size_t>(count), '\0');
  int got = f.Read(&buf[0], count);
  return got < 0 ? "<" + std::to_string(got) + ">" : buf.substr(0, static_cast<size_t>(got));
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
  ASSERT_EQ("shared", f.kind());
  EXPECT_EQ((OffsetMap{{0, f.map()->at(0)}, {100, f.map()->at(100)}, {200, f.map()->at(200)}}),
            *f.map());
  EXPECT_EQ(240, f.Length());
  EXPECT_EQ(0, f.Position());
  EXPECT_EQ(data.substr(170, 60), readAt(f, 170, 60));
  EXPECT_EQ(data.substr(230), readAt(f, -1, 60));
  EXPECT_EQ("", readAt(f, -1, 60));
  EXPECT_EQ(240, f.Position());
  EXPECT_EQ(data, readAt(f, 0, 1000));  // spans all chunks
  EXPECT_EQ(3, f.Seek(3, 0));
  EXPECT_NE(3, io::tell(f.GetHandle()));  // the handle's own position says nothing
}

TEST_F(CompressedFileTest, SeekClampsAndWriteRefuses) {
  Probe f(path, kBinary | io::kOpenReadWrite, 0);
  const int32_t seeks[][3] = {{10, 2, 230}, {-10, 2, 240}, {500, 0, 240}, {-1, 0, 0},
                              {50, 1, 50},  {-60, 1, 0},   {INT32_MAX, 1, 240},
                              {77, 3, 240}};  // an unknown origin keeps the position
  for (const auto& s : seeks) EXPECT_EQ(s[2], f.Seek(s[0], s[1])) << s[0] << " " << s[1];
  std::string before = lltest::readFile(path);
  EXPECT_EQ(0, f.Write("xyz", 3));
  EXPECT_EQ(before, lltest::readFile(path));
}

TEST_F(CompressedFileTest, WithoutTheBinaryFlagOrCompressionTheRawBytesAreUsed) {
  std::string raw = lltest::readFile(path);
  Probe f(path, io::kOpenReadOnly, 0);
  EXPECT_EQ("plain", f.kind());
  EXPECT_EQ(static_cast<int32_t>(raw.size()), f.Length());
  EXPECT_EQ(raw.substr(0, 16), readAt(f, 0, 16));
  EXPECT_EQ(-1, f.Seek(-1, 0));  // plain seeks are not clamped
  lltest::writeFile(dir.file("plain"), "plain text");
  Probe p(dir.file("plain"), kBinary | io::kOpenReadWrite, 0);
  EXPECT_EQ("plain", p.kind());
  EXPECT_EQ(10, p.SeekToEnd());
  EXPECT_EQ(1, p.Write("!", 1));
  EXPECT_EQ("plain text!", lltest::readFile(dir.file("plain")));
}

TEST_F(CompressedFileTest, ObjectsOnOnePathShareOneMapAndReopenWithoutAWalk) {
  size_t tableBefore = offsetMapTable.size();
  Probe a(path, kBinary, 0), b(path, kBinary, 0);
  EXPECT_EQ(tableBefore + 1, offsetMapTable.size());
  EXPECT_EQ(a.map(), b.map());
  EXPECT_EQ("shared", a.kind());
  EXPECT_EQ(data.substr(120, 30), readAt(a, 120, 30));
  EXPECT_EQ(data.substr(10, 5), readAt(b, 10, 5));  // own positions and buffers
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
  for (int i = 0; i < 3; ++i) readAt(f, 100 * i, 1);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(100 * i, f.bufferOffset(i));
  io::resetIoCounters();
  EXPECT_EQ(data.substr(5, 200), readAt(f, 5, 200));
  EXPECT_EQ(0u, io::ioCounters().reads);  // reads inside held chunks touch no disk
  EXPECT_TRUE(f.Close());
  EXPECT_TRUE(f.Open(path, kBinary, 0));
  io::resetIoCounters();
  EXPECT_EQ(data.substr(0, 10), readAt(f, 0, 10));
  EXPECT_GT(io::ioCounters().reads, 0u);  // expanded again after Close
}

TEST_F(CompressedFileTest, HandleConstructorRewindsAndKeepsAPrivateMap) {
  lltest::RecordingSupport host;
  int h = io::open(path.c_str(), io::kOpenReadOnly, 0);
  io::lseek(h, 17, 0);
  size_t tableBefore = offsetMapTable.size();
  {
    Probe f(h);
    ASSERT_EQ("private", f.kind());
    EXPECT_EQ(tableBefore, offsetMapTable.size());
    EXPECT_EQ(data.substr(90, 20), readAt(f, 90, 20));
    // After Close it may open a path: the private map goes, the table's map is taken.
    EXPECT_TRUE(f.Close());
    EXPECT_TRUE(f.Open(path, kBinary, 0));
    EXPECT_EQ("shared", f.kind());
  }
  Probe again(path, kBinary, 0);  // the table's map survived the object
  EXPECT_EQ(data.substr(230), readAt(again, 230, 100));

  // A regular plain file is rewound and its handle left open; a pipe stays plain and unmoved.
  lltest::writeFile(dir.file("plain"), "abcdef");
  h = io::open(dir.file("plain").c_str(), io::kOpenReadOnly, 0);
  io::lseek(h, 4, 0);
  { Probe f(h); EXPECT_EQ(0, io::tell(h)); }
  EXPECT_EQ(0, io::close(h));
  int fds[2];
  ASSERT_EQ(0, lowlevel::platform::makePipe(fds));
  ASSERT_EQ(2, ::write(fds[1], "hi", 2));
  {
    Probe p(fds[0]), closed(-3);
    EXPECT_EQ("hi", readAt(p, -1, 2));
    EXPECT_EQ("plain plain", p.kind() + " " + closed.kind());
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
    EXPECT_EQ("plain", f.kind());
  }
  EXPECT_EQ(lltest::reportsText(host.reports),
            "Unable to retrieve stat for file handle.|ZCompressedFileBase::ZCompressedFileBase( "
            "handle )|2|cmpfilbs\n");
  io::close(h);
}

TEST_F(CompressedFileTest, CopiesAndAssignmentsReadOnTheirOwn) {
  Probe a(path, kBinary, 0);
  readAt(a, 150, 1);
  Probe copy(a);
  EXPECT_NE(a.GetHandle(), copy.GetHandle());
  EXPECT_EQ(a.map(), copy.map());
  EXPECT_EQ(data.substr(151), readAt(copy, -1, 100));
  EXPECT_EQ(151, a.Position());

  int h = io::open(path.c_str(), io::kOpenReadOnly, 0);
  Probe fromHandle(h);
  Probe privateCopy(fromHandle);
  EXPECT_EQ("private", privateCopy.kind());
  EXPECT_NE(fromHandle.map(), privateCopy.map());
  Probe left(path, kBinary, 0);
  {
    Probe right(fromHandle);
    right.Seek(40, 0);
    io::resetIoCounters();
    left = right;
    EXPECT_EQ(1u, io::ioCounters().closes);  // the left side closed the handle it owned
    EXPECT_NE(right.GetHandle(), left.GetHandle());
    EXPECT_EQ("private", left.kind());
  }
  EXPECT_EQ(data.substr(40, 60), readAt(left, 40, 60));
  Probe& alias = left;
  left = alias;  // self-assignment changes nothing
  EXPECT_EQ(data.substr(0, 4), readAt(left, 0, 4));
  io::close(h);
}

TEST(CompressedFileFailures, FailedExpansionsGiveShortCountsAndNeverStaleBytes) {
  lltest::TempDir dir;
  std::string data = pattern(500, true), bytes = packed(data, 100), path = dir.file("bad.zst");
  lltest::writeFile(path, bytes);
  cz::SeekableInfo info;
  ASSERT_TRUE(cz::describeSeekableFile(path, &info, nullptr));
  ASSERT_EQ(5u, info.frames.size());
  const auto& last = info.frames[4];
  bytes[static_cast<size_t>(last.compressedOffset + last.compressedSize / 2)] ^= 0x5a;
  lltest::writeFile(path, bytes);

  Probe f(path, kBinary, 0);
  EXPECT_EQ(data.substr(0, 300), readAt(f, 0, 300));  // three buffers hold 0, 100, 200
  EXPECT_EQ(data.substr(300, 100), readAt(f, 300, 500));  // stops short at the bad chunk
  EXPECT_EQ(400, f.Position());
  // The failure went into the buffer that held chunk 100; that chunk must be expanded again.
  for (int32_t at : {100, 0, 200, 300}) EXPECT_EQ(data.substr(at, 100), readAt(f, at, 100)) << at;
  EXPECT_EQ("", readAt(f, 450, 10));
  EXPECT_EQ(450, f.Position());

  Probe g(path, kBinary, 0);  // read errors during expansion also give short counts
  {
    lltest::FaultInjector faults({IoCall::Read});
    faults.failFrom = 1;
    EXPECT_EQ("", readAt(g, 10, 50));
  }
  EXPECT_EQ(data.substr(10, 50), readAt(g, 10, 50));
}

TEST(CompressedFileFailures, ACacheWithoutAVictimIsReported) {
  lltest::TempDir dir;
  lltest::writeFile(dir.file("c.zst"), packed(pattern(240), 100));
  lltest::RecordingSupport host;
  Probe f(dir.file("c.zst"), kBinary, 0);
  f.growCache();  // three entries in a cache of four: no old entry to hand out
  EXPECT_EQ("", readAt(f, -1, 10));
  EXPECT_EQ(lltest::reportsText(host.reports),
            "Failed to getOld buffer from cache.|ZCompressedFileBase::readBuffer|2|cmpfilbs\n");
}

TEST(CompressedFileFailures, OpenFailuresAndEmptyFiles) {
  lltest::TempDir dir;
  Probe f;
  EXPECT_FALSE(f.Open(dir.file("missing"), kBinary, 0));
  EXPECT_FALSE(f.IsOpen());
  lltest::writeFile(dir.file("empty"), "");
  EXPECT_TRUE(f.Open(dir.file("empty"), kBinary, 0));
  EXPECT_EQ("plain", f.kind());
  EXPECT_TRUE(f.Close());
  EXPECT_FALSE(f.Close());
  lltest::writeFile(dir.file("e.zst"), packed("", 100));  // packs to a compressed file of length 0
  EXPECT_TRUE(f.Open(dir.file("e.zst"), kBinary, 0));
  EXPECT_EQ("shared", f.kind());
  EXPECT_EQ(0, f.Length());
  EXPECT_EQ("", readAt(f, -1, 4));
  char buf[4];
  EXPECT_EQ(0, f.Read(buf, -4));
}

}  // namespace
