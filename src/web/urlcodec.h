// urlcodec.h (internal): the escape tables and the byte loops shared by
// the URL encoders and decoders (nvpairs.cpp, webencode.cpp, oburl.cpp).
#pragma once

#include <quenlib/types.h>

#include <cstddef>

namespace QuenLibA500 {

class SAnsiString;

namespace urlcodec {

inline constexpr char kHexDigitsUpper[] = "0123456789ABCDEF";

// One escape table: for every byte value, whether it stops a run of plain
// characters, and its written form (itself, "+", or "%XX") in narrow and
// wide units, with the length of that form.
struct EscapeTable {
  bool needEncode[256];
  char text[256][4];
  WChar textW[256][4];
  unsigned char length[256];
};

// The form table (letters, digits, "." and "_" pass; space is "+") and
// table 3 (controls, 0x7F and above, and % + , = { } & $ are escaped).
EscapeTable const& FormTable();
EscapeTable const& Table3();
// The value of a hexadecimal digit of either case, or -1, for every byte.
signed char const* HexValues();

inline bool isAlnumByte(unsigned c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// True when every byte of a character of 0x80 or more belongs to such a
// character (UTF-8) or characters are single bytes: then the locale text can
// be escaped byte by byte.
bool LocaleIsByteWise();

// Escapes n bytes with table t into out (room for 3 * n); returns the bytes
// written.
size_t EncodeBytes(EscapeTable const& t, unsigned char const* p, size_t n, char* out);

// The form-table encoding of n bytes of locale text.
SAnsiString EncodeLocaleText(char const* p, size_t n);

// The lenient multibyte decoding of n bytes: "+" is a space, "%XX" a byte,
// "%uXXXX" the character in the locale's code page; a malformed escape is
// reported and its "%" kept as text.
SAnsiString DecodeLocaleText(char const* p, size_t n);

}  // namespace urlcodec
}  // namespace QuenLibA500
