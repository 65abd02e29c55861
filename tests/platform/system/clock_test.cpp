#include "platform/system/clock.h"

#include <gtest/gtest.h>

using namespace qb::sys;

TEST(Clock, SystemTimeRoundTripsThroughFileTime) {
  SYSTEMTIME st{2024, 2, 0, 29, 23, 59, 58, 123};
  FILETIME ft;
  ASSERT_TRUE(SystemTimeToFileTime(st, &ft));
  SYSTEMTIME back;
  ASSERT_TRUE(FileTimeToSystemTime(ft, &back));
  EXPECT_EQ(back.wYear, 2024);
  EXPECT_EQ(back.wMonth, 2);
  EXPECT_EQ(back.wDay, 29);
  EXPECT_EQ(back.wDayOfWeek, 4);  // a Thursday
  EXPECT_EQ(back.wMilliseconds, 123);
  st.wDay = 30;
  EXPECT_FALSE(SystemTimeToFileTime(st, &ft));
}

TEST(Clock, UnixEpochIsKnownFileTime) {
  EXPECT_EQ(UnixToFileTime(0).Value(), 116444736000000000ull);
  const auto ts = FileTimeToTimespec(FILETIME::From(116444736000000000ull + 15));
  EXPECT_EQ(ts.tv_sec, 0);
  EXPECT_EQ(ts.tv_nsec, 1500);
}
