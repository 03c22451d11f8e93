// Helpers of the configuration tests: a registry store of its own in a
// scratch directory for each test, raw value writes and reads through the
// store functions, and the text of a library string.
#pragma once

#include <quenlib/regapi.h>
#include <quenlib/sstring.h>

#include "text/text_support.h"

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

}  // namespace quentest
