// quen date: show an instant in a time zone, through the library's own
// zone rules and pattern formatting.
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] =
    "Prints MILLISECONDS (since 1970-01-01 00:00 UTC; default: now) in the\n"
    "zone given by RULES (default: the system zone, as TZ_Local() sees it).\n"
    "Without --format the output is yyyy-MM-dd HH:mm:ss.SSS and the zone's\n"
    "name for that instant.\n"
    "\n"
    "RULES: STD,OFFSET [DST[,DELTA]][;SM,SW,SD[/H,M],EM,EW,ED[/H,M]]\n"
    "  OFFSET minutes west of UTC (New York 300, Berlin -60); DELTA added for\n"
    "  daylight time (default -60); week 5 = last; day 0 = Sunday.\n"
    "PATTERN letters: d M y g h H m s S t (run length picks the form);\n"
    "  text in 'single' or \"double\" quotes is copied as it is.\n"
    "\n"
    "Exit status: 0, or 2 on bad usage. Put -- before a negative number.\n"
    "\n"
    "Examples:\n"
    "  quen date\n"
    "  quen date --tz 'EST,300 EDT' 1720000000000\n"
    "  quen date --tz 'CET,-60 CEST;3,5,0/2,0,10,5,0/3,0' --format \"dddd d MMMM yyyy, HH:mm\"\n"
    "  quen date --tz UTC,0 -- -86400000\n";

struct Options {
  std::string rules;
  std::string pattern;
  std::string millis;
};

int64_t ParseMillis(std::string const& text) {
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != 0 || errno == ERANGE)
    throw QuenExit{2, "MILLISECONDS must be a whole number, not '" + text + "'"};
  return v;
}

void Run(Options const& o) {
  SDateTime when = o.millis.empty() ? SDateTime::GetCurrentDateTime()
                                    : SDateTime::FromUnixMilliseconds(ParseMillis(o.millis));
  if (!when.IsValid()) throw QuenExit{2, "MILLISECONDS is outside the dates the library can hold"};
  STimeZone given{SAnsiString(o.rules.c_str())};  // the empty text is the system zone too
  STimeZone const& zone = o.rules.empty() ? STimeZone::TZ_Local() : given;
  if (!o.pattern.empty()) {
    std::printf("%s\n", when.Format(o.pattern.c_str(), zone).getString());
    return;
  }
  std::printf("%s %s\n", when.Format("yyyy-MM-dd HH:mm:ss.SSS", zone).getString(),
              zone.GetName(when).getString());
}

void Setup(CLI::App& app) {
  auto opts = std::make_shared<Options>();
  auto* cmd = app.add_subcommand("date", "Show an instant in a time zone");
  cmd->add_option("--tz", opts->rules, "zone rules text (default: the system zone)");
  cmd->add_option("--format,-f", opts->pattern, "date and time pattern");
  cmd->add_option("milliseconds", opts->millis, "milliseconds since 1970 UTC (default: now)");
  cmd->footer(kUsage);
  cmd->callback([opts] { Run(*opts); });
}

QuenCommand date{"date", &Setup};

}  // namespace
