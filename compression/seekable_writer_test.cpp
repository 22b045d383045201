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

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>("abcdefgh"[(i * i) % 8] + (i % 1000 == 0));
  return s;
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
    const lc::SeekableFrameInfo& last = info.frames.back();  // 150001 = 21 * 7000 + 3001
    auto n = [](auto v) { return std::to_string(v) + " "; };
    const uint32_t sum = sums ? static_cast<uint32_t>(XXH64(&data[147000], 3001, 0)) : 0;
    EXPECT_EQ(n(inMemory.size()) + "150001 22 147000 3001 " + n(sum) + n(sums) + n(last.compressedOffset),
              n(info.fileLength) + n(info.expandedLength) + n(info.frames.size()) +
                  n(last.expandedOffset) + n(last.expandedSize) + n(last.checksum) +
                  n(info.checksums) + n(info.fileLength - info.tableSize - last.compressedSize));
    // Double quotes and no redirection: the same command runs under sh and under cmd.exe.
    if (std::system("zstd -q -V") != 0) GTEST_SKIP() << "zstd tool not installed";
    std::string cmd = "zstd -d -q -f \"" + dir.file("z") + "\" -o \"" + dir.file("tool") + "\"";
    ASSERT_EQ(0, std::system(cmd.c_str()));
    EXPECT_EQ(data, lltest::readFile(dir.file("tool")));
  }
}

TEST(SeekableWriter, BadOptionsAndFileErrorsAreReported) {
  std::string out = "kept", error;
  EXPECT_FALSE(lc::compressToSeekable("abc", {0, 3, true}, &out, &error));
  EXPECT_EQ("the chunk size must be above 0", error);
  EXPECT_FALSE(lc::compressToSeekable("abc", {16, 1000, true}, &out, &error));
  EXPECT_EQ(0u, error.find("compression level 1000 is outside"));
  EXPECT_EQ("kept", out);  // bad options leave the output alone
  lltest::TempDir dir;
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

TEST(ZstdCodec, BlocksLevelsAndRefusals) {
  ZzstdCompression codec;
  const std::string data = pattern(3000);
  std::string block(codec.maxCompressedSize(data.size()), '\0'), back(3000, '\0'), error;
  size_t written = 0;
  uint64_t expanded = 0;
  ASSERT_TRUE(codec.compress(data.data(), data.size(), &block[0], block.size(), written, nullptr));
  block.resize(written);
  EXPECT_TRUE(codec.decompressedSize(block.data(), block.size(), expanded) && expanded == 3000);
  ASSERT_TRUE(codec.decompress(block.data(), block.size(), &back[0], back.size(), written, nullptr));
  EXPECT_EQ(data, back.substr(0, written));
  EXPECT_FALSE(codec.decompress(block.data(), block.size(), &back[0], 2999, written, &error));
  EXPECT_EQ(0u, written);
  block += "x";
  EXPECT_FALSE(codec.decompress(block.data(), block.size(), &back[0], back.size(), written, &error));
  EXPECT_EQ("bytes follow the compressed block", error);
  EXPECT_FALSE(codec.setLevel(ZzstdCompression::maxLevel() + 1));
  EXPECT_TRUE(codec.setLevel(19) && codec.level() == 19);
}

}  // namespace
