// Generic URIs: liburiparser checks the grammar, resolves and normalises;
// the parts are read from the checked text.
#include <quenlib/siuri.h>

#include <uriparser/Uri.h>

#include <cctype>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "diagnostics/trace.h"

namespace QuenLibA500 {

namespace {

// A text parsed by liburiparser. The parsed ranges point into `text`, so
// the object is neither copied nor moved.
class ParsedUri {
 public:
  explicit ParsedUri(std::string text) : m_text(std::move(text)) {
    char const* error = nullptr;
    m_ok = uriParseSingleUriExA(&m_uri, m_text.data(), m_text.data() + m_text.size(), &error) == URI_SUCCESS;
  }
  ~ParsedUri() { uriFreeUriMembersA(&m_uri); }
  ParsedUri(ParsedUri const&) = delete;
  ParsedUri& operator=(ParsedUri const&) = delete;

  bool ok() const { return m_ok; }
  UriUriA* get() { return &m_uri; }

 private:
  std::string m_text;
  UriUriA m_uri{};
  bool m_ok = false;
};

// The text of a parsed (or resolved) URI.
bool ToText(UriUriA const* uri, std::string& out) {
  int required = 0;
  if (uriToStringCharsRequiredA(uri, &required) != URI_SUCCESS) return false;
  std::vector<char> buf(size_t(required) + 1);
  int written = 0;
  if (uriToStringA(buf.data(), uri, required + 1, &written) != URI_SUCCESS) return false;
  out.assign(buf.data(), size_t(written > 0 ? written - 1 : 0));  // written counts the final zero
  return true;
}

// Removing dot segments can leave a path that reads back differently: one
// beginning with "//" where there is no authority ("s:/.//p" would become
// "s://p"), or a relative path whose first segment holds a ":" ("a/../b:c"
// would become "b:c"). "/." or "./" in front keeps the path what it is (the
// remedies RFC 3986 sections 4.2 and 5.2.4 give).
void KeepPathAPath(std::string& text, bool hasScheme, bool hasAuthority) {
  if (hasAuthority) return;
  size_t pos = hasScheme ? text.find(':') + 1 : 0;
  if (text.compare(pos, 2, "//") == 0) {
    text.insert(pos, "/.");
    return;
  }
  if (hasScheme) return;
  size_t end = text.find_first_of("/?#");
  if (text.substr(0, end).find(':') != std::string::npos) text.insert(0, "./");
}

// RFC 3986 5.2.4 on an absolute path (or one under an authority or a
// scheme).
std::string RemoveDotSegments(std::string in) {
  std::string out;
  while (!in.empty()) {
    if (in.compare(0, 3, "../") == 0) {
      in.erase(0, 3);
    } else if (in.compare(0, 2, "./") == 0 || in.compare(0, 3, "/./") == 0) {
      in.erase(0, 2);
    } else if (in == "/.") {
      in = "/";
    } else if (in.compare(0, 4, "/../") == 0 || in == "/..") {
      in = in == "/.." ? "/" : in.substr(3);
      size_t cut = out.rfind('/');
      out.erase(cut == std::string::npos ? 0 : cut);
    } else if (in == "." || in == "..") {
      in.clear();
    } else {
      size_t next = in.find('/', 1);
      out += in.substr(0, next);
      in.erase(0, next == std::string::npos ? in.size() : next);
    }
  }
  return out;
}

struct UriFreer {
  void operator()(UriUriA* u) const { uriFreeUriMembersA(u); }
};

}  // namespace

// Splits a checked URI reference into its parts (RFC 3986 appendix B).
bool SIUri::Assign(std::string const& text) {
  SIUri parts;
  size_t pos = 0;
  size_t stop = text.find_first_of(":/?#");
  if (stop != std::string::npos && stop > 0 && text[stop] == ':') {
    parts.m_scheme = text.substr(0, stop);
    pos = stop + 1;
  }
  if (text.compare(pos, 2, "//") == 0) {
    size_t end = text.find_first_of("/?#", pos + 2);
    if (end == std::string::npos) end = text.size();
    std::string authority = text.substr(pos + 2, end - pos - 2);
    pos = end;
    size_t at = authority.rfind('@');
    if (at != std::string::npos) {
      parts.m_userInfo = authority.substr(0, at);
      authority.erase(0, at + 1);
    }
    size_t colon = std::string::npos;
    if (!authority.empty() && authority[0] == '[') {
      size_t close = authority.find(']');
      if (close == std::string::npos) return false;
      parts.m_host = authority.substr(1, close - 1);
      parts.m_ipLiteral = true;
      if (close + 1 < authority.size() && authority[close + 1] == ':') colon = close + 1;
    } else {
      colon = authority.find(':');
      parts.m_host = authority.substr(0, colon);
    }
    if (colon != std::string::npos) parts.m_port = authority.substr(colon + 1);
  }
  size_t pathEnd = text.find_first_of("?#", pos);
  if (pathEnd == std::string::npos) pathEnd = text.size();
  parts.m_path = text.substr(pos, pathEnd - pos);
  pos = pathEnd;
  if (pos < text.size() && text[pos] == '?') {
    size_t hash = text.find('#', pos);
    if (hash == std::string::npos) hash = text.size();
    parts.m_query = text.substr(pos + 1, hash - pos - 1);
    pos = hash;
  }
  if (pos < text.size()) parts.m_fragment = text.substr(pos + 1);
  *this = std::move(parts);
  return true;
}

bool SIUri::Parse(SAnsiString const& text) {
  std::string s(text.getString(), text.getLength());
  ParsedUri parsed(s);
  if (!parsed.ok()) {
    QL_TRACE(SLogger::tl_L, "SIUri::Parse: not a URI reference: %1", text);
    return false;
  }
  return Assign(s);
}

std::string SIUri::Compose() const {
  std::string out;
  if (m_scheme) out += *m_scheme + ':';
  if (m_host) {
    out += "//";
    if (m_userInfo) out += *m_userInfo + '@';
    bool brackets = m_ipLiteral || m_host->find(':') != std::string::npos;
    out += brackets ? '[' + *m_host + ']' : *m_host;
    if (m_port) out += ':' + *m_port;
  }
  out += m_path;
  if (m_query) out += '?' + *m_query;
  if (m_fragment) out += '#' + *m_fragment;
  return out;
}

SAnsiString SIUri::ToString() const {
  std::string s = Compose();
  return SAnsiString(s.data(), unsigned(s.size()));
}

bool SIUri::IsValid() const { return ParsedUri(Compose()).ok(); }

bool SIUri::IsIPv6() const {
  if (!m_host) return false;
  if (m_ipLiteral && !m_host->empty() && (m_host->front() == 'v' || m_host->front() == 'V')) return false;
  return m_host->find(':') != std::string::npos;
}

int SIUri::GetPortNumber() const {
  if (!m_port || m_port->empty() || m_port->size() > 5) return -1;
  int n = 0;
  for (char c : *m_port) {
    if (c < '0' || c > '9') return -1;
    n = n * 10 + (c - '0');
  }
  return n <= 65535 ? n : -1;
}

bool SIUri::Resolve(SIUri const& reference, SIUri& result) const {
  if (!HasScheme()) return false;
  ParsedUri base(Compose());
  ParsedUri ref(reference.Compose());
  if (!base.ok() || !ref.ok()) return false;
  UriUriA dest{};
  std::unique_ptr<UriUriA, UriFreer> guard(&dest);
  if (uriAddBaseUriExA(&dest, ref.get(), base.get(), URI_RESOLVE_STRICTLY) != URI_SUCCESS) return false;
  std::string text;
  if (!ToText(&dest, text)) return false;
  bool refAuthority = reference.HasScheme() || reference.HasAuthority();
  KeepPathAPath(text, true, refAuthority ? reference.HasAuthority() : HasAuthority());
  if (!result.Assign(text)) return false;
  // The authority comes whole from the reference or from the base; the
  // writer would spell an IPv6 literal out in full, so its text is kept.
  SIUri const& owner = refAuthority ? reference : *this;
  if (owner.m_ipLiteral) result.m_host = owner.m_host;
  return true;
}

bool SIUri::Resolve(SAnsiString const& base, SAnsiString const& reference, SAnsiString& out) {
  SIUri b, r, result;
  if (!b.Parse(base) || !r.Parse(reference) || !b.Resolve(r, result)) return false;
  out = result.ToString();
  return true;
}

bool SIUri::NormalizeOnce() {
  ParsedUri parsed(Compose());
  if (!parsed.ok()) return false;
  if (uriNormalizeSyntaxA(parsed.get()) != URI_SUCCESS) return false;
  std::string text;
  std::optional<std::string> literal = m_ipLiteral ? m_host : std::nullopt;
  if (!ToText(parsed.get(), text)) return false;
  KeepPathAPath(text, HasScheme(), HasAuthority());
  if (!Assign(text)) return false;
  if (HasScheme() || HasAuthority() || (!m_path.empty() && m_path[0] == '/')) {
    m_path = RemoveDotSegments(m_path);
    if (!HasAuthority() && m_path.compare(0, 2, "//") == 0) m_path.insert(0, "/.");
  }
  // Kept as written, in lower case, rather than spelt out in full.
  if (literal) {
    for (char& c : *literal) c = char(std::tolower(static_cast<unsigned char>(c)));
    m_host = literal;
  }
  return true;
}

// liburiparser removes dot segments on some passes only, so passes are
// repeated until the text settles (two in practice).
bool SIUri::Normalize() {
  SIUri work = *this;
  for (int pass = 0; pass < 4; ++pass) {
    std::string before = work.Compose();
    if (!work.NormalizeOnce()) return false;
    if (work.Compose() == before) break;
  }
  *this = std::move(work);
  return true;
}

}  // namespace QuenLibA500
