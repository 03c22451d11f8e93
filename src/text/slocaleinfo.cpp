// Locale information from ICU, built once per locale and code set.
#include <quenlib/slocaleinfo.h>

#include <langinfo.h>
#include <unicode/calendar.h>
#include <unicode/datefmt.h>
#include <unicode/dcfmtsym.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/ucnv.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "text/icutext.h"

namespace QuenLibA500 {

struct SLocaleInfo::Data {
  std::string id;
  bool known = false;
  icu::Locale locale;
  std::string codeset;
  SAnsiString displayName;
  SAnsiString decimal, grouping;
  int firstDay = 0;
  SAnsiString datePattern[4], timePattern[4];
  SAnsiString shortDay[7], longDay[7];
  SAnsiString shortMonth[13], longMonth[13];
  SAnsiString shortAM[2], longAM[2];  // [1] morning, [0] afternoon
  SAnsiString era[2];                 // [1] years 1 on, [0] before
};

namespace {

// UTF-16 to the given code set, "?" for what it cannot show; empty when the
// code set is unknown.
SAnsiString ToCodeset(std::string const& codeset, icu::UnicodeString const& text) {
  if (text.isEmpty()) return SAnsiString();
  UErrorCode status = U_ZERO_ERROR;
  UConverter* conv = ucnv_open(codeset.c_str(), &status);
  if (U_FAILURE(status)) return SAnsiString();
  ucnv_setSubstChars(conv, "?", 1, &status);
  status = U_ZERO_ERROR;
  std::vector<char> out(size_t(text.length()) * 4 + 8);
  int32_t n = ucnv_fromUChars(conv, out.data(), int32_t(out.size()), text.getBuffer(), text.length(), &status);
  ucnv_close(conv);
  if (U_FAILURE(status)) return SAnsiString();
  return SAnsiString(out.data(), unsigned(n));
}

std::string CurrentCodeset() {
  char const* cs = nl_langinfo(CODESET);
  return cs ? cs : "ANSI_X3.4-1968";
}

// Days since 1970-01-01 of a proleptic Gregorian date.
int64_t DaysFromCivil(int64_t y, int m, int d) {
  y -= m <= 2 ? 1 : 0;
  int64_t era = (y >= 0 ? y : y - 399) / 400;
  int64_t yoe = y - era * 400;
  int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

UDate ReferenceDate(int year, int month, int day, int hour) {
  return UDate(DaysFromCivil(year, month, day) * 86400000 + int64_t(hour) * 3600000);
}

// What a 40-byte buffer can take: a longer name is a failed call, and a
// failed call leaves the name empty.
SAnsiString Fit(SAnsiString const& s) { return s.getLength() < 40 ? s : SAnsiString(); }

class NameFormatter {
 public:
  NameFormatter(icu::Locale const& locale, std::string const& codeset) : m_locale(locale), m_codeset(codeset) {}
  icu::UnicodeString raw(char const* pattern, UDate when) const {
    UErrorCode status = U_ZERO_ERROR;
    icu::SimpleDateFormat fmt(icu::UnicodeString(pattern, -1, US_INV), m_locale, status);
    if (U_FAILURE(status)) return {};
    fmt.adoptTimeZone(icu::TimeZone::getGMT()->clone());
    icu::UnicodeString text;
    fmt.format(when, text);
    return text;
  }
  SAnsiString format(char const* pattern, UDate when) const { return Fit(ToCodeset(m_codeset, raw(pattern, when))); }
  // The first character (code point) of a marker: the one-letter form.
  SAnsiString firstChar(char const* pattern, UDate when) const {
    icu::UnicodeString text = raw(pattern, when);
    if (text.isEmpty()) return SAnsiString();
    int32_t n = U16_IS_LEAD(text.charAt(0)) && text.length() > 1 ? 2 : 1;
    return Fit(ToCodeset(m_codeset, text.tempSubString(0, n)));
  }

 private:
  icu::Locale m_locale;
  std::string m_codeset;
};

void FillNames(SLocaleInfo::Data& d) {
  NameFormatter f(d.locale, d.codeset);
  for (int i = 0; i < 7; ++i) {
    UDate day = ReferenceDate(1999, 8, i + 1, 12);  // 1 August 1999 is a Sunday
    d.shortDay[i] = f.format("EEE", day);
    d.longDay[i] = f.format("EEEE", day);
  }
  for (int m = 1; m <= 12; ++m) {
    UDate first = ReferenceDate(1999, m, 1, 12);
    d.shortMonth[m] = f.format("MMM", first);
    d.longMonth[m] = f.format("MMMM", first);
  }
  for (int morning = 0; morning < 2; ++morning) {
    UDate at = ReferenceDate(1999, 1, 1, morning ? 1 : 13);
    d.longAM[morning] = f.format("a", at);
    d.shortAM[morning] = f.firstChar("a", at);
  }
  d.era[1] = f.format("G", ReferenceDate(1999, 1, 1, 12));
  d.era[0] = f.format("G", ReferenceDate(-100, 1, 1, 12));
}

SAnsiString PatternOf(icu::DateFormat* fmt, std::string const& codeset) {
  if (!fmt) return SAnsiString();
  std::unique_ptr<icu::DateFormat> owned(fmt);
  auto* simple = dynamic_cast<icu::SimpleDateFormat*>(fmt);
  if (!simple) return SAnsiString();
  icu::UnicodeString pattern;
  simple->toPattern(pattern);
  return ToCodeset(codeset, pattern);
}

void FillFormats(SLocaleInfo::Data& d) {
  static constexpr icu::DateFormat::EStyle kStyles[4] = {icu::DateFormat::kShort, icu::DateFormat::kMedium,
                                                         icu::DateFormat::kLong, icu::DateFormat::kFull};
  for (int s = 0; s < 4; ++s) {
    d.datePattern[s] = PatternOf(icu::DateFormat::createDateInstance(kStyles[s], d.locale), d.codeset);
    d.timePattern[s] = PatternOf(icu::DateFormat::createTimeInstance(kStyles[s], d.locale), d.codeset);
  }
  UErrorCode status = U_ZERO_ERROR;
  icu::DecimalFormatSymbols symbols(d.locale, status);
  if (U_SUCCESS(status)) {
    d.decimal = ToCodeset(d.codeset, symbols.getSymbol(icu::DecimalFormatSymbols::kDecimalSeparatorSymbol));
    d.grouping = ToCodeset(d.codeset, symbols.getSymbol(icu::DecimalFormatSymbols::kGroupingSeparatorSymbol));
  }
  status = U_ZERO_ERROR;
  std::unique_ptr<icu::Calendar> cal(icu::Calendar::createInstance(d.locale, status));
  if (U_SUCCESS(status) && cal) d.firstDay = int(cal->getFirstDayOfWeek(status)) - 1;  // ICU counts Sunday as 1
}

std::shared_ptr<SLocaleInfo::Data const> Build(std::string const& id, std::string const& codeset) {
  auto d = std::make_shared<SLocaleInfo::Data>();
  d->id = id;
  d->codeset = codeset;
  d->locale = icu::Locale(id.c_str());
  // ICU's available locales list every language it has data for.
  int32_t count = 0;
  icu::Locale const* all = icu::Locale::getAvailableLocales(count);
  for (int32_t i = 0; i < count && !d->known; ++i)
    d->known = std::strcmp(all[i].getLanguage(), d->locale.getLanguage()) == 0;
  icu::UnicodeString name;
  d->locale.getDisplayName(d->locale, name);
  d->displayName = ToCodeset(codeset, name);
  FillNames(*d);
  FillFormats(*d);
  return d;
}

// Built on first use of each locale and code set, then kept.
std::shared_ptr<SLocaleInfo::Data const> Lookup(std::string const& id) {
  static std::mutex lock;
  static std::map<std::pair<std::string, std::string>, std::shared_ptr<SLocaleInfo::Data const>> cache;
  auto key = std::make_pair(id, CurrentCodeset());
  std::lock_guard<std::mutex> guard(lock);
  auto it = cache.find(key);
  if (it != cache.end()) return it->second;
  return cache[key] = Build(key.first, key.second);
}

std::string TimeLocaleName() {
  char const* name = nl_langinfo(_NL_LOCALE_NAME(LC_TIME));
  std::string s = name ? name : "C";
  s = s.substr(0, s.find_first_of(".@"));
  if (s.empty() || s == "C" || s == "POSIX") return "en_US_POSIX";
  return s;
}

}  // namespace

SAnsiString icutext::ToLocaleText(char16_t const* text, int32_t length) {
  if (!text || length <= 0) return SAnsiString();
  return ToCodeset(CurrentCodeset(), icu::UnicodeString(false, text, length));
}

SLocaleInfo::SLocaleInfo(char const* localeId) : m_data(Lookup(localeId ? localeId : "")) {}

SLocaleInfo SLocaleInfo::Current() { return SLocaleInfo(TimeLocaleName().c_str()); }

SAnsiString SLocaleInfo::GetId() const { return SAnsiString(m_data->id.c_str()); }
bool SLocaleInfo::IsKnown() const { return m_data->known; }
SAnsiString SLocaleInfo::GetDisplayName() const { return m_data->displayName; }

SAnsiString SLocaleInfo::GetDisplayNameIn(char const* inLocaleId) const {
  icu::UnicodeString name;
  m_data->locale.getDisplayName(icu::Locale(inLocaleId ? inLocaleId : ""), name);
  return ToCodeset(CurrentCodeset(), name);
}

SAnsiString SLocaleInfo::GetDecimalSeparator() const { return m_data->decimal; }
SAnsiString SLocaleInfo::GetGroupingSeparator() const { return m_data->grouping; }
int SLocaleInfo::GetFirstDayOfWeek() const { return m_data->firstDay; }

SAnsiString SLocaleInfo::GetDatePattern(Style style) const {
  return style >= Short && style <= Full ? m_data->datePattern[style] : SAnsiString();
}

SAnsiString SLocaleInfo::GetTimePattern(Style style) const {
  return style >= Short && style <= Full ? m_data->timePattern[style] : SAnsiString();
}

SAnsiString SLocaleInfo::GetShortDay(int dayOfWeek) const {
  return dayOfWeek >= 0 && dayOfWeek <= 6 ? m_data->shortDay[dayOfWeek] : SAnsiString();
}

SAnsiString SLocaleInfo::GetLongDay(int dayOfWeek) const {
  return dayOfWeek >= 0 && dayOfWeek <= 6 ? m_data->longDay[dayOfWeek] : SAnsiString();
}

SAnsiString SLocaleInfo::GetShortMonth(int month) const {
  return month >= 1 && month <= 12 ? m_data->shortMonth[month] : SAnsiString();
}

SAnsiString SLocaleInfo::GetLongMonth(int month) const {
  return month >= 1 && month <= 12 ? m_data->longMonth[month] : SAnsiString();
}

SAnsiString SLocaleInfo::GetShortAM(bool morning) const { return m_data->shortAM[morning ? 1 : 0]; }
SAnsiString SLocaleInfo::GetLongAM(bool morning) const { return m_data->longAM[morning ? 1 : 0]; }
SAnsiString SLocaleInfo::GetEra(bool commonEra) const { return m_data->era[commonEra ? 1 : 0]; }

}  // namespace QuenLibA500
