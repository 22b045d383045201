#include "lowlevel/support/support.h"

#include <gtest/gtest.h>

#include <climits>

#include "tests/testsupport/testing.h"

namespace {

TEST(DefaultSupport, AnswersNothingAndSwallowsReports) {
  setLowLevelSupportPtr(nullptr);  // the default object
  ZlowLevelSupport& s = lowlevel::support();
  EXPECT_EQ(s.getCdCount(), 0);
  EXPECT_EQ(s.getExeDir(), nullptr);
  EXPECT_EQ(s.getInstallDir(), nullptr);
  EXPECT_EQ(s.getUpdateDir(), nullptr);
  EXPECT_EQ(s.getDirectoryByIniName("data"), nullptr);
  EXPECT_EQ(s.getCdPath(eCDVolDefault, false, false), nullptr);
  EXPECT_EQ(s.requestCdVolume(eCDVolDefault, false), nullptr);
  reporterLL("message", "function", eReportError, "module", 1);  // vanishes
}

TEST(Reporter, PassesAllFiveFieldsToTheInstalledObject) {
  lltest::RecordingSupport host;
  reporterLL("msg", "fn", eReportWarning, "btree", 42);
  ASSERT_EQ(host.reports.size(), 1u);
  EXPECT_EQ(host.reports[0].message, "msg");
  EXPECT_EQ(host.reports[0].function, "fn");
  EXPECT_EQ(host.reports[0].flag, eReportWarning);
  EXPECT_EQ(host.reports[0].module, "btree");
  EXPECT_EQ(host.reports[0].line, 42);
}

TEST(Reporter, StringFormPassesEmptyTextsNotNull) {
  lltest::RecordingSupport host;
  reporterLL(std::string(), std::string(), eReportError, "file", 7);
  ASSERT_EQ(host.reports.size(), 1u);
  EXPECT_EQ(host.reports[0].message, "");
  EXPECT_EQ(host.reports[0].function, "");
}

TEST(Reporter, NullPointerReinstallsTheDefaultObject) {
  {
    lltest::RecordingSupport host;
    setLowLevelSupportPtr(nullptr);
    reporterLL("gone", "fn", eReportError, "file", 1);
    EXPECT_TRUE(host.reports.empty());
    setLowLevelSupportPtr(&host);
    reporterLL("seen", "fn", eReportError, "file", 1);
    EXPECT_EQ(host.reports.size(), 1u);
  }
  EXPECT_EQ(lowlevel::support().getCdCount(), 0);
}

TEST(ConvertStringToLong, Hexadecimal) {
  EXPECT_EQ(convertStringToLong("0x"), 0);
  EXPECT_EQ(convertStringToLong("0xff"), 255);
  EXPECT_EQ(convertStringToLong("0xFF"), 255);
  EXPECT_EQ(convertStringToLong("0XFF"), 0);
  EXPECT_EQ(convertStringToLong("0x100000000"), 0);
  EXPECT_EQ(convertStringToLong("0xFFFFFFFF"), -1);
  EXPECT_EQ(convertStringToLong("0x7fffffff"), INT32_MAX);
  EXPECT_EQ(convertStringToLong("0x123456789"), 0x23456789);
  // No character is refused: G counts as 16, and a character below '0' sets the high bits.
  EXPECT_EQ(convertStringToLong("0xG"), 16);
  EXPECT_EQ(convertStringToLong("0x/"), -1);
  EXPECT_EQ(convertStringToLong("0x1 "), static_cast<int32_t>(0xFFFFFFF0u));
}

TEST(ConvertStringToLong, Decimal) {
  EXPECT_EQ(convertStringToLong("12abc"), 12);
  EXPECT_EQ(convertStringToLong("-5"), -5);
  EXPECT_EQ(convertStringToLong("+17"), 17);
  EXPECT_EQ(convertStringToLong(""), 0);
  EXPECT_EQ(convertStringToLong("  \t42"), 42);
  EXPECT_EQ(convertStringToLong("abc"), 0);
  EXPECT_EQ(convertStringToLong("- 5"), 0);
  EXPECT_EQ(convertStringToLong("2147483647"), INT32_MAX);
  EXPECT_EQ(convertStringToLong("2147483648"), INT32_MAX);
  EXPECT_EQ(convertStringToLong("99999999999999999999"), INT32_MAX);
  EXPECT_EQ(convertStringToLong("-2147483648"), INT32_MIN);
  EXPECT_EQ(convertStringToLong("-2147483649"), INT32_MIN);
  EXPECT_EQ(convertStringToLong("007"), 7);
  EXPECT_EQ(convertStringToLong(nullptr), 0);
}

}  // namespace
