// The registry's stores behind the Reg* functions.
//
// regapi.cpp checks arguments and access rights, folds names and resolves a
// handle to its store; a store keeps keys and values. Keys are named by
// their folded path below the root ("software\\example", "" for the root);
// a store gives each key an id it uses to tell a live key from a deleted
// one (a key deleted and created again has a new id).
#pragma once

#include <quenlib/regapi.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace QuenLibA500 {

namespace regstore {
class Store;
}

struct RegKeyHandle {
  uint32_t magic;
  regstore::Store* store;
  int64_t id;
  std::string pathFold;  // folded path below the root, "" for the root
  REGSAM access;
};

namespace regstore {

inline constexpr size_t kMaxKeyNameLength = 255;
inline constexpr size_t kMaxValueNameLength = 16383;

enum class RootKind { Classes, User, Machine, Users, None };

RootKind rootKind(HKEY key);

// The comparison form of a name: Unicode case folding for valid UTF-8,
// ASCII letters only for other bytes; never depends on the locale.
void foldName(std::string_view in, std::string& out);
// Splits a relative key path into its components (one trailing backslash
// tolerated; a leading one or an empty component is ERROR_BAD_PATHNAME).
LONG splitPath(char const* sub, std::vector<std::string_view>& parts);
std::string joinFold(std::string const& base, std::string_view partFold);
// Now, in 100 ns ticks since 1601-01-01 UTC.
int64_t nowFileTime();
bool isStringType(DWORD type);

// Copies a name into a character buffer with the classic size rules.
LONG copyName(char const* text, size_t len, LPSTR out, DWORD* chars);
// Reports a value's size, and copies its bytes when the buffer holds them.
LONG copyData(void const* blob, size_t len, BYTE* data, DWORD* size);

// What a handle or a predefined root refers to.
struct KeyRef {
  Store* store = nullptr;
  int64_t id = 0;
  std::string const* pathFold = nullptr;
  REGSAM access = 0;
  bool predefined = false;  // rights are checked on each use, not at an open
};

// A sub-key as the store found it, for RegEnumKeyExA.
struct SubKeyOut {
  LPSTR name;
  DWORD* nameChars;
  FILETIME* lastWrite;
};

// A value as the store found it, for RegEnumValueA.
struct ValueOut {
  LPSTR name;
  DWORD* nameChars;
  DWORD* type;
  BYTE* data;
  DWORD* size;
};

// One value of a tree written at once (CopyKey): the key's path below the
// root handle (as RegCreateKeyExA takes it), the value, and whether a key
// created for it is open to everybody.
struct TreeValue {
  std::string keyPath;
  std::string name;
  DWORD type;
  std::string data;  // strings carry their terminating null
  bool openToAll;
};

// A store that cannot do a tree operation in one step says so; the caller
// then goes key by key.
inline constexpr LONG kStepByStep = 120;  // the classic "not implemented"

// One store: a tree of keys for one root. Access rights of the handle are
// checked by the caller; a store checks what only it knows (file
// permissions, a key deleted under a handle, a cluster out of reach).
class Store {
 public:
  virtual ~Store() = default;

  // The key at `pathFold` (reached from `base`, `reached` components
  // below it); its id on success.
  virtual LONG openKey(KeyRef const& base, size_t reached, std::string const& pathFold,
                       REGSAM access, int64_t& id) = 0;
  // Opens or creates the key at `pathFold` and its missing parents; the
  // last one created gets the open-to-everybody mark when asked.
  virtual LONG createKey(KeyRef const& base, std::vector<std::string_view> const& parts,
                         std::string const& pathFold, bool openToAll, int64_t& id,
                         bool& created) = 0;
  virtual LONG queryValue(KeyRef const& key, std::string const& nameFold, DWORD* type, BYTE* data,
                          DWORD* size) = 0;
  // `bytes` already carries a string's terminating null.
  virtual LONG setValue(KeyRef const& key, std::string_view name, std::string const& nameFold,
                        DWORD type, std::string const& bytes) = 0;
  virtual LONG deleteValue(KeyRef const& key, std::string const& nameFold) = 0;
  // Deletes the key at `pathFold` (never the root) unless it has sub-keys.
  virtual LONG deleteKey(KeyRef const& base, std::string const& pathFold) = 0;
  virtual LONG enumKey(KeyRef const& key, DWORD index, SubKeyOut const& out) = 0;
  virtual LONG enumValue(KeyRef const& key, DWORD index, ValueOut const& out) = 0;
  virtual LONG counts(KeyRef const& key, DWORD& subKeys, DWORD& values) = 0;
  virtual LONG openToEverybody(KeyRef const& key, BOOL& open) = 0;
  // Writes the values, creating missing keys as RegCreateKeyExA would, in
  // as few transactions as the store allows.
  virtual LONG writeTree(KeyRef const&, std::vector<TreeValue> const&) { return kStepByStep; }
  // Deletes everything below the key at `pathFold`, and the key itself
  // when `self`, in one step.
  virtual LONG deleteTree(KeyRef const&, std::string const&, bool) { return kStepByStep; }
};

// For the Registry classes: the tree operations on a root or a handle.
// kStepByStep where the store has none.
LONG regWriteTree(HKEY root, std::vector<TreeValue> const& values);
LONG regDeleteTree(HKEY root, char const* subKey, bool self);
// Whether the store of `root` writes trees in one step.
bool regWritesTrees(HKEY root);

// Where the etcd store of a root lives: the cluster's endpoints
// ("http://HOST:PORT"), the time-out of a whole request, the key prefix and
// the name of this machine in the cluster.
struct EtcdConfig {
  std::vector<std::string> urls;
  long timeoutMs = 3000;
  std::string prefix = "/quenlib";
  std::string machine;
};

// Reads a store location: "", "sqlite" (no endpoints), "etcd://H:P,H:P",
// "http://H:P,http://H:P" or "H:P,H:P". False when it does not parse.
bool parseStoreLocation(std::string_view text, std::vector<std::string>& urls);

// The etcd store of a predefined root of this machine.
Store* etcdStoreForRoot(RootKind kind, EtcdConfig const& cfg);
// Another machine's root in the same cluster: ERROR_BAD_NETPATH when it
// has no keys there.
LONG etcdConnect(RootKind kind, std::string_view machine, EtcdConfig const& cfg, Store*& store);

// The SQLite store of a predefined root, as QUENLIB_REGISTRY_DIR says now.
Store* sqliteStoreForRoot(RootKind kind);
// Another machine's SQLite store (QUENLIB_REGISTRY_REMOTE_DIR).
LONG sqliteConnect(RootKind kind, std::string_view machine, Store*& store);
std::string sqliteStorePath(RootKind kind);

}  // namespace regstore
}  // namespace QuenLibA500
