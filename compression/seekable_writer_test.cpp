#include "compression/seekable_writer.h"

#include <gtest/gtest.h>
#include <xxhash.h>

#include <cstdlib>

#include "compression/zstdcompression.h"
#include "lowlevel/platform/io.h"
#include "tests/testsupport/testing.h"

namespace {

namespace io = lowlevel::platform;
namespace lc = lowlevel::compression;

uint32_t get32(const std::string& s, size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<unsigned char>(s[at + i]);
  return v;
}

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>("abcdefgh"[(i * i) % 8] + (i % 1000 == 0));
  return s;
}

TEST(SeekableWriter, LayoutOfChunksTableAndFooter) {
  const std::string data = pattern(200000);
  std::string out;
  ASSERT_TRUE(lc::compressToSeekable(data, {}, &out, nullptr));
  const size_t n = out.size();
  EXPECT_EQ(4u, get32(out, n - 9));
  EXPECT_EQ(0x80, static_cast<unsigned char>(out[n - 5]));
  EXPECT_EQ(0x8F92EAB1u, get32(out, n - 4));
  const size_t table = n - 9 - 4 * 12 - 8;
  EXPECT_EQ(0x184D2A5Eu, get32(out, table));
  EXPECT_EQ(57u, get32(out, table + 4));
  const uint32_t sizes[] = {65536, 65536, 65536, 200000 - 3 * 65536};
  size_t compressed = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t e = table + 8 + 12 * i;
    EXPECT_EQ(sizes[i], get32(out, e + 4));
    EXPECT_EQ(static_cast<uint32_t>(XXH64(&data[65536 * i], sizes[i], 0)), get32(out, e + 8));
    EXPECT_EQ(0xFD2FB528u, get32(out, compressed));  // each entry starts a zstd frame
    compressed += get32(out, e);
  }
  EXPECT_EQ(table, compressed);

  ASSERT_TRUE(lc::compressToSeekable(data, {100000, 19, false}, &out, nullptr));
  EXPECT_EQ(2u, get32(out, out.size() - 9));
  EXPECT_EQ(0, out[out.size() - 5]);
  EXPECT_EQ(8u * 2 + 9, get32(out, out.size() - 9 - 16 - 4));
}

TEST(SeekableWriter, EmptyInputIsOneEmptyFrameAndBadOptionsLeaveOutputAlone) {
  std::string out = "kept", error;
  EXPECT_FALSE(lc::compressToSeekable("abc", {0, 3, true}, &out, &error));
  EXPECT_EQ("the chunk size must be above 0", error);
  EXPECT_FALSE(lc::compressToSeekable("abc", {16, 1000, true}, &out, &error));
  EXPECT_EQ(0u, error.find("compression level 1000 is outside"));
  EXPECT_EQ("kept", out);
  lltest::TempDir dir;
  ASSERT_TRUE(lc::compressToSeekable("", {}, &out, nullptr));
  lltest::writeFile(dir.file("e"), out);
  lc::SeekableInfo info;
  ASSERT_TRUE(lc::describeSeekableFile(dir.file("e"), &info, nullptr));
  ASSERT_EQ(1u, info.frames.size());
  EXPECT_EQ(static_cast<uint32_t>(XXH64("", 0, 0)), info.frames[0].checksum);
  EXPECT_EQ("0 0 " + std::to_string(out.size()), std::to_string(info.frames[0].expandedSize) + " " +
            std::to_string(info.expandedLength) + " " + std::to_string(info.fileLength));
}

TEST(SeekableWriter, FilesRoundTripThroughZstdToolReaderAndUnpack) {
  lltest::TempDir dir;
  const std::string data = pattern(150001);
  lltest::writeFile(dir.file("src"), data);
  std::string error;
  for (bool sums : {true, false}) {
    ASSERT_TRUE(lc::compressFileToSeekable(dir.file("src"), dir.file("z"), {7000, 3, sums}, &error)) << error;
    std::string inMemory;
    ASSERT_TRUE(lc::compressToSeekable(data, {7000, 3, sums}, &inMemory, nullptr));
    EXPECT_EQ(inMemory, lltest::readFile(dir.file("z")));

    ASSERT_TRUE(lc::expandSeekableFile(dir.file("z"), dir.file("back"), &error)) << error;
    EXPECT_EQ(data, lltest::readFile(dir.file("back")));

    lc::SeekableInfo info;
    ASSERT_TRUE(lc::describeSeekableFile(dir.file("z"), &info, nullptr));
    EXPECT_EQ(22u, info.frames.size());
    EXPECT_EQ(static_cast<int32_t>(info.frames[0].compressedSize), info.frames[1].compressedOffset);
    EXPECT_EQ(sums, info.checksums);
    // Double quotes and no redirection: the same command runs under sh and under cmd.exe.
    if (std::system("zstd -q -V") != 0) GTEST_SKIP() << "zstd tool not installed";
    std::string cmd = "zstd -d -q -f \"" + dir.file("z") + "\" -o \"" + dir.file("tool") + "\"";
    ASSERT_EQ(0, std::system(cmd.c_str()));
    EXPECT_EQ(data, lltest::readFile(dir.file("tool")));
  }
}

TEST(SeekableWriter, FileErrorsAreReported) {
  lltest::TempDir dir;
  std::string error;
  lltest::writeFile(dir.file("src"), pattern(5000));
  EXPECT_FALSE(lc::compressFileToSeekable(dir.file("none"), dir.file("z"), {}, &error));
  EXPECT_EQ("cannot open " + dir.file("none"), error);
  EXPECT_FALSE(lc::compressFileToSeekable(dir.file("src"), dir.file("src"), {}, &error));
  EXPECT_EQ(pattern(5000), lltest::readFile(dir.file("src")));
  EXPECT_FALSE(lc::expandSeekableFile(dir.file("src"), dir.file("out"), &error));  // a plain file
  EXPECT_NE(std::string::npos, error.find("not a compressed file"));
  lc::SeekableInfo info;
  EXPECT_FALSE(lc::describeSeekableFile(dir.file("src"), &info, &error));
  for (io::IoCall call : {io::IoCall::Read, io::IoCall::Write}) {
    lltest::FaultInjector fault({call});
    fault.failAt = {2};
    EXPECT_FALSE(lc::compressFileToSeekable(dir.file("src"), dir.file("z"), {1000, 3, true}, &error));
    EXPECT_EQ(call == io::IoCall::Read ? "cannot read " + dir.file("src") : "cannot write " + dir.file("z"), error);
  }
  {
    lltest::FaultInjector torn({io::IoCall::Write});
    torn.writeLimit = 7;  // short writes are carried on, not lost
    ASSERT_TRUE(lc::compressFileToSeekable(dir.file("src"), dir.file("z"), {1000, 3, true}, &error));
  }
  ASSERT_TRUE(lc::expandSeekableFile(dir.file("z"), dir.file("out"), &error));
  EXPECT_EQ(pattern(5000), lltest::readFile(dir.file("out")));
}

TEST(ZstdCodec, BlocksAndLevels) {
  ZzstdCompression codec;
  const std::string data = pattern(3000);
  std::string block(codec.maxCompressedSize(data.size()), '\0');
  size_t written = 0;
  ASSERT_TRUE(codec.compress(data.data(), data.size(), &block[0], block.size(), written, nullptr));
  block.resize(written);
  uint64_t expanded = 0;
  EXPECT_TRUE(codec.decompressedSize(block.data(), block.size(), expanded));
  EXPECT_EQ(3000u, expanded);
  std::string back(3000, '\0');
  ASSERT_TRUE(codec.decompress(block.data(), block.size(), &back[0], back.size(), written, nullptr));
  EXPECT_EQ(data, back.substr(0, written));
  std::string error;
  EXPECT_FALSE(codec.decompress(block.data(), block.size(), &back[0], 2999, written, &error));
  EXPECT_EQ(0u, written);
  std::string trailing = block + "x";
  EXPECT_FALSE(codec.decompress(trailing.data(), trailing.size(), &back[0], back.size(), written, &error));
  EXPECT_EQ("bytes follow the compressed block", error);
  EXPECT_FALSE(codec.setLevel(ZzstdCompression::maxLevel() + 1));
  EXPECT_TRUE(codec.setLevel(19));
  EXPECT_EQ(19, codec.level());
}

}  // namespace
