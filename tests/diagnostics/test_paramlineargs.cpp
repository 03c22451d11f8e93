// CParamLineArgs: option syntax, values, quoting round trips.
#include <quenlib/paramlineargs.h>

#include <gtest/gtest.h>

using QuenLibA500::CParamLineArgs;

TEST(ParamLineArgs, OptionForms) {
  char const* argv[] = {"server", "-trace", "l",  "--logFile=/var/log/a b.log", "-KEEP", "-1",
                        "-noassert", "--verbose", "on", "pos", "--", "-notanoption"};
  CParamLineArgs args(12, argv);
  EXPECT_EQ(args.GetCount(), 12);
  EXPECT_EQ(args.Word(0), "server");
  EXPECT_EQ(args.Word(99), "");
  EXPECT_EQ(args.Value("trace"), "l");
  EXPECT_EQ(args.Value("logfile"), "/var/log/a b.log");
  EXPECT_EQ(args.Value("keep"), "-1");
  EXPECT_TRUE(args.IsPresent("noassert"));
  EXPECT_EQ(args.Value("noassert", "dflt"), "");
  EXPECT_EQ(args.Value("verbose"), "on");
  EXPECT_FALSE(args.IsPresent("pos"));
  EXPECT_FALSE(args.IsPresent("notanoption"));
  EXPECT_EQ(args.Value("absent", "dflt"), "dflt");
  std::string v = "unchanged";
  EXPECT_FALSE(args.FindValue("absent", v));
  EXPECT_EQ(v, "unchanged");
  EXPECT_EQ(args.OptionNames(), (std::vector<std::string>{"trace", "logFile", "KEEP", "noassert", "verbose"}));
}

TEST(ParamLineArgs, LastOccurrenceWinsAndAllValuesAreKept) {
  CParamLineArgs args("p -trace s -x -trace=xl");
  EXPECT_EQ(args.Value("trace"), "xl");
  EXPECT_EQ(args.Values("trace"), (std::vector<std::string>{"s", "xl"}));
  EXPECT_EQ(args.Value("x"), "");
  auto opts = args.Options();
  ASSERT_EQ(opts.size(), 3u);
  EXPECT_EQ(opts[1].first, "x");
}

struct SplitCase {
  char const* text;
  std::vector<std::string> words;
};

TEST(ParamLineArgs, SplitsLikeTheShell) {
  SplitCase const cases[] = {
      {"", {}},
      {"  a   b  ", {"a", "b"}},
      {"a 'b c' \"d \\\"e\\\" $f\"", {"a", "b c", "d \"e\" $f"}},
      {"x\\ y '' z", {"x y", "", "z"}},
      {"it''s' 'fine", {"its fine"}},
      {"'unterminated", {"unterminated"}},
  };
  for (SplitCase const& c : cases) EXPECT_EQ(CParamLineArgs(c.text).Words(), c.words) << c.text;
}
