// The registry on etcd: choosing the store, the key layout in the cluster,
// an unreachable cluster, a cluster of three losing members, processes and
// machines sharing keys, and the watch that keeps the cache current.
#include "config/etcdreply.h"
#include "config_support.h"

#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <set>
#include <thread>

using namespace QuenLibA500;
using Clock = std::chrono::steady_clock;

namespace {

class RegEtcd : public quentest::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    quentest::unsetEtcd();
    if (quentest::EtcdCluster::program().empty())
      GTEST_SKIP() << "etcd is not installed (Debian etcd-server)";
  }
  void TearDown() override {
    quentest::unsetEtcd();
    ::unsetenv("QUENLIB_REGISTRY_ETCD_TIMEOUT_MS");
    StoreTest::TearDown();
  }
  // The shared member, under a fresh prefix.
  std::string useShared() {
    std::string why;
    quentest::EtcdCluster* etcd = quentest::sharedEtcd(1, why);
    EXPECT_NE(etcd, nullptr) << why;
    if (!etcd) return {};
    quentest::useEtcd(etcd->endpoints());
    return etcd->endpoints();
  }
  static LONG setText(HKEY root, char const* path, char const* name, std::string const& text) {
    HKEY k = nullptr;
    LONG rc = RegCreateKeyExA(root, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr);
    if (rc != ERROR_SUCCESS) return rc;
    rc = RegSetValueExA(k, name, 0, REG_SZ, reinterpret_cast<BYTE const*>(text.c_str()),
                        static_cast<DWORD>(text.size() + 1));
    RegCloseKey(k);
    return rc;
  }
  static std::string getText(HKEY root, char const* path, char const* name) {
    std::string raw = rawGet(root, path, name);
    return raw.empty() || raw[0] == '<' ? raw : raw.substr(0, raw.size() - 1);
  }
};

// Waits for a child with a deadline; kills it when the deadline passes.
int reap(pid_t pid, std::chrono::seconds limit = std::chrono::seconds(60)) {
  int status = 0;
  auto const deadline = Clock::now() + limit;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs `body` in a child process; its exit code (or -1).
template <class F>
int inChild(F body) {
  pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  return pid < 0 ? -1 : reap(pid);
}

// The keys below a prefix, as etcdctl lists them.
std::set<std::string> etcdKeys(std::string const& endpoints, std::string const& prefix) {
  std::string cmd = "ETCDCTL_API=3 etcdctl --endpoints=" + endpoints +
                    " get --prefix --keys-only -w json " + prefix + " 2>/dev/null";
  std::string out;
  if (FILE* p = ::popen(cmd.c_str(), "r")) {
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    ::pclose(p);
  }
  std::set<std::string> keys;
  for (size_t at = 0; (at = out.find("\"key\":\"", at)) != std::string::npos;) {
    at += 7;
    std::string key;
    etcd::base64Decode(out.substr(at, out.find('"', at) - at), key);
    keys.insert(key);
  }
  return keys;
}

}  // namespace

TEST_F(RegEtcd, SelectionByOverrideEnvironmentAndFile) {
  // The file is read once per registry directory.
  std::filesystem::create_directories(dir + "/with");
  quentest::WriteFile(dir + "/with/etcd-endpoints", "http://127.0.0.1:2379, 127.0.0.2:2380\n");
  useStore(dir + "/with");
  EXPECT_EQ(RegStoreLocation(), "etcd://127.0.0.1:2379,127.0.0.2:2380");
  useStore(dir);
  EXPECT_EQ(RegStoreLocation(), "sqlite");
  ::setenv("QUENLIB_REGISTRY_ETCD", "http://10.0.0.1:1", 1);
  EXPECT_EQ(RegStoreLocation(), "etcd://10.0.0.1:1");
  // The override is for the rest of the process: try it in a child.
  struct Row {
    char const* location;
    LONG rc;
    char const* inForce;
  } const rows[] = {
      {"etcd://h:1,h2:2", ERROR_SUCCESS, "etcd://h:1,h2:2"},
      {"http://a:1,http://b:2", ERROR_SUCCESS, "etcd://a:1,b:2"},
      {"etcd://a", ERROR_INVALID_PARAMETER, "etcd://a:1,b:2"},
      {"ftp://a:1", ERROR_INVALID_PARAMETER, nullptr},
      {"etcd://a:0", ERROR_INVALID_PARAMETER, nullptr},
      {"etcd://a:70000", ERROR_INVALID_PARAMETER, nullptr},
      {"etcd://a:1,", ERROR_INVALID_PARAMETER, nullptr},
      {"sqlite", ERROR_SUCCESS, "sqlite"},
      {"etcd://[::1]:5", ERROR_SUCCESS, "etcd://[::1]:5"},
      {"", ERROR_SUCCESS, "sqlite"},
      {nullptr, ERROR_SUCCESS, "sqlite"},
  };
  int const bad = inChild([&] {
    int failures = 0;
    std::string last = RegStoreLocation();
    for (auto const& r : rows) {
      if (RegSelectStore(r.location) != r.rc) ++failures;
      if (r.inForce) last = r.inForce;
      if (RegStoreLocation() != last) ++failures;
    }
    return failures;
  });
  EXPECT_EQ(bad, 0);
}

TEST_F(RegEtcd, KeyLayoutAndLongPathsInOneCluster) {
  std::string const endpoints = useShared();
  ASSERT_FALSE(endpoints.empty());
  ::setenv("QUENLIB_REGISTRY_ETCD_MACHINE", "layout", 1);
  ASSERT_EQ(setText(HKEY_LOCAL_MACHINE, "Software\\Example", "Answer", "42"), ERROR_SUCCESS);
  std::string const base =
      std::string(::getenv("QUENLIB_REGISTRY_ETCD_PREFIX")) + "/m/layout/machine/";
  EXPECT_EQ(
      etcdKeys(endpoints, base),
      (std::set<std::string>{base + "\1software", base + "\1software\1example",
                             base + "\1software\1example" + std::string(1, '\0') + "answer"}));
  // A path longer than one transaction may hold is created in parts.
  std::string deep = "Deep";
  for (int i = 0; i < 70; ++i) deep += "\\k" + std::to_string(i);
  ASSERT_EQ(setText(HKEY_CURRENT_USER, deep.c_str(), "v", "end"), ERROR_SUCCESS);
  EXPECT_EQ(getText(HKEY_CURRENT_USER, deep.c_str(), "V"), "end");
  // Another machine of the same cluster; a machine without keys is no machine.
  ::setenv("QUENLIB_REGISTRY_ETCD_MACHINE", "other", 1);
  EXPECT_EQ(getText(HKEY_LOCAL_MACHINE, "Software\\Example", "Answer"), "<no key>");
  HKEY remote = nullptr;
  ASSERT_EQ(RegConnectRegistryA("\\\\layout", HKEY_LOCAL_MACHINE, &remote), ERROR_SUCCESS);
  EXPECT_EQ(getText(remote, "software\\example", "answer"), "42");
  RegCloseKey(remote);
  for (char const* name : {"\\\\nobody", "\\\\a/b", "\\\\.."})
    EXPECT_EQ(RegConnectRegistryA(name, HKEY_LOCAL_MACHINE, &remote), ERROR_BAD_NETPATH) << name;
}

TEST_F(RegEtcd, UnreachableClusterFailsWithinTheTimeOut) {
  // A port that refuses connections, and one that accepts them and never answers.
  int silent = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  ASSERT_EQ(::listen(silent, 16), 0);
  ::getsockname(silent, reinterpret_cast<sockaddr*>(&a), &len);
  std::string const silentUrl = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
  ::setenv("QUENLIB_REGISTRY_ETCD_TIMEOUT_MS", "400", 1);
  for (std::string const& endpoints :
       {std::string("127.0.0.1:1"), silentUrl, "127.0.0.1:1," + silentUrl}) {
    quentest::useEtcd(endpoints);
    quentest::TraceLog traces;
    auto const start = Clock::now();
    HKEY k = nullptr;
    EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\X", 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, &k, nullptr),
              ERROR_REGISTRY_IO_FAILED)
        << endpoints;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software", 0, KEY_READ, &k),
              ERROR_REGISTRY_IO_FAILED);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(2 * 400 + 600)) << endpoints;
    ASSERT_EQ(traces.texts.size(), 2u) << endpoints;
    EXPECT_NE(traces.texts[0].find("etcd request failed"), std::string::npos) << traces.texts[0];
  }
  ::close(silent);
}

TEST_F(RegEtcd, ThreeMembersLoseOneThenTwo) {
  quentest::EtcdCluster etcd(3);
  ASSERT_TRUE(etcd.start()) << etcd.error();
  std::map<std::string, std::string> acknowledged;
  auto write = [&](int i) {
    std::string name = "v" + std::to_string(i);
    LONG rc = setText(HKEY_LOCAL_MACHINE, "Software\\Cluster", name.c_str(), "value " + name);
    if (rc == ERROR_SUCCESS) acknowledged[name] = "value " + name;
    return rc;
  };
  auto expectAll = [&](std::string const& endpoints) {
    ::setenv("QUENLIB_REGISTRY_ETCD", endpoints.c_str(), 1);
    for (auto const& [name, value] : acknowledged)
      EXPECT_EQ(getText(HKEY_LOCAL_MACHINE, "Software\\Cluster", name.c_str()), value)
          << name << " via " << endpoints;
  };
  quentest::useEtcd(etcd.endpoints({0}));
  for (int i = 0; i < 10; ++i) ASSERT_EQ(write(i), ERROR_SUCCESS);
  expectAll(etcd.endpoints({1}));  // written through one member, read through another

  ::setenv("QUENLIB_REGISTRY_ETCD", etcd.endpoints().c_str(), 1);
  etcd.kill(0);
  auto const settle = Clock::now() + std::chrono::seconds(15);
  while (write(10) != ERROR_SUCCESS && Clock::now() < settle)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (int i = 11; i < 20; ++i) EXPECT_EQ(write(i), ERROR_SUCCESS) << "one member down";
  expectAll(etcd.endpoints({2, 1}));

  ::setenv("QUENLIB_REGISTRY_ETCD", etcd.endpoints().c_str(), 1);
  etcd.kill(1);
  for (int i = 20; i < 25; ++i) {
    quentest::TraceLog traces;
    auto const start = Clock::now();
    LONG rc = write(i);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(3000 * 2 + 1000));
    if (rc == ERROR_SUCCESS) continue;  // stored before the quorum went: checked below
    EXPECT_EQ(rc, ERROR_REGISTRY_IO_FAILED);
    EXPECT_FALSE(traces.texts.empty());
  }
  ASSERT_TRUE(etcd.restart(0)) << etcd.error();
  ASSERT_TRUE(etcd.restart(1)) << etcd.error();
  expectAll(etcd.endpoints({1, 0, 2}));
  EXPECT_GE(acknowledged.size(), 20u);
}

TEST_F(RegEtcd, ProcessesAndMachinesShareKeys) {
  ASSERT_FALSE(useShared().empty());
  // Two processes on machine "alpha" write the same key; one on "beta"
  // writes its own and reads alpha's. Every read sees a whole value one of
  // them wrote.
  auto worker = [&](char const* machine, int id) {
    return [=] {
      ::setenv("QUENLIB_REGISTRY_ETCD_MACHINE", machine, 1);
      int faults = 0;
      for (int n = 0; n < 40; ++n) {
        std::string const mine = "w" + std::to_string(id);
        if (setText(HKEY_LOCAL_MACHINE, "Software\\Shared", mine.c_str(), std::to_string(n)) !=
            ERROR_SUCCESS)
          ++faults;
        if (setText(HKEY_LOCAL_MACHINE, "Software\\Shared", "last",
                    mine + ":" + std::to_string(n)) != ERROR_SUCCESS)
          ++faults;
        if (getText(HKEY_LOCAL_MACHINE, "Software\\Shared", mine.c_str()) != std::to_string(n))
          ++faults;
        std::string last = getText(HKEY_LOCAL_MACHINE, "Software\\Shared", "last");
        if (last.rfind("w", 0) != 0 || last.find(':') == std::string::npos) ++faults;
      }
      return faults;
    };
  };
  pid_t pids[3];
  int ids = 0;
  for (auto [machine, id] : {std::pair{"alpha", 0}, {"alpha", 1}, {"beta", 2}}) {
    pids[ids] = ::fork();
    if (pids[ids] == 0) ::_exit(worker(machine, id)());
    ++ids;
  }
  for (pid_t pid : pids) EXPECT_EQ(reap(pid), 0);
  ::setenv("QUENLIB_REGISTRY_ETCD_MACHINE", "beta", 1);
  HKEY alpha = nullptr;
  ASSERT_EQ(RegConnectRegistryA("\\\\alpha", HKEY_LOCAL_MACHINE, &alpha), ERROR_SUCCESS);
  EXPECT_EQ(getText(alpha, "Software\\Shared", "w0"), "39");
  EXPECT_EQ(getText(alpha, "Software\\Shared", "w1"), "39");
  EXPECT_EQ(getText(alpha, "Software\\Shared", "w2"), "<absent>");
  EXPECT_EQ(getText(HKEY_LOCAL_MACHINE, "Software\\Shared", "w2"), "39");
  EXPECT_EQ(getText(HKEY_LOCAL_MACHINE, "Software\\Shared", "last"), "w2:39");
  RegCloseKey(alpha);
}

TEST_F(RegEtcd, WatchBringsAnotherProcesssWriteToTheCache) {
  ASSERT_FALSE(useShared().empty());
  ASSERT_EQ(setText(HKEY_LOCAL_MACHINE, "Software\\Watch", "seen", "before"), ERROR_SUCCESS);
  EXPECT_EQ(getText(HKEY_LOCAL_MACHINE, "Software\\Watch", "seen"), "before");
  for (int round = 0; round < 3; ++round) {
    std::string const value = "round " + std::to_string(round);
    ASSERT_EQ(
        inChild([&] {
          return setText(HKEY_LOCAL_MACHINE, "Software\\Watch", "seen", value) == ERROR_SUCCESS ? 0
                                                                                                : 1;
        }),
        0);
    auto const deadline = Clock::now() + std::chrono::seconds(5);
    while (getText(HKEY_LOCAL_MACHINE, "Software\\Watch", "seen") != value &&
           Clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(getText(HKEY_LOCAL_MACHINE, "Software\\Watch", "seen"), value);
  }
}
