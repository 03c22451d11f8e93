// The conversion members of the string flavours: sizes, "to" members with
// their too-small result, "from" members, the ASCII refusals and quirks.
#include <quenlib/slogger.h>
#include <quenlib/sstring.h>

#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

constexpr unsigned kTooSmall = static_cast<unsigned>(-1);

struct AssertLog {
  std::vector<std::string> messages;
  AssertLog() {
    SetAssertObserver(
        [](void* ctx, char const*, int, char const* cond, char const* msg) {
          static_cast<AssertLog*>(ctx)->messages.push_back(std::string(cond) + "|" + msg);
        },
        this);
  }
  ~AssertLog() { SetAssertObserver(nullptr, nullptr); }
};

class StringConversion : public ::testing::Test {
 protected:
  void SetUp() override {
    old_ = std::setlocale(LC_ALL, nullptr);
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  }
  void TearDown() override { std::setlocale(LC_ALL, old_.c_str()); }
  std::string old_;
};

std::u16string str(SString_t<WChar, 1> const& s) {
  return std::u16string(s.getString(), s.getLength());
}

}  // namespace

TEST_F(StringConversion, ToAsciiReplacesHighUnits) {
  SAnsiString const s("a\xE9");
  char out[8];
  AssertLog log;
  EXPECT_EQ(s.toAscii(out, 3), 3u);
  EXPECT_STREQ(out, "a?");
  EXPECT_EQ(log.messages, std::vector<std::string>{"0|Not a valid ASCII string in SString"});
  EXPECT_EQ(s.toAscii(out, 2), kTooSmall);
  SWCharString const w(u"x\u20AC");
  EXPECT_EQ(w.toAscii(out, 8), 3u);
  EXPECT_STREQ(out, "x?");
}

TEST_F(StringConversion, AsciiFlavourRefusesWholeText) {
  struct Case {
    char const* name;
    bool (*convert)(SAsciiString&);
    char const* message;
  } const cases[] = {
      {"fromBrim", [](SAsciiString& s) { return s.fromBrim(u"ok\u00E9"); },
       "Not a valid ASCII string in Brim"},
      {"fromUChar", [](SAsciiString& s) { return s.fromUChar(u"ok\u00E9", 3); },
       "Not a valid ASCII string in Brim"},
      {"fromWChar", [](SAsciiString& s) { return s.fromWChar(u"ok\u00E9"); },
       "Not a valid ASCII string in WChar"},
      {"fromMBCS", [](SAsciiString& s) { return s.fromMBCS("ok\xC3\xA9"); },
       "Not a valid ASCII string in MBCS"},
  };
  for (auto const& c : cases) {
    SAsciiString s("old");
    AssertLog log;
    EXPECT_FALSE(c.convert(s)) << c.name;
    EXPECT_EQ(s, SAsciiString("old")) << c.name;
    EXPECT_EQ(log.messages, std::vector<std::string>{std::string("0|") + c.message}) << c.name;
  }
  SAsciiString s;
  EXPECT_TRUE(s.fromBrim(u"plain"));
  EXPECT_EQ(s, SAsciiString("plain"));
  EXPECT_TRUE(s.fromUChar(u"abcdef", 3));
  EXPECT_EQ(s, SAsciiString("abc"));
}

TEST_F(StringConversion, AsciiToBrimSignExtends) {
  SAsciiString const s("A\xE9");
  WChar out[4];
  EXPECT_EQ(s.getNBytesForBrim(), 6u);
  EXPECT_EQ(s.toBrim(out, 6), 3u);
  EXPECT_EQ(out[0], u'A');
  EXPECT_EQ(out[1], 0xFFE9);
  EXPECT_EQ(out[2], 0);
  EXPECT_EQ(s.toBrim(out, 5), kTooSmall);
  // The other wide outputs widen the byte as it is.
  EXPECT_EQ(s.toWChar(out, 6), 3u);
  EXPECT_EQ(out[1], 0x00E9);
}

TEST_F(StringConversion, WideAndLocaleRoundTrip) {
  SWCharString const w(u"caf\u00E9 \U0001F600");
  EXPECT_EQ(w.getNBytesForMBCS(), 11u);
  char mb[16];
  EXPECT_EQ(w.toMBCS(mb, 11), 11u);
  EXPECT_STREQ(mb, "caf\xC3\xA9 \xF0\x9F\x98\x80");
  EXPECT_EQ(w.toMBCS(mb, 10), kTooSmall);
  SAnsiString a;
  EXPECT_TRUE(a.fromWChar(w.getString()));
  EXPECT_EQ(a, SAnsiString(mb));
  EXPECT_EQ(a.getNBytesForWChar(), (w.getLength() + 1) * 2);
  WChar back[16];
  EXPECT_EQ(a.toWChar(back, sizeof back), w.getLength() + 1);
  EXPECT_EQ(std::u16string(back), str(w));
  SWCharString w2;
  EXPECT_TRUE(w2.fromMBCS(mb));
  EXPECT_EQ(w2, w);
}

TEST_F(StringConversion, UnrepresentableBecomesQuestionMark) {
  WChar const lone[] = {'a', 0xD800, 'b', 0};
  SAnsiString a;
  EXPECT_TRUE(a.fromBrim(lone));
  EXPECT_EQ(a, SAnsiString("a?b"));
  SWCharString w;
  EXPECT_TRUE(w.fromMBCS("x\xFFy"));
  EXPECT_EQ(str(w), u"x?y");
}

TEST_F(StringConversion, Utf8Members) {
  SWCharString w;
  EXPECT_TRUE(w.fromUTF8(reinterpret_cast<unsigned char const*>("\xE2\x82\xAC!")));
  EXPECT_EQ(str(w), u"\u20AC!");
  EXPECT_FALSE(w.fromUTF8(reinterpret_cast<unsigned char const*>("\xC3\x28")));
  EXPECT_EQ(str(w), u"\u20AC!");
  EXPECT_TRUE(w.fromUTF8(reinterpret_cast<unsigned char const*>("abcdef"), 2));
  EXPECT_EQ(str(w), u"ab");
  unsigned char out[16];
  SAnsiString const a("caf\xC3\xA9");
  EXPECT_GE(a.getNBytesForUTF8(), 6u);
  EXPECT_EQ(a.toUTF8(out, 6), 6u);
  EXPECT_STREQ(reinterpret_cast<char*>(out), "caf\xC3\xA9");
  EXPECT_EQ(a.toUTF8(out, 5), kTooSmall);
  SAsciiString s;
  EXPECT_FALSE(s.fromUTF8(reinterpret_cast<unsigned char const*>("\xC3\xA9")));
  EXPECT_TRUE(s.fromUTF8(reinterpret_cast<unsigned char const*>("ok")));
  EXPECT_EQ(s, SAsciiString("ok"));
}

TEST_F(StringConversion, FromAsciiAndCopyFrom) {
  SAnsiString a("old");
  EXPECT_TRUE(a.fromAscii("hello", 4));
  EXPECT_EQ(a, SAnsiString("hell"));
  EXPECT_TRUE(a.fromAscii("hi"));
  EXPECT_EQ(a, SAnsiString("hi"));
  EXPECT_TRUE(a.fromAscii(nullptr));
  EXPECT_TRUE(a.isEmpty());
  SWCharString w;
  EXPECT_TRUE(w.fromAscii("ab"));
  EXPECT_EQ(str(w), u"ab");
  EXPECT_TRUE(w.copyFrom("\xC3\xA9"));
  EXPECT_EQ(str(w), u"\u00E9");
  EXPECT_TRUE(a.copyFrom(u"\u00E9"));
  EXPECT_EQ(a, SAnsiString("\xC3\xA9"));
}

TEST_F(StringConversion, NullOutputIsReported) {
  AssertLog log;
  SAnsiString const a("x");
  EXPECT_EQ(a.toMBCS(nullptr, 10), kTooSmall);
  EXPECT_EQ(a.toAscii(nullptr, 10), kTooSmall);
  ASSERT_EQ(log.messages.size(), 2u);
  EXPECT_EQ(log.messages[0], "outBuffer!=NULL|");
}
