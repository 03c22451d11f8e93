// regapi.h: the registry store's function layer.
//
// The registry is a tree of keys holding typed values, kept in one SQLite
// file per root ("machine.db", "user.db", "users.db", "classes.db"), in the
// directory named by QUENLIB_REGISTRY_DIR or, without it, /var/lib/quenlib
// for the machine root and ${XDG_CONFIG_HOME:-$HOME/.config}/quenlib for
// the others. Several processes may read and write one store at once.
// A process may keep its registry on an etcd cluster instead (shared by
// many machines): see RegSelectStore and QUENLIB_REGISTRY_ETCD below.
//
// The functions keep the classic contracts: status codes instead of
// exceptions, caller-supplied buffers with ERROR_MORE_DATA and the needed
// size, enumeration by index, and handles that must be closed.
//
//   HKEY key = nullptr;
//   if (RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Example", 0, nullptr,
//                       REG_OPTION_NON_VOLATILE, KEY_WRITE | KEY_READ,
//                       nullptr, &key, nullptr) == ERROR_SUCCESS) {
//     DWORD n = 42;
//     RegSetValueExA(key, "Answer", 0, REG_DWORD,
//                    reinterpret_cast<BYTE const*>(&n), sizeof n);
//     char buf[64];
//     DWORD type = 0, size = sizeof buf;
//     RegQueryValueExA(key, "Greeting", nullptr, &type,
//                      reinterpret_cast<BYTE*>(buf), &size);
//     RegCloseKey(key);
//   }
//
// Key paths use "\\" as separator. Key and value names ignore letter case
// and keep the case they were created with. Handles are plain process
// memory: they are never inherited by child processes.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>

#include <cstdint>
#include <string>

namespace QuenLibA500 {

// An open key. The four predefined roots are fixed values that never need
// closing; every other handle comes from RegOpenKeyExA, RegCreateKeyExA or
// RegConnectRegistryA and is released with RegCloseKey.
struct RegKeyHandle;
using HKEY = RegKeyHandle*;
using PHKEY = HKEY*;
using BYTE = uint8_t;
using LONG = int32_t;
using BOOL = int;
using REGSAM = uint32_t;
using LPSTR = char*;
using LPCSTR = char const*;

inline HKEY const HKEY_CLASSES_ROOT = reinterpret_cast<HKEY>(uintptr_t{0x80000000u});
inline HKEY const HKEY_CURRENT_USER = reinterpret_cast<HKEY>(uintptr_t{0x80000001u});
inline HKEY const HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(uintptr_t{0x80000002u});
inline HKEY const HKEY_USERS = reinterpret_cast<HKEY>(uintptr_t{0x80000003u});

// Value types.
inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_EXPAND_SZ = 2;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;
inline constexpr DWORD REG_MULTI_SZ = 7;
inline constexpr DWORD REG_QWORD = 11;

// Status codes.
inline constexpr LONG ERROR_SUCCESS = 0;
inline constexpr LONG ERROR_FILE_NOT_FOUND = 2;
inline constexpr LONG ERROR_ACCESS_DENIED = 5;
inline constexpr LONG ERROR_INVALID_HANDLE = 6;
inline constexpr LONG ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr LONG ERROR_BAD_NETPATH = 53;
inline constexpr LONG ERROR_INVALID_PARAMETER = 87;
inline constexpr LONG ERROR_BAD_PATHNAME = 161;
inline constexpr LONG ERROR_MORE_DATA = 234;
inline constexpr LONG ERROR_NO_MORE_ITEMS = 259;
inline constexpr LONG ERROR_KEY_DELETED = 1018;
inline constexpr LONG ERROR_REGISTRY_IO_FAILED = 1016;

// Access rights.
inline constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
inline constexpr REGSAM KEY_SET_VALUE = 0x0002;
inline constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
inline constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
inline constexpr REGSAM KEY_NOTIFY = 0x0010;
inline constexpr REGSAM KEY_CREATE_LINK = 0x0020;
inline constexpr REGSAM KEY_READ = 0x20019;
inline constexpr REGSAM KEY_WRITE = 0x20006;
inline constexpr REGSAM KEY_EXECUTE = KEY_READ;
inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;

// RegCreateKeyExA options and dispositions.
inline constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
inline constexpr DWORD REG_CREATED_NEW_KEY = 1;
inline constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

// Handle information flags (handles are never inherited here).
inline constexpr DWORD HANDLE_FLAG_INHERIT = 1;

inline constexpr DWORD MAX_PATH = 260;
inline constexpr DWORD SECURITY_DESCRIPTOR_REVISION = 1;

// A last-write time: 100-nanosecond intervals since 1601-01-01 UTC.
struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

// Only one property of a descriptor matters to the store: whether it
// carries a null access list, which makes a new key open to everybody.
struct SECURITY_DESCRIPTOR {
  DWORD revision;
  BOOL daclPresent;
  void* dacl;
};

struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  void* lpSecurityDescriptor;
  BOOL bInheritHandle;
};

QUENLIB_API LONG RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options,
                               REGSAM access, PHKEY result);
QUENLIB_API LONG RegCreateKeyExA(HKEY key, LPCSTR subKey, DWORD reserved,
                                 LPSTR keyClass, DWORD options, REGSAM access,
                                 SECURITY_ATTRIBUTES const* security,
                                 PHKEY result, DWORD* disposition);
// Data of REG_SZ, REG_EXPAND_SZ and REG_MULTI_SZ is stored with its
// terminating null: one is added when the caller's bytes lack it.
QUENLIB_API LONG RegQueryValueExA(HKEY key, LPCSTR name, DWORD* reserved,
                                  DWORD* type, BYTE* data, DWORD* size);
QUENLIB_API LONG RegSetValueExA(HKEY key, LPCSTR name, DWORD reserved,
                                DWORD type, BYTE const* data, DWORD size);
// Sub-keys are enumerated in the order of their names, ignoring case.
QUENLIB_API LONG RegEnumKeyExA(HKEY key, DWORD index, LPSTR name,
                               DWORD* nameChars, DWORD* reserved,
                               LPSTR keyClass, DWORD* classChars,
                               FILETIME* lastWrite);
// Values are enumerated in the order they were first created.
QUENLIB_API LONG RegEnumValueA(HKEY key, DWORD index, LPSTR name,
                               DWORD* nameChars, DWORD* reserved, DWORD* type,
                               BYTE* data, DWORD* size);
// Refuses (ERROR_ACCESS_DENIED) a key that still has sub-keys.
QUENLIB_API LONG RegDeleteKeyA(HKEY key, LPCSTR subKey);
QUENLIB_API LONG RegDeleteValueA(HKEY key, LPCSTR name);
QUENLIB_API LONG RegCloseKey(HKEY key);
// "\\\\name" with HKEY_LOCAL_MACHINE (or HKEY_USERS) opens
// $QUENLIB_REGISTRY_REMOTE_DIR/name/machine.db (users.db); a missing
// variable or store gives ERROR_BAD_NETPATH. A null or empty machine name
// connects to the local root.
QUENLIB_API LONG RegConnectRegistryA(LPCSTR machine, HKEY key, PHKEY result);
// Number of sub-keys and values of an open key (a subset of the classic
// key information query).
QUENLIB_API LONG RegQueryInfoKeyCounts(HKEY key, DWORD* subKeys,
                                       DWORD* values);
// Whether the key was created with a null access list ("open to
// everybody").
QUENLIB_API LONG RegQueryKeyOpenToEverybody(HKEY key, BOOL* open);

// Replaces %NAME% by the environment variable NAME (unknown names stay as
// written). Returns the characters needed, terminating null included, or 0
// on a bad argument; the text is written only when it fits in `size`.
QUENLIB_API DWORD ExpandEnvironmentStringsA(LPCSTR src, LPSTR dst, DWORD size);

QUENLIB_API BOOL InitializeSecurityDescriptor(SECURITY_DESCRIPTOR* sd,
                                              DWORD revision);
QUENLIB_API BOOL SetSecurityDescriptorDacl(SECURITY_DESCRIPTOR* sd,
                                           BOOL present, void* dacl,
                                           BOOL defaulted);
// Registry handles live in process memory and are never inherited; this
// validates the handle and succeeds.
QUENLIB_API BOOL SetHandleInformation(HKEY key, DWORD mask, DWORD flags);

// The store file that backs a predefined root, as the functions above
// would open it now (follows QUENLIB_REGISTRY_DIR). Empty for other keys.
QUENLIB_API std::string RegStorePath(HKEY root);

// Chooses the store of the predefined roots for this process:
// nullptr, "" or "sqlite" for the embedded SQLite store (the default),
// "etcd://HOST:PORT[,HOST:PORT...]" or "http://HOST:PORT[,http://HOST:PORT...]"
// for an etcd cluster. Overrides QUENLIB_REGISTRY_ETCD and the
// "etcd-endpoints" file; roots opened afterwards use it, handles already
// open keep their store. ERROR_INVALID_PARAMETER for a location that does
// not parse.
QUENLIB_API LONG RegSelectStore(LPCSTR location);
// The store location in force ("sqlite" for the default, otherwise
// "etcd://HOST:PORT,HOST:PORT..."), after the override, the environment and the file.
QUENLIB_API std::string RegStoreLocation();

}  // namespace QuenLibA500
