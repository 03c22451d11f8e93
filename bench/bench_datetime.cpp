// SDateTime field extraction and pattern formatting in a zone with daylight
// saving, against ICU's Calendar / SimpleDateFormat and the C library's
// localtime_r / strftime. Every case walks the same instants (a step of a
// little over two hours) in America/New_York.
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>

#include <benchmark/benchmark.h>
#include <unicode/calendar.h>
#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

using namespace QuenLibA500;

namespace {

constexpr int64_t kStartMs = 1704067200000;  // 2024-01-01 00:00 UTC
constexpr int64_t kStepMs = 7919 * 1000 + 123;
constexpr int64_t kSpan = 4000;

int64_t InstantAt(int64_t i) { return kStartMs + (i % kSpan) * kStepMs; }

void Ours_Fields(benchmark::State& state) {
  STimeZone const& zone = STimeZone::TZ_Local();
  int64_t i = 0;
  for (auto _ : state) {
    SDateTime t = SDateTime::FromUnixMilliseconds(InstantAt(i++));
    int y, mo, d, h, mi, s, ms;
    t.GetDateTime(y, mo, d, h, mi, s, ms, zone);
    benchmark::DoNotOptimize(y + mo + d + h + mi + s + ms);
  }
}
BENCHMARK(Ours_Fields);

void Icu_CalendarFields(benchmark::State& state) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Calendar> cal(
      icu::Calendar::createInstance(icu::TimeZone::createTimeZone("America/New_York"), status));
  int64_t i = 0;
  for (auto _ : state) {
    cal->setTime(UDate(InstantAt(i++)), status);
    int v = cal->get(UCAL_YEAR, status) + cal->get(UCAL_MONTH, status) + cal->get(UCAL_DATE, status) +
            cal->get(UCAL_HOUR_OF_DAY, status) + cal->get(UCAL_MINUTE, status) +
            cal->get(UCAL_SECOND, status) + cal->get(UCAL_MILLISECOND, status);
    benchmark::DoNotOptimize(v);
  }
  if (U_FAILURE(status)) state.SkipWithError("ICU failed");
}
BENCHMARK(Icu_CalendarFields);

void Libc_LocaltimeFields(benchmark::State& state) {
  int64_t i = 0;
  for (auto _ : state) {
    int64_t ms = InstantAt(i++);
    time_t t = time_t(ms / 1000);
    struct tm tmv;
    localtime_r(&t, &tmv);
    benchmark::DoNotOptimize(tmv.tm_year + tmv.tm_mon + tmv.tm_mday + tmv.tm_hour + tmv.tm_min +
                             tmv.tm_sec + int(ms % 1000));
  }
}
BENCHMARK(Libc_LocaltimeFields);

void Ours_Format(benchmark::State& state) {
  STimeZone const& zone = STimeZone::TZ_Local();
  int64_t i = 0;
  for (auto _ : state) {
    SDateTime t = SDateTime::FromUnixMilliseconds(InstantAt(i++));
    SAnsiString s = t.Format("yyyy-MM-dd HH:mm:ss.SSS", zone);
    benchmark::DoNotOptimize(s.getString());
  }
}
BENCHMARK(Ours_Format);

void Icu_SimpleDateFormat(benchmark::State& state) {
  UErrorCode status = U_ZERO_ERROR;
  icu::SimpleDateFormat fmt(icu::UnicodeString("yyyy-MM-dd HH:mm:ss.SSS"), icu::Locale::getUS(), status);
  fmt.adoptTimeZone(icu::TimeZone::createTimeZone("America/New_York"));
  int64_t i = 0;
  icu::UnicodeString out;
  for (auto _ : state) {
    out.remove();
    fmt.format(UDate(InstantAt(i++)), out);
    benchmark::DoNotOptimize(out.getBuffer());
  }
  if (U_FAILURE(status)) state.SkipWithError("ICU failed");
}
BENCHMARK(Icu_SimpleDateFormat);

void Libc_Strftime(benchmark::State& state) {
  int64_t i = 0;
  char buf[64];
  for (auto _ : state) {
    int64_t ms = InstantAt(i++);
    time_t t = time_t(ms / 1000);
    struct tm tmv;
    localtime_r(&t, &tmv);
    size_t n = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tmv);
    std::snprintf(buf + n, sizeof buf - n, ".%03d", int(ms % 1000));
    benchmark::DoNotOptimize(buf);
  }
}
BENCHMARK(Libc_Strftime);

}  // namespace

int main(int argc, char** argv) {
  // Every peer works in the same zone: the C library and ICU through TZ.
  setenv("TZ", "America/New_York", 1);
  tzset();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
