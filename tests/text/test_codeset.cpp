// The explicit code pages and the locale conversions on raw arrays: the
// "?" rules, Latin1 = 1252, strict UTF-8, errno, and a non-UTF-8 locale.
#include <quenlib/codesetconverter.h>

#include "text/localeconv.h"
#include "text/utfcore.h"

#include "text_support.h"

#include <cerrno>
#include <cstring>

using namespace QuenLibA500;
using MB = MBCSCodesetConverter;
using quentest::LocaleScope;

namespace {

std::string toLocale(std::string const& bytes, MB::ExplicitCodeset cs) {
  return MB::ExplicitCodesetToLocale(bytes.data(), bytes.size(), cs);
}

std::string fromLocale(std::string const& text, MB::ExplicitCodeset cs) {
  SSimpleBuffer b = MB::LocaleToExplicitCodeset(text.data(), text.size(), cs);
  return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(b)),
                     b.getNBytes());
}

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

// Every byte of the single-byte pages, alone and in a run after ASCII of
// each length up to three SIMD blocks: the table path gives what the general
// path (the ICU converter, then UTF-16 to UTF-8) gives.
TEST_F(CodesetUtf8Locale, SingleBytePagesMatchTheConverterPath) {
  for (MB::ExplicitCodeset cs : {MB::ECS_Windows1252, MB::ECS_Latin9}) {
    for (int b = 1; b < 256; ++b) {
      for (size_t lead : {size_t{0}, size_t{7}, size_t{15}, size_t{16}, size_t{31}, size_t{47}}) {
        std::string const bytes = std::string(lead, 'a') + static_cast<char>(b) + "Z";
        std::u16string wide;
        ASSERT_TRUE(MB::CodePageToUTF16(cs, bytes.data(), bytes.size(), wide));
        std::string general(wide.size() * 3, '\0');
        utf::Outcome const r = utf::utf16ToUtf8(
            wide.data(), wide.size(), reinterpret_cast<unsigned char*>(general.data()),
            general.size());
        general.resize(r.written);
        EXPECT_EQ(toLocale(bytes, cs), general) << "byte " << b << " after " << lead;
        EXPECT_EQ(quentest::str(MB::ExplicitCodesetToT(bytes.c_str(), cs)), general);
      }
    }
  }
}
