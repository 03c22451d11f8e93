// quen date and quen tz, run as an operator would.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

namespace {

struct Output {
  int status = -1;
  std::string text;
};

class QuenDateCli : public ::testing::Test {
 protected:
  void SetUp() override {
    quen_ = std::string(QUENLIB_BINARY_DIR) + "/tools/quen/quen";
    if (!fs::exists(quen_)) GTEST_SKIP() << "quen is not built";
  }

  Output Run(std::string const& args, char const* tz = "UTC") {
    std::string cmd = std::string("TZ=") + tz + " LC_ALL=C '" + quen_ + "' " + args + " 2>&1";
    Output out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[512];
    while (std::fgets(buf, sizeof buf, p)) out.text += buf;
    int rc = pclose(p);
    out.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
  }

  std::string quen_;
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
    Output out = Run(c.args, c.tz);
    EXPECT_EQ(out.status, 0) << c.args;
    EXPECT_EQ(out.text, c.expected) << c.args;
  }
}

TEST_F(QuenDateCli, DateRefusesBadNumbers) {
  Output out = Run("date 12abc");
  EXPECT_EQ(out.status, 2);
  EXPECT_NE(out.text.find("MILLISECONDS must be a whole number"), std::string::npos) << out.text;
  EXPECT_EQ(Run("date 999999999999999999").status, 2);
}

TEST_F(QuenDateCli, TzShowsRulesAndTransitions) {
  Output out = Run("tz --year 2024 'CET,-60 CEST;3,5,0/2,0,10,5,0/3,0'");
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.text,
            "rules:    CET,-60 CEST,-60;3,5,0/2,0,10,5,0/3,0\n"
            "standard: CET  UTC+01:00\n"
            "daylight: CEST  UTC+02:00\n"
            "transitions in 2024:\n"
            "  starts 2024-03-31 01:00 UTC  (2024-03-31 02:00 -> 2024-03-31 03:00 local)\n"
            "  ends   2024-10-27 01:00 UTC  (2024-10-27 03:00 -> 2024-10-27 02:00 local)\n");
  Output sydney = Run("tz --year 2024", "Australia/Sydney");
  EXPECT_NE(sydney.text.find(";10,1,0/2,0,4,1,0/3,0\n"), std::string::npos) << sydney.text;
  EXPECT_LT(sydney.text.find("  ends   2024-04-06 16:00 UTC"), sydney.text.find("  starts 2024-10-05 16:00 UTC"));
  Output bad = Run("tz 'A,60 B;13,1,0'");
  EXPECT_EQ(bad.text, "rules:    A,60\nstandard: A  UTC-01:00\ndaylight: none\n");
}
