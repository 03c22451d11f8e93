// Environment variables and "%NAME%" expansion, the same through the
// registry's expand-string function.
#include <quenlib/regapi.h>
#include <quenlib/senvironment.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using namespace QuenLibA500;

TEST(SEnvironment, SetGetUnset) {
  ASSERT_TRUE(SEnvironment::set("QL_ENV_TEST", "one two"));
  SAnsiString value;
  ASSERT_TRUE(SEnvironment::get("QL_ENV_TEST", value));
  EXPECT_STREQ(value.getString(), "one two");
  EXPECT_STREQ(std::getenv("QL_ENV_TEST"), "one two");
  ASSERT_TRUE(SEnvironment::set("QL_ENV_TEST", ""));
  EXPECT_TRUE(SEnvironment::get("QL_ENV_TEST", value));
  EXPECT_TRUE(value.isEmpty());
  EXPECT_TRUE(SEnvironment::unset("QL_ENV_TEST"));
  EXPECT_FALSE(SEnvironment::get("QL_ENV_TEST", value));
  EXPECT_TRUE(SEnvironment::unset("QL_ENV_TEST"));
  for (char const* bad : {"", "A=B"}) {
    EXPECT_FALSE(SEnvironment::set(bad, "x")) << bad;
    EXPECT_FALSE(SEnvironment::get(bad, value)) << bad;
    EXPECT_FALSE(SEnvironment::unset(bad)) << bad;
  }
  EXPECT_FALSE(SEnvironment::set(nullptr, "x"));
}

TEST(SEnvironment, ExpansionAgreesWithTheRegistrysExpandStrings) {
  ASSERT_TRUE(SEnvironment::set("QL_HOME", "/opt/app"));
  ASSERT_TRUE(SEnvironment::set("QL_EMPTY", ""));
  SEnvironment::unset("QL_NOPE");
  struct Case {
    char const* text;
    char const* expanded;
  } const cases[] = {
      {"%QL_HOME%/conf", "/opt/app/conf"},
      {"%QL_HOME%%QL_HOME%", "/opt/app/opt/app"},
      {"[%QL_EMPTY%]", "[]"},
      {"%QL_NOPE%QL_HOME%", "%QL_NOPE/opt/app"},
      {"%QL_NOPE%", "%QL_NOPE%"},
      {"100% sure", "100% sure"},
      {"%%", "%%"},
      {"%ql_home%", "%ql_home%"},
      {"", ""},
  };
  for (auto const& c : cases) {
    EXPECT_STREQ(SEnvironment::expand(c.text).getString(), c.expanded) << c.text;
    char buf[256];
    DWORD const need = ExpandEnvironmentStringsA(c.text, buf, sizeof buf);
    EXPECT_EQ(need, std::string(c.expanded).size() + 1) << c.text;
    EXPECT_STREQ(buf, c.expanded) << c.text;
  }
  char small[4];
  EXPECT_EQ(ExpandEnvironmentStringsA("%QL_HOME%", small, sizeof small), 9u);
}
