// Object URLs: splitting, parsing, writing, typed properties, arrays,
// date-times and the write-then-parse round trip.
#include <gtest/gtest.h>
#include <quenlib/oburl.h>
#include <quenlib/slogger.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

std::string S(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }
std::string S(SAsciiString const& s) { return std::string(s.getString(), s.getLength()); }

std::vector<std::string> Props(CObUrl& url) {
  std::vector<std::string> out;
  for (auto it = url.Begin(); it != url.End(); ++it)
    out.push_back(S(url.GetName(it)) + "=" + S(url.GetValueString(it)));
  return out;
}

struct QuietAsserts {
  static void observe(void*, char const*, int, char const*, char const*) {}
  QuietAsserts() { SetAssertObserver(&observe, nullptr); }
  ~QuietAsserts() { SetAssertObserver(nullptr, nullptr); }
};

}  // namespace

TEST(ObUrl, ParseAndWrite) {
  CObUrl url(SAnsiString("rpt?id=5&Name=a+b"));
  EXPECT_EQ(S(url.GetProtocol()), "object");
  EXPECT_EQ(S(url.GetObjectUrl()), "rpt");
  SAnsiString v;
  ASSERT_TRUE(url.GetPropString("NAME", v));
  EXPECT_EQ(S(v), "a b");
  EXPECT_EQ(S(url.MakeURL()), "rpt?id=5&Name=a+b");
  EXPECT_EQ(S(url.MakeURLA()), "rpt?id=5&Name=a+b");

  CObUrl bare(SAnsiString("id=5"));
  EXPECT_EQ(S(bare.GetObjectUrl()), "");
  EXPECT_EQ(S(bare.MakeURL()), "id=5");

  CObUrl empty;
  empty.SetObjectUrl("obj");
  EXPECT_EQ(S(empty.MakeURL()), "obj?");
  CObUrl none;
  EXPECT_EQ(S(none.MakeURL()), "");
}

TEST(ObUrl, SplitFullURL) {
  SAnsiString object("kept"), query;
  EXPECT_FALSE(CObUrl::SplitFullURL(SAnsiString("a=1"), object, query));
  EXPECT_EQ(S(object), "kept");
  EXPECT_EQ(S(query), "a=1");
  EXPECT_TRUE(CObUrl::SplitFullURL(SAnsiString("o/p?a=1?b"), object, query));
  EXPECT_EQ(S(object), "o/p");
  EXPECT_EQ(S(query), "a=1?b");
  SAsciiString full("x?y=2");
  SAsciiString::iterator it;
  EXPECT_TRUE(CObUrl::SplitFullURL(full, object, it));
  EXPECT_EQ(S(object), "x");
  EXPECT_EQ((*it).getChar(), 'y');
}

TEST(ObUrl, SetQueryStringRules) {
  QuietAsserts quiet;
  CObUrl url(SAsciiString("o?a=1"));
  EXPECT_TRUE(url.SetQueryString(SAnsiString()));
  EXPECT_EQ(Props(url), std::vector<std::string>{"a=1"});
  EXPECT_TRUE(url.SetQueryString(SAnsiString("b=%41")));
  EXPECT_EQ(S(url.GetObjectUrl()), "o");  // no "?": the object part stays
  EXPECT_EQ(Props(url), std::vector<std::string>{"b=A"});
  EXPECT_FALSE(url.SetQueryString(SAnsiString("n?c=1&d")));
  EXPECT_EQ(S(url.GetObjectUrl()), "n");
  EXPECT_EQ(Props(url), std::vector<std::string>{"c=1"});
  // Non-ASCII text takes the multibyte path with the same result.
  CObUrl wide(SAnsiString("obj\xC3\xA9?k=%C3%A9"));
  SAnsiString v;
  ASSERT_TRUE(wide.GetPropString("K", v));
  EXPECT_EQ(S(v), "\xC3\xA9");
  EXPECT_EQ(S(wide.MakeURL()), "obj\xC3\xA9?k=%C3%A9");
}

TEST(ObUrl, NumbersAndBools) {
  CObUrl url;
  url.SetPropByte("b", 200);
  url.SetPropShort("s", -32768);
  url.SetPropUShort("us", 65535);
  url.SetPropLong("l", -2147483647 - 1);
  url.SetPropULong("ul", 4294967295u);
  url.SetPropDWord("dw", 7);
  url.SetPropInt64s("i64", std::numeric_limits<int64_t>::min());
  url.SetPropBool("t", true);
  url.SetPropBool("f", false);
  EXPECT_EQ(S(url.MakeURL()),
            "b=200&dw=7&f=0&i64=%2D9223372036854775808&l=%2D2147483648&s=%2D32768&t=1&"
            "ul=4294967295&us=65535");
  unsigned char b = 0;
  int16_t s = 0;
  uint16_t us = 0;
  int32_t l = 0;
  uint32_t ul = 0;
  DWORD dw = 0;
  int64_t i64 = 0;
  bool t = false, f = true;
  EXPECT_TRUE(url.GetPropByte("B", b));
  EXPECT_TRUE(url.GetPropShort("S", s));
  EXPECT_TRUE(url.GetPropUShort("US", us));
  EXPECT_TRUE(url.GetPropLong("L", l));
  EXPECT_TRUE(url.GetPropULong("UL", ul));
  EXPECT_TRUE(url.GetPropDWord("DW", dw));
  EXPECT_TRUE(url.GetPropInt64s("I64", i64));
  EXPECT_TRUE(url.GetPropBool("T", t));
  EXPECT_TRUE(url.GetPropBool("F", f));
  EXPECT_EQ(b, 200);
  EXPECT_EQ(s, -32768);
  EXPECT_EQ(us, 65535);
  EXPECT_EQ(l, INT32_MIN);
  EXPECT_EQ(ul, 4294967295u);
  EXPECT_EQ(dw, 7u);
  EXPECT_EQ(i64, INT64_MIN);
  EXPECT_TRUE(t);
  EXPECT_FALSE(f);
  // Failures leave the output untouched.
  url.SetPropString("big", "300");
  url.SetPropString("text", "abc");
  b = 9;
  EXPECT_FALSE(url.GetPropByte("big", b));
  EXPECT_FALSE(url.GetPropByte("missing", b));
  EXPECT_EQ(b, 9);
  bool flag = false;
  EXPECT_FALSE(url.GetPropBool("text", flag));
  url.SetPropString("two", "2");
  EXPECT_TRUE(url.GetPropBool("two", flag));
  EXPECT_TRUE(flag);
  l = 5;
  EXPECT_FALSE(url.GetPropLong("text", l));
  EXPECT_EQ(l, 5);
}

TEST(ObUrl, Doubles) {
  CObUrl url;
  for (double d : {0.1, -2.5, 1e300, 5e-324, 0.0, 123456789.125}) {
    url.SetPropDouble("d", d);
    double got = 0;
    ASSERT_TRUE(url.GetPropDouble("d", got));
    EXPECT_EQ(got, d);
  }
  url.SetPropDouble("d", 0.1);
  SAnsiString text;
  url.GetPropString("d", text);
  EXPECT_EQ(S(text), "0.1");
  url.SetPropString("bad", "1.5x");
  double keep = 7;
  EXPECT_FALSE(url.GetPropDouble("bad", keep));
  EXPECT_EQ(keep, 7);
}

TEST(ObUrl, DateTimes) {
  CObUrl url;
  url.SetPropDateTime("at", SDateTime(1970, 1, 1, 0, 0, 1, 0, STimeZone::TZ_UTC()));
  SAnsiString text;
  url.GetPropString("at", text);
  EXPECT_EQ(S(text), "1000");
  SDateTime before(1969, 12, 31, 23, 59, 59, 500, STimeZone::TZ_UTC());
  url.SetPropDateTime("old", before);
  url.GetPropString("old", text);
  EXPECT_EQ(S(text), "-500");
  SDateTime got;
  ASSERT_TRUE(url.GetPropDateTime("old", got));
  EXPECT_TRUE(got == before);
  url.SetPropDateTime("invalid", SDateTime());
  url.GetPropString("invalid", text);
  EXPECT_EQ(S(text), "");
  got = before;
  EXPECT_TRUE(url.GetPropDateTime("invalid", got));
  EXPECT_FALSE(got.IsValid());
  url.SetPropString("junk", "abc");
  got = before;
  EXPECT_TRUE(url.GetPropDateTime("junk", got));
  EXPECT_FALSE(got.IsValid());
  EXPECT_FALSE(url.GetPropDateTime("missing", got));
}

TEST(ObUrl, Arrays) {
  CObUrl url;
  SIArray<SAnsiString> names{"first", "a b&c=d", ""};
  url.SetPropStringArray("names", &names);
  SAnsiString text;
  url.GetPropString("names", text);
  EXPECT_EQ(S(text), "0=first&1=a+b%26c%3Dd&2=");
  SIArray<SAnsiString> back{"stale"};
  ASSERT_TRUE(url.GetPropStringArray("NAMES", &back));
  EXPECT_TRUE(back == names);
  EXPECT_FALSE(url.GetPropStringArray("names", nullptr));

  SIArray<DWORD> nums{1, 4294967295u, 0};
  url.SetPropDWordArray("n", &nums);
  url.GetPropString("n", text);
  EXPECT_EQ(S(text), "0=1&1=4294967295&2=0");
  SIArray<DWORD> numsBack;
  ASSERT_TRUE(url.GetPropDWordArray("n", &numsBack));
  EXPECT_TRUE(numsBack == nums);
  EXPECT_FALSE(url.GetPropDWordArray("names", &numsBack));

  // The nested text is encoded once more in the written URL, and comes
  // back whole.
  CObUrl again(url.MakeURL());
  SIArray<SAnsiString> viaText;
  ASSERT_TRUE(again.GetPropStringArray("names", &viaText));
  EXPECT_TRUE(viaText == names);
}

TEST(ObUrl, CaseOfNamesAddUpdateAndCopies) {
  CObUrl url;
  url.SetPropString("Key", "1");
  url.SetPropString("KEY", "2");
  EXPECT_EQ(Props(url), std::vector<std::string>{"KEY=2"});
  EXPECT_TRUE(url.UpdatePropString("key", "3"));
  EXPECT_FALSE(url.UpdatePropString("other", "x"));
  EXPECT_EQ(Props(url), std::vector<std::string>{"key=3"});

  CObUrl other(SAnsiString("o?KEY=9&z=1"));
  CObUrl added(url);
  added.Add(other);
  EXPECT_EQ(Props(added), (std::vector<std::string>{"KEY=9", "z=1"}));
  CObUrl updated;
  updated = url;
  updated.Update(other);
  EXPECT_EQ(Props(updated), Props(added));
  EXPECT_EQ(Props(url), std::vector<std::string>{"key=3"});  // copies are deep

  url.SetClassName("Report");
  EXPECT_TRUE(url.GetClassNameA() == "REPORT");
  EXPECT_NE(url.GetNameValuePairMap(), nullptr);
}

TEST(ObUrl, WriteThenParseKeepsProperties) {
  std::mt19937 rng(5);
  for (int round = 0; round < 300; ++round) {
    CObUrl url;
    if (rng() % 2) url.SetObjectUrl("obj/x y");
    int n = static_cast<int>(rng() % 6);
    for (int i = 0; i < n; ++i) {
      std::string name, value;
      for (int k = static_cast<int>(rng() % 6); k > 0; --k) name.push_back(static_cast<char>(1 + rng() % 255));
      for (int k = static_cast<int>(rng() % 8); k > 0; --k) value.push_back(static_cast<char>(1 + rng() % 255));
      url.SetPropString(SAnsiString(name.c_str()), SAnsiString(value.c_str()));
    }
    CObUrl back(url.MakeURL());
    EXPECT_EQ(Props(back), Props(url));
    EXPECT_EQ(S(back.GetObjectUrl()), S(url.GetObjectUrl()));
  }
}
