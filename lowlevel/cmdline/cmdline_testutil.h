// Helpers shared by the ZCmdLine tests.
#ifndef LOWLEVEL_CMDLINE_CMDLINE_TESTUTIL_H
#define LOWLEVEL_CMDLINE_CMDLINE_TESTUTIL_H

#include <string>
#include <utility>
#include <vector>

#include "lowlevel/cmdline/cmdline.h"

namespace cmdtest {

using Entries = std::vector<std::pair<std::string, std::string>>;

// Every entry a walk gives, in order.
inline Entries Walk(ZCmdLine& line) {
  Entries out;
  std::string name, value;
  for (bool ok = line.FindFirst(name, value); ok; ok = line.FindNext(name, value)) {
    out.emplace_back(name, value);
  }
  return out;
}

inline Entries Parse(const std::string& text, char separator = '=') {
  ZCmdLine line(text);
  line.UseSeparator(separator);
  return Walk(line);
}

}  // namespace cmdtest

#endif
