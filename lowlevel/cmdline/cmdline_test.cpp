#include "lowlevel/cmdline/cmdline.h"

#include <gtest/gtest.h>

#include "lowlevel/cmdline/cmdline_testutil.h"
#include "tests/testsupport/testing.h"

namespace {

using cmdtest::Entries;
using cmdtest::Parse;

TEST(CmdLineGrammar, EntriesOfEachText) {
  const struct { const char* text; char separator; Entries entries; } cases[] = {
      // Blanks separate and nothing else does.
      {"", '=', {}}, {"    ", '=', {}}, {"a b", '=', {{"a", ""}, {"b", ""}}},
      {"  a   b  ", '=', {{"a", ""}, {"b", ""}}}, {"a\tb=c\td", '=', {{"a\tb", "c\td"}}},
      // Bare names and values; delimiters count only as the first character.
      {"a=1 b=2", '=', {{"a", "1"}, {"b", "2"}}}, {"a=b=c", '=', {{"a", "b=c"}}},
      {"a =b", '=', {{"a", ""}, {"", "b"}}}, {"a= b", '=', {{"a", ""}, {"b", ""}}},
      {"a=", '=', {{"a", ""}}}, {"=x", '=', {{"", "x"}}}, {"=", '=', {{"", ""}}},
      {"a\"b c\"", '=', {{"a\"b", ""}, {"c\"", ""}}},
      {"x=a{b c}", '=', {{"x", "a{b"}, {"c}", ""}}}, {"}]> x=>", '=', {{"}]>", ""}, {"x", ">"}}},
      // Delimited names and values.
      {"\"a b\"=c", '=', {{"a b", "c"}}}, {"\"a=b\"", '=', {{"a=b", ""}}},
      {"a=\"b c\" d", '=', {{"a", "b c"}, {"d", ""}}},
      {"<a b>=[c d] e=<>", '=', {{"a b", "c d"}, {"e", ""}}},
      {"\"\" x", '=', {{"", ""}, {"x", ""}}},
      // The same pair nests, other pairs and quotes do not.
      {"a={b {c} d}", '=', {{"a", "b {c} d"}}}, {"a={b \"c} d", '=', {{"a", "b \"c"}, {"d", ""}}},
      {"[a[b]c]=1", '=', {{"a[b]c", "1"}}}, {"<a<b>>=<x[>", '=', {{"a<b>", "x["}}},
      {"\"a\"b\"", '=', {{"a", ""}, {"b\"", ""}}},
      // A closer ends the item and what follows is read afresh.
      {"a=\"b\"c", '=', {{"a", "b"}, {"c", ""}}}, {"{a}x=1", '=', {{"a", ""}, {"x", "1"}}},
      {"{a}={b}{c}", '=', {{"a", "b"}, {"c", ""}}},
      // Separators; code 0 is refused and the separator stays "=".
      {"a b", ' ', {{"a", "b"}}}, {"a  b", ' ', {{"a", ""}, {"b", ""}}},
      {"a:b=c", ':', {{"a", "b=c"}}}, {"a=b", ':', {{"a=b", ""}}},
      {"a={x} {y}", '{', {{"a=", "x}"}, {"y", ""}}}, {"a=b", '\0', {{"a", "b"}}},
  };
  for (const auto& c : cases) EXPECT_EQ(Parse(c.text, c.separator), c.entries) << c.text;
}

TEST(CmdLineReport, UnterminatedItemIsReportedOnceAndKept) {
  struct Case {
    std::string text;
    Entries entries;
  } cases[] = {
      {"\"abc", {{"abc", ""}}},
      {"a={b", {{"a", "b"}}},
      {"x a={b{c}", {{"x", ""}, {"a", "b{c}"}}},
      {"a=[", {{"a", ""}}},
      {"<<<", {{"<<", ""}}},
  };
  for (const Case& c : cases) {
    lltest::RecordingSupport host;
    EXPECT_EQ(Parse(c.text), c.entries) << c.text;
    EXPECT_EQ(lltest::reportsText(host.reports),
              "Badly formed ZCmdLine: '" + c.text + "'|ZCmdLine|2|cmdline\n");
  }
}

TEST(CmdLineReport, EachScanReportsAndOnlyScansReport) {
  lltest::RecordingSupport host;
  ZCmdLine line("a={b");
  EXPECT_TRUE(host.reports.empty());  // construction does not scan
  std::string value;
  EXPECT_TRUE(line.GetValue("a", value));
  EXPECT_EQ(value, "b");
  EXPECT_TRUE(line.GetValue("a", value));
  EXPECT_EQ(host.reports.size(), 1u);
  line.UseSeparator('=');
  EXPECT_TRUE(line.GetValue("a", value));
  EXPECT_EQ(host.reports.size(), 2u);
  line.Scan();
  EXPECT_EQ(host.reports.size(), 2u);
}

TEST(CmdLineConstruction, TextsSeparatorAndCopies) {
  EXPECT_STREQ(ZCmdLine().Get(), "");
  EXPECT_STREQ(ZCmdLine("a", "b=1").Get(), "a b=1");
  EXPECT_STREQ(ZCmdLine("", "").Get(), " ");
  EXPECT_EQ(ZCmdLine("a", "").GetCommand(), "a ");

  ZCmdLine source("a:1 b");
  source.UseSeparator(':');
  std::string name = "keep", value = "keep";
  ASSERT_TRUE(source.FindFirst(name, value));
  ZCmdLine copy(source);
  // The copy is not scanned and its cursor is 0.
  EXPECT_FALSE(copy.FindNext(name, value));
  EXPECT_EQ(name, "a");
  EXPECT_EQ(cmdtest::Walk(copy), (Entries{{"a", "1"}, {"b", ""}}));
}

}  // namespace
