// Pattern formatting of dates and times, and the localised names it uses.
#include <quenlib/sdatetime.h>
#include <quenlib/sdatetimestring.h>

#include <quenlib/slocaleinfo.h>

#include <cstring>
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

// ---- SDateTimeString: the names of the thread's LC_TIME locale, from the
// one source of locale information.

SAnsiString SDateTimeString::GetShortDay(int dayOfWeek) { return SLocaleInfo::Current().GetShortDay(dayOfWeek); }

SAnsiString SDateTimeString::GetLongDay(int dayOfWeek) { return SLocaleInfo::Current().GetLongDay(dayOfWeek); }

SAnsiString SDateTimeString::GetShortMonth(int month) { return SLocaleInfo::Current().GetShortMonth(month); }

SAnsiString SDateTimeString::GetLongMonth(int month) { return SLocaleInfo::Current().GetLongMonth(month); }

SAnsiString SDateTimeString::GetShortAM(bool morning) { return SLocaleInfo::Current().GetShortAM(morning); }

SAnsiString SDateTimeString::GetLongAM(bool morning) { return SLocaleInfo::Current().GetLongAM(morning); }

SAnsiString SDateTimeString::GetEra(SDate const& date) {
  if (!date.IsValid()) return SAnsiString();
  return SLocaleInfo::Current().GetEra(date.GetDayNumber() >= SDate::YMDToJulian(1, 1, 1));
}

}  // namespace QuenLibA500
