// The rules text, its written form, and the daylight-saving test.
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>

#include <gtest/gtest.h>

#include <random>
#include <string>

using namespace QuenLibA500;

namespace {

STimeZone const& Utc() { return STimeZone::TZ_UTC(); }

SDateTime At(int y, int m, int d, int h, int mi = 0) { return SDateTime(y, m, d, h, mi, 0, 0, Utc()); }

std::string Str(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

std::string Rule(STimeZoneTransition const& t) {
  return std::to_string(t.month) + "," + std::to_string(t.week) + "," + std::to_string(t.dayOfWeek) +
         "/" + std::to_string(t.hour) + ":" + std::to_string(t.minute);
}

}  // namespace

TEST(STimeZoneRules, ParsesTheFields) {
  struct Case {
    char const* text;
    char const* stdName;
    int stdOffset;
    bool dst;
    char const* dstName;
    int dstOffset;
    char const* start;
    char const* end;
  } cases[] = {
      {"EST,300 EDT", "EST", 300, true, "EDT", 240, "3,2,0/2:0", "11,1,0/2:0"},
      {"CET,-60 CEST;3,5,0/2,0,10,5,0/3,0", "CET", -60, true, "CEST", -120, "3,5,0/2:0", "10,5,0/3:0"},
      {"JST,-540", "JST", -540, false, "", -540, "", ""},
      {"X,  -330", "X", -330, false, "", -330, "", ""},
      {"LHST,-630 LHDT,-30;10,1,0/2,0,4,1,0/2,0", "LHST", -630, true, "LHDT", -660, "10,1,0/2:0", "4,1,0/2:0"},
      {"AEST,-600 AEDT;10,1,0,4,1,0/3,0", "AEST", -600, true, "AEDT", -660, "10,1,0/2:0", "4,1,0/3:0"},
      {"A,60 B;4 1:0 / 1,30 ; 9 . 5 . 6", "A", 60, true, "B", 0, "4,1,0/1:30", "9,5,6/2:0"},
      {"NoComma", "NoComma", 0, false, "", 0, "", ""},
      {"E,120 ;3,1,0,10,1,0", "E", 120, true, "", 60, "3,1,0/2:0", "10,1,0/2:0"},
      {"Q,abc", "Q", 0, true, "abc", -60, "3,2,0/2:0", "11,1,0/2:0"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    STimeZone z(c.text);
    EXPECT_EQ(Str(z.StandardName()), c.stdName);
    EXPECT_EQ(z.StandardOffset(), c.stdOffset);
    EXPECT_EQ(z.DSTEnabled(), c.dst);
    if (!c.dst) continue;
    EXPECT_EQ(Str(z.DaylightName()), c.dstName);
    EXPECT_EQ(z.DaylightOffset(), c.dstOffset);
    EXPECT_EQ(Rule(z.DSTStart()), c.start);
    EXPECT_EQ(Rule(z.DSTEnd()), c.end);
  }
}

TEST(STimeZoneRules, BadRulesGiveAZoneWithoutDaylightSaving) {
  char const* texts[] = {
      "A,60 B;13,1,0,10,1,0",   "A,60 B;3,6,0,10,1,0",  "A,60 B;3,1,7,10,1,0", "A,60 B;3,1,0/25,0,10,1,0",
      "A,60 B;3,1,0/2,60,10,1,0", "A,60 B;3,1,0",        "A,60 B;",              "A,60 B;3,-1,0,10,1,0",
      "A,60 B;0,1,0,10,1,0",    "A,60 B;3,1,0/2",       "A,60 B;99999999999999,1,0,10,1,0",
  };
  for (char const* t : texts) {
    SCOPED_TRACE(t);
    STimeZone z(t);
    EXPECT_FALSE(z.DSTEnabled());
    EXPECT_EQ(Str(z.StandardName()), "A");
    EXPECT_EQ(z.StandardOffset(), 60);
    EXPECT_EQ(z.UTCOffset(At(2024, 7, 1, 0)).GetTotalMinutes(), 60);
  }
  EXPECT_EQ(STimeZone("A,99999").StandardOffset(), 0);  // beyond 16 bits
  EXPECT_EQ(STimeZone("A,-32768").StandardOffset(), -32768);
}

TEST(STimeZoneRules, RandomTextsAlwaysRoundTrip) {
  std::mt19937 rng(1234);
  char const alphabet[] = "AZ, ;/-0123456789\t.x";
  for (int i = 0; i < 20000; ++i) {
    std::string text(rng() % 40, ' ');
    for (char& c : text) c = alphabet[rng() % (sizeof alphabet - 1)];
    STimeZone z(text.empty() ? "E" : text.c_str());
    STimeZone back(z.GetRules());
    ASSERT_EQ(back, z) << text << " -> " << Str(z.GetRules());
  }
}

TEST(STimeZoneDST, SouthernHemisphere) {
  STimeZone sydney("AEST,-600 AEDT;10,1,0/2,0,4,1,0/3,0");
  // 2024: ends Sunday 7 April 3:00 AEDT (16:00 UTC on the 6th), starts
  // Sunday 6 October 2:00 AEST (16:00 UTC on the 5th).
  EXPECT_TRUE(sydney.InDST(At(2024, 1, 15, 0)));
  EXPECT_TRUE(sydney.InDST(At(2024, 4, 6, 15, 59)));
  EXPECT_FALSE(sydney.InDST(At(2024, 4, 6, 16, 0)));
  EXPECT_FALSE(sydney.InDST(At(2024, 7, 1, 0)));
  EXPECT_FALSE(sydney.InDST(At(2024, 10, 5, 15, 59)));
  EXPECT_TRUE(sydney.InDST(At(2024, 10, 5, 16, 0)));
  EXPECT_TRUE(sydney.InDST(At(2024, 12, 31, 23)));
  EXPECT_EQ(sydney.UTCOffset(At(2024, 1, 15, 0)).GetTotalMinutes(), -660);
}

TEST(STimeZoneDST, WeekFiveIsTheLastWeekday) {
  // February 2023 has four Sundays (5, 12, 19, 26): week 5 selects the 26th.
  STimeZone z("S,0 D;2,5,0/0,0,11,5,0/0,0");
  EXPECT_FALSE(z.InDST(At(2023, 2, 25, 23, 59)));
  EXPECT_TRUE(z.InDST(At(2023, 2, 26, 0, 0)));
  EXPECT_EQ(z.DSTStartUTC(2023), At(2023, 2, 26, 0).GetUnixMilliseconds());
  // March 2024 has five Sundays: the 31st.
  STimeZone eu("CET,-60 CEST;3,5,0/2,0,10,5,0/3,0");
  EXPECT_EQ(eu.DSTStartUTC(2024), At(2024, 3, 31, 1).GetUnixMilliseconds());
  EXPECT_EQ(eu.DSTEndUTC(2024), At(2024, 10, 27, 1).GetUnixMilliseconds());
}
