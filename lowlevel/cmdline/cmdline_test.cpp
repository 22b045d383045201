// ZCmdLine: the grammar and its report as a table, edits and lookups against a model (a list of
// entries and the exact text they must give), and the states that decide when a line is scanned.
#include "lowlevel/cmdline/cmdline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tests/testsupport/testing.h"

namespace {

// Every entry a walk gives, in order, as "(name|value)" items.
std::string Walk(ZCmdLine& line) {
  std::string out, name, value;
  for (bool ok = line.FindFirst(name, value); ok; ok = line.FindNext(name, value)) {
    out += "(" + name + "|" + value + ")";
  }
  return out;
}

TEST(CmdLineGrammar, EntriesReportAndRebuildOfEachText) {
  // With `rebuilt`: the text and walk after removing the last entry, "z", which rewrites the rest.
  const struct { const char* text; const char* entries; char sep = '='; bool bad = false;
                 const char* rebuilt = nullptr; } cases[] = {
      // Blanks separate and nothing else does.
      {"", ""}, {"  a   b  ", "(a|)(b|)"}, {"a\tb=c\td", "(a\tb|c\td)"},
      // Bare names and values; delimiters count only as the first character.
      {"a=b=c", "(a|b=c)"}, {"a =b", "(a|)(|b)"}, {"a= b", "(a|)(b|)"}, {"=", "(|)"},
      {"a\"b c\"", "(a\"b|)(c\"|)"}, {"x=a{b c}", "(x|a{b)(c}|)"}, {"}]> x=>", "(}]>|)(x|>)"},
      // Delimited names and values.
      {"\"a b\"=c", "(a b|c)"}, {"\"a=b\"", "(a=b|)"}, {"\"\" x", "(|)(x|)"},
      {"<a b>=[c d] e=<>", "(a b|c d)(e|)"},
      // The same pair nests, other pairs and quotes do not.
      {"a={b {c} d}", "(a|b {c} d)"}, {"a={b \"c} d", "(a|b \"c)(d|)"}, {"[a[b]c]=1", "(a[b]c|1)"},
      {"<a<b>>=<x[>", "(a<b>|x[)"}, {"\"a\"b\"", "(a|)(b\"|)"},
      // A closer ends the item and what follows is read afresh.
      {"a=\"b\"c", "(a|b)(c|)"}, {"{a}={b}{c}", "(a|b)(c|)"},
      // Separators; code 0 is refused and the separator stays "=".
      {"a b", "(a|b)", ' '}, {"a  b", "(a|)(b|)", ' '}, {"a:b=c", "(a|b=c)", ':'},
      {"a={x} {y}", "(a=|x})(y|)", '{'}, {"a=b", "(a|b)", '\0'},
      // An unterminated item runs to the end, is kept and is reported once.
      {"\"abc", "(abc|)", '=', true}, {"x a={b{c}", "(x|)(a|b{c})", '=', true},
      {"a=[", "(a|)", '=', true}, {"<<<", "(<<|)", '=', true},
      // Rebuilds that cannot write entries back as they were.
      {"= b \"\" c z", "(|)(b|)(|)(c|)(z|)", '=', false, "b  c (b|)(c|)"},
      {"a=\"x}y\" z", "(a|x}y)(z|)", '=', false, "a={x}y} (a|x)(y}|)"},
      {"\"a b\"=1 z", "(a b|1)(z|)", '=', false, "a b={1} (a|)(b|1)"},
      {"a=\"{x} {y{}}\" z", "(a|{x} {y{}})(z|)", '=', false, "a={{x} {y{}}} (a|{x} {y{}})"},
  };
  for (const auto& c : cases) {
    lltest::RecordingSupport host;
    ZCmdLine line(c.text);
    line.UseSeparator(c.sep);
    EXPECT_EQ(Walk(line), c.entries) << c.text;
    const std::string report = "Badly formed ZCmdLine: '" + std::string(c.text) + "'|ZCmdLine|";
    EXPECT_EQ(lltest::reportsText(host.reports), c.bad ? report + "2|cmdline\n" : "");
    if (c.rebuilt) {
      EXPECT_TRUE(line.Remove("Z"));
      EXPECT_EQ(c.rebuilt, line.GetCommand() + " " + Walk(line));
    }
  }
}

// Seeded scripts of edits on names that differ in case, checked after every step against the
// entries and the exact text that a model says the line must have, and by lookups of every name.
TEST(CmdLineModel, EditsAndLookupsMatchAListOfEntries) {
  const std::string names[] = {"a", "A", "key", "KEY", "x1"};  // name i is name j when i/2 == j/2
  const std::string values[] = {"", "1", "0x1f", "-12", "v w", "{n}"};  // the first four go bare
  std::mt19937 rng(20);
  for (int script = 0; script < 150; ++script) {
    const char sep = script % 3 ? '=' : ':';
    ZCmdLine line;
    line.UseSeparator(sep);
    std::string text;
    std::vector<std::pair<size_t, std::string>> model;  // name index, value
    for (int step = 0; step < 12; ++step) {
      const size_t ni = rng() % 5, vi = rng() % 6, op = rng() % 6;  // ops 2, 3, 4 drop the name
      const std::string& n = names[ni];
      const std::string v = op == 3 ? std::to_string(step * 1000 - 5000) : values[vi];
      const std::string written = vi >= 4 || rng() % 2 ? "{" + v + "}" : v;
      const size_t before = model.size();
      auto same = [&](const std::pair<size_t, std::string>& e) { return e.first / 2 == ni / 2; };
      if (op - 2 < 3) model.erase(std::remove_if(model.begin(), model.end(), same), model.end());
      bool found = model.size() != before;
      switch (op) {
        case 0: line.AddParam(n, v, written != v); break;
        case 1: line.AddParam(n + sep + written); break;
        case 2: line.SetValue(n, v); break;
        case 3: line.SetLongValue(n, step * 1000 - 5000); break;
        case 4: EXPECT_EQ(found, line.Remove(n)); break;
        default:
          for (auto& e : model) found = same(e) ? (e.second = v, true) : found;
          EXPECT_EQ(found, line.ReplaceValue(n, v));
      }
      if (found) text.clear();  // written afresh: one blank between entries, values in braces
      for (size_t i = 0; found && i < model.size(); ++i) {
        const auto& [name, value] = model[i];
        text += (i ? " " : "") + names[name] + (value.empty() ? "" : sep + ("{" + value + "}"));
      }
      if (op < 4) {
        text += " " + n + sep + (op < 2 ? written : "{" + v + "}");
        model.emplace_back(ni, v);
      }
      // The text and the walk, then for each name: three results, the value and the two numbers.
      std::string want = text, got = line.Get() + Walk(line);
      for (const auto& e : model) want += "(" + names[e.first] + "|" + e.second + ")";
      for (size_t k = 0; k < 5; ++k) {
        auto e = std::find_if(model.begin(), model.end(), [&](auto& x) { return x.first / 2 == k / 2; });
        const bool hit = e != model.end();
        const std::string number = hit ? std::to_string(convertStringToLong(e->second.c_str())) : "";
        want += hit ? " 111|" + e->second + "|" + number + "|" + number : " 000||99|98";
        std::string value = "junk";
        int32_t l = 99;
        int i = 98;
        got += " " + std::to_string(line.GetValue(names[k], value));
        got += std::to_string(line.GetLongValue(names[k].c_str(), l));
        got += std::to_string(line.GetIntValue(names[k], i));
        got += "|" + value + "|" + std::to_string(l) + "|" + std::to_string(i);
      }
      ASSERT_EQ(want, got);
    }
  }
}

// FindNext as "name/value", with "-" in front when it gives false; both outputs start as "k".
std::string Next(ZCmdLine& line) {
  std::string name = "k", value = "k";
  return line.FindNext(name, value) ? name + "/" + value + " " : "-" + name + "/" + value + " ";
}

TEST(CmdLineState, WhatEndsAWalkWhatForcesAScanAndWhatCopiesTake) {
  lltest::RecordingSupport host;
  ZCmdLine line("a=1 b=2 c={3");  // every scan reports, so reports count scans
  std::string v, trace = Next(line);  // never scanned: outputs untouched
  line.FindFirst(v, v);
  line.GetValue("c", v);  // lookups keep the walk
  line.Scan();
  trace += Next(line) + std::to_string(host.reports.size()) + " ";
  line.ReplaceValue("absent", "x");  // no rescan, the walk at its end
  trace += Next(line) + std::to_string(host.reports.size()) + " ";
  line.Remove("absent");  // the text kept, but scanned afresh
  trace += Next(line);
  line.GetValue("a", v);
  line.FindFirst(v, v);
  line.UseSeparator(':');  // a new separator, too
  trace += Next(line) + std::to_string(host.reports.size()) + " ";
  line.FindFirst(v, v);
  line.AddParam("d");  // so does any edit
  trace += Next(line);
  line = std::string("p:1 q r");  // assignment keeps the cursor and the separator
  line.GetValue("p", v);
  trace += Next(line);
  ZCmdLine copy(line), assigned;  // a copy brings the separator, is not scanned, its cursor is 0
  trace += Next(copy);
  copy.Scan();
  assigned = copy;
  trace += Next(copy) + Walk(assigned) + "|" + ZCmdLine().Get() + "|" + ZCmdLine("a", "b").Get();
  EXPECT_EQ(trace + "|" + ZCmdLine("", "").GetCommand() + "|",
            "-k/k b/2 1 -/ 1 -k/k -k/k 2 -k/k q/ -k/k p/1 (p|1)(q|)(r|)||a b| |");
}

// A walk gives at most the first 32767 entries; lookups, edits and rebuilds see every one.
TEST(CmdLineState, WalkStopsAtTheCursorLimitOtherOperationsSeeAll) {
  std::string text, value;
  for (int i = 0; i < 40000; ++i) text += "k" + std::to_string(i) + "=" + std::to_string(i) + " ";
  ZCmdLine line(text);
  const std::string walked = Walk(line);
  EXPECT_EQ(walked.substr(walked.size() - 14), "(k32766|32766)");
  EXPECT_TRUE(line.GetValue("K39999", value) && value == "39999");
  const std::string rebuilt = line.Remove("k1") ? line.GetCommand() : "not removed";
  EXPECT_EQ(rebuilt.substr(0, 16) + rebuilt.substr(rebuilt.size() - 14),
            "k0={0} k2={2} k3k39999={39999}");
}

}  // namespace
