// The explicit code pages and the locale conversions on raw arrays: the
// "?" rules, Latin1 = 1252, strict UTF-8, errno, and a non-UTF-8 locale.
#include <quenlib/codesetconverter.h>
#include <quenlib/slogger.h>

#include "text/localeconv.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <clocale>
#include <cstring>
#include <string>
#include <vector>

using namespace QuenLibA500;
using MB = MBCSCodesetConverter;

namespace {

// Runs the test body in a given locale and restores the previous one.
class LocaleScope {
 public:
  explicit LocaleScope(char const* name) : old_(std::setlocale(LC_ALL, nullptr)) {
    ok_ = std::setlocale(LC_ALL, name) != nullptr;
  }
  ~LocaleScope() { std::setlocale(LC_ALL, old_.c_str()); }
  bool ok() const { return ok_; }

 private:
  std::string old_;
  bool ok_;
};

std::string toLocale(std::string const& bytes, MB::ExplicitCodeset cs) {
  return MB::ExplicitCodesetToLocale(bytes.data(), bytes.size(), cs);
}

std::string fromLocale(std::string const& text, MB::ExplicitCodeset cs) {
  SSimpleBuffer b = MB::LocaleToExplicitCodeset(text.data(), text.size(), cs);
  return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(b)),
                     b.getNBytes());
}

struct AssertLog {
  std::vector<std::string> conditions;
  AssertLog() {
    SetAssertObserver(
        [](void* ctx, char const* file, int, char const* cond, char const*) {
          static_cast<AssertLog*>(ctx)->conditions.push_back(std::string(file) + ":" + cond);
        },
        this);
  }
  ~AssertLog() { SetAssertObserver(nullptr, nullptr); }
};

}  // namespace

class CodesetUtf8Locale : public ::testing::Test {
 protected:
  LocaleScope locale_{"C.UTF-8"};
  void SetUp() override { ASSERT_TRUE(locale_.ok()); }
};

TEST_F(CodesetUtf8Locale, DecodesEachCodePage) {
  struct Case {
    MB::ExplicitCodeset cs;
    std::string in;
    std::string out;
  } const cases[] = {
      {MB::ECS_Native, "caf\xE9", "caf\xE9"},
      {MB::ECS_UTF8, "caf\xC3\xA9", "caf\xC3\xA9"},
      {MB::ECS_UTF8, "\xC3\x28", "?"},
      {MB::ECS_UTF8, "ok\xED\xA0\x80", "?"},
      {MB::ECS_Windows1252, "caf\xE9 \x80", "caf\xC3\xA9 \xE2\x82\xAC"},
      {MB::ECS_Latin1, "caf\xE9 \x80", "caf\xC3\xA9 \xE2\x82\xAC"},
      {MB::ECS_Latin9, "\xA4", "\xE2\x82\xAC"},
      {MB::ECS_Windows1252, "\xA4", "\xC2\xA4"},
      {MB::ECS_ShiftJIS, "\x82\xA0\x93\xFA", "\xE3\x81\x82\xE6\x97\xA5"},
      {MB::ECS_ShiftJIS, "\xB1", "\xEF\xBD\xB1"},  // half-width katakana
      {MB::ECS_Windows1252, "", ""},
      {MB::ECS_UTF8, "", ""},
  };
  for (auto const& c : cases)
    EXPECT_EQ(toLocale(c.in, c.cs), c.out) << "code set " << c.cs << " input " << c.in;
}

TEST_F(CodesetUtf8Locale, EncodesEachCodePageWithQuestionMarks) {
  struct Case {
    MB::ExplicitCodeset cs;
    std::string in;
    std::string out;
  } const cases[] = {
      {MB::ECS_Native, "\xFF\x01", "\xFF\x01"},
      {MB::ECS_UTF8, "caf\xC3\xA9", "caf\xC3\xA9"},
      {MB::ECS_Windows1252, "caf\xC3\xA9 \xE2\x82\xAC", "caf\xE9 \x80"},
      {MB::ECS_Latin9, "\xE2\x82\xAC", "\xA4"},
      {MB::ECS_ShiftJIS, "\xE6\x97\xA5\xE6\x9C\xAC", "\x93\xFA\x96\x7B"},
      {MB::ECS_Windows1252, "a\xE6\x97\xA5z", "a?z"},              // one "?" per character
      {MB::ECS_Windows1252, "\xF0\x9F\x98\x80", "?"},             // beyond U+FFFF too
      {MB::ECS_Latin9, "\xC2\xA4", "?"},                          // the currency sign is gone
      {MB::ECS_ShiftJIS, "\xC3\xA9", "?"},
      {MB::ECS_UTF8, "a\xFF" "b", "a?b"},                          // invalid locale byte: "?"
  };
  for (auto const& c : cases)
    EXPECT_EQ(fromLocale(c.in, c.cs), c.out) << "code set " << c.cs << " input " << c.in;
}

TEST_F(CodesetUtf8Locale, Latin1IsExactly1252ForEveryByte) {
  std::string all;
  for (int b = 1; b < 256; ++b) all.push_back(static_cast<char>(b));
  EXPECT_EQ(toLocale(all, MB::ECS_Latin1), toLocale(all, MB::ECS_Windows1252));
  for (int b = 1; b < 256; ++b) {
    std::string const one(1, static_cast<char>(b));
    std::string const text = toLocale(one, MB::ECS_Windows1252);
    EXPECT_EQ(text, toLocale(one, MB::ECS_Latin1));
    EXPECT_EQ(fromLocale(text, MB::ECS_Latin1), fromLocale(text, MB::ECS_Windows1252));
  }
}

TEST_F(CodesetUtf8Locale, AsciiBytesAreThemselvesInEveryCodePage) {
  std::string ascii;
  for (int b = 1; b < 0x80; ++b) ascii.push_back(static_cast<char>(b));
  for (auto cs : {MB::ECS_Windows1252, MB::ECS_Latin1, MB::ECS_Latin9, MB::ECS_ShiftJIS}) {
    EXPECT_EQ(toLocale(ascii, cs), ascii) << cs;
    EXPECT_EQ(fromLocale(ascii, cs), ascii) << cs;
  }
}

TEST_F(CodesetUtf8Locale, RoundTripsEveryMappedByte) {
  for (auto cs : {MB::ECS_Windows1252, MB::ECS_Latin9}) {
    for (int b = 0x20; b < 256; ++b) {
      std::string const one(1, static_cast<char>(b));
      std::string const text = toLocale(one, cs);
      if (text == "\xEF\xBF\xBD" || text == "\x1A") continue;  // undefined in the code page
      EXPECT_EQ(fromLocale(text, cs), one) << cs << " byte " << b;
    }
  }
}

TEST_F(CodesetUtf8Locale, UnknownCodesetAssertsAndGivesNothing) {
  AssertLog log;
  auto const bad = static_cast<MB::ExplicitCodeset>(9);
  EXPECT_EQ(toLocale("abc", bad), "");
  EXPECT_EQ(fromLocale("abc", bad), "");
  EXPECT_EQ(log.conditions,
            (std::vector<std::string>{"mbcscodesetconverter:0", "mbcscodesetconverter:0"}));
}

TEST_F(CodesetUtf8Locale, ErrnoIsPreserved) {
  errno = 1234;
  toLocale("\xC3\x28", MB::ECS_UTF8);
  fromLocale("a\xFF", MB::ECS_ShiftJIS);
  WChar const lone[] = {0xD800, 0};
  char out[8];
  CodesetConverter::ucs2tombs(out, lone, sizeof out);
  EXPECT_EQ(errno, 1234);
}

TEST_F(CodesetUtf8Locale, Ucs2ToMbsRules) {
  char out[16];
  WChar const text[] = {'a', 0xE9, 0};
  EXPECT_EQ(CodesetConverter::ucs2tombs(out, text, sizeof out), 3u);
  EXPECT_STREQ(out, "a\xC3\xA9");
  EXPECT_EQ(CodesetConverter::ucs2tombs(nullptr, text, 0), 3u);
  // An unpaired surrogate is one "?"; a character that no longer fits
  // fills the rest with "?".
  WChar const bad[] = {0xDC00, 0xE9, 0};
  EXPECT_EQ(CodesetConverter::ucs2tombs(out, bad, sizeof out), 3u);
  EXPECT_STREQ(out, "?\xC3\xA9");
  std::memset(out, 'x', sizeof out);
  EXPECT_EQ(CodesetConverter::ucs2tombs(out, bad, 2), 2u);
  EXPECT_EQ(std::string(out, 3), "??x");
  EXPECT_EQ(CodesetConverter::ucs2tombs(nullptr, bad, 0), 3u);
  WChar const pair[] = {0xD83D, 0xDE00, 0};
  EXPECT_EQ(CodesetConverter::ucs2tombs(out, pair, sizeof out), 4u);
  EXPECT_STREQ(out, "\xF0\x9F\x98\x80");
}

TEST_F(CodesetUtf8Locale, MbsToUcs2Rules) {
  WChar out[8];
  EXPECT_EQ(CodesetConverter::mbstoucs2(out, "a\xFF\xC3\xA9", 8), 3u);
  EXPECT_EQ(std::u16string(out), u"a?\u00E9");
  EXPECT_EQ(CodesetConverter::mbstoucs2(out, "\xF0\x9F\x98\x80", 8), 2u);
  EXPECT_EQ(out[0], 0xD83D);
  EXPECT_EQ(out[1], 0xDE00);
  EXPECT_EQ(CodesetConverter::mbstoucs2(nullptr, "abc", 0), 3u);
  EXPECT_EQ(CodesetConverter::mbstoucs2(out, "abcdef", 3), 3u);
}

TEST_F(CodesetUtf8Locale, SingleCharacterForms) {
  WChar w[2];
  char mb[8];
  EXPECT_EQ(CodesetConverter::wctoucs2(w, u'x'), 1);
  EXPECT_EQ(CodesetConverter::ucs2towc(w, 0x20AC), 1);
  EXPECT_EQ(w[0], 0x20AC);
  EXPECT_EQ(CodesetConverter::ucs2tomb(mb, 8, 0x20AC), 3);
  EXPECT_EQ(CodesetConverter::ucs2tomb(mb, 2, 0x20AC), -1);
  EXPECT_EQ(CodesetConverter::ucs2tomb(mb, 8, 0xD800), -1);
  EXPECT_EQ(CodesetConverter::mbtoucs2(w, "\xE2\x82\xAC"), 1);
  EXPECT_EQ(w[0], 0x20AC);
  EXPECT_EQ(CodesetConverter::mbtoucs2(w, "\xF0\x9F\x98\x80"), 2);
  EXPECT_EQ(CodesetConverter::mbtoucs2(w, "\xFF"), -1);
  WChar const src[] = {'a', 'b', 'c', 0};
  WChar dst[3];
  EXPECT_EQ(CodesetConverter::wcstoucs2(dst, src, 3), 3u);  // full: no terminator
  EXPECT_EQ(CodesetConverter::wcstoucs2(nullptr, src, 0), 3u);
  WChar dst4[4];
  EXPECT_EQ(CodesetConverter::ucs2towcs(dst4, src, 4), 3u);
  EXPECT_EQ(dst4[3], 0);
}

TEST(CodesetEucJpLocale, GoesThroughTheCLibrary) {
  LocaleScope locale("ja_JP.eucjp");
  if (!locale.ok()) GTEST_SKIP() << "ja_JP.eucjp is not installed";
  EXPECT_FALSE(localeconv::isUtf8Locale());
  // Shift-JIS "日本" arrives as EUC-JP bytes.
  EXPECT_EQ(toLocale("\x93\xFA\x96\x7B", MB::ECS_ShiftJIS), "\xC6\xFC\xCB\xDC");
  // A character EUC-JP lacks becomes "?".
  EXPECT_EQ(toLocale("\x80", MB::ECS_Windows1252), "?");
  EXPECT_EQ(fromLocale("\xC6\xFC\xCB\xDC", MB::ECS_UTF8), "\xE6\x97\xA5\xE6\x9C\xAC");
  WChar out[8];
  EXPECT_EQ(CodesetConverter::mbstoucs2(out, "a\xC6\xFC", 8), 2u);
  EXPECT_EQ(out[1], 0x65E5);
  EXPECT_EQ(CodesetConverter::mbstoucs2(out, "a\xFF" "b", 8), 3u);
  EXPECT_EQ(std::u16string(out), u"a?b");
}

TEST(CodesetCLocale, NonAsciiBecomesQuestionMarks) {
  LocaleScope locale("C");
  ASSERT_TRUE(locale.ok());
  EXPECT_EQ(toLocale("caf\xE9", MB::ECS_Windows1252), "caf?");
  char out[8];
  WChar const text[] = {'a', 0x20AC, 'b', 0};
  EXPECT_EQ(CodesetConverter::ucs2tombs(out, text, sizeof out), 3u);
  EXPECT_STREQ(out, "a?b");
}
