// Locale information from ICU: separators, first weekday, patterns, names.
#include "text_support.h"
#include <quenlib/sdatetimestring.h>
#include <quenlib/slocaleinfo.h>

using namespace QuenLibA500;
using quentest::str;

namespace {

class LocaleInfo : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(locale_.ok()); }

 private:
  quentest::LocaleScope locale_{"C.UTF-8"};
};

}  // namespace

TEST_F(LocaleInfo, AnswersPerLocale) {
  struct Case {
    char const* id;
    char const* displayInEnglish;
    char const* decimal;
    char const* grouping;
    int firstDay;
    char const* march;
  };
  static Case const kCases[] = {
      {"en_US", "English (United States)", ".", ",", 0, "March"},
      {"de_DE", "German (Germany)", ",", ".", 1, "März"},
      {"de_CH", "German (Switzerland)", ".", "’", 1, "März"},
      {"fr_FR", "French (France)", ",", "\u202f", 1, "mars"},
  };
  for (Case const& c : kCases) {
    SLocaleInfo info(c.id);
    EXPECT_TRUE(info.IsKnown()) << c.id;
    EXPECT_EQ(str(info.GetDisplayNameIn("en")), c.displayInEnglish) << c.id;
    EXPECT_EQ(str(info.GetDecimalSeparator()), c.decimal) << c.id;
    EXPECT_EQ(str(info.GetGroupingSeparator()), c.grouping) << c.id;
    EXPECT_EQ(info.GetFirstDayOfWeek(), c.firstDay) << c.id;
    EXPECT_EQ(str(info.GetLongMonth(3)), c.march) << c.id;
  }
  EXPECT_EQ(str(SLocaleInfo("de_CH").GetDisplayName()), "Deutsch (Schweiz)");
  EXPECT_FALSE(SLocaleInfo("qq_ZZ").IsKnown());
}

TEST_F(LocaleInfo, Patterns) {
  SLocaleInfo de("de_DE");
  EXPECT_EQ(str(de.GetDatePattern(SLocaleInfo::Short)), "dd.MM.yy");
  EXPECT_EQ(str(de.GetTimePattern(SLocaleInfo::Short)), "HH:mm");
  EXPECT_EQ(str(SLocaleInfo("en_US").GetTimePattern(SLocaleInfo::Short)), "h:mm\u202fa");
  EXPECT_EQ(str(de.GetDatePattern(SLocaleInfo::Style(7))), "");
  EXPECT_EQ(str(de.GetShortDay(7)) + str(de.GetShortMonth(0)), "");
  EXPECT_EQ(str(SLocaleInfo("en_US").GetEra(false)), "BC");
}

// The date formatting reads its names from the same place.
TEST_F(LocaleInfo, IsTheSourceOfTheDateFormattingNames) {
  locale_t ja = newlocale(LC_ALL_MASK, "ja_JP.eucjp", nullptr);
  if (!ja) GTEST_SKIP() << "the ja_JP.eucjp locale is not installed";
  locale_t old = uselocale(ja);
  SLocaleInfo current = SLocaleInfo::Current();
  EXPECT_EQ(str(current.GetId()), "ja_JP");
  for (int d = 0; d < 7; ++d) EXPECT_EQ(str(SDateTimeString::GetLongDay(d)), str(current.GetLongDay(d)));
  EXPECT_EQ(str(SDateTimeString::GetLongMonth(3)), "3\xB7\xEE");  // 3月, in EUC-JP
  EXPECT_EQ(str(current.GetDecimalSeparator()), ".");
  uselocale(old);
  freelocale(ja);
}
