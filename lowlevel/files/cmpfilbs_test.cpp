// ZCompressedFileBase beyond what the ZFile scripts cover: who owns which offset map, the chunk
// cache, handles given from outside, and damaged or failing files.
#include "lowlevel/files/cmpfilbs.h"

#include <gtest/gtest.h>

#include "compression/seekable_writer.h"
#include "lowlevel/platform/io.h"
#include "lowlevel/platform/pipe.h"
#include "tests/testsupport/testing.h"

namespace io = lowlevel::platform;
namespace cz = lowlevel::compression;
using io::IoCall;

const unsigned short kBinary = io::kOpenReadOnly | io::kOpenBinary;

// Exposes the object's state for checks.
struct Probe : ZCompressedFileBase {
  using ZCompressedFileBase::ZCompressedFileBase;
  OffsetMap* map() const { return m_pOffsetMap; }
  void growCache() { m_cache.setSize(4); }
  // "plain", or "private"/"shared" for a compressed object by who owns its map; then the expanded
  // offset of the chunk each buffer holds (-1: none).
  std::string kind() const {
    std::string out = !m_bCompressed ? "plain" : m_bOwnsOffsetMap ? "private" : "shared";
    for (const ChunkBuffer* b : m_vBuffers) out += " " + std::to_string(b->offset);
    return out;
  }
};

// Seeks to `position` (unless -1) and reads.
static std::string readAt(ZCompressedFileBase& f, int32_t position, int count) {
  if (position >= 0) f.Seek(position, 0);
  return lltest::readSome(f, count);
}

// Random bytes packed in chunks of 100, so that damage to a chunk changes its data.
class CompressedFileTest : public ::testing::Test {
 protected:
  void SetUp() override { lltest::writeFile(path, packed(data)); }
  static std::string packed(const std::string& bytes) {
    std::string out;
    EXPECT_TRUE(cz::compressToSeekable(bytes, {100, 3, true}, &out, nullptr));
    return out;
  }
  lltest::RecordingSupport host;
  lltest::TempDir dir;
  std::string data = lltest::randomBytes(500, 42), path = dir.file("c.zst");
};

TEST_F(CompressedFileTest, OneMapPerPathAndTheChunkCache) {
  const size_t tableBefore = offsetMapTable.size();
  Probe a(path, kBinary, 0), b(path, kBinary, 0);
  EXPECT_EQ("shared -1 -1 -1", b.kind());  // none held yet
  for (int i = 0; i < 3; ++i) readAt(a, 100 * i, 1);
  EXPECT_EQ("shared 0 100 200", a.kind());  // filled in order
  io::resetIoCounters();
  EXPECT_EQ(data.substr(5, 200), readAt(a, 5, 200));
  EXPECT_EQ(0u, io::ioCounters().reads);  // reads inside held chunks touch no disk
  EXPECT_TRUE(a.Close() && a.Open(path, kBinary, 0));  // no second walk, and the chunks forgotten
  EXPECT_EQ(b.map(), a.map());
  EXPECT_EQ(tableBefore + 1, offsetMapTable.size());
  EXPECT_EQ(data.substr(0, 10), readAt(a, 0, 10));
  EXPECT_GT(io::ioCounters().reads, 0u);
  EXPECT_EQ(0, a.Write("xyz", 3));
  a.growCache();  // three entries in a cache of four: no old entry to hand out
  EXPECT_EQ("", readAt(a, 150, 10));
  EXPECT_EQ(lltest::reportsText(host.reports),
            "Failed to getOld buffer from cache.|ZCompressedFileBase::readBuffer|2|cmpfilbs\n");
  EXPECT_TRUE(a.Close() && a.Open(path, io::kOpenReadOnly, 0));  // no binary flag: the raw bytes
  EXPECT_EQ(lltest::readFile(path).substr(0, 16), readAt(a, 0, 16));
  EXPECT_EQ("plain 0 100 200", a.kind());
}

TEST_F(CompressedFileTest, HandlesFromOutsideAndPrivateMaps) {
  int h = io::open(path.c_str(), io::kOpenReadOnly, 0);
  io::lseek(h, 17, 0);
  const size_t tableBefore = offsetMapTable.size();
  const int given = io::open(path.c_str(), io::kOpenReadOnly, 0);
  int duplicate;
  {
    Probe f(h), copy(f), wrapped(given);
    EXPECT_EQ("private -1 -1 -1 private -1 -1 -1", f.kind() + " " + copy.kind());
    EXPECT_NE(f.map(), copy.map());
    EXPECT_EQ(tableBefore, offsetMapTable.size());
    EXPECT_EQ(data.substr(90, 20), readAt(f, 90, 20));
    Probe left(path, kBinary, 0);
    copy.Seek(40, 0);
    io::resetIoCounters();
    left = copy;
    EXPECT_EQ(1u, io::ioCounters().closes);  // the left side closed the handle it owned
    Probe& alias = left;
    left = alias;  // self-assignment changes nothing
    EXPECT_EQ(data.substr(40, 60), readAt(left, -1, 60));
    EXPECT_EQ("private 0 -1 -1", left.kind());
    EXPECT_TRUE(f.Close() && f.Open(path, kBinary, 0));  // the private map goes
    EXPECT_EQ("shared 0 100 -1", f.kind());
    wrapped = left;  // the handle it was given stays open, the duplicate it takes is its own
    duplicate = wrapped.GetHandle();
  }
  EXPECT_EQ(0, io::close(given));
  EXPECT_NE(0, io::close(duplicate));
  // A regular plain file is rewound and its handle left open; a pipe stays plain and unmoved.
  lltest::writeFile(dir.file("plain"), "abcdef");
  h = io::open(dir.file("plain").c_str(), io::kOpenReadOnly, 0);
  io::lseek(h, 4, 0);
  { Probe f(h); }
  EXPECT_EQ(0, io::tell(h));
  lltest::FaultInjector faults({IoCall::Stat}, {1});
  EXPECT_EQ("plain -1 -1 -1", Probe(h).kind());
  EXPECT_EQ(lltest::reportsText(host.reports), "Unable to retrieve stat for file handle.|"
            "ZCompressedFileBase::ZCompressedFileBase( handle )|2|cmpfilbs\n");
  EXPECT_EQ(0, io::close(h));
  int fds[2];
  ASSERT_EQ(0, io::makePipe(fds));
  ASSERT_EQ(2, io::write(fds[1], "hi", 2));
  Probe p(fds[0]), closed(-3);
  EXPECT_EQ("hi", readAt(p, -1, 2));
  EXPECT_EQ("plain -1 -1 -1 plain -1 -1 -1", p.kind() + " " + closed.kind());
  EXPECT_EQ(0, io::close(fds[0]) + io::close(fds[1]));
}

TEST_F(CompressedFileTest, FailedExpansionsGiveShortCountsAndNeverStaleBytes) {
  std::string bytes = lltest::readFile(path);
  cz::SeekableInfo info;
  ASSERT_TRUE(cz::describeSeekableFile(path, &info, nullptr));
  const auto& last = info.frames[4];
  bytes[static_cast<size_t>(last.compressedOffset + last.compressedSize / 2)] ^= 0x5a;
  lltest::writeFile(path, bytes);

  Probe f(path, kBinary, 0);
  EXPECT_EQ(data.substr(0, 300), readAt(f, 0, 300));  // three buffers hold 0, 100, 200
  EXPECT_EQ(data.substr(300, 100), readAt(f, 300, 500));  // stops short at the bad chunk
  // The failure went into the buffer that held chunk 100, which now holds none; that chunk must be
  // expanded again.
  EXPECT_EQ("shared 300 -1 200 @400", f.kind() + " @" + std::to_string(f.Position()));
  for (int32_t at : {100, 0, 200, 300}) EXPECT_EQ(data.substr(at, 100), readAt(f, at, 100)) << at;
  EXPECT_EQ("", readAt(f, 450, 10));
  EXPECT_EQ(450, f.Position());

  lltest::FaultInjector faults({IoCall::Length}, {1});  // a copy that cannot read the chunk table
  Probe blind(f);
  EXPECT_EQ("", readAt(blind, 0, 10));  // reads nothing
  // Compressed files of length 0: one empty chunk, and no chunk at all (a bare seek table).
  const std::string noChunk("\x5e\x2a\x4d\x18\x09\0\0\0\0\0\0\0\x80\xb1\xea\x92\x8f", 17);
  for (const std::string& bytes : {packed(""), noChunk}) {
    const std::string name = dir.file(std::to_string(bytes.size()));  // one map per path
    lltest::writeFile(name, bytes);
    Probe e(name, kBinary, 0);
    char buf[4];
    EXPECT_EQ("shared -1 -1 -1 0", e.kind() + " " + std::to_string(e.Length()));
    EXPECT_EQ(0, e.Read(buf, 4) + e.Read(buf, -4));
  }
}
