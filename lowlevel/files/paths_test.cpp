#include <gtest/gtest.h>

#include "lowlevel/files/file.h"
#include "tests/testsupport/testing.h"

namespace {

// Resolves `path` and returns "<result>|<path afterwards>".
std::string resolve(std::string path, bool retry = false) {
  bool ok = ZFile::ResolvePath(path, retry, true);
  return (ok ? "true|" : "false|") + path;
}

TEST(LogicalPaths, PrefixesResolveInAnyCase) {
  lltest::RecordingSupport host;
  host.exeDir = "X:\\exe\\";
  host.installDir = "X:\\inst";
  host.updateDir = "X:\\upd\\";
  host.cdCount = 12;
  host.cdPaths = {{1, "D:\\"}, {2, "E:\\one\\"}, {3, "F:\\two\\"}, {11, "J:\\ten"}};
  const char* cases[][2] = {
      {"cd:Data\\File.Bin", "D:\\Data\\File.Bin"}, {"CD:x", "D:\\x"},
      {"C1:\\a", "E:\\one\\a"},  // doubled separator at the join repaired
      {"c2:b", "F:\\two\\b"},
      {"c10:\\z", "J:\\ten\\z"},  // numbered volume 10, not c1: with "0:..."
      {"Ed:Prog", "X:\\exe\\Prog"},
      {"iD:lib", "X:\\instlib"},  // nothing is put between directory and rest
      {"UD:", "X:\\upd\\"}, {"cd:", "D:\\"}};
  for (const auto& c : cases) EXPECT_EQ(std::string("true|") + c[1], resolve(c[0])) << c[0];
  EXPECT_EQ("1 0 1,1 0 1,2 0 1,3 0 1,11 0 1,1 0 1", lltest::cdPathCallsText(host));
  host.cdPathCalls.clear();
  resolve("cd:x", true);
  EXPECT_EQ("1 1 1", lltest::cdPathCallsText(host));
}

TEST(LogicalPaths, WhatIsNoPrefixPassesUnchangedAndAMissingDirectoryFails) {
  // The default support object has no directory for any prefix, and no volumes.
  for (std::string p : {"cd:f", "ed:f", "id:", "ud:x"}) EXPECT_EQ("false|" + p, resolve(p));
  EXPECT_EQ("true|c1:f", resolve("c1:f"));
  lltest::RecordingSupport host;
  host.cdCount = 2;
  host.cdPaths = {{2, "/v1/"}, {3, "/v2/"}, {4, "/v3/"}};
  for (const char* plain : {"c3:file", "C:\\dir\\f", "c0:x", "c01:x", "c:x", "c1x", "c", "rel\\f",
                            "", "xd:f", " cd:f", "c-1:f", "c99999999999999999999:f"}) {
    EXPECT_EQ(std::string("true|") + plain, resolve(plain)) << plain;
  }
  EXPECT_EQ("", lltest::cdPathCallsText(host));
  EXPECT_EQ("true|/v2/f", resolve("c2:f"));
  EXPECT_EQ("false|Cd:f", resolve("Cd:f"));
  host.cdCount = 3;
  host.cdPaths.pop_back();  // volume 4 has no directory
  EXPECT_EQ("false|c3:f", resolve("c3:f"));
  host.cdCount = -4;  // a silly count recognises no numbered prefix
  EXPECT_EQ("true|c1:f", resolve("c1:f"));
}

TEST(LogicalPaths, OneDoubledBackslashIsRepaired) {
  lltest::RecordingSupport host;
  host.exeDir = "\\\\server\\share\\";
  // The first pair found is the directory's own; the doubled join stays.
  EXPECT_EQ("true|\\server\\share\\\\f", resolve("ed:\\f"));
  host.exeDir = "A\\";
  EXPECT_EQ("true|A\\b\\\\c", resolve("ed:\\b\\\\c"));
  EXPECT_EQ("true|A\\b\\c", resolve("ed:b\\\\c"));  // a pair in the rest counts too
}

TEST(LogicalPaths, BuildPathPutsTheLocationInFront) {
  lltest::RecordingSupport host;
  host.locationNames = {"DATA", "EMPTY"};
  host.locationDirs = {"cd:\\data\\", ""};
  std::string path = "f.bin";
  EXPECT_TRUE(ZFile::BuildPath(path, "DATA"));
  EXPECT_EQ("cd:\\data\\f.bin", path);
  path = "c:\\f.bin";
  EXPECT_FALSE(ZFile::BuildPath(path, "DATA"));  // a path with a colon is left alone
  EXPECT_EQ("c:\\f.bin", path);
  path = "f.bin";
  EXPECT_FALSE(ZFile::BuildPath(path, ""));
  EXPECT_FALSE(ZFile::BuildPath(path, nullptr));
  EXPECT_TRUE(host.reports.empty());
  EXPECT_FALSE(ZFile::BuildPath(path, "EMPTY"));
  EXPECT_FALSE(ZFile::BuildPath(path, "NOWHERE"));
  EXPECT_EQ("f.bin", path);
  EXPECT_EQ(lltest::reportsText(host.reports),
            "No location given for files.\nEntry: EMPTY\n|ZFile::BuildPath|2|file\n"
            "No location given for files.\nEntry: NOWHERE\n|ZFile::BuildPath|2|file\n");
}

TEST(LogicalPaths, VerifyCdAsksOnlyForVolumesThatExist) {
  EXPECT_FALSE(ZFile::VerifyCd(0, false, false));  // default support object
  lltest::RecordingSupport host;
  host.cdCount = 2;
  host.cdPaths = {{1, "D:\\"}, {3, "F:\\"}};
  EXPECT_TRUE(ZFile::VerifyCd(0, false, true));
  EXPECT_FALSE(ZFile::VerifyCd(1, true, false));
  EXPECT_TRUE(ZFile::VerifyCd(2, false, false));
  for (int32_t absent : {3, -1, INT32_MIN}) EXPECT_FALSE(ZFile::VerifyCd(absent, false, false));
  EXPECT_EQ("1 0 1,2 1 0,3 0 0", lltest::cdPathCallsText(host));
}

}  // namespace
