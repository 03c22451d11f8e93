// SOCKS records, socks URIs and helpers, and their storage in a temporary
// registry store (lists, read rules, remote machines, Web Connector hosts).
#include <quenlib/regapi.h>
#include <quenlib/sockshelpers.h>
#include <registrykeys/registrysocksserver.h>

#include "net_support.h"

#include <gtest/gtest.h>

#include <string>

using namespace QuenLibA500;
using namespace nettest;

namespace {

Registry_SocksServer server(int version, char const* name, int port, char const* user = nullptr,
                            char const* password = "") {
  Registry_SocksServer s;
  s.m_version = version;
  s.m_serverName = name;
  s.m_serverPort = port;
  s.m_usesAuthentication = user != nullptr;
  s.m_userName = user ? user : "";
  s.m_password = password;
  return s;
}

TEST(SocksHelpers, JoinSplitAndQuote) {
  EXPECT_EQ(str(SocksHelpers::MakeURI("", "Host")), "Host");
  EXPECT_EQ(str(SocksHelpers::MakeURI("socks://5;p:1080", "h")), "socks://5;p:1080/h");
  struct {
    char const *uri, *socks, *host;
  } const splits[] = {
      {"socks://5;p:1080", "socks://5;p:1080", ""},
      {"socks://5;p:1080/target", "socks://5;p:1080", "target"},
      {"SOCKS://4;p:1/t", "SOCKS://4;p:1", "t"},
      {"socks://5;a:1&4;b:2/x/y", "socks://5;a:1&4;b:2/x", "y"},
      {"plain/host", "", "plain/host"},
  };
  for (auto const& r : splits) {
    SAnsiString socks = "old", host = "old";
    SocksHelpers::SplitURI(r.uri, socks, host);
    EXPECT_EQ(str(socks), r.socks) << r.uri;
    EXPECT_EQ(str(host), r.host) << r.uri;
  }
  struct {
    char const *plain, *quoted;
  } const quotes[] = {
      {"socks://5;p:1080", "socks://5#p:1080"},
      {"Socks://5;a:1&4;b:2", "Socks://5#a:1&4;b:2"},  // only index 9 changes
      {"socks://5", "socks://5"},
      {"http://x;yz", "http://x;yz"},
  };
  for (auto const& r : quotes) {
    EXPECT_EQ(str(SocksHelpers::QuoteForRegistry(r.plain)), r.quoted) << r.plain;
    EXPECT_EQ(str(SocksHelpers::UnquoteForRegistry(r.quoted)), r.plain) << r.quoted;
  }
}

TEST(SocksHelpers, ListToLowerKeepsCredentials) {
  EXPECT_EQ(str(SocksHelpers::CMSListToLower("CMS.Example:6400;Other")), "cms.example:6400;other");
  EXPECT_EQ(str(SocksHelpers::CMSListToLower("socks://5#User:PW@Proxy:1080/CMS.Example;Second")),
            "socks://5#User:PW@Proxy:1080/cms.example;second");
  // Unquoted, the ";" after the version splits the word: a socks part with
  // no target gains its "/", and the credentials are lower-cased as host.
  EXPECT_EQ(str(SocksHelpers::CMSListToLower("socks://5;U:P@x:1/CMS")), "socks://5/;u:p@x:1/cms");
}

TEST(SocksRecords, VerifyRules) {
  Recorder rec;
  std::string const long255(255, 'u'), long256(256, 'p');
  struct {
    Registry_SocksServer s;
    bool valid;
  } const rows[] = {
      {server(4, "p", 1080), true},
      {server(5, "p", 65535), true},
      {server(3, "p", 1080), false},
      {server(5, "", 1080), false},
      {server(5, "p", 65536), false},
      {server(4, "p", 1080, "v4 with credentials", "is valid"), true},
      {server(5, "p", 1080, long255.c_str(), long255.c_str()), true},
      {server(5, "p", 1080, "u", long256.c_str()), false},
      {server(5, "p", 1080, long256.c_str(), "p"), false},
  };
  for (auto const& r : rows) EXPECT_EQ(r.s.Verify(), r.valid) << str(r.s.m_serverName) << r.s.m_serverPort;
  EXPECT_EQ(rec.asserts(), std::vector<std::string>{"Registry_SocksServer::Verify: Is out of range"});
  EXPECT_FALSE(server(5, "p", 0).Verify());
  EXPECT_EQ(rec.asserts().size(), 2u);
}

TEST(SocksRecords, SocksURIBothWays) {
  Registry_SocksServers list;
  EXPECT_EQ(str(list.ToSocksURI()), "");
  list.Add(server(5, "p", 1080, "user", "pw"));
  list.Add(server(4, "q", 1081, "dropped", "for v4"));
  list.Add(server(5, "r", 1082));
  EXPECT_EQ(str(list.ToSocksURI()), "socks://5;user:pw@p:1080&4;q:1081&5;r:1082");
  Registry_SocksServers back;
  ASSERT_TRUE(back.FromSocksURI(SocksHelpers::QuoteForRegistry(list.ToSocksURI())));
  ASSERT_EQ(back.GetSize(), 3);
  EXPECT_EQ(back[0], list[0]);
  EXPECT_EQ(back[2], list[2]);
  EXPECT_FALSE(back.FromSocksURI("socks://5;noport"));
  EXPECT_EQ(back.GetSize(), 0);
  Recorder rec;
  list.Add(server(6, "s", 1));
  EXPECT_EQ(str(list.ToSocksURI()), "");
  EXPECT_EQ(rec.asserts().size(), 1u);
}

class SocksRegistry : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("QUENLIB_REGISTRY_DIR", m_dir.path().c_str(), 1);
    ::unsetenv("QUENLIB_REGISTRY_REMOTE_DIR");
  }
  void TearDown() override {
    ::unsetenv("QUENLIB_REGISTRY_DIR");
    ::unsetenv("QUENLIB_REGISTRY_REMOTE_DIR");
  }
  ScratchDir m_dir;
  Recorder m_rec;
};

TEST_F(SocksRegistry, ListsRoundTripInSubKeysAndShorterListsReplaceLonger) {
  Registry_SocksServers three, one, back;
  three.Add(server(5, "a", 1080, "user", "secret"));
  three.Add(server(4, "b", 1081));
  three.Add(server(5, "c", 1082));
  one.Add(server(4, "only", 9));
  SocksServerRegistry key("Software\\Example\\Socks");
  ASSERT_TRUE(RegistrySocksServer_Set(key, "Proxies", three));
  ASSERT_TRUE(RegistrySocksServer_Get(key, "Proxies", back));
  EXPECT_EQ(back, three);
  Registry raw("Software\\Example\\Socks\\Proxies\\SocksServer0", "", HKEY_CURRENT_USER);
  DWORD type = 0;
  ASSERT_TRUE(raw.GetType("ServerPort", type));
  EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));
  EXPECT_EQ(str(raw.ReadValue("Authentication")), "true");
  EXPECT_EQ(str(raw.ReadValue("Password")), "secret");
  ASSERT_TRUE(key.SubKey("Proxies").Set(one));
  back.RemoveAll();
  ASSERT_TRUE(key.SubKey("Proxies").Get(back));
  EXPECT_EQ(back, one);
  EXPECT_FALSE(Registry("Software\\Example\\Socks\\Proxies\\SocksServer1", "", HKEY_CURRENT_USER).KeyExists());
  EXPECT_TRUE(m_rec.asserts().empty());
}

TEST_F(SocksRegistry, ReadRulesStopAtTheFirstBadValue) {
  std::string const user256(256, 'u'), password256(256, 'p');
  struct {
    char const* value;
    char const* text;
    char const* message;
  } const rows[] = {
      {"Authentication", "TRUE", nullptr},
      {"Authentication", "yes", "SocksServerRegistry::Get Unknown value"},
      {"ServerName", "", "SocksServerRegistry::Get Invalid value for server name"},
      {"ServerPort", "port", "SocksServerRegistry::Get Invalid value for server port"},
      {"Version", "-1", "SocksServerRegistry::Get Invalid value for version"},
      {"UserName", user256.c_str(), "SocksServerRegistry::Get User name too long"},
      {"Password", password256.c_str(), "SocksServerRegistry::Get Password too long"},
  };
  for (auto const& r : rows) {
    SocksServerRegistry key("Software\\Example\\One");
    ASSERT_TRUE(RegistrySocksServer_Set(key, server(5, "p", 1081, "u", "p")));
    ASSERT_TRUE(key.WriteValue(r.value, SAnsiString(r.text)));
    m_rec.clear();
    Registry_SocksServer got;
    EXPECT_EQ(RegistrySocksServer_Get(key, got), r.message == nullptr) << r.value << "=" << r.text;
    std::vector<std::string> want;
    if (r.message) want.push_back(r.message);
    EXPECT_EQ(m_rec.asserts(), want) << r.value << "=" << r.text;
  }
  SocksServerRegistry absent("Software\\Example\\Absent");
  Registry_SocksServer got;
  got.m_serverPort = 1;
  EXPECT_FALSE(RegistrySocksServer_Get(absent, got));
  EXPECT_EQ(got.m_serverPort, 1080);  // the defaults are set before reading
}

TEST_F(SocksRegistry, InvalidServersAreNotWritten) {
  SocksServerRegistry key("Software\\Example\\Invalid");
  EXPECT_FALSE(RegistrySocksServer_Set(key, server(5, "p", 1080, "u", std::string(256, 'p').c_str())));
  EXPECT_EQ(m_rec.asserts(), std::vector<std::string>{"SocksServerRegistry::Set Invalid sock server"});
  EXPECT_FALSE(key.KeyExists());
}

TEST_F(SocksRegistry, ARemoteKeyKeepsItsListOnTheRemoteMachine) {
  std::string const remote = m_dir / "remote";
  ::setenv("QUENLIB_REGISTRY_DIR", (remote + "/far").c_str(), 1);
  ASSERT_TRUE(Registry("Software", "", HKEY_LOCAL_MACHINE).WriteValue("made", SAnsiString("here")));
  ::setenv("QUENLIB_REGISTRY_DIR", m_dir.path().c_str(), 1);
  ::setenv("QUENLIB_REGISTRY_REMOTE_DIR", remote.c_str(), 1);
  SocksServerRegistry key("Software\\Socks", HKEY_LOCAL_MACHINE);
  key.SetRemoteMachine("far");
  ASSERT_TRUE(key.IsRemoteReg());
  Registry_SocksServers list, back;
  list.Add(server(4, "remote-proxy", 1080));
  ASSERT_TRUE(key.Set(list));
  EXPECT_FALSE(Registry("Software\\Socks\\SocksServer0", "", HKEY_LOCAL_MACHINE).KeyExists());
  ASSERT_TRUE(key.Get(back));
  EXPECT_EQ(back, list);
}

TEST_F(SocksRegistry, WebConnectorHostsCarryTheirServers) {
  SIArray<WebConnectorRegistry::WCSHost> hosts, back;
  WebConnectorRegistry::WCSHost a, b;
  a.m_host = "cms-a";
  a.m_socksServers.Add(server(5, "p", 1080, "u", "pw"));
  a.m_socksServers.Add(server(4, "q", 1081));
  b.m_host = "cms-b";
  hosts.Add(a);
  hosts.Add(b);
  WebConnectorRegistry wc;
  ASSERT_TRUE(wc.SetWCSHosts(hosts));
  ASSERT_TRUE(wc.GetWCSHosts(back));
  EXPECT_EQ(back, hosts);
  WebConnectorRegistry stored("WCSHosts\\0");
  EXPECT_EQ(str(stored.ReadValue("SocksServers")), "socks://5#u:pw@p:1080&4;q:1081");
  ASSERT_TRUE(stored.WriteValue("WCSHost", SAnsiString("")));
  back.RemoveAll();
  EXPECT_FALSE(wc.GetWCSHosts(back));
  EXPECT_EQ(m_rec.asserts(), std::vector<std::string>{"WebConnectorRegistry::Get Invalid value for host name"});
}

}  // namespace
