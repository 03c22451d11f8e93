// datetime.h (internal): arithmetic shared by the date and time sources.
//
// Instants are handled as "absolute milliseconds": day number times
// 86,400,000 plus milliseconds of the day. Unlike Unix milliseconds this
// needs no epoch shift when it is split back into a day number.
#pragma once

#include <quenlib/sdatetime.h>

#include <cstdint>

namespace QuenLibA500::dt {

constexpr int64_t kMsPerDay = 86400000;
// Absolute milliseconds of 1970-01-01 00:00 UTC.
constexpr int64_t kUnixEpochAbsMs = int64_t(SDate::kUnixEpochDay) * kMsPerDay;
// Day number of 1899-12-30, day 0 of OLE automation dates.
constexpr int32_t kOleEpochDay = 2415018;

constexpr int64_t FloorDiv(int64_t a, int64_t b) noexcept {
  int64_t q = a / b;
  return (a % b != 0 && ((a < 0) != (b < 0))) ? q - 1 : q;
}

constexpr int64_t FloorMod(int64_t a, int64_t b) noexcept { return a - FloorDiv(a, b) * b; }

// 0 = Sunday for a day number.
constexpr int DayOfWeek(int64_t dayNumber) noexcept {
  return static_cast<int>(FloorMod(dayNumber + 2, 7));
}

// True when a day number can be held by SDate (the invalid marker excluded).
constexpr bool DayInRange(int64_t day) noexcept {
  return day > INT32_MIN && day <= INT32_MAX;
}

// The current time as Unix milliseconds.
int64_t NowUnixMs() noexcept;

}  // namespace QuenLibA500::dt

namespace QuenLibA500::dt {

// Fills `out` from the system's current zone (the TZ variable, else
// /etc/localtime) with the annual rule in force near `nearUnixMs`. False
// when the system zone cannot be read.
bool ReadSystemZone(STimeZone& out, int64_t nearUnixMs);

// UTF-16 text in the current locale's multibyte code set ("?" for what it
// cannot show).
SAnsiString FromUTF16(char16_t const* text, int32_t length);

}  // namespace QuenLibA500::dt
