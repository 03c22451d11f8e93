// utfsimd.h (internal): the ASCII steps of the unchecked UTF transforms,
// one set per instruction set.
//
// Every set has the same four members. `widenBlock` / `narrowBlock` take
// one block (kWidenBlock bytes or kNarrowBlock UTF-16 units; fewer at the
// end of the input) whose first unit
// the caller has seen to be ASCII, and return how many leading ASCII units
// they converted (at least 1). `widenRun` / `narrowRun` go on block after
// block while the input stays ASCII, and return the units converted (0 or
// more). All of them may write whole vectors past the point they return:
// up to n output units for n input units. The unchecked transforms always
// have that room (their output holds the worst case of the input left), so
// converting a vector and then looking where its ASCII ends costs nothing.
//
// Scalar is the reference every other set is compared with; Portable works
// on 64-bit words and serves targets without a vector set here; SSE2 is on
// every x86-64 processor; AVX2 is chosen at run time.
#pragma once

#include <quenlib/types.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) || defined(_M_X64)
#define QUENLIB_UTF_X86 1
#include <immintrin.h>
#endif

namespace QuenLibA500::utf::simd {

// Scalar tails shared by every set.
inline size_t widenTail(unsigned char const* s, size_t n, WChar* d) {
  size_t i = 0;
  for (; i < n && s[i] < 0x80; ++i) d[i] = s[i];
  return i;
}

inline size_t narrowTail(WChar const* s, size_t n, unsigned char* d) {
  size_t i = 0;
  for (; i < n && s[i] < 0x80; ++i) d[i] = static_cast<unsigned char>(s[i]);
  return i;
}

struct Scalar {
  static constexpr bool kMixedBlocks = false;
  static constexpr size_t kWidenBlock = 1;
  static constexpr size_t kNarrowBlock = 1;
  static bool widenBlock(unsigned char const*, size_t, WChar*) { return false; }
  static size_t widenRun(unsigned char const* s, size_t n, WChar* d) { return widenTail(s, n, d); }
  static bool narrowBlock(WChar const*, size_t, unsigned char*) { return false; }
  static size_t narrowRun(WChar const* s, size_t n, unsigned char* d) {
    return narrowTail(s, n, d);
  }
};

// Eight bytes or four UTF-16 units in one 64-bit word.
struct Portable {
  static constexpr bool kMixedBlocks = false;
  static constexpr size_t kWidenBlock = 8;
  static constexpr size_t kNarrowBlock = 4;
  static constexpr uint64_t kHighBytes = 0x8080808080808080ull;
  static constexpr uint64_t kHighUnits = 0xFF80FF80FF80FF80ull;

  // Index of the first lane (of `bits` bits) with a bit of mask set.
  static size_t firstLane(uint64_t mask, unsigned bits) {
    if constexpr (std::endian::native == std::endian::little)
      return static_cast<size_t>(std::countr_zero(mask)) / bits;
    return static_cast<size_t>(std::countl_zero(mask)) / bits;
  }
  // Converts 8 bytes and returns how many lead the block as ASCII.
  static size_t widen8(unsigned char const* s, WChar* d) {
    uint64_t w = 0;
    std::memcpy(&w, s, 8);
    for (size_t i = 0; i < 8; ++i) d[i] = s[i];
    uint64_t const high = w & kHighBytes;
    return high == 0 ? 8 : firstLane(high, 8);
  }
  static size_t narrow4(WChar const* s, unsigned char* d) {
    uint64_t w = 0;
    std::memcpy(&w, s, 8);
    for (size_t i = 0; i < 4; ++i) d[i] = static_cast<unsigned char>(s[i]);
    uint64_t const high = w & kHighUnits;
    return high == 0 ? 4 : firstLane(high, 16);
  }
  static bool widenBlock(unsigned char const* s, size_t n, WChar* d) {
    return n >= 8 && widen8(s, d) == 8;
  }
  static size_t widenRun(unsigned char const* s, size_t n, WChar* d) {
    size_t i = 0;
    for (; n - i >= 8; i += 8) {
      size_t const k = widen8(s + i, d + i);
      if (k != 8) return i + k;
    }
    return i + widenTail(s + i, n - i, d + i);
  }
  static bool narrowBlock(WChar const* s, size_t n, unsigned char* d) {
    return n >= 4 && narrow4(s, d) == 4;
  }
  static size_t narrowRun(WChar const* s, size_t n, unsigned char* d) {
    size_t i = 0;
    for (; n - i >= 4; i += 4) {
      size_t const k = narrow4(s + i, d + i);
      if (k != 4) return i + k;
    }
    return i + narrowTail(s + i, n - i, d + i);
  }
};

#if defined(QUENLIB_UTF_X86)

struct Sse2 {
  static constexpr bool kMixedBlocks = false;
  static constexpr size_t kWidenBlock = 16;
  static constexpr size_t kNarrowBlock = 8;

  static void storeWide(__m128i v, WChar* d) {
    __m128i const zero = _mm_setzero_si128();
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_unpacklo_epi8(v, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 8), _mm_unpackhi_epi8(v, zero));
  }
  // Converts 16 bytes and returns how many lead the block as ASCII.
  static size_t widen16(unsigned char const* s, WChar* d) {
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    storeWide(v, d);
    auto const mask = static_cast<unsigned>(_mm_movemask_epi8(v));
    return mask == 0 ? 16 : static_cast<size_t>(std::countr_zero(mask));
  }
  static bool widenBlock(unsigned char const* s, size_t n, WChar* d) {
    if (n < 16) return false;
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    if (_mm_movemask_epi8(v) != 0) return false;
    storeWide(v, d);
    return true;
  }
  static size_t widenRun(unsigned char const* s, size_t n, WChar* d) {
    size_t i = 0;
    for (; n - i >= 32; i += 32) {
      __m128i const a = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s + i));
      __m128i const b = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s + i + 16));
      if (_mm_movemask_epi8(_mm_or_si128(a, b)) != 0) break;
      storeWide(a, d + i);
      storeWide(b, d + i + 16);
    }
    for (; n - i >= 16; i += 16) {
      size_t const k = widen16(s + i, d + i);
      if (k != 16) return i + k;
    }
    return i + widenTail(s + i, n - i, d + i);
  }

  // Eight units: the packed bytes are stored whole; the mask has two bits
  // per unit, set where the unit is ASCII.
  static size_t narrow8(WChar const* s, unsigned char* d) {
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    __m128i const high = _mm_set1_epi16(static_cast<short>(0xFF80));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm_packus_epi16(v, v));
    auto const ascii = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, high), _mm_setzero_si128())));
    return ascii == 0xFFFF ? 8 : static_cast<size_t>(std::countr_zero(~ascii)) / 2;
  }
  static bool narrowBlock(WChar const* s, size_t n, unsigned char* d) {
    if (n < 8) return false;
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    __m128i const high = _mm_set1_epi16(static_cast<short>(0xFF80));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, high), _mm_setzero_si128())) != 0xFFFF)
      return false;
    _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm_packus_epi16(v, v));
    return true;
  }
  static size_t narrowRun(WChar const* s, size_t n, unsigned char* d) {
    size_t i = 0;
    __m128i const high = _mm_set1_epi16(static_cast<short>(0xFF80));
    for (; n - i >= 16; i += 16) {
      __m128i const a = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s + i));
      __m128i const b = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s + i + 8));
      __m128i const any = _mm_and_si128(_mm_or_si128(a, b), high);
      if (_mm_movemask_epi8(_mm_cmpeq_epi16(any, _mm_setzero_si128())) != 0xFFFF) break;
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(a, b));
    }
    for (; n - i >= 8; i += 8) {
      size_t const k = narrow8(s + i, d + i);
      if (k != 8) return i + k;
    }
    return i + narrowTail(s + i, n - i, d + i);
  }
};

// Byte shuffles that drop the unused bytes of a block. Narrow: entry m
// keeps, of eight 2-byte lanes, the first byte of each and the second of
// those whose bit is set in m. Wide: entry m keeps the 16-bit lanes whose
// bit is set. Unused places take 0x80 (a zero byte).
struct ShuffleTables {
  alignas(16) unsigned char narrow[256][16];
  unsigned char narrowLength[256];
  alignas(16) unsigned char wide[256][16];
  // Entry m keeps, of four 4-byte lanes, 1 + bit i + bit (4 + i) of m
  // leading bytes of lane i (the UTF-8 form of unit i, built in its lane).
  alignas(16) unsigned char narrow3[256][16];
  unsigned char narrow3Length[256];
};

constexpr ShuffleTables makeShuffleTables() {
  ShuffleTables t{};
  for (unsigned m = 0; m < 256; ++m) {
    unsigned n = 0;
    unsigned w = 0;
    for (unsigned i = 0; i < 8; ++i) {
      t.narrow[m][n++] = static_cast<unsigned char>(2 * i);
      if ((m >> i) & 1) t.narrow[m][n++] = static_cast<unsigned char>(2 * i + 1);
      if (((m >> i) & 1) == 0) continue;
      t.wide[m][w++] = static_cast<unsigned char>(2 * i);
      t.wide[m][w++] = static_cast<unsigned char>(2 * i + 1);
    }
    t.narrowLength[m] = static_cast<unsigned char>(n);
    for (; n < 16; ++n) t.narrow[m][n] = 0x80;
    for (; w < 16; ++w) t.wide[m][w] = 0x80;
    unsigned k = 0;
    for (unsigned i = 0; i < 4; ++i) {
      unsigned const bytes = 1 + ((m >> i) & 1) + ((m >> (4 + i)) & 1);
      for (unsigned b = 0; b < bytes; ++b) t.narrow3[m][k++] = static_cast<unsigned char>(4 * i + b);
    }
    t.narrow3Length[m] = static_cast<unsigned char>(k);
    for (; k < 16; ++k) t.narrow3[m][k] = 0x80;
  }
  return t;
}

inline constexpr ShuffleTables kShuffles = makeShuffleTables();

// The blocks of pure ASCII stay SSE2 (short runs between other characters
// gain nothing from wider vectors); the runs take 32 or 64 bytes at a
// time. Blocks that mix ASCII with two-byte characters (most European
// text) are converted whole with byte shuffles instead of character by
// character.
struct Avx2 : Sse2 {
  static constexpr bool kMixedBlocks = true;

  // Eight UTF-16 units, none a surrogate, to their 8 to 24 UTF-8 bytes:
  // each unit's one to three bytes are formed in a 32-bit lane, and each
  // half of four lanes is closed up with one byte shuffle. Returns the
  // bytes, or 0 (nothing written) when a unit is a surrogate or fewer than
  // ten units are left (the second store reaches 28 bytes on).
  __attribute__((target("avx2"), always_inline)) static size_t narrowAny8(WChar const* s, size_t n,
                                                                           unsigned char* d) {
    if (n < 10) return 0;
    __m128i const u = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    __m128i const surrogate = _mm_cmpeq_epi16(_mm_and_si128(u, _mm_set1_epi16(static_cast<short>(0xF800))),
                                              _mm_set1_epi16(static_cast<short>(0xD800)));
    if (_mm_movemask_epi8(surrogate) != 0) return 0;
    __m256i const w = _mm256_cvtepu16_epi32(u);
    __m256i const low6 = _mm256_set1_epi32(0x3F);
    __m256i const trail = _mm256_set1_epi32(0x80);
    __m256i const last = _mm256_or_si256(_mm256_and_si256(w, low6), trail);
    __m256i const middle = _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(w, 6), low6), trail);
    __m256i const two = _mm256_or_si256(_mm256_or_si256(_mm256_srli_epi32(w, 6), _mm256_set1_epi32(0xC0)),
                                        _mm256_slli_epi32(last, 8));
    __m256i const three = _mm256_or_si256(
        _mm256_or_si256(_mm256_srli_epi32(w, 12), _mm256_set1_epi32(0xE0)),
        _mm256_or_si256(_mm256_slli_epi32(middle, 8), _mm256_slli_epi32(last, 16)));
    __m256i const ge80 = _mm256_cmpgt_epi32(w, _mm256_set1_epi32(0x7F));
    __m256i const ge800 = _mm256_cmpgt_epi32(w, _mm256_set1_epi32(0x7FF));
    __m256i const lanes = _mm256_blendv_epi8(_mm256_blendv_epi8(w, two, ge80), three, ge800);
    auto const m80 = static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(ge80)));
    auto const m800 = static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(ge800)));
    unsigned const first = (m80 & 0xF) | ((m800 & 0xF) << 4);
    unsigned const second = (m80 >> 4) | (m800 & 0xF0);
    __m128i const shFirst = _mm_load_si128(reinterpret_cast<__m128i const*>(kShuffles.narrow3[first]));
    __m128i const shSecond = _mm_load_si128(reinterpret_cast<__m128i const*>(kShuffles.narrow3[second]));
    size_t const k = kShuffles.narrow3Length[first];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_shuffle_epi8(_mm256_castsi256_si128(lanes), shFirst));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + k),
                     _mm_shuffle_epi8(_mm256_extracti128_si256(lanes, 1), shSecond));
    return k + kShuffles.narrow3Length[second];
  }

  // Sixteen bytes of ASCII, two- and three-byte sequences to UTF-16. A
  // sequence that runs past the block is left for the next step. Returns
  // the bytes used (14 to 16) and sets units, or returns 0 (output may
  // have been written) when the block holds a four-byte lead or anything
  // ill-formed, or fewer than 18 bytes are left (each place is decoded
  // with the two bytes after it).
  __attribute__((target("avx2"), always_inline)) static size_t widenAny16(
      unsigned char const* s, size_t n, WChar* d, size_t& units) {
    if (n < 18) return 0;
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    // Signed compares, on the bytes from 80 up: 80..BF are -128..-65,
    // C0..DF -64..-33, E0..EF -32..-17.
    unsigned const high = static_cast<unsigned>(_mm_movemask_epi8(v));
    auto const above = [&](int limit) __attribute__((always_inline)) {
      return high & static_cast<unsigned>(_mm_movemask_epi8(
                        _mm_cmpgt_epi8(v, _mm_set1_epi8(static_cast<char>(limit)))));
    };
    unsigned const leads = above(-65);  // C0 and up
    unsigned const leads3 = above(-33);  // E0 and up
    if (above(-17) != 0) return 0;  // a four-byte lead or F5..FF
    __m128i const c0c1 = _mm_cmpeq_epi8(_mm_and_si128(v, _mm_set1_epi8(static_cast<char>(0xFE))),
                                        _mm_set1_epi8(static_cast<char>(0xC0)));
    if (_mm_movemask_epi8(c0c1) != 0) return 0;
    // Every lead followed by its trail bytes, every trail byte after a lead.
    unsigned const trails = high & ~leads;
    if ((((leads << 1) | (leads3 << 2)) & 0xFFFF) != trails) return 0;
    // A lead in the last place, or a three-byte lead in the one before,
    // starts the next block. Plain loads: the loop waits on this.
    size_t const used = 16 - static_cast<size_t>(s[15] >= 0xC0) - 2 * static_cast<size_t>(s[14] >= 0xE0);
    __m256i const b0 = _mm256_cvtepu8_epi16(v);
    __m256i const b1 = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<__m128i const*>(s + 1)));
    __m256i const b2 = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<__m128i const*>(s + 2)));
    __m256i const low6 = _mm256_set1_epi16(0x3F);
    __m256i const t1 = _mm256_and_si256(b1, low6);
    __m256i const two = _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(b0, _mm256_set1_epi16(0x1F)), 6), t1);
    __m256i const three = _mm256_or_si256(_mm256_or_si256(_mm256_slli_epi16(b0, 12), _mm256_slli_epi16(t1, 6)),
                                          _mm256_and_si256(b2, low6));
    __m256i const isLead = _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xBF));
    __m256i const isLead3 = _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xDF));
    // A three-byte form below U+0800 (overlong) or of a surrogate.
    __m256i const top = _mm256_and_si256(three, _mm256_set1_epi16(static_cast<short>(0xF800)));
    __m256i const bad = _mm256_and_si256(
        isLead3, _mm256_or_si256(_mm256_cmpeq_epi16(top, _mm256_setzero_si256()),
                                 _mm256_cmpeq_epi16(top, _mm256_set1_epi16(static_cast<short>(0xD800)))));
    __m128i const badBytes = _mm_packs_epi16(_mm256_castsi256_si128(bad), _mm256_extracti128_si256(bad, 1));
    unsigned const keep = ~trails & ((1u << used) - 1);
    if ((static_cast<unsigned>(_mm_movemask_epi8(badBytes)) & keep) != 0) return 0;
    __m256i const lanes = _mm256_blendv_epi8(_mm256_blendv_epi8(b0, two, isLead), three, isLead3);
    unsigned const keepLow = keep & 0xFF;
    unsigned const keepHigh = keep >> 8;
    __m128i const shLow = _mm_load_si128(reinterpret_cast<__m128i const*>(kShuffles.wide[keepLow]));
    __m128i const shHigh = _mm_load_si128(reinterpret_cast<__m128i const*>(kShuffles.wide[keepHigh]));
    auto const first = static_cast<size_t>(std::popcount(keepLow));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_shuffle_epi8(_mm256_castsi256_si128(lanes), shLow));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + first),
                     _mm_shuffle_epi8(_mm256_extracti128_si256(lanes, 1), shHigh));
    units = first + static_cast<size_t>(std::popcount(keepHigh));
    return used;
  }

  // Eight UTF-16 units, all below U+0800, to their 8 to 16 UTF-8 bytes
  // (stored as 16); returns the bytes, or 0 (nothing written) when a unit
  // needs three bytes or fewer than eight are left.
  __attribute__((target("avx2"), always_inline)) static size_t narrowMixed8(WChar const* s,
                                                                             size_t n,
                                                                             unsigned char* d) {
    if (n < 8) return 0;
    __m128i const u = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    __m128i const zero = _mm_setzero_si128();
    __m128i const small = _mm_cmpeq_epi16(_mm_and_si128(u, _mm_set1_epi16(static_cast<short>(0xF800))), zero);
    if (_mm_movemask_epi8(small) != 0xFFFF) return 0;
    __m128i const ascii = _mm_cmpeq_epi16(_mm_and_si128(u, _mm_set1_epi16(static_cast<short>(0xFF80))), zero);
    // Two-byte form in each lane: lead byte low, trail byte high.
    __m128i const lead = _mm_or_si128(_mm_srli_epi16(u, 6), _mm_set1_epi16(0xC0));
    __m128i const trail = _mm_slli_epi16(
        _mm_or_si128(_mm_and_si128(u, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80)), 8);
    __m128i const lanes = _mm_or_si128(_mm_and_si128(ascii, u), _mm_andnot_si128(ascii, _mm_or_si128(lead, trail)));
    auto const two = static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(_mm_cmpeq_epi16(ascii, zero), zero)));
    __m128i const shuffle = _mm_load_si128(reinterpret_cast<__m128i const*>(kShuffles.narrow[two]));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_shuffle_epi8(lanes, shuffle));
    return kShuffles.narrowLength[two];
  }

  // Sixteen bytes of ASCII and well-formed two-byte sequences to UTF-16. A
  // lead byte in the last place is left for the next step. Returns the
  // bytes used (15 or 16) and sets units, or returns 0 (output may have been
  // written) when the block holds anything else or fewer than 17 bytes are
  // left (the trail bytes are read one place further on).
  __attribute__((target("avx2"), always_inline)) static size_t widenMixed16(
      unsigned char const* s, size_t n, WChar* d, size_t& units) {
    if (n < 17) return 0;
    __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s));
    __m128i const zero = _mm_setzero_si128();
    auto const lowBytes = [&](int limit) __attribute__((always_inline)) {
      // Bit i set where byte i <= limit.
      return static_cast<unsigned>(_mm_movemask_epi8(
          _mm_cmpeq_epi8(_mm_subs_epu8(v, _mm_set1_epi8(static_cast<char>(limit))), zero)));
    };
    if (lowBytes(0xDF) != 0xFFFF) return 0;  // a three- or four-byte lead
    unsigned const notLead = lowBytes(0xBF);
    unsigned const leads = ~notLead & 0xFFFF;
    unsigned const trails = static_cast<unsigned>(_mm_movemask_epi8(v)) & notLead;
    // Every lead followed by a trail, every trail after a lead; no C0, C1.
    if (trails != ((leads << 1) & 0xFFFF)) return 0;
    __m128i const overlong = _mm_cmpeq_epi8(_mm_and_si128(v, _mm_set1_epi8(static_cast<char>(0xFE))),
                                            _mm_set1_epi8(static_cast<char>(0xC0)));
    if (_mm_movemask_epi8(overlong) != 0) return 0;
    __m128i const next = _mm_loadu_si128(reinterpret_cast<__m128i const*>(s + 1));
    auto const decode = [&](__m128i x, __m128i y) __attribute__((always_inline)) {
      __m128i const two = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(x, _mm_set1_epi16(0x1F)), 6),
                                       _mm_and_si128(y, _mm_set1_epi16(0x3F)));
      __m128i const isLead = _mm_cmpgt_epi16(x, _mm_set1_epi16(0xBF));
      return _mm_or_si128(_mm_and_si128(isLead, two), _mm_andnot_si128(isLead, x));
    };
    __m128i const low = decode(_mm_unpacklo_epi8(v, zero), _mm_unpacklo_epi8(next, zero));
    __m128i const high = decode(_mm_unpackhi_epi8(v, zero), _mm_unpackhi_epi8(next, zero));
    unsigned keep = ~trails & 0xFFFF;
    size_t used = 16;
    if (leads & 0x8000) {
      keep &= 0x7FFF;
      used = 15;
    }
    unsigned const keepLow = keep & 0xFF;
    unsigned const keepHigh = keep >> 8;
    __m128i const shLow = _mm_load_si128(reinterpret_cast<__m128i const*>(kShuffles.wide[keepLow]));
    __m128i const shHigh = _mm_load_si128(reinterpret_cast<__m128i const*>(kShuffles.wide[keepHigh]));
    auto const first = static_cast<size_t>(std::popcount(keepLow));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_shuffle_epi8(low, shLow));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + first), _mm_shuffle_epi8(high, shHigh));
    units = first + static_cast<size_t>(std::popcount(keepHigh));
    return used;
  }

  // Block after block of ASCII, two- and three-byte characters, while they
  // last; a block without three-byte characters takes the cheaper step.
  // Return the input units used and set the output units written (both 0
  // when the first block already holds anything else).
  __attribute__((target("avx2"))) static size_t widenMixed(unsigned char const* s, size_t n,
                                                            WChar* d, size_t& units) {
    size_t i = 0;
    size_t o = 0;
    for (;;) {
      size_t written = 0;
      size_t used = widenMixed16(s + i, n - i, d + o, written);
      if (used == 0) used = widenAny16(s + i, n - i, d + o, written);
      if (used == 0) break;
      i += used;
      o += written;
    }
    units = o;
    return i;
  }
  __attribute__((target("avx2"))) static size_t narrowMixed(WChar const* s, size_t n,
                                                             unsigned char* d, size_t& bytes) {
    size_t i = 0;
    size_t o = 0;
    for (;;) {
      size_t written = narrowMixed8(s + i, n - i, d + o);
      if (written == 0) written = narrowAny8(s + i, n - i, d + o);
      if (written == 0) break;
      i += 8;
      o += written;
    }
    bytes = o;
    return i;
  }

  __attribute__((target("avx2"), always_inline)) static void store(__m256i v, WChar* out) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out),
                        _mm256_cvtepu8_epi16(_mm256_castsi256_si128(v)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 16),
                        _mm256_cvtepu8_epi16(_mm256_extracti128_si256(v, 1)));
  }
  // Bytes to the next 32-byte boundary of p.
  static size_t toAlignment(void const* p) {
    return (32 - (reinterpret_cast<uintptr_t>(p) & 31)) & 31;
  }

  __attribute__((target("avx2"))) static size_t widenRun(unsigned char const* s, size_t n,
                                                          WChar* d) {
    size_t i = 0;
    // Long runs store 32-byte vectors at aligned places: a store across two
    // cache lines costs two. One SSE2 block takes the units before.
    if (n >= 256) {
      size_t const k = widen16(s, d);
      if (k != 16) return k;
      i = toAlignment(d) / sizeof(WChar);
    }
    for (; n - i >= 64; i += 64) {
      __m256i const a = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(s + i));
      __m256i const b = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(s + i + 32));
      if (_mm256_movemask_epi8(_mm256_or_si256(a, b)) != 0) break;
      store(a, d + i);
      store(b, d + i + 32);
    }
    for (; n - i >= 32; i += 32) {
      __m256i const v = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(s + i));
      store(v, d + i);
      auto const mask = static_cast<unsigned>(_mm256_movemask_epi8(v));
      if (mask != 0) return i + static_cast<size_t>(std::countr_zero(mask));
    }
    return i + Sse2::widenRun(s + i, n - i, d + i);
  }

  __attribute__((target("avx2"))) static size_t narrowRun(WChar const* s, size_t n,
                                                           unsigned char* d) {
    size_t i = 0;
    if (n >= 256) {
      size_t const k = Sse2::narrowRun(s, 32, d);
      if (k != 32) return k;
      i = toAlignment(d);
    }
    __m256i const high = _mm256_set1_epi16(static_cast<short>(0xFF80));
    for (; n - i >= 32; i += 32) {
      __m256i const a = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(s + i));
      __m256i const b = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(s + i + 16));
      if (!_mm256_testz_si256(_mm256_or_si256(a, b), high)) break;
      // packus works per 128-bit lane: put the four quarters back in order.
      __m256i const packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), packed);
    }
    return i + Sse2::narrowRun(s + i, n - i, d + i);
  }
};

#endif  // QUENLIB_UTF_X86

}  // namespace QuenLibA500::utf::simd
