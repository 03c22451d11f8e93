// sstring.cpp: the out-of-line members of the string template, its
// characters and flavours, and the locale case mapping.
//
// Buffer layout (see SStringBuffer): a 16-byte header (count, length,
// allocated, text kind), then `allocated` code units. Blocks come from
// malloc/realloc (through a per-thread cache of small blocks) and go back
// with free, so that a sole owner can grow in place. The empty buffer is
// static and is recognised by allocated == 0xFFFFFFFF, never by its
// address.
//
// Multibyte text is walked with the restartable C functions and a local
// mbstate_t, so threads never share conversion state. A byte below 0x80 at
// a character boundary is taken as a one-byte character without asking the
// C library: every locale charset glibc supports is ASCII-compatible in
// that sense, and it keeps the common case fast.
#include <quenlib/sstring.h>

#include "diagnostics/assert.h"

#if defined(__SANITIZE_ADDRESS__)
#define QL_STRING_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QL_STRING_ASAN 1
#endif
#endif
#if defined(QL_STRING_ASAN)
#include <sanitizer/asan_interface.h>
#endif

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <climits>
#include <cwchar>
#include <cwctype>
#include <langinfo.h>
#include <memory>
#include <string>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace QuenLibA500 {

char const* SBadAlloc::what() const noexcept { return "bad allocation"; }

namespace {

constexpr size_t kMbLimit = 6;  // longest multibyte character we step over

void ReportZero() { QL_REPORT("0", static_cast<char const*>(nullptr)); }

// Locale length of the multibyte character at p: >0 bytes, 0 for the
// terminator, -1 for an invalid or incomplete sequence.
int MbLen(char const* p, size_t limit = kMbLimit) {
  std::mbstate_t st{};
  size_t r = std::mbrlen(p, limit, &st);
  if (r == static_cast<size_t>(-1) || r == static_cast<size_t>(-2)) return -1;
  return static_cast<int>(r);
}

// The wide value of the multibyte character at p; false when invalid.
bool MbToWide(char const* p, size_t limit, wchar_t* out) {
  std::mbstate_t st{};
  size_t r = std::mbrtowc(out, p, limit, &st);
  return r != static_cast<size_t>(-1) && r != static_cast<size_t>(-2);
}

// Locale bytes of w into out (MB_LEN_MAX bytes); -1 when unrepresentable.
int WideToMb(wchar_t w, char* out) {
  std::mbstate_t st{};
  size_t r = std::wcrtomb(out, w, &st);
  if (r == static_cast<size_t>(-1)) return -1;
  return static_cast<int>(r);
}

bool IsSurrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDFFF; }

// One code point as UTF-16; returns the units written (1 or 2).
unsigned ToUtf16(uint32_t cp, WChar* out) {
  if (cp < 0x10000) {
    out[0] = static_cast<WChar>(cp);
    return 1;
  }
  cp -= 0x10000;
  out[0] = static_cast<WChar>(0xD800 + (cp >> 10));
  out[1] = static_cast<WChar>(0xDC00 + (cp & 0x3FF));
  return 2;
}

// UTF-16 text as the C library's 32-bit wide text; a pair becomes one code
// point, a lone surrogate keeps its value.
std::wstring ToWide(WChar const* s, uint32_t n) {
  std::wstring w;
  w.reserve(n);
  for (uint32_t i = 0; i < n; ++i) {
    uint32_t u = s[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < n && s[i + 1] >= 0xDC00 &&
        s[i + 1] <= 0xDFFF) {
      u = 0x10000 + ((u - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    }
    w.push_back(static_cast<wchar_t>(u));
  }
  return w;
}

char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }
char AsciiUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c; }

// Maps one UTF-16 unit; surrogates and mappings outside the BMP stay.
WChar MapWideUnit(WChar u, bool upper) {
  if (IsSurrogate(u)) return u;
  wint_t m = upper ? std::towupper(u) : std::towlower(u);
  return m > 0xFFFF ? u : static_cast<WChar>(m);
}

int Sign(int r) { return (r > 0) - (r < 0); }

// Steps up to n characters from p (not beyond end); returns how many.
template <class S, class Unit>
unsigned Advance(Unit const*& p, unsigned n, Unit const* end);

// First byte at or after p (before end) that is 0x80 or above; end if none.
char const* NextHighByte(char const* p, char const* end) {
#if defined(__SSE2__)
  while (end - p >= 16) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p));
    if (int m = _mm_movemask_epi8(v)) return p + __builtin_ctz(static_cast<unsigned>(m));
    p += 16;
  }
#endif
  constexpr uint64_t kHigh = 0x8080808080808080ull;
  while (end - p >= 8) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    if (uint64_t m = v & kHigh) return p + (__builtin_ctzll(m) >> 3);
    p += 8;
  }
  while (p < end && static_cast<unsigned char>(*p) < 0x80) ++p;
  return p;
}

// First byte at or after p (before end) that is zero or 0x80 and above;
// end if none.
char const* NextHighOrZeroByte(char const* p, char const* end) {
#if defined(__SSE2__)
  __m128i const zero = _mm_setzero_si128();
  while (end - p >= 16) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p));
    if (int m = _mm_movemask_epi8(_mm_or_si128(v, _mm_cmpeq_epi8(v, zero))))
      return p + __builtin_ctz(static_cast<unsigned>(m));
    p += 16;
  }
#endif
  while (p < end && static_cast<unsigned char>(*p) - 1u < 0x7Fu) ++p;
  return p;
}

// True when every one of the n bytes at p is in 0x01..0x7F.
bool AllSingleByte(char const* p, size_t n) { return NextHighOrZeroByte(p, p + n) == p + n; }

// The C library's ASCII case-insensitive comparison, unsigned bytes.
int AsciiCompareNoCase(char const* a, char const* b) {
  for (;; ++a, ++b) {
    unsigned char ca = static_cast<unsigned char>(AsciiLower(*a));
    unsigned char cb = static_cast<unsigned char>(AsciiLower(*b));
    if (ca != cb) return ca < cb ? -1 : 1;
    if (ca == 0) return 0;
  }
}

int UnitCompare(WChar const* a, WChar const* b) {
  for (;; ++a, ++b) {
    if (*a != *b) return *a < *b ? -1 : 1;
    if (*a == 0) return 0;
  }
}

int CollateWide(std::wstring const& a, std::wstring const& b, bool* failed) {
  errno = 0;
  int r = std::wcscoll(a.c_str(), b.c_str());
  *failed = (errno != 0);
  return r;
}

// Case-maps the multibyte character in the first inLen bytes at p, in
// place, writing at most outCap bytes; stores the bytes written.
bool MapOneChar(char* p, unsigned inLen, unsigned outCap, unsigned* charSize, bool upper,
                bool report) {
  wchar_t w;
  if (inLen == 0 || !MbToWide(p, inLen < kMbLimit ? inLen : kMbLimit, &w)) {
    if (report)
      QL_REPORT("0", upper ? "MakeUpperCaseChar: Fail to convert to wchar_t"
                           : "MakeLowerCaseChar: Fail to convert to wchar_t");
    return false;
  }
  wint_t m = upper ? std::towupper(static_cast<wint_t>(w)) : std::towlower(static_cast<wint_t>(w));
  char out[MB_LEN_MAX];
  int n = WideToMb(static_cast<wchar_t>(m), out);
  if (n < 0 || static_cast<unsigned>(n) > outCap) {
    if (report)
      QL_REPORT("0", upper ? "MakeUpperCaseChar: Fail to convert back to MBCS"
                           : "MakeLowerCaseChar: Fail to convert back to MBCS");
    return false;
  }
  std::memcpy(p, out, static_cast<size_t>(n));
  *charSize = static_cast<unsigned>(n);
  return true;
}

// Case-maps srcLen bytes of multibyte text into dst (room for cap bytes
// plus a terminator), character by character; returns the bytes written.
// Each character is converted from exactly its own bytes. A character
// that cannot be mapped is kept as it is (reported when `report` is set).
// Stops where the next character would not fit.
unsigned MapCaseText(char const* src, unsigned srcLen, char* dst, unsigned cap,
                     bool upper, bool report) {
  unsigned done = 0, written = 0;
  while (done < srcLen && src[done] != 0) {
    int l = MbLen(src + done);
    unsigned cl = l > 0 ? static_cast<unsigned>(l) : 1;
    if (done + cl > srcLen || written + cl > cap) break;
    std::memcpy(dst + written, src + done, cl);
    unsigned cs = cl;
    if (!MapOneChar(dst + written, cl, cap - written, &cs, upper, report)) {
      if (report && upper)
        QL_REPORT("MakeUpperCaseChar(dest, strSize - (dest - s), &charSize)",
                  static_cast<char const*>(nullptr));
      if (report && !upper)
        QL_REPORT("MakeLowerCaseChar(dest, strSize - (dest - s), &charSize)",
                  static_cast<char const*>(nullptr));
      std::memcpy(dst + written, src + done, cl);
      cs = cl;
    }
    written += cs;
    done += cl;
  }
  dst[written] = 0;
  return written;
}

// Scratch room for n values: on the stack for short texts (up to 1 KiB),
// so that comparing short strings never allocates.
template <class T>
class Scratch {
 public:
  explicit Scratch(size_t n) {
    if (n > kInline) {
      m_heap.reset(new (std::nothrow) T[n]);
      if (!m_heap) throw SBadAlloc();
      m_data = m_heap.get();
    }
  }
  Scratch(Scratch const&) = delete;
  Scratch& operator=(Scratch const&) = delete;
  T* data() noexcept { return m_data; }

 private:
  // 1 KiB: a lowered UTF-8 text of 64 bytes needs up to 385 (6 bytes a
  // character), a wide one 4 bytes a unit.
  static constexpr size_t kInline = 1024 / sizeof(T);
  T m_inline[kInline];
  T* m_data = m_inline;
  std::unique_ptr<T[]> m_heap;
};

// Lower-cased copy of len bytes of multibyte text into out, terminated,
// without assertions (for comparing). out holds len * MB_CUR_MAX + 1.
void LowerForCompare(char const* s, unsigned len, char* out) {
  MapCaseText(s, len, out, static_cast<unsigned>(static_cast<size_t>(len) * MB_CUR_MAX), false,
              false);
}

// True when the collation of the current locale is plain code-point
// order (C, POSIX, C.UTF-8): glibc then has no collation rules, and
// strcoll and wcscoll compare like strcmp and wcscmp.
bool CodePointCollation() {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(nl_langinfo(_NL_COLLATE_NRULES))) == 0;
}

// True when the locale lowers ASCII letters to their ASCII partners. Of
// glibc's locales only the Turkic ones differ (capital I becomes dotless
// i there), so the capital I is the one to ask about.
bool AsciiLowersPlainly() { return std::towlower(L'I') == L'i'; }

template <class U>
U FoldAscii(U u) {
  return (u >= 'A' && u <= 'Z') ? static_cast<U>(u + 32) : u;
}

// Compares two zero-terminated texts as their ASCII-folded code points,
// like strcmp of the lower-cased texts, looking at no more than the
// shorter length + 1 units (the terminator). Sets *ascii to false, and
// decides nothing, when a unit from 0x80 up comes before the texts
// differ: such a character may fold to anything.
template <class U>
int CompareFoldedAscii(U const* a, U const* b, size_t n, bool* ascii) {
  *ascii = true;
  size_t i = 0;
#if defined(__SSE2__)
  constexpr size_t kLanes = 16 / sizeof(U);
  auto load = [](U const* p) { return _mm_loadu_si128(reinterpret_cast<__m128i const*>(p)); };
  auto fold = [](__m128i v) {
    if constexpr (sizeof(U) == 1) {
      __m128i up = _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('A' - 1)),
                                 _mm_cmplt_epi8(v, _mm_set1_epi8('Z' + 1)));
      return _mm_or_si128(v, _mm_and_si128(up, _mm_set1_epi8(0x20)));
    } else {
      __m128i up = _mm_and_si128(_mm_cmpgt_epi16(v, _mm_set1_epi16('A' - 1)),
                                 _mm_cmplt_epi16(v, _mm_set1_epi16('Z' + 1)));
      return _mm_or_si128(v, _mm_and_si128(up, _mm_set1_epi16(0x20)));
    }
  };
  // Blocks of ASCII units with no terminator; anything else is left to the
  // unit loop below.
  auto plain = [](__m128i v) {
    __m128i zero = _mm_setzero_si128();
    if constexpr (sizeof(U) == 1) {
      return _mm_movemask_epi8(_mm_or_si128(v, _mm_cmpeq_epi8(v, zero))) == 0;
    } else {
      __m128i high = _mm_and_si128(v, _mm_set1_epi16(static_cast<short>(0xFF80)));
      __m128i bad = _mm_or_si128(_mm_cmpeq_epi16(v, zero), _mm_xor_si128(_mm_cmpeq_epi16(high, zero),
                                                                        _mm_set1_epi32(-1)));
      return _mm_movemask_epi8(bad) == 0;
    }
  };
  for (; i + kLanes <= n; i += kLanes) {
    __m128i va = load(a + i), vb = load(b + i);
    if (!plain(va) || !plain(vb)) break;
    unsigned same = static_cast<unsigned>(_mm_movemask_epi8(
        sizeof(U) == 1 ? _mm_cmpeq_epi8(fold(va), fold(vb)) : _mm_cmpeq_epi16(fold(va), fold(vb))));
    if (same != 0xFFFFu) {
      i += static_cast<unsigned>(__builtin_ctz(~same)) / sizeof(U);
      break;
    }
  }
#endif
  for (; i <= n; ++i) {
    uint32_t x = static_cast<std::make_unsigned_t<U>>(a[i]);
    uint32_t y = static_cast<std::make_unsigned_t<U>>(b[i]);
    if (x >= 0x80 || y >= 0x80) {
      *ascii = false;
      return 0;
    }
    x = FoldAscii(x);
    y = FoldAscii(y);
    if (x != y) return x < y ? -1 : 1;
    if (x == 0) break;
  }
  return 0;
}

// Units before the first zero of the len units at s, or -1 when one of
// them is from 0x80 up.
template <class U>
int64_t AsciiLength(U const* s, uint32_t len) {
  for (uint32_t i = 0; i < len; ++i) {
    auto u = static_cast<std::make_unsigned_t<U>>(s[i]);
    if (u == 0) return i;
    if (u >= 0x80) return -1;
  }
  return len;
}

}  // namespace

// ===========================================================================
// Case-mapping functions

bool MakeUpperCaseChar(char* p, unsigned size, unsigned* charSize) {
  return MapOneChar(p, size, size, charSize, true, true);
}

bool MakeLowerCaseChar(char* p, unsigned size, unsigned* charSize) {
  return MapOneChar(p, size, size, charSize, false, true);
}

namespace {

void MakeCase(char* s, unsigned size, bool upper) {
  if (!s || *s == 0) return;
  size_t len = std::strlen(s);
  if (size == static_cast<unsigned>(-1) || size > len) size = static_cast<unsigned>(len);
  // Work from a copy: converted characters may be longer or shorter.
  std::string tmp(s, size);
  MapCaseText(tmp.data(), size, s, size, upper, true);
}

void MakeCaseWide(WChar* s, unsigned size, bool upper) {
  if (!s) return;
  for (unsigned i = 0; i < size && s[i] != 0; ++i) s[i] = MapWideUnit(s[i], upper);
}

}  // namespace

void MakeUpperCase(char* s, unsigned size) { MakeCase(s, size, true); }
void MakeLowerCase(char* s, unsigned size) { MakeCase(s, size, false); }
void MakeLowerCase(WChar* s, unsigned size) { MakeCaseWide(s, size, false); }
void MakeUpperCase(WChar* s, unsigned size) { MakeCaseWide(s, size, true); }

// ===========================================================================
// SChar_t

namespace {

// The character's value in the C library's wide character set.
template <class Unit, int Flag>
bool WideValue(typename SChar_t<Unit, Flag>::CharData const& d, wint_t* out) {
  if constexpr (Flag == 0) {
    wchar_t w;
    if (!MbToWide(d.units, kMbLimit, &w)) return false;
    *out = static_cast<wint_t>(w);
    return true;
  } else if constexpr (sizeof(Unit) == 1) {
    unsigned char b = static_cast<unsigned char>(d.units[0]);
    if (b >= 0x80) return false;
    *out = b;
    return true;
  } else {
    if (IsSurrogate(d.units[0])) return false;
    *out = d.units[0];
    return true;
  }
}

}  // namespace

template <class Unit, int Flag>
int SChar_t<Unit, Flag>::getLength() const noexcept {
  if constexpr (kMultibyte) return MbLen(m_data.units);
  return m_data.units[0] != 0 ? 1 : 0;
}

template <class Unit, int Flag>
unsigned SChar_t<Unit, Flag>::toMBCSChar(char* out, unsigned size) const noexcept {
  if constexpr (sizeof(Unit) == 1) {
    unsigned n = getNUnits();
    if (n == 0 || n > size) return 0;
    std::memcpy(out, m_data.units, n);
    return n;
  } else {
    if (m_data.units[0] == 0 || size == 0) return 0;
    char buf[MB_LEN_MAX];
    int n = IsSurrogate(m_data.units[0]) ? -1 : WideToMb(static_cast<wchar_t>(m_data.units[0]), buf);
    if (n < 0) {  // not representable in the locale: the usual "?"
      buf[0] = '?';
      n = 1;
    }
    if (static_cast<unsigned>(n) > size) return 0;
    std::memcpy(out, buf, static_cast<size_t>(n));
    return static_cast<unsigned>(n);
  }
}

template <class Unit, int Flag>
unsigned SChar_t<Unit, Flag>::toAsciiChar(char* out) const noexcept {
  uint32_t u = static_cast<std::make_unsigned_t<Unit>>(m_data.units[0]);
  if (u == 0) return 0;
  if constexpr (kMultibyte) {
    if (u >= 0x80 || getNUnits() != 1) return 0;
  } else if constexpr (sizeof(Unit) == 2) {
    if (u >= 0x80) return 0;
  }
  *out = static_cast<char>(u);
  return 1;
}

template <class Unit, int Flag>
unsigned SChar_t<Unit, Flag>::toWideChar(WChar* out) const noexcept {
  if constexpr (sizeof(Unit) == 2) {
    if (m_data.units[0] == 0) return 0;
    out[0] = m_data.units[0];
    return 1;
  } else if constexpr (!kMultibyte) {
    if (m_data.units[0] == 0) return 0;
    out[0] = static_cast<unsigned char>(m_data.units[0]);
    return 1;
  } else {
    wchar_t w;
    if (m_data.units[0] == 0 || !MbToWide(m_data.units, kMbLimit, &w)) return 0;
    uint32_t cp = static_cast<uint32_t>(w);
    if (cp > 0x10FFFF) return 0;
    return ToUtf16(cp, out);
  }
}

template <class Unit, int Flag>
unsigned SChar_t<Unit, Flag>::toBrimChar(WChar* out) const noexcept {
  WChar tmp[2];
  unsigned n = toWideChar(tmp);
  if (n == 0) return 0;
  out[0] = (n == 2) ? static_cast<WChar>('?') : tmp[0];
  return 1;
}

template <class Unit, int Flag>
bool SChar_t<Unit, Flag>::isUpper() const noexcept {
  wint_t w;
  return WideValue<Unit, Flag>(m_data, &w) && std::iswupper(w);
}
template <class Unit, int Flag>
bool SChar_t<Unit, Flag>::isLower() const noexcept {
  wint_t w;
  return WideValue<Unit, Flag>(m_data, &w) && std::iswlower(w);
}
template <class Unit, int Flag>
bool SChar_t<Unit, Flag>::isBlank() const noexcept {
  wint_t w;
  return WideValue<Unit, Flag>(m_data, &w) && std::iswblank(w);
}
template <class Unit, int Flag>
bool SChar_t<Unit, Flag>::isWhiteSpace() const noexcept {
  wint_t w;
  return WideValue<Unit, Flag>(m_data, &w) && std::iswspace(w);
}
template <class Unit, int Flag>
bool SChar_t<Unit, Flag>::isDigit() const noexcept {
  wint_t w;
  return WideValue<Unit, Flag>(m_data, &w) && std::iswdigit(w);
}
template <class Unit, int Flag>
bool SChar_t<Unit, Flag>::isAlpha() const noexcept {
  wint_t w;
  return WideValue<Unit, Flag>(m_data, &w) && std::iswalpha(w);
}

namespace {

template <class Unit, int Flag>
SChar_t<Unit, Flag> MapCharCase(SChar_t<Unit, Flag> const& c, bool upper) {
  if constexpr (Flag == 0) {
    char buf[kMbLimit + 1] = {};
    std::memcpy(buf, c.getData().units, kMbLimit);
    unsigned size = 0;
    bool ok = upper ? MakeUpperCaseChar(buf, kMbLimit, &size) : MakeLowerCaseChar(buf, kMbLimit, &size);
    if (!ok) return SChar_t<Unit, Flag>();
    return SChar_t<Unit, Flag>(buf, size);
  } else if constexpr (sizeof(Unit) == 1) {
    return SChar_t<Unit, Flag>(upper ? AsciiUpper(c.getChar()) : AsciiLower(c.getChar()));
  } else {
    return SChar_t<Unit, Flag>(MapWideUnit(c.getChar(), upper));
  }
}

}  // namespace

template <class Unit, int Flag>
SChar_t<Unit, Flag> SChar_t<Unit, Flag>::toLower() const noexcept {
  return MapCharCase(*this, false);
}
template <class Unit, int Flag>
SChar_t<Unit, Flag> SChar_t<Unit, Flag>::toUpper() const noexcept {
  return MapCharCase(*this, true);
}

// ===========================================================================
// SString_t: buffer management

template <class Unit, int Flag>
typename SString_t<Unit, Flag>::_EmptyBuffer SString_t<Unit, Flag>::EmptyBuffer = {
    SStringBuffer(-1, 0, 0xFFFFFFFFu, kTextSingleByte), 0};

namespace {

// The largest request allocBuffer accepts: n + 32 must not overflow.
constexpr uint32_t kMaxAlloc = 0xFFFFFFDFu;
// The largest length copyOnWrite accepts: need + 33 must not overflow.
constexpr uint32_t kMaxNeed = 0xFFFFFFDEu;

// Short strings come and go far more often than long ones, and a heap
// allocation plus its release costs more than writing a short text. Blocks
// of up to kLargestCached bytes are therefore allocated at the size of
// their class (96 bytes doubled 0 to 5 times) and, when released, kept in
// a per-thread list per class for the next string of any flavour: up to
// 64 blocks of 96 bytes (short texts are by far the most common) and 8 of
// each larger class, so a thread keeps at most about 54 KiB. The glibc
// thread cache stops at about 1 KiB, so a string of a kilobyte would
// otherwise take the slower paths of malloc and free for every private
// copy. The lists are drained at thread exit; a block released after
// that goes back to the heap.
constexpr size_t kSmallBlock = 96;
constexpr unsigned kClasses = 6;
constexpr size_t kLargestCached = kSmallBlock << (kClasses - 1);
constexpr unsigned kCachedPerClass[kClasses] = {64, 8, 8, 8, 8, 8};

// The class of a block of `bytes` (at most kLargestCached).
unsigned BlockClass(size_t bytes) noexcept {
  if (bytes <= kSmallBlock) return 0;
  return static_cast<unsigned>(std::bit_width((bytes - 1) / kSmallBlock));
}

constexpr size_t ClassBytes(unsigned k) noexcept { return kSmallBlock << k; }

// What a block of `bytes` is allocated at: its class size when cached.
size_t BlockBytes(size_t bytes) noexcept {
  return bytes <= kLargestCached ? ClassBytes(BlockClass(bytes)) : bytes;
}

struct CachedBlock {
  CachedBlock* next;
};

struct BlockCache {
  CachedBlock* head[kClasses];
  unsigned count[kClasses];
  unsigned char state;  // 0 not yet used, 1 open, 2 closed (thread ending)
};

// Plain data in the static TLS block: one %fs-relative access, no guard.
thread_local BlockCache tlsBlocks __attribute__((tls_model("initial-exec"))) = {};

void PoisonBlock(void* p, size_t bytes) noexcept {
#if defined(QL_STRING_ASAN)
  ASAN_POISON_MEMORY_REGION(static_cast<char*>(p) + sizeof(CachedBlock),
                            bytes - sizeof(CachedBlock));
#else
  (void)p;
  (void)bytes;
#endif
}

void UnpoisonBlock(void* p, size_t bytes) noexcept {
#if defined(QL_STRING_ASAN)
  ASAN_UNPOISON_MEMORY_REGION(p, bytes);
#else
  (void)p;
  (void)bytes;
#endif
}

struct BlockCacheCloser {
  ~BlockCacheCloser() {
    BlockCache& c = tlsBlocks;
    c.state = 2;
    for (unsigned k = 0; k < kClasses; ++k) {
      while (c.head[k]) {
        CachedBlock* b = c.head[k];
        UnpoisonBlock(b, ClassBytes(k));
        c.head[k] = b->next;
        std::free(b);
      }
      c.count[k] = 0;
    }
  }
};

// Opens the cache on its first use by this thread, registering the drain
// at thread exit.
void OpenBlockCache(BlockCache& c) noexcept {
  static thread_local BlockCacheCloser closer;
  (void)&closer;
  c.state = 1;
}

[[gnu::always_inline]] inline void* AllocBlock(size_t bytes) noexcept {
  if (bytes > kLargestCached) return std::malloc(bytes);
  unsigned k = BlockClass(bytes);
  BlockCache& c = tlsBlocks;
  CachedBlock* b = c.head[k];
  if (b == nullptr) return std::malloc(ClassBytes(k));
  UnpoisonBlock(b, ClassBytes(k));
  c.head[k] = b->next;
  --c.count[k];
  return b;
}

[[gnu::always_inline]] inline void ReleaseBlock(void* p, size_t bytes) noexcept {
  if (bytes <= kLargestCached) {
    unsigned k = BlockClass(bytes);
    BlockCache& c = tlsBlocks;
    if (c.state == 0) OpenBlockCache(c);
    if (c.state == 1 && c.count[k] < kCachedPerClass[k]) {
      auto* b = static_cast<CachedBlock*>(p);
      b->next = c.head[k];
      c.head[k] = b;
      ++c.count[k];
      PoisonBlock(b, ClassBytes(k));
      return;
    }
  }
  std::free(p);
}

}  // namespace

// memcpy for the short texts most strings hold: two overlapping fixed-size
// moves inline instead of a library call; long texts go to memcpy.
void CopyBytes(void* to, void const* from, size_t n) noexcept {
  auto* d = static_cast<unsigned char*>(to);
  auto const* s = static_cast<unsigned char const*>(from);
  if (n > 32) {
    std::memcpy(d, s, n);
  } else if (n >= 16) {
    std::memcpy(d, s, 16);
    std::memcpy(d + n - 16, s + n - 16, 16);
  } else if (n >= 8) {
    std::memcpy(d, s, 8);
    std::memcpy(d + n - 8, s + n - 8, 8);
  } else if (n >= 4) {
    std::memcpy(d, s, 4);
    std::memcpy(d + n - 4, s + n - 4, 4);
  } else {
    for (size_t i = 0; i < n; ++i) d[i] = s[i];
  }
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::FreeBuffer(SStringBuffer* b) noexcept {
  ReleaseBlock(b, sizeof(SStringBuffer) + static_cast<size_t>(b->allocated) * sizeof(Unit));
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::allocBuffer(unsigned n) {
  if (n > kMaxAlloc) throw SBadAlloc();
  size_t bytes = sizeof(SStringBuffer) + (static_cast<size_t>(n) + 32) * sizeof(Unit);
  void* mem = AllocBlock(bytes);
  if (!mem) throw SBadAlloc();
  SStringBuffer* b = new (mem) SStringBuffer(1, 0, n + 32);
  b->getBuffer()[0] = 0;
  m_buffer = b;
}

// A block of the smallest class for the library's own builders of short
// texts (integer to text). Hidden, so that their call is direct: the
// exported members are reached through the PLT even from inside the
// library, and allocBuffer works out the block's class at run time.
[[gnu::visibility("hidden")]] void* AllocShortTextBlock() {
  void* mem = AllocBlock(kSmallBlock);
  if (!mem) throw SBadAlloc();
  return mem;
}

namespace {

// Grows (or shrinks) a privately owned block in place to cap units. A
// block is always at least its class size, so any block whose size names
// a class can go to that class's cache.
template <class Buffer, class Unit>
Buffer* ReallocBlock(Buffer* b, uint32_t cap) {
  size_t bytes = sizeof(Buffer) + static_cast<size_t>(cap) * sizeof(Unit);
  void* mem = std::realloc(static_cast<void*>(b), BlockBytes(bytes));
  if (!mem) throw SBadAlloc();  // the old block is still valid and kept
  Buffer* nb = static_cast<Buffer*>(mem);
  nb->allocated = cap;
  return nb;
}

// A private copy of the shared buffer `old`, with room for need units
// (need >= old->length) plus the terminator and the usual spare units, and
// the text kind given. The terminator is copied with the text, so nothing
// is written twice; the caller releases old.
template <class Buffer, class Unit>
[[gnu::always_inline]] inline Buffer* PrivateCopy(Buffer const* old, uint32_t need, uint32_t kind) {
  if (need > kMaxNeed) throw SBadAlloc();
  uint32_t const len = old->length;
  void* mem = AllocBlock(sizeof(Buffer) + (static_cast<size_t>(need) + 33) * sizeof(Unit));
  if (!mem) throw SBadAlloc();
  Buffer* b = new (mem) Buffer(1, len, need + 33, kind);
  std::memcpy(b->getBuffer(), old->getBuffer(), (static_cast<size_t>(len) + 1) * sizeof(Unit));
  return b;
}

}  // namespace

template <class Unit, int Flag>
void SString_t<Unit, Flag>::copyOnWrite(unsigned n) {
  SStringBuffer* old = m_buffer;
  if (IsEmptyBuffer(*old)) {
    if (n > kMaxNeed) throw SBadAlloc();
    allocBuffer(n + 1);
    return;
  }
  uint32_t len = old->length;
  uint32_t need = n > len ? n : len;
  if (old->count.read() == 1) {
    if (need >= old->allocated) {  // need + 1 > allocated, without overflow
      if (need > kMaxNeed) throw SBadAlloc();
      m_buffer = ReallocBlock<SStringBuffer, Unit>(old, need + 33);
    }
    m_buffer->setTextKind(kTextUnknown);
    terminateBuffer(len);
    return;
  }
  m_buffer = PrivateCopy<SStringBuffer, Unit>(old, need, kTextUnknown);
  ReleaseBuffer(old);
}

template <class Unit, int Flag>
Unit* SString_t<Unit, Flag>::concatAllocHelper(unsigned k) {
  if (k == 0) return nullptr;
  SStringBuffer* old = m_buffer;
  bool empty = IsEmptyBuffer(*old);
  bool sole = !empty && old->count.read() == 1;
  uint32_t len = old->length;
  uint64_t total = static_cast<uint64_t>(len) + k;
  if (total + 1 > 0xFFFFFFFFu) {
    ReportZero();
    return nullptr;
  }
  if (empty) {
    allocBuffer(k + 1);
  } else if (old->allocated < total + 1) {
    uint64_t cap = 2 * static_cast<uint64_t>(len) + k + 1;
    if (cap > 0xFFFFFFFFu) {
      ReportZero();
      return nullptr;
    }
    if (sole) {
      m_buffer = ReallocBlock<SStringBuffer, Unit>(old, static_cast<uint32_t>(cap));
    } else {
      allocBuffer(static_cast<uint32_t>(cap));
      std::memcpy(m_buffer->getBuffer(), old->getBuffer(), static_cast<size_t>(len) * sizeof(Unit));
      ReleaseBuffer(old);
    }
  } else if (!sole) {
    allocBuffer(static_cast<uint32_t>(total + 1));
    std::memcpy(m_buffer->getBuffer(), old->getBuffer(), static_cast<size_t>(len) * sizeof(Unit));
    ReleaseBuffer(old);
  }
  if (total >= m_buffer->allocated) {  // cannot happen when the above is right
    ReportZero();
    return nullptr;
  }
  m_buffer->setTextKind(kTextUnknown);
  terminateBuffer(static_cast<uint32_t>(total));
  return m_buffer->getBuffer() + len;
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::assignUnits(Unit const* s, unsigned n) {
  if (!s || n == 0) {
    empty();
    return;
  }
  if (n > kMaxNeed) throw SBadAlloc();
  SStringBuffer* old = m_buffer;
  allocBuffer(n + 1);  // s may point into old: copy before releasing it
  CopyBytes(m_buffer->getBuffer(), s, static_cast<size_t>(n) * sizeof(Unit));
  terminateBuffer(n);
  ReleaseBuffer(old);
}

// ===========================================================================
// SString_t: construction, assignment, append

template <class Unit, int Flag>
SString_t<Unit, Flag>::SString_t(char_type const& c) : m_buffer(GetEmptyBuffer()) {
  fromSChar(c);
}

template <class Unit, int Flag>
SString_t<Unit, Flag>::SString_t(Unit const* s) : m_buffer(GetEmptyBuffer()) {
  if (s) assignUnits(s, UnitLength(s));
}

template <class Unit, int Flag>
SString_t<Unit, Flag>::SString_t(Unit const* s, unsigned n) : m_buffer(GetEmptyBuffer()) {
  assignUnits(s, n);
}

template <class Unit, int Flag>
SString_t<Unit, Flag>& SString_t<Unit, Flag>::operator=(Unit const* s) {
  assignUnits(s, s ? UnitLength(s) : 0);
  return *this;
}

template <class Unit, int Flag>
SString_t<Unit, Flag>& SString_t<Unit, Flag>::fromSChar(char_type const& c) {
  assignUnits(c.getData().units, c.getNUnits());
  return *this;
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::concat(Unit const* s, unsigned n) {
  if (!s || n == 0) return;
  // s may point into our own text, which a sole owner's realloc moves; the
  // new buffer holds the same text at the same offsets.
  uintptr_t base = reinterpret_cast<uintptr_t>(getString());
  uintptr_t at = reinterpret_cast<uintptr_t>(s);
  bool inside = !IsEmptyBuffer(*m_buffer) && at >= base &&
                at < base + static_cast<uintptr_t>(m_buffer->allocated) * sizeof(Unit);
  size_t offset = (at - base) / sizeof(Unit);
  uint32_t kind = m_buffer->getTextKind();
  Unit* dst = concatAllocHelper(n);
  if (!dst) return;
  if (inside) s = getString() + offset;
  std::memmove(dst, s, static_cast<size_t>(n) * sizeof(Unit));
  // Short appends to single-byte text are checked at once, so that text
  // built piece by piece stays known as single-byte.
  if constexpr (kMultibyte) {
    if (kind == kTextSingleByte && n <= 64 && AllSingleByte(dst, n)) m_buffer->setTextKind(kind);
  }
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::appendUnitSlow(Unit c) {
  if (c != 0) concat(&c, 1);
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::concat(iterator const& from, iterator const& to) {
  if (!from.m_cursor || !to.m_cursor || to.m_cursor <= from.m_cursor) return;
  concat(from.m_cursor, static_cast<unsigned>(to - from));
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::concatFromAscii(char const* s, unsigned n) {
  if (!s || n == 0) return;
  if constexpr (sizeof(Unit) == 1) {
    concat(reinterpret_cast<Unit const*>(s), n);
  } else {
    Unit* dst = concatAllocHelper(n);
    if (!dst) return;
    for (unsigned i = 0; i < n; ++i) dst[i] = static_cast<unsigned char>(s[i]);
  }
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::operator+(SString_t const& o) const {
  if (o.isEmpty()) return *this;
  if (isEmpty()) return o;
  uint64_t total = static_cast<uint64_t>(getLength()) + o.getLength();
  SString_t r;
  if (total > kMaxNeed) {  // lets concat report the overflow
    r = *this;
    r += o;
    return r;
  }
  r.allocBuffer(static_cast<uint32_t>(total) + 1);
  Unit* p = r.getString();
  std::memcpy(p, getString(), static_cast<size_t>(getLength()) * sizeof(Unit));
  std::memcpy(p + getLength(), o.getString(), static_cast<size_t>(o.getLength()) * sizeof(Unit));
  r.terminateBuffer(static_cast<uint32_t>(total));
  return r;
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::operator+(Unit const* s) const {
  SString_t r(*this);
  r += s;
  return r;
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::operator+(char_type const& c) const {
  SString_t r(*this);
  r += c;
  return r;
}

// ===========================================================================
// SString_t: queries and positions

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::MultibyteStep(Unit const* p) noexcept {
  int l = MbLen(reinterpret_cast<char const*>(p));
  if (l == 0) return 0;
  return l < 0 ? 1 : static_cast<unsigned>(l);
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::countChars() const noexcept {
  Unit const* p = getString();
  unsigned n = 0;
  if constexpr (kMultibyte) {
    if (isSingleByteText()) return getLength();
    // Runs of bytes below 0x80 are counted in one go.
    Unit const* end = p + ::strnlen(p, getLength());
    while (p < end) {
      if (static_cast<unsigned char>(*p) < 0x80) {
        Unit const* hi = NextHighByte(p, end);
        n += static_cast<unsigned>(hi - p);
        p = hi;
      } else {
        p += StepLength(p);
        ++n;
      }
    }
    return n;
  }
  for (unsigned step; (step = StepLength(p)) != 0; p += step) ++n;
  return n;
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::getCharIndex(iterator const& it) const noexcept {
  Unit const* target = it.m_cursor;
  if constexpr (!kMultibyte) {
    int64_t off = offsetOf(it);
    if (off >= 0) return static_cast<unsigned>(off);
    QL_REPORT("iter2 == iter", static_cast<char const*>(nullptr));
    return getLength();
  }
  if (int64_t off = offsetOf(it); off >= 0 && isSingleByteText()) return static_cast<unsigned>(off);
  Unit const* p = getString();
  unsigned n = 0;
  while (p != target) {
    unsigned step = StepLength(p);
    if (step == 0) break;
    p += step;
    ++n;
  }
  if (p != target) QL_REPORT("iter2 == iter", static_cast<char const*>(nullptr));
  return n;
}

template <class Unit, int Flag>
Unit const* SString_t<Unit, Flag>::charPtr(unsigned i) const noexcept {
  Unit const* p = getString();
  if constexpr (kMultibyte) {
    if (isSingleByteText()) return p + std::min(i, getLength());
  }
  Advance<SString_t>(p, i, endPtr());
  return p;
}

template <class Unit, int Flag>
bool SString_t<Unit, Flag>::isSingleByteText() const noexcept {
  if constexpr (!kMultibyte) {
    return false;
  } else {
    uint32_t kind = m_buffer->getTextKind();
    if (kind == kTextUnknown) {
      // The empty buffer is never unknown, so this never writes to it.
      kind = AllSingleByte(getString(), getLength()) ? kTextSingleByte : kTextMixed;
      m_buffer->setTextKind(kind);
    }
    return kind == kTextSingleByte;
  }
}

template <class Unit, int Flag>
int64_t SString_t<Unit, Flag>::offsetOf(iterator const& it) const noexcept {
  uintptr_t base = reinterpret_cast<uintptr_t>(getString());
  uintptr_t at = reinterpret_cast<uintptr_t>(it.m_cursor);
  if (!it.m_cursor || at < base) return -1;
  uintptr_t off = (at - base) / sizeof(Unit);
  if (off > getLength() || (at - base) % sizeof(Unit) != 0) return -1;
  return static_cast<int64_t>(off);
}

// ===========================================================================
// SString_t: editing

namespace {

// A byte below 0x80 (not zero) is a one-byte character in every locale.
bool IsSingleByteUnit(char c) { return static_cast<unsigned char>(c) - 1u < 0x7Fu; }

}  // namespace

template <class Unit, int Flag>
void SString_t<Unit, Flag>::setAt(unsigned i, char_type const& c) {
  // The common case in one place: a one-byte character over a one-byte
  // character, where neither the length nor what is known of the text
  // changes.
  if constexpr (kMultibyte) {
    uint32_t kind = m_buffer->getTextKind();
    Unit u = c.getChar();
    if (i < getLength() && IsSingleByteUnit(u) && c.getNUnits() == 1 &&
        (kind == kTextSingleByte || (kind == kTextUnknown && isSingleByteText()))) {
      if (getString()[i] == u) return;
      // The private copy is taken here rather than through copyOnWrite:
      // a call between the library's exported members goes through the
      // PLT and cannot be inlined.
      SStringBuffer* b = m_buffer;
      if (b->count.read() != 1) {
        m_buffer = PrivateCopy<SStringBuffer, Unit>(b, b->length, kTextSingleByte);
        ReleaseBuffer(b);
      }
      getString()[i] = u;
      m_buffer->setTextKind(kTextSingleByte);
      return;
    }
  }
  iterator it(charPtr(i));
  setAt(it, c);
}

// True when the character at p (null: the zero character) is c. The
// same test as `*it == c`, without assembling the character in memory
// first (the byte stores and the wider reloads stall the pipeline).
template <class S, class Unit, class Char>
bool SameCharAt(Unit const* p, Char const& c) {
  unsigned n = p ? S::StepLength(p) : 0;
  if (n > Char::kMaxUnits) n = Char::kMaxUnits;
  for (unsigned i = 0; i < Char::kMaxUnits; ++i)
    if ((i < n ? p[i] : Unit(0)) != c.getData().units[i]) return false;
  return true;
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::setAt(iterator& it, char_type const& c) {
  // Nothing to do, and no private copy taken.
  if (SameCharAt<SString_t>(it.m_cursor, c)) return;
  uint32_t len = getLength();
  int64_t off = offsetOf(it);
  int newLen = 1, oldLen = 1;
  uint32_t kind = kTextUnknown;
  if constexpr (kMultibyte) {
    bool newSingle = IsSingleByteUnit(c.getChar()) && c.getNUnits() == 1;
    bool oldSingle = it.m_cursor && IsSingleByteUnit(*it.m_cursor);
    newLen = newSingle ? 1 : c.getLength();
    oldLen = oldSingle ? 1 : (it.m_cursor ? MbLen(it.m_cursor) : 0);
    // One-byte for one-byte keeps what is known of the text.
    if (newSingle && oldSingle) kind = m_buffer->getTextKind();
    if (newLen == -1 || oldLen == -1) {
      QL_REPORT("0", "SString::setAt: Cannot set because c is not a valid character in this locale");
      return;
    }
  }
  // The cursor must stand on a character of this string's text.
  if (off < 0 || off >= static_cast<int64_t>(len)) {
    QL_REPORT("(ptrdiff_t)length > (cursor + iNumNativeChars - getString ())",
              static_cast<char const*>(nullptr));
    return;
  }
  uint32_t newTotal = static_cast<uint32_t>(len + newLen - oldLen);
  copyOnWrite(newTotal);
  Unit* p = getString();
  it.m_cursor = p + off;
  if (newLen != oldLen) {
    std::memmove(p + off + newLen, p + off + oldLen,
                 static_cast<size_t>(len - off - oldLen) * sizeof(Unit));
    terminateBuffer(newTotal);
  }
  std::memcpy(p + off, c.getData().units, static_cast<size_t>(newLen) * sizeof(Unit));
  m_buffer->setTextKind(kind);
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::insertUnits(unsigned off, Unit const* s, unsigned n) {
  if (n == 0) return;
  uint32_t len = getLength();
  if (static_cast<uint64_t>(len) + n > kMaxNeed) throw SBadAlloc();
  copyOnWrite(len + n);
  Unit* p = getString();
  std::memmove(p + off + n, p + off, static_cast<size_t>(len - off) * sizeof(Unit));
  std::memcpy(p + off, s, static_cast<size_t>(n) * sizeof(Unit));
  terminateBuffer(len + n);
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::insertChar(unsigned i, char_type const& c) {
  unsigned off = static_cast<unsigned>(charPtr(i) - getString());
  insertUnits(off, c.getData().units, c.getNUnits());
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::insertChar(iterator& it, char_type const& c) {
  int64_t off = offsetOf(it);
  if (off < 0) return;
  insertUnits(static_cast<unsigned>(off), c.getData().units, c.getNUnits());
  it.m_cursor = getString() + off;
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::insertChars(unsigned i, SString_t const& s) {
  SString_t hold(s);  // s may be this very string
  unsigned off = static_cast<unsigned>(charPtr(i) - getString());
  insertUnits(off, hold.getString(), hold.getLength());
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::insertChars(iterator& it, SString_t const& s) {
  int64_t off = offsetOf(it);
  if (off < 0) return;
  SString_t hold(s);
  insertUnits(static_cast<unsigned>(off), hold.getString(), hold.getLength());
  it.m_cursor = getString() + off;
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::deleteUnits(unsigned off, unsigned n) {
  if (n == 0) return;
  uint32_t len = getLength();
  if (n >= len) {  // everything goes: back to the empty buffer
    empty();
    return;
  }
  uint32_t kind = m_buffer->getTextKind();
  copyOnWrite(0);
  Unit* p = getString();
  std::memmove(p + off, p + off + n, static_cast<size_t>(len - off - n) * sizeof(Unit));
  terminateBuffer(len - n);
  if (kind == kTextSingleByte) m_buffer->setTextKind(kind);  // what is left is too
}

namespace {

// Steps up to n characters from p; returns how many it could step and
// leaves p after them.
template <class S, class Unit>
unsigned Advance(Unit const*& p, unsigned n, Unit const* end) {
  unsigned done = 0;
  if constexpr (S::kMultibyte) {
    // The text ends at its first zero byte; runs of one-byte characters
    // are skipped in one go, looking no further than the characters still
    // to step.
    while (done < n && p < end && *p != 0) {
      if (static_cast<unsigned char>(*p) < 0x80) {
        char const* stop = static_cast<size_t>(end - p) > n - done ? p + (n - done) : end;
        char const* q = NextHighOrZeroByte(p, stop);
        done += static_cast<unsigned>(q - p);
        p = q;
      } else {
        p += S::StepLength(p);
        ++done;
      }
    }
    return done;
  }
  for (; done < n && p < end; ++done) {
    unsigned step = S::StepLength(p);
    if (step == 0) break;
    p += step;
  }
  return done;
}

void ReportDeletePastEnd() {
  QL_REPORT("byteN + nBytesToDelete <= nBytesInString", static_cast<char const*>(nullptr));
}

}  // namespace

template <class Unit, int Flag>
void SString_t<Unit, Flag>::deleteChars(unsigned i, unsigned n) {
  if (n == 0) return;
  Unit const* begin = getString();
  Unit const* p = begin;
  bool short_ = Advance<SString_t>(p, i, endPtr()) < i;
  Unit const* q = p;
  short_ = Advance<SString_t>(q, n, endPtr()) < n || short_;
  if (short_) ReportDeletePastEnd();
  deleteUnits(static_cast<unsigned>(p - begin), static_cast<unsigned>(q - p));
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::deleteChars(iterator& it, unsigned n) {
  int64_t off = offsetOf(it);
  if (n == 0 || off < 0) return;
  Unit const* p = getString() + off;
  Unit const* q = p;
  if (Advance<SString_t>(q, n, endPtr()) < n) ReportDeletePastEnd();
  deleteUnits(static_cast<unsigned>(off), static_cast<unsigned>(q - p));
  it.m_cursor = getString() + off;
}

namespace {

// Room for case-mapping len bytes: a character may grow to MB_CUR_MAX bytes.
unsigned CaseMapCapacity(uint32_t len) {
  uint64_t cap = static_cast<uint64_t>(len) * MB_CUR_MAX;
  return cap > kMaxNeed ? kMaxNeed : static_cast<unsigned>(cap);
}

}  // namespace

template <class Unit, int Flag>
void SString_t<Unit, Flag>::changeCase(bool upper) {
  if (isEmpty()) return;
  if constexpr (kMultibyte) {
    uint32_t len = getLength();
    unsigned cap = CaseMapCapacity(len);
    std::unique_ptr<char[]> tmp(new (std::nothrow) char[static_cast<size_t>(cap) + 1]);
    if (!tmp) throw SBadAlloc();
    unsigned n = MapCaseText(getString(), len, tmp.get(), cap, upper, true);
    // A case partner may have another byte length: the length follows the
    // converted text.
    copyOnWrite(n);
    std::memcpy(getString(), tmp.get(), n);
    terminateBuffer(n);
  } else {
    copyOnWrite(0);
    Unit* p = getString();
    for (uint32_t i = 0, n = getLength(); i < n; ++i) {
      if constexpr (sizeof(Unit) == 1) {
        p[i] = upper ? AsciiUpper(p[i]) : AsciiLower(p[i]);
      } else {
        p[i] = MapWideUnit(p[i], upper);
      }
    }
  }
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::trimLeft() {
  iterator it(*this);
  while (!it.isAtEnd() && (*it).isWhiteSpace()) ++it;
  unsigned n = static_cast<unsigned>(it.m_cursor - getString());
  if (n > 0) deleteUnits(0, n);
}

template <class Unit, int Flag>
void SString_t<Unit, Flag>::trimRight() {
  // Multibyte text cannot be walked backwards: remember where the last
  // character that is not white space ends.
  iterator it(*this);
  Unit const* keep = getString();
  while (!it.isAtEnd()) {
    bool space = (*it).isWhiteSpace();
    ++it;
    if (!space) keep = it.m_cursor;
  }
  unsigned n = static_cast<unsigned>(keep - getString());
  if (n == getLength()) return;
  if (n == 0) {
    empty();
    return;
  }
  uint32_t kind = m_buffer->getTextKind();
  copyOnWrite(0);
  terminateBuffer(n);
  if (kind == kTextSingleByte) m_buffer->setTextKind(kind);
}

// ===========================================================================
// SString_t: pieces

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::unitsBetween(Unit const* from, Unit const* to) const {
  if (from == getString() && to == endPtr()) return *this;  // shares the buffer
  if (to <= from) return SString_t();
  return SString_t(from, static_cast<unsigned>(to - from));
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::left(unsigned n) const {
  return unitsBetween(getString(), charPtr(n));
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::left(iterator const& it) const {
  int64_t off = offsetOf(it);
  if (off < 0) return SString_t();
  return unitsBetween(getString(), getString() + off);
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::right(unsigned n) const {
  unsigned count = getNChars();
  if (n >= count) return *this;
  return unitsBetween(charPtr(count - n), endPtr());
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::right(iterator const& it) const {
  return mid(it);
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::mid(unsigned from) const {
  return unitsBetween(charPtr(from), endPtr());
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::mid(unsigned from, unsigned n) const {
  Unit const* p = charPtr(from);
  Unit const* q = p;
  Advance<SString_t>(q, n, endPtr());
  return unitsBetween(p, q);
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::mid(iterator const& from) const {
  int64_t off = offsetOf(from);
  if (off < 0) return SString_t();
  return unitsBetween(getString() + off, endPtr());
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::mid(iterator const& from, unsigned n) const {
  int64_t off = offsetOf(from);
  if (off < 0) return SString_t();
  Unit const* p = getString() + off;
  Unit const* q = p;
  Advance<SString_t>(q, n, endPtr());
  return unitsBetween(p, q);
}

template <class Unit, int Flag>
SString_t<Unit, Flag> SString_t<Unit, Flag>::mid(iterator const& from, iterator const& to) const {
  int64_t a = offsetOf(from), b = offsetOf(to);
  if (a < 0 || b < 0 || b <= a) return SString_t();
  return unitsBetween(getString() + a, getString() + b);
}

// ===========================================================================
// SString_t: search

namespace {

// True when the n-unit needle matches at p, compared character by
// character (multibyte: equal character lengths, then equal bytes).
template <class S, class Unit>
bool MatchAt(Unit const* p, Unit const* needle, unsigned n) {
  if constexpr (!S::kMultibyte) {
    for (unsigned i = 0; i < n; ++i)
      if (p[i] != needle[i]) return false;
    return true;
  } else {
    Unit const* q = needle;
    Unit const* qEnd = needle + n;
    while (q < qEnd) {
      unsigned sq = S::StepLength(q);
      if (sq == 0 || sq != S::StepLength(p) || std::memcmp(p, q, sq) != 0) return false;
      p += sq;
      q += sq;
    }
    return true;
  }
}

// Multibyte search. Runs of bytes below 0x80 are one-byte characters, so
// every position in them is a character boundary: a needle of such bytes
// only can be searched in a run as plain bytes, and the candidates of any
// other needle found with memchr. Bytes from 0x80 up are stepped with the
// locale.
template <class S>
char const* FindMultibyte(char const* h, char const* end, char const* needle, unsigned n) {
  unsigned char first = static_cast<unsigned char>(needle[0]);
  bool asciiNeedle = NextHighByte(needle, needle + n) == needle + n;
  char const* p = h;
  while (p < end) {
    if (static_cast<unsigned char>(*p) < 0x80) {
      char const* hi = NextHighByte(p, end);
      if (asciiNeedle) {
        if (void const* m = ::memmem(p, static_cast<size_t>(hi - p), needle, n))
          return static_cast<char const*>(m);
      } else if (first < 0x80) {
        for (char const* c = p; c < hi; ++c) {
          c = static_cast<char const*>(std::memchr(c, first, static_cast<size_t>(hi - c)));
          if (!c) break;
          if (MatchAt<S>(c, needle, n)) return c;
        }
      }
      p = hi;
      continue;
    }
    if (static_cast<unsigned char>(*p) == first && MatchAt<S>(p, needle, n)) return p;
    p += S::StepLength(p);
  }
  return end;
}

// First match of the n-unit needle (n >= 1) in [h, end) of UTF-16 text;
// null when there is none. Candidates are the positions where both the
// needle's first and its last unit match, eight positions per SSE2 step:
// testing two units rules out far more positions than the first alone
// would in ordinary text, so the full comparison runs rarely.
WChar const* FindWide(WChar const* h, WChar const* end, WChar const* needle, unsigned n) {
  if (static_cast<size_t>(end - h) < n) return nullptr;
  WChar const* last = end - n;  // the last position a match can start at
  WChar const first = needle[0], tail = needle[n - 1];
  WChar const* p = h;
#if defined(__SSE2__)
  __m128i const vFirst = _mm_set1_epi16(static_cast<short>(first));
  __m128i const vTail = _mm_set1_epi16(static_cast<short>(tail));
  auto hits = [&](WChar const* at) {
    __m128i a = _mm_loadu_si128(reinterpret_cast<__m128i const*>(at));
    __m128i b = _mm_loadu_si128(reinterpret_cast<__m128i const*>(at + n - 1));
    return _mm_and_si128(_mm_cmpeq_epi16(a, vFirst), _mm_cmpeq_epi16(b, vTail));
  };
  // Two blocks per step with one test of the combined flags: hits are rare.
  for (; last - p >= 15; p += 16) {
    __m128i lo = hits(p), hi = hits(p + 8);
    if (_mm_movemask_epi8(_mm_or_si128(lo, hi)) == 0) continue;
    uint32_t mask = static_cast<uint32_t>(_mm_movemask_epi8(lo)) |
                    (static_cast<uint32_t>(_mm_movemask_epi8(hi)) << 16);
    for (; mask != 0; mask &= mask - 1, mask &= mask - 1) {  // two bits a unit
      WChar const* c = p + (__builtin_ctz(mask) >> 1);
      if (std::memcmp(c + 1, needle + 1, (n - 1) * sizeof(WChar)) == 0) return c;
    }
  }
#endif
  for (; p <= last; ++p)
    if (*p == first && p[n - 1] == tail && std::memcmp(p, needle, n * sizeof(WChar)) == 0) return p;
  return nullptr;
}

// First match of needle in [h, hEnd) (hEnd null: up to the terminator);
// the end (hEnd, or the terminator) when there is none. The text ends at
// its first zero unit in any case.
template <class S, class Unit>
Unit const* FindUnits(Unit const* h, Unit const* hEnd, Unit const* needle, unsigned n) {
  if constexpr (!S::kMultibyte) {
    if (!hEnd) hEnd = h + S::UnitLength(h);
    if (n == 0 || static_cast<size_t>(hEnd - h) < n) return hEnd;
    if constexpr (sizeof(Unit) == 1) {
      void const* m = ::memmem(h, static_cast<size_t>(hEnd - h), needle, n);
      return m ? static_cast<Unit const*>(m) : hEnd;
    } else {
      Unit const* m = FindWide(h, hEnd, needle, n);
      return m ? m : hEnd;
    }
  } else {
    Unit const* end = h + (hEnd ? ::strnlen(h, static_cast<size_t>(hEnd - h)) : std::strlen(h));
    if (n == 0) return end;
    return FindMultibyte<S>(h, end, needle, n);
  }
}

// First position in [h, terminator) whose character equals c.
template <class S, class Unit, class Char>
Unit const* FindChar(Unit const* h, Char const& c) {
  unsigned n = c.getNUnits();
  for (Unit const* p = h;; p += S::StepLength(p)) {
    if (*p == 0) return p;
    if (S::StepLength(p) == n && std::memcmp(p, c.getData().units, n * sizeof(Unit)) == 0)
      return p;
  }
}

}  // namespace

template <class Unit, int Flag>
typename SString_t<Unit, Flag>::iterator SString_t<Unit, Flag>::find(SString_t const& s) const noexcept {
  Unit const* end = endPtr();
  if (s.isEmpty()) return iterator(end);
  if constexpr (kMultibyte) {
    Unit const* r = FindUnits<SString_t>(getString(), end, s.getString(), s.getLength());
    return iterator(*r ? r : end);
  }
  return iterator(FindUnits<SString_t>(getString(), end, s.getString(), s.getLength()));
}

template <class Unit, int Flag>
typename SString_t<Unit, Flag>::iterator SString_t<Unit, Flag>::findFirst(char_type const& c) const noexcept {
  if (c.getNUnits() == 0) return iterator(endPtr());
  if constexpr (!kMultibyte) {
    Unit const* p = getString();
    for (uint32_t i = 0, n = getLength(); i < n; ++i)
      if (p[i] == c.getChar()) return iterator(p + i);
    return iterator(endPtr());
  }
  Unit const* r = FindChar<SString_t>(getString(), c);
  return iterator(*r ? r : endPtr());
}

template <class Unit, int Flag>
typename SString_t<Unit, Flag>::iterator SString_t<Unit, Flag>::findLast(char_type const& c) const noexcept {
  Unit const* found = nullptr;
  if (c.getNUnits() != 0) {
    if constexpr (!kMultibyte) {
      Unit const* p = getString();
      for (uint32_t i = getLength(); i-- > 0;)
        if (p[i] == c.getChar()) return iterator(p + i);
    } else {
      for (Unit const* p = getString(); *(p = FindChar<SString_t>(p, c)) != 0; p += StepLength(p))
        found = p;
    }
  }
  return iterator(found ? found : endPtr());
}

template <class Unit, int Flag>
typename SString_t<Unit, Flag>::iterator SString_t<Unit, Flag>::iterator::find(
    char_type const& c) const noexcept {
  if (!m_cursor) return *this;
  if (c.getNUnits() == 0) return iterator(m_cursor + UnitLength(m_cursor));
  return iterator(FindChar<SString_t>(m_cursor, c));
}

template <class Unit, int Flag>
typename SString_t<Unit, Flag>::iterator SString_t<Unit, Flag>::iterator::find(
    SString_t const& s) const noexcept {
  if (!m_cursor) return *this;
  if (s.isEmpty()) return iterator(m_cursor + UnitLength(m_cursor));
  return iterator(FindUnits<SString_t>(m_cursor, static_cast<Unit const*>(nullptr), s.getString(),
                                       s.getLength()));
}

// ===========================================================================
// SString_t: comparison

template <class Unit, int Flag>
int SString_t<Unit, Flag>::compare(SString_t const& o) const {
  if constexpr (kMultibyte) {
    errno = 0;
    int r = std::strcoll(getString(), o.getString());
    if (errno != 0) return Sign(std::strcmp(getString(), o.getString()));
    return Sign(r);
  } else if constexpr (sizeof(Unit) == 1) {
    return compareBinary(o);
  } else {
    bool failed = false;
    int r = CollateWide(ToWide(getString(), getLength()), ToWide(o.getString(), o.getLength()), &failed);
    if (failed) return UnitCompare(getString(), o.getString());
    return Sign(r);
  }
}

namespace {

// Locale collation of two lower-cased texts: a negative, zero or positive
// value; *failed when the C library reports an error.
int CollateLowered(char const* a, char const* b, bool* failed) {
  errno = 0;
  int r = std::strcoll(a, b);
  *failed = (errno != 0);
  return Sign(r);
}

int CollateLowered(wchar_t const* a, wchar_t const* b, bool* failed) {
  errno = 0;
  int r = std::wcscoll(a, b);
  *failed = (errno != 0);
  return Sign(r);
}

// ASCII-only texts (up to their first zero), folded with a plain loop and
// collated; false when either text has a unit from 0x80 up.
template <class U, class C>
bool CollateAsciiFolded(U const* a, uint32_t la, U const* b, uint32_t lb, int* result) {
  int64_t na = AsciiLength(a, la), nb = AsciiLength(b, lb);
  if (na < 0 || nb < 0) return false;
  Scratch<C> fa(static_cast<size_t>(na) + 1), fb(static_cast<size_t>(nb) + 1);
  for (int64_t i = 0; i < na; ++i) fa.data()[i] = static_cast<C>(FoldAscii(a[i]));
  for (int64_t i = 0; i < nb; ++i) fb.data()[i] = static_cast<C>(FoldAscii(b[i]));
  fa.data()[na] = 0;
  fb.data()[nb] = 0;
  bool failed = false;
  int r = CollateLowered(fa.data(), fb.data(), &failed);
  // Folded ASCII never fails to collate; if it did, byte order decides,
  // as it does for any text.
  *result = failed ? Sign(std::char_traits<C>::compare(fa.data(), fb.data(), static_cast<size_t>(std::min(na, nb)) + 1))
                   : r;
  return true;
}

// UTF-16 text as lower-cased wide text (a pair becomes one code point, a
// lone surrogate keeps its value), terminated; out holds n + 1.
void LowerWide(WChar const* s, uint32_t n, wchar_t* out) {
  size_t k = 0;
  for (uint32_t i = 0; i < n; ++i) {
    uint32_t u = s[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < n && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
      u = 0x10000 + ((u - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    }
    out[k++] = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(u)));
  }
  out[k] = 0;
}

}  // namespace

template <class Unit, int Flag>
int SString_t<Unit, Flag>::compareNoCase(SString_t const& o) const {
  Unit const* a = getString();
  Unit const* b = o.getString();
  uint32_t la = getLength(), lb = o.getLength();
  if constexpr (sizeof(Unit) == 1 && !kMultibyte) {
    return AsciiCompareNoCase(a, b);
  } else {
    // ASCII text folds with a plain loop where the locale lowers ASCII
    // letters plainly; in code-point collation the folded texts then
    // compare directly.
    bool plainFold = AsciiLowersPlainly();
    if (plainFold && CodePointCollation()) {
      bool ascii = false;
      int r = CompareFoldedAscii(a, b, std::min(la, lb), &ascii);
      if (ascii) return r;
    }
    using C = std::conditional_t<kMultibyte, char, wchar_t>;
    int r = 0;
    if (plainFold && CollateAsciiFolded<Unit, C>(a, la, b, lb, &r)) return r;
    bool failed = false;
    if constexpr (kMultibyte) {
      Scratch<char> fa(static_cast<size_t>(la) * MB_CUR_MAX + 1);
      Scratch<char> fb(static_cast<size_t>(lb) * MB_CUR_MAX + 1);
      LowerForCompare(a, la, fa.data());
      LowerForCompare(b, lb, fb.data());
      r = CollateLowered(fa.data(), fb.data(), &failed);
      return failed ? AsciiCompareNoCase(a, b) : r;
    } else {
      Scratch<wchar_t> fa(static_cast<size_t>(la) + 1), fb(static_cast<size_t>(lb) + 1);
      LowerWide(a, la, fa.data());
      LowerWide(b, lb, fb.data());
      r = CollateLowered(fa.data(), fb.data(), &failed);
      return failed ? Sign(std::wcscmp(fa.data(), fb.data())) : r;
    }
  }
}

template <class Unit, int Flag>
int SString_t<Unit, Flag>::compareBinary(SString_t const& o) const noexcept {
  if constexpr (sizeof(Unit) == 1) {
    return Sign(std::strcmp(getString(), o.getString()));
  } else {
    return UnitCompare(getString(), o.getString());
  }
}

template <class Unit, int Flag>
bool SString_t<Unit, Flag>::operator==(Unit const* s) const noexcept {
  if (!s) return isEmpty();
  Unit const* p = getString();
  uint32_t n = getLength();
  for (uint32_t i = 0; i < n; ++i) {
    if (s[i] == 0 || s[i] != p[i]) return false;
  }
  return s[n] == 0;
}

// ===========================================================================
// Flavours

SAsciiString::SAsciiString(SAnsiString const& s, bool copy) {
  if (copy) assignUnits(s.getString(), s.getNChars());
}

SAsciiString::SAsciiString(SWCharString const& s, bool copy) {
  if (copy) concatFromAsciiCharacters(s.getString(), s.getLength());
}

SAsciiString::SAsciiString(SBrimString const& s, bool copy) {
  if (copy) concatFromAsciiCharacters(s.getString(), s.getLength());
}

SAsciiString::SAsciiString(iterator const& from, iterator const& to) { concat(from, to); }

void SAsciiString::concatFromAsciiCharacters(WChar const* s, unsigned n) {
  if (!s || n == 0) return;
  char* dst = concatAllocHelper(n);
  if (!dst) return;
  for (unsigned i = 0; i < n; ++i) dst[i] = static_cast<char>(s[i] & 0xFF);
}

SAnsiString::iterator SAnsiStringCI::find(SAnsiString const& s) const {
  // Search lower-cased copies, then map the match back by character index:
  // lower-casing may change byte lengths.
  SAnsiString hay(*this), needle(s);
  hay.toLower();
  needle.toLower();
  iterator it = hay.SAnsiString::find(needle);
  if (it.isAtEnd()) return iterator(endPtr());
  return iterator(charPtr(hay.getCharIndex(it)));
}

SWCharString::iterator SWCharStringCI::find(SWCharString const& s) const {
  SWCharString hay(*this), needle(s);
  hay.toLower();
  needle.toLower();
  iterator it = hay.SWCharString::find(needle);
  if (it.isAtEnd()) return iterator(endPtr());
  return iterator(charPtr(hay.getCharIndex(it)));
}

// ===========================================================================
// The one instantiation of each template.

template class SChar_t<char, 0>;
template class SChar_t<char, 1>;
template class SChar_t<WChar, 1>;
template class SString_t<char, 0>;
template class SString_t<char, 1>;
template class SString_t<WChar, 1>;

}  // namespace QuenLibA500
