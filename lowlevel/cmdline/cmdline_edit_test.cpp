#include <gtest/gtest.h>

#include "lowlevel/cmdline/cmdline.h"
#include "lowlevel/cmdline/cmdline_testutil.h"
#include "tests/testsupport/testing.h"

namespace {

using cmdtest::Entries;
using cmdtest::Walk;

TEST(CmdLineWalk, OutputsBeforeScanAtEndAndDuplicatesInPlace) {
  ZCmdLine line("a=1 B=2 a=3");
  std::string name = "keep", value = "keep";
  EXPECT_FALSE(line.FindNext(name, value));  // never scanned: outputs untouched
  EXPECT_EQ(name + value, "keepkeep");
  EXPECT_EQ(Walk(line), (Entries{{"a", "1"}, {"B", "2"}, {"a", "3"}}));
  EXPECT_FALSE(line.FindNext(name, value));  // at the end: outputs emptied
  EXPECT_EQ(name + value, "");
}

TEST(CmdLineLookup, FirstMatchIgnoringCaseValuesKeepCase) {
  ZCmdLine line("Name=Val name=other flag =empty");
  std::string value = "junk";
  EXPECT_TRUE(line.GetValue("NAME", value));
  EXPECT_EQ(value, "Val");
  EXPECT_TRUE(line.GetValue(std::string("flag"), value));
  EXPECT_EQ(value, "");
  EXPECT_TRUE(line.GetValue("", value));
  EXPECT_EQ(value, "empty");
  value = "junk";
  EXPECT_FALSE(line.GetValue("nam", value));
  EXPECT_EQ(value, "");
  EXPECT_FALSE(line.GetValue(static_cast<const char*>(nullptr), value));
  std::string alias = "name";  // the name and the output are one string
  EXPECT_TRUE(line.GetValue(alias, alias));
  EXPECT_EQ(alias, "Val");
}

TEST(CmdLineLookup, NumbersReadHexDecimalAndNonsense) {
  ZCmdLine line("h=0x10 d=-5 t=abc n big=0xFFFFFFFF");
  int32_t l = 7;
  int i = 7;
  EXPECT_TRUE(line.GetLongValue("h", l));
  EXPECT_EQ(l, 16);
  EXPECT_TRUE(line.GetIntValue(std::string("d"), i));
  EXPECT_EQ(i, -5);
  EXPECT_TRUE(line.GetLongValue(std::string("t"), l));
  EXPECT_EQ(l, 0);
  EXPECT_TRUE(line.GetIntValue("big", i));
  EXPECT_EQ(i, -1);
  l = 7;
  i = 7;
  EXPECT_FALSE(line.GetLongValue("missing", l));
  EXPECT_FALSE(line.GetIntValue("missing", i));
  EXPECT_EQ(l + i, 14);
}

TEST(CmdLineEdit, AppendingLeavesTheTextAlone) {
  ZCmdLine line;
  line.AddParam("x");
  EXPECT_STREQ(line.Get(), " x");
  line.AddParam("n", "v w", true);
  line.AddParam("n", "", false);
  line.AddParam("m", "1", false);
  EXPECT_EQ(line.GetCommand(), " x n={v w} n= m=1");
  std::string value;
  EXPECT_TRUE(line.GetValue("n", value));
  EXPECT_EQ(value, "v w");
  line.UseSeparator(':');
  line.SetLongValue("k", -5);
  EXPECT_EQ(line.GetCommand(), " x n={v w} n= m=1 k:{-5}");

  ZCmdLine empty;
  empty.SetValue("a", "b");
  EXPECT_STREQ(empty.Get(), " a={b}");
}

// A line holding `text` with separator `sep`, after `op` ('-' Remove, '~' ReplaceValue, '+'
// SetValue) on `name`: the call's result (1 for SetValue) and the text, as "1|text".
std::string Edited(ZCmdLine& line, const char* text, char sep, char op, const char* name,
                   const char* value = "") {
  line = std::string(text);
  line.UseSeparator(sep);
  bool ok = op == '-' ? line.Remove(name) : op == '~' ? line.ReplaceValue(name, value) : true;
  if (op == '+') line.SetValue(name, value);
  return std::to_string(ok) + "|" + line.GetCommand();
}

TEST(CmdLineEdit, RebuildNormalisesAndItsHazards) {
  const struct { const char* text; char sep, op; const char* name, *value, *result; } cases[] = {
      {"a=1 b=\"x y\" c", '=', '-', "C", "", "1|a={1} b={x y}"},
      {"a=1 b=\"x y\" c", '=', '~', "a", "2", "1|a={2} b={x y} c"},
      {"a=1 b=2 a=3 <c d>", '=', '+', "A", "x", "1|b={2} c d A={x}"},
      {"a=1 b a=3", '=', '~', "a", "", "1|a b a"},
      {" only=1", '=', '-', "only", "", "1|"},
      {" a=1 z", ':', '-', "z", "", "1|a=1"},
      {"a:1 z", ':', '-', "z", "", "1|a:{1}"},
      // An entry with neither name nor value vanishes, and takes no blank with it at the front.
      {"= b \"\" c z", '=', '-', "z", "", "1|b  c"},
      {"a=\"x}y\" z", '=', '-', "z", "", "1|a={x}y}"},
  };
  ZCmdLine line;
  for (const auto& c : cases) {
    EXPECT_EQ(c.result, Edited(line, c.text, c.sep, c.op, c.name, c.value)) << c.text;
  }
  EXPECT_EQ(Walk(line), (Entries{{"a", "x"}, {"y}", ""}}));  // the value's closer was lost
  Edited(line, "\"a b\"=1 z", '=', '-', "z");
  EXPECT_EQ(Walk(line), (Entries{{"a", ""}, {"b", "1"}}));
  Edited(line, "a=\"{x} {y{}}\" z", '=', '-', "z");
  EXPECT_EQ(Walk(line), (Entries{{"a", "{x} {y{}}"}}));
}

TEST(CmdLineState, WhatEndsAWalkAndWhatForcesAScan) {
  lltest::RecordingSupport host;
  ZCmdLine line("a=1 b=2 c={3");  // every scan reports, so reports count scans
  std::string name, value;
  ASSERT_TRUE(line.FindFirst(name, value));
  EXPECT_TRUE(line.GetValue("c", value));  // lookups keep the walk
  ASSERT_TRUE(line.FindNext(name, value));
  EXPECT_EQ(name + value, "b2");
  EXPECT_EQ(host.reports.size(), 1u);

  EXPECT_FALSE(line.ReplaceValue("absent", "x"));  // nothing changes, walk at the end
  EXPECT_EQ(host.reports.size(), 1u);
  EXPECT_FALSE(line.FindNext(name, value));
  EXPECT_EQ(name + value, "");
  EXPECT_STREQ(line.Get(), "a=1 b=2 c={3");

  EXPECT_FALSE(line.Remove("absent"));  // text kept, but scanned afresh
  EXPECT_STREQ(line.Get(), "a=1 b=2 c={3");
  name = "keep";
  EXPECT_FALSE(line.FindNext(name, value));
  EXPECT_EQ(name, "keep");
  EXPECT_TRUE(line.GetValue("a", value));
  EXPECT_EQ(host.reports.size(), 2u);

  ASSERT_TRUE(line.FindFirst(name, value));
  line.AddParam("d");  // an edit ends the walk until the next scan
  EXPECT_FALSE(line.FindNext(name, value));
  EXPECT_EQ(name, "a");
  line = std::string("p q r");  // assignment keeps the cursor
  EXPECT_TRUE(line.GetValue("p", value));
  ASSERT_TRUE(line.FindNext(name, value));
  EXPECT_EQ(name, "q");
}

TEST(CmdLineState, RescanReplacesEveryEntryWhole) {
  ZCmdLine line("a=" + std::string(1000, 'v') + " b=2 <c d>=3 e");
  EXPECT_EQ(Walk(line).size(), 4u);
  line = std::string("x");
  EXPECT_EQ(Walk(line), (Entries{{"x", ""}}));
  line = std::string("p=1 q r={s}");
  EXPECT_EQ(Walk(line), (Entries{{"p", "1"}, {"q", ""}, {"r", "s"}}));
  line = std::string("  ");
  EXPECT_EQ(Walk(line), Entries{});
}

class ExposedCmdLine : public ZCmdLine {
 public:
  using ZCmdLine::cSep;
  using ZCmdLine::Copy;
  using ZCmdLine::operator=;
};

TEST(CmdLineState, AssignmentAndCopyCarryTheSeparatorOnlyFromALine) {
  ZCmdLine colon("a:1");
  colon.UseSeparator(':');
  ExposedCmdLine line;
  line.Copy(std::string("x:1"));
  EXPECT_EQ(line.cSep(), '=');
  line.Copy(colon);
  EXPECT_EQ(line.cSep(), ':');
  EXPECT_EQ(Walk(line), (Entries{{"a", "1"}}));
  line = std::string("b:2");
  EXPECT_EQ(Walk(line), (Entries{{"b", "2"}}));
  ZCmdLine plain("c:3");
  static_cast<ZCmdLine&>(line) = plain;
  EXPECT_EQ(line.cSep(), '=');
  EXPECT_EQ(Walk(line), (Entries{{"c:3", ""}}));
}

}  // namespace
