// qrysstring.cpp: LIKE-style patterns and the quoting of query values.
//
// A pattern is parsed into steps (literal runs, "_", "%", bracket sets),
// then compiled into atoms over lowered code points. Matching walks the
// atoms left to right keeping the SET of text positions reachable after
// each atom (a byte per position). Each (atom, position) pair is thus
// decided exactly once, which is the memo of "can the rest of the pattern
// match from here": time is O(pattern x text) and a run of "%" cannot make
// it explode the way plain backtracking does. The steps before the first
// "%" and after the last one can match at one place only (the start and
// the end), so they are checked there directly and the sweep covers the
// part in between.
#include <quenlib/qrysstring.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "diagnostics/assert.h"

namespace QuenLibA500 {

namespace {

uint32_t LowerAscii(unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32u : c; }

// The lowered code point of the locale character at p (n bytes left);
// *len gets its bytes.
uint32_t LowerCharAt(char const* p, size_t n, size_t* len) {
  unsigned char b = static_cast<unsigned char>(*p);
  if (b < 0x80) {
    *len = 1;
    return LowerAscii(b);
  }
  std::mbstate_t st{};
  wchar_t wc = 0;
  size_t r = std::mbrtowc(&wc, p, n, &st);
  if (r == 0 || r == static_cast<size_t>(-1) || r == static_cast<size_t>(-2)) {
    *len = 1;
    return 0x110000u + b;
  }
  *len = r;
  return static_cast<uint32_t>(std::towlower(static_cast<wint_t>(wc)));
}

// The characters of a locale text as separate strings.
std::vector<SAnsiString> SplitChars(SAnsiString const& s) {
  std::vector<SAnsiString> out;
  char const* p = s.getString();
  char const* end = p + s.getLength();
  while (p < end) {
    unsigned step = SAnsiString::StepLength(p);
    if (step == 0 || step > static_cast<unsigned>(end - p)) step = 1;
    out.emplace_back(p, step);
    p += step;
  }
  return out;
}

uint32_t LowerOf(SAnsiString const& ch) {
  size_t len = 0;
  if (ch.isEmpty()) return 0;
  return LowerCharAt(ch.getString(), ch.getLength(), &len);
}

bool IsWildcardByte(char c) { return c == '%' || c == '_' || c == '[' || c == ']'; }

// The text as the matcher reads it: lowered code points by index.
struct AsciiText {
  unsigned char const* p;
  size_t n;
  size_t size() const { return n; }
  uint32_t operator[](size_t i) const { return LowerAscii(p[i]); }
};

struct CodeText {
  std::vector<uint32_t> const& v;
  size_t size() const { return v.size(); }
  uint32_t operator[](size_t i) const { return v[i]; }
};

}  // namespace

std::vector<uint32_t> LowerCodePoints(char const* text, unsigned length) {
  std::vector<uint32_t> out;
  out.reserve(length);
  size_t i = 0;
  while (i < length) {
    size_t len = 1;
    out.push_back(LowerCharAt(text + i, length - i, &len));
    i += len;
  }
  return out;
}

// ---------------------------------------------------------------------------
// Construction

SQueryString::SQueryString() = default;
SQueryString::SQueryString(SAnsiString const& pattern) : m_pattern(pattern) {}
SQueryString::SQueryString(char const* pattern) : m_pattern(pattern) {}
SQueryString::SQueryString(SQueryString const& other) = default;
SQueryString& SQueryString::operator=(SQueryString const& other) = default;
SQueryString::~SQueryString() = default;

// ---------------------------------------------------------------------------
// Parsing

SAnsiString SQueryString::get_exact_patternstr(char const*& p, char const* end) {
  char const* start = p;
  while (p < end && *p != '%' && *p != '_' && *p != '[') {
    unsigned step = SAnsiString::StepLength(p);
    p += (step == 0 || step > static_cast<unsigned>(end - p)) ? 1 : step;
  }
  return SAnsiString(start, static_cast<unsigned>(p - start));
}

bool SQueryString::get_partial_patternstr(char const*& p, char const* end, SAnsiString& inner) {
  char const* start = p + 1;  // after "["
  // The first character of the set is never the closing one, so that "[]]"
  // is a set holding "]" (the way to write a literal "]").
  char const* q = start < end ? start + 1 : start;
  while (q < end && *q != ']') {
    unsigned step = SAnsiString::StepLength(q);
    q += (step == 0 || step > static_cast<unsigned>(end - q)) ? 1 : step;
  }
  if (q >= end) return false;
  inner = SAnsiString(start, static_cast<unsigned>(q - start));
  p = q + 1;
  return true;
}

bool SQueryString::parse_partial_pattern(SAnsiString const& inner, QueryPattern& out) {
  std::vector<SAnsiString> chars = SplitChars(inner);
  size_t i = 0;
  out = QueryPattern();
  if (chars.size() >= 2 && chars[0] == SAnsiString("^")) {
    out.negate = true;
    i = 1;
  }
  while (i < chars.size()) {
    if (i + 2 < chars.size() && chars[i + 1] == SAnsiString("-")) {
      out.ranges.Add(chars[i] + chars[i + 2]);
      out.rangeCodes.emplace_back(LowerOf(chars[i]), LowerOf(chars[i + 2]));
      i += 3;
      continue;
    }
    out.oneOf += chars[i];
    out.memberCodes.push_back(LowerOf(chars[i]));
    ++i;
  }
  bool checkInRange = !out.ranges.IsEmpty();
  bool checkOneOf = !out.oneOf.isEmpty();
  if (!(checkInRange || checkOneOf)) {
    QL_REPORT("checkInRange || checkOneOf", static_cast<char const*>(nullptr));
    return false;
  }
  return true;
}

bool SQueryString::parse_sequence() {
  m_steps.RemoveAll();
  char const* p = m_pattern.getString();
  char const* end = p + m_pattern.getLength();
  while (p < end) {
    QueryPatternOps op;
    if (*p == '%' || *p == '_') {
      op.kind = *p == '%' ? QueryPatternOps::AnyRun : QueryPatternOps::AnyOne;
      ++p;
    } else if (*p == '[') {
      SAnsiString inner;
      if (!get_partial_patternstr(p, end, inner)) {
        QL_REPORT("closeIter", static_cast<char const*>(nullptr));
        return false;
      }
      op.kind = QueryPatternOps::Bracket;
      if (!parse_partial_pattern(inner, op.pattern)) return false;
    } else {
      op.kind = QueryPatternOps::Literal;
      op.text = get_exact_patternstr(p, end);
    }
    m_steps.Add(op);
  }
  return true;
}

void SQueryString::compile() {
  m_atoms.clear();
  for (QueryPatternOps const& op : m_steps) {
    Atom a;
    a.kind = op.kind;
    if (op.kind == QueryPatternOps::AnyRun && !m_atoms.empty() &&
        m_atoms.back().kind == QueryPatternOps::AnyRun)
      continue;  // "%%" is "%"
    if (op.kind == QueryPatternOps::Literal)
      a.chars = LowerCodePoints(op.text.getString(), op.text.getLength());
    if (op.kind == QueryPatternOps::Bracket) {
      a.negate = op.pattern.negate;
      a.chars = op.pattern.memberCodes;
      std::sort(a.chars.begin(), a.chars.end());
      a.ranges = op.pattern.rangeCodes;
    }
    m_atoms.push_back(std::move(a));
  }
}

bool SQueryString::parse() {
  m_parsed = true;
  m_valid = parse_sequence();
  if (m_valid) compile();
  else m_atoms.clear();
  return m_valid;
}

// ---------------------------------------------------------------------------
// Matching

bool SQueryString::matchOneOf(Atom const& atom, uint32_t c) {
  return std::binary_search(atom.chars.begin(), atom.chars.end(), c);
}

bool SQueryString::matchInRange(Atom const& atom, uint32_t c) {
  for (auto const& r : atom.ranges)
    if (c >= r.first && c <= r.second) return true;
  return false;
}

bool SQueryString::isAMatch(Atom const& atom, uint32_t c) const {
  if (atom.kind == QueryPatternOps::AnyOne) return true;
  if (atom.kind == QueryPatternOps::Literal) return atom.chars.size() == 1 && atom.chars[0] == c;
  bool in = matchOneOf(atom, c) || matchInRange(atom, c);
  return in != atom.negate;
}

bool SQueryString::matchSubString(Atom const& atom, std::vector<uint32_t> const& text, size_t pos) {
  if (pos + atom.chars.size() > text.size()) return false;
  return std::equal(atom.chars.begin(), atom.chars.end(), text.begin() + static_cast<long>(pos));
}

size_t SQueryString::getFirstSequencePattern(size_t from) const {
  while (from < m_atoms.size() && m_atoms[from].kind != QueryPatternOps::AnyRun) ++from;
  return from;
}

size_t SQueryString::getRestPatterns(size_t from) const {
  size_t at = getFirstSequencePattern(from);
  return at < m_atoms.size() ? at + 1 : at;
}

namespace {

// The reachable-position sweep over one text representation. `cur[p]`
// is set when the atoms so far can consume exactly the first p
// characters; [lo, hi] bounds the set positions.
// A window [off, off + n) of another text.
template <class Text>
struct SubText {
  Text const& base;
  size_t off, n;
  size_t size() const { return n; }
  uint32_t operator[](size_t i) const { return base[off + i]; }
};

template <class Atom>
size_t Width(Atom const& atom) {
  return atom.kind == SQueryString::QueryPatternOps::Literal ? atom.chars.size() : 1;
}

// One fixed-width atom at position p (the caller checked p + width <= n).
template <class Text, class Atom, class OneFn>
bool AtomAt(Atom const& atom, Text const& text, size_t p, OneFn const& one) {
  if (atom.kind != SQueryString::QueryPatternOps::Literal) return one(atom, text[p]);
  for (size_t k = 0; k < atom.chars.size(); ++k)
    if (text[p + k] != atom.chars[k]) return false;
  return true;
}

// The reachable-position sweep over atoms [first, last). `cur[p]` is set
// when the atoms so far can consume exactly the first p characters; [lo,
// hi] bounds the set positions.
template <class Text, class Atom, class OneFn>
bool Sweep(Atom const* first, Atom const* last, Text const& text, OneFn const& one) {
  size_t const n = text.size();
  // Two rows of n + 2 flags; short texts (the usual case) use the stack.
  unsigned char small[2 * 256];
  std::vector<unsigned char> large;
  unsigned char* rows = small;
  if (n + 2 > 256) {
    large.assign(2 * (n + 2), 0);
    rows = large.data();
  } else {
    std::memset(small, 0, 2 * (n + 2));
  }
  unsigned char* cur = rows;
  unsigned char* next = rows + n + 2;
  cur[0] = 1;
  size_t lo = 0, hi = 0;
  for (Atom const* a = first; a != last; ++a) {
    if (a->kind == SQueryString::QueryPatternOps::AnyRun) {
      if (a + 1 == last) return true;  // a final "%" takes the rest
      std::memset(cur + lo, 1, n + 1 - lo);
      hi = n;
      continue;
    }
    size_t width = Width(*a);
    // Followed by a final "%": the first position that passes decides.
    bool lastBeforeRun = a + 2 == last && (a + 1)->kind == SQueryString::QueryPatternOps::AnyRun;
    size_t nlo = n + 1, nhi = 0;
    for (size_t p = lo; p <= hi; ++p) {
      if (!cur[p]) continue;
      cur[p] = 0;
      if (p + width > n || !AtomAt(*a, text, p, one)) continue;
      if (lastBeforeRun) return true;
      next[p + width] = 1;
      nlo = std::min(nlo, p + width);
      nhi = p + width;
    }
    if (nlo > nhi) return false;
    std::swap(cur, next);
    lo = nlo;
    hi = nhi;
  }
  return cur[n] != 0;
}

// The atoms before the first "%" must match at the start and those after
// the last "%" at the end, each at one place only; the sweep runs on what
// lies between (which starts and ends with "%").
template <class Text, class Atom, class OneFn>
bool MatchAll(std::vector<Atom> const& atoms, Text const& text, OneFn const& one) {
  size_t const n = text.size();
  size_t const count = atoms.size();
  size_t a = 0, pos = 0;
  for (; a < count && atoms[a].kind != SQueryString::QueryPatternOps::AnyRun; ++a) {
    size_t w = Width(atoms[a]);
    if (pos + w > n || !AtomAt(atoms[a], text, pos, one)) return false;
    pos += w;
  }
  if (a == count) return pos == n;
  size_t lastRun = count - 1;
  while (atoms[lastRun].kind != SQueryString::QueryPatternOps::AnyRun) --lastRun;
  size_t tail = 0;
  for (size_t b = lastRun + 1; b < count; ++b) tail += Width(atoms[b]);
  if (pos + tail > n) return false;
  size_t q = n - tail;
  size_t const middleEnd = q;
  for (size_t b = lastRun + 1; b < count; ++b) {
    if (!AtomAt(atoms[b], text, q, one)) return false;
    q += Width(atoms[b]);
  }
  if (lastRun == a) return true;  // one "%" takes everything between
  SubText<Text> middle{text, pos, middleEnd - pos};
  return Sweep(atoms.data() + a, atoms.data() + lastRun + 1, middle, one);
}

}  // namespace

bool SQueryString::doMatch(std::vector<uint32_t> const& text) const {
  auto one = [this](Atom const& atom, uint32_t c) { return isAMatch(atom, c); };
  return MatchAll(m_atoms, CodeText{text}, one);
}

bool SQueryString::like(SAnsiString const& text) {
  if (!m_parsed) parse();
  if (!m_valid) return false;
  char const* p = text.getString();
  unsigned n = text.getLength();
  bool ascii = true;
  for (unsigned i = 0; i < n && ascii; ++i) ascii = static_cast<unsigned char>(p[i]) < 0x80;
  if (ascii) {
    auto one = [this](Atom const& atom, uint32_t c) { return isAMatch(atom, c); };
    return MatchAll(m_atoms, AsciiText{reinterpret_cast<unsigned char const*>(p), n}, one);
  }
  return doMatch(LowerCodePoints(p, n));
}

// ---------------------------------------------------------------------------
// Helpers on plain text

bool SQueryString::ContainsWildcards(SAnsiString const& text) {
  char const* p = text.getString();
  char const* end = p + text.getLength();
  while (p < end) {
    if (IsWildcardByte(*p)) return true;
    unsigned step = SAnsiString::StepLength(p);
    p += (step == 0 || step > static_cast<unsigned>(end - p)) ? 1 : step;
  }
  return false;
}

SAnsiString SQueryString::WrapWildCardCharsFromString(char const* text) {
  SAnsiString out;
  if (!text) return out;
  char const* p = text;
  while (*p) {
    unsigned step = SAnsiString::StepLength(p);
    if (step == 0) step = 1;
    if (step == 1 && IsWildcardByte(*p)) {
      char wrapped[3] = {'[', *p, ']'};
      out.concat(wrapped, 3);
    } else if (step == 1 && *p == '*') {
      out += '%';
    } else {
      out.concat(p, step);
    }
    p += step;
  }
  return out;
}

SInfoQueryString::~SInfoQueryString() = default;

bool SInfoQueryString::ValidateAStringValue(SAnsiString& value) {
  SAnsiString out("'");
  char const* p = value.getString();
  char const* end = p + value.getLength();
  while (p < end) {
    unsigned step = SAnsiString::StepLength(p);
    if (step == 0 || step > static_cast<unsigned>(end - p)) step = 1;
    out.concat(p, step);
    if (step == 1 && *p == '\'') out += '\'';
    p += step;
  }
  out += '\'';
  value = out;
  return true;
}

}  // namespace QuenLibA500
