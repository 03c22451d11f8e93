// quen oburl: parses an object URL and shows its parts and the text the
// library writes back.
#include <quenlib/oburl.h>

#include <clocale>
#include <cstdio>
#include <memory>
#include <string>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
Prints the object part, each property (decoded, in the order the library
keeps them: names ignoring case), and the URL written back (encoded with
the form table). Exit status 1 when the pair list is malformed (the
properties read before the fault are still shown).

Examples:
  quen oburl 'rpt?id=5&Name=a+b'
  quen oburl 'id=5'
  quen oburl 'obj?list=0%3Da%261%3Db'
)";

void Show(char const* label, SAnsiString const& s) {
  std::fputs(label, stdout);
  std::fwrite(s.getString(), 1, s.getLength(), stdout);
  std::fputc('\n', stdout);
}

void setupObUrl(CLI::App& app) {
  auto* cmd = app.add_subcommand("oburl", "Parse an object URL and write it back");
  auto text = std::make_shared<std::string>();
  cmd->add_option("url", *text, "the object URL text")->required();
  cmd->footer(kUsage);
  cmd->callback([text] {
    std::setlocale(LC_ALL, "");
    CObUrl url;
    bool ok = url.SetQueryString(SAnsiString(text->data(), static_cast<unsigned>(text->size())));
    Show("object: ", url.GetObjectUrl());
    for (auto it = url.Begin(); it != url.End(); ++it) {
      SAnsiString line = url.GetName(it);
      line += " = ";
      line += url.GetValueString(it);
      Show("  ", line);
    }
    Show("url: ", url.MakeURL());
    if (!ok) throw QuenExit{1, "malformed pair list"};
  });
}

}  // namespace

static QuenCommand obUrlCommand{"oburl", &setupObUrl};
