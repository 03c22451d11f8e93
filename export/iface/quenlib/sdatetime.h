// sdatetime.h: durations, calendar dates, times of day and instants.
//
// `STimeSpan` is a signed count of milliseconds. `SDate` is a day number
// (1970-01-01 is 2440587; the calendar is Julian before 15 October 1582 and
// Gregorian from then on). `STime` is milliseconds since midnight UTC.
// `SDateTime` is an `SDate` plus an `STime`, always in UTC: a time zone is
// applied only when fields are set or read.
//
//   SDateTime t(2024, 3, 10, 12, 30, 0, 0, STimeZone::TZ_UTC());
//   STimeZone ny("EST,300 EDT");
//   t.GetHour(ny);                      // 8 (daylight saving has begun)
//   t += STimeSpan(1, 0, 0, 0, 0);      // one day later
//   SDateTime epoch(int64_t(0), STimeZone::TZ_UTC());
//   STimeSpan since = t - epoch;        // milliseconds between them
//   t.Format("yyyy-MM-dd HH:mm", ny);   // "2024-03-11 08:30"
//
// The default-constructed `SDate`, `STime` and `SDateTime` are invalid
// (`SDate::InvalidDate`, `STime::InvalidTime`). They compare like other
// values, but reading their fields reports the assertion "IsValid()" and
// gives 0. Arithmetic leaves an invalid value as it is.
//
// Where a zone argument is optional it defaults to UTC. An `STime` has no
// date; its zone conversions use the offset of the zone on the current day.
// Pass seconds since 1970 as an int64_t (a bare 0 would also match the OLE
// date and struct tm* constructors).
//
// Format patterns: a run of one letter is one field, its length the form.
//
//   d  day      1: 4   2: 04   3: Sat   4+: Saturday
//   M  month    1: 3   2: 03   3: Mar   4+: March
//   y  year     1: 6   2: 06   3+: 2006
//   g  era      AD (any run)
//   h  hour 1..12   1: 5   2+: 05      H  hour 0..23   1: 5   2+: 05
//   m  minute   1: 6   2+: 06          s  second       1: 7   2+: 07
//   S  millisecond  1: 8   2+: 008     t  marker       1: A   2+: AM
//
// Other characters are copied; text in 'single' or "double" quotes is
// copied without its quotes (an unclosed quote copies the rest). Date
// fields of an invalid date and time fields of an invalid time are empty.
// Names follow the thread's LC_TIME locale (see sdatetimestring.h).
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>
#include <quenlib/stimezone.h>

#include <cstdint>
#include <ctime>

namespace QuenLibA500 {

// Calendar fields of an instant, with the original platform's layout.
struct SYSTEMTIME {
  uint16_t wYear;
  uint16_t wMonth;
  uint16_t wDayOfWeek;
  uint16_t wDay;
  uint16_t wHour;
  uint16_t wMinute;
  uint16_t wSecond;
  uint16_t wMilliseconds;
};

class QUENLIB_API STimeSpan {
 public:
  static constexpr int64_t kMsPerDay = 86400000;

  constexpr STimeSpan() noexcept : m_ms(0) {}
  constexpr explicit STimeSpan(int64_t milliseconds) noexcept : m_ms(milliseconds) {}
  STimeSpan(int32_t days, int32_t hours, int32_t minutes, int32_t seconds,
            int32_t milliseconds) noexcept {
    Set(days, hours, minutes, seconds, milliseconds);
  }
  void Set(int32_t days, int32_t hours, int32_t minutes, int32_t seconds,
           int32_t milliseconds) noexcept;

  // The parts of the span (each truncated toward zero, sign of the span).
  // The parts are 8-bit: spans of 128 days or more wrap in GetDays.
  int8_t GetDays() const noexcept { return static_cast<int8_t>(m_ms / kMsPerDay); }
  int8_t GetHours() const noexcept { return static_cast<int8_t>(m_ms / 3600000 % 24); }
  int8_t GetMinutes() const noexcept { return static_cast<int8_t>(m_ms / 60000 % 60); }
  int8_t GetSeconds() const noexcept { return static_cast<int8_t>(m_ms / 1000 % 60); }
  int16_t GetMilliseconds() const noexcept { return static_cast<int16_t>(m_ms % 1000); }
  int32_t GetTotalHours() const noexcept { return static_cast<int32_t>(m_ms / 3600000); }
  int32_t GetTotalMinutes() const noexcept { return static_cast<int32_t>(m_ms / 60000); }
  int64_t GetTotalSeconds() const noexcept { return m_ms / 1000; }
  int64_t GetTotalMilliseconds() const noexcept { return m_ms; }

  STimeSpan operator+(STimeSpan o) const noexcept { return STimeSpan(m_ms + o.m_ms); }
  STimeSpan operator-(STimeSpan o) const noexcept { return STimeSpan(m_ms - o.m_ms); }
  STimeSpan& operator+=(STimeSpan o) noexcept { m_ms += o.m_ms; return *this; }
  STimeSpan& operator-=(STimeSpan o) noexcept { m_ms -= o.m_ms; return *this; }
  auto operator<=>(STimeSpan const&) const noexcept = default;
  bool operator==(STimeSpan const&) const noexcept = default;

 private:
  int64_t m_ms;
};

class QUENLIB_API SDate {
 public:
  static constexpr int32_t InvalidDate = INT32_MIN;
  // Day number of 1970-01-01.
  static constexpr int32_t kUnixEpochDay = 2440587;

  SDate() noexcept : m_day(InvalidDate) {}
  SDate(int year, int month, int day) noexcept { Set(year, month, day); }
  // The given date moved by `dayOffset` days.
  SDate(int year, int month, int day, int32_t dayOffset) noexcept;
  // With `validate` true, a day that does not exist in the calendar (month
  // 13, 31 April, 29 February of a common year, 5..14 October 1582) gives the
  // invalid date; with false the fields are taken as they come.
  SDate(int year, int month, int day, bool validate) noexcept;
  // A raw day number.
  static SDate FromDayNumber(int32_t day) noexcept { SDate d; d.m_day = day; return d; }

  void Set(int year, int month, int day) noexcept { m_day = YMDToJulian(year, month, day); }
  void GetYearMonthDay(int& year, int& month, int& day) const noexcept;
  int GetYear() const noexcept;
  int GetMonth() const noexcept;
  int GetDay() const noexcept;
  // 0 = Sunday .. 6 = Saturday.
  int GetDayOfWeek() const noexcept;
  // (day - 1) / 7 + 1: the week fields of the zone rules count this way.
  // The first day of the week is accepted for compatibility and does not
  // change the result.
  int GetWeekOfMonth(int firstDayOfWeek = 0) const noexcept;
  int GetNumDaysInCurMonth() const noexcept;
  bool IsValid() const noexcept { return m_day != InvalidDate; }
  int32_t GetDayNumber() const noexcept { return m_day; }

  static SDate GetCurrentDate(STimeZone const& zone = STimeZone::TZ_UTC());

  // Day numbering with the 15 October 1582 switch. Years before 1 count
  // -1, -2, ... (there is no year 0). Results outside 32 bits are invalid.
  static int32_t YMDToJulian(int year, int month, int day) noexcept;
  static void JulianToYMD(int32_t dayNumber, int& year, int& month, int& day) noexcept;
  static int DaysInMonth(int year, int month) noexcept;

  // Spans count in whole days (truncated toward zero).
  SDate operator+(STimeSpan s) const noexcept;
  SDate operator-(STimeSpan s) const noexcept;
  SDate& operator+=(STimeSpan s) noexcept { return *this = *this + s; }
  SDate& operator-=(STimeSpan s) noexcept { return *this = *this - s; }
  STimeSpan operator-(SDate const& o) const noexcept;
  auto operator<=>(SDate const&) const noexcept = default;
  bool operator==(SDate const&) const noexcept = default;

  SAnsiString Format(char const* pattern) const;

 private:
  bool checkValid() const noexcept;
  int32_t m_day;
};

class QUENLIB_API STime {
 public:
  static constexpr int32_t InvalidTime = INT32_MIN;

  STime() noexcept : m_ms(InvalidTime) {}
  STime(int hour, int minute, int second, int millisecond,
        STimeZone const& zone = STimeZone::TZ_UTC()) {
    Set(hour, minute, second, millisecond, zone);
  }
  // Raw milliseconds since midnight UTC, wrapped into the day.
  explicit STime(int32_t utcMilliseconds) noexcept;

  void Set(int hour, int minute, int second, int millisecond,
           STimeZone const& zone = STimeZone::TZ_UTC());
  void GetHourMinuteSecond(int& hour, int& minute, int& second,
                           STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetHour(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetMinute(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetSecond() const noexcept;
  int GetMillisecond() const noexcept;
  int32_t GetTotalMilliseconds() const noexcept;
  bool IsValid() const noexcept { return m_ms != InvalidTime; }

  static STime GetCurrentTime();

  // Spans wrap within the day.
  STime operator+(STimeSpan s) const noexcept;
  STime operator-(STimeSpan s) const noexcept;
  STime& operator+=(STimeSpan s) noexcept { return *this = *this + s; }
  STime& operator-=(STimeSpan s) noexcept { return *this = *this - s; }
  STimeSpan operator-(STime const& o) const noexcept;
  auto operator<=>(STime const&) const noexcept = default;
  bool operator==(STime const&) const noexcept = default;

  SAnsiString Format(char const* pattern, STimeZone const& zone = STimeZone::TZ_UTC()) const;

 private:
  bool checkValid() const noexcept;
  // Local milliseconds since midnight in `zone`, using today's offset.
  int32_t localMs(STimeZone const& zone) const;
  int32_t m_ms;

  friend class SDateTime;
};

class SFormatOut;

class QUENLIB_API SDateTime {
 public:
  // Milliseconds since 1970-01-01 UTC of day number d, time t.
  static constexpr int64_t kMsPerDay = STimeSpan::kMsPerDay;

  SDateTime() noexcept = default;
  SDateTime(SDate const& date, STime const& time) noexcept : m_date(date), m_time(time) {}
  SDateTime(int year, int month, int day, int hour, int minute, int second,
            int millisecond, STimeZone const& zone = STimeZone::TZ_UTC());
  // Midnight UTC of the given date moved by `dayOffset` days.
  SDateTime(int year, int month, int day, int32_t dayOffset) noexcept;
  // Seconds since 1970-01-01 UTC; the count is zone-free, so `zone` only
  // documents the caller's intent.
  SDateTime(int64_t secondsSince1970, STimeZone const& zone);
  // Fields of a struct tm (tm_year + 1900, tm_mon + 1, ...) taken in `zone`.
  SDateTime(struct tm const* fields, STimeZone const& zone);
  // Fields of a SYSTEMTIME taken in `zone` (wDayOfWeek is ignored).
  SDateTime(SYSTEMTIME const* fields, STimeZone const& zone);
  // An OLE automation date: days since 1899-12-30 local time in `zone`;
  // the fraction is the time of day, also for negative values.
  SDateTime(double oleDate, STimeZone const& zone);

  // Milliseconds since 1970-01-01 UTC, and back.
  static SDateTime FromUnixMilliseconds(int64_t ms) noexcept;
  int64_t GetUnixMilliseconds() const noexcept;

  bool GetDateTime(int& year, int& month, int& day, int& hour, int& minute, int& second,
                   int& millisecond, STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetYear(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetMonth(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetDay(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetDayOfWeek(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetHour(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetMinute(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  int GetSecond() const noexcept;
  int GetMillisecond() const noexcept;
  SDate GetDate(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  STime GetTime() const noexcept { return m_time; }
  // False (and the structure untouched) for an invalid value.
  bool GetSYSTEMTIME(SYSTEMTIME* out, STimeZone const& zone = STimeZone::TZ_UTC()) const;
  bool GetTm(struct tm* out, STimeZone const& zone = STimeZone::TZ_UTC()) const;
  double GetOleDate(STimeZone const& zone = STimeZone::TZ_UTC()) const;
  // Seconds since 1970-01-01 UTC. `zone` must be the very TZ_Local()
  // instance; any other zone is reported (the result is the same).
  int64_t GetTimeT(STimeZone const& zone) const;
  bool IsValid() const noexcept { return m_date.IsValid() && m_time.IsValid(); }

  static SDateTime GetCurrentDateTime();

  SDateTime operator+(STimeSpan s) const noexcept;
  SDateTime operator-(STimeSpan s) const noexcept { return *this + STimeSpan(-s.GetTotalMilliseconds()); }
  SDateTime& operator+=(STimeSpan s) noexcept { return *this = *this + s; }
  SDateTime& operator-=(STimeSpan s) noexcept { return *this = *this - s; }
  STimeSpan operator-(SDateTime const& o) const noexcept;
  auto operator<=>(SDateTime const&) const noexcept = default;
  bool operator==(SDateTime const&) const noexcept = default;

  SAnsiString Format(char const* pattern, STimeZone const& zone = STimeZone::TZ_UTC()) const;

  // Local calendar fields of an instant in a zone, computed once.
  struct Fields {
    int year, month, day, dayOfWeek, hour, minute, second, millisecond;
    bool hasDate, hasTime;
  };
  Fields GetFields(STimeZone const& zone) const;

  // Sets the instant from local fields in `zone`. A local time that occurs
  // twice (the end of daylight saving) is taken as daylight time; one that
  // does not occur (the start) is taken as standard time.
  void SetLocal(int year, int month, int day, int64_t msOfDay, STimeZone const& zone);

 private:
  bool checkValid() const noexcept;
  int64_t absMs() const noexcept;
  void setAbsMs(int64_t ms) noexcept;
  void setLocalAbs(int64_t localAbs, STimeZone const& zone) noexcept;

  // Field writers of Format: each consumes its run of the pattern at `p`.
  void FormatDay(char const*& p, Fields const& f, SFormatOut& out) const;
  void FormatMonth(char const*& p, Fields const& f, SFormatOut& out) const;
  void FormatYear(char const*& p, Fields const& f, SFormatOut& out) const;
  void FormatEra(char const*& p, Fields const& f, SFormatOut& out) const;
  void Format12Hour(char const*& p, Fields const& f, SFormatOut& out) const;
  void Format24Hour(char const*& p, Fields const& f, SFormatOut& out) const;
  void FormatMinute(char const*& p, Fields const& f, SFormatOut& out) const;
  void FormatSecond(char const*& p, Fields const& f, SFormatOut& out) const;
  void FormatMillisecond(char const*& p, Fields const& f, SFormatOut& out) const;
  void FormatAMPM(char const*& p, Fields const& f, SFormatOut& out) const;
  void FormatLiteral(char const*& p, SFormatOut& out) const;
  static int countChars(char const* p) noexcept;

  SDate m_date;
  STime m_time;

  friend class STimeZone;
};

}  // namespace QuenLibA500
