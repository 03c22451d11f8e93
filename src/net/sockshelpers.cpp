// SocksHelpers: socks URIs joined with and split from target hosts, and the
// "#" quoting of stored socks texts.
#include <quenlib/sockshelpers.h>

#include "text/stdtext.h"

#include <string_view>

namespace QuenLibA500 {

namespace {

using stdtext::ansi;

constexpr std::string_view kScheme = "socks://";
// The ";" after the first version: "socks://5;..." holds it at index 9.
constexpr unsigned kQuoteIndex = 9;

std::string_view view(SAnsiString const& s) { return std::string_view(s.getString(), s.getLength()); }


bool startsWithScheme(std::string_view s) {
  if (s.size() < kScheme.size()) return false;
  for (size_t i = 0; i < kScheme.size(); ++i) {
    char c = s[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != kScheme[i]) return false;
  }
  return true;
}

bool holdsScheme(std::string_view s) {
  for (size_t i = 0; i + kScheme.size() <= s.size(); ++i)
    if (startsWithScheme(s.substr(i))) return true;
  return false;
}

SAnsiString replaceQuoteChar(SAnsiString const& text, char c) {
  std::string_view const t = view(text);
  if (!startsWithScheme(t) || t.size() <= kQuoteIndex) return text;
  std::string out(t);
  out[kQuoteIndex] = c;
  return ansi(out);
}

SAnsiString lower(std::string_view s) {
  SAnsiString out = ansi(s);
  out.toLower();
  return out;
}

}  // namespace

SAnsiString SocksHelpers::MakeURI(SAnsiString const& socks, SAnsiString const& host) {
  if (socks.isEmpty()) return host;
  return socks + "/" + host;
}

void SocksHelpers::SplitURI(SAnsiString const& uri, SAnsiString& socks, SAnsiString& host) {
  std::string_view const u = view(uri);
  if (!startsWithScheme(u)) {
    socks = SAnsiString();
    host = uri;
    return;
  }
  size_t const slash = u.rfind('/');
  if (slash + 1 == kScheme.size()) {  // only the scheme's own "//"
    socks = uri;
    host = SAnsiString();
    return;
  }
  socks = ansi(u.substr(0, slash));
  host = ansi(u.substr(slash + 1));
}

SAnsiString SocksHelpers::QuoteForRegistry(SAnsiString const& text) { return replaceQuoteChar(text, '#'); }

SAnsiString SocksHelpers::UnquoteForRegistry(SAnsiString const& text) { return replaceQuoteChar(text, ';'); }

SAnsiString SocksHelpers::CMSListToLower(SAnsiString const& list) {
  std::string_view const l = view(list);
  if (!holdsScheme(l)) return lower(l);
  SAnsiString out;
  size_t start = 0;
  for (;;) {
    size_t const end = l.find(';', start);
    std::string_view const word = l.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    SAnsiString socks, host;
    SplitURI(ansi(word), socks, host);
    out += MakeURI(QuoteForRegistry(socks), lower(view(host)));
    if (end == std::string_view::npos) return out;
    out += ";";
    start = end + 1;
  }
}

}  // namespace QuenLibA500
