// quen tok: cut a text at a delimiter as the library's tokenizers do, to
// check how a product will split a stored list or a name=value text.
#include <quenlib/strtok.h>

#include <clocale>
#include <cstdio>
#include <memory>
#include <string>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] =
    "Prints each piece of TEXT, one per line, as \"N <tab> \\\"piece\\\"\", in the\n"
    "order Next() returns them until nothing is left. The delimiter is a\n"
    "whole text, not a set of characters; two delimiters in a row give an\n"
    "empty piece, a trailing one gives none. Text and delimiter are read in\n"
    "the locale of the environment (LC_ALL, LC_CTYPE, LANG), so multibyte\n"
    "delimiters match whole characters only.\n"
    "\n"
    "With --right, prints instead what the two RightStr forms return and\n"
    "leave behind:\n"
    "  RSStrTok::RightStr(D)  drops the first piece, returns the second and\n"
    "                         consumes it\n"
    "  SStrTok::RightStr()    drops the first piece, returns all of the rest\n"
    "                         and leaves it in place\n"
    "\n"
    "Examples:\n"
    "  quen tok --delim , 'a,b,,c'\n"
    "  quen tok --delim :: 'a::b:c'\n"
    "  quen tok --right --delim '&' 'x=1&y=2&z=3'\n";

struct Options {
  std::string delim;
  std::string text;
  bool right = false;
};

std::string Quoted(SAnsiString const& s) {
  return "\"" + std::string(s.getString(), s.getLength()) + "\"";
}

void PrintPieces(Options const& o) {
  RSStrTok t(o.text.c_str());
  t.SetToken(o.delim.c_str());
  for (int n = 1; !t.IsEmpty(); ++n) std::printf("%d\t%s\n", n, Quoted(t.Next()).c_str());
}

void PrintRight(Options const& o) {
  RSStrTok r(o.text.c_str());
  SAnsiString piece = r.RightStr(o.delim.c_str());
  std::printf("RSStrTok::RightStr\t%s\trest\t%s\n", Quoted(piece).c_str(), Quoted(r.rest()).c_str());
  SStrTok s(o.text.c_str(), o.delim.c_str());
  SAnsiString all = s.RightStr();
  std::printf("SStrTok::RightStr\t%s\trest\t%s\n", Quoted(all).c_str(), Quoted(s.GetString()).c_str());
}

void run(Options const& o) {
  std::setlocale(LC_ALL, "");
  if (o.text.find('\0') != std::string::npos || o.delim.find('\0') != std::string::npos)
    throw QuenExit{2, "text and delimiter cannot hold zero bytes"};
  if (o.right)
    PrintRight(o);
  else
    PrintPieces(o);
}

void setupTok(CLI::App& app) {
  auto* cmd = app.add_subcommand("tok", "Cut a text at a delimiter as the library's tokenizers do");
  auto opts = std::make_shared<Options>();
  cmd->add_option("--delim,-d", opts->delim, "the delimiter text")->required();
  cmd->add_flag("--right", opts->right, "show the two RightStr behaviours instead");
  cmd->add_option("text", opts->text, "the text to cut")->required();
  cmd->footer(kUsage);
  cmd->callback([opts] { run(*opts); });
}

QuenCommand tokCommand{"tok", &setupTok};

}  // namespace
