// `btree load` into an empty tree: the lines are parsed, sorted by the slots the tree would store
// (in memory, or by an external merge sort in bounded memory), and built in one pass.
#ifndef LOWLEVEL_TOOLS_BULKLOAD_H
#define LOWLEVEL_TOOLS_BULKLOAD_H

#include <cstdint>
#include <istream>
#include <memory>
#include <string>

class BTree;

struct BulkLoadOptions {
  bool sorted = false;          // the input is in order already: no sort, unsorted lines refused
  int64_t memoryBytes = 64 << 20;  // entries held in memory before a sorted run goes to a file
  int fillPercent = 100;
  bool longKeys = false;
  bool hex = false;
};

// Whether `tree` (open for update) takes the bulk path: no entries, current version, not compressed.
bool bulkLoadApplies(BTree& tree);

// Loads `in` into the empty tree `tree` of `file` (closed on the way: the file is rebuilt). The
// temporary files lie beside `path` (the tree's resolved path) and are removed. Prints what
// today's load prints; returns an exit code.
int bulkLoad(bool json, std::unique_ptr<BTree> tree, const std::string& file,
             const std::string& path, std::istream& in, const std::string& inputName,
             const BulkLoadOptions& options);

#endif
