#include "platform/clock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

SYSTEMTIME make(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
  SYSTEMTIME st{};
  st.wYear = static_cast<uint16_t>(y);
  st.wMonth = static_cast<uint16_t>(mo);
  st.wDay = static_cast<uint16_t>(d);
  st.wHour = static_cast<uint16_t>(h);
  st.wMinute = static_cast<uint16_t>(mi);
  st.wSecond = static_cast<uint16_t>(s);
  st.wMilliseconds = static_cast<uint16_t>(ms);
  return st;
}

void expectSameTime(const SYSTEMTIME& a, const SYSTEMTIME& b) {
  EXPECT_EQ(a.wYear, b.wYear);
  EXPECT_EQ(a.wMonth, b.wMonth);
  EXPECT_EQ(a.wDay, b.wDay);
  EXPECT_EQ(a.wHour, b.wHour);
  EXPECT_EQ(a.wMinute, b.wMinute);
  EXPECT_EQ(a.wSecond, b.wSecond);
  EXPECT_EQ(a.wMilliseconds, b.wMilliseconds);
}

TEST(OleDateTest, KnownDatesBothWays) {
  struct Case {
    double date;
    SYSTEMTIME st;
    int dayOfWeek;
  };
  const Case cases[] = {
      {0.0, make(1899, 12, 30), 6},         {1.5, make(1899, 12, 31, 12), 0},
      {2.0, make(1900, 1, 1), 1},           {2.25, make(1900, 1, 1, 6), 1},
      {36526.0, make(2000, 1, 1), 6},       {-1.25, make(1899, 12, 29, 6), 5},
      {-1.0, make(1899, 12, 29), 5},        {-657434.0, make(100, 1, 1), 5},
      {60.0, make(1900, 2, 28), 3},         {61.0, make(1900, 3, 1), 4},
      {36585.75, make(2000, 2, 29, 18), 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.date);
    double date = 0;
    ASSERT_TRUE(mv::systemTimeToOleDate(c.st, &date));
    EXPECT_DOUBLE_EQ(date, c.date);
    SYSTEMTIME st{};
    ASSERT_TRUE(mv::oleDateToSystemTime(c.date, &st));
    expectSameTime(st, c.st);
    EXPECT_EQ(st.wDayOfWeek, c.dayOfWeek);
  }
}

TEST(OleDateTest, RoundsToTheNearestMillisecond) {
  const double ms = 1.0 / 86'400'000;
  SYSTEMTIME st{};
  ASSERT_TRUE(mv::oleDateToSystemTime(2.25 + 0.4 * ms, &st));
  expectSameTime(st, make(1900, 1, 1, 6));
  ASSERT_TRUE(mv::oleDateToSystemTime(2.25 + 0.6 * ms, &st));
  expectSameTime(st, make(1900, 1, 1, 6, 0, 0, 1));
  ASSERT_TRUE(mv::oleDateToSystemTime(-1.25 - 0.6 * ms, &st));
  expectSameTime(st, make(1899, 12, 29, 6, 0, 0, 1));
  // Rounding up to midnight lands on the next day, before day 0 as well as after.
  ASSERT_TRUE(mv::oleDateToSystemTime(3.0 - 0.2 * ms, &st));
  expectSameTime(st, make(1900, 1, 2));
  ASSERT_TRUE(mv::oleDateToSystemTime(-1.0 - (1.0 - 0.2 * ms), &st));
  expectSameTime(st, make(1899, 12, 30));

  ASSERT_TRUE(mv::oleDateToSystemTime(2958465.0 + 86'399'999 * ms, &st));
  expectSameTime(st, make(9999, 12, 31, 23, 59, 59, 999));
}

TEST(OleDateTest, RejectsInvalidInput) {
  double date = 0;
  const SYSTEMTIME invalid[] = {make(99, 12, 31),           make(10000, 1, 1),
                                make(2000, 0, 1),           make(2000, 13, 1),
                                make(2000, 1, 0),           make(2000, 1, 32),
                                make(2000, 1, 257),  // 1 in a byte
                                make(2000, 257, 1),         make(2001, 2, 29),
                                make(1900, 2, 29),          make(2000, 4, 31),
                                make(2000, 1, 1, 24),       make(2000, 1, 1, 0, 60),
                                make(2000, 1, 1, 0, 0, 60), make(2000, 1, 1, 0, 0, 0, 1000)};
  for (const SYSTEMTIME& st : invalid) {
    EXPECT_FALSE(mv::systemTimeToOleDate(st, &date))
        << st.wYear << '-' << st.wMonth << '-' << st.wDay << ' ' << st.wHour << ':' << st.wMinute
        << ':' << st.wSecond << '.' << st.wMilliseconds;
  }
  EXPECT_TRUE(mv::systemTimeToOleDate(make(2000, 2, 29), &date));
  EXPECT_TRUE(mv::systemTimeToOleDate(make(9999, 12, 31, 23, 59, 59, 999), &date));
  EXPECT_FALSE(mv::systemTimeToOleDate(make(2000, 1, 1), nullptr));

  SYSTEMTIME st{};
  EXPECT_FALSE(mv::oleDateToSystemTime(-657435.0, &st));
  EXPECT_FALSE(mv::oleDateToSystemTime(2958466.0, &st));
  EXPECT_FALSE(mv::oleDateToSystemTime(1e300, &st));
  EXPECT_FALSE(mv::oleDateToSystemTime(std::numeric_limits<double>::quiet_NaN(), &st));
  EXPECT_FALSE(mv::oleDateToSystemTime(std::numeric_limits<double>::infinity(), &st));
  EXPECT_FALSE(mv::oleDateToSystemTime(0.0, nullptr));
}

TEST(ClockTest, NowSurvivesOleDateRoundTrip) {
  const SYSTEMTIME now = mv::localTimeNow();
  double date = 0;
  ASSERT_TRUE(mv::systemTimeToOleDate(now, &date));
  SYSTEMTIME back{};
  ASSERT_TRUE(mv::oleDateToSystemTime(date, &back));
  expectSameTime(back, now);
  EXPECT_EQ(back.wDayOfWeek, now.wDayOfWeek);

  const SYSTEMTIME utc = mv::utcTimeNow();
  double utcDate = 0;
  ASSERT_TRUE(mv::systemTimeToOleDate(utc, &utcDate));
  EXPECT_LT(std::fabs(utcDate - date), 1.0);  // time zones are less than a day apart
}

TEST(ClockTest, PosixTimeConversions) {
  const SYSTEMTIME epoch = mv::toUtcSystemTime(0, 999'999'999);
  expectSameTime(epoch, make(1970, 1, 1, 0, 0, 0, 999));
  EXPECT_EQ(epoch.wDayOfWeek, 4);
  const SYSTEMTIME later = mv::toUtcSystemTime(951'782'400 + 3'723, 4'000'000);  // 2000-02-29
  expectSameTime(later, make(2000, 2, 29, 1, 2, 3, 4));
  EXPECT_EQ(later.wDayOfWeek, 2);

  const std::time_t t = 1'700'000'000;
  const SYSTEMTIME local = mv::toLocalSystemTime(t);
  std::time_t back = 0;
  ASSERT_TRUE(mv::localSystemTimeToTime(local, &back));
  EXPECT_EQ(back, t);

  EXPECT_FALSE(mv::localSystemTimeToTime(make(2023, 2, 30), &back));
  EXPECT_FALSE(mv::localSystemTimeToTime(make(2023, 1, 1, 25), &back));
  EXPECT_FALSE(mv::localSystemTimeToTime(make(2023, 1, 1), nullptr));
}

}  // namespace
