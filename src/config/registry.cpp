// Registry: configuration values as text on the registry store, the root
// classes with the suite's key paths, and the legacy fallbacks.
#include <quenlib/registry.h>

#include <charconv>
#include <functional>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "config/regstore.h"
#include "diagnostics/assert.h"

namespace QuenLibA500 {

namespace {

// Buffer sizes of the first query and of the enumerations.
constexpr DWORD kQueryBufferSize = 16300;
constexpr DWORD kEnumNameSize = 16300;

char const kCompanyKey[] = "Software\\Orrin Tolvane\\Suite KR 4.0";
char const kUserCompanyKey[] = "Software\\Orrin Tolvane";
char const kODBCKey[] = "Software\\ODBC";
char const kExpandMessage[] =
    "Registry::ReadValue: Buffer is not big enough to accomodate expanded string from registry";
char const kIterExpandMessage[] =
    "Registry::ValueIterator::NextValue: Buffer is not big enough to accomodate expanded string from registry";
char const kDefaultMessage[] = "Registry::ReadValue: Value written to registry not the same as the default value";

SAnsiString decimal(DWORD n) {
  char buf[16];
  auto end = std::to_chars(buf, buf + sizeof buf, n).ptr;
  return SAnsiString(buf, static_cast<unsigned>(end - buf));
}

// Digits only, no sign, no blanks, within 32 bits.
bool parseDword(SAnsiString const& text, DWORD& out) {
  char const* s = text.getString();
  char const* e = s + text.getLength();
  if (s == e) return false;
  auto [ptr, ec] = std::from_chars(s, e, out, 10);
  return ec == std::errc() && ptr == e;
}

DWORD dwordOf(BYTE const* p) {
  DWORD v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

std::string failedText(char const* call, SAnsiString const& path, LONG code) {
  return std::string(call) + "(" + path.getString() + ") failed. Error code: " + std::to_string(code);
}

// Expands a REG_EXPAND_SZ text into MAX_PATH characters. False when it
// does not fit (the caller reports it).
bool expand(char const* text, SAnsiString& out) {
  char buf[MAX_PATH];
  DWORD numChars = ExpandEnvironmentStringsA(text, buf, MAX_PATH);
  if (!(numChars && numChars <= MAX_PATH)) return false;
  out = SAnsiString(buf);
  return true;
}

// Makes a handle non-inheritable. Store handles never are, but the call
// keeps the rule visible at every open.
HKEY protect(HKEY h) {
  if (h) SetHandleInformation(h, HANDLE_FLAG_INHERIT, 0);
  return h;
}

HKEY duplicate(HKEY h) {
  if (!h) return nullptr;
  HKEY dup = nullptr;
  if (RegOpenKeyExA(h, nullptr, 0, KEY_READ, &dup) != ERROR_SUCCESS) return nullptr;
  return protect(dup);
}

SAnsiString joinKey(SAnsiString const& a, SAnsiString const& b) {
  return b.isEmpty() ? a : a + "\\" + b;
}

}  // namespace

// ================================================================ iterators

Registry::KeyIterator::KeyIterator(HKEY enumKey) : m_enumKey(enumKey) { NextKey(); }

Registry::KeyIterator::KeyIterator(KeyIterator const& other)
    : m_name(other.m_name), m_enumKey(duplicate(other.m_enumKey)), m_index(other.m_index) {}

Registry::KeyIterator::KeyIterator(KeyIterator&& other) noexcept
    : m_name(other.m_name), m_enumKey(other.m_enumKey), m_index(other.m_index) {
  other.m_enumKey = nullptr;
  other.m_name.empty();
  other.m_index = 0;
}

Registry::KeyIterator& Registry::KeyIterator::operator=(KeyIterator const& other) {
  if (this == &other) return *this;
  close();
  m_name = other.m_name;
  m_enumKey = duplicate(other.m_enumKey);
  m_index = other.m_index;
  return *this;
}

Registry::KeyIterator& Registry::KeyIterator::operator=(KeyIterator&& other) noexcept {
  if (this == &other) return *this;
  close();
  consume(other);
  return *this;
}

Registry::KeyIterator::~KeyIterator() { close(); }

void Registry::KeyIterator::close() noexcept {
  if (m_enumKey) RegCloseKey(m_enumKey);
  m_enumKey = nullptr;
}

bool Registry::KeyIterator::NextKey() {
  if (!m_enumKey) return false;
  auto name = std::make_unique<char[]>(kEnumNameSize);
  DWORD chars = kEnumNameSize;
  if (RegEnumKeyExA(m_enumKey, m_index, name.get(), &chars, nullptr, nullptr, nullptr, nullptr) ==
      ERROR_SUCCESS) {
    m_name = SAnsiString(name.get(), chars);
    ++m_index;
    return true;
  }
  close();
  m_name.empty();
  return false;
}

HKEY Registry::KeyIterator::detach() noexcept {
  HKEY h = m_enumKey;
  m_enumKey = nullptr;
  return h;
}

void Registry::KeyIterator::consume(KeyIterator& other) noexcept {
  if (this == &other) return;
  // The condition is reported as written, so it keeps its NULL.
  QL_ASSERT_MSG(m_enumKey == NULL,  // NOLINT(modernize-use-nullptr)
                "You are consuming into a non-empty KeyIterator. This will leak the REG_HANDLE.");
  close();  // reported above; closed here rather than really leaked
  m_enumKey = other.m_enumKey;
  m_index = other.m_index;
  m_name = other.m_name;
  other.m_enumKey = nullptr;
  other.m_index = 0;
  other.m_name.empty();
}

Registry::ValueIterator::ValueIterator(HKEY enumKey) : m_enumValue(enumKey) { NextValue(); }

Registry::ValueIterator::ValueIterator(ValueIterator const& other)
    : m_name(other.m_name), m_value(other.m_value), m_enumValue(duplicate(other.m_enumValue)),
      m_index(other.m_index) {}

Registry::ValueIterator::ValueIterator(ValueIterator&& other) noexcept
    : m_name(other.m_name), m_value(other.m_value), m_enumValue(other.m_enumValue), m_index(other.m_index) {
  other.m_enumValue = nullptr;
  other.m_name.empty();
  other.m_value.empty();
  other.m_index = 0;
}

Registry::ValueIterator& Registry::ValueIterator::operator=(ValueIterator const& other) {
  if (this == &other) return *this;
  close();
  m_name = other.m_name;
  m_value = other.m_value;
  m_enumValue = duplicate(other.m_enumValue);
  m_index = other.m_index;
  return *this;
}

Registry::ValueIterator& Registry::ValueIterator::operator=(ValueIterator&& other) noexcept {
  if (this == &other) return *this;
  close();
  consume(other);
  return *this;
}

Registry::ValueIterator::~ValueIterator() { close(); }

void Registry::ValueIterator::close() noexcept {
  if (m_enumValue) RegCloseKey(m_enumValue);
  m_enumValue = nullptr;
}

bool Registry::ValueIterator::NextValue() {
  if (!m_enumValue) return false;
  auto name = std::make_unique<char[]>(kEnumNameSize);
  auto data = std::make_unique<BYTE[]>(kQueryBufferSize + 1);
  DWORD chars = kEnumNameSize, size = kQueryBufferSize, type = REG_NONE;
  LONG rc = RegEnumValueA(m_enumValue, m_index, name.get(), &chars, nullptr, &type, data.get(), &size);
  if (rc != ERROR_SUCCESS) {
    close();
    m_name.empty();
    m_value.empty();
    return false;
  }
  data[size] = 0;  // the store terminates strings; this guards other types
  m_name = SAnsiString(name.get(), chars);
  char const* text = reinterpret_cast<char const*>(data.get());
  if (type == REG_SZ) {
    m_value = SAnsiString(text);
  } else if (type == REG_DWORD && size >= sizeof(DWORD)) {
    m_value = decimal(dwordOf(data.get()));
  } else if (type == REG_EXPAND_SZ) {
    SAnsiString expanded;
    if (expand(text, expanded)) m_value = expanded;
    else QL_REPORT("numChars && numChars <= MAX_PATH", kIterExpandMessage);
  }
  ++m_index;
  return true;
}

HKEY Registry::ValueIterator::detach() noexcept {
  HKEY h = m_enumValue;
  m_enumValue = nullptr;
  return h;
}

void Registry::ValueIterator::consume(ValueIterator& other) noexcept {
  if (this == &other) return;
  QL_ASSERT_MSG(m_enumValue == NULL,  // NOLINT(modernize-use-nullptr)
                "You are consuming into a non empty ValueIterator. This will leak the REG_HANDLE.");
  close();  // reported above; closed here rather than really leaked
  m_enumValue = other.m_enumValue;
  m_index = other.m_index;
  m_name = other.m_name;
  m_value = other.m_value;
  other.m_enumValue = nullptr;
  other.m_index = 0;
  other.m_name.empty();
  other.m_value.empty();
}

// ================================================================ Registry

Registry::Registry(SAnsiStringCI const& subKey, SAnsiStringCI const& prefix, HKEY const& root, bool)
    : m_subKey(prefix + subKey), m_root(root) {}

Registry::Registry(Registry const& other)
    : m_subKey(other.m_subKey), m_root(other.m_root), m_remote(other.m_remote),
      m_remoteName(other.m_remoteName), m_remoteConnection(other.m_remoteConnection) {}

Registry& Registry::operator=(Registry const& other) {
  if (this == &other) return *this;
  dropReadKey();
  m_subKey = other.m_subKey;
  m_root = other.m_root;
  m_remote = other.m_remote;
  m_remoteName = other.m_remoteName;
  m_remoteConnection = other.m_remoteConnection;
  return *this;
}

Registry::~Registry() { dropReadKey(); }

void Registry::dropReadKey() const {
  if (m_readKey) RegCloseKey(m_readKey);
  m_readKey = nullptr;
}

void Registry::checkPath() const {
  if (m_subKey.isEmpty()) return;
  if (m_subKey.getAt(m_subKey.getNChars() - 1) == SChar_t<char, 0>('\\'))
    QL_REPORT("m_subKey.getAt (m_subKey.getNChars() - 1) != _T('\\\\')",
              "Win95 doesn't like opening \\ ending reg keys");
}

LONG Registry::openRead() const {
  if (m_readKey) return ERROR_SUCCESS;
  checkPath();
  HKEY h = nullptr;
  LONG rc = RegOpenKeyExA(m_root, m_subKey.getString(), 0, KEY_READ, &h);
  if (rc == ERROR_SUCCESS) m_readKey = protect(h);
  return rc;
}

HKEY Registry::openFresh(REGSAM access) const {
  checkPath();
  HKEY h = nullptr;
  LONG rc = RegOpenKeyExA(m_root, m_subKey.getString(), 0, access, &h);
  if (rc == ERROR_SUCCESS) return protect(h);
  if (rc == ERROR_ACCESS_DENIED) QL_REPORT("FALSE", failedText("RegOpenKeyEx", m_subKey, rc).c_str());
  return nullptr;
}

bool Registry::KeyExists() const {
  LONG rc = openRead();
  if (rc == ERROR_SUCCESS) return true;
  if (rc == ERROR_ACCESS_DENIED) QL_REPORT("FALSE", "KeyExists failed. Access Denied");
  return false;
}

Registry::KeyIterator Registry::EnumSubKeys() const { return KeyIterator(openFresh(KEY_ENUMERATE_SUB_KEYS)); }

Registry::ValueIterator Registry::EnumValues() const { return ValueIterator(openFresh(KEY_READ)); }

SAnsiString Registry::ReadValue(SAnsiString const& name, DWORD& type) const { return readTyped(name, type); }

SAnsiString Registry::readTyped(SAnsiString const& name, DWORD& type) const {
  type = REG_NONE;
  LONG rc = openRead();
  if (rc != ERROR_SUCCESS) {
    if (rc == ERROR_ACCESS_DENIED) QL_REPORT("FALSE", failedText("RegOpenKeyEx", m_subKey, rc).c_str());
    return SAnsiString();
  }
  BYTE buf[kQueryBufferSize + 1];
  DWORD size = kQueryBufferSize;
  rc = RegQueryValueExA(m_readKey, name.getString(), nullptr, &type, buf, &size);
  if (rc == ERROR_MORE_DATA) {
    // A long value: only text is kept from the second query.
    std::unique_ptr<BYTE[]> big(new (std::nothrow) BYTE[size + 1]);
    if (!big) return SAnsiString();
    rc = RegQueryValueExA(m_readKey, name.getString(), nullptr, &type, big.get(), &size);
    if (rc != ERROR_SUCCESS || type != REG_SZ) return SAnsiString();
    big[size] = 0;
    return SAnsiString(reinterpret_cast<char const*>(big.get()));
  }
  if (rc != ERROR_SUCCESS) {
    type = REG_NONE;
    return SAnsiString();
  }
  buf[size] = 0;
  char const* text = reinterpret_cast<char const*>(buf);
  if (type == REG_SZ) return SAnsiString(text);
  if (type == REG_DWORD) return size >= sizeof(DWORD) ? decimal(dwordOf(buf)) : SAnsiString();
  if (type == REG_EXPAND_SZ) {
    SAnsiString expanded;
    if (!expand(text, expanded)) QL_REPORT("numChars && numChars <= MAX_PATH", kExpandMessage);
    return expanded;
  }
  return SAnsiString();
}

SAnsiString Registry::ReadValue(SAnsiString const& name) {
  DWORD type;
  return readTyped(name, type);
}

SAnsiString Registry::ReadValue(SAnsiString const& name, SAnsiString const& defaultValue) {
  SAnsiString retval = ReadValue(name);
  if (!retval.isEmpty() || defaultValue.isEmpty()) return retval;
  // The default is returned only once it is stored.
  if (!WriteValue(name, defaultValue)) return retval;
  retval = ReadValue(name);
  QL_ASSERT_MSG(defaultValue == retval, kDefaultMessage);
  return retval;
}

SAnsiString Registry::ReadValue(SAnsiString const& name, DWORD defaultValue) {
  SAnsiString retval = ReadValue(name);
  if (!retval.isEmpty()) return retval;
  if (!WriteValue(name, defaultValue)) return retval;
  retval = ReadValue(name);
  if (!(retval == decimal(defaultValue)))
    QL_REPORT("retval == SStringConv::ToString(defaultValue)", kDefaultMessage);
  return retval;
}

bool Registry::GetType(SAnsiString const& name, DWORD& type) const {
  DWORD found = REG_NONE;
  SAnsiString text = readTyped(name, found);
  if (text.isEmpty()) return false;
  type = found;
  return true;
}

bool Registry::WriteValue(SAnsiString const& name, SAnsiString const& value) {
  checkPath();
  HKEY h = nullptr;
  LONG rc = RegCreateKeyExA(m_root, m_subKey.getString(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE,
                            nullptr, &h, nullptr);
  if (rc != ERROR_SUCCESS) return false;
  protect(h);
  rc = RegSetValueExA(h, name.getString(), 0, REG_SZ, reinterpret_cast<BYTE const*>(value.getString()),
                      value.getLength() + 1);
  RegCloseKey(h);
  if (rc == ERROR_SUCCESS) return true;
  QL_REPORT("FALSE", failedText("RegSetValueEx", m_subKey, rc).c_str());
  return false;
}

bool Registry::WriteValue(SAnsiString const& name, DWORD value) {
  checkPath();
  // A null access list: a key first created here is open to everybody.
  SECURITY_DESCRIPTOR sd;
  InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorDacl(&sd, 1, nullptr, 0);
  SECURITY_ATTRIBUTES sa{sizeof(SECURITY_ATTRIBUTES), &sd, 1};
  HKEY h = nullptr;
  LONG rc = RegCreateKeyExA(m_root, m_subKey.getString(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE, &sa,
                            &h, nullptr);
  if (rc != ERROR_SUCCESS) {
    QL_REPORT("FALSE", failedText("RegCreateKeyEx", m_subKey, rc).c_str());
    return false;
  }
  protect(h);
  rc = RegSetValueExA(h, name.getString(), 0, REG_DWORD, reinterpret_cast<BYTE const*>(&value), sizeof value);
  RegCloseKey(h);
  if (rc == ERROR_SUCCESS) return true;
  QL_REPORT("FALSE", failedText("RegSetValueEx", m_subKey, rc).c_str());
  return false;
}

bool Registry::DeleteValue(SAnsiString const& name) {
  HKEY h = openFresh(KEY_SET_VALUE);
  if (!h) return false;
  LONG rc = RegDeleteValueA(h, name.getString());
  RegCloseKey(h);
  return rc == ERROR_SUCCESS;
}

bool Registry::DeleteKey() {
  if (!KeyExists()) return true;
  if (EnumSubKeys()) {
    QL_REPORT("FALSE", (std::string("DeleteKey: There is subkey inside key ") + m_subKey.getString()).c_str());
    return false;
  }
  LONG rc = RegDeleteKeyA(m_root, m_subKey.getString());
  if (rc != ERROR_SUCCESS) return false;
  dropReadKey();  // the cached handle names a key that is gone
  return true;
}

bool Registry::DeleteKeyRecursive(bool deleteSelf) {
  // A store that deletes a tree in one step (etcd) does; others go key by key.
  LONG const once = regstore::regDeleteTree(m_root, m_subKey.getString(), deleteSelf);
  if (once == ERROR_SUCCESS) {
    if (deleteSelf) dropReadKey();
    return true;
  }
  if (once != regstore::kStepByStep) {
    QL_REPORT("FALSE", "DeleteKeyRecursive: Could not delete subkey recursively");
    return false;
  }
  if (KeyExists()) {
    std::vector<SAnsiString> names;
    for (KeyIterator it = EnumSubKeys(); it; ++it) names.push_back(it.GetKey());
    for (auto const& name : names) {
      Registry sub(joinKey(m_subKey, name), SAnsiStringCI(), m_root);
      if (m_remote) sub.SetRemoteMachine(m_remoteName);
      if (!sub.DeleteKeyRecursive(true)) {
        QL_REPORT("FALSE", "DeleteKeyRecursive: Could not delete subkey recursively");
        return false;
      }
    }
  }
  return deleteSelf ? DeleteKey() : true;
}

bool Registry::CopyValue(HKEY const& srcRoot, SAnsiString const& srcKey, SAnsiString const& srcName,
                         HKEY const& dstRoot, SAnsiString const& dstKey, SAnsiString const& dstName) {
  Registry src(srcKey, SAnsiStringCI(), srcRoot);
  Registry dst(dstKey, SAnsiStringCI(), dstRoot);
  DWORD type = REG_NONE;
  SAnsiString text = src.readTyped(srcName, type);
  DWORD number = 0;
  if (type == REG_DWORD && parseDword(text, number)) return dst.WriteValue(dstName, number);
  return dst.WriteValue(dstName, text);
}

bool Registry::CopyKey(HKEY const& srcRoot, SAnsiString const& srcKey, HKEY const& dstRoot,
                       SAnsiString const& dstKey) {
  if (regstore::regWritesTrees(dstRoot)) {
    // Read the whole tree as CopyValue would copy it, then write it in
    // transactions.
    std::vector<regstore::TreeValue> tree;
    std::function<void(SAnsiString const&, SAnsiString const&)> collect = [&](SAnsiString const& from,
                                                                              SAnsiString const& to) {
      Registry src(from, SAnsiStringCI(), srcRoot);
      for (ValueIterator it = src.EnumValues(); it; ++it) {
        DWORD type = REG_NONE, number = 0;
        SAnsiString text = src.readTyped(it.GetName(), type);
        bool const isNumber = type == REG_DWORD && parseDword(text, number);
        std::string data = isNumber ? std::string(reinterpret_cast<char const*>(&number), sizeof number)
                                    : std::string(text.getString(), text.getLength() + 1);
        tree.push_back({to.getString(), it.GetName().getString(), isNumber ? REG_DWORD : REG_SZ, data, isNumber});
      }
      std::vector<SAnsiString> subs;
      for (KeyIterator it = src.EnumSubKeys(); it; ++it) subs.push_back(it.GetKey());
      for (auto const& sub : subs) collect(joinKey(from, sub), joinKey(to, sub));
    };
    collect(srcKey, dstKey);
    LONG rc = regstore::regWriteTree(dstRoot, tree);
    if (rc == ERROR_SUCCESS) return true;
    QL_REPORT("FALSE", failedText("RegSetValueEx", dstKey, rc).c_str());
    return false;
  }
  Registry src(srcKey, SAnsiStringCI(), srcRoot);
  for (ValueIterator it = src.EnumValues(); it; ++it)
    if (!CopyValue(srcRoot, srcKey, it.GetName(), dstRoot, dstKey, it.GetName())) return false;
  std::vector<SAnsiString> subs;
  for (KeyIterator it = src.EnumSubKeys(); it; ++it) subs.push_back(it.GetKey());
  for (auto const& sub : subs)
    if (!CopyKey(srcRoot, joinKey(srcKey, sub), dstRoot, joinKey(dstKey, sub))) return false;
  return true;
}

void Registry::SetRemoteMachine(SAnsiString name) {
  if (name.isEmpty()) return;
  char const* bare = name.getString();
  while (*bare == '\\') ++bare;
  m_remoteName = SAnsiString(bare);
  HKEY h = nullptr;
  SAnsiString machine = SAnsiString("\\\\") + m_remoteName;
  if (RegConnectRegistryA(machine.getString(), HKEY_LOCAL_MACHINE, &h) != ERROR_SUCCESS) return;
  dropReadKey();
  m_remoteConnection = std::shared_ptr<RegKeyHandle>(h, [](HKEY k) { RegCloseKey(k); });
  m_root = h;
  m_remote = true;
}

void Registry::SetRemoteKeyHandle(HKEY const& root) {
  dropReadKey();
  m_root = root;
}

void Registry::appendKey(SAnsiString const& part) { m_subKey = joinKey(m_subKey, part); }

// ================================================================ roots

CompanyRegistry::CompanyRegistry(bool flag)
    : Registry(SAnsiStringCI(), kCompanyKey, HKEY_LOCAL_MACHINE, flag) {}

CompanyRegistry::CompanyRegistry(SAnsiString const& subKey, SAnsiString const& prefix, HKEY const& root,
                                 bool flag)
    : Registry(subKey, prefix, root, flag) {}

CompanyRegistry::CompanyRegistry(SAnsiString const& sub, bool flag)
    : Registry(SAnsiStringCI(), kCompanyKey, HKEY_LOCAL_MACHINE, flag) {
  appendKey(sub);
}

CompanyRegistry::~CompanyRegistry() = default;

UserCompanyRegistry::UserCompanyRegistry() : Registry(SAnsiStringCI(), kUserCompanyKey, HKEY_CURRENT_USER) {}

UserCompanyRegistry::UserCompanyRegistry(SAnsiString const& sub)
    : Registry(SAnsiStringCI(), kUserCompanyKey, HKEY_CURRENT_USER) {
  appendKey(sub);
}

UserCompanyRegistry::~UserCompanyRegistry() = default;

void UserCompanyRegistry::appendKey(SAnsiString const& part) {
  Registry::appendKey(part);
  m_appended = m_appended.isEmpty() ? part : SAnsiString(m_appended + "\\" + part);
}

SAnsiString UserCompanyRegistry::ReadValue(SAnsiString const& name) {
  SAnsiString own = Registry::ReadValue(name);
  if (!own.isEmpty()) return own;
  for (char const* root : LEGACY_COMPANY_ROOTS) {
    Registry legacy(joinKey(SAnsiString(root), m_appended), SAnsiStringCI(), HKEY_CURRENT_USER);
    SAnsiString text = legacy.ReadValue(name);
    if (text.isEmpty()) continue;
    // Migrate the old setting once; later reads find it here.
    DWORD type = REG_NONE, number = 0;
    bool typed = legacy.GetType(name, type);
    if (typed && type == REG_DWORD && parseDword(text, number)) Registry::WriteValue(name, number);
    else if (!typed || type == REG_SZ || type == REG_DWORD) Registry::WriteValue(name, text);
    return text;
  }
  return SAnsiString();
}

SAnsiString UserCompanyRegistry::ReadValue(SAnsiString const& name, SAnsiString const& defaultValue) {
  SAnsiString found = ReadValue(name);
  return found.isEmpty() ? Registry::ReadValue(name, defaultValue) : found;
}

SAnsiString UserCompanyRegistry::ReadValue(SAnsiString const& name, DWORD defaultValue) {
  SAnsiString found = ReadValue(name);
  return found.isEmpty() ? Registry::ReadValue(name, defaultValue) : found;
}

UserSharedRegistry::UserSharedRegistry(SAnsiString const& sub) : UserCompanyRegistry("Suite KR 4.0\\Shared") {
  if (!sub.isEmpty()) appendKey(sub);
}

UserSharedRegistry::~UserSharedRegistry() = default;

char const* const ServerRegistry::INSTANCES_KEY = "Instances";

ServerRegistry::ServerRegistry(SAnsiString const& serverKey, SAnsiString const& instance)
    : CompanyRegistry(serverKey, true), m_serverKey(serverKey), m_instance(instance) {
  if (!instance.isEmpty()) Registry::appendKey(SAnsiString(INSTANCES_KEY) + "\\" + instance);
}

ServerRegistry::~ServerRegistry() = default;

SAnsiString ServerRegistry::ReadValue(SAnsiString const& name) {
  SAnsiString own = Registry::ReadValue(name);
  if (!own.isEmpty() || m_instance.isEmpty()) return own;
  // m_root is already the remote root when this object is remote.
  CompanyRegistry server(m_serverKey, SAnsiString(kCompanyKey) + "\\", m_root, true);
  return server.ReadValue(name);
}

SAnsiString ServerRegistry::ReadValue(SAnsiString const& name, SAnsiString const& defaultValue) {
  SAnsiString found = ReadValue(name);
  return found.isEmpty() ? Registry::ReadValue(name, defaultValue) : found;
}

SAnsiString ServerRegistry::ReadValue(SAnsiString const& name, DWORD defaultValue) {
  SAnsiString found = ReadValue(name);
  return found.isEmpty() ? Registry::ReadValue(name, defaultValue) : found;
}

Registry::KeyIterator ServerRegistry::EnumInstances() const {
  CompanyRegistry server(joinKey(m_serverKey, INSTANCES_KEY), SAnsiString(kCompanyKey) + "\\", m_root, true);
  return server.EnumSubKeys();
}

APSRegistry::APSRegistry(SAnsiString const& instance, SAnsiString const& sub)
    : ServerRegistry(APSRegistryKey, instance) {
  if (!sub.isEmpty()) Registry::appendKey(sub);
}

APSRegistry::~APSRegistry() = default;

ODBCRegistry::ODBCRegistry() : Registry(SAnsiStringCI(), kODBCKey, HKEY_LOCAL_MACHINE) {}

ODBCRegistry::ODBCRegistry(SAnsiString const& sub) : Registry(SAnsiStringCI(), kODBCKey, HKEY_LOCAL_MACHINE) {
  appendKey(sub);
}

ODBCRegistry::~ODBCRegistry() = default;

void ODBCRegistry::appendKey(SAnsiString const& part) {
  Registry::appendKey(part);
  m_appended = m_appended.isEmpty() ? part : SAnsiString(m_appended + "\\" + part);
}

SAnsiString ODBCRegistry::ReadValue(SAnsiString const& name) {
  SAnsiString own = Registry::ReadValue(name);
  if (!own.isEmpty()) return own;
  Registry user(joinKey(SAnsiString(kODBCKey), m_appended), SAnsiStringCI(), HKEY_CURRENT_USER);
  return user.ReadValue(name);
}

SAnsiString ODBCRegistry::ReadValue(SAnsiString const& name, SAnsiString const& defaultValue) {
  SAnsiString found = ReadValue(name);
  return found.isEmpty() ? Registry::ReadValue(name, defaultValue) : found;
}

SAnsiString ODBCRegistry::ReadValue(SAnsiString const& name, DWORD defaultValue) {
  SAnsiString found = ReadValue(name);
  return found.isEmpty() ? Registry::ReadValue(name, defaultValue) : found;
}

TransportRegistry::TransportRegistry(SAnsiString const& sub) : CompanyRegistry("Transport", true) {
  if (!sub.isEmpty()) appendKey(sub);
}

TransportRegistry::~TransportRegistry() = default;

char const* const WebConnectorRegistry::WCSHOSTS_KEY = "WCSHosts";
char const* const WebConnectorRegistry::WCSHOST_VALUE = "WCSHost";

WebConnectorRegistry::WebConnectorRegistry(SAnsiString const& sub) : CompanyRegistry("Web Connector", true) {
  if (!sub.isEmpty()) appendKey(sub);
}

WebConnectorRegistry::~WebConnectorRegistry() = default;

SharedToolsRegistry::SharedToolsRegistry(SAnsiString const& sub) : CompanyRegistry("Shared Tools", true) {
  if (!sub.isEmpty()) appendKey(sub);
}

SharedToolsRegistry::~SharedToolsRegistry() = default;

// ================================================================ constants

char const* const APSRegistry::APSRegistryKey = "CMS";
char const* const APSRegistry::VALUE_TRUE = "true";
char const* const APSRegistry::VALUE_YES = "yes";
char const* const APSRegistry::VALUE_ONE = "1";
char const* const APSRegistry::VALUE_FALSE = "false";
char const* const APSRegistry::VALUE_NO = "no";
char const* const APSRegistry::VALUE_ZERO = "0";
char const* const APSRegistry::REGKEY_WCSHELP = "Help";
char const* const APSRegistry::REGVALUE_HELPFORMAT = "Format";
char const* const APSRegistry::REG_KEY_MIME = "MIME";
char const* const APSRegistry::REG_INSTALL_PATH = "InstallPath";
char const* const APSRegistry::REG_UPLOAD_PATH = "UploadPath";
char const* const APSRegistry::REG_KEY_APSSOCKSSERVERS = "CMSSocksServers";
char const* const APSRegistry::REG_AUTH_REALM = "AuthenticationRealm";
char const* const APSRegistry::REG_AUTH_ERR_PAGE = "UnauthorizedPage";
char const* const APSRegistry::REG_THREADPOOL_SIZE = "ThreadPoolSize";
char const* const APSRegistry::REG_TIMEOUT_VALUE = "ConnectionTimeout";
char const* const APSRegistry::REG_APS_NAME = "CMSName";
char const* const APSRegistry::REG_LAST_APS_NAME = "LastCMSName";
char const* const APSRegistry::REG_SINGLESIGNON_STATUS = "SingleSignon";
char const* const APSRegistry::REG_TOMBSTONES_BATCHCLEANUPTIME = "TombstonesBatchCleanUpTime";
char const* const APSRegistry::REG_INSTANCELIMITS_BATCHCLEANUPTIME = "InstanceLimitsBatchCleanUpTime";
char const* const APSRegistry::REG_INFOSTOREQUERYSIZEPERBATCHINKBYTES = "InfoStoreQuerySizePerBatchInKBytes";
char const* const APSRegistry::REG_INFOSTOREDEFAULTTOPNVALUE = "InfoStoreDefaultTopNValue";
char const* const APSRegistry::REG_CHECKINSTANCELIMITSATMOSTEVERYNSECONDS = "CheckInstanceLimitsAtMostEveryNSeconds";
char const* const APSRegistry::REG_REQUESTTRIGGEREDCLEANUPTHRESHOLD = "RequestTriggeredInstanceLimitsThreshold";
char const* const APSRegistry::REG_WORKAROUNDORACLEBLOBACCESSLIMITATION = "WorkAroundOracleBlobAccessLimitation";
char const* const APSRegistry::REG_NUMBEROFDATABASEQUEUETHREADS = "NumberOfDatabaseQueueThreads";
char const* const APSRegistry::REG_USEBLOCKINGCLUSTERNOTIFICATIONS = "UseBlockingClusterNotifications";
char const* const APSRegistry::REG_MAXIMUMCLUSTERMEMBERTIMEDISCREPENCYINMINUTES =
    "MaximumClusterMemberTimeDiscrepencyInMinutes";
char const* const APSRegistry::REG_MaximumTimeToAccumulateClusterChangesInMinutes =
    "MaximumTimeToAccumulateClusterChangesInMinutes";
char const* const APSRegistry::REG_THREADTIMEOUTMINUTES = "ThreadTimeoutAfterNMinutes";
char const* const APSRegistry::REG_MaximumObjectsToKeepInMemory = "MaximumObjectsToKeepInMemory";
char const* const APSRegistry::REG_SizeOfTheLargestObjectAllowedInTheCacheInBytes =
    "SizeOfTheLargestObjectAllowedInTheCacheInBytes";
char const* const APSRegistry::REG_RefreshPlugsAtMostEveryNSeconds = "RefreshPlugsAtMostEveryNSeconds";
char const* const APSRegistry::REG_IDLESESSIONTIMEOUT = "IdleSessionTimeout";
char const* const APSRegistry::REG_BYPASSSECSERVICETIMEOUT = "BypassSecServiceTimeout";
char const* const APSRegistry::REG_DATABASEDRIVER = "DatabaseDriver";
char const* const APSRegistry::REG_DATABASECONNECT = "DatabaseConnectString";
char const* const APSRegistry::REG_AUDITINTERVAL = "AuditInterval";
char const* const APSRegistry::REG_AUDITBATCHSIZE = "AuditBatchSize";
char const* const APSRegistry::REG_METRICSLOGGINGINTERVAL = "MetricsLoggingInterval";
char const* const APSRegistry::REG_METRICSLOGGINGBATCHSIZE = "MetricsLoggingBatchSize";
char const* const APSRegistry::REG_AUDITEETIMESYNCINTERVAL = "AuditeeTimeSyncInterval";
char const* const APSRegistry::REG_AUDITDATABASEDRIVER = "AuditingDatabaseDriver";
char const* const APSRegistry::REG_AUDITDATABASECONNECT = "AuditingDatabaseConnectString";
char const* const APSRegistry::REG_ServerState_TimeoutForPing = "ServerState_TimeoutForPing";
char const* const APSRegistry::REG_MAXPROCESSINGPACKAGES = "MaximumProcessingObjectPackages";
char const* const APSRegistry::REG_QUERYLENGTHLIMIT = "QuerySizeLimit";
char const* const APSRegistry::REG_ALERT_EMAIL_MAXIMUMTOADDRSPERJOB = "AlertEmailMaximumToAddrsPerJob";
char const* const APSRegistry::REG_ALERT_EMAIL_MAXIMUMCCADDRSPERJOB = "AlertEmailMaximumCCAddrsPerJob";
char const* const APSRegistry::REG_LINK_TO_3RDPARTY_GROUP = "LinkTo3rdPartyGroup";

}  // namespace QuenLibA500
