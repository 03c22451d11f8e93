// quen uri: generic URIs (RFC 3986) as the library parses, resolves and
// normalises them.
//
//   quen uri parse [--normalize] TEXT
//   quen uri resolve BASE REF
//   quen uri normalize TEXT
#include <quenlib/siuri.h>

#include <cstdio>
#include <memory>
#include <string>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"usage(
Parts that are absent are shown as "(none)"; a present but empty part as
"". The host of an IPv6 literal is shown without brackets.

Exit status: 0 done, 1 not a URI reference (or no absolute base), 2 bad
arguments.

Examples:
  quen uri parse 'http://user@[::1]:8080/a?x#f'
  quen uri resolve 'http://a/b/c/d;p?q' '../g'     # http://a/b/g
  quen uri normalize 'HTTP://Example.COM/a/../%7e'  # http://example.com/~
)usage";

struct Options {
  std::string text, ref;
  bool normalize = false;
};

SIUri Parsed(std::string const& text) {
  SIUri uri;
  if (!uri.Parse(text.c_str())) throw QuenExit{1, "not a URI reference: " + text};
  return uri;
}

void Part(char const* name, bool present, SAnsiString const& value) {
  if (present)
    std::printf("%-10s\"%s\"\n", name, value.getString());
  else
    std::printf("%-10s(none)\n", name);
}

void Parse(Options const& o) {
  SIUri uri = Parsed(o.text);
  if (o.normalize && !uri.Normalize()) throw QuenExit{1, "cannot normalise " + o.text};
  Part("scheme:", uri.HasScheme(), uri.GetScheme());
  Part("userinfo:", uri.HasUserInfo(), uri.GetUserInfo());
  Part("host:", uri.HasAuthority(), uri.GetHost());
  if (uri.IsIPv6()) std::printf("%-10sIPv6 literal\n", "");
  Part("port:", uri.HasPort(), uri.GetPort());
  Part("path:", true, uri.GetPath());
  Part("query:", uri.HasQuery(), uri.GetQuery());
  Part("fragment:", uri.HasFragment(), uri.GetFragment());
  std::printf("%-10s%s\n", "text:", uri.ToString().getString());
}

void Resolve(Options const& o) {
  SIUri base = Parsed(o.text);
  SIUri ref = Parsed(o.ref);
  SIUri result;
  if (!base.Resolve(ref, result)) throw QuenExit{1, "the base is not an absolute URI: " + o.text};
  std::printf("%s\n", result.ToString().getString());
}

void Normalize(Options const& o) {
  SIUri uri = Parsed(o.text);
  if (!uri.Normalize()) throw QuenExit{1, "cannot normalise " + o.text};
  std::printf("%s\n", uri.ToString().getString());
}

void Setup(CLI::App& app) {
  auto opts = std::make_shared<Options>();
  auto* cmd = app.add_subcommand("uri", "Parse, resolve and normalise generic URIs");
  cmd->footer(kUsage);
  cmd->require_subcommand(1);
  auto* parse = cmd->add_subcommand("parse", "Show the parts of a URI reference");
  parse->add_flag("--normalize", opts->normalize, "normalise before showing the parts");
  parse->add_option("text", opts->text, "URI reference")->required();
  parse->callback([opts] { Parse(*opts); });
  auto* resolve = cmd->add_subcommand("resolve", "Resolve a reference against a base; print the result alone");
  resolve->add_option("base", opts->text, "absolute base URI")->required();
  resolve->add_option("ref", opts->ref, "reference")->required();
  resolve->callback([opts] { Resolve(*opts); });
  auto* normalize = cmd->add_subcommand("normalize", "Print the normalised text of a URI");
  normalize->add_option("text", opts->text, "URI reference")->required();
  normalize->callback([opts] { Normalize(*opts); });
}

QuenCommand uri{"uri", &Setup};

}  // namespace
