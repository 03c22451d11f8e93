// quen url, quen oburl and quen like end to end: output and exit status
// of the built quen binary.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

struct Outcome {
  int status;
  std::string out;
};

class QuenUrl : public ::testing::Test {
 protected:
  void SetUp() override {
    quen = std::string(QUENLIB_BINARY_DIR) + "/tools/quen/quen";
    if (!std::filesystem::exists(quen)) GTEST_SKIP() << "quen is not built";
  }
  // Runs quen in a UTF-8 locale with the (shell-quoted) arguments; stdout only.
  Outcome run(std::string const& args) const {
    std::string cmd = "LC_ALL=C.UTF-8 " + quen + " " + args + " 2>/dev/null";
    Outcome r{-1, {}};
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
  }
  std::string quen;
};

}  // namespace

TEST_F(QuenUrl, EncodeDecodeBytewise) {
  struct Case {
    char const* args;
    int status;
    char const* out;
  } const cases[] = {
      {"url encode 'a b-c~d'", 0, "a+b%2Dc%7Ed\n"},
      {"url encode --table3 'a b,c'", 0, "a b%2Cc\n"},
      {"url decode 'caf%C3%A9+au+lait'", 0, "caf\xC3\xA9 au lait\n"},
      {"url decode --codeset windows-1252 'caf%E9'", 0, "caf\xC3\xA9\n"},
      {"url decode --strict '%G1'", 1, ""},
      {"url decode --strict '%41%u0042+'", 0, "AB \n"},
      {"url bytewise --unreserved 'a b/c'", 0, "a%20b/c\n"},
      {"url bytewise 'a b/c'", 0, "a+b%2Fc\n"},
      {"url bytewise --codeset nonsense x", 2, ""},
  };
  for (auto const& c : cases) {
    Outcome r = run(c.args);
    EXPECT_EQ(r.status, c.status) << c.args;
    EXPECT_EQ(r.out, c.out) << c.args;
  }
  Outcome piped = run("url encode < /dev/null");
  EXPECT_EQ(piped.status, 0);
  EXPECT_EQ(piped.out, "\n");
}

TEST_F(QuenUrl, ObUrlShowsPartsAndWritesBack) {
  Outcome r = run("oburl 'rpt?id=5&Name=a+b'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "object: rpt\n  id = 5\n  Name = a b\nurl: rpt?id=5&Name=a+b\n");
  Outcome bad = run("oburl 'a=1&b'");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.out, "object: \n  a = 1\nurl: a=1\n");
}

TEST_F(QuenUrl, Like) {
  struct Case {
    char const* args;
    int status;
  } const cases[] = {
      {"like 'a%c' ABC", 0},         {"like '[^a-c]x' bx", 1}, {"like '100[%]' '100%'", 0},
      {"like --wrap '*_x' 'a_x'", 0}, {"like --wrap '*_x' 'abx'", 1}, {"like 'a[b' x", 2},
  };
  for (auto const& c : cases) EXPECT_EQ(run(c.args).status, c.status) << c.args;
  EXPECT_EQ(run("like 'a%c' abc").out, "match\n");
  EXPECT_EQ(run("like 'a%c' abd").out, "no match\n");
}
