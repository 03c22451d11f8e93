// quen url, quen oburl and quen like end to end: output and exit status
// of the built quen binary.
#include "web_support.h"

namespace {

using Outcome = quentest::QuenRun;

class QuenUrl : public quentest::QuenTest {
 protected:
  // quen in a UTF-8 locale with the (shell-quoted) arguments; stdout only.
  static Outcome run(std::string const& args) { return quentest::RunQuen(args, "LC_ALL=C.UTF-8", false); }
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
