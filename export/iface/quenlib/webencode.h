// webencode.h: text encoders for generated web pages.
//
// `SWebEncode` escapes multibyte text (walked one locale character at a
// time) for HTML, for script string literals and for URLs, and names the
// MIME types of the web output. It has no state.
//
//   SWebEncode::HTMLEncode("a<b&c");               // "a&lt;b&amp;c"
//   SWebEncode::HTMLNonBreakableSpace("a b");       // "a&nbsp;b"
//   SWebEncode::JavaScriptEncode("say \"hi\"\n");   // "say \x22hi\x22\n"
//   SWebEncode::URLEncodeSimple("a b");             // "a+b"
//
// JavaScriptEncode and VBScriptStringEncode make any text safe inside a
// double-quoted string literal of their language embedded in a page: no
// quote, backslash, line break, control character or "<" (so no
// "</script") comes through as itself.
//
//   JavaScript: \\ for a backslash; \n \r \t; \xHH for the other control
//   characters, 0x7F, both quotes, "<", ">" and "&"; \u2028 and \u2029
//   for the two script line separators. Everything else passes.
//
//   VBScript: "" for a double quote; " & Chr(N) & " (N decimal) for control
//   characters, 0x7F, backslash, "<", ">" and "&". Everything else passes.
#pragma once

#include <quenlib/codesetconverter.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class QUENLIB_API SWebEncode {
 public:
  static char const* const MIME_TYPE_HTML;   // "text/html"
  static char const* const MIME_TYPE_EPF;    // "application/x-epf"
  static char const* const MIME_TYPE_ETF;    // "application/x-etf"
  static char const* const MIME_TYPE_EMF;    // "application/x-emf"
  static char const* const MIME_TYPE_OCTET;  // "application/octet" (sic)

  SWebEncode() = default;
  SWebEncode(SWebEncode const&) = default;
  SWebEncode& operator=(SWebEncode const&) = default;

  // " < > & written as &quot; &lt; &gt; &amp;; the single quote stays.
  static SAnsiString HTMLEncode(SAnsiString const& text);
  // Every space written "&nbsp;".
  static SAnsiString HTMLNonBreakableSpace(SAnsiString const& text);
  // Spaces alternately kept and written "&nbsp;" so that runs stay
  // visible while lines may still break: a space is written plain and the
  // character after it is taken at once ("&nbsp;" when it is a space).
  // The first character is "&nbsp;" when it is a space.
  static SAnsiString HTMLNonBreakableSpaceStippled(SAnsiString const& text);

  // CNameValuePairs::URLStrEncodeBytewise with the same arguments.
  static SAnsiString URLEncode(SAnsiString const& text, MBCSCodesetConverter::ExplicitCodeset codeset,
                               bool unreservedPass);
  // CNameValuePairs::URLStrEncode (the form table).
  static SAnsiString URLEncodeSimple(SAnsiString const& text);
  // Undoes URLEncode with the same code set and flag, and URLEncodeSimple
  // (the defaults): "%XX" is a byte and the bytes are read in `codeset`;
  // "+" is a space unless `unreservedPass` is set (that form writes the
  // space as %20 and lets "+" through). A "%" that starts no escape stays
  // as it is.
  static SAnsiString URLDecodeEx(SAnsiString const& text,
                                 MBCSCodesetConverter::ExplicitCodeset codeset =
                                     MBCSCodesetConverter::ECS_Native,
                                 bool unreservedPass = false);

  static SAnsiString JavaScriptEncode(SAnsiString const& text);
  static SAnsiString VBScriptStringEncode(SAnsiString const& text);
};

}  // namespace QuenLibA500
