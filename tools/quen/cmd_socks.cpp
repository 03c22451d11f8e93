// quen socks: socks URIs, SOCKS server checks, and the lists kept in the
// registry.
//
//   quen socks uri [--quote] SERVER...
//   quen socks verify SERVER...
//   quen socks get KEY [--name NAME] [--dir DIR] [--show-passwords]
//   quen socks set KEY SERVER... [--name NAME] [--dir DIR]
#include <quenlib/regfile.h>
#include <quenlib/slogger.h>
#include <quenlib/sockshelpers.h>
#include <registrykeys/registrysocksserver.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
A SERVER is VERSION;[USER:PASSWORD@]HOST:PORT ("5;u:pw@proxy:1080",
"4;proxy:1080"), or a whole socks URI ("socks://5;proxy:1080&4;other:1080",
the stored form with "#" after the first version is read too).

KEY is ROOT\path (HKLM, HKCU, HKU, HKCR); the list is kept in its sub-keys
SocksServer0, SocksServer1, ... (below KEY\NAME with --name). --dir DIR
uses the registry stores in DIR (sets QUENLIB_REGISTRY_DIR).

Exit status: 0 done (verify: every server valid), 1 invalid servers or a
registry failure (the library's messages are printed), 2 bad arguments.

Examples:
  quen socks uri '5;u:pw@proxy:1080' '4;backup:1080'
                                   # socks://5;u:pw@proxy:1080&4;backup:1080
  quen socks uri --quote 'socks://5;proxy:1080'     # socks://5#proxy:1080
  quen socks verify '5;proxy:0'                    # invalid: port ...
  quen socks set 'HKCU\Software\Example\Socks' '5;u:pw@proxy:1080'
  quen socks get 'HKCU\Software\Example\Socks'
)";

struct Options {
  std::vector<std::string> servers;
  std::string key, name, dir;
  bool quote = false;
  bool showPasswords = false;
};

std::string str(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

Registry_SocksServers parseServers(std::vector<std::string> const& args) {
  std::string uri = "socks://";
  for (size_t i = 0; i < args.size(); ++i) {
    SAnsiString socks, host;
    SocksHelpers::SplitURI(args[i].c_str(), socks, host);
    std::string item = socks.isEmpty() ? args[i] : str(socks).substr(8);
    uri += (i ? "&" : "") + item;
  }
  Registry_SocksServers list;
  if (args.empty() || !list.FromSocksURI(uri.c_str())) throw QuenExit{2, "cannot read the servers: " + uri};
  return list;
}

std::vector<std::string> faults(Registry_SocksServer const& s) {
  std::vector<std::string> out;
  if (s.m_version != 4 && s.m_version != 5) out.push_back("the version is not 4 or 5");
  if (s.m_serverName.isEmpty()) out.push_back("no server name");
  if (s.m_serverPort < 1 || s.m_serverPort > 65535) out.push_back("the port is not from 1 to 65535");
  if (s.m_usesAuthentication && s.m_userName.getNChars() > 255) out.push_back("the user name is over 255 characters");
  if (s.m_usesAuthentication && s.m_password.getNChars() > 255) out.push_back("the password is over 255 characters");
  return out;
}

std::string describe(Registry_SocksServer s, bool showPassword) {
  if (!showPassword && !s.m_password.isEmpty()) s.m_password = "***";
  Registry_SocksServers one;
  one.Add(s);
  return str(one.ToSocksURI()).substr(8);
}

void collectAsserts(void* ctx, char const*, int, char const*, char const* message) {
  static_cast<std::vector<std::string>*>(ctx)->emplace_back(message ? message : "");
}

SocksServerRegistry openKey(Options const& o) {
  if (!o.dir.empty()) ::setenv("QUENLIB_REGISTRY_DIR", o.dir.c_str(), 1);
  HKEY root = nullptr;
  std::string rootName, rest;
  if (!RegFile::SplitRoot(o.key, root, rootName, rest) || rest.empty())
    throw QuenExit{2, "not ROOT\\path: " + o.key};
  return SocksServerRegistry(rest.c_str(), root);
}

void failWith(std::vector<std::string> const& messages, std::string const& what) {
  for (auto const& m : messages) std::printf("%s\n", m.c_str());
  throw QuenExit{1, what};
}

void Uri(Options const& o) {
  SAnsiString uri = parseServers(o.servers).ToSocksURI();
  if (o.quote) uri = SocksHelpers::QuoteForRegistry(uri);
  std::printf("%s\n", uri.getString());
}

void Verify(Options const& o) {
  bool all = true;
  for (Registry_SocksServer const& s : parseServers(o.servers)) {
    std::vector<std::string> const why = faults(s);
    all = all && why.empty();
    std::printf("%s  %s", describe(s, false).c_str(), why.empty() ? "valid" : "invalid:");
    for (size_t i = 0; i < why.size(); ++i) std::printf("%s %s", i ? ";" : "", why[i].c_str());
    std::printf("\n");
  }
  if (!all) throw QuenExit{1, ""};
}

void Get(Options const& o) {
  SocksServerRegistry key = openKey(o);
  Registry_SocksServers list;
  std::vector<std::string> messages;
  SetAssertObserver(&collectAsserts, &messages);
  bool const ok = RegistrySocksServer_Get(key, o.name.c_str(), list);
  SetAssertObserver(nullptr, nullptr);
  for (int i = 0; i < list.GetSize(); ++i)
    std::printf("SocksServer%d  %s\n", i, describe(list[i], o.showPasswords).c_str());
  if (!ok) failWith(messages, "could not read the list below " + o.key);
}

void Set(Options const& o) {
  Registry_SocksServers const list = parseServers(o.servers);
  SocksServerRegistry key = openKey(o);
  std::vector<std::string> messages;
  SetAssertObserver(&collectAsserts, &messages);
  bool const ok = RegistrySocksServer_Set(key, o.name.c_str(), list);
  SetAssertObserver(nullptr, nullptr);
  if (!ok) failWith(messages, "could not write the list below " + o.key);
  std::printf("%d server(s) written\n", list.GetSize());
}

void setupSocks(CLI::App& app) {
  auto* socks = app.add_subcommand("socks", "Socks URIs and the SOCKS server lists of the registry");
  socks->require_subcommand(1);
  socks->footer(kUsage);
  auto opts = std::make_shared<Options>();
  auto* uri = socks->add_subcommand("uri", "The socks URI of a list of servers");
  uri->add_option("servers", opts->servers, "SERVER ...")->required();
  uri->add_flag("--quote", opts->quote, "the stored form (\"#\" after the first version)");
  uri->callback([opts] { Uri(*opts); });
  auto* verify = socks->add_subcommand("verify", "Check servers as the library does before storing them");
  verify->add_option("servers", opts->servers, "SERVER ...")->required();
  verify->callback([opts] { Verify(*opts); });
  auto* get = socks->add_subcommand("get", "Print the list stored below KEY");
  get->add_option("key", opts->key, "ROOT\\path")->required();
  get->add_option("--name", opts->name, "the list's own sub-key below KEY");
  get->add_option("--dir", opts->dir, "use the registry stores in DIR");
  get->add_flag("--show-passwords", opts->showPasswords, "print passwords instead of ***");
  get->callback([opts] { Get(*opts); });
  auto* set = socks->add_subcommand("set", "Replace the list stored below KEY");
  set->add_option("key", opts->key, "ROOT\\path")->required();
  set->add_option("servers", opts->servers, "SERVER ...")->required();
  set->add_option("--name", opts->name, "the list's own sub-key below KEY");
  set->add_option("--dir", opts->dir, "use the registry stores in DIR");
  set->callback([opts] { Set(*opts); });
}

}  // namespace

static QuenCommand socksCommand{"socks", &setupSocks};
