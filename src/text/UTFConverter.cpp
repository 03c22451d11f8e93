// UTFConverter.cpp: strict UTF-8 / UTF-16 / UCS-4 transforms and CUTFConverter.
//
// The UTF-8 decoder accepts exactly the well-formed sequences of the
// Unicode standard: a lead byte C2..F4, trail bytes 80..BF, with the second
// byte narrowed after E0 (A0..BF, no overlongs), ED (80..9F, no
// surrogates), F0 (90..BF, no overlongs) and F4 (80..8F, nothing above
// U+10FFFF). Everything else fails the whole conversion.
//
// Runs of ASCII are moved a vector at a time (text/utfsimd.h): SSE2, which
// every x86-64 processor has, or AVX2 where the processor has it (chosen
// once, at the first conversion); other targets use 64-bit words. The
// results are the same on every path; the tests compare them.
#include <quenlib/UTFConverter.h>

#include "diagnostics/assert.h"
#include "text/localeconv.h"
#include "text/utfcore.h"
#include "text/utfsimd.h"

#include <bit>
#include <cstring>
#include <new>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace QuenLibA500::utf {
namespace {

constexpr uint32_t kMaxCodePoint = 0x10FFFF;
constexpr uint32_t kSurrogateFirst = 0xD800;
constexpr uint32_t kLowSurrogateFirst = 0xDC00;
constexpr uint32_t kSurrogateLast = 0xDFFF;

bool isSurrogate(uint32_t c) { return c >= kSurrogateFirst && c <= kSurrogateLast; }
bool isHighSurrogate(uint32_t c) { return c >= kSurrogateFirst && c < kLowSurrogateFirst; }
bool isLowSurrogate(uint32_t c) { return c >= kLowSurrogateFirst && c <= kSurrogateLast; }

// Number of bytes the lead byte announces (1 for ASCII and stray trail
// bytes). Used to tell a truncated sequence from an ill-formed one.
int announcedLength(unsigned c) {
  if (c < 0xC0) return 1;
  if (c < 0xE0) return 2;
  if (c < 0xF0) return 3;
  if (c < 0xF8) return 4;
  if (c < 0xFC) return 5;
  return 6;
}

struct Decoded {
  uint32_t cp;
  int len;  // bytes used; 0 on failure
  Result err;
};

// Decodes the sequence at s whose lead byte is >= 0x80.
inline Decoded decodeMulti(unsigned char const* s, unsigned char const* end) {
  unsigned const c = s[0];
  size_t const avail = static_cast<size_t>(end - s);
  if (c < 0xC2 || c > 0xF4) return {0, 0, Result::sourceIllegal};
  if (avail < static_cast<size_t>(announcedLength(c))) return {0, 0, Result::sourceExhausted};
  unsigned const t1 = s[1];
  if (c < 0xE0) {
    if ((t1 & 0xC0) != 0x80) return {0, 0, Result::sourceIllegal};
    return {((c & 0x1Fu) << 6) | (t1 & 0x3Fu), 2, Result::ok};
  }
  unsigned lo = 0x80;
  unsigned hi = 0xBF;
  if (c == 0xE0) lo = 0xA0;
  else if (c == 0xED) hi = 0x9F;
  else if (c == 0xF0) lo = 0x90;
  else if (c == 0xF4) hi = 0x8F;
  if (t1 < lo || t1 > hi) return {0, 0, Result::sourceIllegal};
  unsigned const t2 = s[2];
  if ((t2 & 0xC0) != 0x80) return {0, 0, Result::sourceIllegal};
  if (c < 0xF0)
    return {((c & 0x0Fu) << 12) | ((t1 & 0x3Fu) << 6) | (t2 & 0x3Fu), 3, Result::ok};
  unsigned const t3 = s[3];
  if ((t3 & 0xC0) != 0x80) return {0, 0, Result::sourceIllegal};
  uint32_t const cp = ((c & 0x07u) << 18) | ((t1 & 0x3Fu) << 12) | ((t2 & 0x3Fu) << 6) | (t3 & 0x3Fu);
  return {cp, 4, Result::ok};
}

Outcome done(Result r, void const* s, void const* s0, size_t unitIn, void const* d,
             void const* d0, size_t unitOut) {
  auto const in = static_cast<size_t>(static_cast<char const*>(s) - static_cast<char const*>(s0));
  auto const out = static_cast<size_t>(static_cast<char const*>(d) - static_cast<char const*>(d0));
  return {r, in / unitIn, out / unitOut};
}

// Copies the ASCII prefix of [s, end) to d while it lasts, 16 bytes at a
// time. Advances both pointers. dend bounds the output.
template <class Out>
inline void copyAsciiRun(unsigned char const*& s, unsigned char const* end, Out*& d, Out* dend) {
#if defined(__SSE2__)
  __m128i const zero = _mm_setzero_si128();
  while (end - s >= 16 && dend - d >= 16) {
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    int const mask = _mm_movemask_epi8(v);
    if (mask != 0) {
      int const k = __builtin_ctz(static_cast<unsigned>(mask));
      for (int i = 0; i < k; ++i) d[i] = static_cast<Out>(s[i]);
      s += k;
      d += k;
      return;
    }
    if constexpr (sizeof(Out) == 2) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_unpacklo_epi8(v, zero));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 8), _mm_unpackhi_epi8(v, zero));
    } else {
      for (int i = 0; i < 16; ++i) d[i] = static_cast<Out>(s[i]);
    }
    s += 16;
    d += 16;
  }
#endif
  while (s < end && d < dend && *s < 0x80) *d++ = static_cast<Out>(*s++);
}

// UTF-8 into UTF-16 (Out = WChar) or UCS-4 (Out = uint32_t).
template <class Out>
Outcome utf8ToWide(unsigned char const* src, size_t n, Out* dst, size_t cap) {
  unsigned char const* s = src;
  unsigned char const* const end = src + n;
  Out* d = dst;
  Out* const dend = dst + cap;
  auto finish = [&](Result r) { return done(r, s, src, 1, d, dst, sizeof(Out)); };
  while (s < end) {
    copyAsciiRun(s, end, d, dend);
    if (s == end) break;
    if (*s < 0x80) return finish(Result::targetExhausted);
    // A run of multi-byte characters: stay here until ASCII comes back.
    do {
      Decoded const r = decodeMulti(s, end);
      if (r.len == 0) return finish(r.err);
      if (sizeof(Out) == 2 && r.cp >= 0x10000) {
        if (dend - d < 2) return finish(Result::targetExhausted);
        uint32_t const v = r.cp - 0x10000;
        d[0] = static_cast<Out>(kSurrogateFirst + (v >> 10));
        d[1] = static_cast<Out>(kLowSurrogateFirst + (v & 0x3FF));
        d += 2;
      } else {
        if (d == dend) return finish(Result::targetExhausted);
        *d++ = static_cast<Out>(r.cp);
      }
      s += r.len;
    } while (s < end && *s >= 0x80);
  }
  return finish(Result::ok);
}

// Writes cp (a valid scalar value) as UTF-8; false when it does not fit.
inline bool putUtf8(uint32_t cp, unsigned char*& d, unsigned char* dend) {
  if (cp < 0x80) {
    if (d == dend) return false;
    *d++ = static_cast<unsigned char>(cp);
  } else if (cp < 0x800) {
    if (dend - d < 2) return false;
    d[0] = static_cast<unsigned char>(0xC0 | (cp >> 6));
    d[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    d += 2;
  } else if (cp < 0x10000) {
    if (dend - d < 3) return false;
    d[0] = static_cast<unsigned char>(0xE0 | (cp >> 12));
    d[1] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
    d[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    d += 3;
  } else {
    if (dend - d < 4) return false;
    d[0] = static_cast<unsigned char>(0xF0 | (cp >> 18));
    d[1] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
    d[2] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
    d[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    d += 4;
  }
  return true;
}

// Copies the ASCII prefix of UTF-16 [s, end) as bytes, eight units at a time.
inline void copyAsciiRun16(WChar const*& s, WChar const* end, unsigned char*& d,
                           unsigned char* dend) {
#if defined(__SSE2__)
  __m128i const high = _mm_set1_epi16(static_cast<short>(0xFF80));
  __m128i const zero = _mm_setzero_si128();
  while (end - s >= 8 && dend - d >= 8) {
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    int const ascii = _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, high), zero));
    if (ascii != 0xFFFF) {
      int const k = __builtin_ctz(static_cast<unsigned>(~ascii)) / 2;
      for (int i = 0; i < k; ++i) d[i] = static_cast<unsigned char>(s[i]);
      s += k;
      d += k;
      return;
    }
    _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm_packus_epi16(v, v));
    s += 8;
    d += 8;
  }
#endif
  while (s < end && d < dend && *s < 0x80) *d++ = static_cast<unsigned char>(*s++);
}

// ---- unchecked fast paths
//
// Used when the output can hold the worst case (one UTF-16 unit per UTF-8
// byte; three UTF-8 bytes per UTF-16 unit): no output bound is tested.
// The invariant "output room left >= worst case of the input left" holds
// after every step, which is also what lets the ASCII blocks store a whole
// vector and advance by less. Each loop stops at anything it does not take
// (four-byte forms, surrogates, ill-formed input) and leaves that
// character to the careful code.

// Blocks of ASCII and two-byte characters, where the set has such a step;
// false (pointers unchanged) when the first block holds anything else.
template <class K>
inline bool widenMixedBlocks(unsigned char const*& s, size_t left, WChar*& d) {
  size_t units = 0;
  size_t const used = K::widenMixed(s, left, d, units);
  if (used == 0) return false;
  s += used;
  d += units;
  return true;
}

template <class K>
inline bool narrowMixedBlocks(WChar const*& s, size_t left, unsigned char*& d) {
  size_t bytes = 0;
  size_t const used = K::narrowMixed(s, left, d, bytes);
  if (used == 0) return false;
  s += used;
  d += bytes;
  return true;
}

template <class K>
inline void fastUtf8ToUtf16(unsigned char const*& s, unsigned char const* end, WChar*& d) {
  while (s < end) {
    unsigned const c = *s;
    if (c < 0x80) {
      auto const left = static_cast<size_t>(end - s);
      // A whole block of ASCII: likely a long run, taken vector by vector.
      if (K::widenBlock(s, left, d)) {
        size_t const k = K::kWidenBlock;
        size_t const run = k + K::widenRun(s + k, left - k, d + k);
        s += run;
        d += run;
        continue;
      }
      if constexpr (K::kMixedBlocks) {
        if (widenMixedBlocks<K>(s, left, d)) continue;
      }
      do {
        *d++ = *s++;
      } while (s < end && *s < 0x80);
      continue;
    }
    if ((c & 0xE0) == 0xC0) {
      if constexpr (K::kMixedBlocks) {
        if (widenMixedBlocks<K>(s, static_cast<size_t>(end - s), d)) continue;
      }
      if (end - s < 2 || c < 0xC2 || (s[1] & 0xC0) != 0x80) return;
      *d++ = static_cast<WChar>(((c & 0x1Fu) << 6) | (s[1] & 0x3Fu));
      s += 2;
      continue;
    }
    // A run of three-byte sequences (most CJK text).
    if ((c & 0xF0) != 0xE0) return;
    if constexpr (K::kMixedBlocks) {
      if (widenMixedBlocks<K>(s, static_cast<size_t>(end - s), d)) continue;
    }
    do {
      if (end - s < 3) return;
      unsigned const t1 = s[1] ^ 0x80u;
      unsigned const t2 = s[2] ^ 0x80u;
      if ((t1 | t2) > 0x3F) return;
      uint32_t const cp = ((s[0] & 0x0Fu) << 12) | (t1 << 6) | t2;
      if (cp < 0x800 || isSurrogate(cp)) return;
      *d++ = static_cast<WChar>(cp);
      s += 3;
    } while (s < end && (*s & 0xF0) == 0xE0);
  }
}

template <class K>
inline void fastUtf16ToUtf8(WChar const*& s, WChar const* end, unsigned char*& d) {
  while (s < end) {
    uint32_t const c = *s;
    if (c < 0x80) {
      auto const left = static_cast<size_t>(end - s);
      if (K::narrowBlock(s, left, d)) {
        size_t const k = K::kNarrowBlock;
        size_t const run = k + K::narrowRun(s + k, left - k, d + k);
        s += run;
        d += run;
        continue;
      }
      if constexpr (K::kMixedBlocks) {
        if (narrowMixedBlocks<K>(s, left, d)) continue;
      }
      // A short run of ASCII between other characters, unit by unit.
      do {
        *d++ = static_cast<unsigned char>(*s++);
      } while (s < end && *s < 0x80);
      continue;
    }
    if (c < 0x800) {
      if constexpr (K::kMixedBlocks) {
        if (narrowMixedBlocks<K>(s, static_cast<size_t>(end - s), d)) continue;
      }
      d[0] = static_cast<unsigned char>(0xC0 | (c >> 6));
      d[1] = static_cast<unsigned char>(0x80 | (c & 0x3F));
      d += 2;
      ++s;
      continue;
    }
    if (isSurrogate(c)) return;
    if constexpr (K::kMixedBlocks) {
      if (narrowMixedBlocks<K>(s, static_cast<size_t>(end - s), d)) continue;
    }
    // A run of three-byte characters (most CJK text). With three units or
    // more left there is room for 9 bytes: two characters in one 8-byte
    // store, 6 bytes kept; with two left, one character in a 4-byte store.
    // The last unit of the input is written byte by byte below.
    uint32_t u = c;
    bool runEnded = false;
    if constexpr (std::endian::native == std::endian::little) {
      auto const enc3 = [](uint32_t x) -> uint64_t {
        return (0xE0 | (x >> 12)) | ((0x80 | ((x >> 6) & 0x3F)) << 8) |
               ((0x80 | (x & 0x3F)) << 16);
      };
      while (end - s >= 2) {
        uint32_t const next = s[1];
        bool const pair = end - s >= 3 && next >= 0x800 && !isSurrogate(next);
        if (pair) {
          uint64_t const w = enc3(u) | (enc3(next) << 24);
          std::memcpy(d, &w, 8);
          d += 6;
          s += 2;
        } else {
          uint32_t const w = static_cast<uint32_t>(enc3(u));
          std::memcpy(d, &w, 4);
          d += 3;
          s += 1;
        }
        u = *s;
        if (u < 0x800 || isSurrogate(u)) {
          runEnded = true;
          break;
        }
      }
    }
    if (runEnded) continue;
    d[0] = static_cast<unsigned char>(0xE0 | (u >> 12));
    d[1] = static_cast<unsigned char>(0x80 | ((u >> 6) & 0x3F));
    d[2] = static_cast<unsigned char>(0x80 | (u & 0x3F));
    d += 3;
    ++s;
  }
}

template <class K>
Outcome utf8ToUtf16Unchecked(unsigned char const* src, size_t n, WChar* dst) {
  unsigned char const* s = src;
  unsigned char const* const end = src + n;
  WChar* d = dst;
  for (;;) {
    fastUtf8ToUtf16<K>(s, end, d);
    if (s == end) break;
    Decoded const r = decodeMulti(s, end);
    if (r.len == 0) return done(r.err, s, src, 1, d, dst, 2);
    if (r.cp >= 0x10000) {
      uint32_t const v = r.cp - 0x10000;
      d[0] = static_cast<WChar>(kSurrogateFirst + (v >> 10));
      d[1] = static_cast<WChar>(kLowSurrogateFirst + (v & 0x3FF));
      d += 2;
    } else {
      *d++ = static_cast<WChar>(r.cp);
    }
    s += r.len;
  }
  return done(Result::ok, s, src, 1, d, dst, 2);
}

template <class K>
Outcome utf16ToUtf8Unchecked(WChar const* src, size_t n, unsigned char* dst) {
  WChar const* s = src;
  WChar const* const end = src + n;
  unsigned char* d = dst;
  for (;;) {
    fastUtf16ToUtf8<K>(s, end, d);
    if (s == end) break;
    // A surrogate: only a high one followed by a low one is well-formed.
    uint32_t const c = *s;
    if (isLowSurrogate(c)) return done(Result::sourceIllegal, s, src, 2, d, dst, 1);
    if (end - s < 2) return done(Result::sourceExhausted, s, src, 2, d, dst, 1);
    uint32_t const low = s[1];
    if (!isLowSurrogate(low)) return done(Result::sourceIllegal, s, src, 2, d, dst, 1);
    uint32_t const cp = ((c - kSurrogateFirst) << 10) + (low - kLowSurrogateFirst) + 0x10000;
    d[0] = static_cast<unsigned char>(0xF0 | (cp >> 18));
    d[1] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
    d[2] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
    d[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    d += 4;
    s += 2;
  }
  return done(Result::ok, s, src, 2, d, dst, 1);
}

// The unchecked transforms of one instruction set.
struct Transforms {
  Outcome (*toUtf16)(unsigned char const*, size_t, WChar*);
  Outcome (*toUtf8)(WChar const*, size_t, unsigned char*);
};

template <class K>
constexpr Transforms kTransforms = {&utf8ToUtf16Unchecked<K>, &utf16ToUtf8Unchecked<K>};

Isa bestIsaHere() {
#if defined(QUENLIB_UTF_X86)
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? Isa::avx2 : Isa::sse2;
#else
  return Isa::portable;
#endif
}

Isa available(Isa isa) {
  static Isa const best = bestIsaHere();
  return isa > best ? best : isa;
}

Transforms const& transforms(Isa isa) {
  switch (available(isa)) {
    case Isa::scalar: return kTransforms<simd::Scalar>;
    case Isa::portable: return kTransforms<simd::Portable>;
#if defined(QUENLIB_UTF_X86)
    case Isa::sse2: return kTransforms<simd::Sse2>;
    case Isa::avx2: return kTransforms<simd::Avx2>;
#else
    default: break;
#endif
  }
  return kTransforms<simd::Portable>;
}

Transforms const& bestTransforms() {
  static Transforms const& best = transforms(Isa::avx2);
  return best;
}

}  // namespace

Isa bestIsa() { return available(Isa::avx2); }

Outcome utf8ToUtf16(unsigned char const* src, size_t n, WChar* dst, size_t cap) {
  if (cap >= n) return bestTransforms().toUtf16(src, n, dst);
  return utf8ToWide(src, n, dst, cap);
}

Outcome utf8ToUtf16(Isa isa, unsigned char const* src, size_t n, WChar* dst, size_t cap) {
  if (cap >= n) return transforms(isa).toUtf16(src, n, dst);
  return utf8ToWide(src, n, dst, cap);
}

Outcome utf16ToUtf8(Isa isa, WChar const* src, size_t n, unsigned char* dst, size_t cap) {
  if (n <= cap / 3) return transforms(isa).toUtf8(src, n, dst);
  return utf16ToUtf8(src, n, dst, cap);
}

Outcome utf8ToUtf32(unsigned char const* src, size_t n, uint32_t* dst, size_t cap) {
  return utf8ToWide(src, n, dst, cap);
}

Outcome utf16ToUtf8(WChar const* src, size_t n, unsigned char* dst, size_t cap) {
  if (n <= cap / 3) return bestTransforms().toUtf8(src, n, dst);
  WChar const* s = src;
  WChar const* const end = src + n;
  unsigned char* d = dst;
  unsigned char* const dend = dst + cap;
  auto finish = [&](Result r) { return done(r, s, src, 2, d, dst, 1); };
  while (s < end) {
    copyAsciiRun16(s, end, d, dend);
    if (s == end) break;
    do {
      uint32_t cp = *s;
      int used = 1;
      if (isHighSurrogate(cp)) {
        if (end - s < 2) return finish(Result::sourceExhausted);
        uint32_t const low = s[1];
        if (!isLowSurrogate(low)) return finish(Result::sourceIllegal);
        cp = ((cp - kSurrogateFirst) << 10) + (low - kLowSurrogateFirst) + 0x10000;
        used = 2;
      } else if (isLowSurrogate(cp)) {
        return finish(Result::sourceIllegal);
      }
      if (!putUtf8(cp, d, dend)) return finish(Result::targetExhausted);
      s += used;
    } while (s < end && *s >= 0x80);
  }
  return finish(Result::ok);
}

Outcome utf32ToUtf8(uint32_t const* src, size_t n, unsigned char* dst, size_t cap) {
  unsigned char* d = dst;
  unsigned char* const dend = dst + cap;
  size_t i = 0;
  for (; i < n; ++i) {
    uint32_t const cp = src[i];
    if (isSurrogate(cp) || cp > kMaxCodePoint) return {Result::sourceIllegal, i, size_t(d - dst)};
    if (!putUtf8(cp, d, dend)) return {Result::targetExhausted, i, size_t(d - dst)};
  }
  return {Result::ok, i, size_t(d - dst)};
}

Outcome utf16ToUtf32(WChar const* src, size_t n, uint32_t* dst, size_t cap) {
  size_t i = 0;
  size_t o = 0;
  while (i < n) {
    uint32_t cp = src[i];
    size_t used = 1;
    if (isHighSurrogate(cp)) {
      if (i + 1 >= n) return {Result::sourceExhausted, i, o};
      uint32_t const low = src[i + 1];
      if (!isLowSurrogate(low)) return {Result::sourceIllegal, i, o};
      cp = ((cp - kSurrogateFirst) << 10) + (low - kLowSurrogateFirst) + 0x10000;
      used = 2;
    } else if (isLowSurrogate(cp)) {
      return {Result::sourceIllegal, i, o};
    }
    if (o == cap) return {Result::targetExhausted, i, o};
    dst[o++] = cp;
    i += used;
  }
  return {Result::ok, i, o};
}

Outcome utf32ToUtf16(uint32_t const* src, size_t n, WChar* dst, size_t cap) {
  size_t i = 0;
  size_t o = 0;
  for (; i < n; ++i) {
    uint32_t const cp = src[i];
    if (isSurrogate(cp) || cp > kMaxCodePoint) return {Result::sourceIllegal, i, o};
    if (cp < 0x10000) {
      if (o == cap) return {Result::targetExhausted, i, o};
      dst[o++] = static_cast<WChar>(cp);
      continue;
    }
    if (cap - o < 2) return {Result::targetExhausted, i, o};
    dst[o++] = static_cast<WChar>(kSurrogateFirst + ((cp - 0x10000) >> 10));
    dst[o++] = static_cast<WChar>(kLowSurrogateFirst + ((cp - 0x10000) & 0x3FF));
  }
  return {Result::ok, i, o};
}

bool isValidUtf8(unsigned char const* src, size_t n) {
  unsigned char const* s = src;
  unsigned char const* const end = src + n;
  while (s < end) {
    if (*s < 0x80) {
      ++s;
      continue;
    }
    Decoded const r = decodeMulti(s, end);
    if (r.len == 0) return false;
    s += r.len;
  }
  return true;
}

bool isValidUtf16(WChar const* src, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    uint32_t const c = src[i];
    if (isLowSurrogate(c)) return false;
    if (!isHighSurrogate(c)) continue;
    if (i + 1 >= n || !isLowSurrogate(src[i + 1])) return false;
    ++i;
  }
  return true;
}

size_t length(unsigned char const* s) { return std::strlen(reinterpret_cast<char const*>(s)); }

size_t length(WChar const* s) {
  size_t n = 0;
  while (s[n] != 0) ++n;
  return n;
}

size_t length(uint32_t const* s) {
  size_t n = 0;
  while (s[n] != 0) ++n;
  return n;
}

}  // namespace QuenLibA500::utf

// ---- CUTFConverter
//
// Every member converts into scratch space first and touches its target
// only on success, so a failed conversion leaves the target as it was.

namespace QuenLibA500 {
namespace {

constexpr char const* kNoMessage = nullptr;

// Larger results go through a scratch array (a string counts its units in
// 32 bits, with some spare room).
constexpr size_t kMaxInPlaceUnits = 0x7FFFFFFF;
// Below this many units a half-empty result buffer is kept as it is.
constexpr unsigned kKeepSlackBelow = 4096;

// A wide string written in place through the string's own buffer calls.
class WritableBrim : public SBrimString {
 public:
  // A private buffer with room for n units; the length is not changed.
  WChar* reserve(unsigned n) {
    setBufferSize(n);
    return getString();
  }
  // Sets the length to n (n within the reserved room) and terminates.
  void setLength(unsigned n) noexcept { terminateBuffer(n); }
};

template <class T>
CSmartRefCountPtr<UTFBuffer_t<T>> newBuffer(size_t units) {
  CSmartRefCountPtr<UTFBuffer_t<T>> p(new (std::nothrow) UTFBuffer_t<T>(units));
  if (!p || p->getBuffer() == nullptr) {
    QL_REPORT("targetStart", kNoMessage);
    return nullptr;
  }
  return p;
}

// The shared estimate: pairs count 4 and their low half 3 again.
template <class Unit>
unsigned int utf8LengthEstimate(Unit const* p) {
  unsigned int n = 1;
  if (p == nullptr) return n;
  for (; *p != 0; ++p) {
    uint32_t const c = static_cast<uint32_t>(p[0]);
    if (c >= 0xD800 && c <= 0xDBFF && static_cast<uint32_t>(p[1]) >= 0xDC00 &&
        static_cast<uint32_t>(p[1]) <= 0xDFFF) {
      uint32_t const cp = ((c - 0xD7F7) << 10) + static_cast<uint32_t>(p[1]);
      n += cp < 0x200000 ? 4 : 2;
      continue;  // the low half is counted again on the next step
    }
    if (c < 0x80) n += 1;
    else if (c < 0x800) n += 2;
    else if (c < 0x10000) n += 3;
    else if (c < 0x200000) n += 4;
    else n += 2;
  }
  return n;
}

// A fresh buffer holding the UTF-8 form of the n units; null on failure.
CUTFConverter::ByteBuffer utf16ToUtf8Buffer(WChar const* in, size_t n) {
  size_t const cap = n * 3 + 1;
  CUTFConverter::ByteBuffer b = newBuffer<unsigned char>(cap);
  if (!b) return nullptr;
  utf::Outcome const r = utf::utf16ToUtf8(in, n, b->getBuffer(), cap - 1);
  if (r.result != utf::Result::ok) return nullptr;
  b->setLength(r.written);
  return b;
}

}  // namespace

CUTFConverter::CUTFConverter(SAnsiString const& text) { setText(text); }

void CUTFConverter::setText(SAnsiString const& text) {
  unsigned char* start = nullptr;
  unsigned char* end = nullptr;
  if (!ConvertToUTFString(text, start, end)) {
    m_buffer = nullptr;
    m_length = 0;
    return;
  }
  m_length = static_cast<unsigned int>(end - start);
}

unsigned char const* CUTFConverter::getBuffer() const {
  static unsigned char const kEmpty[1] = {0};
  return m_buffer ? m_buffer->getBuffer() : kEmpty;
}

bool CUTFConverter::ConvertToUTFString(SAnsiString const& text, unsigned char*& start,
                                       unsigned char*& end) {
  start = end = nullptr;
  localeconv::ErrnoGuard keep;
  std::u16string const wide = localeconv::toUtf16(text.getString(), text.getLength());
  ByteBuffer b = utf16ToUtf8Buffer(wide.data(), wide.size());
  if (!b) return false;
  m_buffer = b;
  start = b->getBuffer();
  end = start + b->getLength();
  return true;
}

bool CUTFConverter::UTF8ToUTF16(unsigned char const* in, SBrimString& out) {
  if (in == nullptr) {
    out.empty();
    return true;
  }
  size_t const n = utf::length(in);
  if (n > kMaxInPlaceUnits) {
    std::vector<WChar> tmp(n + 1);
    utf::Outcome const r = utf::utf8ToUtf16(in, n, tmp.data(), n);
    if (r.result != utf::Result::ok) return false;
    out = SBrimString(tmp.data(), static_cast<unsigned>(r.written));
    return true;
  }
  // One unit per byte is the most the text can need: convert straight into
  // a fresh string of that size and drop it if the input is ill-formed.
  WritableBrim wide;
  auto const units = static_cast<unsigned>(n);
  utf::Outcome const r = utf::utf8ToUtf16(in, n, wide.reserve(units), units);
  if (r.result != utf::Result::ok) return false;
  auto const written = static_cast<unsigned>(r.written);
  // Text of mostly multi-byte characters leaves much of the buffer unused.
  if (written < units / 2 && units > kKeepSlackBelow) {
    out = SBrimString(wide.getString(), written);
    return true;
  }
  wide.setLength(written);
  out = std::move(wide);
  return true;
}

bool CUTFConverter::UTF16ToUTF8(SBrimString const& in, ByteBuffer& out) {
  ByteBuffer b = utf16ToUtf8Buffer(in.getString(), in.getLength());
  if (!b) return false;
  out = b;
  return true;
}

bool CUTFConverter::UTF16ToUTF8(SBrimString const& in, SSimpleBuffer& out) {
  size_t const n = in.getLength();
  if (n == 0) {
    out.empty();
    return true;
  }
  SSimpleBuffer b;
  unsigned char* p = b.getBuffer(static_cast<unsigned>(n * 3));
  if (p == nullptr) {
    QL_REPORT("targetStart", kNoMessage);
    return false;
  }
  utf::Outcome const r = utf::utf16ToUtf8(in.getString(), n, p, n * 3);
  if (r.result != utf::Result::ok) return false;
  b.releaseBuffer(static_cast<unsigned>(r.written));
  out = b;
  return true;
}

bool CUTFConverter::UCS4ToUTF16(unsigned int const* in, SBrimString& out) {
  if (in == nullptr) {
    out.empty();
    return true;
  }
  size_t const n = utf::length(in);
  std::vector<WChar> tmp(n * 2 + 1);
  utf::Outcome const r = utf::utf32ToUtf16(in, n, tmp.data(), n * 2);
  if (r.result != utf::Result::ok) return false;
  out = SBrimString(tmp.data(), static_cast<unsigned>(r.written));
  return true;
}

bool CUTFConverter::UTF16ToUCS4(SBrimString const& in, Ucs4Buffer& out) {
  size_t const n = in.getLength();
  Ucs4Buffer b = newBuffer<unsigned int>(n + 1);
  if (!b) return false;
  utf::Outcome const r = utf::utf16ToUtf32(in.getString(), n, b->getBuffer(), n);
  if (r.result != utf::Result::ok) return false;
  b->setLength(r.written);
  out = b;
  return true;
}

unsigned int CUTFConverter::UTF16ToUCS4(WChar const* in, unsigned int* out,
                                        unsigned int capacity) {
  size_t const n = in ? utf::length(in) : 0;
  auto const sizing = static_cast<unsigned int>(n + 1);
  if (out == nullptr) return sizing;
  if (n == 0) {
    if (capacity) out[0] = 0;
    return 0;
  }
  std::memset(out, 0, size_t(capacity) * sizeof(unsigned int));
  std::vector<unsigned int> tmp(n);
  utf::Outcome const r = utf::utf16ToUtf32(in, n, tmp.data(), n);
  if (r.result != utf::Result::ok || r.written > capacity) return sizing;
  std::memcpy(out, tmp.data(), r.written * sizeof(unsigned int));
  return static_cast<unsigned int>(r.written);
}

bool CUTFConverter::UCS4ToUTF8(unsigned int const* in, ByteBuffer& out) {
  size_t const n = in ? utf::length(in) : 0;
  ByteBuffer b = newBuffer<unsigned char>(n * 4 + 1);
  if (!b) return false;
  utf::Outcome const r = utf::utf32ToUtf8(in, n, b->getBuffer(), n * 4);
  if (r.result != utf::Result::ok) return false;
  b->setLength(r.written);
  out = b;
  return true;
}

bool CUTFConverter::UTF8ToUCS4(unsigned char const* in, Ucs4Buffer& out) {
  size_t const n = in ? utf::length(in) : 0;
  Ucs4Buffer b = newBuffer<unsigned int>(n + 1);
  if (!b) return false;
  utf::Outcome const r = utf::utf8ToUtf32(in, n, b->getBuffer(), n);
  if (r.result != utf::Result::ok) return false;
  b->setLength(r.written);
  out = b;
  return true;
}

unsigned int CUTFConverter::UTF16ToUTF8Length(WChar const* p) { return utf8LengthEstimate(p); }

unsigned int CUTFConverter::WideCharToUTF8Length(wchar_t const* p) {
  return utf8LengthEstimate(p);
}

}  // namespace QuenLibA500
