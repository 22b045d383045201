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
  EXPECT_EQ("true|D:\\Data\\File.Bin", resolve("cd:Data\\File.Bin"));
  EXPECT_EQ("true|D:\\x", resolve("CD:x"));
  EXPECT_EQ("true|E:\\one\\a", resolve("C1:\\a"));  // doubled separator at the join repaired
  EXPECT_EQ("true|F:\\two\\b", resolve("c2:b"));
  EXPECT_EQ("true|J:\\ten\\z", resolve("c10:\\z"));  // numbered volume 10, not c1: with "0:..."
  EXPECT_EQ("true|X:\\exe\\Prog", resolve("Ed:Prog"));
  EXPECT_EQ("true|X:\\instlib", resolve("iD:lib"));  // nothing is put between directory and rest
  EXPECT_EQ("true|X:\\upd\\", resolve("UD:"));       // the prefix alone gives the directory
  EXPECT_EQ("true|D:\\", resolve("cd:"));
  // The volume answers got the volume numbers and the flags as given.
  ASSERT_EQ(6u, host.cdPathCalls.size());
  EXPECT_EQ(1, host.cdPathCalls[0].volume);
  EXPECT_EQ(2, host.cdPathCalls[2].volume);
  EXPECT_EQ(11, host.cdPathCalls[4].volume);
  EXPECT_FALSE(host.cdPathCalls[0].retry);
  EXPECT_TRUE(host.cdPathCalls[0].hostFlag);
  host.cdPathCalls.clear();
  resolve("cd:x", true);
  EXPECT_TRUE(host.cdPathCalls[0].retry);
}

TEST(LogicalPaths, WhatIsNoPrefixPassesUnchanged) {
  lltest::RecordingSupport host;
  host.cdCount = 2;
  host.cdPaths = {{2, "/v1/"}, {3, "/v2/"}, {4, "/v3/"}};
  for (const char* plain : {"c3:file", "C:\\dir\\f", "c0:x", "c01:x", "c:x", "c1x", "c", "rel\\f",
                            "", "xd:f", " cd:f", "c-1:f", "c99999999999999999999:f"}) {
    EXPECT_EQ(std::string("true|") + plain, resolve(plain)) << plain;
  }
  EXPECT_TRUE(host.cdPathCalls.empty());
  EXPECT_EQ("true|/v2/f", resolve("c2:f"));
  host.cdCount = -4;  // a silly count recognises no numbered prefix
  EXPECT_EQ("true|c1:f", resolve("c1:f"));
}

TEST(LogicalPaths, AMissingDirectoryFailsAndLeavesThePath) {
  {
    // The default support object has no directory for any prefix.
    for (const char* p : {"cd:f", "ed:f", "id:", "ud:x"}) EXPECT_EQ(std::string("false|") + p, resolve(p));
    EXPECT_EQ("true|c1:f", resolve("c1:f"));  // no volumes at all: no prefix
  }
  lltest::RecordingSupport host;
  host.cdCount = 3;
  EXPECT_EQ("false|c3:f", resolve("c3:f"));
  EXPECT_EQ("false|Cd:f", resolve("Cd:f"));
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
  ASSERT_EQ(2u, host.reports.size());
  EXPECT_EQ("No location given for files.\nEntry: EMPTY\n", host.reports[0].message);
  EXPECT_EQ("No location given for files.\nEntry: NOWHERE\n", host.reports[1].message);
  EXPECT_EQ("ZFile::BuildPath", host.reports[1].function);
  EXPECT_EQ(eReportError, host.reports[1].flag);
  EXPECT_EQ("file", host.reports[1].module);
}

TEST(LogicalPaths, VerifyCdAsksOnlyForVolumesThatExist) {
  EXPECT_FALSE(ZFile::VerifyCd(0, false, false));  // default support object
  lltest::RecordingSupport host;
  host.cdCount = 2;
  host.cdPaths = {{1, "D:\\"}, {3, "F:\\"}};
  EXPECT_TRUE(ZFile::VerifyCd(0, false, true));
  EXPECT_FALSE(ZFile::VerifyCd(1, true, false));
  EXPECT_TRUE(ZFile::VerifyCd(2, false, false));
  ASSERT_EQ(3u, host.cdPathCalls.size());
  EXPECT_EQ(1, host.cdPathCalls[0].volume);
  EXPECT_TRUE(host.cdPathCalls[0].hostFlag);
  EXPECT_EQ(2, host.cdPathCalls[1].volume);
  EXPECT_TRUE(host.cdPathCalls[1].retry);
  EXPECT_EQ(3, host.cdPathCalls[2].volume);
  EXPECT_FALSE(ZFile::VerifyCd(3, false, false));
  EXPECT_FALSE(ZFile::VerifyCd(-1, false, false));
  EXPECT_FALSE(ZFile::VerifyCd(INT32_MIN, false, false));
  EXPECT_EQ(3u, host.cdPathCalls.size());
}

}  // namespace
