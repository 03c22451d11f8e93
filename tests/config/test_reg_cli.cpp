// quen reg end to end: the commands an operator types, their output, exit
// status and the files they write. Runs the built quen binary.
#include <cstring>

#include "config_support.h"

namespace fs = std::filesystem;
using Outcome = quentest::QuenRun;

namespace {

class QuenReg : public quentest::StoreTest {
 protected:
  void SetUp() override {
    if (::access(quentest::QuenPath().c_str(), X_OK) != 0) GTEST_SKIP() << "quen is not built";
    StoreTest::SetUp();
    useStore(dir + "/fresh/stores");
    quentest::unsetEtcd();
  }
  void TearDown() override {
    quentest::unsetEtcd();
    StoreTest::TearDown();
  }
  // The shared etcd member, under a prefix of this test's own; `location`
  // names it for --store and --to. Skips when etcd is not installed.
  void useEtcdMember() {
    if (quentest::EtcdCluster::program().empty()) GTEST_SKIP() << "etcd is not installed (Debian etcd-server)";
    std::string why;
    quentest::EtcdCluster* etcd = quentest::sharedEtcd(1, why);
    ASSERT_NE(etcd, nullptr) << why;
    quentest::useEtcd(etcd->endpoints());
    ::unsetenv("QUENLIB_REGISTRY_ETCD");  // quen is told the cluster on its command line only
    location = "etcd://" + etcd->endpoints().substr(std::strlen("http://"));
  }
  // quen reg with the (shell-quoted) arguments, standard error included.
  Outcome quenReg(std::string const& args) const { return quentest::RunQuen("reg " + storeOption + args, ""); }

  std::string location;
  std::string storeOption;  // "--store LOCATION " when a test runs on etcd
};

// The operator's sessions on each store: SQLite by default, etcd by --store.
class QuenRegStores : public QuenReg, public ::testing::WithParamInterface<quentest::StoreKind> {
 protected:
  void SetUp() override {
    QuenReg::SetUp();
    if (IsSkipped() || GetParam() != quentest::StoreKind::Etcd) return;
    useEtcdMember();
    storeOption = location.empty() ? "" : "--store " + location + " ";
  }
};

class QuenRegEtcd : public QuenReg {
 protected:
  void SetUp() override {
    QuenReg::SetUp();
    if (!IsSkipped()) useEtcdMember();
  }
};

INSTANTIATE_TEST_SUITE_P(Stores, QuenRegStores,
                         ::testing::Values(quentest::StoreKind::Sqlite, quentest::StoreKind::Etcd),
                         quentest::storeName);

}  // namespace

TEST_P(QuenRegStores, AddThenQueryOnAFreshStore) {
  Outcome add = quenReg("add 'HKLM\\Software\\Example' /v Greeting /d hello");
  ASSERT_EQ(add.status, 0) << add.out;
  // A write through --store etcd leaves no SQLite file behind.
  EXPECT_EQ(fs::exists(dir + "/fresh/stores/machine.db"), location.empty());
  Outcome q = quenReg("query 'HKLM\\Software\\Example'");
  EXPECT_EQ(q.status, 0);
  EXPECT_EQ(q.out, "HKEY_LOCAL_MACHINE\\Software\\Example\n    Greeting    REG_SZ    hello\n");
}

TEST_P(QuenRegStores, TypesSubKeysAndLongOptions) {
  ASSERT_EQ(quenReg("add HKCU\\\\Software\\\\Ex --value Count --type REG_DWORD --data 0x2a").status, 0);
  ASSERT_EQ(quenReg("add HKCU\\\\Software\\\\Ex\\\\Sub --value=List --type=multi_sz --data 'a\\0b'").status, 0);
  ASSERT_EQ(quenReg("add HKEY_CURRENT_USER\\\\Software\\\\Ex /ve /d dflt").status, 0);
  ASSERT_EQ(quenReg("add HKCU\\\\Software\\\\Ex /V Bin /T REG_BINARY /D 00ff10 /f").status, 0);
  ASSERT_EQ(quenReg("add HKCU\\\\Software\\\\Ex /v Big /t REG_QWORD /d 4294967296").status, 0);
  Outcome q = quenReg("query HKCU\\\\Software\\\\Ex");
  EXPECT_EQ(q.out,
            "HKEY_CURRENT_USER\\Software\\Ex\n"
            "    Count    REG_DWORD    0x2a\n"
            "    (Default)    REG_SZ    dflt\n"
            "    Bin    REG_BINARY    00FF10\n"
            "    Big    REG_QWORD    0x100000000\n"
            "\n"
            "HKEY_CURRENT_USER\\Software\\Ex\\Sub\n");
  Outcome one = quenReg("query HKCU\\\\Software\\\\Ex\\\\Sub /v list");
  EXPECT_EQ(one.out, "HKEY_CURRENT_USER\\Software\\Ex\\Sub\n    List    REG_MULTI_SZ    a\\0b\n");
  Outcome rec = quenReg("query HKCU\\\\Software\\\\Ex /s");
  EXPECT_NE(rec.out.find("\nHKEY_CURRENT_USER\\Software\\Ex\\Sub\n    List    REG_MULTI_SZ    a\\0b\n"),
            std::string::npos)
      << rec.out;
}

TEST_P(QuenRegStores, ExportDeleteImportCopy) {
  ASSERT_EQ(quenReg("add HKCU\\\\A\\\\B /v x /d 1").status, 0);
  ASSERT_EQ(quenReg("add HKCU\\\\A /v n /t REG_DWORD /d 5").status, 0);
  std::string file = dir + "/a.reg";
  ASSERT_EQ(quenReg("export HKCU\\\\A " + file).status, 0);
  Outcome again = quenReg("export HKCU\\\\A " + file);
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.out.find("exists"), std::string::npos);
  EXPECT_EQ(quentest::ReadFile(file),
            "Windows Registry Editor Version 5.00\r\n\r\n"
            "[HKEY_CURRENT_USER\\A]\r\n\"n\"=dword:00000005\r\n\r\n"
            "[HKEY_CURRENT_USER\\A\\B]\r\n\"x\"=\"1\"\r\n\r\n");

  ASSERT_EQ(quenReg("delete HKCU\\\\A").status, 0);
  Outcome gone = quenReg("query HKCU\\\\A");
  EXPECT_EQ(gone.status, 1);
  EXPECT_EQ(gone.out, "quen: HKEY_CURRENT_USER\\A: the key or value does not exist\n");
  ASSERT_EQ(quenReg("import " + file).status, 0);
  EXPECT_EQ(quenReg("query HKCU\\\\A\\\\B /v x").out, "HKEY_CURRENT_USER\\A\\B\n    x    REG_SZ    1\n");

  ASSERT_EQ(quenReg("copy HKCU\\\\A HKLM\\\\C /s").status, 0);
  EXPECT_EQ(quenReg("query HKLM\\\\C\\\\B /v x").status, 0);
  ASSERT_EQ(quenReg("delete HKLM\\\\C /va").status, 0);
  EXPECT_EQ(quenReg("query HKLM\\\\C").out, "HKEY_LOCAL_MACHINE\\C\n\nHKEY_LOCAL_MACHINE\\C\\B\n");
  ASSERT_EQ(quenReg("delete HKLM\\\\C\\\\B /v x").status, 0);
  EXPECT_EQ(quenReg("delete HKLM\\\\C\\\\B /v x").status, 1);
}

TEST_F(QuenReg, BadInputFailsWithAMessage) {
  struct {
    char const* args;
    char const* message;
  } rows[] = {
      {"frob", "quen: unknown action frob; see quen reg --help\n"},
      {"add HKXX\\\\a", "quen: unknown root in HKXX\\a (use HKLM, HKCU, HKU or HKCR)\n"},
      {"add HKCU\\\\a /t REG_DWORD /d 99999999999", "quen: not a valid number for this type: 99999999999\n"},
      {"add HKCU\\\\a /t REG_BINARY /d 0g", "quen: not hex digits: 0g\n"},
      {"add HKCU\\\\a /t REG_WHAT /d 1", "quen: unknown type REG_WHAT\n"},
      {"add HKCU\\\\a /v", "quen: option /v needs an argument\n"},
      {"query", "quen: quen reg query takes 1 argument(s); see quen reg --help\n"},
      {"delete HKLM", "quen: refusing to delete a whole root\n"},
      {"add HKCU\\\\a --bogus", "quen: unknown option --bogus\n"},
      {"--store etcd:/127.0.0.1:2379 query HKLM",
       "quen: --store etcd:/127.0.0.1:2379: not a store location (use sqlite, or etcd://HOST:PORT[,HOST:PORT...])\n"},
      {"query HKLM --store mysql", "quen: --store mysql: not a store location (use sqlite, or etcd://HOST:PORT[,HOST:PORT...])\n"},
      {"store HKLM", "quen: quen reg store takes 0 argument(s); see quen reg --help\n"},
      {"migrate HKCU\\\\a", "quen: quen reg migrate needs --to etcd://HOST:PORT[,HOST:PORT...]\n"},
      {"migrate HKCU\\\\a --to sqlite",
       "quen: --to sqlite: not an etcd cluster (use sqlite, or etcd://HOST:PORT[,HOST:PORT...])\n"},
      {"migrate HKCU\\\\a --to etcd://127.0.0.1:9 --store etcd://127.0.0.1:9",
       "quen: quen reg migrate reads the SQLite store; name the etcd cluster with --to\n"},
      // The source is read before the cluster is contacted (port 9 has no etcd).
      {"migrate HKCU\\\\missing --to etcd://127.0.0.1:9",
       "quen: HKEY_CURRENT_USER\\missing: the key or value does not exist\n"},
  };
  for (auto const& r : rows) {
    Outcome run = quenReg(r.args);
    EXPECT_EQ(run.status, 1) << r.args;
    EXPECT_EQ(run.out, r.message) << r.args;
  }
  std::string bad = dir + "/bad.reg";
  quentest::WriteFile(bad, "Windows Registry Editor Version 5.00\n[HKCU\\x]\n\"a\"=dword:zz\n");
  Outcome imp = quenReg("import " + bad);
  EXPECT_EQ(imp.status, 1);
  EXPECT_EQ(imp.out, "quen: " + bad + ": line 3: bad hex digit in dword\n");
  Outcome help = quenReg("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("Usage:\n  quen reg query", 0), 0u);
}

TEST_F(QuenReg, StorePrintsTheStoreInForce) {
  std::string const endpointsDir = dir + "/with-endpoints";
  fs::create_directories(endpointsDir);
  quentest::WriteFile(endpointsDir + "/etcd-endpoints", "etcd://10.0.0.5:2379,10.0.0.6:2379\n");
  struct {
    std::string env, args, out;
  } const rows[] = {
      {"", "store", "sqlite\n"},
      {"QUENLIB_REGISTRY_ETCD=http://127.0.0.1:2379,http://10.0.0.6:2379", "store", "etcd://127.0.0.1:2379,10.0.0.6:2379\n"},
      {"QUENLIB_REGISTRY_ETCD=127.0.0.1:2379", "--store sqlite store", "sqlite\n"},
      {"", "--store=etcd://127.0.0.1:2379 store", "etcd://127.0.0.1:2379\n"},
      {"QUENLIB_REGISTRY_DIR=" + endpointsDir, "store", "etcd://10.0.0.5:2379,10.0.0.6:2379\n"},
  };
  for (auto const& r : rows) {
    Outcome run = quentest::RunQuen("reg " + r.args, r.env);
    EXPECT_EQ(run.status, 0) << r.env << " " << r.args;
    EXPECT_EQ(run.out, r.out) << r.env << " " << r.args;
  }
}

TEST_F(QuenRegEtcd, MigrateCopiesTheTreeExactlyAndRefusesToOverwrite) {
  using namespace QuenLibA500;
  // The source, in SQLite: every type, bytes a string copy would lose, an
  // empty sub-key, a key open to everybody, and names in mixed case.
  rawSet(HKEY_CURRENT_USER, "Software\\MiXed", "", REG_SZ, std::string("dflt\0", 5));
  rawSet(HKEY_CURRENT_USER, "Software\\MiXed", "Bin", REG_BINARY, std::string("\0\xff\0", 3));
  rawSet(HKEY_CURRENT_USER, "Software\\MiXed", "Path", REG_EXPAND_SZ, std::string("%HOME%\\x\0", 9));
  rawSet(HKEY_CURRENT_USER, "Software\\MiXed", "Big", REG_QWORD, std::string("\1\0\0\0\2\0\0\0", 8));
  rawSet(HKEY_CURRENT_USER, "Software\\MiXed\\Sub", "List", REG_MULTI_SZ, std::string("a\0b\0\0", 5));
  rawSet(HKEY_CURRENT_USER, "Software\\MiXed\\Sub", "None", REG_NONE, "");
  SECURITY_DESCRIPTOR sd{};
  InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorDacl(&sd, 1, nullptr, 0);
  SECURITY_ATTRIBUTES sa{sizeof sa, &sd, 0};
  HKEY k = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\MiXed\\Open", 0, nullptr, 0, KEY_ALL_ACCESS, &sa, &k, nullptr),
            ERROR_SUCCESS);
  RegCloseKey(k);

  // Typed in another case: the cluster gets the created spelling.
  std::string const migrate = "migrate 'HKCU\\software\\MIXED' --to " + location;
  Outcome m = quenReg(migrate);
  ASSERT_EQ(m.status, 0) << m.out;
  EXPECT_EQ(m.out, "copied 3 keys and 6 values from HKEY_CURRENT_USER\\Software\\MiXed to " + location + "\n");
  std::string const fromSqlite = quenReg("export HKCU\\\\Software -").out;
  EXPECT_NE(fromSqlite.find("[HKEY_CURRENT_USER\\Software\\MiXed\\Sub]"), std::string::npos) << fromSqlite;
  EXPECT_EQ(quenReg("--store " + location + " export HKCU\\\\Software -").out, fromSqlite);
  ASSERT_EQ(RegSelectStore(location.c_str()), ERROR_SUCCESS);
  BOOL open = 0, closed = 1;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\Mixed\\Open", 0, KEY_READ, &k), ERROR_SUCCESS);
  EXPECT_EQ(RegQueryKeyOpenToEverybody(k, &open), ERROR_SUCCESS);
  RegCloseKey(k);
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\Mixed\\Sub", 0, KEY_READ, &k), ERROR_SUCCESS);
  EXPECT_EQ(RegQueryKeyOpenToEverybody(k, &closed), ERROR_SUCCESS);
  RegCloseKey(k);
  RegSelectStore("sqlite");
  EXPECT_EQ(open, 1);
  EXPECT_EQ(closed, 0);

  Outcome again = quenReg(migrate);
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.out, "quen: HKEY_CURRENT_USER\\Software\\MiXed already exists in " + location +
                           "; use --overwrite to replace it\n");
  // --overwrite replaces the tree: what only the cluster had is gone.
  ASSERT_EQ(quenReg("--store " + location + " add HKCU\\\\Software\\\\MiXed\\\\Extra /v x /d 1").status, 0);
  ASSERT_EQ(quenReg("delete HKCU\\\\Software\\\\MiXed /v Bin").status, 0);
  Outcome over = quenReg(migrate + " --overwrite");
  EXPECT_EQ(over.out, "copied 3 keys and 5 values from HKEY_CURRENT_USER\\Software\\MiXed to " + location + "\n");
  EXPECT_EQ(quenReg("--store " + location + " export HKCU\\\\Software -").out, quenReg("export HKCU\\\\Software -").out);
}

TEST_F(QuenReg, AClusterOutOfReachFailsWithTheError) {
  // Nothing listens on port 1 of the loopback address.
  std::string const nowhere = "etcd://127.0.0.1:1", env = "QUENLIB_REGISTRY_ETCD_TIMEOUT_MS=500";
  Outcome q = quentest::RunQuen("reg --store " + nowhere + " query HKLM\\\\Software", env);
  EXPECT_EQ(q.status, 1);
  EXPECT_NE(q.out.find("quen: HKEY_LOCAL_MACHINE\\Software: the etcd cluster " + nowhere +
                       " did not answer in time or refused the request\n"),
            std::string::npos)
      << q.out;
  ASSERT_EQ(quenReg("add HKCU\\\\Src /v a /d 1").status, 0);
  Outcome m = quentest::RunQuen("reg migrate HKCU\\\\Src --to " + nowhere, env);
  EXPECT_EQ(m.status, 1);
  EXPECT_NE(m.out.find("quen: HKEY_CURRENT_USER\\Src in " + nowhere + ": the etcd cluster"), std::string::npos) << m.out;
}
