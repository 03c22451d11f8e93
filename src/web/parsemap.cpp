// parsemap.cpp: CMapNameValuePair, a pair text parsed into a map whose
// keys ignore case; and the lower-casing of map keys.
#include <quenlib/nvpairs.h>
#include <quenlib/simap.h>

#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <string>

#include "diagnostics/assert.h"
#include "web/urlcodec.h"

namespace QuenLibA500 {

namespace {

// One locale character at p (n bytes left) lowered and appended to out;
// returns the bytes consumed. Invalid bytes are copied one at a time.
size_t AppendLowerChar(std::string& out, char const* p, size_t n) {
  std::mbstate_t st{};
  wchar_t wc = 0;
  size_t len = std::mbrtowc(&wc, p, n, &st);
  if (len == 0 || len == static_cast<size_t>(-1) || len == static_cast<size_t>(-2)) {
    out.push_back(*p);
    return 1;
  }
  wchar_t lw = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(wc)));
  char mb[MB_LEN_MAX];
  std::mbstate_t st2{};
  size_t outLen = lw == wc ? static_cast<size_t>(-1) : std::wcrtomb(mb, lw, &st2);
  if (outLen == static_cast<size_t>(-1))
    out.append(p, len);
  else
    out.append(mb, outLen);
  return len;
}

}  // namespace

std::string LowerCaseForKey(char const* text, unsigned length) {
  std::string out;
  out.reserve(length);
  size_t i = 0;
  while (i < length) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      out.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : static_cast<char>(c));
      ++i;
      continue;
    }
    i += AppendLowerChar(out, text + i, length - i);
  }
  return out;
}

CMapNameValuePair::~CMapNameValuePair() = default;

bool CMapNameValuePair::SetNameValuePair(SAnsiString const& name, SAnsiString const& value) {
  Insert(SMapStringCaseInsensitive(name), value);
  return true;
}

namespace {

void ReportWrongCount(char const* p, char const* end) {
  if (!SLogger::ShouldAssert()) return;
  std::string msg = "Error: Wrong number of parameters in URL [";
  msg.append(p, static_cast<size_t>(end - p));
  msg += "]";
  SAssert(__FILE__, __LINE__, "Error: Wrong number of parameters in URL ", msg.c_str());
}

}  // namespace

// Walks [p, end) one character at a time (locale characters when
// multibyte), cutting at "=" and "&". Invariant: `pending` is true exactly
// when a name has been read and its value is still open.
bool CMapNameValuePair::parseBytes(char const* p, char const* end, bool multibyte) {
  RemoveAll();
  if (p == end) return true;
  char const* start = p;
  char const* mark = p;  // start of the name, or of the value when pending
  bool pending = false;
  SAnsiString name;
  for (char const* q = p; q < end;) {
    char c = *q;
    if (c == '=' || c == '&') {
      bool isEq = c == '=';
      if (isEq == pending) {  // "=" twice, or "&" without a name
        ReportWrongCount(start, end);
        return false;
      }
      SAnsiString piece = urlcodec::DecodeLocaleText(mark, static_cast<size_t>(q - mark));
      if (isEq)
        name = piece;
      else
        SetNameValuePair(name, piece);
      pending = isEq;
      mark = ++q;
      continue;
    }
    unsigned step = multibyte ? SAnsiString::StepLength(q) : 1;
    if (step == 0) step = 1;  // an embedded zero byte is one character here
    q += step;
    if (q > end) q = end;
  }
  if (!pending) {
    ReportWrongCount(start, end);
    return false;
  }
  SetNameValuePair(name, urlcodec::DecodeLocaleText(mark, static_cast<size_t>(end - mark)));
  return true;
}

bool CMapNameValuePair::ParseParameter(SAnsiString const& text) {
  char const* p = text.getString();
  return parseBytes(p, p + text.getLength(), true);
}

bool CMapNameValuePair::ParseParameter(SAsciiString::iterator it) {
  char const* p = SAsciiString::getCursor(it);
  if (!p) return parseBytes(nullptr, nullptr, false);
  char const* end = p;
  while (*end) ++end;
  return parseBytes(p, end, false);
}

}  // namespace QuenLibA500
