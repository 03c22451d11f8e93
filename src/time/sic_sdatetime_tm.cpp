// SDateTime to and from struct tm and seconds since 1970 (time_t).
#include <quenlib/sdatetime.h>

#include "diagnostics/assert.h"
#include "time/datetime.h"

namespace QuenLibA500 {

namespace {
// Seconds that keep the day number inside 32 bits either way.
constexpr int64_t kMaxSeconds = int64_t(INT32_MAX - SDate::kUnixEpochDay) * 86400;
constexpr int64_t kMinSeconds = (int64_t(INT32_MIN) + 1 - SDate::kUnixEpochDay) * 86400;
}  // namespace

SDateTime::SDateTime(int64_t secondsSince1970, STimeZone const& /*zone*/) {
  if (secondsSince1970 > kMaxSeconds || secondsSince1970 < kMinSeconds) return;
  setAbsMs(secondsSince1970 * 1000 + dt::kUnixEpochAbsMs);
}

SDateTime::SDateTime(struct tm const* fields, STimeZone const& zone) {
  if (!fields) return;
  int64_t ms = ((int64_t(fields->tm_hour) * 60 + fields->tm_min) * 60 + fields->tm_sec) * 1000;
  SetLocal(fields->tm_year + 1900, fields->tm_mon + 1, fields->tm_mday, ms, zone);
}

bool SDateTime::GetTm(struct tm* out, STimeZone const& zone) const {
  if (!out || !IsValid()) return false;
  Fields f = GetFields(zone);
  *out = tm{};
  out->tm_year = f.year - 1900;
  out->tm_mon = f.month - 1;
  out->tm_mday = f.day;
  out->tm_hour = f.hour;
  out->tm_min = f.minute;
  out->tm_sec = f.second;
  out->tm_wday = f.dayOfWeek;
  out->tm_yday = GetDate(zone).GetDayNumber() - SDate::YMDToJulian(f.year, 1, 1);
  bool dst = zone.InDST(*this);
  out->tm_isdst = dst ? 1 : 0;
  out->tm_gmtoff = -long(zone.UTCOffsetMinutes(*this)) * 60;
  out->tm_zone = "";
  return true;
}

int64_t SDateTime::GetTimeT(STimeZone const& zone) const {
  // The C library's own conversions know only the process zone, so callers
  // must say they mean it by passing the TZ_Local() instance itself.
  if (&zone != &STimeZone::TZ_Local()) QL_REPORT("&tZone == &STimeZone::TZ_Local()", nullptr);
  if (!checkValid()) return 0;
  return dt::FloorDiv(absMs() - dt::kUnixEpochAbsMs, 1000);
}

}  // namespace QuenLibA500
