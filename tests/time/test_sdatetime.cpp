// Day numbering, the value classes and their conversions.
#include <quenlib/sdatetime.h>

#include "time_support.h"

#include <cmath>
#include <ctime>

#include <cstring>

using namespace QuenLibA500;

namespace {

using quentest::Utc;

}  // namespace

TEST(SDateTimeDays, KnownDayNumbers) {
  struct Case {
    int y, m, d;
    int32_t day;
    int dow;
  } cases[] = {
      {1970, 1, 1, 2440587, 4},   {2000, 1, 1, 2451544, 6},  {2000, 2, 29, 2451603, 2},
      {1582, 10, 15, 2299160, 5}, {1582, 10, 4, 2299159, 4}, {1, 1, 1, 1721423, 6},
      {-1, 12, 31, 1721422, 5},   {2024, 3, 10, 2460379, 0}, {1900, 3, 1, 2415079, 4},
  };
  for (auto const& c : cases) {
    SDate d(c.y, c.m, c.d);
    EXPECT_EQ(d.GetDayNumber(), c.day) << c.y << "-" << c.m << "-" << c.d;
    EXPECT_EQ(d.GetDayOfWeek(), c.dow) << c.y << "-" << c.m << "-" << c.d;
    int y, m, dd;
    SDate::JulianToYMD(c.day, y, m, dd);
    EXPECT_EQ(std::vector<int>({y, m, dd}), std::vector<int>({c.y, c.m, c.d}));
  }
}

TEST(SDateTimeDays, RoundTripsOverBothCalendars) {
  // Every day from 4800 BC to AD 4000 maps back to its own fields, and
  // consecutive days have consecutive numbers (except across the 1582 gap).
  int32_t first = SDate::YMDToJulian(-4800, 1, 1);
  int32_t last = SDate::YMDToJulian(4000, 12, 31);
  int pd = 0;
  for (int32_t day = first; day <= last; ++day) {
    int y, m, d;
    SDate::JulianToYMD(day, y, m, d);
    ASSERT_EQ(SDate::YMDToJulian(y, m, d), day) << y << "-" << m << "-" << d;
    ASSERT_NE(y, 0);
    ASSERT_GE(d, 1);
    ASSERT_LE(d, 31);
    if (day != first && d != 1) {
      ASSERT_TRUE(d == pd + 1 || (y == 1582 && m == 10 && d == 15)) << day;
    }
    pd = d;
  }
}

TEST(SDateTimeDays, MonthLengthsAndValidation) {
  EXPECT_EQ(SDate::DaysInMonth(2000, 2), 29);
  EXPECT_EQ(SDate::DaysInMonth(1900, 2), 28);
  EXPECT_EQ(SDate::DaysInMonth(1500, 2), 29);  // Julian: every fourth year
  EXPECT_EQ(SDate::DaysInMonth(1582, 10), 21);
  EXPECT_EQ(SDate::DaysInMonth(2023, 4), 30);
  EXPECT_EQ(SDate::DaysInMonth(2023, 13), 0);
  EXPECT_TRUE(SDate(2000, 2, 29, true).IsValid());
  EXPECT_FALSE(SDate(2001, 2, 29, true).IsValid());
  EXPECT_FALSE(SDate(1582, 10, 10, true).IsValid());
  EXPECT_TRUE(SDate(1582, 10, 31, true).IsValid());
  EXPECT_FALSE(SDate(2001, 13, 1, true).IsValid());
  EXPECT_FALSE(SDate(0, 1, 1, true).IsValid());
  EXPECT_TRUE(SDate(2001, 2, 29, false).IsValid());  // taken as 1 March
  EXPECT_EQ(SDate(2001, 2, 29, false), SDate(2001, 3, 1));
  EXPECT_EQ(SDate(2000, 12, 31, int32_t(1)), SDate(2001, 1, 1));
  EXPECT_EQ(SDate(2000, 1, 1, int32_t(-1)), SDate(1999, 12, 31));
}

TEST(SDateTimeDays, InvalidValuesAssertAndStayInvalid) {
  quentest::AssertLog log;
  SDate d;
  STime t;
  SDateTime dt;
  EXPECT_FALSE(d.IsValid());
  EXPECT_FALSE(t.IsValid());
  EXPECT_FALSE(dt.IsValid());
  EXPECT_EQ(d.GetDayNumber(), SDate::InvalidDate);
  EXPECT_EQ(d.GetYear(), 0);
  EXPECT_EQ(t.GetHour(), 0);
  EXPECT_EQ(dt.GetMonth(), 0);
  ASSERT_EQ(log.seen.size(), 3u);
  for (auto const& c : log.seen) EXPECT_EQ(c.condition, "IsValid()");
  EXPECT_FALSE((d + STimeSpan(1, 0, 0, 0, 0)).IsValid());
  EXPECT_FALSE((t + STimeSpan(1000)).IsValid());
  SYSTEMTIME st{};
  EXPECT_FALSE(dt.GetSYSTEMTIME(&st));
  EXPECT_EQ(SDate(), SDate());
  EXPECT_LT(SDate(), SDate(1, 1, 1));  // compares as its raw number
}

TEST(SDateTimeTime, MillisecondOfAThousandIsReported) {
  quentest::AssertLog log;
  STime t(0, 0, 0, 1000);
  ASSERT_EQ(log.seen.size(), 1u);
  EXPECT_NE(log.seen[0].condition.find("1000"), std::string::npos);
  EXPECT_EQ(t.GetSecond(), 1);
}
