// LIKE patterns on arbitrary bytes: the first part of the input is the
// pattern, the rest the text (split at the first zero byte). Parsing and
// matching never crash, a text wrapped with WrapWildCardCharsFromString
// always matches itself, and patterns without bracket sets give the result
// of a plain table of (pattern step, text position) answers. The matcher's
// own UTF-8 decoding and lowering (its fast path) must give, character by
// character, what mbrtowc and towlower give. The input's length picks the
// locale (C.UTF-8, en_US.UTF-8 where installed, or C), so the per-locale
// tables are rebuilt as the locale changes.
#include <quenlib/qrysstring.h>
#include <quenlib/slogger.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

void Ignore(void*, char const*, int, char const*, char const*) {}

char const* const kLocales[] = {"C.UTF-8", "en_US.UTF-8", "C"};

bool Setup() {
  SetAssertObserver(&Ignore, nullptr);
  SLogger::SetAssertEnabled(false);
  return true;
}

// Lowered code points of s[0..n); an invalid or incomplete byte (or a
// zero byte) stands for a value no character has.
std::vector<uint32_t> Lowered(char const* s, size_t n) {
  std::vector<uint32_t> out;
  for (size_t i = 0; i < n;) {
    std::mbstate_t st{};
    wchar_t wc = 0;
    size_t r = std::mbrtowc(&wc, s + i, n - i, &st);
    if (r == 0 || r == static_cast<size_t>(-1) || r == static_cast<size_t>(-2)) {
      out.push_back(0x110000u + static_cast<unsigned char>(s[i]));
      ++i;
      continue;
    }
    out.push_back(static_cast<uint32_t>(std::towlower(static_cast<wint_t>(wc))));
    i += r;
  }
  return out;
}

constexpr uint32_t kAnyRun = 0xFFFFFFFFu;
constexpr uint32_t kAnyOne = 0xFFFFFFFEu;

// The reference: every (step, position) pair decided once, no shortcuts.
bool ReferenceLike(std::string const& pattern, std::string const& text) {
  std::vector<uint32_t> steps;
  size_t i = 0;
  while (i < pattern.size()) {
    if (pattern[i] == '%' || pattern[i] == '_') {
      uint32_t s = pattern[i] == '%' ? kAnyRun : kAnyOne;
      if (!(s == kAnyRun && !steps.empty() && steps.back() == kAnyRun)) steps.push_back(s);
      ++i;
      continue;
    }
    size_t j = pattern.find_first_of("%_", i);
    if (j == std::string::npos) j = pattern.size();
    for (uint32_t c : Lowered(pattern.data() + i, j - i)) steps.push_back(c);
    i = j;
  }
  std::vector<uint32_t> t = Lowered(text.data(), text.size());
  // can[k][p]: steps k.. match t[p..].
  size_t const m = steps.size(), n = t.size();
  std::vector<std::vector<char>> can(m + 1, std::vector<char>(n + 1, 0));
  can[m][n] = 1;
  for (size_t k = m; k-- > 0;) {
    for (size_t p = n + 1; p-- > 0;) {
      if (steps[k] == kAnyRun) can[k][p] = can[k + 1][p] || (p < n && can[k][p + 1]);
      else if (p < n && (steps[k] == kAnyOne || steps[k] == t[p])) can[k][p] = can[k + 1][p + 1];
    }
  }
  return can[0][0] != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static bool ready = Setup();
  (void)ready;
  if (std::setlocale(LC_ALL, kLocales[size % 3]) == nullptr) std::setlocale(LC_ALL, "C.UTF-8");
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
  std::string const patText(p, patLen);
  std::string const textText(text.getString(), text.getLength());
  if (patText.find('[') == std::string::npos && patText.size() * textText.size() < 1000000 &&
      matched != ReferenceLike(patText, textText))
    __builtin_trap();
  (void)SQueryString::ContainsWildcards(text);

  // The fast decoding against the C library, character by character (the
  // reference marks a zero byte as no character, the matcher as code 0).
  std::vector<uint32_t> fast = LowerCodePoints(text.getString(), text.getLength());
  std::vector<uint32_t> slow = Lowered(text.getString(), text.getLength());
  if (fast.size() != slow.size()) __builtin_trap();
  for (size_t i = 0; i < fast.size(); ++i)
    if (fast[i] != slow[i] && !(fast[i] == 0 && slow[i] == 0x110000u)) __builtin_trap();

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
