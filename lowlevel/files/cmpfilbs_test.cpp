// ZCompressedFileBase beyond what the ZFile scripts cover: who owns which offset map, the chunk
// cache, handles given from outside, and damaged or failing files.
#include "lowlevel/files/cmpfilbs.h"

#include <gtest/gtest.h>

#include "compression/seekable_writer.h"
#include "lowlevel/platform/io.h"
#include "lowlevel/platform/pipe.h"
#include "tests/testsupport/testing.h"

namespace io = lowlevel::platform;

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

// Random bytes packed in chunks of 100, so that damage to a chunk changes its data.
class CompressedFileTest : public ::testing::Test {
 protected:
  void SetUp() override { lltest::writeFile(path, packed(data)); }
  static std::string packed(const std::string& bytes) {
    std::string out;
    EXPECT_TRUE(lowlevel::compression::compressToSeekable(bytes, {100, 3, true}, &out, nullptr));
    return out;
  }
  // Reads `count` bytes at `position` (-1: where it stands): how many came, "!" unless they are the
  // data there, "r" when the disk was read, the position afterwards, and the kind if `withKind`.
  std::string step(Probe& f, int32_t position, int count, bool withKind = false) {
    io::resetIoCounters();
    if (position >= 0) f.Seek(position, 0);
    const std::string got = lltest::readSome(f, count);
    const size_t at = static_cast<size_t>(f.Position()) - got.size();
    return std::to_string(got.size()) + (got == data.substr(at, got.size()) ? "" : "!") +
           (io::ioCounters().reads > 0 ? "r@" : "@") + std::to_string(f.Position()) +
           (withKind ? " " + f.kind() + " " : " ");
  }
  lltest::RecordingSupport host;
  lltest::TempDir dir;
  std::string data = lltest::randomBytes(500, 42), path = dir.file("c.zst");
};

TEST_F(CompressedFileTest, OneMapPerPathAndTheChunkCache) {
  const size_t maps = offsetMapTable.size();
  Probe a(path, kBinary, 0), b(path, kBinary, 0);
  std::string trace = b.kind() + " ";  // none held yet
  for (int i = 0; i < 3; ++i) trace += step(a, 100 * i, 1);  // filled in order
  trace += step(a, 5, 200, true);  // inside held chunks: no disk read
  EXPECT_TRUE(a.Close() && a.Open(path, kBinary, 0));  // no second walk, and the chunks forgotten
  trace += step(a, 0, 10);
  a.growCache();  // three entries in a cache of four: no old entry to hand out
  trace += step(a, 150, 10);
  EXPECT_EQ("shared -1 -1 -1 1r@1 1r@101 1r@201 200@205 shared 0 100 200 10r@10 0@150 "
            "Failed to getOld buffer from cache.|ZCompressedFileBase::readBuffer|2|cmpfilbs\n",
            trace + lltest::reportsText(host.reports));
  EXPECT_TRUE(b.map() == a.map() && offsetMapTable.size() == maps + 1 && a.Write("x", 1) == 0);
  EXPECT_TRUE(a.Close() && a.Open(path, io::kOpenReadOnly, 0));  // no binary flag: the raw bytes
  EXPECT_EQ(lltest::readFile(path).substr(0, 16), lltest::readSome(a, 16));
  EXPECT_EQ("plain 0 100 200", a.kind());
}

TEST_F(CompressedFileTest, HandlesFromOutsideAndPrivateMaps) {
  int h = io::open(path.c_str(), io::kOpenReadOnly, 0);
  io::lseek(h, 17, 0);
  const size_t tableBefore = offsetMapTable.size();
  const int given = io::open(path.c_str(), io::kOpenReadOnly, 0);
  int duplicate;
  {
    Probe f(h), copy(f), wrapped(given), left(path, kBinary, 0);  // only `left` adds a map
    std::string trace = copy.kind() + " " + step(f, 90, 20);
    EXPECT_TRUE(f.map() != copy.map() && tableBefore + 1 == offsetMapTable.size());
    copy.Seek(40, 0);
    io::resetIoCounters();
    left = copy;
    EXPECT_EQ(1u, io::ioCounters().closes);  // the left side closed the handle it owned
    Probe& alias = left;
    left = alias;  // self-assignment changes nothing
    trace += step(left, -1, 60, true);
    EXPECT_TRUE(f.Close() && f.Open(path, kBinary, 0));  // the private map goes
    EXPECT_EQ("private -1 -1 -1 20r@110 60r@100 private 0 -1 -1 shared 0 100 -1", trace + f.kind());
    wrapped = left;  // the handle it was given stays open, the duplicate it takes is its own
    duplicate = wrapped.GetHandle();
  }
  EXPECT_TRUE(io::close(given) == 0 && io::close(duplicate) != 0);
  // A regular plain file is rewound and its handle left open; a pipe stays plain and unmoved.
  lltest::writeFile(dir.file("plain"), "abcdef");
  h = io::open(dir.file("plain").c_str(), io::kOpenReadOnly, 0);
  io::lseek(h, 4, 0);
  { Probe f(h); }
  lltest::FaultInjector faults({io::IoCall::Stat}, {1});
  EXPECT_EQ("plain -1 -1 -1", Probe(h).kind());
  EXPECT_EQ(lltest::reportsText(host.reports), "Unable to retrieve stat for file handle.|"
            "ZCompressedFileBase::ZCompressedFileBase( handle )|2|cmpfilbs\n");
  EXPECT_TRUE(io::tell(h) == 0 && io::close(h) == 0);
  int fds[2];
  ASSERT_TRUE(io::makePipe(fds) == 0 && io::write(fds[1], "hi", 2) == 2);
  Probe p(fds[0]), closed(-3);
  EXPECT_EQ("hi", lltest::readSome(p, 2));
  EXPECT_EQ("plain -1 -1 -1 plain -1 -1 -1", p.kind() + " " + closed.kind());
  EXPECT_EQ(0, io::close(fds[0]) + io::close(fds[1]));
}

TEST_F(CompressedFileTest, FailedExpansionsGiveShortCountsAndNeverStaleBytes) {
  // The last chunk's frame (about 113 bytes) ends where the seek table's 77 bytes begin.
  std::string bytes = packed(data);
  bytes[bytes.size() - 130] ^= 0x5a;
  lltest::writeFile(path, bytes);
  Probe f(path, kBinary, 0);
  // A read stops short at the bad chunk; the failure went into the buffer that held chunk 100,
  // which now holds none, so that chunk is expanded again.
  std::string trace = step(f, 0, 300);
  trace += step(f, 300, 500, true);
  for (int32_t at : {100, 0, 200, 300, 450}) trace += step(f, at, 100);
  // A copy that cannot read the chunk table reads nothing.
  lltest::FaultInjector faults({io::IoCall::Length}, {1});
  Probe blind(f);
  EXPECT_EQ("300r@300 100r@400 shared 300 -1 200 100r@200 100r@100 100r@300 100r@400 0r@450 0@0 ",
            trace + step(blind, 0, 10));
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
