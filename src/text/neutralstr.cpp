// NeutralString: locale-independent decimal integers, on the templates of
// stringconv.h with radix 10 and the type's own limits.
#include <quenlib/neutralstr.h>
#include <quenlib/stringconv.h>

#include <limits>
#include <type_traits>

namespace QuenLibA500 {

namespace {

template <class T>
constexpr T kMax = std::numeric_limits<T>::max();

template <class T>
bool TextToNumber(SAnsiString const& s, T& out) noexcept {
  return StringConvToInteger(s, out, char(0), kMax<T>, static_cast<T>(kMax<T> / 10), 10,
                             std::is_signed_v<T>);
}

template <class T>
bool RangeToNumber(NeutralString::AsciiIterator const& begin,
                   NeutralString::AsciiIterator const& end, T& out) noexcept {
  return StringConvToIntegerIterator(begin, end, out, kMax<T>, static_cast<T>(kMax<T> / 10), 10,
                                     std::is_signed_v<T>);
}

template <class T>
SAnsiString NumberToText(T value) {
  char buf[kStringConvUnits];
  int32_t n = StringConvFromInteger(buf, value, 10);
  return SAnsiString(buf, static_cast<unsigned>(n));
}

}  // namespace

#define QL_NEUTRAL_TEXT(T)                                                  \
  bool NeutralString::ToNumber(SAnsiString const& s, T& out) noexcept {     \
    return TextToNumber(s, out);                                            \
  }                                                                         \
  SAnsiString NeutralString::FromNumber(T value) { return NumberToText(value); }

QL_NEUTRAL_TEXT(signed char)
QL_NEUTRAL_TEXT(short)
QL_NEUTRAL_TEXT(int)
QL_NEUTRAL_TEXT(long)
QL_NEUTRAL_TEXT(long long)
QL_NEUTRAL_TEXT(unsigned char)
QL_NEUTRAL_TEXT(unsigned short)
QL_NEUTRAL_TEXT(unsigned int)
QL_NEUTRAL_TEXT(unsigned long)
QL_NEUTRAL_TEXT(unsigned long long)

#define QL_NEUTRAL_RANGE(T)                                                          \
  bool NeutralString::ToNumber(AsciiIterator const& begin, AsciiIterator const& end, \
                               T& out) noexcept {                                   \
    return RangeToNumber(begin, end, out);                                           \
  }

QL_NEUTRAL_RANGE(short)
QL_NEUTRAL_RANGE(unsigned short)
QL_NEUTRAL_RANGE(int)
QL_NEUTRAL_RANGE(unsigned int)
QL_NEUTRAL_RANGE(long)
QL_NEUTRAL_RANGE(long long)

}  // namespace QuenLibA500
