// Socks URIs from arbitrary bytes: splitting and joining agree, quoting
// changes at most index 9, list lower-casing never crashes, and a list read
// from a URI is written and read back to the same URI.
#include <quenlib/slogger.h>
#include <quenlib/sockshelpers.h>
#include <registrykeys/registrysocksserver.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <string_view>

using namespace QuenLibA500;

namespace {

void Ignore(void*, char const*, int, char const*, char const*) {}

bool Setup() {
  std::setlocale(LC_ALL, "C.UTF-8");
  SetAssertObserver(&Ignore, nullptr);
  SLogger::SetAssertEnabled(false);
  return true;
}

std::string_view view(SAnsiString const& s) { return std::string_view(s.getString(), s.getLength()); }

void checkQuoting(SAnsiString const& text) {
  SAnsiString const quoted = SocksHelpers::QuoteForRegistry(text);
  SAnsiString const unquoted = SocksHelpers::UnquoteForRegistry(quoted);
  if (quoted.getLength() != text.getLength() || unquoted.getLength() != text.getLength()) __builtin_trap();
  for (unsigned i = 0; i < text.getLength(); ++i)
    if (i != 9 && (view(quoted)[i] != view(text)[i] || view(unquoted)[i] != view(text)[i])) __builtin_trap();
  if (SocksHelpers::QuoteForRegistry(unquoted) != quoted) __builtin_trap();
}

void checkSplit(SAnsiString const& text) {
  SAnsiString socks, host;
  SocksHelpers::SplitURI(text, socks, host);
  if (socks.isEmpty() && host != text) __builtin_trap();
  bool const schemeOnly = !socks.isEmpty() && host.isEmpty() && socks == text;
  if (!socks.isEmpty() && !schemeOnly && SocksHelpers::MakeURI(socks, host) != text) __builtin_trap();
}

void checkList(SAnsiString const& text) {
  Registry_SocksServers first;
  if (!first.FromSocksURI(text)) return;
  for (Registry_SocksServer const& s : first)
    if (s.m_version != 4 && s.m_version != 5) return;
  SAnsiString const written = first.ToSocksURI();
  // A "/" inside a field reads as the start of a target host.
  if (view(written).find('/', 8) != std::string_view::npos) return;
  Registry_SocksServers second;
  if (!second.FromSocksURI(written) || second.ToSocksURI() != written) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static bool ready = Setup();
  (void)ready;
  std::string_view const bytes(reinterpret_cast<char const*>(data), size);
  if (bytes.find('\0') != std::string_view::npos) return 0;  // texts end at their zero
  SAnsiString const text(bytes.data(), static_cast<unsigned>(size));
  checkQuoting(text);
  checkSplit(text);
  checkList(text);
  (void)SocksHelpers::CMSListToLower(text);
  return 0;
}
