// strtok.h: cut multibyte text into pieces at a delimiter text.
//
// Both classes hold a delimiter and the remaining text, and consume the
// text from the front: each Next() returns the piece before the first
// occurrence of the WHOLE delimiter text (it is not a set of characters)
// and drops the piece and the delimiter. Once no delimiter is left the rest
// comes back whole and the tokenizer is empty. Two delimiters in a row, or
// one at the start, give an empty piece. Search and stepping follow the
// process locale's multibyte characters, as SAnsiString does.
//
// `RSStrTok` is a plain value class; `SStrTok` has a virtual destructor so
// that callers may derive from it. Their RightStr members differ on
// purpose:
//
//   RSStrTok r("x=1&y=2&z=3");
//   r.RightStr("&");     // "y=2": drops "x=1", returns the next piece;
//                        // the rest is now "z=3"
//   SStrTok s("x=1&y=2&z=3", "&");
//   s.RightStr();        // "y=2&z=3": drops "x=1", returns the rest and
//                        // leaves it in place
//
//   RSStrTok t("a,b,,c");
//   t.SetToken(',');
//   while (!t.IsEmpty()) Use(t.Next());   // "a", "b", "", "c"
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class QUENLIB_API RSStrTok {
 public:
  // The text becomes the remaining text; the delimiter starts empty (an
  // empty delimiter is never found: Next() returns the whole rest).
  RSStrTok() = default;
  RSStrTok(SAnsiString const& text) : m_rest(text) {}
  RSStrTok(char const* text) : m_rest(text) {}
  RSStrTok(RSStrTok const&) = default;
  RSStrTok& operator=(RSStrTok const&) = default;

  // Replaces the remaining text.
  void Set(SAnsiString const& text) { m_rest = text; }
  void Set(char const* text) { m_rest = text; }
  // Replaces the delimiter.
  void SetToken(char delimiter) { m_token = SAnsiString(delimiter); }
  void SetToken(char const* delimiter) { m_token = delimiter; }

  bool IsEmpty() const noexcept { return m_rest.isEmpty(); }
  // A copy of the remaining text; nothing is consumed.
  SAnsiString rest() const { return m_rest; }

  // The next piece, cut at the current delimiter.
  SAnsiString Next();
  // Make the argument the delimiter (for later calls too), then Next().
  SAnsiString Next(char const* delimiter);
  SAnsiString Next(char delimiter);

  // The same as Next with the same argument.
  SAnsiString LeftStr();
  SAnsiString LeftStr(char const* delimiter);
  SAnsiString LeftStr(char delimiter);

  // Drops one piece and returns the following one (consuming it too).
  SAnsiString RightStr();
  SAnsiString RightStr(char const* delimiter);
  SAnsiString RightStr(char delimiter);

 private:
  SAnsiString m_token;
  SAnsiString m_rest;
};

class QUENLIB_API SStrTok {
 public:
  SStrTok(SAnsiString const& text, SAnsiString const& delimiter)
      : m_token(delimiter), m_rest(text) {}
  SStrTok(char const* text, char const* delimiter) : m_token(delimiter), m_rest(text) {}
  SStrTok(SStrTok const&) = default;
  SStrTok& operator=(SStrTok const&) = default;
  virtual ~SStrTok();

  // Replaces both, text first.
  void Set(SAnsiString const& text, SAnsiString const& delimiter) {
    m_rest = text;
    m_token = delimiter;
  }
  void SetString(SAnsiString const& text) { m_rest = text; }
  void SetString(char const* text) { m_rest = text; }
  void SetToken(SAnsiString const& delimiter) { m_token = delimiter; }
  void SetToken(char const* delimiter) { m_token = delimiter; }
  void SetToken(char delimiter) { m_token = SAnsiString(delimiter); }

  bool IsEmpty() const noexcept { return m_rest.isEmpty(); }
  // A copy of the remaining text.
  SAnsiString GetString() const { return m_rest; }

  // The next piece, cut at the delimiter.
  SAnsiString Next();
  // The same as Next().
  SAnsiString LeftStr();
  // Drops one piece and returns all of the remaining text, which stays.
  SAnsiString RightStr();

 protected:
  SStrTok() = default;

 private:
  SAnsiString m_token;
  SAnsiString m_rest;
};

}  // namespace QuenLibA500
