// quen lang: the languages installed in a catalog directory, the texts of a
// catalog, and what ICU says about a locale.
//
//   quen lang list DIR
//   quen lang show [--html] DIR LOCALE [ID]
//   quen lang info LOCALE
#include <quenlib/slocaleinfo.h>
#include <quenlib/sresourcecatalog.h>

#include <clocale>
#include <cstdio>
#include <memory>
#include <string>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
DIR holds catalogs compiled by genrb (<locale>.res, root.res for the texts
every language falls back to). A lookup for de_CH tries de_CH, de, root.
Texts are printed in the locale of the environment.

Exit status: 0 found, 1 no such identifier or no catalog, 2 bad arguments.

Examples:
  quen lang list build/dev/catalogs            # de  Deutsch ...
  quen lang show build/dev/catalogs de_CH GREETING
  quen lang show --html build/dev/catalogs de LOGIN_PAGE
  quen lang show build/dev/catalogs de         # every string, ID=text
  quen lang info de_CH
)";

struct Options {
  std::string dir, locale, id;
  bool html = false;
};

void List(Options const& o) {
  for (SAnsiString const& name : SResourceCatalog::InstalledLanguages(o.dir.c_str())) {
    SLocaleInfo info(name.getString());
    std::printf("%-8s %-30s %s\n", name.getString(), info.GetDisplayName().getString(),
                info.GetDisplayNameIn("en").getString());
  }
}

void Show(Options const& o) {
  SResourceCatalog catalog(o.dir.c_str(), o.locale.c_str());
  if (!catalog.IsOpen()) throw QuenExit{1, "no catalog for " + o.locale + " in " + o.dir};
  if (o.id.empty()) {
    for (SResourceEntry const& e : catalog.GetCollection()) std::printf("%s=%s\n", e.id.getString(), e.text.getString());
    return;
  }
  SAnsiString text;
  SResourceCatalog::Status st = o.html ? catalog.GetHtml(o.id.c_str(), text) : catalog.GetString(o.id.c_str(), text);
  if (st != SResourceCatalog::Found)
    throw QuenExit{1, std::string(o.html ? "no template " : "no string ") + o.id + " for " + o.locale};
  std::printf("%s\n", text.getString());
}

void Info(Options const& o) {
  SLocaleInfo info(o.locale.c_str());
  static char const* const kDays[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
  std::printf("locale:        %s%s\n", info.GetId().getString(), info.IsKnown() ? "" : " (no ICU data; root shown)");
  std::printf("name:          %s (%s)\n", info.GetDisplayName().getString(), info.GetDisplayNameIn("en").getString());
  std::printf("decimal:       '%s'\n", info.GetDecimalSeparator().getString());
  std::printf("grouping:      '%s'\n", info.GetGroupingSeparator().getString());
  std::printf("first day:     %s\n", kDays[info.GetFirstDayOfWeek() % 7]);
  std::printf("date patterns: %s | %s\n", info.GetDatePattern(SLocaleInfo::Short).getString(),
              info.GetDatePattern(SLocaleInfo::Long).getString());
  std::printf("time patterns: %s | %s\n", info.GetTimePattern(SLocaleInfo::Short).getString(),
              info.GetTimePattern(SLocaleInfo::Medium).getString());
  std::printf("months:        %s .. %s\n", info.GetLongMonth(1).getString(), info.GetLongMonth(12).getString());
}

void Setup(CLI::App& app) {
  auto opts = std::make_shared<Options>();
  auto* cmd = app.add_subcommand("lang", "Installed languages, catalog texts and locale information");
  cmd->footer(kUsage);
  cmd->require_subcommand(1);
  auto* list = cmd->add_subcommand("list", "List the catalogs of a directory with their language names");
  list->add_option("dir", opts->dir, "catalog directory")->required();
  list->callback([opts] {
    std::setlocale(LC_ALL, "");
    List(*opts);
  });
  auto* show = cmd->add_subcommand("show", "Print a string (or template) by identifier, or every string");
  show->add_flag("--html", opts->html, "look the identifier up among the HTML templates");
  show->add_option("dir", opts->dir, "catalog directory")->required();
  show->add_option("locale", opts->locale, "locale, as de_CH")->required();
  show->add_option("id", opts->id, "identifier (default: every string)");
  show->callback([opts] {
    std::setlocale(LC_ALL, "");
    Show(*opts);
  });
  auto* info = cmd->add_subcommand("info", "What ICU says about a locale");
  info->add_option("locale", opts->locale, "locale, as de_CH")->required();
  info->callback([opts] {
    std::setlocale(LC_ALL, "");
    Info(*opts);
  });
}

QuenCommand lang{"lang", &Setup};

}  // namespace
