// The parameter-list parser and the case-insensitive map.
#include "web_support.h"
#include <quenlib/nvpairs.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/simap.h>

using namespace QuenLibA500;

namespace {

using Map = SIMap<SMapStringCaseInsensitive, SAnsiString>;

std::vector<std::string> Entries(CMapNameValuePair& m) {
  std::vector<std::string> out;
  for (auto it = m.Begin(); it != m.End(); ++it)
    out.push_back(quentest::str(it.GetKey().GetString()) + "=" + quentest::str(it.GetValue()));
  return out;
}

}  // namespace

TEST(SIMap, InsertKeepsLastSpellingAndIgnoresCase) {
  Map m;
  m.Insert("Name", "a");
  m.Insert("NAME", "b");
  m.Insert("id", "5");
  EXPECT_EQ(m.GetCount(), 2);
  SAnsiString v;
  ASSERT_TRUE(m.Lookup("name", v));
  EXPECT_EQ(quentest::str(v), "b");
  auto it = m.Begin();
  EXPECT_EQ(quentest::str(it.GetKey().GetString()), "id");
  ++it;
  EXPECT_EQ(quentest::str(it.GetKey().GetString()), "NAME");
  ++it;
  EXPECT_TRUE(it == m.End());
  EXPECT_FALSE(m.Lookup("missing", v));
}

TEST(ParseParameter, GoodAndBadLists) {
  struct Case {
    char const* text;
    bool ok;
    std::vector<std::string> entries;
  } const cases[] = {
      {"", true, {}},
      {"a=1&b=", true, {"a=1", "b="}},
      {"B=2&a=x+y%21", true, {"a=x y!", "B=2"}},
      {"n=1&N=2", true, {"N=2"}},
      {"=v", true, {"=v"}},
      {"a", false, {}},
      {"a=1&", false, {"a=1"}},
      {"a=1=2", false, {}},
      {"&a=1", false, {}},
      {"a=1&&b=2", false, {"a=1"}},
  };
  for (auto const& c : cases) {
    quentest::AssertLog log;
    CMapNameValuePair map;
    map.Insert("stale", "x");
    EXPECT_EQ(map.ParseParameter(c.text), c.ok) << c.text;
    EXPECT_EQ(Entries(map), c.entries) << c.text;
    if (c.ok) {
      EXPECT_TRUE(log.seen.empty()) << c.text;
    } else {
      ASSERT_EQ(log.seen.size(), 1u) << c.text;
      EXPECT_EQ(log.seen[0].condition, "Error: Wrong number of parameters in URL ");
      EXPECT_EQ(log.seen[0].message,
                std::string("Error: Wrong number of parameters in URL [") + c.text + "]");
    }
  }
}
