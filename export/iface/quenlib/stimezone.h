// stimezone.h: time zones with one annual daylight-saving rule.
//
// An `STimeZone` holds a standard offset and, optionally, a daylight offset
// with the rule that says when daylight saving starts and ends each year
// (month, week of the month, day of the week, hour and minute). Offsets are
// biases in minutes: UTC = local time + offset, so zones west of Greenwich
// have positive offsets (New York is 300 in winter).
//
// Zones come from the system (`TZ_Local()`), from `TZ_UTC()`, from an offset
// and a daylight flag, or from a compact rules text:
//
//   STimeZone ny("EST,300 EDT");                      // US default rule
//   STimeZone berlin("CET,-60 CEST;3,5,0/2,0,10,5,0/3,0");
//   SDateTime t(2024, 7, 1, 12, 0, 0, 0, STimeZone::TZ_UTC());
//   berlin.InDST(t);                                  // true
//   berlin.UTCOffset(t).GetTotalMinutes();            // -120
//   berlin.GetName(t);                                // "CEST"
//   SAnsiString text = berlin.GetRules();             // parses back equal
//
// Rules text grammar: `STD,OFFSET [DST[,DELTA]][;SM,SW,SD[/SH,SMIN],EM,EW,ED[/EH,EMIN]]`.
// DELTA is added to OFFSET to give the daylight offset (default -60). Week
// 5 means the last such weekday; day of week 0 is Sunday. Start times are
// local standard time, end times local daylight time; a missing time is
// 2:00. Without ";" the rule is the second Sunday of March to the first
// Sunday of November. A rule whose numbers are out of range (month outside
// 1..12, week outside 1..5, day outside 0..6, time past 24:00) disables
// daylight saving: every text gives a usable zone.
//
// `TZ_Local()` and `TZ_UTC()` are built once per process and then shared
// read-only by every thread; `GetTimeT` insists on the very `TZ_Local()`
// instance. All other zones are plain values.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <atomic>
#include <cstdint>

namespace QuenLibA500 {

class SDateTime;
class STimeSpan;

// One end of the daylight-saving period, in the week-of-month form.
struct STimeZoneTransition {
  uint8_t month = 0;      // 1..12
  uint8_t week = 0;       // 1..5, 5 = last
  uint8_t dayOfWeek = 0;  // 0 = Sunday .. 6 = Saturday
  uint8_t hour = 0;
  uint8_t minute = 0;

  bool operator==(STimeZoneTransition const&) const = default;
};

class QUENLIB_API STimeZone {
 public:
  // A zone `offset` minutes west of UTC; with `dst`, daylight saving one hour
  // ahead under the default rule. Both names are empty.
  explicit STimeZone(short offset = 0, bool dst = false);
  STimeZone(STimeZone const& other);
  // Parses a rules text (grammar above); the empty text gives the system's
  // current zone, as TZ_Local() does.
  explicit STimeZone(SAnsiString const& rules);
  explicit STimeZone(char const* rules) : STimeZone(SAnsiString(rules)) {}
  STimeZone& operator=(STimeZone const& other);
  ~STimeZone();

  // The process-wide zones, created on first use.
  static STimeZone const& TZ_Local();
  static STimeZone const& TZ_UTC();

  // The bias in force at `when`: UTC = local time + this value.
  STimeSpan UTCOffset(SDateTime const& when) const;
  // Daylight offset in minutes, or the standard one outside daylight saving.
  int32_t UTCOffsetMinutes(SDateTime const& when) const;
  bool InDST(SDateTime const& when) const;
  bool DSTEnabled() const noexcept { return m_dstEnabled; }
  short StandardOffset() const noexcept { return m_standardOffset; }
  short DaylightOffset() const noexcept { return m_daylightOffset; }
  // The daylight name while daylight saving is in force, else the standard one.
  SAnsiString GetName(SDateTime const& when) const;
  SAnsiString const& StandardName() const noexcept { return m_standardName; }
  SAnsiString const& DaylightName() const noexcept { return m_daylightName; }
  STimeZoneTransition const& DSTStart() const noexcept { return m_start; }
  STimeZoneTransition const& DSTEnd() const noexcept { return m_end; }
  // The zone as a rules text that parses back to an equal zone.
  SAnsiString GetRules() const;

  // Zones are equal when they behave the same and show the same names; the
  // daylight fields of zones without daylight saving are not compared.
  bool operator==(STimeZone const& other) const noexcept;
  bool operator!=(STimeZone const& other) const noexcept { return !(*this == other); }

  // The start and end of daylight saving in `year` as milliseconds since
  // 1970-01-01 UTC (meaningful only when DSTEnabled()).
  int64_t DSTStartUTC(int year) const noexcept;
  int64_t DSTEndUTC(int year) const noexcept;

  // Builds a zone from its parts; used by the system-zone reader.
  void SetFields(SAnsiString const& standardName, short standardOffset,
                 SAnsiString const& daylightName, short daylightOffset,
                 bool dstEnabled, STimeZoneTransition const& start,
                 STimeZoneTransition const& end);

 private:
  void parseRules(char const* text);
  void setDefaultRule() noexcept;
  void disableDST() noexcept;
  bool inDSTAt(int64_t utcMs) const noexcept;
  void resetCache() noexcept;

  // The daylight-saving period of the last year asked for, kept because
  // callers mostly ask about nearby instants. A sequence lock keeps readers
  // on other threads consistent: an odd sequence means a write is under way.
  struct YearCache {
    std::atomic<uint32_t> seq{0};
    std::atomic<int64_t> from{1}, to{0};  // the year, in UTC; empty at first
    std::atomic<int64_t> start{0}, end{0};
  };

  SAnsiString m_standardName;
  short m_standardOffset = 0;
  SAnsiString m_daylightName;
  short m_daylightOffset = 0;
  bool m_dstEnabled = false;
  STimeZoneTransition m_start;
  STimeZoneTransition m_end;
  mutable YearCache m_cache;

  friend class SDateTime;
};

}  // namespace QuenLibA500
