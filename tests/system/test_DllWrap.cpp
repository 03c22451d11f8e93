// Shared libraries: loading by name and path, symbols, errors, and
// unloading with the last owner.
#include <quenlib/DllWrap.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

using namespace QuenLibA500;

namespace {

// Is the library in the process? (A successful probe adds a reference,
// which is given back at once.)
bool IsResident(char const* name) {
  void* h = ::dlopen(name, RTLD_NOW | RTLD_NOLOAD);
  if (h == nullptr) return false;
  ::dlclose(h);
  return true;
}

}  // namespace

TEST(DllWrap, LoadsByStemAndFindsFunctions) {
  DllWrap zlib;
  ASSERT_TRUE(zlib.load("z")) << zlib.getErrorText().getString();
  EXPECT_STREQ(zlib.getName().getString(), "libz.so");
  char const* (*version)() = nullptr;
  ASSERT_TRUE(zlib.getFunction("zlibVersion", version));
  EXPECT_EQ(std::string(version()).substr(0, 2), "1.");
  void* missing = &zlib;
  EXPECT_FALSE(zlib.getSymbol("no_such_symbol_here", missing));
  EXPECT_EQ(missing, nullptr);
  EXPECT_NE(std::string(zlib.getErrorText().getString()).find("no_such_symbol_here"), std::string::npos);
}

TEST(DllWrap, FailuresCarryTheSystemsText) {
  DllWrap lib;
  EXPECT_FALSE(lib.load("/nonexistent/libnothing.so"));
  EXPECT_FALSE(lib.isLoaded());
  std::string const text = lib.getErrorText().getString();
  EXPECT_NE(text.find("/nonexistent/libnothing.so"), std::string::npos) << text;
  EXPECT_NE(text.find("No such file"), std::string::npos) << text;
  EXPECT_FALSE(lib.load(""));
  void* address = nullptr;
  EXPECT_FALSE(lib.getSymbol("zlibVersion", address));
}

TEST(DllWrap, TheLastOwnerUnloads) {
  char const* const name = "libexpat.so.1";
  if (IsResident(name)) GTEST_SKIP() << name << " is already part of the process";
  DllWrap first(name);
  if (!first.isLoaded()) GTEST_SKIP() << name << " is not installed";
  {
    DllWrap second = first;
    first.unload();
    EXPECT_TRUE(IsResident(name)) << "a copy still owns it";
  }
  EXPECT_FALSE(IsResident(name));
}
