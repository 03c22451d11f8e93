// Pattern formatting of dates and times, and the localised names it uses.
#include <quenlib/sdatetime.h>
#include <quenlib/sdatetimestring.h>

#include <langinfo.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "time/datetime.h"

namespace QuenLibA500 {

// The text being built: a stack buffer for the usual short results, a
// heap string once that is full. Single bytes and short numbers are stored
// directly; the per-call memcpy was most of the formatting time.
class SFormatOut {
 public:
  void append(char const* s, size_t n) {
    if (m_len + n <= sizeof m_buf) {
      for (size_t i = 0; i < n; ++i) m_buf[m_len + i] = s[i];
      m_len += n;
      return;
    }
    spill();
    m_big.append(s, n);
  }
  void append(SAnsiString const& s) { append(s.getString(), s.getLength()); }
  void put(char c) {
    if (m_len < sizeof m_buf) {
      m_buf[m_len++] = c;
      return;
    }
    spill();
    m_big += c;
  }
  // A number without leading zeros; with `width`, zero-padded to that many
  // digits (a negative number keeps its sign in front).
  void number(int64_t v, int width = 0) {
    if (v >= 0 && v < 100 && width <= 2) {
      if (v >= 10 || width == 2) put(char('0' + v / 10));
      put(char('0' + v % 10));
      return;
    }
    uint64_t u = v < 0 ? uint64_t(0) - uint64_t(v) : uint64_t(v);
    int digits = 1;
    for (uint64_t x = u; x >= 10; x /= 10) ++digits;
    int total = (digits > width ? digits : width) + (v < 0 ? 1 : 0);
    char tmp[48];
    bool direct = m_len + size_t(total) <= sizeof m_buf;
    char* p = (direct ? m_buf + m_len : tmp) + total;  // written backwards
    char* begin = p - total;
    if (u <= 0xFFFFFFFFu) {
      // 32-bit divisions by a constant are a multiply and a shift.
      for (uint32_t w = uint32_t(u); p > begin + total - digits; w /= 10) *--p = char('0' + w % 10);
    } else {
      for (; p > begin + total - digits; u /= 10) *--p = char('0' + u % 10);
    }
    while (p > begin + (v < 0 ? 1 : 0)) *--p = '0';
    if (v < 0) *begin = '-';
    if (direct)
      m_len += size_t(total);
    else
      append(tmp, size_t(total));
  }
  SAnsiString str() const {
    if (!m_spilled) return SAnsiString(m_buf, unsigned(m_len));
    return SAnsiString(m_big.data(), unsigned(m_big.size()));
  }

 private:
  void spill() {
    if (m_spilled) return;
    m_big.assign(m_buf, m_len);
    m_spilled = true;
    m_len = sizeof m_buf + 1;  // never fits again: everything goes to m_big
  }
  char m_buf[128];
  size_t m_len = 0;
  bool m_spilled = false;
  std::string m_big;
};

namespace {

bool IsPatternLetter(char c) noexcept {
  switch (c) {
    case 'd': case 'M': case 'y': case 'g': case 'h':
    case 'H': case 'm': case 's': case 'S': case 't':
      return true;
    default:
      return false;
  }
}

}  // namespace

int SDateTime::countChars(char const* p) noexcept {
  int n = 1;
  while (p[n] == p[0]) ++n;
  return n;
}

SAnsiString SDateTime::Format(char const* pattern, STimeZone const& zone) const {
  if (!pattern) return SAnsiString();
  Fields f = GetFields(zone);
  SFormatOut out;
  char const* p = pattern;
  while (*p) {
    switch (*p) {
      case 'd': FormatDay(p, f, out); break;
      case 'M': FormatMonth(p, f, out); break;
      case 'y': FormatYear(p, f, out); break;
      case 'g': FormatEra(p, f, out); break;
      case 'h': Format12Hour(p, f, out); break;
      case 'H': Format24Hour(p, f, out); break;
      case 'm': FormatMinute(p, f, out); break;
      case 's': FormatSecond(p, f, out); break;
      case 'S': FormatMillisecond(p, f, out); break;
      case 't': FormatAMPM(p, f, out); break;
      default: FormatLiteral(p, out); break;
    }
  }
  return out.str();
}

void SDateTime::FormatDay(char const*& p, Fields const& f, SFormatOut& out) const {
  int n = countChars(p);
  p += n;
  if (!f.hasDate) return;
  if (n <= 2) out.number(f.day, n);
  else out.append(n == 3 ? SDateTimeString::GetShortDay(f.dayOfWeek) : SDateTimeString::GetLongDay(f.dayOfWeek));
}

void SDateTime::FormatMonth(char const*& p, Fields const& f, SFormatOut& out) const {
  int n = countChars(p);
  p += n;
  if (!f.hasDate) return;
  if (n <= 2) out.number(f.month, n);
  else out.append(n == 3 ? SDateTimeString::GetShortMonth(f.month) : SDateTimeString::GetLongMonth(f.month));
}

void SDateTime::FormatYear(char const*& p, Fields const& f, SFormatOut& out) const {
  int n = countChars(p);
  p += n;
  if (!f.hasDate) return;
  if (n <= 2) out.number(f.year % 100, n);
  else out.number(f.year);
}

void SDateTime::FormatEra(char const*& p, Fields const& f, SFormatOut& out) const {
  p += countChars(p);
  if (!f.hasDate) return;
  out.append(SDateTimeString::GetEra(SDate(f.year, f.month, f.day)));
}

void SDateTime::Format12Hour(char const*& p, Fields const& f, SFormatOut& out) const {
  int n = countChars(p);
  p += n;
  if (!f.hasTime) return;
  int h = f.hour % 12;
  out.number(h == 0 ? 12 : h, n == 1 ? 1 : 2);
}

void SDateTime::Format24Hour(char const*& p, Fields const& f, SFormatOut& out) const {
  int n = countChars(p);
  p += n;
  if (f.hasTime) out.number(f.hour, n == 1 ? 1 : 2);
}

void SDateTime::FormatMinute(char const*& p, Fields const& f, SFormatOut& out) const {
  int n = countChars(p);
  p += n;
  if (f.hasTime) out.number(f.minute, n == 1 ? 1 : 2);
}

void SDateTime::FormatSecond(char const*& p, Fields const& f, SFormatOut& out) const {
  int n = countChars(p);
  p += n;
  if (f.hasTime) out.number(f.second, n == 1 ? 1 : 2);
}

void SDateTime::FormatMillisecond(char const*& p, Fields const& f, SFormatOut& out) const {
  int n = countChars(p);
  p += n;
  if (f.hasTime) out.number(f.millisecond, n == 1 ? 1 : 3);
}

void SDateTime::FormatAMPM(char const*& p, Fields const& f, SFormatOut& out) const {
  int n = countChars(p);
  p += n;
  if (!f.hasTime) return;
  bool morning = f.hour < 12;
  out.append(n == 1 ? SDateTimeString::GetShortAM(morning) : SDateTimeString::GetLongAM(morning));
}

// Copies text up to the next pattern letter; quoted runs (single or double
// quotes) are copied without their quotes, letters and all. A quote that is
// never closed copies the rest of the pattern.
void SDateTime::FormatLiteral(char const*& p, SFormatOut& out) const {
  while (*p && !IsPatternLetter(*p)) {
    char c = *p;
    if (c != '\'' && c != '"') {
      out.put(c);
      ++p;
      continue;
    }
    char const* close = std::strchr(p + 1, c);
    char const* stop = close ? close : p + 1 + std::strlen(p + 1);
    out.append(p + 1, size_t(stop - (p + 1)));
    p = close ? close + 1 : stop;
  }
}

SAnsiString SDate::Format(char const* pattern) const {
  return SDateTime(*this, STime()).Format(pattern, STimeZone::TZ_UTC());
}

SAnsiString STime::Format(char const* pattern, STimeZone const& zone) const {
  return SDateTime(SDate(), *this).Format(pattern, zone);
}

// ---- SDateTimeString

namespace {

struct LocaleNames {
  SAnsiString shortDay[7], longDay[7];
  SAnsiString shortMonth[13], longMonth[13];
  SAnsiString shortAM[2], longAM[2];  // [1] morning, [0] afternoon
  SAnsiString era[2];                 // [1] years 1 on, [0] before
};

// The ICU locale id of the thread's LC_TIME locale ("de_DE.UTF-8@euro" ->
// "de_DE"; the C and POSIX locales are ICU's en_US_POSIX).
std::string TimeLocaleName() {
  char const* name = nl_langinfo(_NL_LOCALE_NAME(LC_TIME));
  std::string s = name ? name : "C";
  s = s.substr(0, s.find_first_of(".@"));
  if (s.empty() || s == "C" || s == "POSIX") return "en_US_POSIX";
  return s;
}

// Milliseconds since 1970 UTC of a date and hour, as ICU takes them.
UDate ReferenceDate(int year, int month, int day, int hour) {
  return UDate((int64_t(SDate::YMDToJulian(year, month, day)) - SDate::kUnixEpochDay) * dt::kMsPerDay +
               int64_t(hour) * 3600000);
}

// What a 40-byte buffer can take: a longer name is a failed call, and a
// failed call leaves the name empty.
SAnsiString Fit(SAnsiString const& s) { return s.getLength() < 40 ? s : SAnsiString(); }

class NameFormatter {
 public:
  explicit NameFormatter(icu::Locale const& locale) : m_locale(locale) {}
  SAnsiString format(char const* pattern, UDate when) {
    UErrorCode status = U_ZERO_ERROR;
    icu::SimpleDateFormat fmt(icu::UnicodeString(pattern, -1, US_INV), m_locale, status);
    if (U_FAILURE(status)) return SAnsiString();
    fmt.adoptTimeZone(icu::TimeZone::getGMT()->clone());
    icu::UnicodeString text;
    fmt.format(when, text);
    return Fit(dt::FromUTF16(text.getBuffer(), text.length()));
  }
  // The first character (code point) of a marker: the one-letter form.
  SAnsiString firstChar(char const* pattern, UDate when) {
    UErrorCode status = U_ZERO_ERROR;
    icu::SimpleDateFormat fmt(icu::UnicodeString(pattern, -1, US_INV), m_locale, status);
    if (U_FAILURE(status)) return SAnsiString();
    fmt.adoptTimeZone(icu::TimeZone::getGMT()->clone());
    icu::UnicodeString text;
    fmt.format(when, text);
    if (text.isEmpty()) return SAnsiString();
    int32_t n = U16_IS_LEAD(text.charAt(0)) && text.length() > 1 ? 2 : 1;
    return Fit(dt::FromUTF16(text.getBuffer(), n));
  }

 private:
  icu::Locale m_locale;
};

std::shared_ptr<LocaleNames const> BuildNames(std::string const& id) {
  auto names = std::make_shared<LocaleNames>();
  NameFormatter f{icu::Locale(id.c_str())};
  for (int i = 0; i < 7; ++i) {
    UDate day = ReferenceDate(1999, 8, i + 1, 12);  // 1 August 1999 is a Sunday
    names->shortDay[i] = f.format("EEE", day);
    names->longDay[i] = f.format("EEEE", day);
  }
  for (int m = 1; m <= 12; ++m) {
    UDate first = ReferenceDate(1999, m, 1, 12);
    names->shortMonth[m] = f.format("MMM", first);
    names->longMonth[m] = f.format("MMMM", first);
  }
  for (int morning = 0; morning < 2; ++morning) {
    UDate at = ReferenceDate(1999, 1, 1, morning ? 1 : 13);
    names->longAM[morning] = f.format("a", at);
    names->shortAM[morning] = f.firstChar("a", at);
  }
  names->era[1] = f.format("G", ReferenceDate(1999, 1, 1, 12));
  names->era[0] = f.format("G", ReferenceDate(-100, 1, 1, 12));
  return names;
}

// Names per locale, built on first use of each locale and kept.
std::shared_ptr<LocaleNames const> CurrentNames() {
  static std::mutex lock;
  static std::map<std::string, std::shared_ptr<LocaleNames const>> cache;
  std::string id = TimeLocaleName();
  std::lock_guard<std::mutex> guard(lock);
  auto it = cache.find(id);
  if (it != cache.end()) return it->second;
  return cache[id] = BuildNames(id);
}

}  // namespace

SAnsiString SDateTimeString::GetShortDay(int dayOfWeek) {
  if (dayOfWeek < 0 || dayOfWeek > 6) return SAnsiString();
  return CurrentNames()->shortDay[dayOfWeek];
}

SAnsiString SDateTimeString::GetLongDay(int dayOfWeek) {
  if (dayOfWeek < 0 || dayOfWeek > 6) return SAnsiString();
  return CurrentNames()->longDay[dayOfWeek];
}

SAnsiString SDateTimeString::GetShortMonth(int month) {
  if (month < 1 || month > 12) return SAnsiString();
  return CurrentNames()->shortMonth[month];
}

SAnsiString SDateTimeString::GetLongMonth(int month) {
  if (month < 1 || month > 12) return SAnsiString();
  return CurrentNames()->longMonth[month];
}

SAnsiString SDateTimeString::GetShortAM(bool morning) { return CurrentNames()->shortAM[morning ? 1 : 0]; }

SAnsiString SDateTimeString::GetLongAM(bool morning) { return CurrentNames()->longAM[morning ? 1 : 0]; }

SAnsiString SDateTimeString::GetEra(SDate const& date) {
  if (!date.IsValid()) return SAnsiString();
  return CurrentNames()->era[date.GetDayNumber() >= SDate::YMDToJulian(1, 1, 1) ? 1 : 0];
}

}  // namespace QuenLibA500
