// quen env expand: "%NAME%" expansion as the registry's expand-strings do it.
#include <quenlib/senvironment.h>

#include <cstdio>
#include <memory>
#include <string>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
Prints TEXT with every "%NAME%" of a set variable replaced by its value.
References to unset variables stay as written. Names are case-sensitive.

Examples:
  quen env expand '%HOME%/.config'          # /home/ann/.config
  quen env expand '%NOT_SET%/x'             # %NOT_SET%/x
)";

void setupEnv(CLI::App& app) {
  auto* env = app.add_subcommand("env", "The process environment");
  env->require_subcommand(1);
  auto* expand = env->add_subcommand("expand", "Expand %NAME% references in a text");
  auto text = std::make_shared<std::string>();
  expand->add_option("TEXT", *text, "the text to expand")->required();
  expand->footer(kUsage);
  expand->callback([text] { std::puts(SEnvironment::expand(text->c_str()).getString()); });
}

}  // namespace

static QuenCommand envCommand{"env", &setupEnv};
