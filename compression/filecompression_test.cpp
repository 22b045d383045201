#include "compression/filecompression.h"

#include <gtest/gtest.h>
#include <xxhash.h>
#include <zstd.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "compression/seekable_writer.h"
#include "lowlevel/platform/io.h"
#include "tests/testsupport/testing.h"

namespace {

namespace io = lowlevel::platform;

void put32(std::string& s, uint32_t v) {
  for (int i = 0; i < 4; ++i) s.push_back(static_cast<char>(v >> (8 * i)));
}
void set32(std::string& s, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) s[at + i] = static_cast<char>(v >> (8 * i));
}

std::string zframe(const std::string& data, int level = 1) {
  std::string out(ZSTD_compressBound(data.size()), '\0');
  out.resize(ZSTD_compress(&out[0], out.size(), data.data(), data.size(), level));
  return out;
}

// A seekable file made without the library: frames, then a table of the given sizes.
struct Entry { std::string frame; uint32_t expanded; uint32_t checksum; };
std::string seekable(const std::vector<Entry>& entries, bool checksums, uint8_t descriptorExtra = 0) {
  std::string out, table;
  for (const Entry& e : entries) {
    out += e.frame;
    put32(table, static_cast<uint32_t>(e.frame.size()));
    put32(table, e.expanded);
    if (checksums) put32(table, e.checksum);
  }
  put32(out, 0x184D2A5E);
  put32(out, static_cast<uint32_t>(table.size() + 9));
  out += table;
  put32(out, static_cast<uint32_t>(entries.size()));
  out.push_back(static_cast<char>((checksums ? 0x80 : 0) | descriptorExtra));
  put32(out, 0x8F92EAB1);
  return out;
}
Entry entry(const std::string& data, int level = 1) {
  return {zframe(data, level), static_cast<uint32_t>(data.size()), static_cast<uint32_t>(XXH64(data.data(), data.size(), 0))};
}

// Expands the chunk at `offset` into a buffer of `capacity` bytes filled with '#' (none when 0):
// "ok" or "fail", the length given back, and the whole buffer.
std::string expand(ZfileCompression& z, int32_t offset, int32_t capacity) {
  std::string buf(static_cast<size_t>(capacity), '#');
  int32_t length = capacity;
  bool ok = z.expandChunk(offset, capacity > 0 ? &buf[0] : nullptr, length);
  return (ok ? "ok " : "fail ") + std::to_string(length) + " " + buf;
}

// The writer's files are the reference's bytes: the input cut in chunks of the chunk size (no input
// is one empty chunk), each one frame of the level, then the table with or without checksums.
TEST(SeekableFormat, TheWriterGivesTheReferenceBytes) {
  const std::string data = lltest::randomBytes(140000, 12);
  const struct { size_t n; lowlevel::compression::SeekableWriteOptions o; } cases[] = {
      {140000, {}}, {2500, {1000, 19, false}}, {0, {}}};
  for (const auto& [n, o] : cases) {
    std::vector<Entry> entries;
    for (size_t at = 0; at == 0 || at < n; at += o.chunkSize) {
      entries.push_back(entry(data.substr(at, std::min<size_t>(o.chunkSize, n - at)), o.level));
    }
    std::string out;
    ASSERT_TRUE(lowlevel::compression::compressToSeekable(data.substr(0, n), o, &out, nullptr));
    EXPECT_EQ(seekable(entries, o.checksums), out) << n;
  }
}

class Reader : public ::testing::Test {
 protected:
  // Writes `bytes`, binds them and returns startExpand's answer.
  bool open(const std::string& bytes) {
    if (handle_ >= 0) io::close(handle_);
    lltest::writeFile(dir_.file("f"), bytes);
    handle_ = io::open(dir_.file("f").c_str(), io::kOpenReadOnly | io::kOpenBinary, 0);
    z_.init(handle_, 0);
    return z_.startExpand();
  }
  // The chunk walk as "offset:size" items. With `bytes`, each chunk is also expanded into it, in
  // walk order; a failure (or a length other than the walk's) ends the walk with "!".
  std::string walk(std::string* bytes = nullptr) {
    std::string out;
    int32_t off = 0, size = 0;
    for (bool more = z_.chunkWalkFirst(off, size); more; more = z_.chunkWalkNext(off, size)) {
      out += std::to_string(off) + ":" + std::to_string(size) + " ";
      std::vector<char> buf(static_cast<size_t>(size) + 1);
      int32_t length = size + 1;
      if (bytes && (!z_.expandChunk(off, buf.data(), length) || length != size)) return out + "!";
      if (bytes) bytes->append(buf.data(), static_cast<size_t>(length));
    }
    return out;
  }
  void TearDown() override { if (handle_ >= 0) io::close(handle_); }

  lltest::TempDir dir_;
  int handle_ = -1;
  ZfileCompression z_;
};

// Chunks read back exactly with and without checksums; then the capacity protocol, and copies
// that decode on their own.
TEST_F(Reader, ChunksReadBackExactlyAndTheCapacityProtocol) {
  const std::string a = lltest::randomBytes(1000, 1), c = lltest::randomBytes(333, 2);
  const Entry ea = entry(a), eb = entry(""), ec = entry(c);
  const int32_t empty = static_cast<int32_t>(ea.frame.size());
  const int32_t third = empty + static_cast<int32_t>(eb.frame.size());
  for (bool sums : {false, true}) {
    ASSERT_TRUE(open(seekable({ea, eb, ec}, sums, 0x03))) << z_.getErrMsg();  // bits 1-0 are ignored
    EXPECT_EQ(1333, z_.uncompressedLength());
    std::string bytes;
    EXPECT_EQ("0:1000 " + std::to_string(empty) + ":0 " + std::to_string(third) + ":333 ", walk(&bytes));
    EXPECT_EQ(a + c, bytes);
  }
  EXPECT_EQ("fail 333 ", expand(z_, third, 0));
  EXPECT_EQ("fail 333 " + std::string(332, '#'), expand(z_, third, 332));  // nothing decoded
  EXPECT_EQ("ok 333 " + c + std::string(100, '#'), expand(z_, third, 433));
  EXPECT_EQ("ok 0 ", expand(z_, empty, 0));  // an empty chunk needs no buffer
  for (int32_t bad : {1, -1, third + static_cast<int32_t>(ec.frame.size()), 1 << 30}) {
    EXPECT_EQ("fail 0 " + std::string(433, '#'), expand(z_, bad, 433)) << bad;
    EXPECT_NE("", z_.getErrMsg());
  }
  ZfileCompression copy(z_), assigned;
  assigned = copy;
  EXPECT_EQ("ok 333 " + c + "|ok 333 " + c, expand(copy, third, 333) + "|" + expand(assigned, third, 333));
}

// Tables that do not add up are not compressed files; the expanded total must fit 31 bits.
TEST_F(Reader, InconsistentTablesAreNotCompressed) {
  const std::string f = zframe("ab"), good = seekable({entry(lltest::randomBytes(300, 4)), entry(lltest::randomBytes(200, 5))}, true);
  const size_t end = good.size(), table = end - 9 - 24 - 8;
  using Edit = std::function<void(std::string&)>;
  const std::vector<std::pair<const char*, Edit>> cases = {
      {"empty", [](std::string& s) { s.clear(); }},
      {"footer only", [](std::string& s) { s = s.substr(s.size() - 9); }},
      {"last byte cut", [](std::string& s) { s.pop_back(); }},
      {"first byte cut", [](std::string& s) { s.erase(0, 1); }},
      {"byte added in front", [](std::string& s) { s.insert(0, 1, 'x'); }},
      {"footer magic", [&](std::string& s) { s[end - 1] ^= 1; }},
      {"skippable magic", [&](std::string& s) { set32(s, table, 0x184D2A5F); }},
      {"frame size +1", [&](std::string& s) { set32(s, table + 4, 24 + 9 + 1); }},
      {"frame size -1", [&](std::string& s) { set32(s, table + 4, 24 + 9 - 1); }},
      {"reserved bit 2", [&](std::string& s) { s[end - 5] |= 0x04; }},
      {"reserved bit 6", [&](std::string& s) { s[end - 5] |= 0x40; }},
      {"checksum flag off", [&](std::string& s) { s[end - 5] &= 0x7F; }},
      {"one frame more", [&](std::string& s) { set32(s, end - 9, 3); }},
      {"count huge", [&](std::string& s) { set32(s, end - 9, 0xFFFFFFFF); }},
      {"compressed size +1", [&](std::string& s) { s[table + 8] += 1; }},
      {"compressed size -1", [&](std::string& s) { s[table + 8] -= 1; }},
      {"sizes wrap 2^32", [&](std::string& s) {  // the 32-bit sum of the sizes is still right
         set32(s, table + 8, static_cast<uint32_t>(table) + 0x10);
         set32(s, table + 20, 0xFFFFFFF0u);
       }},
      {"plain text", [](std::string& s) { s = "just some text that is long enough to have a footer"; }},
      {"bare zstd frame", [](std::string& s) { s = zframe(lltest::randomBytes(100, 6)); }},
      {"total 2^31", [&](std::string& s) { s = seekable({{f, 0x7FFFFFFF, 0}, {f, 1, 0}}, false); }},
      {"total wraps to 1", [&](std::string& s) { s = seekable({{f, 0xFFFFFFFF, 0}, {f, 2, 0}}, false); }},
      {"chunk 2^31", [&](std::string& s) { s = seekable({{f, 0x80000000u, 0}}, false); }},
      {"compressed size 0", [&](std::string& s) { s = seekable({{"", 0, 0}, {f, 2, 0}}, false); }},
  };
  for (const auto& [name, edit] : cases) {
    std::string bytes = good;
    edit(bytes);
    EXPECT_FALSE(open(bytes)) << name;
    EXPECT_EQ("0  message", std::to_string(z_.uncompressedLength()) + " " + walk() +
                                (z_.getErrMsg().empty() ? "" : " message")) << name;
  }
  EXPECT_TRUE(open(good));
  EXPECT_EQ("", z_.getErrMsg());
  EXPECT_TRUE(open(seekable({{f, 0x7FFFFFFF, 0}, {f, 0, 0}}, false)));
  EXPECT_EQ(0x7FFFFFFF, z_.uncompressedLength());
  // The needed size comes back without overflow, and the lie is found later.
  EXPECT_EQ("fail 2147483647 ", expand(z_, 0, 0));
  EXPECT_TRUE(open(seekable({}, true)));  // zero frames: compressed, length 0
  EXPECT_EQ(0, z_.uncompressedLength());
}

TEST_F(Reader, LyingOrDamagedFramesFailWithLengthZero) {
  const std::string a = lltest::randomBytes(400, 7), b = lltest::randomBytes(100, 8);
  const Entry ea = entry(a), eb = entry(b);
  const Entry lies[] = {{ea.frame, 401, ea.checksum}, {ea.frame, 399, ea.checksum},
                        {ea.frame + eb.frame, 500, ea.checksum},  // two frames under one entry
                        {std::string(ea.frame).replace(8, 12, 12, '\xFF'), 400, ea.checksum},
                        {ea.frame, 400, ea.checksum ^ 0x100}};
  for (const Entry& e : lies) {
    ASSERT_TRUE(open(seekable({e}, true)));
    EXPECT_EQ(0u, expand(z_, 0, 600).find("fail 0 "));
    EXPECT_NE("", z_.getErrMsg());
  }
  EXPECT_NE(std::string::npos, z_.getErrMsg().find("checksum"));
  z_.setCheckCRC(false);
  EXPECT_EQ("ok 400 " + a, expand(z_, 0, 400));
}

// The k-th read, seek or length call fails, for every k: false and the message of that call.
TEST_F(Reader, EveryFailingIoCallGivesFalseAndItsMessage) {
  const std::string a = lltest::randomBytes(3000, 9), b = lltest::randomBytes(1000, 10);
  const Entry first = entry(a);
  const std::string bytes = seekable({first, entry(b)}, true);
  std::string messages;
  for (int k = 1; k < 100; ++k) {
    lltest::FaultInjector fault({io::IoCall::Read, io::IoCall::Seek, io::IoCall::Length});
    fault.failAt = {k};
    std::string got;
    const bool ok = open(bytes) && walk(&got).find('!') == std::string::npos;
    if (fault.failures == 0) {
      EXPECT_TRUE(ok && got == a + b);
      break;
    }
    EXPECT_FALSE(ok) << k;
    messages += z_.getErrMsg() + "\n";
  }
  // Length, then seek and read of the footer, the table and each chunk.
  const std::string table = "not a compressed file: cannot read the seek table", at = " the chunk at ";
  const std::string second = at + std::to_string(first.frame.size()) + "\n";
  EXPECT_EQ("not a compressed file: cannot get the length of the file\n" + table + " footer\n" + table +
                " footer\n" + table + "\n" + table + "\ncannot seek to" + at + "0\ncannot read" + at +
                "0\ncannot seek to" + second + "cannot read" + second,
            messages);
}

}  // namespace
