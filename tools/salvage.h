// Recovery of the keys of a damaged BTree file: `lowlevel btree salvage DAMAGED NEW`.
#ifndef LOWLEVEL_TOOLS_SALVAGE_H
#define LOWLEVEL_TOOLS_SALVAGE_H

#include <cstdint>
#include <string>

#include "tools/tool.h"

struct SalvageReport {
  int64_t records = 0;     // record places scanned (a short tail counts as one)
  int64_t pages = 0;       // records that look like sound pages; their keys were taken
  int64_t free = 0;        // records on the free chain (never counted as damaged)
  int64_t bad = 0;         // the rest: records that are not pages of this file
  int64_t keys = 0;        // entries in the new tree
  int64_t seenTwice = 0;   // entries found in more than one page (kept once)
};

// Reads every record of the uncompressed tree `damaged` by its place (46 + k x record size),
// without following any link, and takes the entries of each record that looks like a sound page:
// its own offset, the header's order and key length, a key count within the page, keys strictly
// ascending. A record that fails any of this is skipped whole, so an entry survives exactly when
// a page holding it survived. The entries go into a new tree `target` (replaced) of the same
// order, key width, duplicates setting, version and key conversion.
//
// The entries are stored slots, already converted: the new tree is built without conversion and
// the conversion fields and version are then written into its header, so that later lookups
// convert their keys as the old file did and nothing is converted twice. The header of `damaged`
// must be readable (version, magic, order, key length); a compressed file is refused. False with
// `error` when the header cannot be used or the new tree cannot be written.
bool salvageBTree(const std::string& damaged, const std::string& target, SalvageReport* report,
                  std::string* error);

void addSalvageCommand(CLI::App* btree, ToolContext& ctx);

#endif
