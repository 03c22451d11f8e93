// The etcd store's cache under threads: readers of one process read while
// its writers write and the watch thread applies the same writes again.
// Every value read is whole and never older than one read before it, and
// each writer's last write is what every thread reads at the end.
#include "config_support.h"

#include <atomic>
#include <thread>

using namespace QuenLibA500;

namespace {

class RegEtcdConcurrent : public quentest::StoreParamTest {};

DWORD readCounter(HKEY k, char const* name) {
  DWORD v = 0, size = sizeof v;
  return RegQueryValueExA(k, name, nullptr, nullptr, reinterpret_cast<BYTE*>(&v), &size) == ERROR_SUCCESS ? v : 0;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Stores, RegEtcdConcurrent, ::testing::Values(quentest::StoreKind::Etcd), quentest::storeName);

TEST_P(RegEtcdConcurrent, ReadersNeverSeeAValueGoBack) {
  constexpr DWORD kWrites = 150;
  char const* const names[] = {"a", "b"};
  HKEY k = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Conc", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr),
            ERROR_SUCCESS);
  std::atomic<int> writing{2}, faults{0};
  std::vector<std::thread> threads;
  for (char const* name : names)
    threads.emplace_back([&, name] {
      for (DWORD n = 1; n <= kWrites; ++n)
        if (RegSetValueExA(k, name, 0, REG_DWORD, reinterpret_cast<BYTE const*>(&n), sizeof n) != ERROR_SUCCESS) ++faults;
      --writing;
    });
  for (int r = 0; r < 3; ++r)
    threads.emplace_back([&] {
      DWORD seen[2] = {0, 0};
      while (writing > 0)
        for (int i = 0; i < 2; ++i) {
          DWORD v = readCounter(k, names[i]);
          if (v < seen[i] || v > kWrites) ++faults;
          seen[i] = v;
        }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(faults, 0);
  for (char const* name : names) EXPECT_EQ(readCounter(k, name), kWrites) << name;
  RegCloseKey(k);
}
