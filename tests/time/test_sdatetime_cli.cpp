// quen date and quen tz, run as an operator would.
#include "time_support.h"

namespace {

class QuenDateCli : public quentest::QuenTest {
 protected:
  // quen in the C locale and the zone `tz`, standard error included.
  static quentest::QuenRun Run(std::string const& args, char const* tz = "UTC") {
    return quentest::RunQuen(args, std::string("TZ=") + tz + " LC_ALL=C");
  }
};

}  // namespace

TEST_F(QuenDateCli, DateInGivenAndSystemZones) {
  struct Case {
    char const* args;
    char const* tz;
    char const* expected;
  } cases[] = {
      {"date --tz 'EST,300 EDT' 1720000000000", "UTC", "2024-07-03 05:46:40.000 EDT\n"},
      {"date --tz 'EST,300 EDT' 1704067200000", "UTC", "2023-12-31 19:00:00.000 EST\n"},
      {"date 1720000000000", "Asia/Tokyo", "2024-07-03 18:46:40.000 Japan Standard Time\n"},
      {"date --format \"dddd d MMMM yyyy h:mm tt 'o''clock'\" 1720000000000", "UTC",
       "Wednesday 3 July 2024 9:46 AM oclock\n"},
      {"date --tz UTC,0 -- -86400000", "UTC", "1969-12-31 00:00:00.000 UTC\n"},
  };
  for (auto const& c : cases) {
    quentest::QuenRun out = Run(c.args, c.tz);
    EXPECT_EQ(out.status, 0) << c.args;
    EXPECT_EQ(out.out, c.expected) << c.args;
  }
}

TEST_F(QuenDateCli, DateRefusesBadNumbers) {
  quentest::QuenRun out = Run("date 12abc");
  EXPECT_EQ(out.status, 2);
  EXPECT_NE(out.out.find("MILLISECONDS must be a whole number"), std::string::npos) << out.out;
  EXPECT_EQ(Run("date 999999999999999999").status, 2);
}

TEST_F(QuenDateCli, TzShowsRulesAndTransitions) {
  quentest::QuenRun out = Run("tz --year 2024 'CET,-60 CEST;3,5,0/2,0,10,5,0/3,0'");
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.out,
            "rules:    CET,-60 CEST,-60;3,5,0/2,0,10,5,0/3,0\n"
            "standard: CET  UTC+01:00\n"
            "daylight: CEST  UTC+02:00\n"
            "transitions in 2024:\n"
            "  starts 2024-03-31 01:00 UTC  (2024-03-31 02:00 -> 2024-03-31 03:00 local)\n"
            "  ends   2024-10-27 01:00 UTC  (2024-10-27 03:00 -> 2024-10-27 02:00 local)\n");
  quentest::QuenRun sydney = Run("tz --year 2024", "Australia/Sydney");
  EXPECT_NE(sydney.out.find(";10,1,0/2,0,4,1,0/3,0\n"), std::string::npos) << sydney.out;
  EXPECT_LT(sydney.out.find("  ends   2024-04-06 16:00 UTC"), sydney.out.find("  starts 2024-10-05 16:00 UTC"));
  quentest::QuenRun bad = Run("tz 'A,60 B;13,1,0'");
  EXPECT_EQ(bad.out, "rules:    A,60\nstandard: A  UTC-01:00\ndaylight: none\n");
}
