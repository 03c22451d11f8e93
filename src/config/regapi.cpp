// The Reg* functions: arguments, access rights and names are checked here;
// a handle or a predefined root is resolved to its store (regstore.h),
// which keeps the keys and values.
#include <quenlib/regapi.h>
#include <quenlib/senvironment.h>

#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "config/regstore.h"
#include "text/utfcore.h"

namespace QuenLibA500 {

namespace regstore {

namespace {

void asciiLower(std::string_view in, std::string& out) {
  out.resize(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(in[i]);
    out[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : static_cast<char>(c);
  }
}

bool isAscii(std::string_view s) {
  for (char c : s)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}


}  // namespace

// The comparison form of a name. Valid UTF-8 is folded with Unicode case
// folding; other bytes (names from a non-UTF-8 locale) fold ASCII letters
// only. The result depends on the bytes alone, never on the process
// locale, so every process finds the same keys.
void foldName(std::string_view in, std::string& out) {
  if (isAscii(in) || !utf::isValidUtf8(reinterpret_cast<unsigned char const*>(in.data()), in.size()))
    return asciiLower(in, out);
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(
      icu::StringPiece(in.data(), static_cast<int32_t>(in.size())));
  u.foldCase();
  out.clear();
  u.toUTF8String(out);
}

// Splits a relative key path into its components. One trailing backslash is
// tolerated; a leading one or an empty component is a bad path.
LONG splitPath(char const* sub, std::vector<std::string_view>& parts) {
  parts.clear();
  if (!sub || !*sub) return ERROR_SUCCESS;
  std::string_view s(sub);
  if (s.front() == '\\') return ERROR_BAD_PATHNAME;
  if (s.back() == '\\') s.remove_suffix(1);
  while (!s.empty()) {
    size_t cut = s.find('\\');
    std::string_view part = s.substr(0, cut);
    if (part.empty()) return ERROR_BAD_PATHNAME;
    if (part.size() > kMaxKeyNameLength) return ERROR_INVALID_PARAMETER;
    parts.push_back(part);
    if (cut == std::string_view::npos) break;
    s.remove_prefix(cut + 1);
  }
  return ERROR_SUCCESS;
}

std::string joinFold(std::string const& base, std::string_view partFold) {
  if (base.empty()) return std::string(partFold);
  std::string r;
  r.reserve(base.size() + 1 + partFold.size());
  r.append(base).push_back('\\');
  r.append(partFold);
  return r;
}

int64_t nowFileTime() {
  using namespace std::chrono;
  // 100 ns ticks between 1601-01-01 and 1970-01-01.
  constexpr int64_t kEpochDelta = 116444736000000000LL;
  auto ns = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
  return ns / 100 + kEpochDelta;
}

bool isStringType(DWORD type) {
  return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

RootKind rootKind(HKEY key) {
  if (key == HKEY_CLASSES_ROOT) return RootKind::Classes;
  if (key == HKEY_CURRENT_USER) return RootKind::User;
  if (key == HKEY_LOCAL_MACHINE) return RootKind::Machine;
  if (key == HKEY_USERS) return RootKind::Users;
  return RootKind::None;
}

LONG copyName(char const* text, size_t len, LPSTR out, DWORD* chars) {
  if (!out || !chars) return ERROR_INVALID_PARAMETER;
  if (len + 1 > *chars) return ERROR_MORE_DATA;
  std::memcpy(out, text, len);
  out[len] = '\0';
  *chars = static_cast<DWORD>(len);
  return ERROR_SUCCESS;
}

LONG copyData(void const* blob, size_t len, BYTE* data, DWORD* size) {
  auto const need = static_cast<DWORD>(len);
  if (!size) return data ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
  DWORD room = *size;
  *size = need;
  if (!data) return ERROR_SUCCESS;
  if (room < need) return ERROR_MORE_DATA;
  if (need) std::memcpy(data, blob, need);
  return ERROR_SUCCESS;
}

namespace {

// "HOST:PORT" with a port of 1 to 65535; an IPv6 host in brackets.
bool goodHostPort(std::string_view hp) {
  while (!hp.empty() && hp.back() == '/') hp.remove_suffix(1);
  size_t colon = hp.rfind(':');
  if (colon == std::string_view::npos || colon == 0 || colon + 1 == hp.size()) return false;
  std::string_view host = hp.substr(0, colon), port = hp.substr(colon + 1);
  if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string_view::npos) return false;
  long p = std::atol(std::string(port).c_str());
  if (p < 1 || p > 65535) return false;
  if (host.front() == '[') return host.back() == ']' && host.size() > 2;
  return host.find_first_of("/@ []") == std::string_view::npos;
}

}  // namespace

bool parseStoreLocation(std::string_view text, std::vector<std::string>& urls) {
  urls.clear();
  if (text.empty() || text == "sqlite") return true;
  constexpr std::string_view kEtcd = "etcd://", kHttp = "http://";
  bool const etcdForm = text.starts_with(kEtcd);
  if (etcdForm) text.remove_prefix(kEtcd.size());
  while (true) {
    size_t cut = text.find(',');
    std::string_view item = text.substr(0, cut);
    while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
    while (!item.empty() && item.back() == ' ') item.remove_suffix(1);
    if (!etcdForm && item.starts_with(kHttp)) item.remove_prefix(kHttp.size());
    while (!item.empty() && item.back() == '/') item.remove_suffix(1);
    if (!goodHostPort(item)) return false;
    urls.push_back(std::string(kHttp) + std::string(item));
    if (cut == std::string_view::npos) return true;
    text.remove_prefix(cut + 1);
  }
}

}  // namespace regstore

using namespace regstore;

namespace {

constexpr uint32_t kLiveMagic = 0x51524b59;  // "QRKY"
constexpr uint32_t kDeadMagic = 0xdeadbeef;

std::string const kEmpty;

// ------------------------------------------------------------ selection

// Which store the predefined roots use, as the override, the environment
// and the "etcd-endpoints" file say. Worked out once per distinct text of
// those settings, so that resolving a root stays cheap while tests and
// tools may change the environment at any time.
struct Selection {
  bool etcd = false;
  bool broken = false;  // a location that does not parse: every call fails
  EtcdConfig cfg;
  std::string location;
};

struct Selector {
  std::mutex mu;
  bool overridden = false;
  std::string overrideText;
  std::map<std::string, std::string> endpointFiles;  // registry directory -> file's first line
  std::map<std::string, std::unique_ptr<Selection>> byText;
};

Selector& selector() {
  static Selector* s = new Selector;  // never destroyed: handles may outlive statics
  return *s;
}

std::string envText(char const* name) {
  char const* v = std::getenv(name);
  return v ? std::string(v) : std::string();
}

std::string trim(std::string s) {
  auto blank = [](unsigned char c) { return std::isspace(c) != 0; };
  while (!s.empty() && blank(static_cast<unsigned char>(s.back()))) s.pop_back();
  size_t i = 0;
  while (i < s.size() && blank(static_cast<unsigned char>(s[i]))) ++i;
  return s.substr(i);
}

// The first line of <registry directory>/etcd-endpoints, read once per
// directory. Called with the selector's lock held.
std::string const& endpointFile(Selector& s, std::string const& dir) {
  auto it = s.endpointFiles.find(dir);
  if (it != s.endpointFiles.end()) return it->second;
  std::string line;
  std::ifstream in(dir + "/etcd-endpoints");
  if (in) std::getline(in, line);
  return s.endpointFiles[dir] = trim(line);
}

std::string joinUrls(std::vector<std::string> const& urls) {
  std::string s = "etcd://";
  for (size_t i = 0; i < urls.size(); ++i) {
    if (i) s += ',';
    s.append(urls[i], 7);  // less "http://"
  }
  return s;
}

std::unique_ptr<Selection> makeSelection(std::string const& location, std::string const& timeout,
                                         std::string const& prefix, std::string const& machine) {
  auto sel = std::make_unique<Selection>();
  if (!parseStoreLocation(location, sel->cfg.urls)) {
    sel->etcd = sel->broken = true;
    sel->location = location;
    return sel;
  }
  sel->etcd = !sel->cfg.urls.empty();
  sel->location = sel->etcd ? joinUrls(sel->cfg.urls) : "sqlite";
  long ms = std::atol(timeout.c_str());
  if (ms > 0) sel->cfg.timeoutMs = ms;
  if (!prefix.empty()) sel->cfg.prefix = prefix;
  while (sel->cfg.prefix.size() > 1 && sel->cfg.prefix.back() == '/') sel->cfg.prefix.pop_back();
  sel->cfg.machine = machine;
  if (sel->cfg.machine.empty()) {
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    sel->cfg.machine = host;
  }
  return sel;
}

Selection const& currentSelection() {
  Selector& s = selector();
  std::string const etcdEnv = envText("QUENLIB_REGISTRY_ETCD");
  std::string const timeout = envText("QUENLIB_REGISTRY_ETCD_TIMEOUT_MS");
  std::string const prefix = envText("QUENLIB_REGISTRY_ETCD_PREFIX");
  std::string const machine = envText("QUENLIB_REGISTRY_ETCD_MACHINE");
  std::lock_guard<std::mutex> lock(s.mu);
  std::string location = s.overrideText;
  if (!s.overridden) {
    location = trim(etcdEnv);
    if (location.empty()) {
      std::string dir = envText("QUENLIB_REGISTRY_DIR");
      location = endpointFile(s, dir.empty() ? "/var/lib/quenlib" : dir);
    }
  }
  std::string text = location;
  for (auto const* part : {&timeout, &prefix, &machine}) text.append(1, '\0').append(*part);
  auto& slot = s.byText[text];
  if (!slot) slot = makeSelection(location, timeout, prefix, machine);
  return *slot;
}

Store* storeForRoot(RootKind kind) {
  Selection const& sel = currentSelection();
  if (!sel.etcd) return sqliteStoreForRoot(kind);
  return etcdStoreForRoot(kind, sel.cfg);
}

LONG resolve(HKEY key, KeyRef& ref) {
  RootKind kind = rootKind(key);
  if (kind != RootKind::None) {
    ref = {storeForRoot(kind), 1, &kEmpty, KEY_ALL_ACCESS, true};
    return ERROR_SUCCESS;
  }
  if (!key || key->magic != kLiveMagic) return ERROR_INVALID_HANDLE;
  ref = {key->store, key->id, &key->pathFold, key->access, false};
  return ERROR_SUCCESS;
}

HKEY newHandle(Store* store, int64_t id, std::string pathFold, REGSAM access) {
  return new (std::nothrow) RegKeyHandle{kLiveMagic, store, id, std::move(pathFold), access};
}

bool openToEverybody(SECURITY_ATTRIBUTES const* sa) {
  if (!sa || !sa->lpSecurityDescriptor) return false;
  auto const* sd = static_cast<SECURITY_DESCRIPTOR const*>(sa->lpSecurityDescriptor);
  return sd->daclPresent && sd->dacl == nullptr;
}

bool hasRights(KeyRef const& ref, REGSAM need) { return (ref.access & need) == need; }

std::string foldedPath(std::string const& base, std::vector<std::string_view> const& parts) {
  std::string path = base, partFold;
  for (auto part : parts) {
    foldName(part, partFold);
    path = joinFold(path, partFold);
  }
  return path;
}

}  // namespace

LONG RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD, REGSAM access, PHKEY result) {
  if (!result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<std::string_view> parts;
  rc = splitPath(subKey, parts);
  if (rc != ERROR_SUCCESS) return rc;
  std::string path = foldedPath(*ref.pathFold, parts);
  int64_t id = 0;
  rc = ref.store->openKey(ref, parts.size(), path, access, id);
  if (rc != ERROR_SUCCESS) return rc;
  *result = newHandle(ref.store, id, std::move(path), access);
  return *result ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

LONG RegCreateKeyExA(HKEY key, LPCSTR subKey, DWORD, LPSTR, DWORD, REGSAM access,
                     SECURITY_ATTRIBUTES const* security, PHKEY result, DWORD* disposition) {
  if (!result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<std::string_view> parts;
  rc = splitPath(subKey, parts);
  if (rc != ERROR_SUCCESS) return rc;
  if (!parts.empty() && !hasRights(ref, KEY_CREATE_SUB_KEY)) return ERROR_ACCESS_DENIED;
  std::string path = foldedPath(*ref.pathFold, parts);
  int64_t id = 0;
  bool created = false;
  rc = ref.store->createKey(ref, parts, path, openToEverybody(security), id, created);
  if (rc != ERROR_SUCCESS) return rc;
  *result = newHandle(ref.store, id, std::move(path), access);
  if (!*result) return ERROR_NOT_ENOUGH_MEMORY;
  if (disposition) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
  return ERROR_SUCCESS;
}

LONG RegQueryValueExA(HKEY key, LPCSTR name, DWORD* reserved, DWORD* type, BYTE* data,
                      DWORD* size) {
  if (reserved) return ERROR_INVALID_PARAMETER;
  if (data && !size) return ERROR_INVALID_PARAMETER;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  if (!hasRights(ref, KEY_QUERY_VALUE)) return ERROR_ACCESS_DENIED;
  std::string nameFold;
  foldName(name ? name : "", nameFold);
  return ref.store->queryValue(ref, nameFold, type, data, size);
}

LONG RegSetValueExA(HKEY key, LPCSTR name, DWORD, DWORD type, BYTE const* data, DWORD size) {
  if (size && !data) return ERROR_INVALID_PARAMETER;
  if ((type == REG_DWORD && size != 4) || (type == REG_QWORD && size != 8)) return ERROR_INVALID_PARAMETER;
  std::string_view nameView(name ? name : "");
  if (nameView.size() > kMaxValueNameLength) return ERROR_INVALID_PARAMETER;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  if (!hasRights(ref, KEY_SET_VALUE)) return ERROR_ACCESS_DENIED;
  // String data always carries its terminating null in the store.
  std::string bytes(reinterpret_cast<char const*>(data ? data : reinterpret_cast<BYTE const*>("")), size);
  if (isStringType(type) && (bytes.empty() || bytes.back() != '\0')) bytes.push_back('\0');
  std::string nameFold;
  foldName(nameView, nameFold);
  return ref.store->setValue(ref, nameView, nameFold, type, bytes);
}

LONG RegEnumKeyExA(HKEY key, DWORD index, LPSTR name, DWORD* nameChars, DWORD* reserved,
                   LPSTR keyClass, DWORD* classChars, FILETIME* lastWrite) {
  if (reserved || !name || !nameChars) return ERROR_INVALID_PARAMETER;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  if (!hasRights(ref, KEY_ENUMERATE_SUB_KEYS)) return ERROR_ACCESS_DENIED;
  rc = ref.store->enumKey(ref, index, SubKeyOut{name, nameChars, lastWrite});
  if (rc != ERROR_SUCCESS) return rc;
  if (keyClass && classChars && *classChars) keyClass[0] = '\0';
  if (classChars) *classChars = 0;
  return ERROR_SUCCESS;
}

LONG RegEnumValueA(HKEY key, DWORD index, LPSTR name, DWORD* nameChars, DWORD* reserved,
                   DWORD* type, BYTE* data, DWORD* size) {
  if (reserved || !name || !nameChars) return ERROR_INVALID_PARAMETER;
  if (data && !size) return ERROR_INVALID_PARAMETER;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  if (!hasRights(ref, KEY_QUERY_VALUE)) return ERROR_ACCESS_DENIED;
  return ref.store->enumValue(ref, index, ValueOut{name, nameChars, type, data, size});
}

LONG RegDeleteKeyA(HKEY key, LPCSTR subKey) {
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<std::string_view> parts;
  rc = splitPath(subKey, parts);
  if (rc != ERROR_SUCCESS) return rc;
  if (parts.empty()) return ERROR_ACCESS_DENIED;  // a key cannot delete itself through its handle
  return ref.store->deleteKey(ref, foldedPath(*ref.pathFold, parts));
}

LONG RegDeleteValueA(HKEY key, LPCSTR name) {
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  if (!hasRights(ref, KEY_SET_VALUE)) return ERROR_ACCESS_DENIED;
  std::string nameFold;
  foldName(name ? name : "", nameFold);
  return ref.store->deleteValue(ref, nameFold);
}

LONG RegCloseKey(HKEY key) {
  if (rootKind(key) != RootKind::None) return ERROR_SUCCESS;
  if (!key || key->magic != kLiveMagic) return ERROR_INVALID_HANDLE;
  key->magic = kDeadMagic;
  delete key;
  return ERROR_SUCCESS;
}

LONG RegConnectRegistryA(LPCSTR machine, HKEY key, PHKEY result) {
  if (!result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  RootKind kind = rootKind(key);
  if (kind == RootKind::None) return ERROR_INVALID_HANDLE;
  std::string_view name(machine ? machine : "");
  while (!name.empty() && name.front() == '\\') name.remove_prefix(1);
  if (name.empty()) {
    *result = key;  // the local root itself
    return ERROR_SUCCESS;
  }
  if (kind != RootKind::Machine && kind != RootKind::Users) return ERROR_INVALID_HANDLE;
  Store* store = nullptr;
  Selection const& sel = currentSelection();
  LONG rc = sel.etcd ? etcdConnect(kind, name, sel.cfg, store) : sqliteConnect(kind, name, store);
  if (rc != ERROR_SUCCESS) return rc;
  *result = newHandle(store, 1, std::string(), KEY_ALL_ACCESS);
  return *result ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

LONG RegQueryInfoKeyCounts(HKEY key, DWORD* subKeys, DWORD* values) {
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  if (!hasRights(ref, KEY_QUERY_VALUE)) return ERROR_ACCESS_DENIED;
  DWORD nKeys = 0, nValues = 0;
  rc = ref.store->counts(ref, nKeys, nValues);
  if (rc != ERROR_SUCCESS) return rc;
  if (subKeys) *subKeys = nKeys;
  if (values) *values = nValues;
  return ERROR_SUCCESS;
}

LONG RegQueryKeyOpenToEverybody(HKEY key, BOOL* open) {
  if (!open) return ERROR_INVALID_PARAMETER;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  return ref.store->openToEverybody(ref, *open);
}

namespace regstore {

LONG regWriteTree(HKEY root, std::vector<TreeValue> const& values) {
  KeyRef ref;
  LONG rc = resolve(root, ref);
  if (rc != ERROR_SUCCESS) return rc;
  if (!hasRights(ref, KEY_CREATE_SUB_KEY | KEY_SET_VALUE)) return ERROR_ACCESS_DENIED;
  std::vector<std::string_view> parts;
  for (auto const& v : values) {
    rc = splitPath(v.keyPath.c_str(), parts);
    if (rc != ERROR_SUCCESS) return rc;
    if (v.name.size() > kMaxValueNameLength) return ERROR_INVALID_PARAMETER;
    if ((v.type == REG_DWORD && v.data.size() != 4) || (v.type == REG_QWORD && v.data.size() != 8))
      return ERROR_INVALID_PARAMETER;
    if (isStringType(v.type) && (v.data.empty() || v.data.back() != '\0')) return ERROR_INVALID_PARAMETER;
  }
  return ref.store->writeTree(ref, values);
}

LONG regDeleteTree(HKEY root, char const* subKey, bool self) {
  KeyRef ref;
  LONG rc = resolve(root, ref);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<std::string_view> parts;
  rc = splitPath(subKey, parts);
  if (rc != ERROR_SUCCESS) return rc;
  if (parts.empty() && self) return ERROR_ACCESS_DENIED;  // never the root or the handle's own key
  return ref.store->deleteTree(ref, foldedPath(*ref.pathFold, parts), self);
}

bool regWritesTrees(HKEY root) {
  KeyRef ref;
  return resolve(root, ref) == ERROR_SUCCESS && ref.store->writeTree(ref, {}) != kStepByStep;
}

}  // namespace regstore

DWORD ExpandEnvironmentStringsA(LPCSTR src, LPSTR dst, DWORD size) {
  if (!src) return 0;
  SAnsiString const out = SEnvironment::expand(src);
  DWORD need = static_cast<DWORD>(out.getLength() + 1);
  if (dst && size >= need) std::memcpy(dst, out.getString(), need);
  return need;
}

BOOL InitializeSecurityDescriptor(SECURITY_DESCRIPTOR* sd, DWORD revision) {
  if (!sd || revision != SECURITY_DESCRIPTOR_REVISION) return 0;
  *sd = SECURITY_DESCRIPTOR{revision, 0, nullptr};
  return 1;
}

BOOL SetSecurityDescriptorDacl(SECURITY_DESCRIPTOR* sd, BOOL present, void* dacl, BOOL) {
  if (!sd || sd->revision != SECURITY_DESCRIPTOR_REVISION) return 0;
  sd->daclPresent = present ? 1 : 0;
  sd->dacl = present ? dacl : nullptr;
  return 1;
}

BOOL SetHandleInformation(HKEY key, DWORD, DWORD) {
  if (rootKind(key) != RootKind::None) return 1;
  return key && key->magic == kLiveMagic ? 1 : 0;
}

std::string RegStorePath(HKEY root) { return sqliteStorePath(rootKind(root)); }

LONG RegSelectStore(LPCSTR location) {
  std::string text = trim(location ? location : "");
  std::vector<std::string> urls;
  if (!parseStoreLocation(text, urls)) return ERROR_INVALID_PARAMETER;
  Selector& s = selector();
  std::lock_guard<std::mutex> lock(s.mu);
  s.overridden = true;
  s.overrideText = urls.empty() ? std::string() : joinUrls(urls);
  return ERROR_SUCCESS;
}

std::string RegStoreLocation() { return currentSelection().location; }

}  // namespace QuenLibA500
