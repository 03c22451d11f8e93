// quen int: read and write integers exactly as the library does, in any
// radix and integer type, to check what a product will make of a number
// stored as text (in the registry, a URL, a pipe frame).
#include <quenlib/neutralstr.h>
#include <quenlib/stringconv.h>

#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] =
    "Each TEXT is read with the library's rules and printed as one line:\n"
    "  TEXT <tab> ok|failed <tab> value in decimal <tab> value in RADIX\n"
    "With --to-text each VALUE is a decimal number of TYPE, printed as\n"
    "  VALUE <tab> text in RADIX\n"
    "\n"
    "Rules: \".\" and \" \" end the number with success (\"3.9\" is 3); radix 16\n"
    "skips every \"x\" (\"0x1F\" is 31); \"\" and \"-\" are 0; unsigned types refuse\n"
    "\"-\"; a failure leaves 0. The iterator form ends only at \".\" and skips\n"
    "no \"x\". Negative values are written as two's complement outside radix 10.\n"
    "\n"
    "Types: int8 uint8 int16 (short) uint16 (ushort) int32 (int, long)\n"
    "uint32 (uint, ulong, dword) int64 uint64 ptr. \"long\" is 32 bits, as in\n"
    "the products' own text. ptr reads 64-bit hexadecimal only.\n"
    "\n"
    "Exit status: 0 when every TEXT converted, 1 when one failed, 2 on\n"
    "bad usage. Put -- before texts that start with \"-\".\n"
    "\n"
    "Examples:\n"
    "  quen int --radix 16 ff 0x1F FG\n"
    "  quen int --type uint32 -- -5 4294967295 4294967296\n"
    "  quen int --form iterator --radix 16 0x1F\n"
    "  quen int --to-text --radix 16 -- -1 255\n"
    "  quen int --type ptr 7ffd1234abcd\n";

struct Options {
  int radix = 10;
  std::string type = "int32";
  std::string form = "string";
  bool toText = false;
  std::vector<std::string> values;
};

enum class Kind { kInt8, kUInt8, kInt16, kUInt16, kInt32, kUInt32, kInt64, kUInt64, kPtr };

Kind ParseKind(std::string const& name) {
  static std::map<std::string, Kind> const kNames = {
      {"int8", Kind::kInt8},     {"schar", Kind::kInt8},    {"uint8", Kind::kUInt8},
      {"uchar", Kind::kUInt8},   {"int16", Kind::kInt16},   {"short", Kind::kInt16},
      {"uint16", Kind::kUInt16}, {"ushort", Kind::kUInt16}, {"int32", Kind::kInt32},
      {"int", Kind::kInt32},     {"long", Kind::kInt32},    {"uint32", Kind::kUInt32},
      {"uint", Kind::kUInt32},   {"ulong", Kind::kUInt32},  {"dword", Kind::kUInt32},
      {"int64", Kind::kInt64},   {"__int64", Kind::kInt64}, {"uint64", Kind::kUInt64},
      {"ptr", Kind::kPtr}};
  auto it = kNames.find(name);
  if (it == kNames.end()) throw QuenExit{2, "unknown type '" + name + "' (see quen int --help)"};
  return it->second;
}

// Calls f with a value of the C++ type that Kind names.
template <class F>
void WithType(Kind k, F&& f) {
  switch (k) {
    case Kind::kInt8: return f(static_cast<signed char>(0));
    case Kind::kUInt8: return f(static_cast<unsigned char>(0));
    case Kind::kInt16: return f(static_cast<int16_t>(0));
    case Kind::kUInt16: return f(static_cast<uint16_t>(0));
    case Kind::kInt32: return f(int32_t{0});
    case Kind::kUInt32: return f(uint32_t{0});
    case Kind::kInt64: return f(int64_t{0});
    case Kind::kUInt64:
    case Kind::kPtr: return f(uint64_t{0});
  }
}

template <class T>
std::string Write(T value, int radix) {
  char buf[kStringConvUnits];
  StringConvFromInteger(buf, value, radix);
  return buf;
}

// Reads text as the chosen form does; false when it does not convert.
template <class T>
bool Read(Options const& o, Kind k, std::string const& text, T& out) {
  SAnsiString s(text.c_str(), static_cast<unsigned>(text.size()));
  if (k == Kind::kPtr) {
    void* p = nullptr;
    bool ok = SAnsiStringConv::FromString(s, p);
    out = static_cast<T>(reinterpret_cast<uintptr_t>(p));
    return ok;
  }
  constexpr T kMax = std::numeric_limits<T>::max();
  if (o.form == "neutral") return NeutralString::ToNumber(s, out);
  T ldr = static_cast<T>(kMax / static_cast<T>(o.radix));
  if (o.form == "iterator") {
    SAsciiString a(text.c_str(), static_cast<unsigned>(text.size()));
    SAsciiString::iterator b(a), e(a);
    e += a.getLength();
    return StringConvToIntegerIterator(b, e, out, kMax, ldr, o.radix, std::is_signed_v<T>);
  }
  return SAnsiStringConv::FromString(s, out, o.radix);
}

std::string Quoted(std::string const& s) { return "\"" + s + "\""; }

bool ReadAll(Options const& o, Kind k) {
  bool all = true;
  WithType(k, [&](auto zero) {
    using T = decltype(zero);
    for (std::string const& text : o.values) {
      T v = 0;
      bool ok = Read(o, k, text, v);
      all = all && ok;
      std::printf("%s\t%s\t%s\t%s\n", Quoted(text).c_str(), ok ? "ok" : "failed",
                  Write(v, 10).c_str(), Write(v, o.radix).c_str());
    }
  });
  return all;
}

bool WriteAll(Options const& o, Kind k) {
  bool all = true;
  WithType(k, [&](auto zero) {
    using T = decltype(zero);
    for (std::string const& text : o.values) {
      T v = 0;
      if (!SAnsiStringConv::FromString(text.c_str(), v, 10)) {
        std::fprintf(stderr, "quen: %s is not a decimal number of that type\n", Quoted(text).c_str());
        all = false;
        continue;
      }
      std::printf("%s\t%s\n", text.c_str(), Write(v, o.radix).c_str());
    }
  });
  return all;
}

void run(Options const& o) {
  if (o.radix < 2 || o.radix > 36) throw QuenExit{2, "--radix must be 2 to 36"};
  if (o.form != "string" && o.form != "iterator" && o.form != "neutral")
    throw QuenExit{2, "--form must be string, iterator or neutral"};
  if (o.form == "neutral" && o.radix != 10) throw QuenExit{2, "--form neutral is always radix 10"};
  Kind k = ParseKind(o.type);
  if (k == Kind::kPtr && ((o.radix != 10 && o.radix != 16) || o.form != "string"))
    throw QuenExit{2, "--type ptr is always hexadecimal, in the string form"};
  Options copy = o;
  if (k == Kind::kPtr) copy.radix = 16;
  bool ok = o.toText ? WriteAll(copy, k) : ReadAll(copy, k);
  if (!ok) throw QuenExit{1, ""};
}

void setupInt(CLI::App& app) {
  auto* cmd = app.add_subcommand("int", "Read and write integers in text as the library does");
  auto opts = std::make_shared<Options>();
  cmd->add_option("--radix,-r", opts->radix, "radix 2 to 36 (default 10)");
  cmd->add_option("--type,-t", opts->type, "integer type (default int32)");
  cmd->add_option("--form", opts->form, "string (default), iterator or neutral");
  cmd->add_flag("--to-text", opts->toText, "write decimal VALUEs in the radix instead");
  cmd->add_option("text", opts->values, "texts to read (values with --to-text)")->required();
  cmd->footer(kUsage);
  cmd->callback([opts] { run(*opts); });
}

QuenCommand intCommand{"int", &setupInt};

}  // namespace
