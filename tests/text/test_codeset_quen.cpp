// quen conv end to end: conversions, NUL bytes kept, the exit statuses and
// the atomic output file.
#include "text_support.h"

using quentest::QuenRun;

namespace {

// quen with the input bytes on standard input; standard error dropped.
QuenRun run(std::string const& args, std::string const& input) {
  return quentest::RunQuen(args, "", false, input);
}

using QuenConv = quentest::QuenTest;

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
    QuenRun const r = run(c.args, c.in);
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
  quentest::TempDir dir;
  std::string const out = dir / "out";
  QuenRun const r = run("conv -f cp1252 -t utf-8 -o " + out, "\xE9");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(quentest::ReadFile(out), "\xC3\xA9");
}
