// Pair reader, pair map, joining helpers and the case-insensitive map.
#include <gtest/gtest.h>
#include <quenlib/nvpairs.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/simap.h>
#include <quenlib/slogger.h>

#include <clocale>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

struct AssertLog {
  std::vector<std::string> conditions, messages;
  static void observe(void* ctx, char const*, int, char const* cond, char const* msg) {
    auto* self = static_cast<AssertLog*>(ctx);
    self->conditions.push_back(cond ? cond : "");
    self->messages.push_back(msg ? msg : "");
  }
  AssertLog() { SetAssertObserver(&observe, this); }
  ~AssertLog() { SetAssertObserver(nullptr, nullptr); }
};

struct TraceLog {
  std::vector<std::string> lines;
  static void observe(void* ctx, int, char const*, int, char const* text) {
    static_cast<TraceLog*>(ctx)->lines.push_back(text);
  }
  TraceLog() { SetTraceObserver(&observe, this); }
  ~TraceLog() { SetTraceObserver(nullptr, nullptr); }
};

std::string S(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

using Map = SIMap<SMapStringCaseInsensitive, SAnsiString>;

std::vector<std::string> Entries(CMapNameValuePair& m) {
  std::vector<std::string> out;
  for (auto it = m.Begin(); it != m.End(); ++it)
    out.push_back(S(it.GetKey().GetString()) + "=" + S(it.GetValue()));
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
  EXPECT_EQ(S(v), "b");
  auto it = m.Begin();
  EXPECT_EQ(S(it.GetKey().GetString()), "id");
  ++it;
  EXPECT_EQ(S(it.GetKey().GetString()), "NAME");
  ++it;
  EXPECT_TRUE(it == m.End());
  EXPECT_FALSE(m.Lookup("missing", v));
}

TEST(PairReader, NextDecodesAndTraces) {
  ASSERT_TRUE(SLogger::Initialize(CParamLineArgs("prog -trace l"), false));
  TraceLog log;
  CNameValuePairs pairs("a=1&b%20c=x+y&flag&=v");
  std::vector<std::string> got;
  SAnsiString name, value;
  while (pairs.HasMorePairs()) {
    pairs.Next(name, value);
    got.push_back(S(name) + "|" + S(value));
  }
  SLogger::Terminate();
  EXPECT_EQ(got, (std::vector<std::string>{"a|1", "b c|x y", "flag|", "|v"}));
  ASSERT_FALSE(log.lines.empty());
  EXPECT_EQ(log.lines.front(), "Name a Value 1n");
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
    AssertLog log;
    CMapNameValuePair map;
    map.Insert("stale", "x");
    EXPECT_EQ(map.ParseParameter(c.text), c.ok) << c.text;
    EXPECT_EQ(Entries(map), c.entries) << c.text;
    if (c.ok) {
      EXPECT_TRUE(log.conditions.empty()) << c.text;
    } else {
      ASSERT_EQ(log.conditions.size(), 1u) << c.text;
      EXPECT_EQ(log.conditions[0], "Error: Wrong number of parameters in URL ");
      EXPECT_EQ(log.messages[0],
                std::string("Error: Wrong number of parameters in URL [") + c.text + "]");
    }
  }
}
