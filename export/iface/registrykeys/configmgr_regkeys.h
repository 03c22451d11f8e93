// configmgr_regkeys.h: the configuration manager's list of managed servers.
//
// The configuration manager keeps one registry key per managed server
// process below the company key's "Config Manager" key. `ConfigMgrRegistry`
// reads them, read-only, in enumeration order:
//
//   ConfigMgrRegistry servers("");
//   SIArray<ConfigMgrRegistry::ServerType> list;
//   if (servers.Get(list))
//     for (auto const& s : list) start(s.ServiceName, s.Path, s.CommandLine);
//
// A value that reads empty is reported through the assertion channel and the
// entry is still listed (with that field empty).
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/registry.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class QUENLIB_API ConfigMgrRegistry : public CompanyRegistry {
 public:
  // One managed server: its key name and the values stored in it.
  struct QUENLIB_API ServerType {
    SAnsiString ServerKey;
    SAnsiString ServiceName;
    SAnsiString Path;
    SAnsiString Dependency;
    SAnsiString CommandLine;
    SAnsiString IsDependsOnEbus;
  };

  // The company key's "Config Manager" key, then "\\" + sub when sub is
  // not empty.
  explicit ConfigMgrRegistry(SAnsiString const& sub);
  ~ConfigMgrRegistry() override;

  // Appends one entry per sub-key. True when the key could be enumerated.
  bool Get(SIArray<ServerType>& servers);

  static char const* const CONFIG_MANAGER_KEY;  // "Config Manager"
};

}  // namespace QuenLibA500
