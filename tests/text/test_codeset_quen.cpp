// quen conv end to end: conversions, NUL bytes kept, the exit statuses and
// the atomic output file.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

std::string const kQuen = std::string(QUENLIB_BINARY_DIR) + "/tools/quen/quen";

struct Result {
  int status;
  std::string out;
};

// Runs quen with the input bytes on standard input.
Result run(std::string const& args, std::string const& input) {
  std::string const in = ::testing::TempDir() + "quen_conv_in_" + std::to_string(::getpid());
  std::ofstream(in, std::ios::binary) << input;
  std::string const cmd = kQuen + " " + args + " < " + in + " 2>/dev/null";
  std::FILE* p = ::popen(cmd.c_str(), "r");
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int const st = ::pclose(p);
  ::unlink(in.c_str());
  return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, out};
}

class QuenConv : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access(kQuen.c_str(), X_OK) != 0) GTEST_SKIP() << "quen is not built";
  }
};

}  // namespace

TEST_F(QuenConv, Conversions) {
  struct Case {
    char const* args;
    std::string in;
    std::string out;
  } const cases[] = {
      {"conv -f utf-8 -t cp1252", "caf\xC3\xA9 \xE2\x82\xAC", "caf\xE9 \x80"},
      {"conv -f LATIN1 -t utf8", "\x80", "\xE2\x82\xAC"},
      {"conv -f latin9 -t utf-8", "\xA4", "\xE2\x82\xAC"},
      {"conv -f sjis -t utf-8", "\x93\xFA\x96\x7B", "\xE6\x97\xA5\xE6\x9C\xAC"},
      {"conv -f utf-8 -t 932", "a\xC3\xA9z", "a?z"},
      {"conv -f utf-8 -t utf-16", "A\xE2\x82\xAC", std::string("A\0\xAC\x20", 4)},
      {"conv -f utf-16be -t utf-8", std::string("\0A\x20\xAC", 4), "A\xE2\x82\xAC"},
      {"conv -f utf-16 -t utf-8", std::string("\xFF\xFE" "A\0", 4), "A"},
      {"conv -f utf-8 -t cp1252", std::string("a\0b", 3), std::string("a\0b", 3)},
      {"conv -f utf-8 -t utf-16", std::string("a\0", 2), std::string("a\0\0\0", 4)},
  };
  for (auto const& c : cases) {
    Result const r = run(c.args, c.in);
    EXPECT_EQ(r.status, 0) << c.args;
    EXPECT_EQ(r.out, c.out) << c.args;
  }
}

TEST_F(QuenConv, FailuresHaveTheirStatus) {
  EXPECT_EQ(run("conv -f utf-8 -t latin9", "ok\xC3\x28").status, 1);
  EXPECT_EQ(run("conv -f utf-8 -t latin9", "ok\xC3\x28").out, "");
  EXPECT_EQ(run("conv -f utf-16 -t utf-8", std::string("\0\xD8", 2)).status, 1);
  EXPECT_EQ(run("conv -f utf-16 -t utf-8", "abc").status, 1);
  EXPECT_EQ(run("conv -f ebcdic -t utf-8", "x").status, 2);
  EXPECT_EQ(run("conv -f utf-8 -t utf-8 /nonexistent/file", "").status, 3);
}

TEST_F(QuenConv, WritesTheOutputFile) {
  std::string const out = ::testing::TempDir() + "quen_conv_out_" + std::to_string(::getpid());
  Result const r = run("conv -f cp1252 -t utf-8 -o " + out, "\xE9");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  std::ifstream f(out, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(f), {}), "\xC3\xA9");
  ::unlink(out.c_str());
}
