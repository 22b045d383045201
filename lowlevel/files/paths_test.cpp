#include <gtest/gtest.h>

#include "lowlevel/files/file.h"
#include "tests/testsupport/testing.h"

// Resolves `path` and returns "<result>|<path afterwards>".
static std::string resolve(std::string path, bool retry = false) {
  return ZFile::ResolvePath(path, retry, true) ? "true|" + path : "false|" + path;
}

// ResolvePath, VerifyCd and BuildPath against one host; the default support object first.
TEST(LogicalPaths, PrefixesLocationsAndVolumes) {
  // The default support object has no directory for any prefix, and no volumes.
  for (std::string p : {"cd:f", "ed:f", "id:", "ud:x"}) EXPECT_EQ("false|" + p, resolve(p));
  EXPECT_EQ("true|c1:f", resolve("c1:f"));
  EXPECT_FALSE(ZFile::VerifyCd(0, false, false));
  lltest::RecordingSupport host;
  host.answers = {{"ed", "X:\\exe\\"}, {"id", "X:\\inst"}, {"ud", "X:\\upd\\"}, {"c1", "D:\\"},
                  {"c2", "E:\\one\\"}, {"c3", "F:\\two\\"}, {"c5", "\\\\server\\share\\"},
                  {"c6", "A\\"}, {"c11", "J:\\ten"}, {"c13", "/v12/"}, {"DATA", "cd:\\data\\"},
                  {"EMPTY", ""}};
  host.cdCount = 12;
  const char* cases[][2] = {
      {"cd:Data\\File.Bin", "D:\\Data\\File.Bin"}, {"CD:", "D:\\"},
      {"C1:\\a", "E:\\one\\a"},  // the doubled separator at the join repaired
      {"c2:b", "F:\\two\\b"}, {"c10:\\z", "J:\\ten\\z"},  // volume 10, not c1: with "0:..."
      {"c12:x", "/v12/x"}, {"Ed:Prog", "X:\\exe\\Prog"}, {"iD:lib", "X:\\instlib"},
      {"UD:", "X:\\upd\\"},
      // One doubled backslash is repaired: the first pair found, the directory's own too.
      {"c4:\\f", "\\server\\share\\\\f"}, {"c5:\\b\\\\c", "A\\b\\\\c"}, {"c5:b\\\\c", "A\\b\\c"}};
  for (const auto& c : cases) EXPECT_EQ(std::string("true|") + c[1], resolve(c[0])) << c[0];
  // No prefix: numbers out of range, leading zeros, other shapes.
  for (std::string p : {"c13:f", "C:\\d\\f", "c0:x", "c01:x", "c:x", "c1x", "c", "", "xd:f",
                        " cd:f", "c-1:f", "c99999999999999999999:f"})
    EXPECT_EQ("true|" + p, resolve(p));
  EXPECT_EQ("false|c3:f", resolve("c3:f", true));  // volume 3 (number 4) has no directory
  // VerifyCd asks only for volumes that exist: 13 is above the count.
  std::string out;
  for (int number : {0, 1, 2, 3, 12, 13, -1, INT32_MIN, INT32_MAX})
    out += std::to_string(ZFile::VerifyCd(number, number == 1, number == 0));
  // BuildPath puts the location's directory in front; a path with a colon is left alone.
  const std::pair<std::string, const char*> builds[] = {
      {"f.bin", "DATA"}, {"c:\\f.bin", "DATA"}, {"f.bin", ""}, {"f.bin", nullptr},
      {"f.bin", "EMPTY"}, {"f.bin", "NOWHERE"}};
  for (auto b : builds) out += (ZFile::BuildPath(b.first, b.second) ? " 1" : " 0") + b.first;
  EXPECT_EQ("111010000 1cd:\\data\\f.bin 0c:\\f.bin 0f.bin 0f.bin 0f.bin 0f.bin path 1 0 1;"
            "path 1 0 1;path 2 0 1;path 3 0 1;path 11 0 1;path 13 0 1;path 5 0 1;path 6 0 1;"
            "path 6 0 1;path 4 1 1;path 1 0 1;path 2 1 0;path 3 0 0;path 4 0 0;path 13 0 0;"
            "No location given for files.\nEntry: EMPTY\n|ZFile::BuildPath|2|file\n"
            "No location given for files.\nEntry: NOWHERE\n|ZFile::BuildPath|2|file\n",
            out + " " + host.log);
  host.cdCount = -4;  // a silly count recognises no numbered prefix
  EXPECT_EQ("true|c1:f", resolve("c1:f"));
}
