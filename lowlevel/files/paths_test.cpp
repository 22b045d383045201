#include <gtest/gtest.h>

#include "lowlevel/files/file.h"
#include "tests/testsupport/testing.h"

namespace {

// Resolves `path` and returns "<result>|<path afterwards>".
std::string resolve(std::string path, bool retry = false) {
  bool ok = ZFile::ResolvePath(path, retry, true);
  return (ok ? "true|" : "false|") + path;
}

// ResolvePath, VerifyCd and BuildPath against one host; the default support object first.
TEST(LogicalPaths, PrefixesLocationsAndVolumes) {
  // The default support object has no directory for any prefix, and no volumes.
  for (std::string p : {"cd:f", "ed:f", "id:", "ud:x"}) EXPECT_EQ("false|" + p, resolve(p));
  EXPECT_EQ("true|c1:f", resolve("c1:f"));
  EXPECT_FALSE(ZFile::VerifyCd(0, false, false));
  lltest::RecordingSupport host;
  host.exeDir = "X:\\exe\\";
  host.installDir = "X:\\inst";
  host.updateDir = "X:\\upd\\";
  host.cdCount = 12;
  host.cdPaths = {{1, "D:\\"}, {2, "E:\\one\\"}, {3, "F:\\two\\"}, {11, "J:\\ten"}, {13, "/v12/"}};
  const char* cases[][2] = {
      {"cd:Data\\File.Bin", "D:\\Data\\File.Bin"}, {"CD:", "D:\\"},
      {"C1:\\a", "E:\\one\\a"},  // the doubled separator at the join repaired
      {"c2:b", "F:\\two\\b"}, {"c10:\\z", "J:\\ten\\z"},  // volume 10, not c1: with "0:..."
      {"c12:x", "/v12/x"}, {"Ed:Prog", "X:\\exe\\Prog"}, {"iD:lib", "X:\\instlib"},
      {"UD:", "X:\\upd\\"}};
  for (const auto& c : cases) EXPECT_EQ(std::string("true|") + c[1], resolve(c[0])) << c[0];
  // No prefix: numbers out of range, leading zeros, other shapes.
  for (std::string p : {"c13:f", "C:\\d\\f", "c0:x", "c01:x", "c:x", "c1x", "c", "", "xd:f",
                        " cd:f", "c-1:f", "c99999999999999999999:f"}) {
    EXPECT_EQ("true|" + p, resolve(p));
  }
  EXPECT_EQ("1 0 1,1 0 1,2 0 1,3 0 1,11 0 1,13 0 1", lltest::cdPathCallsText(host));
  host.cdPathCalls.clear();
  EXPECT_EQ("false|c3:f", resolve("c3:f", true));  // volume 3 (number 4) has no directory
  // VerifyCd asks only for volumes that exist: 13 is above the count.
  std::string results;
  for (int number : {0, 1, 2, 3, 12, 13, -1, INT32_MIN, INT32_MAX}) {
    results += std::to_string(ZFile::VerifyCd(number, number == 1, number == 0));
  }
  EXPECT_EQ("111010000", results);
  EXPECT_EQ("4 1 1,1 0 1,2 1 0,3 0 0,4 0 0,13 0 0", lltest::cdPathCallsText(host));
  host.cdCount = -4;  // a silly count recognises no numbered prefix
  EXPECT_EQ("true|c1:f", resolve("c1:f"));
  // One doubled backslash is repaired: the first pair found, the directory's own too.
  host.exeDir = "\\\\server\\share\\";
  EXPECT_EQ("true|\\server\\share\\\\f", resolve("ed:\\f"));
  host.exeDir = "A\\";
  EXPECT_EQ("true|A\\b\\\\c true|A\\b\\c", resolve("ed:\\b\\\\c") + " " + resolve("ed:b\\\\c"));
  // BuildPath puts the location's directory in front.
  host.locationNames = {"DATA", "EMPTY"};
  host.locationDirs = {"cd:\\data\\", ""};
  std::string path = "f.bin", colon = "c:\\f.bin";
  EXPECT_TRUE(ZFile::BuildPath(path, "DATA"));
  EXPECT_FALSE(ZFile::BuildPath(colon, "DATA"));  // a path with a colon is left alone
  EXPECT_EQ("cd:\\data\\f.bin c:\\f.bin", path + " " + colon);
  path = "f.bin";
  EXPECT_FALSE(ZFile::BuildPath(path, "") || ZFile::BuildPath(path, nullptr));
  EXPECT_TRUE(host.reports.empty());
  EXPECT_FALSE(ZFile::BuildPath(path, "EMPTY") || ZFile::BuildPath(path, "NOWHERE"));
  EXPECT_EQ("f.bin", path);
  EXPECT_EQ(lltest::reportsText(host.reports),
            "No location given for files.\nEntry: EMPTY\n|ZFile::BuildPath|2|file\n"
            "No location given for files.\nEntry: NOWHERE\n|ZFile::BuildPath|2|file\n");
}

}  // namespace
