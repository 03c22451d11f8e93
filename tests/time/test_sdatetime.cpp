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

TEST(SDateTimeDays, DateFieldsAndArithmetic) {
  SDate d(2024, 2, 29);
  EXPECT_EQ(d.GetYear(), 2024);
  EXPECT_EQ(d.GetMonth(), 2);
  EXPECT_EQ(d.GetDay(), 29);
  EXPECT_EQ(d.GetNumDaysInCurMonth(), 29);
  EXPECT_EQ(d.GetWeekOfMonth(0), 5);
  EXPECT_EQ(SDate(2024, 2, 7).GetWeekOfMonth(1), 1);
  EXPECT_EQ(SDate(2024, 2, 8).GetWeekOfMonth(), 2);
  EXPECT_EQ(d + STimeSpan(1, 0, 0, 0, 0), SDate(2024, 3, 1));
  EXPECT_EQ(d - STimeSpan(366, 0, 0, 0, 0), SDate(2023, 2, 28));
  EXPECT_EQ(d + STimeSpan(0, 23, 59, 59, 999), d);  // whole days only
  EXPECT_EQ((SDate(2024, 3, 1) - d).GetTotalHours(), 24);
  EXPECT_LT(SDate(1582, 10, 4), SDate(1582, 10, 15));
  EXPECT_EQ(SDate(1582, 10, 15).GetDayNumber() - SDate(1582, 10, 4).GetDayNumber(), 1);
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

TEST(SDateTimeTime, WrapsWithinTheDay) {
  STime t(23, 30, 0, 0);
  EXPECT_EQ((t + STimeSpan(0, 25, 0, 0, 0)).GetHour(), 0);
  EXPECT_EQ((t + STimeSpan(0, 25, 0, 0, 0)).GetMinute(), 30);
  EXPECT_EQ((STime(1, 0, 0, 0) + STimeSpan(0, 25, 0, 0, 0)).GetHour(), 2);
  EXPECT_EQ((STime(1, 0, 0, 0) - STimeSpan(0, 2, 0, 0, 0)).GetHour(), 23);
  EXPECT_EQ((STime(2, 0, 0, 0) - STime(1, 0, 0, 0)).GetTotalMinutes(), 60);
  EXPECT_EQ(STime(1, 2, 3, 4).GetTotalMilliseconds(), 3723004);
  EXPECT_EQ(STime(1, 2, 3, 4).GetSecond(), 3);
  EXPECT_EQ(STime(1, 2, 3, 4).GetMillisecond(), 4);
  int h, m, s;
  STime(10, 20, 30, 0, STimeZone("X,-330")).GetHourMinuteSecond(h, m, s);
  EXPECT_EQ(h * 10000 + m * 100 + s, 45030);  // 10:20:30 at +5:30 is 04:50:30 UTC
  EXPECT_EQ(STime(10, 20, 30, 0, STimeZone("X,-330")).GetHour(STimeZone("X,-330")), 10);
  EXPECT_EQ(STime(int32_t(-1)).GetTotalMilliseconds(), 86399999);
}

TEST(SDateTimeTime, MillisecondOfAThousandIsReported) {
  quentest::AssertLog log;
  STime t(0, 0, 0, 1000);
  ASSERT_EQ(log.seen.size(), 1u);
  EXPECT_NE(log.seen[0].condition.find("1000"), std::string::npos);
  EXPECT_EQ(t.GetSecond(), 1);
}

TEST(SDateTimeInstant, DifferencesAndCarry) {
  SDateTime a(1970, 1, 1, 0, 0, 1, 0, Utc());
  SDateTime b(1970, 1, 1, 0, 0, 0, 0, Utc());
  EXPECT_EQ((a - b).GetTotalMilliseconds(), 1000);
  SDateTime c = SDateTime(1999, 12, 31, 23, 59, 59, 999, Utc()) + STimeSpan(1);
  EXPECT_EQ(c, SDateTime(2000, 1, 1, 0, 0, 0, 0, Utc()));
  c -= STimeSpan(0, 48, 0, 0, 0);
  EXPECT_EQ(c.GetDay(), 30);
  EXPECT_EQ(c.GetMonth(), 12);
  EXPECT_LT(b, a);
  EXPECT_LT(SDateTime(2000, 1, 1, 23, 0, 0, 0, Utc()), SDateTime(2000, 1, 2, 0, 0, 0, 0, Utc()));
  EXPECT_EQ(SDateTime(2000, 1, 1, int32_t(2)), SDateTime(2000, 1, 3, 0, 0, 0, 0, Utc()));
  EXPECT_EQ(SDateTime::FromUnixMilliseconds(0), b);
  EXPECT_EQ(a.GetUnixMilliseconds(), 1000);
  EXPECT_EQ(SDateTime::FromUnixMilliseconds(-1).GetYear(), 1969);
}

TEST(SDateTimeInstant, FieldsInZones) {
  STimeZone ny("EST,300 EDT");
  SDateTime t(2024, 7, 4, 16, 5, 6, 7, Utc());
  int y, mo, d, h, mi, s, ms;
  ASSERT_TRUE(t.GetDateTime(y, mo, d, h, mi, s, ms, ny));
  EXPECT_EQ(std::vector<int>({y, mo, d, h, mi, s, ms}), std::vector<int>({2024, 7, 4, 12, 5, 6, 7}));
  EXPECT_EQ(t.GetDayOfWeek(ny), 4);
  SDateTime late(2024, 1, 1, 2, 0, 0, 0, Utc());
  EXPECT_EQ(late.GetDay(ny), 31);
  EXPECT_EQ(late.GetYear(ny), 2023);
  EXPECT_EQ(late.GetDate(ny), SDate(2023, 12, 31));
  EXPECT_EQ(late.GetHour(ny), 21);
  // Local fields set in a zone come back the same.
  SDateTime local(2024, 11, 3, 12, 0, 0, 0, ny);
  EXPECT_EQ(local.GetHour(ny), 12);
  EXPECT_EQ(local.GetHour(Utc()), 17);
}

TEST(SDateTimeInstant, LocalTimesAroundTransitions) {
  STimeZone ny("EST,300 EDT");
  // 2:30 on 10 March 2024 does not exist: taken as standard time (3:30 EDT).
  SDateTime gap(2024, 3, 10, 2, 30, 0, 0, ny);
  EXPECT_EQ(gap.GetHour(Utc()), 7);
  EXPECT_EQ(gap.GetHour(ny), 3);
  // 1:30 on 3 November 2024 happens twice: taken as daylight time.
  SDateTime twice(2024, 11, 3, 1, 30, 0, 0, ny);
  EXPECT_EQ(twice.GetHour(Utc()), 5);
  EXPECT_EQ((twice + STimeSpan(0, 1, 0, 0, 0)).GetHour(ny), 1);
}
