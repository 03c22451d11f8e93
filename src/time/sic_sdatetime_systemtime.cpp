// SDateTime to and from SYSTEMTIME fields and OLE automation dates.
#include <quenlib/sdatetime.h>

#include <cmath>

#include "diagnostics/assert.h"
#include "time/datetime.h"

namespace QuenLibA500 {

SDateTime::SDateTime(SYSTEMTIME const* st, STimeZone const& zone) {
  if (!st) return;
  QL_ASSERT(st->wMilliseconds < 1000);
  int64_t ms = ((int64_t(st->wHour) * 60 + st->wMinute) * 60 + st->wSecond) * 1000 + st->wMilliseconds;
  SetLocal(st->wYear, st->wMonth, st->wDay, ms, zone);
}

bool SDateTime::GetSYSTEMTIME(SYSTEMTIME* out, STimeZone const& zone) const {
  if (!out || !IsValid()) return false;
  Fields f = GetFields(zone);
  out->wYear = static_cast<uint16_t>(f.year);
  out->wMonth = static_cast<uint16_t>(f.month);
  out->wDayOfWeek = static_cast<uint16_t>(f.dayOfWeek);
  out->wDay = static_cast<uint16_t>(f.day);
  out->wHour = static_cast<uint16_t>(f.hour);
  out->wMinute = static_cast<uint16_t>(f.minute);
  out->wSecond = static_cast<uint16_t>(f.second);
  out->wMilliseconds = static_cast<uint16_t>(f.millisecond);
  return true;
}

// OLE dates count days from 1899-12-30; the integer part is the date and the
// fraction's magnitude the time of day, so -1.25 is 1899-12-29 06:00.
SDateTime::SDateTime(double oleDate, STimeZone const& zone) {
  // About +-5.8 million years: beyond that no SDate can hold the day.
  if (!std::isfinite(oleDate) || std::fabs(oleDate) > 2.0e9) return;
  double whole = std::trunc(oleDate);
  int64_t msOfDay = std::llround(std::fabs(oleDate - whole) * double(dt::kMsPerDay));
  int64_t day = int64_t(dt::kOleEpochDay) + static_cast<int64_t>(whole);
  if (!dt::DayInRange(day)) return;
  setLocalAbs(day * dt::kMsPerDay + msOfDay, zone);
}

double SDateTime::GetOleDate(STimeZone const& zone) const {
  if (!checkValid()) return 0.0;
  int64_t local = absMs() - int64_t(zone.UTCOffsetMinutes(*this)) * 60000 -
                  int64_t(dt::kOleEpochDay) * dt::kMsPerDay;
  int64_t days = dt::FloorDiv(local, dt::kMsPerDay);
  double fraction = double(local - days * dt::kMsPerDay) / double(dt::kMsPerDay);
  return days >= 0 ? double(days) + fraction : double(days) - fraction;
}

}  // namespace QuenLibA500
