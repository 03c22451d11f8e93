// STimeZone: the rules text, the daylight-saving test and the process-wide
// zones.
#include <quenlib/stimezone.h>

#include <quenlib/sdatetime.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "diagnostics/assert.h"
#include "time/datetime.h"

namespace QuenLibA500 {

namespace {

constexpr STimeZoneTransition kDefaultStart{3, 2, 0, 2, 0};
constexpr STimeZoneTransition kDefaultEnd{11, 1, 0, 2, 0};

bool IsBlank(char c) noexcept { return c == ' ' || c == '\t'; }
bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }

void SkipBlanks(char const*& p, char const* end) noexcept {
  while (p < end && IsBlank(*p)) ++p;
}

// A decimal number of a 16-bit field with an optional leading minus sign.
// No digits reads as 0; a value beyond 16 bits is refused and reads as 0.
short ReadShort(char const*& p, char const* end) noexcept {
  bool negative = p < end && *p == '-';
  if (negative) ++p;
  int32_t value = 0;
  bool overflow = false;
  for (; p < end && IsDigit(*p); ++p) {
    value = value * 10 + (*p - '0');
    if (value > 0x8000) {
      overflow = true;
      value = 0x8000;
    }
  }
  if (overflow || value > (negative ? 0x8000 : 0x7FFF)) return 0;
  return static_cast<short>(negative ? -value : value);
}

// One number of the rule, with whether a "/" stood among the separators
// before it. Negative numbers are kept negative so that they fail the range
// check; runs of digits saturate at 1000, far above any valid field.
struct RuleNumber {
  int value;
  bool slashBefore;
};

std::vector<RuleNumber> ReadRuleNumbers(char const* p, char const* end) {
  std::vector<RuleNumber> numbers;
  bool slash = false;
  while (p < end && numbers.size() < 10) {
    if (!IsDigit(*p)) {
      slash = slash || *p == '/';
      ++p;
      continue;
    }
    bool negative = p[-1] == '-';
    int value = 0;
    for (; p < end && IsDigit(*p); ++p) value = value < 1000 ? value * 10 + (*p - '0') : 1000;
    numbers.push_back({negative ? -value : value, slash});
    slash = false;
  }
  return numbers;
}

bool InRange(int v, int lo, int hi) noexcept { return v >= lo && v <= hi; }

bool ValidTransition(int month, int week, int day, int hour, int minute) noexcept {
  return InRange(month, 1, 12) && InRange(week, 1, 5) && InRange(day, 0, 6) &&
         InRange(minute, 0, 59) && InRange(hour, 0, 24) && hour * 60 + minute <= 24 * 60;
}

// Reads month, week, day [/ hour, minute] starting at numbers[i].
bool ReadTransition(std::vector<RuleNumber> const& n, size_t& i, STimeZoneTransition& t) {
  if (i + 3 > n.size()) return false;
  int month = n[i].value, week = n[i + 1].value, day = n[i + 2].value;
  int hour = 2, minute = 0;
  i += 3;
  if (i < n.size() && n[i].slashBefore) {
    if (i + 2 > n.size()) return false;
    hour = n[i].value;
    minute = n[i + 1].value;
    i += 2;
  }
  if (!ValidTransition(month, week, day, hour, minute)) return false;
  t = STimeZoneTransition{uint8_t(month), uint8_t(week), uint8_t(day), uint8_t(hour), uint8_t(minute)};
  return true;
}

// Names must not carry the separators of the rules text, so that every
// zone can be written out and read back.
SAnsiString CleanName(SAnsiString const& name, bool daylight) {
  std::string s(name.getString(), name.getLength());
  for (char& c : s)
    if (c == ',' || (daylight && c == ';')) c = ' ';
  size_t first = 0;
  if (daylight)
    while (first < s.size() && IsBlank(s[first])) ++first;
  return SAnsiString(s.data() + first, unsigned(s.size() - first));
}

// Absolute local milliseconds of a transition in `year`: the week-th
// matching weekday of the month (week 5 = the last) at hour:minute.
int64_t TransitionLocalMs(int year, STimeZoneTransition const& t) noexcept {
  int32_t first = SDate::YMDToJulian(year, t.month, 1);
  int w1 = dt::DayOfWeek(first);
  int day = 1 + (t.dayOfWeek - w1 + 7) % 7 + 7 * (t.week - 1);
  int last = SDate::DaysInMonth(year, t.month);
  if (year == 1582 && t.month == 10) last = 31;  // day numbers run on past the gap
  while (day > last) day -= 7;
  return (int64_t(first) + day - 1) * dt::kMsPerDay + (int64_t(t.hour) * 60 + t.minute) * 60000;
}

bool UsableTransition(STimeZoneTransition const& t) noexcept {
  return ValidTransition(t.month, t.week, t.dayOfWeek, t.hour, t.minute);
}

}  // namespace

STimeZone::STimeZone(short offset, bool dst)
    : m_standardOffset(offset), m_daylightOffset(static_cast<short>(dst ? offset - 60 : offset)),
      m_dstEnabled(dst), m_start(kDefaultStart), m_end(kDefaultEnd) {}

STimeZone::STimeZone(STimeZone const& other)
    : m_standardName(other.m_standardName), m_standardOffset(other.m_standardOffset),
      m_daylightName(other.m_daylightName), m_daylightOffset(other.m_daylightOffset),
      m_dstEnabled(other.m_dstEnabled), m_start(other.m_start), m_end(other.m_end) {}

STimeZone& STimeZone::operator=(STimeZone const& other) {
  m_standardName = other.m_standardName;
  m_standardOffset = other.m_standardOffset;
  m_daylightName = other.m_daylightName;
  m_daylightOffset = other.m_daylightOffset;
  m_dstEnabled = other.m_dstEnabled;
  m_start = other.m_start;
  m_end = other.m_end;
  resetCache();
  return *this;
}

STimeZone::~STimeZone() = default;

// Only called while no other thread can use the zone (it is being changed).
void STimeZone::resetCache() noexcept {
  m_cache.from.store(1, std::memory_order_relaxed);
  m_cache.to.store(0, std::memory_order_relaxed);
  m_cache.seq.fetch_add(2, std::memory_order_release);
}

STimeZone::STimeZone(SAnsiString const& rules) : m_start(kDefaultStart), m_end(kDefaultEnd) {
  if (!rules.isEmpty()) {
    parseRules(rules.getString());
    return;
  }
  if (!dt::ReadSystemZone(*this, dt::NowUnixMs())) *this = TZ_UTC();
}

void STimeZone::setDefaultRule() noexcept {
  m_start = kDefaultStart;
  m_end = kDefaultEnd;
}

void STimeZone::disableDST() noexcept {
  m_dstEnabled = false;
  m_daylightName = SAnsiString();
  m_daylightOffset = m_standardOffset;
  setDefaultRule();
}

void STimeZone::parseRules(char const* text) {
  char const* p = text;
  char const* end = text + std::strlen(text);
  char const* comma = static_cast<char const*>(std::memchr(p, ',', size_t(end - p)));
  m_standardName = SAnsiString(p, unsigned((comma ? comma : end) - p));
  disableDST();
  if (!comma) return;
  p = comma + 1;
  SkipBlanks(p, end);
  m_standardOffset = ReadShort(p, end);
  m_daylightOffset = m_standardOffset;
  SkipBlanks(p, end);
  if (p == end) return;

  char const* nameEnd = p;
  while (nameEnd < end && *nameEnd != ',' && *nameEnd != ';') ++nameEnd;
  m_daylightName = SAnsiString(p, unsigned(nameEnd - p));
  m_dstEnabled = true;
  m_daylightOffset = static_cast<short>(m_standardOffset - 60);
  p = nameEnd;
  if (p < end && *p == ',') {
    ++p;
    SkipBlanks(p, end);
    m_daylightOffset = static_cast<short>(m_standardOffset + ReadShort(p, end));
  }
  char const* semi = static_cast<char const*>(std::memchr(p, ';', size_t(end - p)));
  if (!semi) return;

  std::vector<RuleNumber> numbers = ReadRuleNumbers(semi + 1, end);
  size_t i = 0;
  if (!ReadTransition(numbers, i, m_start) || !ReadTransition(numbers, i, m_end)) disableDST();
}

SAnsiString STimeZone::GetRules() const {
  std::string s(m_standardName.getString(), m_standardName.getLength());
  s += ',' + std::to_string(m_standardOffset);
  if (m_dstEnabled) {
    char rule[96];
    std::snprintf(rule, sizeof rule, ",%d;%d,%d,%d/%d,%d,%d,%d,%d/%d,%d",
                  int(static_cast<short>(m_daylightOffset - m_standardOffset)), m_start.month,
                  m_start.week, m_start.dayOfWeek, m_start.hour, m_start.minute, m_end.month,
                  m_end.week, m_end.dayOfWeek, m_end.hour, m_end.minute);
    s += ' ';
    s.append(m_daylightName.getString(), m_daylightName.getLength());
    s += rule;
  }
  return SAnsiString(s.data(), unsigned(s.size()));
}

bool STimeZone::operator==(STimeZone const& o) const noexcept {
  if (m_standardName != o.m_standardName || m_standardOffset != o.m_standardOffset ||
      m_dstEnabled != o.m_dstEnabled)
    return false;
  if (!m_dstEnabled) return true;
  return m_daylightName == o.m_daylightName && m_daylightOffset == o.m_daylightOffset &&
         m_start == o.m_start && m_end == o.m_end;
}

void STimeZone::SetFields(SAnsiString const& standardName, short standardOffset,
                          SAnsiString const& daylightName, short daylightOffset, bool dstEnabled,
                          STimeZoneTransition const& start, STimeZoneTransition const& end) {
  m_standardName = CleanName(standardName, false);
  m_standardOffset = standardOffset;
  m_daylightName = CleanName(daylightName, true);
  m_daylightOffset = daylightOffset;
  m_dstEnabled = dstEnabled;
  m_start = start;
  m_end = end;
  if (!dstEnabled || !UsableTransition(start) || !UsableTransition(end)) disableDST();
  resetCache();
}

int64_t STimeZone::DSTStartUTC(int year) const noexcept {
  return TransitionLocalMs(year, m_start) + int64_t(m_standardOffset) * 60000 - dt::kUnixEpochAbsMs;
}

int64_t STimeZone::DSTEndUTC(int year) const noexcept {
  return TransitionLocalMs(year, m_end) + int64_t(m_daylightOffset) * 60000 - dt::kUnixEpochAbsMs;
}

namespace {

bool Within(int64_t t, int64_t start, int64_t end) noexcept {
  if (start < end) return start <= t && t < end;
  return t >= start || t < end;  // southern hemisphere
}

}  // namespace

bool STimeZone::inDSTAt(int64_t utcAbsMs) const noexcept {
  if (!m_dstEnabled) return false;
  uint32_t seq = m_cache.seq.load(std::memory_order_acquire);
  if ((seq & 1) == 0 && m_cache.from.load(std::memory_order_relaxed) <= utcAbsMs &&
      utcAbsMs < m_cache.to.load(std::memory_order_relaxed)) {
    int64_t start = m_cache.start.load(std::memory_order_relaxed);
    int64_t end = m_cache.end.load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (m_cache.seq.load(std::memory_order_relaxed) == seq) return Within(utcAbsMs, start, end);
  }
  // The year is that of the instant in local standard time.
  int64_t bias = int64_t(m_standardOffset) * 60000;
  int64_t day = dt::FloorDiv(utcAbsMs - bias, dt::kMsPerDay);
  if (!dt::DayInRange(day)) return false;
  int year, month, dom;
  SDate::JulianToYMD(static_cast<int32_t>(day), year, month, dom);
  int64_t start = TransitionLocalMs(year, m_start) + bias;
  int64_t end = TransitionLocalMs(year, m_end) + int64_t(m_daylightOffset) * 60000;
  int32_t first = SDate::YMDToJulian(year, 1, 1), next = SDate::YMDToJulian(year == -1 ? 1 : year + 1, 1, 1);
  if ((seq & 1) == 0 && first != SDate::InvalidDate && next != SDate::InvalidDate &&
      m_cache.seq.compare_exchange_strong(seq, seq + 1, std::memory_order_relaxed)) {
    std::atomic_thread_fence(std::memory_order_release);
    m_cache.from.store(int64_t(first) * dt::kMsPerDay + bias, std::memory_order_relaxed);
    m_cache.to.store(int64_t(next) * dt::kMsPerDay + bias, std::memory_order_relaxed);
    m_cache.start.store(start, std::memory_order_relaxed);
    m_cache.end.store(end, std::memory_order_relaxed);
    m_cache.seq.store(seq + 2, std::memory_order_release);
  }
  return Within(utcAbsMs, start, end);
}

bool STimeZone::InDST(SDateTime const& when) const {
  if (!when.IsValid()) return false;
  return inDSTAt(when.absMs());
}

int32_t STimeZone::UTCOffsetMinutes(SDateTime const& when) const {
  if (m_dstEnabled && when.IsValid() && inDSTAt(when.absMs())) return m_daylightOffset;
  return m_standardOffset;
}

STimeSpan STimeZone::UTCOffset(SDateTime const& when) const {
  return STimeSpan(int64_t(UTCOffsetMinutes(when)) * 60000);
}

SAnsiString STimeZone::GetName(SDateTime const& when) const {
  return InDST(when) ? m_daylightName : m_standardName;
}

namespace {

// The process-wide zones: built once under a lock, published through an
// atomic pointer, never destroyed (threads may still read them at exit).
// Each has its own lock because building the local zone may need TZ_UTC().
std::mutex g_localLock, g_utcLock;
std::atomic<STimeZone const*> g_localZone{nullptr};
std::atomic<STimeZone const*> g_utcZone{nullptr};

template <class Make>
STimeZone const& OnceZone(std::atomic<STimeZone const*>& slot, std::mutex& mutex, Make make) {
  STimeZone const* zone = slot.load(std::memory_order_acquire);
  if (zone) return *zone;
  std::lock_guard<std::mutex> lock(mutex);
  zone = slot.load(std::memory_order_relaxed);
  if (!zone) {
    zone = make();
    slot.store(zone, std::memory_order_release);
  }
  return *zone;
}

}  // namespace

STimeZone const& STimeZone::TZ_UTC() {
  return OnceZone(g_utcZone, g_utcLock, [] { return new STimeZone(SAnsiString("UTC,0")); });
}

STimeZone const& STimeZone::TZ_Local() {
  return OnceZone(g_localZone, g_localLock, [] {
    auto* zone = new STimeZone(short(0), false);
    if (!dt::ReadSystemZone(*zone, dt::NowUnixMs())) {
      *zone = STimeZone(SAnsiString("UTC,0"));
    }
    return zone;
  });
}

}  // namespace QuenLibA500
