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

TEST(SIMap, UpdateRemoveAndPositions) {
  Map m;
  EXPECT_TRUE(m.IsEmpty());
  EXPECT_TRUE(m.GetLast() == m.End());
  EXPECT_FALSE(m.Update("a", "1"));
  m.SetAt("b", "2");
  m.SetAt("a", "1");
  m.SetAt("C", "3");
  EXPECT_TRUE(m.Update("B", "20"));
  EXPECT_EQ(S(m.Find("b").GetValue()), "20");
  EXPECT_EQ(S(m.Find("b").GetKey().GetString()), "B");
  EXPECT_TRUE(m.Find("zz") == m.End());
  EXPECT_EQ(S(m.GetLast().GetKey().GetString()), "C");
  EXPECT_EQ(S(m.BeginAt("AB").GetKey().GetString()), "B");
  EXPECT_TRUE(m.RemoveKey("A"));
  EXPECT_FALSE(m.RemoveKey("a"));
  Map copy(m);
  copy.Insert("d", "4");
  m.Insert(copy);
  EXPECT_EQ(m.GetCount(), 3);
  EXPECT_TRUE(m == copy);
  m.RemoveAll();
  EXPECT_EQ(m.GetCount(), 0);
}

TEST(SISet, AddContainsRemove) {
  SISet<int> s;
  EXPECT_TRUE(s.Add(3));
  EXPECT_TRUE(s.Add(1));
  EXPECT_FALSE(s.Add(3));
  EXPECT_TRUE(s.Contains(1));
  EXPECT_FALSE(s.Contains(2));
  EXPECT_EQ(*s.begin(), 1);
  EXPECT_TRUE(s.Remove(1));
  EXPECT_FALSE(s.Remove(1));
  EXPECT_EQ(s.GetCount(), 1);
}

TEST(ConcatHelpers, Table) {
  struct Case {
    char const* a;
    char const* b;
    char const* want;
  } const cases[] = {
      {"x&", "&y", "x&&&y"}, {"x", "y", "x&y"},  {"x&", "y", "x&y"},
      {"x", "&y", "x&y"},    {"", "&y", "&y"},   {"x&", "", "x&"},
  };
  for (auto const& c : cases)
    EXPECT_EQ(S(CNameValuePairs::ConcatUrl(c.a, c.b)), c.want) << c.a << " + " << c.b;
  EXPECT_EQ(S(CNameValuePairs::ConcatPairs("a", "", "b", nullptr)), "a&b");
  EXPECT_EQ(S(CNameValuePairs::ConcatPairs("", "b", "c", nullptr)), "b&c");
  EXPECT_EQ(S(CNameValuePairs::ConcatPairs(nullptr)), "");
}

TEST(Encode, PairsUntilNull) {
  EXPECT_EQ(S(CNameValuePairs::Encode("id", "5", "n", "a b", nullptr)), "id=5&n=a+b");
  EXPECT_EQ(S(CNameValuePairs::Encode("id", nullptr)), "");
  EXPECT_EQ(S(CNameValuePairs::Encode("a", "1", "b", nullptr, "c", "3", nullptr)), "a=1");
  EXPECT_EQ(S(CNameValuePairs::Encode("k-1", "", nullptr)), "k%2D1=");
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

TEST(PairReader, CodesetOverload) {
  char const* old = std::setlocale(LC_ALL, nullptr);
  std::string saved = old ? old : "C";
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  CNameValuePairs pairs("n%E9=caf%E9&w=%u20AC");
  SAnsiString name, value;
  pairs.Next(name, value, MBCSCodesetConverter::ECS_Windows1252);
  EXPECT_EQ(S(name), "n\xC3\xA9");
  EXPECT_EQ(S(value), "caf\xC3\xA9");
  pairs.Next(name, value, MBCSCodesetConverter::ECS_UTF8);
  EXPECT_EQ(S(value), "\xE2\x82\xAC");
  EXPECT_FALSE(pairs.HasMorePairs());
  std::setlocale(LC_ALL, saved.c_str());
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

TEST(ParseParameter, AsciiIteratorForm) {
  SAsciiString text("x=%41&y=b");
  CMapNameValuePair map;
  ASSERT_TRUE(map.ParseParameter(SAsciiString::iterator(text)));
  SAnsiString v;
  ASSERT_TRUE(map.Lookup("X", v));
  EXPECT_EQ(S(v), "A");
  CMapNameValuePair copy(map);
  EXPECT_EQ(copy.GetCount(), 2);
}
