// ConfigMgrRegistry: the managed server processes recorded by the
// configuration manager.
#include <registrykeys/configmgr_regkeys.h>

#include "diagnostics/assert.h"

namespace QuenLibA500 {

namespace {

// A value of a server key; an empty one is reported with its message. The
// messages name the SOCKS class on purpose: the texts are shared with it.
SAnsiString readRequired(Registry& server, char const* name, char const* message) {
  SAnsiString value = server.ReadValue(name);
  if (value.isEmpty()) QL_REPORT("FALSE", message);
  return value;
}

}  // namespace

char const* const ConfigMgrRegistry::CONFIG_MANAGER_KEY = "Config Manager";

ConfigMgrRegistry::ConfigMgrRegistry(SAnsiString const& sub) : CompanyRegistry(CONFIG_MANAGER_KEY, true) {
  if (!sub.isEmpty()) appendKey(sub);
}

ConfigMgrRegistry::~ConfigMgrRegistry() = default;

bool ConfigMgrRegistry::Get(SIArray<ServerType>& servers) {
  KeyIterator it = EnumSubKeys();
  if (!it && !KeyExists()) return false;
  for (; it; ++it) {
    ServerType entry;
    entry.ServerKey = it.GetKey();
    Registry server(m_subKey + "\\" + entry.ServerKey, SAnsiStringCI(), m_root);
    if (entry.ServerKey.isEmpty() || !server.KeyExists()) {
      QL_REPORT("FALSE", "SocksServerRegistry::Get Invalid value for server key");
      continue;
    }
    entry.ServiceName = readRequired(server, "ServiceName", "SocksServerRegistry::Get Invalid value for service name");
    entry.Path = readRequired(server, "Path", "SocksServerRegistry::Get Invalid value for path");
    entry.Dependency = readRequired(server, "Dependency", "SocksServerRegistry::Get Invalid value for dependency");
    entry.CommandLine =
        readRequired(server, "CommandLine", "SocksServerRegistry::Get Invalid value for command line");
    entry.IsDependsOnEbus =
        readRequired(server, "IsDependsOnEbus", "SocksServerRegistry::Get Invalid value for depend on ebus");
    servers.Add(entry);
  }
  return true;
}

}  // namespace QuenLibA500
