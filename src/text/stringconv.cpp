// Integer text conversion: the wrappers of SAnsiStringConv and
// SWCharStringConv, the date helpers, and the instantiations of the three
// templates that the library exports.
#include <quenlib/stringconv.h>

#include <bit>
#include <limits>
#include <string>

#include "diagnostics/assert.h"

namespace QuenLibA500 {

namespace stringconv_internal {

void ReportBadRadix(int radix) noexcept {
  if (!SLogger::ShouldAssert()) return;
  std::string msg = "StringConvFromInteger: radix " + std::to_string(radix) + " is below 2";
  SAssert(__FILE__, __LINE__, "radix >= 2", msg.c_str());
}

}  // namespace stringconv_internal

// A block of 96 bytes from the string blocks' cache (sstring.cpp).
[[gnu::visibility("hidden")]] void* AllocShortTextBlock();

namespace {

template <class Str>
bool FromStringPointer(Str const& s, void*& out) noexcept {
  uint64_t v = 0;
  bool ok = StringConvToInteger(s, v, typename Str::unit_type(0), ~uint64_t{0},
                                ~uint64_t{0} / 16, 16, false);
  out = reinterpret_cast<void*>(static_cast<uintptr_t>(v));
  return ok;
}

// 16-bit values are always decimal (see the header).
template <class T>
constexpr int EffectiveRadix(int radix) noexcept {
  return sizeof(T) == 2 ? 10 : radix;
}

// A string whose digits are written straight into its own fresh buffer:
// no intermediate array and no copy (reading back the digits just
// written, in wider pieces than they were stored, stalls the processor).
template <class Str>
struct DigitsInPlace : Str {
  // A private buffer of kStringConvUnits units (the allocation adds 32
  // spare ones to what it is asked for).
  typename Str::unit_type* reserve() {
    static_assert(kStringConvUnits > 32);
    this->allocBuffer(kStringConvUnits - 32);
    return this->getString();
  }
  // The same for the narrow flavour, whose buffer fits the smallest block.
  char* reserveShort() {
    using Buffer = typename Str::SStringBuffer;
    static_assert(sizeof(Buffer) + kStringConvUnits <= 96);
    this->m_buffer = new (AllocShortTextBlock()) Buffer(1, 0, kStringConvUnits);
    return this->getString();
  }
  void finish(unsigned n) { this->terminateBuffer(n); }
};

// The decimal text of a value whose magnitude fits 32 bits, the sign
// written without a branch: the digits overwrite it when there is none.
template <class Str>
[[gnu::always_inline]] inline Str DecimalStringOf(bool negative, uint32_t magnitude) {
  unsigned const digits = stringconv_internal::DecimalDigits(magnitude);
  DigitsInPlace<Str> r;
  char* p = r.reserveShort();
  p[0] = '-';
  stringconv_internal::WriteDecimalBackwards(p + negative + digits, magnitude);
  r.finish(digits + negative);
  return r;
}

template <class Str, class T>
Str ToStringOf(T value, int radix) {
  if constexpr (sizeof(typename Str::unit_type) == 1 && std::endian::native == std::endian::little) {
    if (EffectiveRadix<T>(radix) == 10) {
      bool negative = false;
      if constexpr (std::is_signed_v<T>) negative = value < 0;
      uint64_t const bits = static_cast<uint64_t>(value);
      uint64_t const magnitude = negative ? 0 - bits : bits;
      if (magnitude <= 0xFFFFFFFFu) return DecimalStringOf<Str>(negative, static_cast<uint32_t>(magnitude));
    }
  }
  DigitsInPlace<Str> r;
  int32_t n = StringConvFromInteger(r.reserve(), value, EffectiveRadix<T>(radix));
  if (n <= 0) return Str();  // a bad radix: the empty text, as ever
  r.finish(static_cast<unsigned>(n));
  return r;
}

template <class T>
int32_t ToArrayOf(WChar (&out)[64], T value, int radix) noexcept {
  WChar buf[kStringConvUnits];
  int32_t n = StringConvFromInteger(buf, value, EffectiveRadix<T>(radix));
  if (n >= 64) {
    // Only 64 binary digits get here; the caller's array has no room for
    // the terminator.
    if (SLogger::ShouldAssert())
      SAssert(__FILE__, __LINE__, "n < 64", "SWCharStringConv::ToString: text does not fit in 64 units");
    out[0] = 0;
    return 0;
  }
  std::memcpy(out, buf, (static_cast<size_t>(n) + 1) * sizeof(WChar));
  return n;
}

}  // namespace

// ---------------------------------------------------------------------------
// The overloads, one per integer type.

#define QL_STRINGCONV_TO(Conv, Str, T)                                     \
  Str Conv::ToString(T value, int radix) { return ToStringOf<Str>(value, radix); }
#define QL_WCHARCONV_TO_REF(T)                                             \
  SWCharString& SWCharStringConv::ToString(SWCharString& out, T value, int radix) { \
    out = ToStringOf<SWCharString>(value, radix);                          \
    return out;                                                            \
  }
#define QL_WCHARCONV_TO_ARRAY(T)                                           \
  int32_t SWCharStringConv::ToString(WChar(&out)[64], T value, int radix) noexcept { \
    return ToArrayOf(out, value, radix);                                   \
  }

#define QL_STRINGCONV_TO_ALL(Conv, Str)               \
  QL_STRINGCONV_TO(Conv, Str, short)                  \
  QL_STRINGCONV_TO(Conv, Str, unsigned short)         \
  QL_STRINGCONV_TO(Conv, Str, int)                    \
  QL_STRINGCONV_TO(Conv, Str, long)                   \
  QL_STRINGCONV_TO(Conv, Str, long long)              \
  QL_STRINGCONV_TO(Conv, Str, unsigned char)          \
  QL_STRINGCONV_TO(Conv, Str, unsigned int)           \
  QL_STRINGCONV_TO(Conv, Str, unsigned long)          \
  QL_STRINGCONV_TO(Conv, Str, unsigned long long)

QL_STRINGCONV_TO_ALL(SAnsiStringConv, SAnsiString)
QL_STRINGCONV_TO_ALL(SWCharStringConv, SWCharString)

QL_WCHARCONV_TO_REF(short)
QL_WCHARCONV_TO_REF(unsigned short)
QL_WCHARCONV_TO_REF(int)
QL_WCHARCONV_TO_REF(long)
QL_WCHARCONV_TO_REF(long long)
QL_WCHARCONV_TO_REF(unsigned char)
QL_WCHARCONV_TO_REF(unsigned int)
QL_WCHARCONV_TO_REF(unsigned long)
QL_WCHARCONV_TO_REF(unsigned long long)

QL_WCHARCONV_TO_ARRAY(short)
QL_WCHARCONV_TO_ARRAY(unsigned short)
QL_WCHARCONV_TO_ARRAY(int)
QL_WCHARCONV_TO_ARRAY(long)
QL_WCHARCONV_TO_ARRAY(long long)
QL_WCHARCONV_TO_ARRAY(unsigned char)
QL_WCHARCONV_TO_ARRAY(unsigned int)
QL_WCHARCONV_TO_ARRAY(unsigned long)
QL_WCHARCONV_TO_ARRAY(unsigned long long)

bool SAnsiStringConv::FromString(SAnsiString const& s, void*& out) noexcept {
  return FromStringPointer(s, out);
}

bool SWCharStringConv::FromString(SWCharString const& s, void*& out) noexcept {
  return FromStringPointer(s, out);
}

// ---------------------------------------------------------------------------
// Date helpers.

SAnsiString SAnsiStringConv::StringFrom10Number2Digits(unsigned value) {
  char buf[kStringConvUnits];
  if (value < 10) {
    buf[0] = '0';
    buf[1] = static_cast<char>('0' + value);
    return SAnsiString(buf, 2);
  }
  int32_t n = StringConvFromInteger(buf, value, 10);
  return SAnsiString(buf, static_cast<unsigned>(n));
}

SAnsiString SAnsiStringConv::StringFrom100Number(unsigned value) {
  char buf[kStringConvUnits];
  int32_t n = StringConvFromInteger(buf, value, 10);
  return SAnsiString(buf, static_cast<unsigned>(n));
}

// ---------------------------------------------------------------------------
// The instantiations the library exports: value to text for both unit
// types and every integer type; text to value for both string flavours;
// the iterator form for the types the ASCII readers use.

#define QL_FROM_INTEGER(Ch, T) \
  template QUENLIB_API int32_t StringConvFromInteger<Ch, T>(Ch*, T, int) noexcept;
#define QL_FROM_INTEGER_ALL(Ch)             \
  QL_FROM_INTEGER(Ch, signed char)          \
  QL_FROM_INTEGER(Ch, short)                \
  QL_FROM_INTEGER(Ch, int)                  \
  QL_FROM_INTEGER(Ch, long)                 \
  QL_FROM_INTEGER(Ch, unsigned char)        \
  QL_FROM_INTEGER(Ch, unsigned short)       \
  QL_FROM_INTEGER(Ch, unsigned int)         \
  QL_FROM_INTEGER(Ch, unsigned long)
QL_FROM_INTEGER_ALL(char)
QL_FROM_INTEGER_ALL(WChar)

#define QL_TO_INTEGER(Str, Ch, T)                                                              \
  template QUENLIB_API bool StringConvToInteger<Str, Ch, T>(Str const&, T&, Ch, T, T, int, bool) \
      noexcept;
#define QL_TO_INTEGER_ALL(Str, Ch)              \
  QL_TO_INTEGER(Str, Ch, signed char)           \
  QL_TO_INTEGER(Str, Ch, short)                 \
  QL_TO_INTEGER(Str, Ch, int)                   \
  QL_TO_INTEGER(Str, Ch, long)                  \
  QL_TO_INTEGER(Str, Ch, unsigned char)         \
  QL_TO_INTEGER(Str, Ch, unsigned short)        \
  QL_TO_INTEGER(Str, Ch, unsigned int)          \
  QL_TO_INTEGER(Str, Ch, unsigned long)
QL_TO_INTEGER_ALL(SAnsiString, char)
QL_TO_INTEGER_ALL(SWCharString, WChar)

#define QL_TO_INTEGER_ITER(T)                                                              \
  template QUENLIB_API bool StringConvToIntegerIterator<SString_t<char, 1>::iterator, T>( \
      SString_t<char, 1>::iterator, SString_t<char, 1>::iterator const&, T&, T, T, int, bool) noexcept;
QL_TO_INTEGER_ITER(short)
QL_TO_INTEGER_ITER(unsigned short)
QL_TO_INTEGER_ITER(int)
QL_TO_INTEGER_ITER(unsigned int)
QL_TO_INTEGER_ITER(long)

}  // namespace QuenLibA500
