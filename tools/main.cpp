// The `lowlevel` tool: B-tree index files, compressed files and command lines from the shell.
#include <cstdio>

#include "lowlevel/btree/btree.h"
#include "lowlevel/platform/stdstreams.h"
#include "tools/tool.h"

int main(int argc, char** argv) {
  lowlevel::platform::useBinaryStandardStreams();  // the same output bytes on every system
  ToolContext ctx;
  CLI::App app{"lowlevel: B-tree index files, compressed files and command lines"};
  app.set_version_flag("--version", "lowlevel 0.1.0");
  app.add_option("--host", ctx.hostFile,
                 "INI file naming the program, install and update directories, the volumes and the "
                 "locations that logical paths (cd:\\..., c1:\\..., ed:\\...) resolve to");
  app.add_flag("--json", ctx.json, "machine-readable output");
  std::string location;
  size_t cacheMiB = kBTreePageCacheDefaultSize >> 20;
  app.add_option("--cache-mib", cacheMiB,
                 "memory for B-tree pages kept between reads, in MiB (0: none)")
      ->capture_default_str();
  app.add_option("--location", location,
                 "a location of the host file's [locations]: its directory goes in front of file "
                 "arguments that have no prefix");
  app.require_subcommand(1);
  app.footer("Exit status: 0 success, 1 not found or check failed, 2 usage error, 3 file or I/O error.\n"
             "Example: lowlevel --host host.ini btree get cd:\\index.btr apple");
  addBtreeCommands(app, ctx);
  addFileCommands(app, ctx);
  addCmdlineCommands(app, ctx);
  addDemoCommand(app, ctx);
  if (argc == 3 && std::string(argv[1]) == "--completion" && std::string(argv[2]) == "bash") {
    std::fputs(bashCompletion(app).c_str(), stdout);
    return kExitOk;
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  if (!ctx.hostFile.empty()) {
    std::string error;
    if (!ctx.host.load(ctx.hostFile, &error)) return fail(kExitUsage, error);
  }
  setLowLevelSupportPtr(&ctx.host);
  setLocation(location);
  setBTreePageCacheSize(cacheMiB << 20);
  int code = ctx.action ? ctx.action() : kExitUsage;
  setLowLevelSupportPtr(nullptr);
  return code;
}
