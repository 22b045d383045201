#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

#include "lowlevel/cmdline/cmdline.h"
#include "lowlevel/cmdline/cmdline_testutil.h"
#include "tests/testsupport/testing.h"

namespace {

using cmdtest::Entries;
using cmdtest::Walk;

const char kSentinel[] = "\x01";  // a name that the random texts never contain

class Random {
 public:
  explicit Random(uint32_t seed) : engine_(seed) {}
  uint32_t Below(uint32_t n) { return static_cast<uint32_t>(engine_() % n); }
  // A piece of text rich in the characters that matter to the grammar, and bytes 2..255 besides.
  std::string Piece() {
    static const char kSpecial[] = " =\"<>{}[]\ta";
    std::string out;
    for (uint32_t n = Below(7); n > 0; --n) {
      out += Below(2) ? kSpecial[Below(sizeof kSpecial - 1)] : static_cast<char>(2 + Below(254));
    }
    return out;
  }
  // A name or value: bare, or in one of the delimiter pairs (which may stay open).
  std::string Item() {
    static const char* kPairs[] = {"\"\"", "<>", "{}", "[]"};
    if (Below(2)) return Piece();
    const char* pair = kPairs[Below(4)];
    return pair[0] + Piece() + (Below(8) ? std::string(1, pair[1]) : std::string());
  }

 private:
  std::mt19937 engine_;
};

// Whether two names are the same ignoring ASCII case.
bool SameName(std::string a, std::string b) {
  for (std::string* s : {&a, &b}) {
    for (char& c : *s) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
  }
  return a == b;
}

// Whether writing the entry bare, or as name={value}, reads back as the same entry: the name has
// no blank, separator or opening delimiter in front, and the value's braces match.
bool Survives(const std::pair<std::string, std::string>& e) {
  const std::string& name = e.first;
  if ((name.empty() && e.second.empty()) || name.find_first_of(" =") != std::string::npos ||
      (!name.empty() && std::string("\"<{[").find(name[0]) != std::string::npos)) {
    return false;
  }
  int depth = 0;
  for (char c : e.second) {
    if (c == '{') ++depth;
    if (c == '}' && --depth < 0) return false;
  }
  return depth == 0;
}

// The rebuilt text of a line: a sentinel entry in front is removed, which rewrites everything else.
std::string Rebuilt(const std::string& text) {
  ZCmdLine line(std::string(kSentinel) + " " + text);
  EXPECT_TRUE(line.Remove(kSentinel));
  return line.GetCommand();
}

TEST(CmdLineProperty, LosslessRebuildReadsBackTheSameEntries) {
  lltest::RecordingSupport host;  // keeps the reports of unterminated texts quiet
  int lossless = 0;
  for (uint32_t seed = 1; seed <= 2000; ++seed) {
    Random rnd(seed);
    std::string text;
    for (uint32_t n = rnd.Below(8); n > 0; --n) {
      text += std::string(1 + rnd.Below(2), ' ') + rnd.Item();
      if (rnd.Below(2)) text += "=" + rnd.Item();
    }
    ZCmdLine original(text);
    const Entries entries = Walk(original);
    const std::string rebuilt = Rebuilt(text);
    ZCmdLine line(rebuilt);
    bool survives = true;
    for (const auto& e : entries) survives = survives && Survives(e);
    if (!survives) {
      Walk(line);  // must merely work
      continue;
    }
    ++lossless;
    ASSERT_EQ(Walk(line), entries) << "seed " << seed << " text [" << text << "]";
    ASSERT_EQ(Rebuilt(rebuilt), rebuilt) << "seed " << seed;  // a rebuild is a fixed point
    if (!entries.empty()) {
      const std::string name = entries[rnd.Below(static_cast<uint32_t>(entries.size()))].first;
      ASSERT_TRUE(line.ReplaceValue(name, "r{1}"));
      Entries expected = entries;
      for (auto& e : expected) {
        if (SameName(e.first, name)) e.second = "r{1}";
      }
      ASSERT_EQ(Walk(line), expected) << "seed " << seed;
    }
  }
  EXPECT_GT(lossless, 400);
}

TEST(CmdLineRobustness, RandomBytesAnySeparator) {
  lltest::RecordingSupport host;
  for (uint32_t seed = 1; seed <= 1000; ++seed) {
    Random rnd(seed);
    std::string text;
    for (uint32_t n = rnd.Below(200); n > 0; --n) text += static_cast<char>(rnd.Below(256));
    ZCmdLine line(text);
    line.UseSeparator(static_cast<char>(1 + rnd.Below(255)));
    host.reports.clear();
    const Entries entries = Walk(line);
    ASSERT_LE(host.reports.size(), 1u);
    size_t used = 0;
    std::string value;
    for (const auto& e : entries) {
      used += e.first.size() + e.second.size();
      ASSERT_TRUE(line.GetValue(e.first, value));
    }
    ASSERT_LE(used, text.size());
    if (!entries.empty()) {
      line.ReplaceValue(entries.back().first, "v");
      line.Remove(entries.front().first);
      Walk(line);
    }
  }
}

TEST(CmdLineRobustness, DeepNestingAndLongRuns) {
  lltest::RecordingSupport host;
  const size_t n = 1000000;
  EXPECT_EQ(cmdtest::Parse("a=" + std::string(n, '{')),
            (Entries{{"a", std::string(n - 1, '{')}}));
  EXPECT_EQ(host.reports.size(), 1u);
  const std::string inner = std::string(n - 1, '[') + std::string(n - 1, ']');
  EXPECT_EQ(cmdtest::Parse("[" + inner + "]=1 }{ ]["),
            (Entries{{inner, "1"}, {"}{", ""}, {"][", ""}}));
  ZCmdLine quotes(std::string(n, '"'));  // half a million empty names
  std::string value = "x";
  EXPECT_TRUE(quotes.GetValue("", value));
  EXPECT_EQ(value, "");
  EXPECT_EQ(host.reports.size(), 1u);
}

TEST(CmdLineRobustness, WalkStopsAtTheCursorLimitOtherOperationsSeeAll) {
  std::string text;
  for (int i = 0; i < 100000; ++i) text += "k" + std::to_string(i) + "=" + std::to_string(i) + " ";
  ZCmdLine line(text);
  const Entries walked = Walk(line);
  ASSERT_EQ(walked.size(), 32767u);
  EXPECT_EQ(walked.back(), (std::pair<std::string, std::string>("k32766", "32766")));
  std::string name = "x", value = "x";
  EXPECT_FALSE(line.FindNext(name, value));
  EXPECT_EQ(name + value, "");

  EXPECT_TRUE(line.GetValue("K99999", value));
  EXPECT_EQ(value, "99999");
  EXPECT_FALSE(line.ReplaceValue("absent", "v"));
  EXPECT_FALSE(line.FindNext(name, value));  // the cursor stays at the limit
  ASSERT_TRUE(line.ReplaceValue("k99999", "last"));
  ASSERT_TRUE(line.Remove("k1"));
  const std::string rebuilt = line.GetCommand();
  EXPECT_EQ(rebuilt.substr(0, 16), "k0={0} k2={2} k3");
  const std::string tail = "k99997={99997} k99998={99998} k99999={last}";
  EXPECT_EQ(rebuilt.substr(rebuilt.size() - tail.size()), tail);
  EXPECT_FALSE(line.GetValue("k1", value));
  EXPECT_TRUE(line.GetValue("k50000", value));
  EXPECT_EQ(value, "50000");
}

}  // namespace
