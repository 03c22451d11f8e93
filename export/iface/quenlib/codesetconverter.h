// codesetconverter.h: text between the process locale, UTF-16 and a small
// fixed set of explicit code pages.
//
// `CodesetConverter` moves whole strings and single characters between the
// locale's multibyte form (whatever `setlocale` chose: UTF-8, EUC-JP, ...)
// and UTF-16 units (`WChar`). It never stops at a character that cannot be
// represented: each one becomes "?" and the conversion goes on.
//
// `MBCSCodesetConverter` converts between the locale form and the explicit
// code sets of `ExplicitCodeset` (the values are stored as integers by its
// callers, so they never change):
//
//   SAnsiString t = MBCSCodesetConverter::ExplicitCodesetToT(
//       "caf\xE9", MBCSCodesetConverter::ECS_Windows1252);   // "café"
//   SSimpleBuffer b = MBCSCodesetConverter::TToExplicitCodeset(
//       t, MBCSCodesetConverter::ECS_ShiftJIS);
//
// Rules:
//  - ECS_Native passes the bytes through unchanged.
//  - ECS_UTF8 is strict: ill-formed UTF-8 turns the whole result into the
//    one-character text "?" (and is traced).
//  - The code pages (1252, 932, 28605; ECS_Latin1 is deliberately the same
//    as ECS_Windows1252) decode every byte sequence; a character that the
//    target cannot hold becomes "?", one per character.
//  - An unknown ExplicitCodeset value is reported (assertion "0") and gives
//    empty output.
// The caller's errno is preserved. All functions are reentrant; the
// process locale must not change while they run.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/simplebuffer.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

#include <cstddef>
#include <string>

namespace QuenLibA500 {

class QUENLIB_API CodesetConverter {
 public:
  // UTF-16 text to the locale form: at most `size` bytes are written, then
  // a terminator if there is room. Returns the bytes written without the
  // terminator. A unit that cannot be converted becomes one "?"; a
  // character that does not fit in the room left fills that room with "?".
  // With a null out, only counts (each unconvertible unit counting 1).
  static size_t ucs2tombs(char* out, WChar const* in, unsigned size);
  // Locale text to UTF-16: at most `size` units, then a terminator if there
  // is room. An invalid byte sequence becomes one "?" unit and the input
  // moves on by one byte. Returns the units written; null out only counts.
  static size_t mbstoucs2(WChar* out, char const* in, unsigned size);
  // The platform's wide units are UTF-16 units here: these copy until the
  // terminator or n units, terminate when there is room, and return the
  // units copied (the input's length for a null out).
  static size_t wcstoucs2(WChar* out, WChar const* in, unsigned n);
  static size_t ucs2towcs(WChar* out, WChar const* in, unsigned n);

  // One character. Each returns the units or bytes produced, -1 on failure.
  static int wctoucs2(WChar* out, WChar c);
  static int ucs2towc(WChar* out, unsigned short c);
  // Writes the locale form of c into out (room for size bytes).
  static int ucs2tomb(char* out, unsigned size, unsigned short c);
  // Converts the locale character at in; returns the units produced
  // (2 for a character beyond U+FFFF) or -1.
  static int mbtoucs2(WChar* out, char const* in);
};

class QUENLIB_API MBCSCodesetConverter {
 public:
  enum ExplicitCodeset {
    ECS_Native = 0,
    ECS_UTF8 = 1,
    ECS_Windows1252 = 2,
    ECS_ShiftJIS = 3,
    ECS_Latin1 = 4,
    ECS_Latin9 = 5,
  };

  // Zero-terminated bytes in `cs` to locale text.
  static SAnsiString ExplicitCodesetToT(char const* bytes, ExplicitCodeset cs);
  // Locale text to bytes in `cs` (not zero-terminated).
  static SSimpleBuffer TToExplicitCodeset(SAnsiString const& text, ExplicitCodeset cs);

  // The same on counted arrays (stopping early at a zero byte, as the
  // string forms do): the string forms are built on these.
  static std::string ExplicitCodesetToLocale(char const* bytes, size_t n, ExplicitCodeset cs);
  static SSimpleBuffer LocaleToExplicitCodeset(char const* text, size_t n, ExplicitCodeset cs);

  // A code page (ECS_Windows1252, ECS_ShiftJIS, ECS_Latin1, ECS_Latin9) to
  // and from UTF-16. Undecodable bytes give U+FFFD (or the code page's own
  // substitute); unrepresentable characters give "?". False for another
  // code set or when the converter cannot be opened.
  static bool CodePageToUTF16(ExplicitCodeset cs, char const* bytes, size_t n,
                              std::u16string& out);
  static bool UTF16ToCodePage(ExplicitCodeset cs, WChar const* text, size_t n, std::string& out);
};

}  // namespace QuenLibA500
