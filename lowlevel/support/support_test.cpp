#include "lowlevel/support/support.h"

#include <gtest/gtest.h>

#include <climits>

#include "tests/testsupport/testing.h"

namespace {

TEST(DefaultSupport, AnswersNothingAndSwallowsReports) {
  setLowLevelSupportPtr(nullptr);  // the default object
  ZlowLevelSupport& s = lowlevel::support();
  EXPECT_EQ(s.getCdCount(), 0);
  for (const char* answer : {s.getExeDir(), s.getInstallDir(), s.getUpdateDir(),
                             s.getDirectoryByIniName("data"), s.getCdPath(eCDVolDefault, false, false),
                             s.requestCdVolume(eCDVolDefault, false)})
    EXPECT_EQ(answer, nullptr);
  reporterLL("message", "function", eReportError, "module", 1);  // vanishes
}

TEST(Reporter, PassesEveryFieldAndNullReinstallsTheDefault) {
  {
    lltest::RecordingSupport host;
    reporterLL("msg", "fn", eReportWarning, "btree", 42);
    reporterLL(std::string(), std::string(), eReportError, "file", 7);  // empty texts, not null
    setLowLevelSupportPtr(nullptr);
    reporterLL("gone", "fn", eReportError, "file", 1);
    setLowLevelSupportPtr(&host);
    reporterLL("seen", "fn", eReportError, "file", 1);
    EXPECT_EQ(lltest::reportsText(host.reports), "msg|fn|1|btree\n||2|file\nseen|fn|2|file\n");
    EXPECT_EQ(host.reports[0].line, 42);
  }
  EXPECT_EQ(lowlevel::support().getCdCount(), 0);
}

TEST(ConvertStringToLong, HexadecimalAndDecimal) {
  const struct { const char* text; int32_t value; } cases[] = {
      {"0x", 0}, {"0xff", 255}, {"0xFF", 255}, {"0XFF", 0}, {"0x100000000", 0},
      {"0xFFFFFFFF", -1}, {"0x7fffffff", INT32_MAX}, {"0x123456789", 0x23456789},
      // No hex digit is refused: G counts as 16 (z as 35, or'ed in; lower case as upper), and a
      // character below '0' sets the high bits.
      {"0xG", 16}, {"0x/", -1}, {"0x1 ", static_cast<int32_t>(0xFFFFFFF0u)}, {"0xaz", 0xA0 | 35},
      {"12abc", 12}, {"-5", -5}, {"+17", 17}, {"", 0}, {"  \t42", 42}, {"abc", 0}, {"- 5", 0},
      {"2147483647", INT32_MAX}, {"2147483648", INT32_MAX}, {"99999999999999999999", INT32_MAX},
      {"-2147483648", INT32_MIN}, {"-2147483649", INT32_MIN}, {"007", 7}, {nullptr, 0}};
  for (const auto& c : cases) EXPECT_EQ(convertStringToLong(c.text), c.value) << c.text;
}

}  // namespace
