// Generic URIs from arbitrary bytes: parsing never crashes; a parsed URI
// writes back to the same text; normalising twice changes nothing more;
// a resolved reference (the input split at its first newline into base and
// reference) is itself a URI.
#include <quenlib/siuri.h>
#include <quenlib/slogger.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <string>

using namespace QuenLibA500;

namespace {

bool Setup() {
  std::setlocale(LC_ALL, "C.UTF-8");
  SLogger::SetAssertEnabled(false);
  return true;
}

void CheckOne(std::string const& text) {
  SIUri uri;
  if (!uri.Parse(SAnsiString(text.data(), unsigned(text.size())))) return;
  SAnsiString written = uri.ToString();
  if (std::string(written.getString(), written.getLength()) != text) __builtin_trap();
  if (!uri.IsValid()) __builtin_trap();
  SIUri once = uri;
  if (!once.Normalize()) return;
  SIUri twice = once;
  if (!twice.Normalize() || !(twice.ToString() == once.ToString())) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static bool ready = Setup();
  (void)ready;
  std::string input(reinterpret_cast<char const*>(data), size);
  CheckOne(input);
  size_t newline = input.find('\n');
  if (newline == std::string::npos) return 0;
  SAnsiString base(input.data(), unsigned(newline));
  SAnsiString ref(input.data() + newline + 1, unsigned(input.size() - newline - 1));
  SAnsiString out;
  if (!SIUri::Resolve(base, ref, out)) return 0;
  SIUri check;
  if (!check.Parse(out)) __builtin_trap();
  return 0;
}
