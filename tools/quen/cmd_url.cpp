// quen url: percent-encodes and decodes text with the library's tables.
//
//   quen url encode TEXT       form table (letters, digits, "." "_" pass; space "+")
//   quen url encode --table3 TEXT
//   quen url decode [--strict] [--codeset CS] TEXT
//   quen url bytewise [--codeset CS] [--unreserved] TEXT
//
// Without TEXT the text is read from standard input (a final newline is
// dropped). The text is taken in the locale of the environment.
#include <quenlib/codesetconverter.h>
#include <quenlib/nvpairs.h>
#include <quenlib/sstring.h>

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "command.h"

using namespace QuenLibA500;
using MB = MBCSCodesetConverter;

namespace {

char const kUsage[] = R"(
Code sets: native (the locale's own), utf-8, windows-1252 (cp1252),
latin1, latin9 (iso-8859-15), shift_jis (sjis, cp932).

Exit status: 0 done, 1 a malformed escape with --strict, 2 bad arguments.

Examples:
  quen url encode 'a b-c~d'                  # a+b%2Dc%7Ed
  quen url encode --table3 'a b,c'           # a b%2Cc
  quen url decode 'caf%C3%A9+au+lait'        # café au lait (in a UTF-8 locale)
  quen url decode --codeset windows-1252 'caf%E9'
  quen url decode --strict '%G1'             # exit status 1
  quen url bytewise --unreserved 'a b/c'     # a%20b/c
  printf 'x=1&y=2' | quen url encode
)";

struct Options {
  std::string text;
  bool haveText = false;
  bool table3 = false;
  bool strict = false;
  bool unreserved = false;
  std::string codeset;
};

MB::ExplicitCodeset ParseCodeset(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (name.empty() || name == "native") return MB::ECS_Native;
  if (name == "utf-8" || name == "utf8") return MB::ECS_UTF8;
  if (name == "windows-1252" || name == "cp1252" || name == "1252") return MB::ECS_Windows1252;
  if (name == "latin1" || name == "iso-8859-1") return MB::ECS_Latin1;
  if (name == "latin9" || name == "iso-8859-15" || name == "28605") return MB::ECS_Latin9;
  if (name == "shift_jis" || name == "sjis" || name == "cp932" || name == "932") return MB::ECS_ShiftJIS;
  throw QuenExit{2, "unknown code set: " + name};
}

std::string Input(Options const& o) {
  if (o.haveText) return o.text;
  std::string all((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
  if (!all.empty() && all.back() == '\n') all.pop_back();
  return all;
}

void Print(SAnsiString const& s) {
  std::fwrite(s.getString(), 1, s.getLength(), stdout);
  std::fputc('\n', stdout);
}

SAnsiString ToLocale(SWCharString const& w) {
  SAnsiString out;
  out.fromWChar(w.getString());
  return out;
}

SWCharString ToWide(std::string const& text) {
  SAnsiString a(text.data(), static_cast<unsigned>(text.size()));
  SWCharString w;
  w.fromMBCS(a.getString());
  return w;
}

void Encode(Options const& o) {
  std::string text = Input(o);
  if (!o.table3) {
    Print(CNameValuePairs::URLStrEncode(SAnsiString(text.data(), static_cast<unsigned>(text.size()))));
    return;
  }
  SAsciiString out;
  CNameValuePairs::URLStrEncodeAppend3(out, ToWide(text).getString());
  Print(SAnsiString(out.getString(), out.getLength()));
}

void Decode(Options const& o) {
  std::string text = Input(o);
  if (o.strict) {
    SWCharString w = ToWide(text);
    SWCharString out;
    if (!CNameValuePairs::tryURLStrDecode(out, w.getString(), w.getLength()))
      throw QuenExit{1, "malformed escape"};
    Print(ToLocale(out));
    return;
  }
  if (!o.codeset.empty()) {
    Print(ToLocale(CNameValuePairs::URLStrDecodeAndConvert(text.c_str(), ParseCodeset(o.codeset))));
    return;
  }
  Print(CNameValuePairs::URLStrDecode(SAnsiString(text.data(), static_cast<unsigned>(text.size()))));
}

void Bytewise(Options const& o) {
  std::string text = Input(o);
  Print(CNameValuePairs::URLStrEncodeBytewise(SAnsiString(text.data(), static_cast<unsigned>(text.size())),
                                              ParseCodeset(o.codeset), o.unreserved));
}

void setupUrl(CLI::App& app) {
  auto* url = app.add_subcommand("url", "Percent-encode and decode text as URLs and object URLs do");
  url->require_subcommand(1);
  url->footer(kUsage);
  auto opts = std::make_shared<Options>();
  auto addText = [opts](CLI::App* c) {
    c->add_option("text", opts->text, "the text (standard input when left out)")
        ->each([opts](std::string const&) { opts->haveText = true; });
  };
  auto* enc = url->add_subcommand("encode", "Escape with the form table (or --table3)");
  addText(enc);
  enc->add_flag("--table3", opts->table3, "use table 3 (controls, 0x7F and up, % + , = { } & $)");
  enc->callback([opts] {
    std::setlocale(LC_ALL, "");
    Encode(*opts);
  });
  auto* dec = url->add_subcommand("decode", "Undo percent-encoding (\"+\" is a space)");
  addText(dec);
  dec->add_flag("--strict", opts->strict, "fail (exit 1) on a malformed escape");
  dec->add_option("--codeset", opts->codeset, "read escaped bytes in this code set");
  dec->callback([opts] {
    std::setlocale(LC_ALL, "");
    Decode(*opts);
  });
  auto* bw = url->add_subcommand("bytewise", "Escape the bytes of the text in a code set");
  addText(bw);
  bw->add_option("--codeset", opts->codeset, "convert the text to this code set first");
  bw->add_flag("--unreserved", opts->unreserved, "let !#$&*+-./:<>?@_`~ through; space is %20");
  bw->callback([opts] {
    std::setlocale(LC_ALL, "");
    Bytewise(*opts);
  });
}

}  // namespace

static QuenCommand urlCommand{"url", &setupUrl};
