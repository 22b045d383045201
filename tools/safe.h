// The tool's `--safe` option: crash-safe trees for commands that change one, durable files for
// commands that write a new one.
#ifndef LOWLEVEL_TOOLS_SAFE_H
#define LOWLEVEL_TOOLS_SAFE_H

#include <string>

#include "tools/tool.h"

// Adds `--safe` to `cmd`, bound to `flag`, with the help text for a command that changes a tree
// (`changes` true) or writes a new file.
void addSafeFlag(CLI::App* cmd, bool& flag, bool changes);

// Makes the file at host path `path` and its directory entry durable. False when it cannot.
bool makeDurable(const std::string& path);

// Set by SIGINT and SIGTERM while an interruptible command runs (installInterruptHandlers).
bool interrupted();
void installInterruptHandlers();

#endif
