// nvpairs.h: percent-encoding of URL text, and readers of
// "name=value&name=value" texts.
//
// All encoders and decoders are static members of `CNameValuePairs`. Two
// escape tables drive them:
//
//   form table   letters, digits, "." and "_" pass; the space becomes "+";
//                every other byte (also "-", "~", "*" and 0x80-0xFF) is %XX.
//   table 3      bytes below 0x20 or above 0x7E and the characters
//                % + , = { } & $ become %XX; everything else passes (the
//                space too; this table never writes "+").
//
// Wide text escapes characters 0x80-0xFF as %XX of the value (Latin-1) and
// characters from 256 up as %uXXXX. Hexadecimal output is upper case; input
// accepts both cases.
//
//   SAnsiString e = CNameValuePairs::URLStrEncode("a b-c~d");   // "a+b%2Dc%7Ed"
//   SAnsiString d = CNameValuePairs::URLStrDecode(e);          // "a b-c~d"
//   SAnsiString q = CNameValuePairs::Encode("id", "5", "n", "a b", nullptr);
//                                                   // "id=5&n=a+b"
//   CNameValuePairs pairs("x=1&y=2");
//   SAnsiString name, value;
//   while (pairs.HasMorePairs()) { pairs.Next(name, value); ... }
//
//   CMapNameValuePair map;
//   map.ParseParameter("a=1&B=2");       // true; map.Lookup("b", v) gives "2"
//
// The lenient decoders never fail: a malformed escape is reported as an
// assertion and decoding goes on. `tryURLStrDecode` is strict and returns
// false instead. The tables are built once, lazily, without a lock (every
// thread writes the same values); everything else works on the caller's
// objects.
#pragma once

#include <quenlib/codesetconverter.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/simap.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

namespace QuenLibA500 {

// Wide text returned by the iterator-range decoder.
class QUENLIB_API SDecodedString : public SWCharString {
 public:
  SDecodedString() noexcept = default;
  SDecodedString(SDecodedString const&) noexcept = default;
  SDecodedString& operator=(SDecodedString const&) noexcept = default;
  SDecodedString(SWCharString const& s) noexcept : SWCharString(s) {}
  SDecodedString(WChar const* s) : SWCharString(s) {}

  // Appends the characters of [from, to) up to the first "%" or "+" (each
  // byte widened to one unit). Stopping at such a character sets `from`
  // there and returns true; reaching `to` returns false.
  bool concatUntilEncoded(SAsciiString::iterator& from, SAsciiString::iterator const& to);
};

class QUENLIB_API CNameValuePairs {
 public:
  CNameValuePairs() = default;
  explicit CNameValuePairs(SAnsiString const& pairs) : m_rest(pairs) {}
  CNameValuePairs(CNameValuePairs const&) = default;
  CNameValuePairs& operator=(CNameValuePairs const&) = default;
  virtual ~CNameValuePairs();
  virtual void AssertValid() const;

  // ---- pair reader
  bool HasMorePairs() const noexcept { return !m_rest.isEmpty(); }
  // Consumes the next "name=value" piece; both sides are decoded. A piece
  // without "=" gives the decoded piece as name and an empty value.
  void Next(SAnsiString& name, SAnsiString& value);
  // The same, the escaped bytes read in `codeset` and the result narrowed
  // to the process locale.
  void Next(SAnsiString& name, SAnsiString& value, MBCSCodesetConverter::ExplicitCodeset codeset);

  // ---- encoders (form table unless named otherwise)
  static SAnsiString URLStrEncode(SAnsiString const& text);
  static SAnsiString URLStrEncode(char const* text);
  static SWCharString URLStrEncode(SWCharString const& text);
  static void URLStrEncodeAppend(SWCharString& out, WChar const* text);
  static void URLStrEncodeAppend(SAsciiString& out, WChar const* text);
  static void URLStrEncodeAppend3(SWCharString& out, WChar const* text);
  static void URLStrEncodeAppend3(SAsciiString& out, WChar const* text);
  // The text converted to `codeset`, then each byte: letters and digits
  // pass; with `unreservedPass` the characters !#$&*+-./:<>?@_`~ pass too
  // and the space is %20, without it the space is "+"; all else is %XX.
  static SAnsiString URLStrEncodeBytewise(SAnsiString const& text,
                                          MBCSCodesetConverter::ExplicitCodeset codeset,
                                          bool unreservedPass);
  // name, value, name, value, ..., nullptr: "name=value&name=value", both
  // sides encoded. Empty when the first value is null; stops at the first
  // pair with a null side.
  static SAnsiString Encode(char const* name, char const* value, ...);
  // first, ..., nullptr: the pieces joined by "&"; empty pieces add no "&".
  static SAnsiString ConcatPairs(char const* first, ...);
  // a and b joined by an "&" unless exactly one of them already has one
  // at the seam (so "x&" and "&y" give "x&&&y").
  static SAnsiString ConcatUrl(SAnsiString const& a, SAnsiString const& b);

  // ---- decoders
  static SAnsiString URLStrDecode(SAnsiString const& text);
  static SWCharString URLStrDecode(SWCharString const& text);
  static SDecodedString URLStrDecode(SAsciiString::iterator first, SAsciiString::iterator last);
  // "%XX" bytes (and plain characters) are read in `codeset`; "%uXXXX"
  // escapes are already wide. Null text gives the empty result.
  static SWCharString URLStrDecodeAndConvert(char const* text,
                                             MBCSCodesetConverter::ExplicitCodeset codeset);
  // Strict: false on a malformed escape (the output is then undefined).
  static bool tryURLStrDecode(SWCharString& out, WChar const* in, unsigned int length);
  // Strict, into bytes. A "%uXXXX" escape is accepted only for values up to
  // 0xFF (one byte); a larger one fails. When `decoded` is not null it is
  // set to whether the input held any escape or "+" (whether the output
  // differs from the input).
  static bool tryURLStrDecode(SAsciiString& out, char const* in, unsigned int length,
                              bool* decoded);

 protected:
  static void EscapeWideChar(WChar c, SWCharString& out);
  // With lenient set, malformed escapes are reported and skipped (the "%"
  // is dropped, the characters after it kept); otherwise they fail.
  static bool internalURLStrDecode(SWCharString& out, WChar const* in, unsigned int length,
                                   bool lenient);

  // Scanners: advance to the first character the caller must treat
  // specially, or to the end (terminator or `end`).
  static void needURLEncode(WChar const*& p);
  static void needURLEncode(SWCharString::iterator& it);
  static void needURLEncode(SAnsiString::iterator& it);
  static void needURLEncode3(WChar const*& p);
  static void needURLDecode(SWCharString::iterator& it);
  static void needURLDecode(char const*& p);
  static void needURLDecode(char const*& p, char const* end);
  static void needURLDecode(WChar const*& p, WChar const* end);

  static void generateTable();
  static void generateTable3();

 private:
  SAnsiString m_rest;
};

// A "name=value&..." text parsed into a map whose names ignore case.
class QUENLIB_API CMapNameValuePair : public SIMap<SMapStringCaseInsensitive, SAnsiString> {
 public:
  CMapNameValuePair() = default;
  CMapNameValuePair(CMapNameValuePair const&) = default;
  CMapNameValuePair& operator=(CMapNameValuePair const&) = default;
  ~CMapNameValuePair() override;

  // Clears the map, then stores every decoded pair. The empty text
  // succeeds. False (with an assertion, the map partly filled) for a
  // malformed list: a piece without "=", a second "=" in one piece, or a
  // trailing "&" ("a=1&b=" is fine; "a", "a=1&", "a=1=2", "&a=1" fail).
  bool ParseParameter(SAnsiString const& text);
  bool ParseParameter(char const* text) { return ParseParameter(SAnsiString(text)); }
  // The same on the text from `it` to its terminator.
  bool ParseParameter(SAsciiString::iterator it);

 protected:
  bool SetNameValuePair(SAnsiString const& name, SAnsiString const& value);

 private:
  bool parseBytes(char const* p, char const* end, bool multibyte);
};

}  // namespace QuenLibA500
