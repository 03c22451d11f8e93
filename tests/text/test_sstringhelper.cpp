// Message templates: numbered placeholders filled in one pass.
#include <quenlib/sstringhelper.h>

#include <gtest/gtest.h>

using namespace QuenLibA500;

TEST(SStringHelper, FillsNumberedPlaceholdersOnce) {
  SAnsiString const args[] = {"A", "%2", "C"};
  struct Case {
    char const* tmpl;
    int count;
    char const* filled;
  } const cases[] = {
      {"%1-%2-%3", 3, "A-%2-C"},     // an argument's text is not filled again
      {"%3%1%3", 3, "CAC"},           // any order, any number of times
      {"%4 and %1", 3, "%4 and A"},   // no fourth argument: kept
      {"%10", 3, "A0"},                // one digit only
      {"100%% of %1", 1, "100% of A"},
      {"%0 %x %", 3, "%0 %x %"},
      {"%2", 1, "%2"},
      {"", 3, ""},
  };
  for (auto const& c : cases)
    EXPECT_STREQ(SStringHelper::formatMessage(c.tmpl, args, c.count).getString(), c.filled) << c.tmpl;
  EXPECT_STREQ(SStringHelper::formatMessage("could not open %1: %2", "/tmp/x", SAnsiString("gone")).getString(),
               "could not open /tmp/x: gone");
  EXPECT_TRUE(SStringHelper::formatMessage(nullptr, args, 3).isEmpty());
}
