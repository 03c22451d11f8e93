// Stored passwords: sealed with a private machine key made once, even when
// several threads need it first at the same time.
#include <quenlib/spasswordscrambler.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>
#include <vector>

#include "security_support.h"

using namespace QuenLibA500;
using namespace securitytest;

TEST(SPasswordScrambler, SealsWithAPrivateMachineKey) {
  fs::path const dir = Scratch("scramble");
  ::setenv("QUENLIB_REGISTRY_DIR", dir.c_str(), 1);
  // First use from several threads at once: one key, every result readable.
  std::vector<std::string> results(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < results.size(); ++i)
    threads.emplace_back([&results, i] {
      SAnsiString s;
      if (SPasswordScrambler::Scramble(("pw" + std::to_string(i)).c_str(), s)) results[i] = s.getString();
    });
  for (auto& t : threads) t.join();
  for (size_t i = 0; i < results.size(); ++i) {
    SAnsiString back;
    ASSERT_TRUE(SPasswordScrambler::Unscramble(results[i].c_str(), back)) << results[i];
    EXPECT_EQ(std::string(back.getString()), "pw" + std::to_string(i));
    EXPECT_EQ(results[i].find("pw"), std::string::npos);
  }
  struct stat st {};
  ASSERT_EQ(::stat(SPasswordScrambler::KeyFilePath().getString(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(st.st_size, 32);

  std::string changed = results[0];
  changed[changed.size() - 1] = changed.back() == '0' ? '1' : '0';
  SAnsiString out;
  EXPECT_FALSE(SPasswordScrambler::Unscramble(changed.c_str(), out));
  EXPECT_FALSE(SPasswordScrambler::Unscramble("plain text", out));
  EXPECT_FALSE(SPasswordScrambler::Unscramble("QS1:abc", out));
  // Another machine's key cannot read it.
  fs::path const elsewhere = Scratch("elsewhere");
  ::setenv("QUENLIB_REGISTRY_DIR", elsewhere.c_str(), 1);
  EXPECT_FALSE(SPasswordScrambler::Unscramble(results[0].c_str(), out));
  ::unsetenv("QUENLIB_REGISTRY_DIR");
}
