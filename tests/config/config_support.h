// Helpers of the configuration tests: a registry store of its own in a
// scratch directory for each test, raw value writes and reads through the
// store functions, and the text of a library string.
#pragma once

#include <quenlib/regapi.h>
#include <quenlib/sstring.h>

#include "etcd_support.h"
#include "text/text_support.h"

#include <memory>

namespace quentest {

// Points the registry store at a fresh directory for the test's length.
class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = scratch_.path;
    useStore(dir);
    ::unsetenv("QUENLIB_REGISTRY_REMOTE_DIR");
  }
  void TearDown() override {
    ::unsetenv("QUENLIB_REGISTRY_DIR");
    ::unsetenv("QUENLIB_REGISTRY_REMOTE_DIR");
  }
  static void useStore(std::string const& path) { ::setenv("QUENLIB_REGISTRY_DIR", path.c_str(), 1); }

  // Writes one value of any type, creating the key.
  static void rawSet(QuenLibA500::HKEY root, char const* path, char const* name, QuenLibA500::DWORD type,
                     std::string const& data) {
    using namespace QuenLibA500;
    HKEY k = nullptr;
    ASSERT_EQ(RegCreateKeyExA(root, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr), ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExA(k, name, 0, type, reinterpret_cast<BYTE const*>(data.data()),
                             static_cast<DWORD>(data.size())),
              ERROR_SUCCESS);
    RegCloseKey(k);
  }
  // The bytes of one value (and its type), or "<no key>" / "<absent>".
  static std::string rawGet(QuenLibA500::HKEY root, char const* path, char const* name,
                            QuenLibA500::DWORD* type = nullptr) {
    using namespace QuenLibA500;
    HKEY k = nullptr;
    if (RegOpenKeyExA(root, path, 0, KEY_READ, &k) != ERROR_SUCCESS) return "<no key>";
    char buf[512];
    DWORD size = sizeof buf, t = 0;
    LONG rc = RegQueryValueExA(k, name, nullptr, &t, reinterpret_cast<BYTE*>(buf), &size);
    RegCloseKey(k);
    if (rc != ERROR_SUCCESS) return "<absent>";
    if (type) *type = t;
    return std::string(buf, size);
  }

  std::string dir;

 private:
  TempDir scratch_;
};

// Etcd: one member; EtcdThreeMembers: a cluster of three, each request
// going through one member and replicated to the others.
enum class StoreKind { Sqlite, Etcd, EtcdThreeMembers };

inline std::string storeName(::testing::TestParamInfo<StoreKind> const& info) {
  switch (info.param) {
    case StoreKind::Sqlite: return "Sqlite";
    case StoreKind::Etcd: return "Etcd";
    case StoreKind::EtcdThreeMembers: return "EtcdThreeMembers";
  }
  return "Unknown";
}

// One etcd cluster of each size for the whole test program, started by the
// first test that needs it; null (with the reason in `why`) when it cannot
// start.
inline EtcdCluster* sharedEtcd(int members, std::string& why) {
  static std::unique_ptr<EtcdCluster> clusters[2];
  static std::string errors[2];
  std::unique_ptr<EtcdCluster>& etcd = clusters[members == 1 ? 0 : 1];
  std::string& error = errors[members == 1 ? 0 : 1];
  if (!etcd && error.empty()) {
    auto started = std::make_unique<EtcdCluster>(members);
    if (started->start()) etcd = std::move(started);
    else error = started->error();
  }
  why = error;
  return etcd.get();
}

// Points the predefined roots at a fresh etcd prefix of a cluster.
inline void useEtcd(std::string const& endpoints) {
  static int serial = 0;
  std::string prefix = "/t" + std::to_string(::getpid()) + "-" + std::to_string(++serial);
  ::setenv("QUENLIB_REGISTRY_ETCD", endpoints.c_str(), 1);
  ::setenv("QUENLIB_REGISTRY_ETCD_PREFIX", prefix.c_str(), 1);
}

inline void unsetEtcd() {
  for (char const* name : {"QUENLIB_REGISTRY_ETCD", "QUENLIB_REGISTRY_ETCD_PREFIX", "QUENLIB_REGISTRY_ETCD_MACHINE"})
    ::unsetenv(name);
}

// A store test run against each store in turn: SQLite in a scratch
// directory, etcd under a prefix of its own (skipped only when etcd is not
// installed).
class StoreParamTest : public StoreTest, public ::testing::WithParamInterface<StoreKind> {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    unsetEtcd();
    if (GetParam() == StoreKind::Sqlite) return;
    if (EtcdCluster::program().empty()) GTEST_SKIP() << "etcd is not installed (Debian etcd-server)";
    std::string why;
    EtcdCluster* etcd = sharedEtcd(GetParam() == StoreKind::Etcd ? 1 : 3, why);
    ASSERT_NE(etcd, nullptr) << why;
    useEtcd(etcd->endpoints());
  }
  void TearDown() override {
    unsetEtcd();
    StoreTest::TearDown();
  }
  bool onEtcd() const { return GetParam() != StoreKind::Sqlite; }
};

}  // namespace quentest
