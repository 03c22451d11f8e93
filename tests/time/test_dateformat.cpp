// Pattern formatting and the localised names.
#include <quenlib/sdatetime.h>
#include <quenlib/sdatetimestring.h>
#include <quenlib/stringconv.h>

#include "time_support.h"

#include <locale.h>

using namespace QuenLibA500;

namespace {

using quentest::Utc;

}  // namespace

TEST(DateFormatPattern, EveryLetterAndRunLength) {
  quentest::LocaleScope locale("en_US.UTF-8");
  ASSERT_TRUE(locale.ok());
  SDateTime t(2006, 3, 4, 5, 6, 7, 8, Utc());
  SDateTime pm(2006, 11, 14, 17, 45, 9, 120, Utc());
  struct Case {
    SDateTime const& when;
    char const* pattern;
    char const* expected;
  } cases[] = {
      {t, "yyyy-MM-dd HH:mm:ss.SSS", "2006-03-04 05:06:07.008"},
      {t, "d dd ddd dddd ddddd", "4 04 Sat Saturday Saturday"},
      {t, "M MM MMM MMMM MMMMM", "3 03 Mar March March"},
      {t, "y yy yyy yyyy yyyyy", "6 06 2006 2006 2006"},
      {t, "g gg ggg", "AD AD AD"},
      {t, "h hh hhh H HH HHH", "5 05 05 5 05 05"},
      {t, "m mm mmm s ss sss", "6 06 06 7 07 07"},
      {t, "S SS SSS SSSS", "8 008 008 008"},
      {t, "t tt ttt", "A AM AM"},
      {pm, "h:mm tt", "5:45 PM"},
      {pm, "H:m:s.S t", "17:45:9.120 P"},
      {pm, "dddd, d MMMM yyyy", "Tuesday, 14 November 2006"},
      {t, "'d' d", "d 4"},
      {t, "\"yyyy\"-yyyy", "yyyy-2006"},
      {t, "'It''s' H", "Its 5"},
      {t, "HH 'o''clock", "05 oclock"},
      {t, "HH 'unclosed d M y", "05 unclosed d M y"},
      {t, "[ % ] HH", "[ % ] 05"},
      {t, "", ""},
  };
  for (auto const& c : cases) EXPECT_EQ(quentest::str(c.when.Format(c.pattern, Utc())), c.expected) << c.pattern;
}

TEST(DateFormatPattern, FieldsAreTakenInTheZone) {
  SDateTime t(2024, 1, 1, 2, 15, 0, 0, Utc());
  EXPECT_EQ(quentest::str(t.Format("yyyy-MM-dd HH:mm", STimeZone("EST,300 EDT"))), "2023-12-31 21:15");
  EXPECT_EQ(quentest::str(t.Format("yyyy-MM-dd HH:mm", STimeZone("X,-330"))), "2024-01-01 07:45");
  SDateTime summer(2024, 7, 1, 12, 0, 0, 0, Utc());
  EXPECT_EQ(quentest::str(summer.Format("HH:mm", STimeZone("CET,-60 CEST;3,5,0/2,0,10,5,0/3,0"))), "14:00");
  EXPECT_EQ(quentest::str(SDateTime(-44, 3, 15, 12, 0, 0, 0, Utc()).Format("yyyy yy", Utc())), "-44 -44");
}

TEST(DateFormatNames, FollowTheThreadLocale) {
  locale_t en = newlocale(LC_ALL_MASK, "en_US.UTF-8", nullptr);
  locale_t ja = newlocale(LC_ALL_MASK, "ja_JP.eucjp", nullptr);
  if (!en || !ja) GTEST_SKIP() << "locales missing";
  locale_t old = uselocale(ja);
  std::string japanese = quentest::str(SDateTimeString::GetLongDay(1));
  uselocale(en);
  std::string english = quentest::str(SDateTimeString::GetLongDay(1));
  uselocale(old);
  freelocale(en);
  freelocale(ja);
  EXPECT_EQ(english, "Monday");
  EXPECT_EQ(japanese, "\xB7\xEE\xCD\xCB\xC6\xFC");  // 月曜日
}

// The formatter writes its digits itself (no allocation per field); its
// output must be what the library's integer conversions give.
TEST(DateFormatPattern, NumbersMatchTheIntegerConversions) {
  for (int minute = 0; minute < 60; ++minute) {
    SDateTime t(2001, 1, 1 + minute % 28, minute % 24, minute, minute, minute * 16, Utc());
    EXPECT_EQ(quentest::str(t.Format("m", Utc())), quentest::str(SAnsiStringConv::StringFrom100Number(unsigned(minute))));
    EXPECT_EQ(quentest::str(t.Format("mm", Utc())), quentest::str(SAnsiStringConv::StringFrom10Number2Digits(unsigned(minute))));
    EXPECT_EQ(quentest::str(t.Format("s", Utc())), quentest::str(SAnsiStringConv::StringFrom100Number(unsigned(minute))));
    EXPECT_EQ(quentest::str(t.Format("HH", Utc())), quentest::str(SAnsiStringConv::StringFrom10Number2Digits(unsigned(minute % 24))));
    EXPECT_EQ(quentest::str(t.Format("d", Utc())), quentest::str(SAnsiStringConv::StringFrom100Number(unsigned(1 + minute % 28))));
    EXPECT_EQ(quentest::str(t.Format("S", Utc())), quentest::str(SAnsiStringConv::StringFrom100Number(unsigned(minute * 16))));
  }
}
