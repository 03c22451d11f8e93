// stringconv.h: integers to text and text to integers, in any radix.
//
// Every number the library stores as text goes through three function
// templates:
//
//   StringConvFromInteger        value -> digits in a caller array
//   StringConvToInteger          a whole string -> value
//   StringConvToIntegerIterator  a range of an SAsciiString -> value
//
// and the static wrappers that fix their limits: `SAnsiStringConv` (for
// SAnsiString), `SWCharStringConv` (for SWCharString) and the empty
// `SAsciiStringConv`. Decimal, locale-independent forms are in
// neutralstr.h (`NeutralString`).
//
//   int32_t port = 0;
//   if (SAnsiStringConv::FromString("8080", port, 10)) ...   // 8080
//   uint32_t mask = 0;
//   SAnsiStringConv::FromString("0xFF00", mask, 16);         // 0xFF00
//   SAnsiString hex = SAnsiStringConv::ToString(-1, 16);     // "FFFFFFFF"
//   char buf[kStringConvUnits];
//   int32_t n = StringConvFromInteger(buf, int64_t{-42}, 10); // "-42", 3
//
// The rules are old and deliberate; callers depend on them:
//  - Digits above 9 are written as upper-case letters. A negative value in
//    a radix other than 10 is written as the two's complement of its own
//    type ((int16_t)-1 in radix 16 is "FFFF", (int32_t)-1 is "FFFFFFFF").
//  - Parsing accepts an optional leading "-" (signed types only), never
//    "+". A unit is first read as unit - '0'; only when that is not below
//    the radix are letters mapped (a/A = 10) in radixes above 10. So in
//    radixes above 17 an upper-case letter reads as unit - '0' ("A" is 17
//    in radix 18) and ':'..'@' read as 10..16 above radix 10, while the
//    lower-case letters always read as 10..35: text written in radixes
//    above 17 reads back after lower-casing it.
//  - The string form stops with success at the first "." or space, so
//    "3.9" gives 3 and "12 abc" gives 12; in radix 16 it skips every "x"
//    or "X", so "0x1F" gives 31. The iterator form stops only at "." and
//    skips no "x".
//  - An empty text and a lone "-" give 0 with success.
//  - On failure the result is false and the output is 0.
//  - A negative text is accepted while its magnitude is at most the
//    limit + 1 (the type's minimum); anything beyond fails.
//
// Radixes 2 to 36 are the useful ones. A radix below 2 writes nothing (the
// empty text, length 0) and reports an assertion; parsing with a radix
// below 1 fails. Writing in a radix above 36 uses characters beyond 'Z'.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace QuenLibA500 {

// Units a value needs at most, sign and terminator included: 64 binary
// digits, a sign for radix 10, the terminator.
inline constexpr unsigned kStringConvUnits = 66;

namespace stringconv_internal {

// The per-digit steps must be inlined into each parse loop; compilers
// otherwise keep them out of line in the library's own copies.
#define QL_STRINGCONV_INLINE inline __attribute__((always_inline))

// The integer types the conversions take (not bool, not character types).
template <class T>
concept Integer = std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                  !std::is_same_v<T, char> && !std::is_same_v<T, wchar_t> &&
                  !std::is_same_v<T, char8_t> && !std::is_same_v<T, char16_t> &&
                  !std::is_same_v<T, char32_t>;

// "00" to "99", two characters per value.
inline constexpr char kDigitPairs[201] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

inline constexpr uint64_t kPow10[20] = {1ull,
                                        10ull,
                                        100ull,
                                        1000ull,
                                        10000ull,
                                        100000ull,
                                        1000000ull,
                                        10000000ull,
                                        100000000ull,
                                        1000000000ull,
                                        10000000000ull,
                                        100000000000ull,
                                        1000000000000ull,
                                        10000000000000ull,
                                        100000000000000ull,
                                        1000000000000000ull,
                                        10000000000000000ull,
                                        100000000000000000ull,
                                        1000000000000000000ull,
                                        10000000000000000000ull};

// Number of decimal digits of v (1 for 0).
template <class U>
constexpr unsigned DecimalDigits(U v) noexcept {
  // bit_width * log10(2), then correct by one against the power table.
  // v | 1 has the same digit count as v (powers of ten are even) and
  // makes 0 count as one digit.
  U w = static_cast<U>(v | 1u);
  unsigned t = (static_cast<unsigned>(std::bit_width(w)) * 1233u) >> 12;
  return t + 1 - (static_cast<uint64_t>(w) < kPow10[t]);
}

// The character of a digit value: '0'..'9', then 'A' upwards.
template <class Ch>
constexpr Ch DigitChar(unsigned d) noexcept {
  return static_cast<Ch>(d < 10 ? '0' + d : '7' + d);
}

// Writes v in decimal so that its last digit lands just before end.
template <class Ch, class U>
inline void WriteDecimalBackwards(Ch* end, U v) noexcept {
  if constexpr (sizeof(U) > 4) {
    // 64-bit divisions are dearer; drop to 32 bits as soon as v fits.
    while (v > 0xFFFFFFFFu) {
      unsigned r = static_cast<unsigned>(v % 100);
      v /= 100;
      end -= 2;
      end[0] = static_cast<Ch>(kDigitPairs[2 * r]);
      end[1] = static_cast<Ch>(kDigitPairs[2 * r + 1]);
    }
  }
  uint32_t w = static_cast<uint32_t>(v);
  while (w >= 100) {
    unsigned r = w % 100;
    w /= 100;
    end -= 2;
    end[0] = static_cast<Ch>(kDigitPairs[2 * r]);
    end[1] = static_cast<Ch>(kDigitPairs[2 * r + 1]);
  }
  if (w >= 10) {
    end[-2] = static_cast<Ch>(kDigitPairs[2 * w]);
    end[-1] = static_cast<Ch>(kDigitPairs[2 * w + 1]);
  } else {
    end[-1] = static_cast<Ch>('0' + w);
  }
}

inline constexpr char kDigitChars[37] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

// Digits of v in a power-of-two radix (1 << shift); returns the count.
// kShift is the shift when known at compile time, else 0.
template <unsigned kShift, class Ch, class U>
inline int32_t WritePow2(Ch* out, U v, unsigned runtimeShift) noexcept {
  unsigned shift = kShift ? kShift : runtimeShift;
  if (kShift && kShift <= 5) {
    // Digit values stay below 32: a plain table lookup.
    unsigned bits = static_cast<unsigned>(std::bit_width(v | 1u));
    unsigned n = (bits + shift - 1) / shift;
    for (unsigned i = n; i-- > 0;) {
      out[i] = static_cast<Ch>(kDigitChars[static_cast<unsigned>(v) & ((1u << shift) - 1)]);
      v >>= shift;
    }
    out[n] = 0;
    return static_cast<int32_t>(n);
  }
  unsigned bits = static_cast<unsigned>(std::bit_width(v));
  unsigned n = bits == 0 ? 1 : (bits + shift - 1) / shift;
  U mask = static_cast<U>((1u << shift) - 1);
  for (unsigned i = n; i-- > 0;) {
    out[i] = DigitChar<Ch>(static_cast<unsigned>(v & mask));
    v >>= shift;
  }
  out[n] = 0;
  return static_cast<int32_t>(n);
}

// Digits of v in any radix >= 2; returns the count.
template <class Ch, class U>
inline int32_t WriteAnyRadix(Ch* out, U v, unsigned radix) noexcept {
  Ch tmp[kStringConvUnits];
  Ch* end = tmp + kStringConvUnits;
  Ch* p = end;
  do {
    *--p = DigitChar<Ch>(static_cast<unsigned>(v % radix));
    v /= radix;
  } while (v != 0);
  int32_t n = static_cast<int32_t>(end - p);
  for (int32_t i = 0; i < n; ++i) out[i] = p[i];
  out[n] = 0;
  return n;
}

// Digits of the unsigned v (32 or 64 bits wide); returns the count.
template <class Ch, class U>
inline int32_t WriteUnsigned(Ch* out, U v, int radix) noexcept {
  if (radix == 10) {
    unsigned n = DecimalDigits(v);
    WriteDecimalBackwards(out + n, v);
    out[n] = 0;
    return static_cast<int32_t>(n);
  }
  if (radix == 16) return WritePow2<4>(out, v, 4);
  unsigned r = static_cast<unsigned>(radix);
  if ((r & (r - 1)) == 0) return WritePow2<0>(out, v, static_cast<unsigned>(std::countr_zero(r)));
  return WriteAnyRadix(out, v, r);
}

// A caller error: reported, nothing written. Defined in the library.
QUENLIB_API void ReportBadRadix(int radix) noexcept;

// The maximum divided by the radix, with the usual radixes as constants.
template <class T>
constexpr T LimitDivRadix(T limit, int radix) noexcept {
  if (radix == 10) return static_cast<T>(limit / 10);
  if (radix == 16) return static_cast<T>(limit / 16);
  return static_cast<T>(limit / static_cast<T>(radix));
}

// The running value of a parse and its range check.
//
// The value is kept as an unsigned magnitude of T's width. For a positive
// text it may not exceed `limit`; for a negative text it may reach
// `limit + 1`, the magnitude of the type's minimum. The tests follow the
// library's original order: first against limitDivRadix (so that the
// multiplication cannot overflow), then against limit - digit.
template <class T>
struct Accumulator {
  using U = std::make_unsigned_t<T>;
  U value = 0;
  U limit;
  U limitDivRadix;
  U radix;
  // Below this value any digit keeps value * radix + digit within limit,
  // so the full check can be skipped (0 when no value is that safe).
  U fastBound;
  bool negative = false;

  constexpr Accumulator(T lim, T ldr, int r) noexcept
      : limit(static_cast<U>(lim)),
        limitDivRadix(static_cast<U>(ldr)),
        radix(static_cast<U>(r)),
        fastBound(FastBound(static_cast<U>(lim), static_cast<U>(r))) {}

  static constexpr U FastBound(U lim, U r) noexcept {
    if (r == 0 || lim < static_cast<U>(r - 1)) return 0;
    return static_cast<U>((lim - (r - 1)) / r + 1);
  }

  // Adds one digit; false when the value leaves its range.
  QL_STRINGCONV_INLINE constexpr bool Push(unsigned digit) noexcept {
    U d = static_cast<U>(digit);
    if (value < fastBound) {
      value = static_cast<U>(value * radix + d);
      return true;
    }
    if (value > limitDivRadix) {
      if (!negative || static_cast<U>(value - 1) > limitDivRadix) return false;
      Step r = AtMinimum(value, radix, d, limit);
      value = r.value;
      return r.ok;
    }
    // value <= limitDivRadix, so scaled <= limit and cannot overflow.
    U scaled = static_cast<U>(value * radix);
    if (scaled <= limit && d <= static_cast<U>(limit - scaled)) {
      value = static_cast<U>(scaled + d);
      return true;
    }
    // Past the maximum: a negative text may go exactly one further.
    if (!negative || scaled > limit || d != static_cast<U>(limit - scaled + 1)) return false;
    value = static_cast<U>(scaled + d);
    return true;
  }

  // The value is limitDivRadix + 1 in a negative text. Only a result of
  // exactly limit + 1 (the minimum) is accepted: the older code multiplied
  // here without a test and let larger magnitudes wrap. Kept out of line
  // and free of `this` so that the accumulator stays in registers.
  struct Step {
    bool ok;
    U value;
  };
  [[gnu::noinline, gnu::cold]] static constexpr Step AtMinimum(U value, U radix, U d,
                                                                U limit) noexcept {
    U scaled, sum;
    if (__builtin_mul_overflow(value, radix, &scaled)) return {false, 0};
    if (__builtin_add_overflow(scaled, d, &sum)) return {false, 0};
    if (limit != std::numeric_limits<U>::max() && sum > static_cast<U>(limit + 1)) return {false, 0};
    return {true, sum};
  }

  constexpr T Result() const noexcept {
    return static_cast<T>(negative ? static_cast<U>(U(0) - value) : value);
  }
};

// Classification of one unit.
enum class UnitKind { kDigit, kStop, kSkip, kBad };

// The digit value of unit c in radix, read the way the library always
// has: first c - '0', which is a digit whenever it is below the radix (so
// in radixes above 10 the punctuation ':'..'@' counts 10..16, and above 17
// the upper-case letters count from 17); failing that, in radixes above 10,
// the letter value (c - 'a' + 10 from 'a' on, else c - 'A' + 10), which is
// a digit when it is neither negative nor at or above the radix. The
// lower-case letters always have their usual values. 0xFF: no digit.
template <class UU>
QL_STRINGCONV_INLINE constexpr unsigned DigitValue(UU c, unsigned radix) noexcept {
  unsigned d = static_cast<unsigned>(c) - '0';  // wraps high below '0'
  if (d < radix) return d;
  if (radix <= 10) return 0xFFu;
  unsigned v = static_cast<unsigned>(c) >= 'a' ? static_cast<unsigned>(c) - 'a' + 10
                                               : static_cast<unsigned>(c) - 'A' + 10;  // wraps
  return v < radix ? v : 0xFFu;
}

// The reading of unit u: a digit below the radix; else "." (and, in the
// string form, " ") stops, and "x"/"X" is skipped in radix 16 by the
// string form. Digit values are those of DigitValue.
template <bool kStringForm, class Unit>
QL_STRINGCONV_INLINE constexpr UnitKind Classify(Unit u, unsigned radix, unsigned& digit) noexcept {
  auto c = static_cast<std::make_unsigned_t<Unit>>(u);
  unsigned v = DigitValue(c, radix);
  if (v < radix) {
    digit = v;
    return UnitKind::kDigit;
  }
  if (c == '.') return UnitKind::kStop;
  if (kStringForm && c == ' ') return UnitKind::kStop;
  if (kStringForm && radix == 16 && (c == 'x' || c == 'X')) return UnitKind::kSkip;
  return UnitKind::kBad;
}

// The string form's loop over units [i, n). kRadix is the radix when it
// is known at compile time (10 and 16, the common ones), else 0.
//
// The bound n is the byte length, while the library bounds the scan by
// the character count, which for multibyte text stops at the first zero
// byte. Any byte at or above 0x80 is not a digit, so the scan has failed
// before the count and the byte length can differ in any other way: a
// zero byte is the only place where the bound needs correcting.
template <int kRadix, bool kMultibyte, class Unit, class T>
QL_STRINGCONV_INLINE bool ScanUnits(Unit const* p, uint32_t i, uint32_t n, Accumulator<T>& acc,
                      int runtimeRadix) noexcept {
  // A radix below 1 has no digits at all (only an empty number parses).
  unsigned radix = kRadix ? static_cast<unsigned>(kRadix)
                          : static_cast<unsigned>(runtimeRadix < 0 ? 0 : runtimeRadix);
  using UU = std::make_unsigned_t<Unit>;
  for (; i < n; ++i) {
    UU c = static_cast<UU>(p[i]);
    unsigned d;
    if constexpr (kRadix == 10)
      d = static_cast<unsigned>(c) - '0';  // wraps high for units below '0'
    else
      d = DigitValue(c, radix);
    if (d < radix) [[likely]] {
      // The common case: no overflow is possible yet.
      if (acc.value < acc.fastBound) [[likely]] {
        acc.value = static_cast<typename Accumulator<T>::U>(acc.value * radix + d);
        continue;
      }
      if (!acc.Push(d)) return false;
      continue;
    }
    if (c == '.' || c == ' ') return true;
    if (kRadix != 10 && radix == 16 && (c == 'x' || c == 'X')) continue;
    return kMultibyte && c == 0;
  }
  return true;
}

// Parses [i, n) with the radix fixed at compile time where possible.
template <int kRadix, bool kMultibyte, class Unit, class T>
QL_STRINGCONV_INLINE bool ParseUnits(Unit const* p, uint32_t n, T& out, T limit, T limitDivRadix, int radix,
                       bool allowMinus) noexcept {
  Accumulator<T> acc(limit, limitDivRadix, kRadix ? kRadix : radix);
  uint32_t i = 0;
  if (p[0] == '-') {
    if (!allowMinus) return false;
    acc.negative = true;
    i = 1;
  }
  if (!ScanUnits<kRadix, kMultibyte>(p, i, n, acc, radix)) return false;
  out = acc.Result();
  return true;
}

#undef QL_STRINGCONV_INLINE

}  // namespace stringconv_internal

// ---------------------------------------------------------------------------
// StringConvFromInteger: writes value in radix to out, terminated, and
// returns the number of units written (terminator excluded).
//
// out must hold kStringConvUnits units. Digits above 9 are upper-case
// letters. A negative value is written with "-" in radix 10 and as the
// two's complement of T in every other radix. A radix below 2 writes the
// empty text, returns 0 and reports an assertion.
template <class Ch, class T>
  requires stringconv_internal::Integer<T>
inline int32_t StringConvFromInteger(Ch* out, T value, int radix) noexcept {
  using namespace stringconv_internal;
  using U = std::conditional_t<(sizeof(T) > 4), uint64_t, uint32_t>;
  if (radix < 2) {
    out[0] = 0;
    ReportBadRadix(radix);
    return 0;
  }
  if constexpr (std::is_signed_v<T>) {
    if (value < 0) {
      using UT = std::make_unsigned_t<T>;
      UT bits = static_cast<UT>(value);
      if (radix != 10) return WriteUnsigned(out, static_cast<U>(bits), radix);
      out[0] = static_cast<Ch>('-');
      return 1 + WriteUnsigned(out + 1, static_cast<U>(static_cast<UT>(UT(0) - bits)), 10);
    }
  }
  return WriteUnsigned(out, static_cast<U>(value), radix);
}

// ---------------------------------------------------------------------------
// StringConvToInteger: reads the whole string s as a number in radix.
//
// limit is the largest value accepted and limitDivRadix is limit / radix;
// a "-" is accepted only when allowMinus is true. The Ch argument is not
// used (callers pass 0). Returns true and the value in out, or false and 0.
// See the file comment for the stops and skips. In the multibyte flavour
// the scan is bounded by the character count, as the library always did.
template <class Str, class Ch, class T>
  requires stringconv_internal::Integer<T>
inline bool StringConvToInteger(Str const& s, T& out, Ch, T limit, T limitDivRadix, int radix,
                                bool allowMinus) noexcept {
  using namespace stringconv_internal;
  constexpr bool kMb = Str::kMultibyte;
  out = 0;
  auto const* p = s.getString();
  uint32_t n = s.getLength();
  if (radix == 10) return ParseUnits<10, kMb>(p, n, out, limit, limitDivRadix, radix, allowMinus);
  if (radix == 16) return ParseUnits<16, kMb>(p, n, out, limit, limitDivRadix, radix, allowMinus);
  return ParseUnits<0, kMb>(p, n, out, limit, limitDivRadix, radix, allowMinus);
}

// ---------------------------------------------------------------------------
// StringConvToIntegerIterator: reads the range [begin, end) of an
// SAsciiString as a number, one byte per step. Unlike the string form only
// "." ends the number early (a space is not a digit) and "x" is never
// skipped. An empty range gives 0 with success.
template <class It, class T>
  requires stringconv_internal::Integer<T>
inline bool StringConvToIntegerIterator(It begin, It const& end, T& out, T limit, T limitDivRadix,
                                        int radix, bool allowMinus) noexcept {
  using namespace stringconv_internal;
  out = 0;
  Accumulator<T> acc(limit, limitDivRadix, radix);
  if (begin < end && (*begin).getChar() == '-') {
    if (!allowMinus) return false;
    acc.negative = true;
    ++begin;
  }
  for (; begin < end; ++begin) {
    unsigned d = 0;
    UnitKind kind = Classify<false>((*begin).getChar(), static_cast<unsigned>(radix < 0 ? 0 : radix), d);
    if (kind == UnitKind::kStop) break;
    if (kind != UnitKind::kDigit || !acc.Push(d)) return false;
  }
  out = acc.Result();
  return true;
}

namespace stringconv_internal {

// The wrappers' reading: the whole range of T, "-" only for signed types.
// A radix below 1 fails (it would divide by zero).
template <class Str, class T>
inline bool FromStringOf(Str const& s, T& out, int radix) noexcept {
  if (radix < 1) {
    out = 0;
    return false;
  }
  constexpr T kMax = std::numeric_limits<T>::max();
  return StringConvToInteger(s, out, typename Str::unit_type(0), kMax, LimitDivRadix(kMax, radix),
                             radix, std::is_signed_v<T>);
}

}  // namespace stringconv_internal

// ---------------------------------------------------------------------------
// SAnsiStringConv: numbers in SAnsiString text.
//
// FromString accepts the type's whole range; unsigned types refuse "-".
// It is inline, so that a constant radix folds into the caller.
// The 16-bit ToString forms always write decimal: their radix argument is
// accepted and ignored, as the library always did.
//
//   int64_t big = 0;
//   SAnsiStringConv::FromString("-9223372036854775808", big, 10);
//   void* handle = nullptr;
//   SAnsiStringConv::FromString("7ffd1234abcd", handle);  // hexadecimal
class QUENLIB_API SAnsiStringConv {
 public:
  static bool FromString(SAnsiString const& s, signed char& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SAnsiString const& s, short& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SAnsiString const& s, int& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SAnsiString const& s, long& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SAnsiString const& s, long long& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SAnsiString const& s, unsigned char& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SAnsiString const& s, unsigned short& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SAnsiString const& s, unsigned int& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SAnsiString const& s, unsigned long& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SAnsiString const& s, unsigned long long& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  // A pointer-sized value in hexadecimal (up to 16 digits).
  static bool FromString(SAnsiString const& s, void*& out) noexcept;

  static SAnsiString ToString(short value, int radix = 10);
  static SAnsiString ToString(unsigned short value, int radix = 10);
  static SAnsiString ToString(int value, int radix = 10);
  static SAnsiString ToString(long value, int radix = 10);
  static SAnsiString ToString(long long value, int radix = 10);
  static SAnsiString ToString(unsigned char value, int radix = 10);
  static SAnsiString ToString(unsigned int value, int radix = 10);
  static SAnsiString ToString(unsigned long value, int radix = 10);
  static SAnsiString ToString(unsigned long long value, int radix = 10);

  // Two decimal digits, with a leading zero below 10 ("07", "42"); values
  // of 100 and more are written whole.
  static SAnsiString StringFrom10Number2Digits(unsigned value);
  // Plain decimal, no leading zero ("7", "42", "123").
  static SAnsiString StringFrom100Number(unsigned value);
};

// The name the library's own messages use for the multibyte converter.
using SStringConv = SAnsiStringConv;

// ---------------------------------------------------------------------------
// SWCharStringConv: numbers in SWCharString (UTF-16) text, the same rules.
//
//   WChar buf[64];
//   SWCharStringConv::ToString(buf, 255u, 16);   // u"FF", returns 2
//   SWCharString w;
//   SWCharStringConv::ToString(w, -7);          // u"-7"
class QUENLIB_API SWCharStringConv {
 public:
  static bool FromString(SWCharString const& s, signed char& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, short& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, int& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, long& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, long long& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, unsigned char& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, unsigned short& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, unsigned int& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, unsigned long& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, unsigned long long& out, int radix = 10) noexcept {
    return stringconv_internal::FromStringOf(s, out, radix);
  }
  static bool FromString(SWCharString const& s, void*& out) noexcept;

  static SWCharString ToString(short value, int radix = 10);
  static SWCharString ToString(unsigned short value, int radix = 10);
  static SWCharString ToString(int value, int radix = 10);
  static SWCharString ToString(long value, int radix = 10);
  static SWCharString ToString(long long value, int radix = 10);
  static SWCharString ToString(unsigned char value, int radix = 10);
  static SWCharString ToString(unsigned int value, int radix = 10);
  static SWCharString ToString(unsigned long value, int radix = 10);
  static SWCharString ToString(unsigned long long value, int radix = 10);

  // Into an existing string; returns it.
  static SWCharString& ToString(SWCharString& out, short value, int radix = 10);
  static SWCharString& ToString(SWCharString& out, unsigned short value, int radix = 10);
  static SWCharString& ToString(SWCharString& out, int value, int radix = 10);
  static SWCharString& ToString(SWCharString& out, long value, int radix = 10);
  static SWCharString& ToString(SWCharString& out, long long value, int radix = 10);
  static SWCharString& ToString(SWCharString& out, unsigned char value, int radix = 10);
  static SWCharString& ToString(SWCharString& out, unsigned int value, int radix = 10);
  static SWCharString& ToString(SWCharString& out, unsigned long value, int radix = 10);
  static SWCharString& ToString(SWCharString& out, unsigned long long value, int radix = 10);

  // Into a caller array of 64 units; returns the units written. A text
  // that does not fit with its terminator (64 binary digits) leaves the
  // empty text, returns 0 and reports an assertion.
  static int32_t ToString(WChar (&out)[64], short value, int radix = 10) noexcept;
  static int32_t ToString(WChar (&out)[64], unsigned short value, int radix = 10) noexcept;
  static int32_t ToString(WChar (&out)[64], int value, int radix = 10) noexcept;
  static int32_t ToString(WChar (&out)[64], long value, int radix = 10) noexcept;
  static int32_t ToString(WChar (&out)[64], long long value, int radix = 10) noexcept;
  static int32_t ToString(WChar (&out)[64], unsigned char value, int radix = 10) noexcept;
  static int32_t ToString(WChar (&out)[64], unsigned int value, int radix = 10) noexcept;
  static int32_t ToString(WChar (&out)[64], unsigned long value, int radix = 10) noexcept;
  static int32_t ToString(WChar (&out)[64], unsigned long long value, int radix = 10) noexcept;
};

// The ASCII flavour's counterpart: it has no members; ASCII text is read
// with StringConvToIntegerIterator or NeutralString.
class QUENLIB_API SAsciiStringConv {};

}  // namespace QuenLibA500
