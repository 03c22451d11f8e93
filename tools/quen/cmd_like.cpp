// quen like: tests a text against a LIKE-style pattern.
#include <quenlib/qrysstring.h>

#include <clocale>
#include <cstdio>
#include <memory>
#include <string>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
Patterns: % any run, _ one character, [set] one of the set (x-y ranges),
[^set] none of the set; everything else is itself. Letter case is ignored
everywhere. Write a literal % _ [ ] in brackets: 100[%], [[], []].

Prints "match" or "no match". Exit status: 0 match, 1 no match,
2 malformed pattern (unclosed "[").

Examples:
  quen like 'a%c' ABC                      # match
  quen like '[^a-c]x' bx                   # no match
  quen like '100[%]' '100%'                # match
  quen like --wrap '*_x' 'a_x'             # user text: * is %, the rest literal
)";

void setupLike(CLI::App& app) {
  auto* cmd = app.add_subcommand("like", "Match a text against a LIKE pattern");
  auto pattern = std::make_shared<std::string>();
  auto text = std::make_shared<std::string>();
  auto wrap = std::make_shared<bool>(false);
  cmd->add_option("pattern", *pattern, "the pattern")->required();
  cmd->add_option("text", *text, "the text")->required();
  cmd->add_flag("--wrap", *wrap, "treat the pattern as user text: * is any run, all else literal");
  cmd->footer(kUsage);
  cmd->callback([pattern, text, wrap] {
    std::setlocale(LC_ALL, "");
    SAnsiString p = *wrap ? SQueryString::WrapWildCardCharsFromString(pattern->c_str())
                          : SAnsiString(pattern->c_str());
    SQueryString q(p);
    if (!q.parse()) throw QuenExit{2, "malformed pattern: " + *pattern};
    bool m = q.like(SAnsiString(text->c_str()));
    std::puts(m ? "match" : "no match");
    if (!m) throw QuenExit{1, ""};
  });
}

}  // namespace

static QuenCommand likeCommand{"like", &setupLike};
