// The system's current time zone through ICU, reduced to the one annual
// rule that STimeZone can hold.
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>

#include <langinfo.h>
#include <unicode/basictz.h>
#include <unicode/dtrule.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/tzrule.h>
#include <unicode/ucnv.h>

#include <memory>
#include <vector>

#include "time/datetime.h"

namespace QuenLibA500 {

SAnsiString dt::FromUTF16(char16_t const* text, int32_t length) {
  if (length <= 0) return SAnsiString();
  UErrorCode status = U_ZERO_ERROR;
  UConverter* conv = ucnv_open(nl_langinfo(CODESET), &status);
  if (U_FAILURE(status)) return SAnsiString();
  ucnv_setSubstChars(conv, "?", 1, &status);
  status = U_ZERO_ERROR;
  std::vector<char> out(size_t(length) * 4 + 8);
  int32_t n = ucnv_fromUChars(conv, out.data(), int32_t(out.size()), text, length, &status);
  ucnv_close(conv);
  if (U_FAILURE(status)) return SAnsiString();
  return SAnsiString(out.data(), unsigned(n));
}

namespace {

SAnsiString FromICU(icu::UnicodeString const& s) { return dt::FromUTF16(s.getBuffer(), s.length()); }

int CommonMonthLength(int month) {
  static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kDays[month - 1];
}

// One ICU date rule as month, week of month and weekday. Rules that name a
// fixed day of the month, or a weekday on or after a day that does not start
// a week, have no exact week form; they are approximated by the week that
// holds that day (this year's weekday for a fixed day).
STimeZoneTransition ToTransition(icu::DateTimeRule const& rule, int localMinutes, int nearYear) {
  int month = rule.getRuleMonth() + 1;
  int dom = rule.getRuleDayOfMonth();
  int dow = rule.getRuleDayOfWeek() - 1;  // ICU counts 1 = Sunday
  int dayShift = static_cast<int>(dt::FloorDiv(localMinutes, 1440));
  localMinutes = static_cast<int>(dt::FloorMod(localMinutes, 1440));
  int week = 1;
  switch (rule.getDateRuleType()) {
    case icu::DateTimeRule::DOW: {
      int ordinal = rule.getRuleWeekInMonth();
      week = ordinal > 0 ? (ordinal > 5 ? 5 : ordinal) : 5;
      break;
    }
    case icu::DateTimeRule::DOW_GEQ_DOM:
      week = dom + 6 >= CommonMonthLength(month) ? 5 : (dom - 1) / 7 + 1;
      break;
    case icu::DateTimeRule::DOW_LEQ_DOM:
      week = dom >= CommonMonthLength(month) ? 5 : (dom < 7 ? 1 : (dom - 7) / 7 + 1);
      break;
    case icu::DateTimeRule::DOM:
      week = (dom - 1) / 7 + 1;
      dow = SDate(nearYear, month, dom).GetDayOfWeek();
      break;
  }
  dow = static_cast<int>(dt::FloorMod(dow + dayShift, 7));
  return STimeZoneTransition{uint8_t(month), uint8_t(week), uint8_t(dow), uint8_t(localMinutes / 60),
                             uint8_t(localMinutes % 60)};
}

// Minutes of the local day of a rule's time: standard time for the start,
// daylight time for the end.
int LocalMinutes(icu::DateTimeRule const& rule, int32_t rawMs, int32_t savingsMs, bool daylight) {
  int64_t ms = rule.getRuleMillisInDay();
  switch (rule.getTimeRuleType()) {
    case icu::DateTimeRule::WALL_TIME: break;
    case icu::DateTimeRule::STANDARD_TIME: ms += daylight ? savingsMs : 0; break;
    case icu::DateTimeRule::UTC_TIME: ms += rawMs + (daylight ? savingsMs : 0); break;
  }
  return static_cast<int>(dt::FloorDiv(ms, 60000));
}

}  // namespace

bool dt::ReadSystemZone(STimeZone& out, int64_t nearUnixMs) {
  std::unique_ptr<icu::TimeZone> tz(icu::TimeZone::detectHostTimeZone());
  if (!tz) return false;
  icu::Locale const& locale = icu::Locale::getDefault();
  icu::UnicodeString standardName, daylightName;
  tz->getDisplayName(false, icu::TimeZone::LONG, locale, standardName);
  tz->getDisplayName(true, icu::TimeZone::LONG, locale, daylightName);

  UErrorCode status = U_ZERO_ERROR;
  int32_t raw = 0, dst = 0;
  tz->getOffset(UDate(nearUnixMs), false, raw, dst, status);
  if (U_FAILURE(status)) return false;

  auto* basic = dynamic_cast<icu::BasicTimeZone*>(tz.get());
  icu::InitialTimeZoneRule* initial = nullptr;
  icu::AnnualTimeZoneRule* stdRule = nullptr;
  icu::AnnualTimeZoneRule* dstRule = nullptr;
  if (basic) basic->getSimpleRulesNear(UDate(nearUnixMs), initial, stdRule, dstRule, status);
  std::unique_ptr<icu::InitialTimeZoneRule> ownInitial(initial);
  std::unique_ptr<icu::AnnualTimeZoneRule> ownStd(stdRule), ownDst(dstRule);

  STimeZoneTransition start{}, end{};
  bool annual = U_SUCCESS(status) && stdRule && dstRule;
  if (!annual) {
    // No annual rule: a fixed offset (whatever is in force now).
    short bias = static_cast<short>(-(raw + dst) / 60000);
    out.SetFields(FromICU(standardName), bias, SAnsiString(), bias, false, start, end);
    return true;
  }
  int32_t rawMs = stdRule->getRawOffset();
  int32_t savings = dstRule->getDSTSavings();
  int year, month, day;
  SDate::JulianToYMD(static_cast<int32_t>(dt::FloorDiv(nearUnixMs, dt::kMsPerDay) + SDate::kUnixEpochDay), year,
                     month, day);
  icu::DateTimeRule const* startRule = dstRule->getRule();
  icu::DateTimeRule const* endRule = stdRule->getRule();
  start = ToTransition(*startRule, LocalMinutes(*startRule, rawMs, savings, false), year);
  end = ToTransition(*endRule, LocalMinutes(*endRule, rawMs, savings, true), year);
  out.SetFields(FromICU(standardName), static_cast<short>(-rawMs / 60000), FromICU(daylightName),
                static_cast<short>(-(rawMs + savings) / 60000), true, start, end);
  return true;
}

}  // namespace QuenLibA500
