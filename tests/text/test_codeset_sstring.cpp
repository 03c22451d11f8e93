// The conversion members of the string flavours: sizes, "to" members with
// their too-small result, "from" members, the ASCII refusals and quirks.
#include <quenlib/sstring.h>

#include "text_support.h"

using namespace QuenLibA500;

namespace {

constexpr unsigned kTooSmall = static_cast<unsigned>(-1);

class StringConversion : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(locale_.ok()); }
  quentest::LocaleScope locale_{"C.UTF-8"};
};

std::u16string str(SString_t<WChar, 1> const& s) {
  return std::u16string(s.getString(), s.getLength());
}

}  // namespace

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
    quentest::AssertLog log;
    EXPECT_FALSE(c.convert(s)) << c.name;
    EXPECT_EQ(s, SAsciiString("old")) << c.name;
    EXPECT_EQ(log.messages(), std::vector<std::string>{c.message}) << c.name;
  }
  SAsciiString s;
  EXPECT_TRUE(s.fromBrim(u"plain"));
  EXPECT_EQ(s, SAsciiString("plain"));
  EXPECT_TRUE(s.fromUChar(u"abcdef", 3));
  EXPECT_EQ(s, SAsciiString("abc"));
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
