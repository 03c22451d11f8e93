// qrysstring.h: match patterns in the style of a query language's LIKE
// operator, and quoting of string values for query texts.
//
// Pattern grammar:
//
//   %          any run of characters, also the empty run
//   _          exactly one character
//   [set]      one character of the set; "x-y" inside is a range
//   [^set]     one character not in the set ("^" negates only when the
//              bracket text has at least two characters: "[^]" is "^")
//   other      itself
//
// Every comparison ignores letter case: literal characters, set members
// and range ends are lowered (in the process locale) on both sides, and a
// range compares the lowered character codes. A literal "%", "_", "[" or
// "]" is written in brackets: "100[%]", "[[]", "[]]" (the first character
// of a set is never taken as its closing bracket).
//
//   SQueryString q("a%c");
//   q.like("ABC");                        // true
//   SQueryString("[^a-c]x").like("dx");   // true
//   SAnsiString p = SQueryString::WrapWildCardCharsFromString("*_x");  // "%[_]x"
//   SAnsiString v("O'Neil");
//   SInfoQueryString::ValidateAStringValue(v);                // "'O''Neil'"
//
// Matching takes time proportional to (pattern length) x (text length)
// whatever the number of "%": each pair of pattern step and text position
// is decided once. A pattern with an unclosed "[" or an empty bracket does
// not parse (an assertion is reported) and matches nothing.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>

#include <cstdint>
#include <utility>
#include <string>
#include <vector>

namespace QuenLibA500 {

class QUENLIB_API SQueryString {
 public:
  // One bracket element.
  struct QueryPattern {
    bool negate = false;
    SIArray<SAnsiString> ranges;  // each entry: the two end characters
    SAnsiString oneOf;            // the single members
    // The lowered code points of each range's ends, in the order of
    // `ranges` (kept apart: two end characters written together may read
    // as a different character sequence in a multibyte code page).
    std::vector<std::pair<uint32_t, uint32_t>> rangeCodes;
    std::vector<uint32_t> memberCodes;  // the same for the single members
  };

  // One step of a parsed pattern.
  struct QueryPatternOps {
    enum Kind { Literal, AnyOne, AnyRun, Bracket };
    Kind kind = Literal;
    SAnsiString text;      // the literal run (Literal)
    QueryPattern pattern;  // the set (Bracket)
  };

  SQueryString();
  SQueryString(SAnsiString const& pattern);
  SQueryString(char const* pattern);
  SQueryString(SQueryString const& other);
  SQueryString& operator=(SQueryString const& other);
  virtual ~SQueryString();

  // Builds the step list; false (with an assertion) for a malformed pattern.
  bool parse();
  // True when the whole text matches the pattern (parsing first if needed).
  bool like(SAnsiString const& text);

  SAnsiString const& GetPattern() const { return m_pattern; }
  SIArray<QueryPatternOps> const& GetSteps() const { return m_steps; }

  // True when the text holds "%", "_", "[" or "]".
  static bool ContainsWildcards(SAnsiString const& text);
  // Brackets every "%", "_", "[" and "]" and turns every "*" into "%".
  static SAnsiString WrapWildCardCharsFromString(char const* text);

 protected:
  // A compiled step: characters as lowered code points.
  struct Atom {
    QueryPatternOps::Kind kind;
    std::vector<uint32_t> chars;                           // Literal; Bracket members
    std::string asciiChars;  // Literal of ASCII only: the lowered bytes, else empty
    std::vector<std::pair<uint32_t, uint32_t>> ranges;  // Bracket ranges
    bool negate = false;
  };

  // Reads a literal run from p up to the next "%", "_" or "[".
  static SAnsiString get_exact_patternstr(char const*& p, char const* end);
  // Reads the text between "[" (at p) and the next "]"; false when there
  // is no "]". p moves past the "]".
  static bool get_partial_patternstr(char const*& p, char const* end, SAnsiString& inner);
  // Turns the bracket text into a set; false when the set is empty.
  static bool parse_partial_pattern(SAnsiString const& inner, QueryPattern& out);
  bool parse_sequence();
  // The steps from `from` up to the next "%" (excluded), and the first
  // step after it.
  size_t getFirstSequencePattern(size_t from) const;
  size_t getRestPatterns(size_t from) const;
  bool doMatch(std::vector<uint32_t> const& text) const;
  // One single-character step against the character c.
  bool isAMatch(Atom const& atom, uint32_t c) const;
  static bool matchSubString(Atom const& atom, std::vector<uint32_t> const& text, size_t pos);
  static bool matchOneOf(Atom const& atom, uint32_t c);
  static bool matchInRange(Atom const& atom, uint32_t c);

 private:
  void compile();

  SAnsiString m_pattern;
  SIArray<QueryPatternOps> m_steps;
  std::vector<Atom> m_atoms;
  bool m_parsed = false;
  bool m_valid = false;
};

class QUENLIB_API SInfoQueryString {
 public:
  SInfoQueryString() = default;
  SInfoQueryString(SInfoQueryString const&) = default;
  SInfoQueryString& operator=(SInfoQueryString const&) = default;
  virtual ~SInfoQueryString();

  // Doubles every single quote and encloses the value in single quotes.
  // Always true: every text can be quoted.
  static bool ValidateAStringValue(SAnsiString& value);
};

// Lowered code point of every character of a locale text (an invalid
// byte b becomes 0x110000 + b, distinct from every character).
QUENLIB_API std::vector<uint32_t> LowerCodePoints(char const* text, unsigned length);

}  // namespace QuenLibA500
