// LIKE patterns on arbitrary bytes: the first part of the input is the
// pattern, the rest the text (split at the first zero byte). Parsing and
// matching never crash, and a text wrapped with WrapWildCardCharsFromString
// always matches itself.
#include <quenlib/qrysstring.h>
#include <quenlib/slogger.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

using namespace QuenLibA500;

namespace {

void Ignore(void*, char const*, int, char const*, char const*) {}

bool Setup() {
  std::setlocale(LC_ALL, "C.UTF-8");
  SetAssertObserver(&Ignore, nullptr);
  SLogger::SetAssertEnabled(false);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static bool ready = Setup();
  (void)ready;
  char const* p = reinterpret_cast<char const*>(data);
  char const* zero = static_cast<char const*>(std::memchr(p, 0, size));
  size_t patLen = zero ? static_cast<size_t>(zero - p) : size;
  SAnsiString pattern(p, static_cast<unsigned>(patLen));
  SAnsiString text = zero ? SAnsiString(zero + 1, static_cast<unsigned>(size - patLen - 1))
                          : SAnsiString();
  SQueryString q(pattern);
  bool parsed = q.parse();
  bool matched = q.like(text);
  if (!parsed && matched) __builtin_trap();
  (void)SQueryString::ContainsWildcards(text);

  // Literal text (no zero bytes, no "*") wrapped must match itself.
  std::string literal(pattern.getString());
  if (literal.find('*') == std::string::npos) {
    SAnsiString wrapped = SQueryString::WrapWildCardCharsFromString(literal.c_str());
    SQueryString self(wrapped);
    if (!self.like(SAnsiString(literal.c_str()))) __builtin_trap();
  }
  SAnsiString quoted(text);
  SInfoQueryString::ValidateAStringValue(quoted);
  return 0;
}
