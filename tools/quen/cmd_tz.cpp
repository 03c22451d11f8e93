// quen tz: show a time zone as the library understands it: its names and
// offsets, its rules text, and this year's daylight-saving transitions.
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] =
    "Without RULES, shows the system zone (TZ, else /etc/localtime) as\n"
    "TZ_Local() reduces it to one annual rule. RULES is a zone rules text:\n"
    "  STD,OFFSET [DST[,DELTA]][;SM,SW,SD[/H,M],EM,EW,ED[/H,M]]\n"
    "Malformed rule numbers give a zone without daylight saving; the rules\n"
    "line shows what was understood.\n"
    "\n"
    "Examples:\n"
    "  quen tz\n"
    "  TZ=Australia/Sydney quen tz\n"
    "  quen tz 'EST,300 EDT'\n"
    "  quen tz --year 2030 'CET,-60 CEST;3,5,0/2,0,10,5,0/3,0'\n";

struct Options {
  std::string rules;
  bool hasRules = false;
  int year = 0;
};

// "UTC+01:00" for a bias of -60 minutes (the bias counts west).
std::string UtcOffset(int bias) {
  int east = -bias;
  char buf[32];
  std::snprintf(buf, sizeof buf, "UTC%c%02d:%02d", east < 0 ? '-' : '+', std::abs(east) / 60, std::abs(east) % 60);
  return buf;
}

// The wall clock at `unixMs` for a fixed bias.
std::string Clock(int64_t unixMs, int bias) {
  SDateTime t = SDateTime::FromUnixMilliseconds(unixMs - int64_t(bias) * 60000);
  return std::string(t.Format("yyyy-MM-dd HH:mm", STimeZone::TZ_UTC()).getString());
}

void PrintTransition(char const* what, int64_t at, int before, int after) {
  std::printf("  %-6s %s UTC  (%s -> %s local)\n", what, Clock(at, 0).c_str(), Clock(at, before).c_str(),
              Clock(at, after).c_str());
}

void Run(Options const& o) {
  STimeZone zone = o.hasRules ? STimeZone(SAnsiString(o.rules.c_str())) : STimeZone::TZ_Local();
  int year = o.year ? o.year : SDateTime::GetCurrentDateTime().GetYear(zone);
  std::printf("rules:    %s\n", zone.GetRules().getString());
  std::printf("standard: %s  %s\n", zone.StandardName().getString(), UtcOffset(zone.StandardOffset()).c_str());
  if (!zone.DSTEnabled()) {
    std::printf("daylight: none\n");
    return;
  }
  std::printf("daylight: %s  %s\n", zone.DaylightName().getString(), UtcOffset(zone.DaylightOffset()).c_str());
  std::printf("transitions in %d:\n", year);
  int64_t start = zone.DSTStartUTC(year), end = zone.DSTEndUTC(year);
  bool startFirst = start < end;
  if (startFirst) PrintTransition("starts", start, zone.StandardOffset(), zone.DaylightOffset());
  PrintTransition("ends", end, zone.DaylightOffset(), zone.StandardOffset());
  if (!startFirst) PrintTransition("starts", start, zone.StandardOffset(), zone.DaylightOffset());
}

void Setup(CLI::App& app) {
  auto opts = std::make_shared<Options>();
  auto* cmd = app.add_subcommand("tz", "Show a time zone, its rules text and its transitions");
  cmd->add_option("--year,-y", opts->year, "year of the transitions (default: this year)");
  cmd->add_option("rules", opts->rules, "zone rules text (default: the system zone)");
  cmd->footer(kUsage);
  cmd->callback([opts, cmd] {
    opts->hasRules = cmd->count("rules") > 0;
    Run(*opts);
  });
}

QuenCommand tz{"tz", &Setup};

}  // namespace
