// qrysstring.cpp: LIKE-style patterns and the quoting of query values.
//
// A pattern is parsed into steps (literal runs, "_", "%", bracket sets),
// then compiled into atoms over lowered code points. The atoms before the
// first "%" and after the last one can match at one place only (the start
// and the end), so they are checked there directly. Between "%" the atoms
// form fixed-width segments, each placed at its leftmost match: time is
// O(pattern x text) and a run of "%" cannot make it explode the way plain
// backtracking does.
#include <quenlib/qrysstring.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <langinfo.h>

#include "diagnostics/assert.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// What the matcher keeps per thread about the locale's character set:
// whether it is UTF-8 (whose characters the matcher then decodes itself
// instead of asking mbrtowc for each one), and the lowered forms of the
// code points below kCachedLowering (the one- and two-byte UTF-8
// characters: Latin, Greek, Cyrillic, Hebrew, Arabic), filled from towlower
// once per thread and locale. Both belong to the LC_CTYPE data whose
// code-set name sits at `codeset`: another locale has another one.
constexpr uint32_t kCachedLowering = 0x800;

struct Lowering {
  char const* codeset;
  uint32_t* lower;  // null until the first UTF-8 text of the thread
  bool utf8;
};

// Plain data in the static TLS block: one %fs-relative access, no guard.
thread_local Lowering tlsLowering __attribute__((tls_model("initial-exec"))) = {nullptr, nullptr, false};

// Frees the thread's table when the thread ends.
struct LoweringCloser {
  ~LoweringCloser() {
    std::free(tlsLowering.lower);
    tlsLowering.lower = nullptr;
    tlsLowering.codeset = nullptr;
  }
};

// Rebuilds the thread's record for the locale whose code-set name is at
// codeset; kept out of line, so the check in CurrentLowering stays small
// enough to inline.
[[gnu::noinline]] Lowering& RebuildLowering(char const* codeset) {
  Lowering& l = tlsLowering;
  l.codeset = codeset;
  l.utf8 = std::strcmp(codeset, "UTF-8") == 0;
  if (!l.utf8) return l;
  if (!l.lower) {
    static thread_local LoweringCloser closer;
    (void)&closer;
    l.lower = static_cast<uint32_t*>(std::malloc(kCachedLowering * sizeof(uint32_t)));
  }
  if (l.lower) {
    for (uint32_t cp = 0; cp < kCachedLowering; ++cp)
      l.lower[cp] = static_cast<uint32_t>(std::towlower(static_cast<wint_t>(cp)));
  }
  return l;
}

inline Lowering& CurrentLowering() {
  char const* codeset = nl_langinfo(CODESET);
  Lowering& l = tlsLowering;
  return codeset == l.codeset ? l : RebuildLowering(codeset);
}

// towlower, from the table for the common scripts.
uint32_t LowerCodePoint(uint32_t cp, Lowering const& l) {
  if (cp < kCachedLowering && l.lower) return l.lower[cp];
  return static_cast<uint32_t>(std::towlower(static_cast<wint_t>(cp)));
}

// The code point of the UTF-8 character at p (n bytes left, p[0] from
// 0x80 up) and its length, by the C library's rules: sequences of up to
// six bytes for values up to 0x7FFFFFFF, no overlong forms, no
// surrogates. 0 when the bytes are invalid or incomplete.
[[gnu::always_inline]] inline size_t DecodeUtf8(unsigned char const* p, size_t n, uint32_t* cp) {
  static constexpr uint32_t kMin[7] = {0, 0, 0x80, 0x800, 0x10000, 0x200000, 0x4000000};
  unsigned char const b = p[0];
  // The two-byte characters first: the common case of European text.
  if (b >= 0xC2 && b <= 0xDF && n >= 2 && (p[1] & 0xC0) == 0x80) {
    *cp = ((b & 0x1Fu) << 6) | (p[1] & 0x3Fu);
    return 2;
  }
  size_t len = b >= 0xFC ? (b >= 0xFE ? 0 : 6)
               : b >= 0xF8 ? 5
               : b >= 0xF0 ? 4
               : b >= 0xE0 ? 3
               : b >= 0xC0 ? 2
                           : 0;
  if (len == 0 || len > n) return 0;
  uint32_t v = b & (0x7Fu >> len);
  for (size_t k = 1; k < len; ++k) {
    if ((p[k] & 0xC0) != 0x80) return 0;
    v = (v << 6) | (p[k] & 0x3Fu);
  }
  if (v < kMin[len] || (v >= 0xD800 && v <= 0xDFFF)) return 0;
  *cp = v;
  return len;
}

// Lowers the ASCII bytes at the start of the 16 at p into code points at
// out; returns how many (16 when all are ASCII). All 16 places of out may
// be written: those after the count hold nothing of use.
size_t LowerAscii16(char const* p, uint32_t* out) {
#if defined(__SSE2__)
  __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p));
  int const high = _mm_movemask_epi8(v);
  __m128i const up = _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('A' - 1)),
                                   _mm_cmplt_epi8(v, _mm_set1_epi8('Z' + 1)));
  __m128i const low = _mm_or_si128(v, _mm_and_si128(up, _mm_set1_epi8(0x20)));
  __m128i const zero = _mm_setzero_si128();
  __m128i const half0 = _mm_unpacklo_epi8(low, zero), half1 = _mm_unpackhi_epi8(low, zero);
  auto* o = reinterpret_cast<__m128i*>(out);
  _mm_storeu_si128(o + 0, _mm_unpacklo_epi16(half0, zero));
  _mm_storeu_si128(o + 1, _mm_unpackhi_epi16(half0, zero));
  _mm_storeu_si128(o + 2, _mm_unpacklo_epi16(half1, zero));
  _mm_storeu_si128(o + 3, _mm_unpackhi_epi16(half1, zero));
  return high == 0 ? 16 : static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(high)));
#else
  size_t k = 0;
  for (; k < 16 && static_cast<unsigned char>(p[k]) < 0x80; ++k)
    out[k] = LowerAscii(static_cast<unsigned char>(p[k]));
  return k;
#endif
}

// LowerCharAt for a UTF-8 locale.
uint32_t LowerUtf8CharAt(char const* p, size_t n, size_t* len, Lowering const& l) {
  auto const* u = reinterpret_cast<unsigned char const*>(p);
  if (u[0] < 0x80) {
    *len = 1;
    return LowerAscii(u[0]);
  }
  uint32_t cp = 0;
  *len = DecodeUtf8(u, n, &cp);
  if (*len == 0) {
    *len = 1;
    return 0x110000u + u[0];
  }
  return LowerCodePoint(cp, l);
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

// The text as the matcher reads it: lowered code points by index. Each
// view can narrow itself to a window of the same kind.
struct AsciiText {
  unsigned char const* p;
  size_t n;
  size_t size() const { return n; }
  uint32_t operator[](size_t i) const { return LowerAscii(p[i]); }
  AsciiText window(size_t off, size_t len) const { return {p + off, len}; }
};

struct CodeSpan {
  uint32_t const* p;
  size_t n;
  size_t size() const { return n; }
  uint32_t operator[](size_t i) const { return p[i]; }
  CodeSpan window(size_t off, size_t len) const { return {p + off, len}; }
};

// Texts up to this many bytes are lowered into a stack array.
constexpr unsigned kStackCodes = 256;

// True when no byte of p[0..n) is 0x80 or above.
bool IsAsciiText(char const* p, size_t n) {
#if defined(__SSE2__)
  if (n >= 16) {
    // Sixteen bytes a step; the last step ends at n, overlapping the one
    // before it.
    for (size_t i = 0; i + 16 < n; i += 16)
      if (_mm_movemask_epi8(_mm_loadu_si128(reinterpret_cast<__m128i const*>(p + i))) != 0)
        return false;
    return _mm_movemask_epi8(_mm_loadu_si128(reinterpret_cast<__m128i const*>(p + n - 16))) == 0;
  }
#endif
  size_t i = 0;
  uint64_t high = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    std::memcpy(&w, p + i, 8);
    high |= w;
  }
  for (; i < n; ++i) high |= static_cast<unsigned char>(p[i]);
  return (high & 0x8080808080808080ull) == 0;
}

// ASCII bytes packed in a word with A-Z lowered (no byte may be 0x80 or
// above, so adding to a byte never carries into the next).
template <class Word>
Word LowerAsciiWord(Word w) {
  constexpr Word k01 = static_cast<Word>(0x0101010101010101ull);
  auto const geA = static_cast<Word>(w + static_cast<Word>(k01 * (0x80 - 'A')));
  auto const gtZ = static_cast<Word>(w + static_cast<Word>(k01 * (0x80 - 'Z' - 1)));
  return static_cast<Word>(w | ((geA ^ gtZ) & static_cast<Word>(k01 * 0x80)) >> 2);
}

// Compares n >= Word-size lowered bytes of text with want, a word at a
// time; the last word overlaps the one before when n is not a multiple.
template <class Word>
bool SameLoweredWords(unsigned char const* text, char const* want, size_t n) {
  Word a, b;
  for (size_t k = 0; k + sizeof(Word) < n; k += sizeof(Word)) {
    std::memcpy(&a, text + k, sizeof(Word));
    std::memcpy(&b, want + k, sizeof(Word));
    if (LowerAsciiWord(a) != b) return false;
  }
  std::memcpy(&a, text + n - sizeof(Word), sizeof(Word));
  std::memcpy(&b, want + n - sizeof(Word), sizeof(Word));
  return LowerAsciiWord(a) == b;
}

// The first p in [from, limit) whose lowered character is c (limit when
// none). The ASCII view compares 16 bytes at a time against c and, for a
// letter, its capital: only those two bytes lower to c.
size_t NextCandidate(CodeSpan const& t, size_t from, size_t limit, uint32_t c) {
#if defined(__SSE2__)
  __m128i const want = _mm_set1_epi32(static_cast<int>(c));
  for (; from + 4 <= limit; from += 4) {
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(t.p + from));
    if (int hit = _mm_movemask_epi8(_mm_cmpeq_epi32(v, want)))
      return from + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(hit))) / 4;
  }
#endif
  while (from < limit && t.p[from] != c) ++from;
  return from;
}

size_t NextCandidate(AsciiText const& t, size_t from, size_t limit, uint32_t c) {
  if (c >= 0x80) return limit;
  auto const lower = static_cast<char>(c);
  auto const upper = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
#if defined(__SSE2__)
  __m128i const lo = _mm_set1_epi8(lower);
  __m128i const up = _mm_set1_epi8(upper);
  while (from + 16 <= limit) {
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(t.p + from));
    auto const hit = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(v, lo), _mm_cmpeq_epi8(v, up))));
    if (hit != 0) return from + static_cast<size_t>(__builtin_ctz(hit));
    from += 16;
  }
  // The last part of a text of 16 bytes or more: one load ending at limit,
  // with the positions before `from` masked off.
  if (from < limit && limit >= 16) {
    size_t const base = limit - 16;
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(t.p + base));
    auto hit = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(v, lo), _mm_cmpeq_epi8(v, up))));
    hit &= ~0u << (from - base);
    return hit != 0 ? base + static_cast<size_t>(__builtin_ctz(hit)) : limit;
  }
#endif
  while (from < limit && t.p[from] != static_cast<unsigned char>(lower) &&
         t.p[from] != static_cast<unsigned char>(upper))
    ++from;
  return from;
}

// A literal atom at p of the view (the caller checked the width fits).
// ASCII literals on ASCII text compare eight lowered bytes at a time.
template <class Atom>
inline bool LiteralAt(Atom const& atom, AsciiText const& text, size_t p) {
  if (atom.asciiChars.empty()) {
    for (size_t k = 0; k < atom.chars.size(); ++k)
      if (text[p + k] != atom.chars[k]) return false;
    return true;
  }
  char const* want = atom.asciiChars.data();
  size_t const n = atom.asciiChars.size();
  if (n >= 8) return SameLoweredWords<uint64_t>(text.p + p, want, n);
  if (n >= 4) return SameLoweredWords<uint32_t>(text.p + p, want, n);
  if (n >= 2) return SameLoweredWords<uint16_t>(text.p + p, want, n);
  return LowerAscii(text.p[p]) == static_cast<unsigned char>(want[0]);
}

// Literals are short: a plain loop beats a call to memcmp.
template <class Atom>
bool LiteralAt(Atom const& atom, CodeSpan const& text, size_t p) {
  uint32_t const* want = atom.chars.data();
  uint32_t const* at = text.p + p;
  for (size_t k = 0, n = atom.chars.size(); k < n; ++k)
    if (at[k] != want[k]) return false;
  return true;
}


}  // namespace

std::vector<uint32_t> LowerCodePoints(char const* text, unsigned length) {
  std::vector<uint32_t> out;
  out.reserve(length);
  Lowering& lowering = CurrentLowering();
  size_t i = 0;
  while (i < length) {
    size_t len = 1;
    out.push_back(lowering.utf8 ? LowerUtf8CharAt(text + i, length - i, &len, lowering)
                                : LowerCharAt(text + i, length - i, &len));
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
    if (op.kind == QueryPatternOps::Literal) {
      a.chars = LowerCodePoints(op.text.getString(), op.text.getLength());
      if (std::all_of(a.chars.begin(), a.chars.end(), [](uint32_t c) { return c < 0x80; }))
        a.asciiChars.assign(a.chars.begin(), a.chars.end());
    }
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

template <class Atom>
size_t Width(Atom const& atom) {
  return atom.kind == SQueryString::QueryPatternOps::Literal ? atom.chars.size() : 1;
}

// One fixed-width atom at position p (the caller checked p + width <= n).
template <class Text, class Atom, class OneFn>
[[gnu::always_inline]] inline bool AtomAt(Atom const& atom, Text const& text, size_t p, OneFn const& one) {
  if (atom.kind == SQueryString::QueryPatternOps::Literal) return LiteralAt(atom, text, p);
  if (atom.kind == SQueryString::QueryPatternOps::AnyOne) return true;
  return one(atom, text[p]);
}

// The leftmost position from `from` where the fixed-width atoms [first,
// last) (no "%" among them) match in a row, or npos. A literal first atom
// skips to candidates by its first character.
template <class Text, class Atom, class OneFn>
size_t FindSegment(Atom const* first, Atom const* last, size_t width, Text const& text,
                   size_t from, OneFn const& one) {
  size_t const n = text.size();
  bool const literalHead = first->kind == SQueryString::QueryPatternOps::Literal;
  uint32_t const head = literalHead ? first->chars[0] : 0;
  if (width > n) return static_cast<size_t>(-1);
  size_t const limit = n - width + 1;
  for (size_t p = from; p < limit; ++p) {
    if (literalHead) {
      p = NextCandidate(text, p, limit, head);
      if (p == limit) break;
    }
    size_t q = p;
    Atom const* a = first;
    for (; a != last && AtomAt(*a, text, q, one); ++a) q += Width(*a);
    if (a == last) return p;
  }
  return static_cast<size_t>(-1);
}

// Atoms [first, last) start and end with "%". Between the "%" the atoms
// form segments of fixed width; placing each segment at its leftmost match
// leaves the most text for the rest, so if any placement matches, the
// leftmost ones do. Each segment search costs at most text x segment, so
// the whole match stays within pattern x text however many "%" there are.
template <class Text, class Atom, class OneFn>
bool MatchSegments(Atom const* first, Atom const* last, Text const& text, OneFn const& one) {
  size_t pos = 0;
  Atom const* a = first;
  while (a != last) {
    if (a->kind == SQueryString::QueryPatternOps::AnyRun) {
      ++a;
      continue;
    }
    Atom const* b = a;
    size_t width = 0;
    for (; b != last && b->kind != SQueryString::QueryPatternOps::AnyRun; ++b) width += Width(*b);
    size_t const at = FindSegment(a, b, width, text, pos, one);
    if (at == static_cast<size_t>(-1)) return false;
    pos = at + width;
    a = b;
  }
  return true;  // the final "%" takes the rest
}

// The atoms before the first "%" must match at the start and those after
// the last "%" at the end, each at one place only; the segments between
// are placed on what lies between (which starts and ends with "%").
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
  Text const middle = text.window(pos, middleEnd - pos);
  return MatchSegments(atoms.data() + a, atoms.data() + lastRun + 1, middle, one);
}

// Lowers n bytes of UTF-8 text into code points at out (room for n + 16);
// returns how many. Runs of ASCII go sixteen bytes a step while sixteen
// remain (a lone ASCII byte between two other characters goes alone),
// byte by byte after that (a zero-padded copy of the last bytes
// would be read back before its stores could be forwarded, a stall longer
// than the loop); every other character is decoded and lowered in line,
// without a call per character. `table` is the thread's lowering table
// (null when it could not be allocated), held in a register rather than
// reloaded through the Lowering record for every character.
size_t LowerUtf8Text(char const* p, size_t n, uint32_t* out, uint32_t const* table) {
  auto const* u = reinterpret_cast<unsigned char const*>(p);
  size_t count = 0;
  for (size_t i = 0; i < n;) {
    if (u[i] < 0x80) {
      if (i + 16 <= n && u[i + 1] < 0x80) {
        size_t const k = LowerAscii16(p + i, out + count);
        i += k;
        count += k;
        continue;
      }
      for (; i < n && u[i] < 0x80; ++i) out[count++] = LowerAscii(u[i]);
      continue;
    }
    uint32_t cp = 0;
    size_t const len = DecodeUtf8(u + i, n - i, &cp);
    if (len == 0) {
      out[count++] = 0x110000u + u[i++];
      continue;
    }
    out[count++] = cp < kCachedLowering && table
                       ? table[cp]
                       : static_cast<uint32_t>(std::towlower(static_cast<wint_t>(cp)));
    i += len;
  }
  return count;
}

// The same for any other multibyte code set, a character at a time
// through the C library.
size_t LowerLocaleText(char const* p, size_t n, uint32_t* out) {
  size_t count = 0;
  for (size_t i = 0; i < n;) {
    // Runs of ASCII go sixteen bytes at a time.
    if (i + 16 <= n && static_cast<unsigned char>(p[i]) < 0x80) {
      size_t const k = LowerAscii16(p + i, out + count);
      i += k;
      count += k;
      if (k == 16 || i >= n) continue;
    }
    size_t len = 1;
    out[count++] = LowerCharAt(p + i, n - i, &len);
    i += len;
  }
  return count;
}

// UTF-8 text read in place: the matcher steps its characters and lowers
// only those it compares, instead of lowering the whole text first.
struct Utf8Cursor {
  unsigned char const* p;
  size_t n;
  uint32_t const* table;  // the thread's lowering table, or null

  // The lowered character at byte i (i < n) and, in *len, its bytes. ASCII
  // lowers by the plain rule and an invalid byte stands alone, as in
  // LowerUtf8Text.
  uint32_t lowerAt(size_t i, size_t* len) const {
    if (p[i] < 0x80) {
      *len = 1;
      return LowerAscii(p[i]);
    }
    uint32_t cp = 0;
    *len = DecodeUtf8(p + i, n - i, &cp);
    if (*len == 0) {
      *len = 1;
      return 0x110000u + p[i];
    }
    return cp < kCachedLowering && table ? table[cp]
                                         : static_cast<uint32_t>(std::towlower(static_cast<wint_t>(cp)));
  }

  // The byte after the literal when its lowered characters from index k
  // on start at byte i, or npos.
  size_t literalAt(std::vector<uint32_t> const& chars, size_t k, size_t i) const {
    for (; k < chars.size(); ++k) {
      if (i >= n) return static_cast<size_t>(-1);
      size_t len = 1;
      if (lowerAt(i, &len) != chars[k]) return static_cast<size_t>(-1);
      i += len;
    }
    return i;
  }
  bool candidateByte(unsigned char b, unsigned char lower, unsigned char upper, bool ascii) const {
    return b >= 0x80 || (ascii && (b == lower || b == upper));
  }

  // The first character boundary from byte i (itself one) whose lowered
  // character may be c: for c below 0x80 the bytes c and its capital,
  // for any c every byte from 0x80 up (a character there may lower to
  // anything; ASCII bytes lower to ASCII only). n when there is none.
  size_t nextCandidate(size_t i, uint32_t c) const {
    bool const ascii = c < 0x80;
    auto const lower = static_cast<unsigned char>(ascii ? c : 0x80);
    auto const upper = static_cast<unsigned char>(ascii && c >= 'a' && c <= 'z' ? c - 32 : lower);
    // In text of other scripts the next character is often a candidate.
    if (i < n && candidateByte(p[i], lower, upper, ascii)) return i;
#if defined(__SSE2__)
    __m128i const lo = _mm_set1_epi8(static_cast<char>(lower));
    __m128i const up = _mm_set1_epi8(static_cast<char>(upper));
    for (; i + 16 <= n; i += 16) {
      __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + i));
      int hit = _mm_movemask_epi8(v);
      if (ascii) hit |= _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(v, lo), _mm_cmpeq_epi8(v, up)));
      if (hit != 0) return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(hit)));
    }
#endif
    for (; i < n; ++i)
      if (candidateByte(p[i], lower, upper, ascii)) return i;
    return n;
  }
};

// Patterns of literals and "%" only, ending with "%", on UTF-8 text: the
// literal before the first "%" must match at the start, and each literal
// after it is placed at its leftmost match from where the one before
// ended (the same greedy placement as MatchSegments, in bytes instead of
// characters: with no "_" in the pattern no position needs counting).
// Candidates are found by their bytes; only they are decoded and lowered.
template <class Atom>
bool MatchUtf8InPlace(std::vector<Atom> const& atoms, Utf8Cursor const& text) {
  size_t pos = 0;
  size_t a = 0;
  if (atoms[0].kind == SQueryString::QueryPatternOps::Literal) {
    pos = text.literalAt(atoms[0].chars, 0, 0);
    if (pos == static_cast<size_t>(-1)) return false;
    a = 1;
  }
  for (; a < atoms.size(); ++a) {
    if (atoms[a].kind != SQueryString::QueryPatternOps::Literal) continue;
    std::vector<uint32_t> const& chars = atoms[a].chars;
    for (size_t at = pos;;) {
      at = text.nextCandidate(at, chars[0]);
      if (at >= text.n) return false;
      size_t len = 1;
      if (text.lowerAt(at, &len) == chars[0]) {
        size_t const end = text.literalAt(chars, 1, at + len);
        if (end != static_cast<size_t>(-1)) {
          pos = end;
          break;
        }
      }
      at += len;
    }
  }
  return true;  // the final "%" takes the rest
}

// True when MatchUtf8InPlace can take the pattern: literals and "%" only,
// the last one a "%".
template <class Atom>
bool InPlacePattern(std::vector<Atom> const& atoms) {
  if (atoms.empty() || atoms.back().kind != SQueryString::QueryPatternOps::AnyRun) return false;
  return std::all_of(atoms.begin(), atoms.end(), [](Atom const& x) {
    return x.kind == SQueryString::QueryPatternOps::AnyRun ||
           (x.kind == SQueryString::QueryPatternOps::Literal && !x.chars.empty());
  });
}

}  // namespace

bool SQueryString::doMatch(std::vector<uint32_t> const& text) const {
  auto one = [this](Atom const& atom, uint32_t c) { return isAMatch(atom, c); };
  return MatchAll(m_atoms, CodeSpan{text.data(), text.size()}, one);
}

bool SQueryString::like(SAnsiString const& text) {
  if (!m_parsed) parse();
  if (!m_valid) return false;
  char const* p = text.getString();
  unsigned n = text.getLength();
  if (IsAsciiText(p, n)) {
    auto one = [this](Atom const& atom, uint32_t c) { return isAMatch(atom, c); };
    return MatchAll(m_atoms, AsciiText{reinterpret_cast<unsigned char const*>(p), n}, one);
  }
  Lowering& lowering = CurrentLowering();
  if (lowering.utf8 && InPlacePattern(m_atoms))
    return MatchUtf8InPlace(m_atoms, Utf8Cursor{reinterpret_cast<unsigned char const*>(p), n, lowering.lower});
  if (n > kStackCodes) return doMatch(LowerCodePoints(p, n));
  // Short texts (the usual case) are lowered into the stack, not the heap.
  uint32_t codes[kStackCodes + 16];  // room for a last block of 16
  size_t const count =
      lowering.utf8 ? LowerUtf8Text(p, n, codes, lowering.lower) : LowerLocaleText(p, n, codes);
  auto one = [this](Atom const& atom, uint32_t c) { return isAMatch(atom, c); };
  return MatchAll(m_atoms, CodeSpan{codes, count}, one);
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
