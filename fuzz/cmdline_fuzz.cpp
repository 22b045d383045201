// ZCmdLine on arbitrary text with arbitrary edits and lookups.
#include <cstddef>
#include <cstdint>
#include <string>

#include "lowlevel/cmdline/cmdline.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
  size_t cut = text.size() / 2;
  std::string a = text.substr(0, cut), b = text.substr(cut);
  ZCmdLine line(text);
  line.UseSeparator(static_cast<char>(data[0] % 3 == 0 ? ':' : '='));
  std::string name, value;
  for (bool more = line.FindFirst(name, value); more; more = line.FindNext(name, value)) {
  }
  int32_t n = 0;
  int i = 0;
  line.GetValue(a, value);
  line.GetLongValue(b, n);
  line.GetIntValue(a.c_str(), i);
  switch (data[1] % 6) {
    case 0: line.AddParam(a); break;
    case 1: line.AddParam(a, b, (data[1] & 8) != 0); break;
    case 2: line.SetValue(a, b); break;
    case 3: line.ReplaceValue(a, b); break;
    case 4: line.Remove(a); break;
    default: line.SetLongValue(a, n); break;
  }
  ZCmdLine copy(line);
  for (bool more = copy.FindFirst(name, value); more; more = copy.FindNext(name, value)) {
  }
  copy = std::string(line.Get());
  copy.Scan();
  return 0;
}
