#include "lowlevel/cmdline/cmdline.h"

#include <gtest/gtest.h>

#include "lowlevel/cmdline/cmdline_testutil.h"
#include "tests/testsupport/testing.h"

namespace {

using cmdtest::Entries;
using cmdtest::Parse;

TEST(CmdLineGrammar, BlanksSeparateAndNothingElseDoes) {
  EXPECT_EQ(Parse(""), Entries{});
  EXPECT_EQ(Parse("    "), Entries{});
  EXPECT_EQ(Parse("a b"), (Entries{{"a", ""}, {"b", ""}}));
  EXPECT_EQ(Parse("  a   b  "), (Entries{{"a", ""}, {"b", ""}}));
  EXPECT_EQ(Parse("a\tb=c\td"), (Entries{{"a\tb", "c\td"}}));
}

TEST(CmdLineGrammar, BareNamesAndValues) {
  EXPECT_EQ(Parse("a=1 b=2"), (Entries{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(Parse("a=b=c"), (Entries{{"a", "b=c"}}));
  EXPECT_EQ(Parse("a =b"), (Entries{{"a", ""}, {"", "b"}}));
  EXPECT_EQ(Parse("a= b"), (Entries{{"a", ""}, {"b", ""}}));
  EXPECT_EQ(Parse("a="), (Entries{{"a", ""}}));
  EXPECT_EQ(Parse("=x"), (Entries{{"", "x"}}));
  EXPECT_EQ(Parse("="), (Entries{{"", ""}}));
  // Delimiters count only as the first character.
  EXPECT_EQ(Parse("a\"b c\""), (Entries{{"a\"b", ""}, {"c\"", ""}}));
  EXPECT_EQ(Parse("x=a{b c}"), (Entries{{"x", "a{b"}, {"c}", ""}}));
  EXPECT_EQ(Parse("}]> x=>"), (Entries{{"}]>", ""}, {"x", ">"}}));
}

TEST(CmdLineGrammar, DelimitedNamesAndValues) {
  EXPECT_EQ(Parse("\"a b\"=c"), (Entries{{"a b", "c"}}));
  EXPECT_EQ(Parse("\"a=b\""), (Entries{{"a=b", ""}}));
  EXPECT_EQ(Parse("a=\"b c\" d"), (Entries{{"a", "b c"}, {"d", ""}}));
  EXPECT_EQ(Parse("<a b>=[c d] e=<>"), (Entries{{"a b", "c d"}, {"e", ""}}));
  EXPECT_EQ(Parse("\"\" x"), (Entries{{"", ""}, {"x", ""}}));
}

TEST(CmdLineGrammar, SamePairNestsOtherPairsAndQuotesDoNot) {
  EXPECT_EQ(Parse("a={b {c} d}"), (Entries{{"a", "b {c} d"}}));
  EXPECT_EQ(Parse("a={b \"c} d"), (Entries{{"a", "b \"c"}, {"d", ""}}));
  EXPECT_EQ(Parse("[a[b]c]=1"), (Entries{{"a[b]c", "1"}}));
  EXPECT_EQ(Parse("<a<b>>=<x[>"), (Entries{{"a<b>", "x["}}));
  EXPECT_EQ(Parse("\"a\"b\""), (Entries{{"a", ""}, {"b\"", ""}}));
}

TEST(CmdLineGrammar, CloserEndsTheItemAndWhatFollowsIsReadAfresh) {
  EXPECT_EQ(Parse("a=\"b\"c"), (Entries{{"a", "b"}, {"c", ""}}));
  EXPECT_EQ(Parse("{a}x=1"), (Entries{{"a", ""}, {"x", "1"}}));
  EXPECT_EQ(Parse("{a}={b}{c}"), (Entries{{"a", "b"}, {"c", ""}}));
}

TEST(CmdLineGrammar, Separators) {
  EXPECT_EQ(Parse("a b", ' '), (Entries{{"a", "b"}}));
  EXPECT_EQ(Parse("a  b", ' '), (Entries{{"a", ""}, {"b", ""}}));
  EXPECT_EQ(Parse("a:b=c", ':'), (Entries{{"a", "b=c"}}));
  EXPECT_EQ(Parse("a=b", ':'), (Entries{{"a=b", ""}}));
  EXPECT_EQ(Parse("a={x} {y}", '{'), (Entries{{"a=", "x}"}, {"y", ""}}));
  // Code 0 is refused; the separator stays "=".
  EXPECT_EQ(Parse("a=b", '\0'), (Entries{{"a", "b"}}));
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
    ASSERT_EQ(host.reports.size(), 1u) << c.text;
    EXPECT_EQ(host.reports[0].message, "Badly formed ZCmdLine: '" + c.text + "'");
    EXPECT_EQ(host.reports[0].function, "ZCmdLine");
    EXPECT_EQ(host.reports[0].flag, eReportError);
    EXPECT_EQ(host.reports[0].module, "cmdline");
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
