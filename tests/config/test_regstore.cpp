// The registry store's function layer: value types, buffers and sizes,
// enumeration, deletion rules, permissions, store files, remote stores and
// environment expansion.

#include "config_support.h"
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstring>

using namespace QuenLibA500;
namespace fs = std::filesystem;

namespace {

// The helpers, on either fixture: every store (parameterised) or SQLite's
// own files.
template <class Base>
class RegStoreT : public Base {
 protected:
  void TearDown() override {
    for (HKEY k : opened) RegCloseKey(k);
    Base::TearDown();
  }

  HKEY create(char const* path, HKEY root = HKEY_CURRENT_USER, REGSAM access = KEY_ALL_ACCESS) {
    HKEY k = nullptr;
    EXPECT_EQ(RegCreateKeyExA(root, path, 0, nullptr, 0, access, nullptr, &k, nullptr), ERROR_SUCCESS)
        << path;
    if (k) opened.push_back(k);
    return k;
  }
  LONG open(char const* path, REGSAM access, HKEY& k, HKEY root = HKEY_CURRENT_USER) {
    k = nullptr;
    LONG rc = RegOpenKeyExA(root, path, 0, access, &k);
    if (k) opened.push_back(k);
    return rc;
  }
  static LONG setText(HKEY k, char const* name, char const* text, DWORD type = REG_SZ) {
    return RegSetValueExA(k, name, 0, type, reinterpret_cast<BYTE const*>(text),
                          static_cast<DWORD>(std::strlen(text) + 1));
  }
  static LONG setDword(HKEY k, char const* name, DWORD v) {
    return RegSetValueExA(k, name, 0, REG_DWORD, reinterpret_cast<BYTE const*>(&v), sizeof v);
  }
  static std::string getText(HKEY k, char const* name, DWORD* type = nullptr) {
    char buf[512] = {};
    DWORD size = sizeof buf, t = 0;
    if (RegQueryValueExA(k, name, nullptr, &t, reinterpret_cast<BYTE*>(buf), &size) != ERROR_SUCCESS)
      return "<absent>";
    if (type) *type = t;
    return std::string(buf, size ? size - 1 : 0);
  }

  std::vector<HKEY> opened;
};

using RegStore = RegStoreT<quentest::StoreParamTest>;
using RegStoreFiles = RegStoreT<quentest::StoreTest>;

}  // namespace

INSTANTIATE_TEST_SUITE_P(Stores, RegStore, ::testing::Values(quentest::StoreKind::Sqlite, quentest::StoreKind::Etcd,
                                           quentest::StoreKind::EtcdThreeMembers),
                         quentest::storeName);

TEST_P(RegStore, CreateSetQueryRoundTripForEveryType) {
  HKEY k = create("Software\\Test");
  ASSERT_NE(k, nullptr);
  uint64_t q = 0x1122334455667788ULL;
  BYTE bin[] = {0, 1, 2, 255};
  char const multi[] = "one\0two\0";
  ASSERT_EQ(setText(k, "sz", "hello"), ERROR_SUCCESS);
  ASSERT_EQ(setText(k, "exp", "%HOME%\\x", REG_EXPAND_SZ), ERROR_SUCCESS);
  ASSERT_EQ(setDword(k, "dw", 0xdeadbeef), ERROR_SUCCESS);
  ASSERT_EQ(RegSetValueExA(k, "qw", 0, REG_QWORD, reinterpret_cast<BYTE*>(&q), 8), ERROR_SUCCESS);
  ASSERT_EQ(RegSetValueExA(k, "bin", 0, REG_BINARY, bin, sizeof bin), ERROR_SUCCESS);
  ASSERT_EQ(RegSetValueExA(k, "multi", 0, REG_MULTI_SZ, reinterpret_cast<BYTE const*>(multi), 9),
            ERROR_SUCCESS);
  ASSERT_EQ(RegSetValueExA(k, "none", 0, REG_NONE, nullptr, 0), ERROR_SUCCESS);

  struct Row {
    char const* name;
    DWORD type;
    std::vector<BYTE> bytes;
  } rows[] = {
      {"sz", REG_SZ, {'h', 'e', 'l', 'l', 'o', 0}},
      {"exp", REG_EXPAND_SZ, {'%', 'H', 'O', 'M', 'E', '%', '\\', 'x', 0}},
      {"dw", REG_DWORD, {0xef, 0xbe, 0xad, 0xde}},
      {"qw", REG_QWORD, {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}},
      {"bin", REG_BINARY, {0, 1, 2, 255}},
      {"multi", REG_MULTI_SZ, {'o', 'n', 'e', 0, 't', 'w', 'o', 0, 0}},
      {"none", REG_NONE, {}},
  };
  for (auto const& r : rows) {
    BYTE buf[64];
    DWORD type = 99, size = sizeof buf;
    ASSERT_EQ(RegQueryValueExA(k, r.name, nullptr, &type, buf, &size), ERROR_SUCCESS) << r.name;
    EXPECT_EQ(type, r.type) << r.name;
    EXPECT_EQ(std::vector<BYTE>(buf, buf + size), r.bytes) << r.name;
  }
}

TEST_P(RegStore, SizeQueryAndMoreData) {
  HKEY k = create("Sizes");
  ASSERT_EQ(setText(k, "v", "0123456789"), ERROR_SUCCESS);
  DWORD size = 0, type = 0;
  EXPECT_EQ(RegQueryValueExA(k, "v", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
  EXPECT_EQ(size, 11u);
  EXPECT_EQ(type, REG_SZ);
  char small[4] = {'x', 'x', 'x', 'x'};
  size = sizeof small;
  EXPECT_EQ(RegQueryValueExA(k, "v", nullptr, nullptr, reinterpret_cast<BYTE*>(small), &size),
            ERROR_MORE_DATA);
  EXPECT_EQ(size, 11u);
  EXPECT_EQ(small[0], 'x');  // nothing copied
  EXPECT_EQ(RegQueryValueExA(k, "missing", nullptr, nullptr, nullptr, &size), ERROR_FILE_NOT_FOUND);
  DWORD reserved = 0;
  EXPECT_EQ(RegQueryValueExA(k, "v", &reserved, nullptr, nullptr, &size), ERROR_INVALID_PARAMETER);
  DWORD dw = 1;
  EXPECT_EQ(RegSetValueExA(k, "bad", 0, REG_DWORD, reinterpret_cast<BYTE*>(&dw), 3),
            ERROR_INVALID_PARAMETER);
}

TEST_P(RegStore, EnumerationOrderAndEnd) {
  HKEY k = create("Enum");
  for (char const* sub : {"beta", "Alpha", "gamma"}) {
    HKEY c = nullptr;
    ASSERT_EQ(RegCreateKeyExA(k, sub, 0, nullptr, 0, KEY_WRITE, nullptr, &c, nullptr), ERROR_SUCCESS);
    RegCloseKey(c);
  }
  for (char const* v : {"zeta", "Eta", "theta"}) ASSERT_EQ(setText(k, v, v), ERROR_SUCCESS);

  std::vector<std::string> keys, values;
  char name[64];
  for (DWORD i = 0;; ++i) {
    DWORD chars = sizeof name;
    FILETIME ft{};
    LONG rc = RegEnumKeyExA(k, i, name, &chars, nullptr, nullptr, nullptr, &ft);
    if (rc == ERROR_NO_MORE_ITEMS) break;
    ASSERT_EQ(rc, ERROR_SUCCESS);
    EXPECT_NE(ft.dwHighDateTime, 0u);
    keys.push_back(name);
  }
  for (DWORD i = 0;; ++i) {
    DWORD chars = sizeof name, type = 0;
    BYTE data[16];
    DWORD size = sizeof data;
    LONG rc = RegEnumValueA(k, i, name, &chars, nullptr, &type, data, &size);
    if (rc == ERROR_NO_MORE_ITEMS) break;
    ASSERT_EQ(rc, ERROR_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data)), name);
    values.push_back(name);
  }
  EXPECT_EQ(keys, (std::vector<std::string>{"Alpha", "beta", "gamma"}));
  EXPECT_EQ(values, (std::vector<std::string>{"zeta", "Eta", "theta"}));

  DWORD chars = 3;  // "Alpha" needs 6
  EXPECT_EQ(RegEnumKeyExA(k, 0, name, &chars, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
  chars = sizeof name;
  BYTE tiny[2];
  DWORD size = sizeof tiny;
  EXPECT_EQ(RegEnumValueA(k, 0, name, &chars, nullptr, nullptr, tiny, &size), ERROR_MORE_DATA);
  EXPECT_EQ(size, 5u);
  DWORD nKeys = 0, nValues = 0;
  ASSERT_EQ(RegQueryInfoKeyCounts(k, &nKeys, &nValues), ERROR_SUCCESS);
  EXPECT_EQ(nKeys, 3u);
  EXPECT_EQ(nValues, 3u);
}

TEST_P(RegStore, DeleteKeyRulesAndDeleteValue) {
  HKEY parent = create("Del\\Parent\\Child");
  ASSERT_NE(parent, nullptr);
  HKEY del = nullptr;
  ASSERT_EQ(open("Del", KEY_ALL_ACCESS, del), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteKeyA(del, "Parent"), ERROR_ACCESS_DENIED);  // has a sub-key
  EXPECT_EQ(RegDeleteKeyA(del, "Parent\\Child"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteKeyA(del, "Parent\\Child"), ERROR_FILE_NOT_FOUND);
  HKEY p = create("Del\\Parent");
  ASSERT_EQ(setText(p, "v", "x"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteValueA(p, "V"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteValueA(p, "v"), ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(setText(p, "w", "x"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, "DEL\\parent"), ERROR_SUCCESS);  // values go with it
  HKEY gone = nullptr;
  EXPECT_EQ(open("Del\\Parent", KEY_READ, gone), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(gone, nullptr);
  // A handle whose key was deleted refuses writes and finds nothing.
  EXPECT_EQ(setText(p, "w", "y"), ERROR_KEY_DELETED);
  EXPECT_EQ(getText(p, "w"), "<absent>");
  HKEY none = nullptr;
  EXPECT_EQ(RegCreateKeyExA(p, nullptr, 0, nullptr, 0, KEY_READ, nullptr, &none, nullptr),
            ERROR_KEY_DELETED);
}

TEST_P(RegStore, AccessRightsOfHandles) {
  create("Rights");
  HKEY ro = nullptr, wo = nullptr, en = nullptr;
  ASSERT_EQ(open("Rights", KEY_READ, ro), ERROR_SUCCESS);
  ASSERT_EQ(open("Rights", KEY_SET_VALUE, wo), ERROR_SUCCESS);
  ASSERT_EQ(open("Rights", KEY_ENUMERATE_SUB_KEYS, en), ERROR_SUCCESS);
  EXPECT_EQ(setText(ro, "v", "x"), ERROR_ACCESS_DENIED);
  EXPECT_EQ(setText(wo, "v", "x"), ERROR_SUCCESS);
  DWORD size = 0;
  EXPECT_EQ(RegQueryValueExA(wo, "v", nullptr, nullptr, nullptr, &size), ERROR_ACCESS_DENIED);
  EXPECT_EQ(RegQueryValueExA(ro, "v", nullptr, nullptr, nullptr, &size), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteValueA(ro, "v"), ERROR_ACCESS_DENIED);
  char name[16];
  DWORD chars = sizeof name;
  EXPECT_EQ(RegEnumKeyExA(wo, 0, name, &chars, nullptr, nullptr, nullptr, nullptr), ERROR_ACCESS_DENIED);
  EXPECT_EQ(RegEnumKeyExA(en, 0, name, &chars, nullptr, nullptr, nullptr, nullptr), ERROR_NO_MORE_ITEMS);
  HKEY sub = nullptr;
  EXPECT_EQ(RegCreateKeyExA(ro, "Sub", 0, nullptr, 0, KEY_READ, nullptr, &sub, nullptr),
            ERROR_ACCESS_DENIED);
}

TEST_F(RegStoreFiles, StoreFilesAndModes) {
  EXPECT_EQ(RegStorePath(HKEY_LOCAL_MACHINE), dir + "/machine.db");
  EXPECT_EQ(RegStorePath(HKEY_CURRENT_USER), dir + "/user.db");
  EXPECT_EQ(RegStorePath(HKEY_USERS), dir + "/users.db");
  EXPECT_EQ(RegStorePath(HKEY_CLASSES_ROOT), dir + "/classes.db");
  // Reading creates nothing.
  HKEY k = nullptr;
  EXPECT_EQ(open("Nothing", KEY_READ, k), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(fs::exists(dir + "/user.db"));
  EXPECT_EQ(open("", KEY_READ, k), ERROR_SUCCESS);  // the empty root exists
  char name[8];
  DWORD chars = sizeof name;
  EXPECT_EQ(RegEnumKeyExA(k, 0, name, &chars, nullptr, nullptr, nullptr, nullptr), ERROR_NO_MORE_ITEMS);

  create("A");
  create("B", HKEY_LOCAL_MACHINE);
  struct stat st;
  ASSERT_EQ(stat((dir + "/user.db").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(stat((dir + "/machine.db").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);

  // The directory is created when missing.
  std::string nested = dir + "/deeper/still";
  setenv("QUENLIB_REGISTRY_DIR", nested.c_str(), 1);
  HKEY d = create("X", HKEY_LOCAL_MACHINE);
  EXPECT_NE(d, nullptr);
  EXPECT_TRUE(fs::exists(nested + "/machine.db"));
}

TEST_F(RegStoreFiles, RemoteConnection) {
  HKEY remote = nullptr;
  EXPECT_EQ(RegConnectRegistryA("\\\\host", HKEY_LOCAL_MACHINE, &remote), ERROR_BAD_NETPATH);
  std::string remoteDir = dir + "/remote";
  setenv("QUENLIB_REGISTRY_REMOTE_DIR", remoteDir.c_str(), 1);
  // Build the remote machine's store by pointing the local root at it.
  useStore(remoteDir + "/host");
  ASSERT_EQ(setText(create("Software\\There", HKEY_LOCAL_MACHINE), "where", "remote"), ERROR_SUCCESS);
  useStore(dir);
  for (char const* name : {"\\\\host", "host", "\\\\\\\\host"}) {
    ASSERT_EQ(RegConnectRegistryA(name, HKEY_LOCAL_MACHINE, &remote), ERROR_SUCCESS) << name;
    HKEY k = nullptr;
    ASSERT_EQ(RegOpenKeyExA(remote, "software\\there", 0, KEY_READ, &k), ERROR_SUCCESS);
    EXPECT_EQ(getText(k, "where"), "remote");
    RegCloseKey(k);
    EXPECT_EQ(RegCloseKey(remote), ERROR_SUCCESS);
  }
  for (char const* bad : {"\\\\..", "\\\\a/b"})
    EXPECT_EQ(RegConnectRegistryA(bad, HKEY_LOCAL_MACHINE, &remote), ERROR_BAD_NETPATH) << bad;
  EXPECT_EQ(RegConnectRegistryA("\\\\host", HKEY_CURRENT_USER, &remote), ERROR_INVALID_HANDLE);
  ASSERT_EQ(RegConnectRegistryA(nullptr, HKEY_LOCAL_MACHINE, &remote), ERROR_SUCCESS);
  EXPECT_EQ(remote, HKEY_LOCAL_MACHINE);
}

TEST(RegExpand, EnvironmentStrings) {
  setenv("QL_EXPAND_A", "alpha", 1);
  setenv("QL_EXPAND_B", "", 1);
  unsetenv("QL_EXPAND_NONE");
  struct {
    char const* in;
    char const* out;
  } rows[] = {
      {"plain", "plain"},
      {"%QL_EXPAND_A%", "alpha"},
      {"x%QL_EXPAND_A%y%QL_EXPAND_A%z", "xalphayalphaz"},
      {"%QL_EXPAND_NONE%", "%QL_EXPAND_NONE%"},
      {"%QL_EXPAND_NONE%QL_EXPAND_A%", "%QL_EXPAND_NONEalpha"},
      {"100%", "100%"},
      {"%%", "%%"},
      {"a%QL_EXPAND_B%b", "ab"},
      {"", ""},
  };
  for (auto const& r : rows) {
    char buf[128];
    DWORD n = ExpandEnvironmentStringsA(r.in, buf, sizeof buf);
    EXPECT_STREQ(buf, r.out) << r.in;
    EXPECT_EQ(n, std::strlen(r.out) + 1) << r.in;
  }
  char tiny[3] = {'#', '#', '#'};
  EXPECT_EQ(ExpandEnvironmentStringsA("%QL_EXPAND_A%", tiny, sizeof tiny), 6u);
  EXPECT_EQ(tiny[0], '#');
  EXPECT_EQ(ExpandEnvironmentStringsA(nullptr, tiny, sizeof tiny), 0u);
}
