// STimeSpan, STime and the core of SDateTime: construction from local
// fields in a zone, field extraction, arithmetic and the current time.
#include <quenlib/sdatetime.h>

#include <time.h>

#include "diagnostics/assert.h"
#include "time/datetime.h"

namespace QuenLibA500 {

int64_t dt::NowUnixMs() noexcept {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// ---- STimeSpan

void STimeSpan::Set(int32_t days, int32_t hours, int32_t minutes, int32_t seconds,
                    int32_t milliseconds) noexcept {
  m_ms = (((int64_t(days) * 24 + hours) * 60 + minutes) * 60 + seconds) * 1000 + milliseconds;
}

// ---- STime

namespace {

int32_t WrapDay(int64_t ms) noexcept { return static_cast<int32_t>(dt::FloorMod(ms, dt::kMsPerDay)); }

// The offset of `zone` now, in milliseconds: a time of day has no date of
// its own, so it takes the offset of the current day.
int64_t OffsetNowMs(STimeZone const& zone) {
  if (!zone.DSTEnabled()) return int64_t(zone.StandardOffset()) * 60000;
  return int64_t(zone.UTCOffsetMinutes(SDateTime::GetCurrentDateTime())) * 60000;
}

}  // namespace

STime::STime(int32_t utcMilliseconds) noexcept
    : m_ms(utcMilliseconds == InvalidTime ? InvalidTime : WrapDay(utcMilliseconds)) {}

void STime::Set(int hour, int minute, int second, int millisecond, STimeZone const& zone) {
  QL_ASSERT(millisecond < 1000);
  int64_t local = ((int64_t(hour) * 60 + minute) * 60 + second) * 1000 + millisecond;
  m_ms = WrapDay(local + OffsetNowMs(zone));
}

bool STime::checkValid() const noexcept {
  if (IsValid()) return true;
  QL_ASSERT(IsValid());
  return false;
}

int32_t STime::localMs(STimeZone const& zone) const { return WrapDay(m_ms - OffsetNowMs(zone)); }

void STime::GetHourMinuteSecond(int& hour, int& minute, int& second, STimeZone const& zone) const {
  if (!checkValid()) {
    hour = minute = second = 0;
    return;
  }
  int32_t ms = localMs(zone);
  hour = ms / 3600000;
  minute = ms / 60000 % 60;
  second = ms / 1000 % 60;
}

int STime::GetHour(STimeZone const& zone) const {
  if (!checkValid()) return 0;
  return localMs(zone) / 3600000;
}

int STime::GetMinute(STimeZone const& zone) const {
  if (!checkValid()) return 0;
  return localMs(zone) / 60000 % 60;
}

// Offsets are whole minutes, so seconds and milliseconds need no zone.
int STime::GetSecond() const noexcept { return checkValid() ? m_ms / 1000 % 60 : 0; }
int STime::GetMillisecond() const noexcept { return checkValid() ? m_ms % 1000 : 0; }
int32_t STime::GetTotalMilliseconds() const noexcept { return checkValid() ? m_ms : 0; }

STime STime::GetCurrentTime() { return STime(WrapDay(dt::NowUnixMs())); }

STime STime::operator+(STimeSpan s) const noexcept {
  if (!IsValid()) return *this;
  return STime(WrapDay(m_ms + dt::FloorMod(s.GetTotalMilliseconds(), dt::kMsPerDay)));
}

STime STime::operator-(STimeSpan s) const noexcept {
  if (!IsValid()) return *this;
  return STime(WrapDay(m_ms - dt::FloorMod(s.GetTotalMilliseconds(), dt::kMsPerDay)));
}

STimeSpan STime::operator-(STime const& o) const noexcept { return STimeSpan(int64_t(m_ms) - o.m_ms); }

// ---- SDateTime

int64_t SDateTime::absMs() const noexcept {
  return int64_t(m_date.GetDayNumber()) * dt::kMsPerDay + m_time.m_ms;
}

void SDateTime::setAbsMs(int64_t ms) noexcept {
  int64_t day = dt::FloorDiv(ms, dt::kMsPerDay);
  if (!dt::DayInRange(day)) {
    *this = SDateTime();
    return;
  }
  m_date = SDate::FromDayNumber(static_cast<int32_t>(day));
  m_time = STime(static_cast<int32_t>(ms - day * dt::kMsPerDay));
}

void SDateTime::setLocalAbs(int64_t localAbs, STimeZone const& zone) noexcept {
  int64_t standard = localAbs + int64_t(zone.m_standardOffset) * 60000;
  if (!zone.m_dstEnabled) {
    setAbsMs(standard);
    return;
  }
  // A local time seen twice is taken as daylight time; one never seen (the
  // hour skipped at the start) as standard time.
  int64_t daylight = localAbs + int64_t(zone.m_daylightOffset) * 60000;
  setAbsMs(zone.inDSTAt(daylight) ? daylight : standard);
}

void SDateTime::SetLocal(int year, int month, int day, int64_t msOfDay, STimeZone const& zone) {
  int32_t dayNumber = SDate::YMDToJulian(year, month, day);
  if (dayNumber == SDate::InvalidDate) {
    *this = SDateTime();
    return;
  }
  setLocalAbs(int64_t(dayNumber) * dt::kMsPerDay + msOfDay, zone);
}

SDateTime::SDateTime(int year, int month, int day, int hour, int minute, int second,
                     int millisecond, STimeZone const& zone) {
  QL_ASSERT(millisecond < 1000);
  int64_t ms = ((int64_t(hour) * 60 + minute) * 60 + second) * 1000 + millisecond;
  SetLocal(year, month, day, ms, zone);
}

SDateTime::SDateTime(int year, int month, int day, int32_t dayOffset) noexcept
    : m_date(year, month, day, dayOffset), m_time(m_date.IsValid() ? STime(0) : STime()) {}

SDateTime SDateTime::FromUnixMilliseconds(int64_t ms) noexcept {
  SDateTime t;
  if (ms > INT64_MAX - dt::kUnixEpochAbsMs) return t;
  t.setAbsMs(ms + dt::kUnixEpochAbsMs);
  return t;
}

int64_t SDateTime::GetUnixMilliseconds() const noexcept {
  if (!checkValid()) return 0;
  return absMs() - dt::kUnixEpochAbsMs;
}

bool SDateTime::checkValid() const noexcept {
  if (IsValid()) return true;
  QL_ASSERT(IsValid());
  return false;
}

SDateTime::Fields SDateTime::GetFields(STimeZone const& zone) const {
  Fields f{};
  f.hasDate = m_date.IsValid();
  f.hasTime = m_time.IsValid();
  if (f.hasDate && f.hasTime) {
    int64_t local = absMs() - int64_t(zone.UTCOffsetMinutes(*this)) * 60000;
    int64_t day = dt::FloorDiv(local, dt::kMsPerDay);
    int32_t ms = static_cast<int32_t>(local - day * dt::kMsPerDay);
    if (!dt::DayInRange(day)) day = m_date.GetDayNumber();  // keep the UTC date at the very edge
    SDate::JulianToYMD(static_cast<int32_t>(day), f.year, f.month, f.day);
    f.dayOfWeek = dt::DayOfWeek(day);
    f.hour = ms / 3600000;
    f.minute = ms / 60000 % 60;
    f.second = ms / 1000 % 60;
    f.millisecond = ms % 1000;
    return f;
  }
  // A lone date has no time to shift it; a lone time shifts by today's offset.
  if (f.hasDate) {
    SDate::JulianToYMD(m_date.GetDayNumber(), f.year, f.month, f.day);
    f.dayOfWeek = dt::DayOfWeek(m_date.GetDayNumber());
  }
  if (f.hasTime) {
    int32_t ms = m_time.localMs(zone);
    f.hour = ms / 3600000;
    f.minute = ms / 60000 % 60;
    f.second = ms / 1000 % 60;
    f.millisecond = ms % 1000;
  }
  return f;
}

bool SDateTime::GetDateTime(int& year, int& month, int& day, int& hour, int& minute,
                            int& second, int& millisecond, STimeZone const& zone) const {
  Fields f{};
  if (checkValid()) f = GetFields(zone);
  year = f.year;
  month = f.month;
  day = f.day;
  hour = f.hour;
  minute = f.minute;
  second = f.second;
  millisecond = f.millisecond;
  return IsValid();
}

int SDateTime::GetYear(STimeZone const& zone) const { return checkValid() ? GetFields(zone).year : 0; }
int SDateTime::GetMonth(STimeZone const& zone) const { return checkValid() ? GetFields(zone).month : 0; }
int SDateTime::GetDay(STimeZone const& zone) const { return checkValid() ? GetFields(zone).day : 0; }
int SDateTime::GetDayOfWeek(STimeZone const& zone) const {
  return checkValid() ? GetFields(zone).dayOfWeek : 0;
}
int SDateTime::GetHour(STimeZone const& zone) const { return checkValid() ? GetFields(zone).hour : 0; }
int SDateTime::GetMinute(STimeZone const& zone) const { return checkValid() ? GetFields(zone).minute : 0; }
int SDateTime::GetSecond() const noexcept { return m_time.GetSecond(); }
int SDateTime::GetMillisecond() const noexcept { return m_time.GetMillisecond(); }

SDate SDateTime::GetDate(STimeZone const& zone) const {
  if (!checkValid()) return SDate();
  int64_t local = absMs() - int64_t(zone.UTCOffsetMinutes(*this)) * 60000;
  int64_t day = dt::FloorDiv(local, dt::kMsPerDay);
  return SDate::FromDayNumber(dt::DayInRange(day) ? static_cast<int32_t>(day) : SDate::InvalidDate);
}

SDateTime SDateTime::GetCurrentDateTime() { return FromUnixMilliseconds(dt::NowUnixMs()); }

SDateTime SDateTime::operator+(STimeSpan s) const noexcept {
  if (!IsValid()) return *this;
  int64_t sum;
  SDateTime r;
  if (__builtin_add_overflow(absMs(), s.GetTotalMilliseconds(), &sum)) return r;
  r.setAbsMs(sum);
  return r;
}

STimeSpan SDateTime::operator-(SDateTime const& o) const noexcept {
  return STimeSpan(absMs() - o.absMs());
}

}  // namespace QuenLibA500
