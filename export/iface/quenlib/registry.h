// registry.h: configuration values in the registry, read and written as text.
//
// A `Registry` names one key (a root plus a path) and opens nothing until
// it is used. Values cross the interface as `SAnsiString`; numbers travel as
// their decimal text. Reads with a default write the default back when the
// value is missing, so that the store documents the settings in use. No
// registry error throws: reads give the empty string, writes and predicates
// give false, and problems are reported through the assertion channel.
//
// The root classes fix the product suite's key paths, so callers never
// spell a company or product path themselves:
//
//   CompanyRegistry company;                          // HKLM\Software\...
//   SAnsiString dir = company.ReadValue("InstallPath");
//   SAnsiString n = company.ReadValue("ThreadPoolSize", 8);  // writes 8 if absent
//   company.WriteValue("LastRun", "today");
//
//   for (Registry::KeyIterator it = company.EnumSubKeys(); it; ++it)
//     use(it.GetKey());
//
//   UserCompanyRegistry user;        // falls back to the legacy user roots
//   SAnsiString lang = user.ReadValue("Language");
//
// Objects are not shared between threads; distinct objects may be used on
// distinct threads.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/regapi.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

#include <memory>

namespace QuenLibA500 {

// Name of the environment variable that locates a registry home; published
// for callers, not read by the library.
inline constexpr char const REGISTRY_HOME_ENVVAR[] = "TQE_REGISTRYHOME";

// The legacy company roots below HKEY_CURRENT_USER that
// UserCompanyRegistry::ReadValue consults, in order. The first two carry no
// "Software\\" prefix on purpose.
inline constexpr int LEGACY_COMPANY_ROOT_COUNT = 4;
inline constexpr char const* const LEGACY_COMPANY_ROOTS[LEGACY_COMPANY_ROOT_COUNT] = {
    "Lumaris Decisions", "Brackwell Software", "Software\\Lumaris Software", "Software\\Tolvane"};

class QUENLIB_API Registry {
 public:
  // Steps through the sub-keys of a key. The iterator owns an open handle
  // until the end is reached (then it is closed) or the iterator dies.
  // Copying opens a second handle on the same key, at the same position.
  class QUENLIB_API KeyIterator {
   public:
    KeyIterator() noexcept = default;
    // Takes ownership of `enumKey` and fetches the first sub-key at once.
    explicit KeyIterator(HKEY enumKey);
    KeyIterator(KeyIterator const& other);
    KeyIterator(KeyIterator&& other) noexcept;
    KeyIterator& operator=(KeyIterator const& other);
    KeyIterator& operator=(KeyIterator&& other) noexcept;
    ~KeyIterator();

    explicit operator bool() const noexcept { return m_enumKey != nullptr; }
    KeyIterator& operator++() {
      NextKey();
      return *this;
    }
    // Fetches the next sub-key; at the end closes the handle and clears the
    // name.
    bool NextKey();
    SAnsiStringCI GetKey() const { return m_name; }
    // Hands out the handle; the iterator forgets it.
    HKEY detach() noexcept;
    // Takes over the other iterator's handle, position and current name,
    // leaving it empty.
    void consume(KeyIterator& other) noexcept;

   private:
    void close() noexcept;
    SAnsiStringCI m_name;
    HKEY m_enumKey = nullptr;
    DWORD m_index = 0;
  };

  // Steps through the values of a key with their text (REG_SZ, REG_DWORD
  // as decimal, REG_EXPAND_SZ expanded).
  class QUENLIB_API ValueIterator {
   public:
    ValueIterator() noexcept = default;
    explicit ValueIterator(HKEY enumKey);
    ValueIterator(ValueIterator const& other);
    ValueIterator(ValueIterator&& other) noexcept;
    ValueIterator& operator=(ValueIterator const& other);
    ValueIterator& operator=(ValueIterator&& other) noexcept;
    ~ValueIterator();

    explicit operator bool() const noexcept { return m_enumValue != nullptr; }
    ValueIterator& operator++() {
      NextValue();
      return *this;
    }
    // Fetches the next value. The text of a value of another type is left
    // as it was (it still holds the previous value's text).
    bool NextValue();
    SAnsiStringCI GetName() const { return m_name; }
    SAnsiString GetValue() const { return m_value; }
    HKEY detach() noexcept;
    void consume(ValueIterator& other) noexcept;

   private:
    void close() noexcept;
    SAnsiStringCI m_name;
    SAnsiString m_value;
    HKEY m_enumValue = nullptr;
    DWORD m_index = 0;
  };

  // The key prefix + subKey below root. Nothing is opened. The flag is kept
  // for source compatibility and has no effect on the store.
  Registry(SAnsiStringCI const& subKey, SAnsiStringCI const& prefix, HKEY const& root, bool flag = false);
  // Copies path, root and remote state; not the cached read handle.
  Registry(Registry const& other);
  Registry& operator=(Registry const& other);
  virtual ~Registry();

  bool KeyExists() const;
  KeyIterator EnumSubKeys() const;
  ValueIterator EnumValues() const;

  // The value's text, or the empty string when it is absent or empty.
  SAnsiString ReadValue(SAnsiString const& name);
  // As above; when the result is empty and the default is not, writes the
  // default (REG_SZ) and returns what reads back.
  SAnsiString ReadValue(SAnsiString const& name, SAnsiString const& defaultValue);
  // As above with a number: writes REG_DWORD defaultValue (also 0).
  SAnsiString ReadValue(SAnsiString const& name, DWORD defaultValue);

  // The value's type; true only when its text is non-empty.
  bool GetType(SAnsiString const& name, DWORD& type) const;

  // Writes REG_SZ, creating the key with default security.
  bool WriteValue(SAnsiString const& name, SAnsiString const& value);
  // Writes REG_DWORD; a key created here is open to everybody.
  bool WriteValue(SAnsiString const& name, DWORD value);

  bool DeleteValue(SAnsiString const& name);
  // True when the key is gone (also when it never existed); false, and the
  // key kept, while it has sub-keys.
  bool DeleteKey();
  // Deletes every sub-key, depth first, then the key itself if deleteSelf.
  bool DeleteKeyRecursive(bool deleteSelf);

  static bool CopyKey(HKEY const& srcRoot, SAnsiString const& srcKey, HKEY const& dstRoot,
                      SAnsiString const& dstKey);
  static bool CopyValue(HKEY const& srcRoot, SAnsiString const& srcKey, SAnsiString const& srcName,
                        HKEY const& dstRoot, SAnsiString const& dstKey, SAnsiString const& dstName);

  // Points this object at HKEY_LOCAL_MACHINE of another machine ("\\name",
  // leading backslashes optional). An empty name does nothing; on failure
  // the root stays as it was.
  void SetRemoteMachine(SAnsiString name);
  bool IsRemoteReg() const { return m_remote; }
  SAnsiString GetRemoteMachineName() const { return m_remoteName; }
  // Replaces the root handle (the caller keeps owning it).
  void SetRemoteKeyHandle(HKEY const& root);
  SAnsiStringCI GetKeyName() const { return m_subKey; }

 protected:
  // Reads the value and hands back its type (REG_NONE when absent). Call it
  // through a const object or reference: on a non-const one a DWORD
  // argument selects the write-back overload above.
  SAnsiString ReadValue(SAnsiString const& name, DWORD& type) const;
  // Appends "\\" + part to the key path.
  void appendKey(SAnsiString const& part);

  SAnsiStringCI m_subKey;
  HKEY m_root;
  bool m_remote = false;
  SAnsiString m_remoteName;
  mutable HKEY m_readKey = nullptr;

 private:
  SAnsiString readTyped(SAnsiString const& name, DWORD& type) const;
  // Asserts on a path that ends in a backslash.
  void checkPath() const;
  // Opens the cached read handle if needed; returns the status.
  LONG openRead() const;
  HKEY openFresh(REGSAM access) const;
  void dropReadKey() const;

  std::shared_ptr<RegKeyHandle> m_remoteConnection;  // closes a root we connected
};

// HKEY_LOCAL_MACHINE\Software\Orrin Tolvane\Suite KR 4.0 and keys below it.
class QUENLIB_API CompanyRegistry : public Registry {
 public:
  explicit CompanyRegistry(bool flag = false);
  CompanyRegistry(SAnsiString const& subKey, SAnsiString const& prefix, HKEY const& root, bool flag);
  ~CompanyRegistry() override;

 protected:
  CompanyRegistry(SAnsiString const& sub, bool flag);
};

// HKEY_CURRENT_USER\Software\Orrin Tolvane, reading through to the legacy
// company roots and migrating what it finds there.
class QUENLIB_API UserCompanyRegistry : public Registry {
 public:
  UserCompanyRegistry();
  ~UserCompanyRegistry() override;

  // Own key first, then each legacy root (+ the appended part); a value
  // found there is copied into the own key once and returned.
  SAnsiString ReadValue(SAnsiString const& name);
  SAnsiString ReadValue(SAnsiString const& name, SAnsiString const& defaultValue);
  SAnsiString ReadValue(SAnsiString const& name, DWORD defaultValue);

 protected:
  explicit UserCompanyRegistry(SAnsiString const& sub);
  void appendKey(SAnsiString const& part);
  // The path below the company root ("" for the company key itself).
  SAnsiString m_appended;
};

// The user's shared settings: user company key\Suite KR 4.0\Shared[\sub].
class QUENLIB_API UserSharedRegistry : public UserCompanyRegistry {
 public:
  explicit UserSharedRegistry(SAnsiString const& sub = SAnsiString());
  ~UserSharedRegistry() override;
};

// A server's key: company key\serverKey, and for one instance
// company key\serverKey\Instances\instance. Reads on an instance fall back
// to the server's own key.
class QUENLIB_API ServerRegistry : public CompanyRegistry {
 public:
  ~ServerRegistry() override;

  SAnsiString ReadValue(SAnsiString const& name);
  SAnsiString ReadValue(SAnsiString const& name, SAnsiString const& defaultValue);
  SAnsiString ReadValue(SAnsiString const& name, DWORD defaultValue);
  // The sub-keys of the server's "Instances" key.
  KeyIterator EnumInstances() const;
  ValueIterator EnumValues() const { return Registry::EnumValues(); }
  KeyIterator EnumSubKeys() const { return Registry::EnumSubKeys(); }
  // The instance part of the path ("" for the server key itself).
  SAnsiString GetInstanceKey() const { return m_instance; }

  static char const* const INSTANCES_KEY;  // "Instances"

 protected:
  ServerRegistry(SAnsiString const& serverKey, SAnsiString const& instance);
  SAnsiString m_serverKey;
  SAnsiString m_instance;
};

// The "CMS" server: ServerRegistry("CMS", instance), then "\\" + sub when
// sub is not empty. Publishes the value names of that server.
class QUENLIB_API APSRegistry : public ServerRegistry {
 public:
  explicit APSRegistry(SAnsiString const& instance = SAnsiString(), SAnsiString const& sub = SAnsiString());
  ~APSRegistry() override;

  static char const* const APSRegistryKey;
  static char const* const VALUE_TRUE;
  static char const* const VALUE_YES;
  static char const* const VALUE_ONE;
  static char const* const VALUE_FALSE;
  static char const* const VALUE_NO;
  static char const* const VALUE_ZERO;
  static char const* const REGKEY_WCSHELP;
  static char const* const REGVALUE_HELPFORMAT;
  static char const* const REG_KEY_MIME;
  static char const* const REG_INSTALL_PATH;
  static char const* const REG_UPLOAD_PATH;
  static char const* const REG_KEY_APSSOCKSSERVERS;
  static char const* const REG_AUTH_REALM;
  static char const* const REG_AUTH_ERR_PAGE;
  static char const* const REG_THREADPOOL_SIZE;
  static char const* const REG_TIMEOUT_VALUE;
  static char const* const REG_APS_NAME;
  static char const* const REG_LAST_APS_NAME;
  static char const* const REG_SINGLESIGNON_STATUS;
  static char const* const REG_TOMBSTONES_BATCHCLEANUPTIME;
  static char const* const REG_INSTANCELIMITS_BATCHCLEANUPTIME;
  static char const* const REG_INFOSTOREQUERYSIZEPERBATCHINKBYTES;
  static char const* const REG_INFOSTOREDEFAULTTOPNVALUE;
  static char const* const REG_CHECKINSTANCELIMITSATMOSTEVERYNSECONDS;
  static char const* const REG_REQUESTTRIGGEREDCLEANUPTHRESHOLD;
  static char const* const REG_WORKAROUNDORACLEBLOBACCESSLIMITATION;
  static char const* const REG_NUMBEROFDATABASEQUEUETHREADS;
  static char const* const REG_USEBLOCKINGCLUSTERNOTIFICATIONS;
  static char const* const REG_MAXIMUMCLUSTERMEMBERTIMEDISCREPENCYINMINUTES;
  static char const* const REG_MaximumTimeToAccumulateClusterChangesInMinutes;
  static char const* const REG_THREADTIMEOUTMINUTES;
  static char const* const REG_MaximumObjectsToKeepInMemory;
  static char const* const REG_SizeOfTheLargestObjectAllowedInTheCacheInBytes;
  static char const* const REG_RefreshPlugsAtMostEveryNSeconds;
  static char const* const REG_IDLESESSIONTIMEOUT;
  static char const* const REG_BYPASSSECSERVICETIMEOUT;
  static char const* const REG_DATABASEDRIVER;
  static char const* const REG_DATABASECONNECT;
  static char const* const REG_AUDITINTERVAL;
  static char const* const REG_AUDITBATCHSIZE;
  static char const* const REG_METRICSLOGGINGINTERVAL;
  static char const* const REG_METRICSLOGGINGBATCHSIZE;
  static char const* const REG_AUDITEETIMESYNCINTERVAL;
  static char const* const REG_AUDITDATABASEDRIVER;
  static char const* const REG_AUDITDATABASECONNECT;
  static char const* const REG_ServerState_TimeoutForPing;
  static char const* const REG_MAXPROCESSINGPACKAGES;
  static char const* const REG_QUERYLENGTHLIMIT;
  static char const* const REG_ALERT_EMAIL_MAXIMUMTOADDRSPERJOB;
  static char const* const REG_ALERT_EMAIL_MAXIMUMCCADDRSPERJOB;
  static char const* const REG_LINK_TO_3RDPARTY_GROUP;
};

// HKEY_LOCAL_MACHINE\Software\ODBC[\sub]. Reads fall back to the same path
// below HKEY_CURRENT_USER (the per-user data sources).
class QUENLIB_API ODBCRegistry : public Registry {
 public:
  ODBCRegistry();
  ~ODBCRegistry() override;

  SAnsiString ReadValue(SAnsiString const& name);
  SAnsiString ReadValue(SAnsiString const& name, SAnsiString const& defaultValue);
  SAnsiString ReadValue(SAnsiString const& name, DWORD defaultValue);

 protected:
  explicit ODBCRegistry(SAnsiString const& sub);
  void appendKey(SAnsiString const& part);
  SAnsiString m_appended;
};

// company key\Transport[\sub].
class QUENLIB_API TransportRegistry : public CompanyRegistry {
 public:
  explicit TransportRegistry(SAnsiString const& sub = SAnsiString());
  ~TransportRegistry() override;
};

// company key\Web Connector[\sub].
class QUENLIB_API WebConnectorRegistry : public CompanyRegistry {
 public:
  explicit WebConnectorRegistry(SAnsiString const& sub = SAnsiString());
  ~WebConnectorRegistry() override;

  static char const* const WCSHOSTS_KEY;  // "WCSHosts"
  static char const* const WCSHOST_VALUE;  // "WCSHost"
  static char const* const WCSSOCKS_VALUE;  // "SocksServers"

  // A host and its SOCKS servers; defined in <registrykeys/registrysocksserver.h>.
  struct WCSHost;
  // The hosts below "WCSHosts": sub-keys "0", "1", ... each with the host
  // name ("WCSHost") and its servers as a stored socks URI
  // ("SocksServers"). Appends; false at the first unreadable host.
  bool GetWCSHosts(SIArray<WCSHost>& hosts);
  // Replaces the hosts below "WCSHosts".
  bool SetWCSHosts(SIArray<WCSHost> const& hosts);
};

// company key\Shared Tools[\sub].
class QUENLIB_API SharedToolsRegistry : public CompanyRegistry {
 public:
  explicit SharedToolsRegistry(SAnsiString const& sub = SAnsiString());
  ~SharedToolsRegistry() override;
};

}  // namespace QuenLibA500
