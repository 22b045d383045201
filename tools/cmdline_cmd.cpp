// `lowlevel cmdline parse`: the entries ZCmdLine reads from a text.
#include <cstdio>
#include <vector>

#include "lowlevel/cmdline/cmdline.h"
#include "tools/tool.h"

namespace {

int runParse(ToolContext& ctx, const std::string& text, const std::string& separator) {
  if (separator.size() > 1) return fail(kExitUsage, "--separator takes one character");
  ZCmdLine line(text);
  if (!separator.empty()) line.UseSeparator(separator[0]);
  std::vector<std::pair<std::string, std::string>> entries;
  std::string name, value;
  for (bool more = line.FindFirst(name, value); more; more = line.FindNext(name, value)) {
    entries.emplace_back(name, value);
  }
  if (ctx.json) {
    nlohmann::json out = nlohmann::json::array();
    for (const auto& e : entries) out.push_back({{"name", e.first}, {"value", e.second}});
    printJson(out);
    return kExitOk;
  }
  size_t width = 4;
  for (const auto& e : entries) width = std::max(width, e.first.size());
  std::printf("%-*s  %s\n", static_cast<int>(width), "NAME", "VALUE");
  for (const auto& e : entries) {
    std::printf("%-*s  %s\n", static_cast<int>(width), e.first.c_str(), e.second.c_str());
  }
  return kExitOk;
}

}  // namespace

void addCmdlineCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* cl = app.add_subcommand("cmdline", "parse command-line texts of names and values");
  cl->require_subcommand(1);
  static std::string text, separator;
  CLI::App* p = cl->add_subcommand("parse", "list the entries of a text");
  p->add_option("TEXT", text, "the text, e.g. 'input=\"a b.txt\" <mode>=fast [flag]'")->required();
  p->add_option("--separator", separator, "the character between a name and its value (default =)");
  p->footer("Example: lowlevel cmdline parse 'file={my data.txt} level=3 quiet'");
  onRun(p, ctx, [&ctx] { return runParse(ctx, text, separator); });
}
