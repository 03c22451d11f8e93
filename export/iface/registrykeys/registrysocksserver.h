// registrysocksserver.h: SOCKS proxy settings and their registry storage.
//
// `Registry_SocksServer` is one proxy (version 4 or 5, name, port, and for
// version 5 an optional user name and password); `Registry_SocksServers` is
// a list in order of preference, whose text form is the socks URI.
// `SocksServerRegistry` names the key under which a list is kept, one
// sub-key "SocksServer0", "SocksServer1", ... per server:
//
//   Registry_SocksServer s;
//   s.m_version = 5; s.m_serverName = "proxy"; s.m_serverPort = 1080;
//   Registry_SocksServers list;
//   list.Add(s);
//   SAnsiString uri = list.ToSocksURI();                  // "socks://5;proxy:1080"
//   SocksServerRegistry key("Software\\Example\\Socks");  // below HKEY_CURRENT_USER
//   key.Set(list);
//   Registry_SocksServers back;
//   key.Get(back);
//
// Failures return false and are reported through the assertion channel.
// `WebConnectorRegistry::WCSHost` (a host name and its proxies) is defined
// here too, since it carries a list.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/registry.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>

#include <cstdint>

namespace QuenLibA500 {

struct QUENLIB_API Registry_SocksServer {
  int32_t m_version = 0;
  SAnsiString m_serverName;
  int32_t m_serverPort = 1080;
  bool m_usesAuthentication = false;
  SAnsiString m_userName;
  SAnsiString m_password;

  // Version 4 or 5, a name, a port from 1 to 65535, and with
  // authentication a user name and password of at most 255 characters.
  bool Verify() const;
  bool operator==(Registry_SocksServer const& o) const;
  bool operator!=(Registry_SocksServer const& o) const { return !(*this == o); }
};

class QUENLIB_API Registry_SocksServers : public SIArray<Registry_SocksServer> {
 public:
  Registry_SocksServers() = default;
  Registry_SocksServers(Registry_SocksServers const&) = default;
  Registry_SocksServers& operator=(Registry_SocksServers const&) = default;
  virtual ~Registry_SocksServers();

  // "socks://" and the servers joined by "&"; empty for an empty list or
  // when a server has a version other than 4 or 5.
  SAnsiString ToSocksURI() const;
  // The reverse of ToSocksURI (a quoted "#" after the first version is
  // accepted too). False, with the list emptied, on text it cannot read.
  bool FromSocksURI(SAnsiString const& uri);
};

// A key holding SOCKS settings, below HKEY_CURRENT_USER unless a root is
// given.
class QUENLIB_API SocksServerRegistry : public Registry {
 public:
  explicit SocksServerRegistry(SAnsiString const& key, HKEY const& root = HKEY_CURRENT_USER);
  SocksServerRegistry(SocksServerRegistry const& other);
  SocksServerRegistry& operator=(SocksServerRegistry const& other);
  ~SocksServerRegistry() override;

  // The list stored below this key itself.
  bool Get(Registry_SocksServers& servers);
  bool Set(Registry_SocksServers const& servers);

  // This key + "\\" + name (this key for an empty name), same root and
  // remote machine.
  SocksServerRegistry SubKey(SAnsiString const& name) const;
};

// One server from the values of `key`.
template <class R>
QUENLIB_API bool RegistrySocksServer_Get(R& key, Registry_SocksServer& server);
// One server into the values of `key` (after Verify).
template <class R>
QUENLIB_API bool RegistrySocksServer_Set(R& key, Registry_SocksServer const& server);
// The list below key\name, read from its "SocksServer<n>" sub-keys.
template <class R>
QUENLIB_API bool RegistrySocksServer_Get(R const& key, SAnsiString const& name, Registry_SocksServers& servers);
// Replaces the list below key\name.
template <class R>
QUENLIB_API bool RegistrySocksServer_Set(R const& key, SAnsiString const& name, Registry_SocksServers const& servers);

extern template QUENLIB_API bool RegistrySocksServer_Get<SocksServerRegistry>(SocksServerRegistry&,
                                                                            Registry_SocksServer&);
extern template QUENLIB_API bool RegistrySocksServer_Set<SocksServerRegistry>(SocksServerRegistry&,
                                                                            Registry_SocksServer const&);
extern template QUENLIB_API bool RegistrySocksServer_Get<SocksServerRegistry>(SocksServerRegistry const&,
                                                                            SAnsiString const&,
                                                                            Registry_SocksServers&);
extern template QUENLIB_API bool RegistrySocksServer_Set<SocksServerRegistry>(SocksServerRegistry const&,
                                                                            SAnsiString const&,
                                                                            Registry_SocksServers const&);

// A Web Connector host and the proxies it is reached through.
struct QUENLIB_API WebConnectorRegistry::WCSHost {
  SAnsiString m_host;
  Registry_SocksServers m_socksServers;
  bool operator==(WCSHost const& o) const { return m_host == o.m_host && m_socksServers == o.m_socksServers; }
};

}  // namespace QuenLibA500
