// Status time strings and snapshot names in several zones.
#include "velabtrfssnapusage/time_string.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>
#include <ctime>

#include "support/syslog_capture.h"
#include "vela/vlib_error.h"

namespace VelaBtrfsUsage::Utils {
namespace {

// 2024-03-05 09:04:09 UTC.
long Instant() {
  struct tm utc = {};
  utc.tm_year = 124;
  utc.tm_mon = 2;
  utc.tm_mday = 5;
  utc.tm_hour = 9;
  utc.tm_min = 4;
  utc.tm_sec = 9;
  return timegm(&utc);
}

std::string SnapName(long t, BOOL localTime) {
  char buf[1024];
  EXPECT_EQ(0, SnapNameGenerateByTime(buf, sizeof(buf), t, localTime));
  return buf;
}

void Zone(const char* tz) {
  setenv("TZ", tz, 1);
  tzset();
}

TEST(SnapNameGenerateByTime, LocalNamesCarryTheZoneOffsetShortenedForWholeHours) {
  Zone("Asia/Shanghai");
  EXPECT_EQ("GMT+08-2024.03.05-17.04.09", SnapName(Instant(), TRUE));
  Zone("Asia/Kolkata");
  EXPECT_EQ("GMT+0530-2024.03.05-14.34.09", SnapName(Instant(), TRUE));
  Zone("America/St_Johns");  // -03:30 in March
  EXPECT_EQ("GMT-0330-2024.03.05-05.34.09", SnapName(Instant(), TRUE));
  Zone("UTC");
  EXPECT_EQ("GMT+00-2024.03.05-09.04.09", SnapName(Instant(), TRUE));
}

TEST(TimeString, RoundTripsInLocalTimeAcrossDaylightSaving) {
  Zone("America/New_York");
  const long summer = Instant() + 120L * 86400;  // July: daylight saving time
  for (long t : {Instant(), summer}) {
    std::string text;
    ASSERT_TRUE(Time_tToTimeString(t, text));
    long back = 0;
    ASSERT_TRUE(TimeStringToTime_T(text, back)) << text;
    EXPECT_EQ(t, back) << text;
  }
  std::string text;
  ASSERT_TRUE(Time_tToTimeString(Instant(), text));
  EXPECT_EQ("2024.03.05-04.04.09", text);
  std::string now;
  ASSERT_TRUE(NowTimeStringGet(now));
  long parsed = 0;
  ASSERT_TRUE(TimeStringToTime_T(now, parsed));
  EXPECT_LE(std::labs(parsed - time(nullptr)), 2);
}

TEST(TimeString, OtherSeparatorsFailToParseAndAreLogged) {
  Zone("UTC");
  vela::test::ClearSyslog();
  long t = 0;
  EXPECT_FALSE(TimeStringToTime_T("2024-03-05 17:04:09", t));
  EXPECT_EQ(0x2A00, VLIBCErrGet());
  EXPECT_EQ(1u, vela::test::FindSyslog(
                    LOG_ERR, "intl_utils/utils:").size());
  EXPECT_EQ(1u, vela::test::FindSyslog(
                    LOG_ERR, " Failed to convert cstring time [2024-03-05 17:04:09] to strcut tm, err=")
                    .size());
  EXPECT_FALSE(TimeStringToTime_T("", t));
}

}  // namespace
}  // namespace VelaBtrfsUsage::Utils
