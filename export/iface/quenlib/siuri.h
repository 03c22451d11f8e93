// siuri.h: generic URIs (RFC 3986): parse, resolve, normalise, build.
//
// `SIUri` holds the seven parts of a URI reference. Each part is either
// absent or present (possibly empty): "http://h/p?" has an empty query,
// "http://h/p" has none. The host of an IPv6 literal is kept without its
// brackets and IsIPv6() is true. Parsing is strict RFC 3986: text that is
// not a URI reference (spaces, a bad percent escape, "[" outside a host)
// is refused and the object left as it was.
//
//   SIUri uri;
//   if (uri.Parse("http://user@[2001:db8::1]:8080/a/b?x=1#top")) {
//     uri.GetHost();        // "2001:db8::1"
//     uri.GetPortNumber();  // 8080
//   }
//   SAnsiString out;
//   SIUri::Resolve("http://a/b/c/d;p?q", "../g", out);  // "http://a/b/g"
//   SIUri n;
//   n.Parse("HTTP://Example.COM/a/./b/../c/%7euser");
//   n.Normalize();
//   n.ToString();         // "http://example.com/a/c/~user"
//
// Parts can also be set one by one and the text built with ToString();
// IsValid() says whether that text is a URI reference.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <optional>
#include <string>

namespace QuenLibA500 {

class QUENLIB_API SIUri {
 public:
  SIUri() = default;

  // False (and the object unchanged) for text that is not a URI reference.
  bool Parse(SAnsiString const& text);
  // The reference resolved against this object as base (RFC 3986 5.2,
  // strict); false when this is not an absolute URI or the reference does
  // not parse.
  bool Resolve(SIUri const& reference, SIUri& result) const;
  // The same on texts; `out` gets the resolved text.
  static bool Resolve(SAnsiString const& base, SAnsiString const& reference, SAnsiString& out);
  // Syntax-based normalisation: scheme and host in lower case, percent
  // escapes in upper case, escapes of unreserved characters decoded, dot
  // segments removed. False when the object does not hold a valid URI.
  bool Normalize();

  // The text of the parts (RFC 3986 5.3).
  SAnsiString ToString() const;
  // True when ToString() is a URI reference.
  bool IsValid() const;

  bool HasScheme() const { return m_scheme.has_value(); }
  bool HasAuthority() const { return m_host.has_value(); }
  bool HasUserInfo() const { return m_userInfo.has_value(); }
  bool HasPort() const { return m_port.has_value(); }
  bool HasQuery() const { return m_query.has_value(); }
  bool HasFragment() const { return m_fragment.has_value(); }
  bool IsIPv6() const;
  // An absolute URI: a scheme and no fragment.
  bool IsAbsolute() const { return HasScheme() && !HasFragment(); }

  SAnsiString GetScheme() const { return Text(m_scheme); }
  SAnsiString GetUserInfo() const { return Text(m_userInfo); }
  SAnsiString GetHost() const { return Text(m_host); }
  SAnsiString GetPort() const { return Text(m_port); }
  // The port as a number; -1 when absent, empty or above 65535.
  int GetPortNumber() const;
  SAnsiString GetPath() const { return SAnsiString(m_path.data(), unsigned(m_path.size())); }
  SAnsiString GetQuery() const { return Text(m_query); }
  SAnsiString GetFragment() const { return Text(m_fragment); }

  // Setters take the part's text as it appears in the URI (escaped); the
  // host of an IPv6 literal without brackets. Clear* make a part absent
  // (ClearAuthority also drops user information and port).
  void SetScheme(SAnsiString const& s) { m_scheme = Std(s); }
  void SetUserInfo(SAnsiString const& s) { m_userInfo = Std(s); }
  void SetHost(SAnsiString const& s) {
    m_host = Std(s);
    m_ipLiteral = false;
  }
  void SetPort(SAnsiString const& s) { m_port = Std(s); }
  void SetPath(SAnsiString const& s) { m_path = Std(s); }
  void SetQuery(SAnsiString const& s) { m_query = Std(s); }
  void SetFragment(SAnsiString const& s) { m_fragment = Std(s); }
  void ClearScheme() { m_scheme.reset(); }
  void ClearAuthority() {
    m_host.reset();
    m_userInfo.reset();
    m_port.reset();
  }
  void ClearQuery() { m_query.reset(); }
  void ClearFragment() { m_fragment.reset(); }

  bool operator==(SIUri const& other) const = default;

 private:
  static SAnsiString Text(std::optional<std::string> const& s) {
    return s ? SAnsiString(s->data(), unsigned(s->size())) : SAnsiString();
  }
  static std::string Std(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }
  std::string Compose() const;
  bool Assign(std::string const& text);
  bool NormalizeOnce();

  std::optional<std::string> m_scheme, m_userInfo, m_host, m_port, m_query, m_fragment;
  std::string m_path;
  bool m_ipLiteral = false;  // the host was written in brackets
};

}  // namespace QuenLibA500
