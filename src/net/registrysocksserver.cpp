// Registry_SocksServer(s), SocksServerRegistry, the read and write
// templates, and the Web Connector's host list with its SOCKS servers.
#include <quenlib/sockshelpers.h>
#include <registrykeys/registrysocksserver.h>

#include "text/stdtext.h"
#include "diagnostics/assert.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace QuenLibA500 {

namespace {

using stdtext::ansi;

constexpr int kMaxCredentialChars = 255;
constexpr char const kServerSubKey[] = "SocksServer";

std::string_view view(SAnsiString const& s) { return std::string_view(s.getString(), s.getLength()); }


SAnsiString decimal(int64_t v) { return SAnsiString(std::to_string(v).c_str()); }

// The whole text as a signed 32-bit decimal number.
bool toInt32(SAnsiString const& text, int32_t& out) {
  std::string_view const t = view(text);
  auto const [end, ec] = std::from_chars(t.data(), t.data() + t.size(), out);
  return ec == std::errc() && end == t.data() + t.size() && !t.empty();
}

// Reports a failure through the assertion channel and gives false.
bool fail(char const* message) {
  QL_REPORT("0", message);
  return false;
}

// The sub-keys named prefix + decimal index, in the order of their index.
std::vector<SAnsiString> numberedSubKeys(Registry const& key, std::string_view prefix) {
  std::vector<std::pair<int32_t, SAnsiString>> found;
  for (Registry::KeyIterator it = key.EnumSubKeys(); it; ++it) {
    SAnsiString const name = it.GetKey();
    std::string_view const n = view(name);
    if (n.size() <= prefix.size() || ansi(n.substr(0, prefix.size())).compareNoCase(ansi(prefix)) != 0) continue;
    int32_t index = 0;
    if (toInt32(ansi(n.substr(prefix.size())), index) && index >= 0) found.emplace_back(index, name);
  }
  std::sort(found.begin(), found.end(), [](auto const& a, auto const& b) { return a.first < b.first; });
  std::vector<SAnsiString> names;
  for (auto const& f : found) names.push_back(f.second);
  return names;
}

// One server of a socks URI: "5;user:password@name:port" or "4;name:port".
bool parseServer(std::string_view item, Registry_SocksServer& s) {
  size_t const sep = item.find_first_of(";#");
  if (sep == std::string_view::npos || !toInt32(ansi(item.substr(0, sep)), s.m_version)) return false;
  std::string_view rest = item.substr(sep + 1);
  size_t const at = rest.rfind('@');
  s.m_usesAuthentication = at != std::string_view::npos;
  if (s.m_usesAuthentication) {
    std::string_view const credentials = rest.substr(0, at);
    size_t const colon = credentials.find(':');
    if (colon == std::string_view::npos) return false;
    s.m_userName = ansi(credentials.substr(0, colon));
    s.m_password = ansi(credentials.substr(colon + 1));
    rest = rest.substr(at + 1);
  }
  size_t const colon = rest.rfind(':');
  if (colon == std::string_view::npos || !toInt32(ansi(rest.substr(colon + 1)), s.m_serverPort)) return false;
  s.m_serverName = ansi(rest.substr(0, colon));
  return true;
}

}  // namespace

// ================================================================ records

bool Registry_SocksServer::Verify() const {
  if (m_version != 4 && m_version != 5) return false;
  if (m_serverName.isEmpty()) return false;
  if (m_serverPort < 1 || m_serverPort > 65535) {
    QL_REPORT("m_serverPort >= 1 && m_serverPort <= 65535", "Registry_SocksServer::Verify: Is out of range");
    return false;
  }
  if (!m_usesAuthentication) return true;
  return static_cast<int>(m_userName.getNChars()) <= kMaxCredentialChars &&
         static_cast<int>(m_password.getNChars()) <= kMaxCredentialChars;
}

bool Registry_SocksServer::operator==(Registry_SocksServer const& o) const {
  return m_version == o.m_version && m_serverName == o.m_serverName && m_serverPort == o.m_serverPort &&
         m_usesAuthentication == o.m_usesAuthentication && m_userName == o.m_userName && m_password == o.m_password;
}

Registry_SocksServers::~Registry_SocksServers() = default;

SAnsiString Registry_SocksServers::ToSocksURI() const {
  if (IsEmpty()) return SAnsiString();
  SAnsiString uri = "socks://";
  bool first = true;
  for (Registry_SocksServer const& s : *this) {
    if (s.m_version != 4 && s.m_version != 5) {
      QL_REPORT("0", "Registry_SocksServers::ToSocksURI: Invalid socks version");
      return SAnsiString();
    }
    if (!first) uri += "&";
    first = false;
    uri += s.m_version == 4 ? "4;" : "5;";
    if (s.m_version == 5 && s.m_usesAuthentication) uri += s.m_userName + ":" + s.m_password + "@";
    uri += s.m_serverName + ":" + decimal(s.m_serverPort);
  }
  return uri;
}

bool Registry_SocksServers::FromSocksURI(SAnsiString const& uri) {
  RemoveAll();
  SAnsiString socks, host;
  SocksHelpers::SplitURI(uri, socks, host);
  std::string_view const text = view(socks);
  if (text.size() <= 8) return false;  // not even "socks://" and a server
  size_t start = 8;
  for (;;) {
    size_t const end = text.find('&', start);
    Registry_SocksServer s;
    if (!parseServer(text.substr(start, end == std::string_view::npos ? end : end - start), s)) {
      RemoveAll();
      return false;
    }
    Add(s);
    if (end == std::string_view::npos) return true;
    start = end + 1;
  }
}

// ================================================================ the key

SocksServerRegistry::SocksServerRegistry(SAnsiString const& key, HKEY const& root)
    : Registry(SAnsiStringCI(key), SAnsiStringCI(), root) {}
SocksServerRegistry::SocksServerRegistry(SocksServerRegistry const& other) = default;
SocksServerRegistry& SocksServerRegistry::operator=(SocksServerRegistry const& other) = default;
SocksServerRegistry::~SocksServerRegistry() = default;

bool SocksServerRegistry::Get(Registry_SocksServers& servers) {
  return RegistrySocksServer_Get(*this, SAnsiString(), servers);
}

bool SocksServerRegistry::Set(Registry_SocksServers const& servers) {
  return RegistrySocksServer_Set(*this, SAnsiString(), servers);
}

SocksServerRegistry SocksServerRegistry::SubKey(SAnsiString const& name) const {
  SocksServerRegistry sub(*this);
  if (!name.isEmpty()) sub.appendKey(name);
  return sub;
}

// ================================================================ read and write

template <class R>
bool RegistrySocksServer_Get(R& key, Registry_SocksServer& server) {
  server.m_serverPort = 1080;
  server.m_usesAuthentication = false;
  server.m_serverName = key.ReadValue("ServerName");
  if (server.m_serverName.isEmpty()) return fail("SocksServerRegistry::Get Invalid value for server name");
  if (!toInt32(key.ReadValue("ServerPort"), server.m_serverPort))
    return fail("SocksServerRegistry::Get Invalid value for server port");
  int32_t version = -1;
  if (!toInt32(key.ReadValue("Version"), version) || version < 0)
    return fail("SocksServerRegistry::Get Invalid value for version");
  server.m_version = version;
  SAnsiString const auth = key.ReadValue("Authentication");
  if (auth.compareNoCase("true") == 0) {
    server.m_usesAuthentication = true;
  } else if (auth.compareNoCase("false") != 0) {
    return fail("SocksServerRegistry::Get Unknown value");
  }
  if (!server.m_usesAuthentication) return true;
  server.m_userName = key.ReadValue("UserName");
  if (server.m_userName.getNChars() > kMaxCredentialChars) return fail("SocksServerRegistry::Get User name too long");
  server.m_password = key.ReadValue("Password");
  if (server.m_password.getNChars() > kMaxCredentialChars) return fail("SocksServerRegistry::Get Password too long");
  return true;
}

template <class R>
bool RegistrySocksServer_Set(R& key, Registry_SocksServer const& server) {
  if (!server.Verify()) return fail("SocksServerRegistry::Set Invalid sock server");
  if (!key.WriteValue("ServerName", server.m_serverName))
    return fail("SocksServerRegistry::Set Error writing server name");
  if (!key.WriteValue("ServerPort", static_cast<DWORD>(server.m_serverPort)))
    return fail("SocksServerRegistry::Set Error writing server port");
  if (!key.WriteValue("Version", static_cast<DWORD>(server.m_version)))
    return fail("SocksServerRegistry::Set Error writing version");
  if (!key.WriteValue("Authentication", SAnsiString(server.m_usesAuthentication ? "true" : "false")))
    return fail("SocksServerRegistry::Set Error writing uses authentication");
  if (!server.m_usesAuthentication) return true;
  if (!key.WriteValue("UserName", server.m_userName)) return fail("SocksServerRegistry::Set Error writing user name");
  // The password's failure reports the user-name message, as stored
  // settings tools have always shown it.
  if (!key.WriteValue("Password", server.m_password)) return fail("SocksServerRegistry::Set Error writing user name");
  return true;
}

template <class R>
bool RegistrySocksServer_Get(R const& key, SAnsiString const& name, Registry_SocksServers& servers) {
  R const list = key.SubKey(name);
  if (!list.KeyExists()) return false;
  for (SAnsiString const& sub : numberedSubKeys(list, kServerSubKey)) {
    R one = list.SubKey(sub);
    Registry_SocksServer server;
    if (!RegistrySocksServer_Get(one, server)) return false;
    servers.Add(server);
  }
  return true;
}

template <class R>
bool RegistrySocksServer_Set(R const& key, SAnsiString const& name, Registry_SocksServers const& servers) {
  R list = key.SubKey(name);
  if (list.KeyExists() && !list.DeleteKeyRecursive(true))
    return fail("SocksServerRegistry::Set: Could not delete subkey");
  for (int i = 0; i < servers.GetSize(); ++i) {
    R one = list.SubKey(kServerSubKey + decimal(i));
    if (!RegistrySocksServer_Set(one, servers[i])) return false;
  }
  return true;
}

template QUENLIB_API bool RegistrySocksServer_Get<SocksServerRegistry>(SocksServerRegistry&, Registry_SocksServer&);
template QUENLIB_API bool RegistrySocksServer_Set<SocksServerRegistry>(SocksServerRegistry&,
                                                                     Registry_SocksServer const&);
template QUENLIB_API bool RegistrySocksServer_Get<SocksServerRegistry>(SocksServerRegistry const&, SAnsiString const&,
                                                                     Registry_SocksServers&);
template QUENLIB_API bool RegistrySocksServer_Set<SocksServerRegistry>(SocksServerRegistry const&, SAnsiString const&,
                                                                     Registry_SocksServers const&);

// ================================================================ Web Connector hosts

char const* const WebConnectorRegistry::WCSSOCKS_VALUE = "SocksServers";

bool WebConnectorRegistry::GetWCSHosts(SIArray<WCSHost>& hosts) {
  WebConnectorRegistry list(*this);
  list.appendKey(WCSHOSTS_KEY);
  if (!list.KeyExists()) return true;
  for (SAnsiString const& sub : numberedSubKeys(list, "")) {
    WebConnectorRegistry one(list);
    one.appendKey(sub);
    WCSHost host;
    host.m_host = one.ReadValue(WCSHOST_VALUE);
    if (host.m_host.isEmpty()) return fail("WebConnectorRegistry::Get Invalid value for host name");
    SAnsiString const uri = SocksHelpers::UnquoteForRegistry(one.ReadValue(WCSSOCKS_VALUE));
    if (!uri.isEmpty() && !host.m_socksServers.FromSocksURI(uri))
      return fail("WebConnectorRegistry::Get Invalid value for socks servers");
    hosts.Add(host);
  }
  return true;
}

bool WebConnectorRegistry::SetWCSHosts(SIArray<WCSHost> const& hosts) {
  WebConnectorRegistry list(*this);
  list.appendKey(WCSHOSTS_KEY);
  if (list.KeyExists() && !list.DeleteKeyRecursive(true))
    return fail("SocksServerRegistry::Set: Could not delete subkey");
  for (int i = 0; i < hosts.GetSize(); ++i) {
    WCSHost const& host = hosts[i];
    for (Registry_SocksServer const& s : host.m_socksServers)
      if (!s.Verify()) return fail("SocksServerRegistry::Set Invalid sock server");
    WebConnectorRegistry one(list);
    one.appendKey(decimal(i));
    if (!one.WriteValue(WCSHOST_VALUE, host.m_host)) return fail("SocksServerRegistry::Set Error writing server name");
    SAnsiString const uri = SocksHelpers::QuoteForRegistry(host.m_socksServers.ToSocksURI());
    if (!one.WriteValue(WCSSOCKS_VALUE, uri)) return fail("SocksServerRegistry::Set Error writing server name");
  }
  return true;
}

}  // namespace QuenLibA500
