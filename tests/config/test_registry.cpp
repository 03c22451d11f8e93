// Registry and its root classes: reading and write-back, types, deleting,
// value iteration and the legacy and instance fallbacks.
#include <quenlib/registry.h>

#include "config_support.h"
#include <sys/stat.h>

#include <cstring>

using namespace QuenLibA500;
namespace fs = std::filesystem;

namespace {

// On either fixture: every store (parameterised) or SQLite's own files.
template <class Base>
class RegistryT : public Base {
 protected:
  static bool rawType(HKEY root, char const* path, char const* name, DWORD& type) {
    return rawGet(root, path, name, &type).rfind('<', 0) != 0;
  }
  quentest::AssertLog log;
  std::vector<quentest::AssertLog::Seen>& seen = log.seen;
  using Base::rawGet;
};

using RegistryTest = RegistryT<quentest::StoreParamTest>;
using RegistryFiles = RegistryT<quentest::StoreTest>;

using quentest::str;

Registry reg(char const* path, HKEY root = HKEY_CURRENT_USER) { return Registry(path, SAnsiStringCI(), root); }

}  // namespace

INSTANTIATE_TEST_SUITE_P(Stores, RegistryTest,
                         ::testing::Values(quentest::StoreKind::Sqlite, quentest::StoreKind::Etcd,
                                           quentest::StoreKind::EtcdThreeMembers), quentest::storeName);

TEST_P(RegistryTest, ReadsEachTypeAsText) {
  setenv("QL_REG_TEST_HOME", "/home/tester", 1);
  rawSet(HKEY_CURRENT_USER, "Types", "sz", REG_SZ, std::string("text\0", 5));
  rawSet(HKEY_CURRENT_USER, "Types", "dw", REG_DWORD, std::string("\xff\xff\xff\xff", 4));
  rawSet(HKEY_CURRENT_USER, "Types", "exp", REG_EXPAND_SZ, std::string("%QL_REG_TEST_HOME%/x\0", 21));
  rawSet(HKEY_CURRENT_USER, "Types", "bin", REG_BINARY, "abc");
  rawSet(HKEY_CURRENT_USER, "Types", "multi", REG_MULTI_SZ, std::string("a\0b\0\0", 5));
  rawSet(HKEY_CURRENT_USER, "Types", "empty", REG_SZ, std::string("\0", 1));
  Registry r = reg("Types");
  struct {
    char const* name;
    char const* text;
    bool typed;
    DWORD type;
  } rows[] = {
      {"sz", "text", true, REG_SZ},
      {"SZ", "text", true, REG_SZ},
      {"dw", "4294967295", true, REG_DWORD},
      {"exp", "/home/tester/x", true, REG_EXPAND_SZ},
      {"bin", "", false, 0},
      {"multi", "", false, 0},
      {"empty", "", false, 0},  // an empty string counts as absent
      {"absent", "", false, 0},
  };
  for (auto const& row : rows) {
    EXPECT_EQ(str(r.ReadValue(row.name)), row.text) << row.name;
    DWORD type = 12345;
    EXPECT_EQ(r.GetType(row.name, type), row.typed) << row.name;
    if (row.typed) {
      EXPECT_EQ(type, row.type) << row.name;
    }
  }
  EXPECT_TRUE(seen.empty());
}

TEST_P(RegistryTest, DefaultsAreWrittenBack) {
  Registry r = reg("Software\\Defaults");
  EXPECT_EQ(str(r.ReadValue("text", SAnsiString("fallback"))), "fallback");
  DWORD type = 0;
  ASSERT_TRUE(rawType(HKEY_CURRENT_USER, "Software\\Defaults", "text", type));
  EXPECT_EQ(type, REG_SZ);
  EXPECT_EQ(str(r.ReadValue("text", SAnsiString("other"))), "fallback");  // stored value wins

  EXPECT_EQ(str(r.ReadValue("none", SAnsiString())), "");
  EXPECT_FALSE(rawType(HKEY_CURRENT_USER, "Software\\Defaults", "none", type));

  EXPECT_EQ(str(r.ReadValue("zero", 0UL)), "0");
  ASSERT_TRUE(rawType(HKEY_CURRENT_USER, "Software\\Defaults", "zero", type));
  EXPECT_EQ(type, REG_DWORD);
  EXPECT_EQ(str(r.ReadValue("n", 4000000000UL)), "4000000000");

  // An existing empty value is absent too: the default replaces it.
  rawSet(HKEY_CURRENT_USER, "Software\\Defaults", "blank", REG_SZ, std::string("\0", 1));
  EXPECT_EQ(str(r.ReadValue("blank", SAnsiString("filled"))), "filled");
  EXPECT_TRUE(seen.empty());
}

TEST_F(RegistryFiles, DefaultIsNotReturnedWhenItCannotBeStored) {
  Registry seed = reg("Software\\Locked", HKEY_LOCAL_MACHINE);
  ASSERT_TRUE(seed.WriteValue("present", SAnsiString("yes")));
  ASSERT_EQ(chmod((dir + "/machine.db").c_str(), 0444), 0);
  Registry r = reg("Software\\Locked", HKEY_LOCAL_MACHINE);
  EXPECT_EQ(str(r.ReadValue("present")), "yes");
  EXPECT_EQ(str(r.ReadValue("text", SAnsiString("fallback"))), "");
  EXPECT_TRUE(seen.empty());  // a failing create on the text path is silent
  EXPECT_EQ(str(r.ReadValue("n", 7UL)), "");
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].message, "RegCreateKeyEx(Software\\Locked) failed. Error code: 5");
  EXPECT_FALSE(r.WriteValue("x", SAnsiString("y")));
  EXPECT_FALSE(r.DeleteValue("present"));
  chmod((dir + "/machine.db").c_str(), 0644);
}

TEST_P(RegistryTest, DeleteValueAndKeys) {
  Registry parent = reg("Software\\Del");
  Registry child = reg("Software\\Del\\Child");
  ASSERT_TRUE(parent.WriteValue("v", SAnsiString("x")));
  ASSERT_TRUE(child.WriteValue("w", SAnsiString("y")));
  EXPECT_TRUE(parent.DeleteValue("V"));
  EXPECT_FALSE(parent.DeleteValue("v"));
  EXPECT_EQ(str(parent.ReadValue("v")), "");

  EXPECT_FALSE(parent.DeleteKey());
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].message, "DeleteKey: There is subkey inside key Software\\Del");
  EXPECT_TRUE(parent.KeyExists());
  EXPECT_TRUE(child.DeleteKey());
  EXPECT_FALSE(child.KeyExists());
  EXPECT_TRUE(child.DeleteKey());  // absent counts as deleted
  EXPECT_TRUE(parent.DeleteKey());
  EXPECT_FALSE(reg("Software\\Del").KeyExists());
}

TEST_P(RegistryTest, ValueIteratorTextRules) {
  setenv("QL_REG_TEST_X", "ex", 1);
  Registry r = reg("Vals");
  ASSERT_TRUE(r.WriteValue("first", SAnsiString("one")));
  rawSet(HKEY_CURRENT_USER, "Vals", "blob", REG_BINARY, "zz");
  ASSERT_TRUE(r.WriteValue("num", 12u));
  rawSet(HKEY_CURRENT_USER, "Vals", "exp", REG_EXPAND_SZ, std::string("%QL_REG_TEST_X%\0", 16));
  std::vector<std::string> got;
  Registry::ValueIterator it = r.EnumValues();
  for (; it; ++it) got.push_back(str(it.GetName()) + "=" + str(it.GetValue()));
  // The binary value keeps the previous value's text.
  EXPECT_EQ(got, (std::vector<std::string>{"first=one", "blob=one", "num=12", "exp=ex"}));
  EXPECT_EQ(str(it.GetName()), "");
  EXPECT_EQ(str(it.GetValue()), "");

  std::string longValue(300, 'q');
  setenv("QL_REG_TEST_LONG2", longValue.c_str(), 1);
  rawSet(HKEY_CURRENT_USER, "Vals2", "exp", REG_EXPAND_SZ, std::string("%QL_REG_TEST_LONG2%\0", 20));
  Registry::ValueIterator v = reg("Vals2").EnumValues();
  EXPECT_TRUE(v);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].message,
            "Registry::ValueIterator::NextValue: Buffer is not big enough to accomodate expanded string from registry");
  Registry::ValueIterator w = r.EnumValues();
  v.consume(w);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1].condition, "m_enumValue == NULL");
  EXPECT_EQ(seen[1].message, "You are consuming into a non empty ValueIterator. This will leak the REG_HANDLE.");
  EXPECT_FALSE(reg("Vals\\None").EnumValues());
}

TEST_P(RegistryTest, UserValuesFallBackToLegacyRootsAndMigrateOnce) {
  rawSet(HKEY_CURRENT_USER, "Brackwell Software", "Lang", REG_SZ, std::string("de\0", 3));
  rawSet(HKEY_CURRENT_USER, "Software\\Tolvane", "Lang", REG_SZ, std::string("fr\0", 3));
  rawSet(HKEY_CURRENT_USER, "Software\\Lumaris Software", "Size", REG_DWORD, std::string("\x10\0\0\0", 4));
  rawSet(HKEY_CURRENT_USER, "Lumaris Decisions", "Path", REG_EXPAND_SZ, std::string("p\0", 2));
  UserCompanyRegistry user;
  EXPECT_EQ(str(user.ReadValue("Lang")), "de");  // the earlier root wins
  EXPECT_EQ(str(user.ReadValue("Size")), "16");
  EXPECT_EQ(str(user.ReadValue("Path")), "p");
  DWORD type = 0;
  ASSERT_TRUE(rawType(HKEY_CURRENT_USER, "Software\\Orrin Tolvane", "Lang", type));
  EXPECT_EQ(type, REG_SZ);
  ASSERT_TRUE(rawType(HKEY_CURRENT_USER, "Software\\Orrin Tolvane", "Size", type));
  EXPECT_EQ(type, REG_DWORD);
  EXPECT_FALSE(rawType(HKEY_CURRENT_USER, "Software\\Orrin Tolvane", "Path", type));  // not migrated
  // Later reads find the migrated copy even when the old root changes.
  rawSet(HKEY_CURRENT_USER, "Brackwell Software", "Lang", REG_SZ, std::string("it\0", 3));
  EXPECT_EQ(str(user.ReadValue("Lang")), "de");
  EXPECT_EQ(str(user.ReadValue("Nowhere")), "");
  EXPECT_EQ(str(user.ReadValue("Nowhere", SAnsiString("dflt"))), "dflt");
  EXPECT_EQ(str(user.ReadValue("Count", 3UL)), "3");

  // A user class with an appended part looks below each legacy root too.
  rawSet(HKEY_CURRENT_USER, "Software\\Tolvane\\Suite KR 4.0\\Shared\\Tool", "Color", REG_SZ,
         std::string("red\0", 4));
  UserSharedRegistry shared("Tool");
  EXPECT_EQ(str(shared.ReadValue("Color")), "red");
  EXPECT_EQ(str(reg("Software\\Orrin Tolvane\\Suite KR 4.0\\Shared\\Tool").ReadValue("Color")), "red");
}

TEST_P(RegistryTest, ServerInstancesAndODBCFallbacks) {
  APSRegistry server;
  ASSERT_TRUE(server.WriteValue(APSRegistry::REG_THREADPOOL_SIZE, 8u));
  APSRegistry inst("Main");
  EXPECT_EQ(str(inst.ReadValue(APSRegistry::REG_THREADPOOL_SIZE)), "8");  // from the server key
  ASSERT_TRUE(inst.WriteValue(APSRegistry::REG_THREADPOOL_SIZE, 4u));
  EXPECT_EQ(str(inst.ReadValue(APSRegistry::REG_THREADPOOL_SIZE)), "4");
  ASSERT_TRUE(APSRegistry("Backup").WriteValue("x", 1u));
  std::vector<std::string> names;
  for (auto it = server.EnumInstances(); it; ++it) names.push_back(str(it.GetKey()));
  EXPECT_EQ(names, (std::vector<std::string>{"Backup", "Main"}));
  EXPECT_EQ(str(inst.ReadValue("Missing", SAnsiString("d"))), "d");
  EXPECT_EQ(str(reg("Software\\Orrin Tolvane\\Suite KR 4.0\\CMS\\Instances\\Main", HKEY_LOCAL_MACHINE)
                    .ReadValue("Missing")),
            "d");

  rawSet(HKEY_CURRENT_USER, "Software\\ODBC", "Driver", REG_SZ, std::string("user\0", 5));
  ODBCRegistry odbc;
  EXPECT_EQ(str(odbc.ReadValue("Driver")), "user");
  ASSERT_TRUE(odbc.WriteValue("Driver", SAnsiString("machine")));
  EXPECT_EQ(str(odbc.ReadValue("Driver")), "machine");
  EXPECT_EQ(str(odbc.ReadValue("Other", 5UL)), "5");
}

TEST_P(RegistryTest, CopyKeyAndDeleteKeyRecursive) {
  rawSet(HKEY_CURRENT_USER, "Src", "text", REG_SZ, std::string("abc\0", 4));
  rawSet(HKEY_CURRENT_USER, "Src", "num", REG_DWORD, std::string("\x07\0\0\0", 4));
  rawSet(HKEY_CURRENT_USER, "Src", "numText", REG_SZ, std::string("12\0", 3));
  rawSet(HKEY_CURRENT_USER, "Src\\Sub\\Deep", "leaf", REG_SZ, std::string("deep\0", 5));
  HKEY empty = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "Src\\Empty", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &empty, nullptr),
            ERROR_SUCCESS);
  RegCloseKey(empty);
  // More values than one etcd transaction holds.
  for (int i = 0; i < 150; ++i)
    rawSet(HKEY_CURRENT_USER, "Src\\Many", ("v" + std::to_string(i)).c_str(), REG_SZ, std::to_string(i) + '\0');
  ASSERT_TRUE(Registry::CopyKey(HKEY_CURRENT_USER, "Src", HKEY_LOCAL_MACHINE, "Dst"));
  struct {
    char const* path;
    char const* name;
    DWORD type;
    std::string bytes;
  } const rows[] = {
      {"Dst", "text", REG_SZ, std::string("abc\0", 4)},
      {"Dst", "num", REG_DWORD, std::string("\x07\0\0\0", 4)},
      {"Dst", "numText", REG_SZ, std::string("12\0", 3)},  // the type is copied, not the text's look
      {"Dst\\Sub\\Deep", "leaf", REG_SZ, std::string("deep\0", 5)},
      {"Dst\\Many", "v149", REG_SZ, std::string("149\0", 4)},
      {"Dst\\Empty", "x", 0, "<no key>"},  // a key without values is not copied
  };
  for (auto const& r : rows) {
    DWORD type = 0;
    EXPECT_EQ(rawGet(HKEY_LOCAL_MACHINE, r.path, r.name, &type), r.bytes) << r.path << " " << r.name;
    if (r.type) {
      EXPECT_EQ(type, r.type) << r.name;
    }
  }
  Registry dst = reg("Dst", HKEY_LOCAL_MACHINE);
  ASSERT_TRUE(dst.DeleteKeyRecursive(false));
  EXPECT_FALSE(dst.EnumSubKeys());
  EXPECT_EQ(str(dst.ReadValue("text")), "abc");
  Registry src = reg("Src");
  ASSERT_TRUE(src.DeleteKeyRecursive(true));
  EXPECT_FALSE(src.KeyExists());
  EXPECT_EQ(rawGet(HKEY_CURRENT_USER, "Src\\Sub\\Deep", "leaf"), "<no key>");
  EXPECT_TRUE(seen.empty());
}
