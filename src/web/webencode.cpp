// webencode.cpp: HTML, script-literal and URL encoders for web pages.
//
// Every encoder walks the text one locale character at a time and copies
// characters of more than one byte whole, so a multibyte character whose
// trail bytes look like ASCII is never split.
#include <quenlib/nvpairs.h>
#include <quenlib/webencode.h>

#include <cstdio>
#include <cwchar>
#include <string>

#include "web/urlcodec.h"

namespace QuenLibA500 {

char const* const SWebEncode::MIME_TYPE_HTML = "text/html";
char const* const SWebEncode::MIME_TYPE_EPF = "application/x-epf";
char const* const SWebEncode::MIME_TYPE_ETF = "application/x-etf";
char const* const SWebEncode::MIME_TYPE_EMF = "application/x-emf";
char const* const SWebEncode::MIME_TYPE_OCTET = "application/octet";

namespace {

// Calls fn(p, len) for each character of the text.
template <class Fn>
void ForEachChar(SAnsiString const& text, Fn&& fn) {
  char const* p = text.getString();
  char const* end = p + text.getLength();
  while (p < end) {
    unsigned step = SAnsiString::StepLength(p);
    if (step == 0 || step > static_cast<unsigned>(end - p)) step = 1;
    fn(p, step);
    p += step;
  }
}

SAnsiString Make(std::string const& s) { return SAnsiString(s.data(), static_cast<unsigned>(s.size())); }

// The code point of a multibyte character, or 0 when it does not decode.
uint32_t CodePoint(char const* p, unsigned len) {
  std::mbstate_t st{};
  wchar_t wc = 0;
  size_t r = std::mbrtowc(&wc, p, len, &st);
  if (r == 0 || r > len) return 0;
  return static_cast<uint32_t>(wc);
}

void AppendHexEscape(std::string& out, unsigned char c) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "\\x%02X", c);
  out += buf;
}

}  // namespace

SAnsiString SWebEncode::HTMLEncode(SAnsiString const& text) {
  std::string out;
  out.reserve(text.getLength());
  ForEachChar(text, [&](char const* p, unsigned len) {
    if (len == 1) {
      switch (*p) {
        case '"': out += "&quot;"; return;
        case '<': out += "&lt;"; return;
        case '>': out += "&gt;"; return;
        case '&': out += "&amp;"; return;
        default: break;
      }
    }
    out.append(p, len);
  });
  return Make(out);
}

SAnsiString SWebEncode::HTMLNonBreakableSpace(SAnsiString const& text) {
  std::string out;
  out.reserve(text.getLength());
  ForEachChar(text, [&](char const* p, unsigned len) {
    if (len == 1 && *p == ' ')
      out += "&nbsp;";
    else
      out.append(p, len);
  });
  return Make(out);
}

SAnsiString SWebEncode::HTMLNonBreakableSpaceStippled(SAnsiString const& text) {
  std::string out;
  bool first = true;
  bool afterSpace = false;  // the previous character was written as a plain space
  ForEachChar(text, [&](char const* p, unsigned len) {
    bool space = len == 1 && *p == ' ';
    if (first || afterSpace) {
      // The first character, and the one right after a plain space: a
      // space here is "&nbsp;".
      first = false;
      afterSpace = false;
      if (space)
        out += "&nbsp;";
      else
        out.append(p, len);
      return;
    }
    if (space) {
      out += ' ';
      afterSpace = true;
      return;
    }
    out.append(p, len);
  });
  return Make(out);
}

SAnsiString SWebEncode::URLEncode(SAnsiString const& text, MBCSCodesetConverter::ExplicitCodeset codeset,
                                  bool unreservedPass) {
  return CNameValuePairs::URLStrEncodeBytewise(text, codeset, unreservedPass);
}

SAnsiString SWebEncode::URLEncodeSimple(SAnsiString const& text) {
  return CNameValuePairs::URLStrEncode(text);
}

SAnsiString SWebEncode::URLDecodeEx(SAnsiString const& text, MBCSCodesetConverter::ExplicitCodeset codeset,
                                    bool unreservedPass) {
  char const* p = text.getString();
  unsigned n = text.getLength();
  signed char const* hex = urlcodec::HexValues();
  std::string bytes;
  bytes.reserve(n);
  for (unsigned i = 0; i < n; ++i) {
    char c = p[i];
    if (c == '+' && !unreservedPass) {
      bytes.push_back(' ');
      continue;
    }
    if (c == '%' && i + 2 < n) {
      int hi = hex[static_cast<unsigned char>(p[i + 1])];
      int lo = hex[static_cast<unsigned char>(p[i + 2])];
      if (hi >= 0 && lo >= 0) {
        bytes.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    bytes.push_back(c);
  }
  if (codeset == MBCSCodesetConverter::ECS_Native) return Make(bytes);
  return MBCSCodesetConverter::ExplicitCodesetToT(bytes.c_str(), codeset);
}

SAnsiString SWebEncode::JavaScriptEncode(SAnsiString const& text) {
  std::string out;
  out.reserve(text.getLength() + 16);
  ForEachChar(text, [&](char const* p, unsigned len) {
    if (len > 1) {
      uint32_t cp = CodePoint(p, len);
      if (cp == 0x2028 || cp == 0x2029)
        out += cp == 0x2028 ? "\\u2028" : "\\u2029";
      else
        out.append(p, len);
      return;
    }
    unsigned char c = static_cast<unsigned char>(*p);
    switch (c) {
      case '\\': out += "\\\\"; return;
      case '\n': out += "\\n"; return;
      case '\r': out += "\\r"; return;
      case '\t': out += "\\t"; return;
      case '"': case '\'': case '<': case '>': case '&': AppendHexEscape(out, c); return;
      default: break;
    }
    if (c < 0x20 || c == 0x7F)
      AppendHexEscape(out, c);
    else
      out.push_back(static_cast<char>(c));
  });
  return Make(out);
}

SAnsiString SWebEncode::VBScriptStringEncode(SAnsiString const& text) {
  std::string out;
  out.reserve(text.getLength() + 16);
  ForEachChar(text, [&](char const* p, unsigned len) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (len > 1) {
      out.append(p, len);
      return;
    }
    if (c == '"') {
      out += "\"\"";
      return;
    }
    if (c < 0x20 || c == 0x7F || c == '\\' || c == '<' || c == '>' || c == '&') {
      out += "\" & Chr(" + std::to_string(c) + ") & \"";
      return;
    }
    out.push_back(static_cast<char>(c));
  });
  return Make(out);
}

}  // namespace QuenLibA500
