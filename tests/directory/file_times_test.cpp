#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>

#include "directory/directory.h"
#include "platform/system/timezone.h"
#include "test_support.h"

namespace {

using dirtest::At;
using dirtest::ScopedTimeZone;

constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

SYSTEMTIME Rule(int month, int week, int weekday, int hour = 2) {
  SYSTEMTIME r{};
  r.wMonth = static_cast<uint16_t>(month);
  r.wDay = static_cast<uint16_t>(week);
  r.wDayOfWeek = static_cast<uint16_t>(weekday);
  r.wHour = static_cast<uint16_t>(hour);
  return r;
}

TEST(TimeZone, TransitionDaysOfTheLastAndNthWeekday) {
  using qb::sys::TransitionDay;
  EXPECT_EQ(TransitionDay(2023, Rule(3, 5, 0)), 26) << "no fifth Sunday in March 2023";
  EXPECT_EQ(TransitionDay(2024, Rule(3, 5, 0)), 31);
  EXPECT_EQ(TransitionDay(2023, Rule(10, 5, 0)), 29);
  EXPECT_EQ(TransitionDay(2024, Rule(10, 5, 0)), 27);
  EXPECT_EQ(TransitionDay(2024, Rule(3, 2, 0)), 10) << "second Sunday of March 2024";
  EXPECT_EQ(TransitionDay(2024, Rule(11, 1, 0)), 3);
  EXPECT_EQ(TransitionDay(2023, Rule(2, 5, 3)), 22) << "last Wednesday of February 2023";
  EXPECT_EQ(TransitionDay(2024, Rule(2, 5, 4)), 29) << "leap day";
  EXPECT_EQ(TransitionDay(2024, Rule(0, 5, 0)), 0);
  EXPECT_EQ(TransitionDay(2024, Rule(3, 6, 0)), 0);
}

TEST(TimeZone, ParsesPosixRules) {
  qb::sys::DYNAMIC_TIME_ZONE_INFORMATION z;
  ASSERT_TRUE(qb::sys::ParsePosixTimeZone(kCentralEurope, &z));
  EXPECT_EQ(z.Bias, -60);
  EXPECT_EQ(z.DaylightBias, -60);
  EXPECT_EQ(z.StandardName, "CET");
  EXPECT_EQ(z.DaylightName, "CEST");
  EXPECT_EQ(z.DaylightDate.wMonth, 3);
  EXPECT_EQ(z.DaylightDate.wDay, 5);
  EXPECT_EQ(z.DaylightDate.wDayOfWeek, 0);
  EXPECT_EQ(z.DaylightDate.wHour, 2);
  EXPECT_EQ(z.StandardDate.wMonth, 10);
  EXPECT_EQ(z.StandardDate.wHour, 3);
  EXPECT_FALSE(z.DynamicDaylightTimeDisabled);

  ASSERT_TRUE(qb::sys::ParsePosixTimeZone("<+0530>-5:30", &z));
  EXPECT_EQ(z.Bias, -330);
  EXPECT_TRUE(z.DynamicDaylightTimeDisabled);
  ASSERT_TRUE(qb::sys::ParsePosixTimeZone("EST5EDT", &z)) << "US rules by default";
  EXPECT_EQ(z.Bias, 300);
  EXPECT_EQ(z.DaylightDate.wMonth, 3);
  EXPECT_EQ(z.DaylightDate.wDay, 2);
  EXPECT_EQ(z.StandardDate.wMonth, 11);
  ASSERT_TRUE(qb::sys::ParsePosixTimeZone("<-02>2<-01>,M3.5.0/-1,M10.5.0/0", &z));
  EXPECT_EQ(z.DaylightDate.wHour, 0) << "hours outside the day are clamped";
  EXPECT_FALSE(qb::sys::ParsePosixTimeZone("", &z));
  EXPECT_FALSE(qb::sys::ParsePosixTimeZone("CET-1CEST,M3.5", &z));
  EXPECT_FALSE(qb::sys::ParsePosixTimeZone("XY1", &z)) << "names have three letters at least";
}

TEST(TimeZone, ReadsTheZoneFromTz) {
  {
    ScopedTimeZone zone(kCentralEurope);
    qb::sys::TIME_ZONE_INFORMATION info;
    const uint32_t id = qb::sys::GetTimeZoneInformation(&info);
    EXPECT_TRUE(id == qb::sys::TIME_ZONE_ID_STANDARD || id == qb::sys::TIME_ZONE_ID_DAYLIGHT);
    EXPECT_EQ(info.Bias, -60);
  }
  {
    ScopedTimeZone zone("UTC0");
    qb::sys::TIME_ZONE_INFORMATION info;
    EXPECT_EQ(qb::sys::GetTimeZoneInformation(&info), qb::sys::TIME_ZONE_ID_UNKNOWN);
    EXPECT_EQ(info.Bias, 0);
  }
}

TEST(TimeZone, ReadsTheRuleOfANamedZoneFromItsFile) {
  if (!std::filesystem::exists("/usr/share/zoneinfo/Europe/Berlin"))
    GTEST_SKIP() << "no zone files on this system";
  ScopedTimeZone zone("Europe/Berlin");
  EXPECT_EQ(qb::sys::CurrentPosixTimeZone(), kCentralEurope);
  qb::sys::DYNAMIC_TIME_ZONE_INFORMATION info;
  EXPECT_NE(qb::sys::GetDynamicTimeZoneInformation(&info), qb::sys::TIME_ZONE_ID_INVALID);
  EXPECT_EQ(info.Bias, -60);
  EXPECT_EQ(info.TimeZoneKeyName, "Europe/Berlin");
}

class FileTimesTest : public ::testing::Test {
 protected:
  ScopedTimeZone zone_{kCentralEurope};

  static FILETIME AddedTime(CDirectory& tree, FILETIME t) {
    static int next = 0;
    const std::string id = "t" + std::to_string(++next);
    EXPECT_EQ(tree.AddFile("a", id.c_str(), "p", "jpg", 1, &t, id.c_str(), id.c_str(), "\\", 0, 1), 1);
    return tree.FindFileByItemID(id.c_str(), 0)->rFindData.ftCreationTime;
  }
};

TEST_F(FileTimesTest, DeviceTimesBecomeUtcByTheStandardBias) {
  CDirectory tree;
  EXPECT_EQ(tree.GetTimeZoneBias(), -60);
  EXPECT_EQ(AddedTime(tree, At(2024, 7, 1, 12)), At(2024, 7, 1, 11));
  EXPECT_EQ(AddedTime(tree, At(2024, 1, 1, 12)), At(2024, 1, 1, 11));
}

TEST_F(FileTimesTest, DstFixMovesSummerTimesOneHourBack) {
  CDirectory tree;
  tree.SetFlagDstFiletimeFix(1, 0);
  ASSERT_EQ(tree.GetFlagDstFiletimeFix(), 2u);
  FILETIME summer = At(2023, 7, 1, 12);
  EXPECT_EQ(tree.FixDstFiletime(&summer, "summer.jpg"), 1);
  EXPECT_EQ(summer, At(2023, 7, 1, 11));
  EXPECT_EQ(AddedTime(tree, summer), At(2023, 7, 1, 10));
  FILETIME winter = At(2023, 1, 1, 12);
  EXPECT_EQ(tree.FixDstFiletime(&winter, "winter.jpg"), 0);
  EXPECT_EQ(winter, At(2023, 1, 1, 12));
  EXPECT_EQ(tree.FixDstFiletime(nullptr, "none"), 0);
}

TEST_F(FileTimesTest, TransitionDaysDecideTheCorrection) {
  CDirectory tree;
  tree.SetFlagDstFiletimeFix(1, 0);
  struct Case {
    FILETIME t;
    int fixed;
  };
  const Case cases[] = {
      {At(2023, 3, 26, 1, 59, 59), 0}, {At(2023, 3, 26, 2, 0, 0), 1},  // last Sunday, no fifth
      {At(2023, 3, 19, 12), 0},        {At(2024, 3, 24, 12), 0},       // the fourth Sundays
      {At(2024, 3, 31, 2), 1},         {At(2024, 3, 30, 23), 0},
      {At(2023, 10, 29, 3), 1},        {At(2023, 10, 29, 3, 0, 1), 0},
      {At(2024, 10, 27, 2, 59), 1},    {At(2024, 10, 28, 0), 0},
  };
  for (const Case& c : cases) {
    FILETIME t = c.t;
    const SYSTEMTIME st = dirtest::Parts(c.t);
    EXPECT_EQ(tree.FixDstFiletime(&t, "x"), c.fixed)
        << st.wYear << "-" << st.wMonth << "-" << st.wDay << " " << st.wHour << ":" << st.wMinute;
  }
}

TEST_F(FileTimesTest, OffsetAddsToTheDaylightBias) {
  CDirectory tree;
  tree.SetFlagDstFiletimeFix(1, 30);
  EXPECT_EQ(tree.GetDstOffset(), 30);
  FILETIME t = At(2024, 7, 1, 12);
  EXPECT_EQ(tree.FixDstFiletime(&t, "x"), 1);
  EXPECT_EQ(t, At(2024, 7, 1, 11, 30));
  tree.SetFlagDstFiletimeFix(0, 0);
  EXPECT_EQ(tree.GetFlagDstFiletimeFix(), 0u);
}

// Europe/Dublin: winter (GMT) is the rule's "daylight" part, behind the
// standard time (IST). The zone must still read as GMT with summer time.
TEST(FileTimes, NegativeDaylightPeriodReadsAsTheUsualRule) {
  constexpr const char* kDublin = "IST-1GMT0,M10.5.0,M3.5.0/1";
  qb::sys::DYNAMIC_TIME_ZONE_INFORMATION z;
  ASSERT_TRUE(qb::sys::ParsePosixTimeZone(kDublin, &z));
  EXPECT_EQ(z.Bias, 0);
  EXPECT_EQ(z.DaylightBias, -60);
  EXPECT_EQ(z.StandardName, "GMT");
  EXPECT_EQ(z.DaylightName, "IST");
  EXPECT_EQ(z.DaylightDate.wMonth, 3);
  EXPECT_EQ(z.DaylightDate.wHour, 1);
  EXPECT_EQ(z.StandardDate.wMonth, 10);
  EXPECT_EQ(z.StandardDate.wHour, 2);

  ScopedTimeZone zone(kDublin);
  CDirectory tree;
  EXPECT_EQ(tree.GetTimeZoneBias(), 0);
  const FILETIME winter = At(2024, 1, 15, 12);
  ASSERT_EQ(tree.AddFile("a", "w", "p", "jpg", 1, &winter, "w", "w", "\\", 0, 1), 1);
  EXPECT_EQ(tree.FindFileByItemID("w", 0)->rFindData.ftCreationTime, winter) << "winter is UTC in Dublin";
  // The daylight answer follows the offset in force, whatever the C library
  // calls it.
  qb::sys::TIME_ZONE_INFORMATION info;
  const uint32_t id = qb::sys::GetTimeZoneInformation(&info);
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  EXPECT_EQ(id, local.tm_gmtoff == 0 ? qb::sys::TIME_ZONE_ID_STANDARD : qb::sys::TIME_ZONE_ID_DAYLIGHT);
}

TEST(FileTimes, FixTurnsItselfOffWithoutDaylightTime) {
  ScopedTimeZone zone("JST-9");
  CDirectory tree;
  EXPECT_EQ(tree.GetTimeZoneBias(), -540);
  tree.SetFlagDstFiletimeFix(1, 0);
  EXPECT_EQ(tree.GetFlagDstFiletimeFix(), 0u);
}

TEST(FileTimes, UseCreateTimeFlag) {
  CDirectory tree;
  EXPECT_EQ(tree.GetFlagUseCreateTime(), 0);
  tree.SetFlagUseCreateTime(1);
  EXPECT_EQ(tree.GetFlagUseCreateTime(), 1);
  tree.SetFlagDstFiletimeFix(0, 0);
  EXPECT_EQ(tree.GetFlagUseCreateTime(), 1) << "the flags are independent";
  tree.SetFlagUseCreateTime(0);
  EXPECT_EQ(tree.GetFlagUseCreateTime(), 0);
}

}  // namespace
