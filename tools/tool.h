// Shared pieces of the `lowlevel` tool: exit codes, error lines, progress, key parsing.
#ifndef LOWLEVEL_TOOLS_TOOL_H
#define LOWLEVEL_TOOLS_TOOL_H

#include <cstdint>
#include <functional>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "tools/host.h"

enum ExitCode { kExitOk = 0, kExitNotFound = 1, kExitUsage = 2, kExitIo = 3 };

struct ToolContext {
  bool json = false;
  std::string hostFile;
  ToolHost host;
  int result = kExitOk;
  std::function<int()> action;  // the chosen command, run after parsing and host set-up
};

// Makes `run` the action of `cmd` when the command line selects it.
inline void onRun(CLI::App* cmd, ToolContext& ctx, std::function<int()> run) {
  cmd->callback([&ctx, run] { ctx.action = run; });
}

// Prints "lowlevel: MESSAGE" on standard error and returns `code`.
int fail(int code, const std::string& message);

// True when `located` (a path as locate gives it) names a regular file longer than 2^31 - 1
// bytes, which no file object opens.
bool beyondFileLimit(const std::string& located);
// Why `shown` (located at `located`) did not open: "SHOWN is larger than 2147483647 bytes, the
// 2 GiB limit" or "cannot open SHOWN".
std::string cannotOpen(const std::string& shown, const std::string& located);

// A one-line progress display on a terminal; silent when standard error is not a terminal.
class Progress {
 public:
  Progress(const std::string& what, int64_t total);
  ~Progress();
  void update(int64_t done);

 private:
  std::string m_sWhat;
  int64_t m_nTotal;
  int64_t m_nLast = -1;
  bool m_bActive;
};

// How keys are written on the command line and in load files.
enum class KeyForm { Text, Hex, Long };

// Turns `text` into key bytes; false (with `error`) for bad hex or a bad number.
bool parseKey(const std::string& text, KeyForm form, std::string* bytes, int32_t* longKey,
              std::string* error);
bool parseInt32(const std::string& text, int32_t* value);
// Map flags by name (sortkey, ignorecase, lowercase, ...) separated by commas, or a number.
bool parseMapFlags(const std::string& text, uint32_t* flags, std::string* error);

void addBtreeCommands(CLI::App& app, ToolContext& ctx);
void addFileCommands(CLI::App& app, ToolContext& ctx);
void addCmdlineCommands(CLI::App& app, ToolContext& ctx);
void addDemoCommand(CLI::App& app, ToolContext& ctx);

void printJson(const nlohmann::json& j);

// A bash completion script for every command and option of `app` (hidden `--completion bash`).
std::string bashCompletion(const CLI::App& app);

// The location that `--location NAME` chose (empty: none), and a file argument with that location's
// directory put in front (ZFile::BuildPath: unchanged when the path has a prefix or drive already).
void setLocation(const std::string& location);
std::string locate(const std::string& path);

#endif
