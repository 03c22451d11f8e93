// neutralstr.h: decimal numbers in text, independent of the locale.
//
// `NeutralString` reads and writes integers in plain decimal: digits, an
// optional leading "-" for signed types, no grouping and no locale. It is
// how the library stores numbers that other programs read back (registry
// values, URL properties, pipe frames). The rules are those of
// stringconv.h: a "." or a space ends the number with success ("3.9"
// gives 3), the empty text gives 0, and a failure leaves 0 and returns
// false. The iterator form reads a range of an SAsciiString and stops
// early only at ".".
//
//   int32_t n = 0;
//   NeutralString::ToNumber("2147483647", n);      // true, INT32_MAX
//   NeutralString::ToNumber("2147483648", n);      // false, n == 0
//   uint32_t u = 0;
//   NeutralString::ToNumber("-5", u);              // false: unsigned
//   SAnsiString t = NeutralString::FromNumber(int64_t{-12});  // "-12"
//
//   SAsciiString line("len=42;");
//   SAsciiString::iterator from(line), to(line);
//   from += 4; to += 6;
//   int16_t len = 0;
//   NeutralString::ToNumber(from, to, len);        // 42
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class QUENLIB_API NeutralString {
 public:
  using AsciiIterator = SString_t<char, 1>::iterator;

  // The whole text as a decimal number in the range of the type.
  static bool ToNumber(SAnsiString const& s, signed char& out) noexcept;
  static bool ToNumber(SAnsiString const& s, short& out) noexcept;
  static bool ToNumber(SAnsiString const& s, int& out) noexcept;
  static bool ToNumber(SAnsiString const& s, long& out) noexcept;
  static bool ToNumber(SAnsiString const& s, long long& out) noexcept;
  static bool ToNumber(SAnsiString const& s, unsigned char& out) noexcept;
  static bool ToNumber(SAnsiString const& s, unsigned short& out) noexcept;
  static bool ToNumber(SAnsiString const& s, unsigned int& out) noexcept;
  static bool ToNumber(SAnsiString const& s, unsigned long& out) noexcept;
  static bool ToNumber(SAnsiString const& s, unsigned long long& out) noexcept;

  // The range [begin, end) of an SAsciiString as a decimal number.
  static bool ToNumber(AsciiIterator const& begin, AsciiIterator const& end, short& out) noexcept;
  static bool ToNumber(AsciiIterator const& begin, AsciiIterator const& end,
                       unsigned short& out) noexcept;
  static bool ToNumber(AsciiIterator const& begin, AsciiIterator const& end, int& out) noexcept;
  static bool ToNumber(AsciiIterator const& begin, AsciiIterator const& end,
                       unsigned int& out) noexcept;
  static bool ToNumber(AsciiIterator const& begin, AsciiIterator const& end, long& out) noexcept;
  static bool ToNumber(AsciiIterator const& begin, AsciiIterator const& end,
                       long long& out) noexcept;

  // The value in decimal ("-" before negative values).
  static SAnsiString FromNumber(signed char value);
  static SAnsiString FromNumber(short value);
  static SAnsiString FromNumber(int value);
  static SAnsiString FromNumber(long value);
  static SAnsiString FromNumber(long long value);
  static SAnsiString FromNumber(unsigned char value);
  static SAnsiString FromNumber(unsigned short value);
  static SAnsiString FromNumber(unsigned int value);
  static SAnsiString FromNumber(unsigned long value);
  static SAnsiString FromNumber(unsigned long long value);
};

}  // namespace QuenLibA500
