// Integer text conversion against a plain model of its rules: the string
// form of both flavours and the iterator form must agree with the model on
// every input, and whatever they accept must write back and read again to
// the same value.
//
// Input: byte 0 picks the radix (2..36), byte 1 the type, the rest is text.
#include <quenlib/stringconv.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>

using namespace QuenLibA500;

namespace {

__extension__ using Int128 = __int128;

enum class Form { kAnsi, kWide, kIterator };

// A unit is c - '0' when that is below the radix; otherwise, above radix
// 10, its letter value (from 'a' on c - 'a' + 10, else c - 'A' + 10).
int DigitValue(unsigned char c, int radix) {
  int d = c - '0';
  if (d >= 0 && d < radix) return d;
  if (radix <= 10) return -1;
  return c >= 'a' ? c - 'a' + 10 : c - 'A' + 10;
}

// The rules, written as plainly as possible, with a 128-bit magnitude.
template <class T>
bool Model(std::string const& s, int radix, Form form, T& out) {
  out = 0;
  Int128 max = std::numeric_limits<T>::max();
  size_t i = 0;
  bool negative = false;
  if (!s.empty() && s[0] == '-') {
    if (!std::numeric_limits<T>::is_signed) return false;
    negative = true;
    i = 1;
  }
  Int128 magnitude = 0;
  for (; i < s.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (form == Form::kAnsi && c == 0) break;  // the character count ends here
    int d = DigitValue(c, radix);
    if (d >= 0 && d < radix) {
      magnitude = magnitude * radix + d;
      if (magnitude > max + (negative ? 1 : 0)) return false;
      continue;
    }
    if (c == '.') break;
    if (form != Form::kIterator && c == ' ') break;
    if (form != Form::kIterator && radix == 16 && (c == 'x' || c == 'X')) continue;
    return false;
  }
  out = static_cast<T>(negative ? -magnitude : magnitude);
  return true;
}

template <class T>
bool Library(std::string const& s, int radix, Form form, T& out) {
  switch (form) {
    case Form::kAnsi:
      return SAnsiStringConv::FromString(SAnsiString(s.data(), static_cast<unsigned>(s.size())), out,
                                         radix);
    case Form::kWide: {
      std::u16string w;
      for (char c : s) w += static_cast<char16_t>(static_cast<unsigned char>(c));
      return SWCharStringConv::FromString(SWCharString(w.data(), static_cast<unsigned>(w.size())),
                                          out, radix);
    }
    case Form::kIterator: {
      SAsciiString a(s.data(), static_cast<unsigned>(s.size()));
      SAsciiString::iterator b(a), e(a);
      e += a.getLength();
      constexpr T kMax = std::numeric_limits<T>::max();
      return StringConvToIntegerIterator(b, e, out, kMax, static_cast<T>(kMax / radix), radix,
                                         std::numeric_limits<T>::is_signed);
    }
  }
  return false;
}

// The string object form (decimal values of up to 32 bits take their own
// path) writes what the array form writes; 16-bit types always in decimal,
// and signed char goes to the int overload.
template <class T>
void CheckObjectForm(T value, int radix) {
  using Arg = std::conditional_t<std::is_same_v<T, signed char>, int, T>;
  char buf[kStringConvUnits];
  int32_t const n = StringConvFromInteger(buf, static_cast<Arg>(value), sizeof(Arg) == 2 ? 10 : radix);
  SAnsiString const s = SAnsiStringConv::ToString(static_cast<Arg>(value), radix);
  if (s.getLength() != static_cast<unsigned>(n) || std::memcmp(s.getString(), buf, n + 1u) != 0)
    std::abort();
}

template <class T>
void Check(std::string const& s, int radix) {
  for (Form form : {Form::kAnsi, Form::kWide, Form::kIterator}) {
    T expected = 1, got = 1;
    bool ok = Model(s, radix, form, expected);
    if (Library(s, radix, form, got) != ok || got != expected) std::abort();
    if (!ok) continue;
    CheckObjectForm(got, radix);
    // What was accepted writes back and reads again to the same value
    // (negative values only in radix 10, where they keep their sign).
    if (got < 0 && radix != 10) continue;
    char buf[kStringConvUnits];
    StringConvFromInteger(buf, got, radix);
    // Upper-case letters read as unit - '0' above radix 17: read the
    // lower-case form there.
    if (radix > 17)
      for (char* p = buf; *p; ++p) *p = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    T again = 1;
    if (!SAnsiStringConv::FromString(buf, again, radix) || again != got) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 2) return 0;
  int radix = 2 + data[0] % 35;
  std::string text(reinterpret_cast<char const*>(data + 2), size - 2);
  switch (data[1] % 8) {
    case 0: Check<signed char>(text, radix); break;
    case 1: Check<unsigned char>(text, radix); break;
    case 2: Check<short>(text, radix); break;
    case 3: Check<unsigned short>(text, radix); break;
    case 4: Check<int32_t>(text, radix); break;
    case 5: Check<uint32_t>(text, radix); break;
    case 6: Check<int64_t>(text, radix); break;
    default: Check<uint64_t>(text, radix); break;
  }
  return 0;
}
