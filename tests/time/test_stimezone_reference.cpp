// TZ_Local() against the C library: for each zone, a child process with TZ
// set compares UTCOffset with localtime_r's tm_gmtoff for every hour of a
// year (and the second before each hour, so that transitions are seen from
// both sides).
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

using namespace QuenLibA500;

namespace {

struct CheckResult {
  int checked = -1;
  int mismatches = -1;
  int mismatchesInCDst = -1;  // disagreements where the C library has DST
  std::string rules;
};

// Child side: runs before main when the parent asked for it, prints one
// result line and leaves.
int RunChildCheck(int year) {
  tzset();
  STimeZone const& zone = STimeZone::TZ_Local();
  int64_t start = SDateTime(year, 1, 1, 0, 0, 0, 0, STimeZone::TZ_UTC()).GetUnixMilliseconds() / 1000;
  int64_t end = SDateTime(year + 1, 1, 1, 0, 0, 0, 0, STimeZone::TZ_UTC()).GetUnixMilliseconds() / 1000;
  int checked = 0, mismatches = 0, inDst = 0;
  for (int64_t hour = start; hour < end; hour += 3600) {
    for (int64_t t : {hour - 1, hour}) {
      time_t tt = static_cast<time_t>(t);
      struct tm tmv;
      localtime_r(&tt, &tmv);
      long ours = -long(zone.UTCOffset(SDateTime(t, zone)).GetTotalSeconds());
      ++checked;
      if (ours == tmv.tm_gmtoff) continue;
      ++mismatches;
      if (tmv.tm_isdst > 0) ++inDst;
      if (mismatches <= 3)
        std::fprintf(stderr, "mismatch at %lld: ours %ld, C library %ld\n", (long long)t, ours,
                     long(tmv.tm_gmtoff));
    }
  }
  SAnsiString rules = zone.GetRules();
  std::printf("RESULT %d %d %d %s\n", checked, mismatches, inDst, rules.getString());
  return 0;
}

[[maybe_unused]] int const kChild = [] {
  char const* year = std::getenv("QUENLIB_TZCHECK_YEAR");
  if (year) std::_Exit((std::fflush(stdout), RunChildCheck(std::atoi(year)), std::fflush(stdout), 0));
  return 0;
}();

CheckResult RunInChild(char const* zone, int year) {
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  CheckResult r;
  if (n <= 0) return r;
  self[n] = 0;
  std::string cmd = std::string("TZ='") + zone + "' QUENLIB_TZCHECK_YEAR=" + std::to_string(year) + " '" +
                    self + "'";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char line[1024];
  while (std::fgets(line, sizeof line, p)) {
    char rules[512] = "";
    if (std::sscanf(line, "RESULT %d %d %d %511[^\n]", &r.checked, &r.mismatches, &r.mismatchesInCDst,
                    rules) >= 3)
      r.rules = rules;
  }
  pclose(p);
  return r;
}

int ThisYear() { return SDateTime::GetCurrentDateTime().GetYear(); }

}  // namespace

class STimeZoneReference : public ::testing::TestWithParam<char const*> {};

TEST_P(STimeZoneReference, AgreesWithLocaltimeForAWholeYear) {
  int year = ThisYear();
  CheckResult r = RunInChild(GetParam(), year);
  ASSERT_GE(r.checked, 2 * 8760) << "the child check did not run";
  EXPECT_EQ(r.mismatches, 0) << GetParam() << " " << year << " rules: " << r.rules;
  std::printf("%s %d: %s\n", GetParam(), year, r.rules.c_str());
}

INSTANTIATE_TEST_SUITE_P(Zones, STimeZoneReference,
                         ::testing::Values("America/New_York", "America/Chicago", "Europe/Berlin",
                                           "Europe/London", "Australia/Sydney", "Asia/Tokyo", "UTC",
                                           "America/Sao_Paulo"),
                         [](auto const& info) {
                           std::string s = info.param;
                           for (char& c : s)
                             if (c == '/') c = '_';
                           return s;
                         });

// TZ_Local() holds the rule in force now. Sao Paulo kept daylight saving
// until 2019, so in 2015 the library shows standard time all year: every
// disagreement falls in the C library's daylight-saving hours, never outside.
TEST(STimeZoneReferenceHistory, SaoPaulo2015DiffersOnlyInDaylightHours) {
  CheckResult r = RunInChild("America/Sao_Paulo", 2015);
  ASSERT_GE(r.checked, 2 * 8760) << "the child check did not run";
  EXPECT_GT(r.mismatches, 0);
  EXPECT_EQ(r.mismatches, r.mismatchesInCDst);
  std::printf("America/Sao_Paulo 2015: %d of %d instants differ; rules: %s\n", r.mismatches, r.checked,
              r.rules.c_str());
}

TEST(STimeZoneReferenceHistory, FallsBackToUtcForAnUnknownZone) {
  CheckResult r = RunInChild("Nowhere/Invalid", ThisYear());
  ASSERT_GE(r.checked, 2 * 8760);
  EXPECT_EQ(r.mismatches, 0);  // the C library also takes an unknown zone as UTC
}
