// SDate: day numbers with the 15 October 1582 switch from the Julian to the
// Gregorian calendar, and the calendar fields read from them.
#include <quenlib/sdatetime.h>

#include "diagnostics/assert.h"
#include "time/datetime.h"

namespace QuenLibA500 {

namespace {

// Day number of 1582-10-15, the first Gregorian day.
constexpr int32_t kGregorianStartDay = 2299160;
constexpr int64_t kDayBase = 1720994;

// floor(30.6001 * (m + 1)) in integers (truncated like the float form).
constexpr int64_t MonthDays(int64_t m) noexcept { return (306001 * (m + 1)) / 10000; }

// Day number of day 0 of the March-based year `y` in the Julian calendar.
constexpr int64_t JulianYearBase(int64_t y) noexcept { return 365 * y + y / 4 + kDayBase; }

// Civil-from-days over 400-year eras counted from 0000-03-01. Only called
// for days from 1582-10-15 on, where every intermediate value is positive
// and fits 32 unsigned bits, which keeps the divisions cheap.
void GregorianFromDay(int32_t day, int& year, int& month, int& dayOfMonth) noexcept {
  uint32_t z = uint32_t(day) - uint32_t(SDate::kUnixEpochDay) + 719468u;
  uint32_t era = z / 146097u;
  uint32_t doe = z - era * 146097u;
  uint32_t yoe = (doe - doe / 1460u + doe / 36524u - doe / 146096u) / 365u;
  uint32_t doy = doe - (365u * yoe + yoe / 4u - yoe / 100u);
  uint32_t mp = (5u * doy + 2u) / 153u;
  dayOfMonth = static_cast<int>(doy - (153u * mp + 2u) / 5u + 1u);
  month = static_cast<int>(mp < 10u ? mp + 3u : mp - 9u);
  year = static_cast<int>(yoe + era * 400u + (month <= 2 ? 1u : 0u));
}

// Inverse of the B = 0 branch of YMDToJulian. Years are March-based
// internally; the truncating y / 4 of the forward formula is matched by
// searching from an estimate instead of inverting it in closed form.
void JulianFromDay(int64_t day, int& year, int& month, int& dayOfMonth) noexcept {
  constexpr int64_t kMarchFirst = 123;  // MonthDays(3) + 1
  int64_t y = dt::FloorDiv((day - kDayBase - kMarchFirst) * 4, 1461);
  while (JulianYearBase(y) + kMarchFirst > day) --y;
  while (JulianYearBase(y + 1) + kMarchFirst <= day) ++y;
  int64_t r = day - JulianYearBase(y);
  int64_t m = 14;
  while (m > 3 && r - MonthDays(m) < 1) --m;
  dayOfMonth = static_cast<int>(r - MonthDays(m));
  if (m > 12) {
    m -= 12;
    ++y;
  }
  month = static_cast<int>(m);
  year = static_cast<int>(y <= 0 ? y - 1 : y);
}

constexpr int kDaysInMonth[13] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

}  // namespace

int32_t SDate::YMDToJulian(int year, int month, int day) noexcept {
  int64_t y = year, m = month, d = day;
  if (y < 0) ++y;  // there is no year 0
  if (m <= 2) {
    --y;
    m += 12;
  }
  int64_t b = 0;
  if (y * 10000 + m * 100 + d >= 15821015) {
    int64_t a = y / 100;
    b = 2 - a + a / 4;
  }
  int64_t jd = 365 * y + y / 4 + MonthDays(m) + d + b + kDayBase;
  return dt::DayInRange(jd) ? static_cast<int32_t>(jd) : InvalidDate;
}

void SDate::JulianToYMD(int32_t dayNumber, int& year, int& month, int& day) noexcept {
  if (dayNumber >= kGregorianStartDay)
    GregorianFromDay(dayNumber, year, month, day);
  else
    JulianFromDay(dayNumber, year, month, day);
}

int SDate::DaysInMonth(int year, int month) noexcept {
  if (month < 1 || month > 12) return 0;
  if (year == 1582 && month == 10) return 21;  // 5..14 October never happened
  if (month != 2) return kDaysInMonth[month];
  if (year > 1582) return (year % 4 == 0 && (year % 100 != 0 || year % 400 == 0)) ? 29 : 28;
  int next = year == -1 ? 1 : year;  // the year after -1 is 1
  return YMDToJulian(next, 3, 1) - YMDToJulian(year, 2, 1);
}

SDate::SDate(int year, int month, int day, int32_t dayOffset) noexcept {
  Set(year, month, day);
  *this += STimeSpan(int64_t(dayOffset) * dt::kMsPerDay);
}

SDate::SDate(int year, int month, int day, bool validate) noexcept {
  Set(year, month, day);
  if (!validate) return;
  bool switchMonth = year == 1582 && month == 10;
  int lastDay = switchMonth ? 31 : DaysInMonth(year, month);
  bool real = year != 0 && day >= 1 && day <= lastDay && !(switchMonth && day >= 5 && day <= 14);
  if (!real) m_day = InvalidDate;
}

bool SDate::checkValid() const noexcept {
  if (IsValid()) return true;
  QL_ASSERT(IsValid());
  return false;
}

void SDate::GetYearMonthDay(int& year, int& month, int& day) const noexcept {
  if (!checkValid()) {
    year = month = day = 0;
    return;
  }
  JulianToYMD(m_day, year, month, day);
}

int SDate::GetYear() const noexcept {
  int y, m, d;
  GetYearMonthDay(y, m, d);
  return y;
}

int SDate::GetMonth() const noexcept {
  int y, m, d;
  GetYearMonthDay(y, m, d);
  return m;
}

int SDate::GetDay() const noexcept {
  int y, m, d;
  GetYearMonthDay(y, m, d);
  return d;
}

int SDate::GetDayOfWeek() const noexcept {
  if (!checkValid()) return 0;
  return dt::DayOfWeek(m_day);
}

int SDate::GetWeekOfMonth(int /*firstDayOfWeek*/) const noexcept {
  if (!checkValid()) return 0;
  return (GetDay() - 1) / 7 + 1;
}

int SDate::GetNumDaysInCurMonth() const noexcept {
  int y, m, d;
  GetYearMonthDay(y, m, d);
  if (!IsValid()) return 0;
  return DaysInMonth(y, m);
}

SDate SDate::GetCurrentDate(STimeZone const& zone) {
  return SDateTime::GetCurrentDateTime().GetDate(zone);
}

SDate SDate::operator+(STimeSpan s) const noexcept {
  if (!IsValid()) return *this;
  int64_t day = int64_t(m_day) + s.GetTotalMilliseconds() / dt::kMsPerDay;
  return FromDayNumber(dt::DayInRange(day) ? static_cast<int32_t>(day) : InvalidDate);
}

SDate SDate::operator-(STimeSpan s) const noexcept {
  return *this + STimeSpan(-s.GetTotalMilliseconds());
}

STimeSpan SDate::operator-(SDate const& o) const noexcept {
  return STimeSpan((int64_t(m_day) - o.m_day) * dt::kMsPerDay);
}

}  // namespace QuenLibA500
