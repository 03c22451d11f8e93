// quen conv: converts text between the library's code sets, with the
// library's own rules ("?" for what the target cannot hold; strict UTF-8
// and UTF-16, which fail the whole conversion when ill-formed).
//
// The text travels through the process locale's form, as it does inside
// the library. When neither side is "native" the locale is switched to
// C.UTF-8 for the run, so that the middle step loses nothing. Zero bytes
// (zero units in UTF-16) are kept: the text is converted piece by piece
// between them.
#include <quenlib/UTFConverter.h>
#include <quenlib/codesetconverter.h>
#include <quenlib/simplebuffer.h>
#include <quenlib/sstring.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "command.h"

using namespace QuenLibA500;
using MB = MBCSCodesetConverter;

namespace {

char const kUsage[] = R"(
Code sets (any letter case):
  native                         the locale's multibyte text (LANG, LC_ALL)
  utf-8, utf8
  utf-16, utf-16le, utf16        little-endian; a byte-order mark is read
  utf-16be                       big-endian
  windows-1252, cp1252, 1252
  latin1, iso-8859-1             handled as windows-1252, as the library does
  shift_jis, sjis, cp932, 932, windows-31j
  latin9, iso-8859-15, 28605

Exit status: 0 converted, 1 ill-formed input (nothing written),
3 a file could not be read or written.

Examples:
  quen conv --from cp1252 --to utf-8 old.txt > new.txt
  printf 'caf\xc3\xa9' | quen conv --from utf-8 --to latin9 | od -c
  quen conv --from sjis --to utf-16 -o out.u16 in.sjis
)";

// A code set of the command line: the library's, or UTF-16 in one order.
struct Codeset {
  enum Kind { Library, Utf16Le, Utf16Be } kind = Library;
  MB::ExplicitCodeset cs = MB::ECS_Native;
};

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

Codeset parseCodeset(std::string const& name) {
  struct Entry {
    char const* name;
    Codeset set;
  };
  static Entry const table[] = {
      {"native", {Codeset::Library, MB::ECS_Native}},
      {"utf-8", {Codeset::Library, MB::ECS_UTF8}},
      {"utf8", {Codeset::Library, MB::ECS_UTF8}},
      {"utf-16", {Codeset::Utf16Le, MB::ECS_Native}},
      {"utf16", {Codeset::Utf16Le, MB::ECS_Native}},
      {"utf-16le", {Codeset::Utf16Le, MB::ECS_Native}},
      {"utf-16be", {Codeset::Utf16Be, MB::ECS_Native}},
      {"windows-1252", {Codeset::Library, MB::ECS_Windows1252}},
      {"cp1252", {Codeset::Library, MB::ECS_Windows1252}},
      {"1252", {Codeset::Library, MB::ECS_Windows1252}},
      {"latin1", {Codeset::Library, MB::ECS_Latin1}},
      {"iso-8859-1", {Codeset::Library, MB::ECS_Latin1}},
      {"shift_jis", {Codeset::Library, MB::ECS_ShiftJIS}},
      {"sjis", {Codeset::Library, MB::ECS_ShiftJIS}},
      {"cp932", {Codeset::Library, MB::ECS_ShiftJIS}},
      {"932", {Codeset::Library, MB::ECS_ShiftJIS}},
      {"windows-31j", {Codeset::Library, MB::ECS_ShiftJIS}},
      {"latin9", {Codeset::Library, MB::ECS_Latin9}},
      {"iso-8859-15", {Codeset::Library, MB::ECS_Latin9}},
      {"28605", {Codeset::Library, MB::ECS_Latin9}},
  };
  std::string const key = lower(name);
  for (Entry const& e : table)
    if (key == e.name) return e.set;
  throw QuenExit{2, "unknown code set '" + name + "' (see quen conv --help)"};
}

bool isNative(Codeset const& c) { return c.kind == Codeset::Library && c.cs == MB::ECS_Native; }

std::string readAll(std::string const& path) {
  std::FILE* f = path.empty() || path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (f == nullptr) throw QuenExit{3, "cannot open " + path + ": " + std::strerror(errno)};
  std::string data;
  char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) data.append(chunk, n);
  bool const failed = std::ferror(f) != 0;
  if (f != stdin) std::fclose(f);
  if (failed) throw QuenExit{3, "cannot read " + (path.empty() ? std::string("standard input") : path)};
  return data;
}

// UTF-16 bytes to units, honouring (and dropping) a byte-order mark.
std::u16string unitsOf(std::string const& bytes, bool bigEndian) {
  if (bytes.size() % 2 != 0) throw QuenExit{1, "UTF-16 input has an odd number of bytes"};
  std::u16string units(bytes.size() / 2, u'\0');
  for (size_t i = 0; i < units.size(); ++i) {
    auto const a = static_cast<unsigned char>(bytes[2 * i]);
    auto const b = static_cast<unsigned char>(bytes[2 * i + 1]);
    units[i] = static_cast<char16_t>(bigEndian ? (a << 8) | b : (b << 8) | a);
  }
  if (!units.empty() && units[0] == 0xFEFF) units.erase(0, 1);
  else if (!units.empty() && units[0] == 0xFFFE) return unitsOf(bytes.substr(2), !bigEndian);
  return units;
}

void appendUnits(std::string& out, std::u16string const& units, bool bigEndian) {
  for (char16_t u : units) {
    char const hi = static_cast<char>(u >> 8);
    char const lo = static_cast<char>(u & 0xFF);
    out += bigEndian ? hi : lo;
    out += bigEndian ? lo : hi;
  }
}

// One piece (no zero unit inside) of UTF-16 to the target.
std::string fromUtf16Piece(std::u16string const& piece, Codeset const& to) {
  SBrimString const brim(piece.c_str(), static_cast<unsigned>(piece.size()));
  if (to.kind == Codeset::Library && to.cs == MB::ECS_UTF8) {
    SSimpleBuffer out;
    if (!CUTFConverter::UTF16ToUTF8(brim, out))
      throw QuenExit{1, "input is not well-formed UTF-16 (an unpaired surrogate)"};
    return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(out)),
                       out.getNBytes());
  }
  CUTFConverter::ByteBuffer check;
  if (!CUTFConverter::UTF16ToUTF8(brim, check))
    throw QuenExit{1, "input is not well-formed UTF-16 (an unpaired surrogate)"};
  if (to.kind != Codeset::Library) {
    std::string out;
    appendUnits(out, piece, to.kind == Codeset::Utf16Be);
    return out;
  }
  SAnsiString text;
  text.fromBrim(brim.getString());
  SSimpleBuffer out = MB::TToExplicitCodeset(text, to.cs);
  return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(out)),
                     out.getNBytes());
}

// One piece (no zero byte inside) of library code set text to the target.
std::string fromBytesPiece(std::string const& piece, Codeset const& from, Codeset const& to) {
  if (from.cs == MB::ECS_UTF8) {
    SBrimString check;
    if (!CUTFConverter::UTF8ToUTF16(reinterpret_cast<unsigned char const*>(piece.c_str()), check))
      throw QuenExit{1, "input is not well-formed UTF-8 (an overlong, truncated, surrogate or "
                        "out-of-range sequence)"};
    if (to.kind != Codeset::Library) {
      std::string out;
      appendUnits(out, std::u16string(check.getString(), check.getLength()),
                  to.kind == Codeset::Utf16Be);
      return out;
    }
  }
  std::string const text = MB::ExplicitCodesetToLocale(piece.data(), piece.size(), from.cs);
  if (to.kind != Codeset::Library) {
    SWCharString wide;
    wide.fromMBCS(text.c_str());
    std::string out;
    appendUnits(out, std::u16string(wide.getString(), wide.getLength()),
                to.kind == Codeset::Utf16Be);
    return out;
  }
  SSimpleBuffer out = MB::LocaleToExplicitCodeset(text.data(), text.size(), to.cs);
  return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(out)),
                     out.getNBytes());
}

std::string convert(std::string const& input, Codeset const& from, Codeset const& to) {
  std::string out;
  bool const toUtf16 = to.kind != Codeset::Library;
  std::string const zero = toUtf16 ? std::string(2, '\0') : std::string(1, '\0');
  if (from.kind != Codeset::Library) {
    std::u16string const units = unitsOf(input, from.kind == Codeset::Utf16Be);
    size_t start = 0;
    for (;;) {
      size_t const z = units.find(u'\0', start);
      out += fromUtf16Piece(units.substr(start, z - start), to);
      if (z == std::u16string::npos) break;
      out += zero;
      start = z + 1;
    }
    return out;
  }
  size_t start = 0;
  for (;;) {
    size_t const z = input.find('\0', start);
    out += fromBytesPiece(input.substr(start, z - start), from, to);
    if (z == std::string::npos) break;
    out += zero;
    start = z + 1;
  }
  return out;
}

void writeAll(std::string const& data, std::string const& path) {
  if (path.empty() || path == "-") {
    if (std::fwrite(data.data(), 1, data.size(), stdout) != data.size() || std::fflush(stdout) != 0)
      throw QuenExit{3, std::string("cannot write standard output: ") + std::strerror(errno)};
    return;
  }
  SSimpleBuffer buffer;
  buffer.append(reinterpret_cast<unsigned char const*>(data.data()),
                static_cast<unsigned>(data.size()), static_cast<unsigned>(-1));
  if (!buffer.saveToFile(path.c_str(), true))
    throw QuenExit{3, "cannot write " + path};
}

struct Options {
  std::string from;
  std::string to;
  std::string input;
  std::string output;
};

void run(Options const& o) {
  Codeset const from = parseCodeset(o.from);
  Codeset const to = parseCodeset(o.to);
  // The locale's text is the middle step: the user's own when "native" is
  // named, otherwise UTF-8 so that nothing is lost on the way.
  if (isNative(from) || isNative(to)) {
    std::setlocale(LC_ALL, "");
  } else if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
    throw QuenExit{3, "the C.UTF-8 locale is not available"};
  }
  std::string const input = readAll(o.input);
  if (input.size() > 0x7FFFFFFFu) throw QuenExit{3, "input larger than 2 GiB"};
  writeAll(convert(input, from, to), o.output);
}

void setupConv(CLI::App& app) {
  auto* cmd = app.add_subcommand("conv", "Convert text between code sets with the library's rules");
  auto opts = std::make_shared<Options>();
  cmd->add_option("--from,-f", opts->from, "code set of the input")->required();
  cmd->add_option("--to,-t", opts->to, "code set of the output")->required();
  cmd->add_option("--output,-o", opts->output,
                  "write here (replaced atomically) instead of standard output");
  cmd->add_option("file", opts->input, "input file (standard input when absent or -)");
  cmd->footer(kUsage);
  cmd->callback([opts] { run(*opts); });
}

}  // namespace

static QuenCommand convCommand{"conv", &setupConv};
