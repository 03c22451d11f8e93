// Fuzzes the strict Unicode transforms: the input is read as UTF-8 and, at
// the same time, as UTF-16 units. Well-formed input must round-trip
// unchanged; ill-formed input must fail exactly when ICU's conversion fails;
// every instruction set must give the scalar outcome and output, on the
// input as it is and on mostly CJK text made from it.
#include "text/utfcore.h"

#include <unicode/ustring.h>

#include <cstdlib>
#include <cstring>
#include <vector>

using namespace QuenLibA500;

namespace {

void check(bool cond) {
  if (!cond) std::abort();
}

bool icuAcceptsUtf8(uint8_t const* data, size_t size, std::vector<UChar>& out) {
  out.assign(size + 1, 0);
  int32_t len = 0;
  UErrorCode ec = U_ZERO_ERROR;
  u_strFromUTF8(out.data(), static_cast<int32_t>(out.size()), &len,
                reinterpret_cast<char const*>(data), static_cast<int32_t>(size), &ec);
  out.resize(U_SUCCESS(ec) ? static_cast<size_t>(len) : 0);
  return U_SUCCESS(ec);
}

utf::Isa const kIsas[] = {utf::Isa::portable, utf::Isa::sse2, utf::Isa::avx2};

bool sameOutcome(utf::Outcome const& a, utf::Outcome const& b) {
  return a.result == b.result && a.read == b.read && a.written == b.written;
}

void compareIsas8(uint8_t const* data, size_t size) {
  std::vector<WChar> want(size + 1);
  utf::Outcome const w = utf::utf8ToUtf16(utf::Isa::scalar, data, size, want.data(), size);
  for (utf::Isa isa : kIsas) {
    std::vector<WChar> out(size + 1);
    utf::Outcome const r = utf::utf8ToUtf16(isa, data, size, out.data(), size);
    check(sameOutcome(r, w));
    check(r.written == 0 || std::memcmp(out.data(), want.data(), r.written * sizeof(WChar)) == 0);
  }
}

void compareIsas16(WChar const* units, size_t n) {
  std::vector<unsigned char> want8(n * 3 + 1);
  utf::Outcome const w8 = utf::utf16ToUtf8(utf::Isa::scalar, units, n, want8.data(), n * 3);
  for (utf::Isa isa : kIsas) {
    std::vector<unsigned char> out8(n * 3 + 1);
    utf::Outcome const r8 = utf::utf16ToUtf8(isa, units, n, out8.data(), n * 3);
    check(sameOutcome(r8, w8));
    check(r8.written == 0 || std::memcmp(out8.data(), want8.data(), r8.written) == 0);
  }
}

void compareIsas(uint8_t const* data, size_t size) {
  compareIsas8(data, size);
  size_t const n = size / 2;
  std::vector<WChar> units(n + 1);
  if (n) std::memcpy(units.data(), data, n * 2);
  compareIsas16(units.data(), n);
}

// Random bytes seldom make long stretches of well-formed three-byte text,
// so each input is also read as a recipe for mostly CJK text: most bytes
// give a character from U+0800..U+FFFF (surrogates and all), the others a
// space, a two- or four-byte character or a broken sequence. The text is
// built both as UTF-8 (with the broken sequences) and as UTF-16.
void compareIsasOnCjk(uint8_t const* data, size_t size) {
  std::vector<unsigned char> u8;
  std::vector<WChar> u16;
  for (size_t i = 0; i + 1 < size; i += 2) {
    unsigned const b = data[i];
    unsigned const cp = (data[i + 1] << 8 | b) | 0x800u;
    if (b < 0xE8) {
      u16.push_back(static_cast<WChar>(cp));  // a lone surrogate in UTF-16
      u8.insert(u8.end(), {static_cast<unsigned char>(0xE0 | (cp >> 12)),
                           static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F)),
                           static_cast<unsigned char>(0x80 | (cp & 0x3F))});  // surrogate form
      continue;
    }
    switch (b & 7) {
      case 0: case 1: u8.push_back(' '); u16.push_back(u' '); break;
      case 2: u8.insert(u8.end(), {0xC3, 0xA9}); u16.push_back(0xE9); break;
      case 3: u8.insert(u8.end(), {0xF0, 0x9F, 0x98, 0x80}); u16.insert(u16.end(), {0xD83D, 0xDE00}); break;
      case 4: u8.insert(u8.end(), {0xE0, static_cast<unsigned char>(0x80 | (data[i + 1] & 0x3F))}); break;
      case 5: u8.push_back(data[i + 1]); u16.push_back(static_cast<WChar>(data[i + 1])); break;
      default: u8.insert(u8.end(), {0xE6, 0x97, 0xA5}); u16.push_back(0x65E5); break;
    }
  }
  compareIsas8(u8.data(), u8.size());
  compareIsas16(u16.data(), u16.size());
}

void fuzzUtf8(uint8_t const* data, size_t size) {
  std::vector<WChar> u16(size + 1);
  utf::Outcome r = utf::utf8ToUtf16(data, size, u16.data(), u16.size());
  std::vector<UChar> icu;
  bool const icuOk = icuAcceptsUtf8(data, size, icu);
  check((r.result == utf::Result::ok) == icuOk);
  check(utf::isValidUtf8(data, size) == icuOk);
  std::vector<uint32_t> u32(size + 1);
  utf::Outcome r32 = utf::utf8ToUtf32(data, size, u32.data(), u32.size());
  check((r32.result == utf::Result::ok) == icuOk);
  if (!icuOk) return;
  check(r.written == icu.size());
  check(std::memcmp(u16.data(), icu.data(), r.written * sizeof(WChar)) == 0);
  // An exactly sized output takes the bounded path and gives the same.
  std::vector<WChar> exact(r.written);
  utf::Outcome e = utf::utf8ToUtf16(data, size, exact.data(), exact.size());
  check(e.result == utf::Result::ok && e.written == r.written);
  check(r.written == 0 || std::memcmp(exact.data(), u16.data(), r.written * sizeof(WChar)) == 0);
  std::vector<unsigned char> back(r.written * 3 + 1);
  utf::Outcome b = utf::utf16ToUtf8(u16.data(), r.written, back.data(), back.size());
  check(b.result == utf::Result::ok && b.written == size);
  check(size == 0 || std::memcmp(back.data(), data, size) == 0);
  std::vector<unsigned char> back8(r32.written * 4 + 1);
  b = utf::utf32ToUtf8(u32.data(), r32.written, back8.data(), back8.size());
  check(b.result == utf::Result::ok && b.written == size);
  check(size == 0 || std::memcmp(back8.data(), data, size) == 0);
}

void fuzzUtf16(uint8_t const* data, size_t size) {
  size_t const n = size / 2;
  std::vector<WChar> in(n + 1);
  if (n) std::memcpy(in.data(), data, n * 2);
  std::vector<char> icu(n * 3 + 1);
  int32_t len = 0;
  UErrorCode ec = U_ZERO_ERROR;
  u_strToUTF8(icu.data(), static_cast<int32_t>(icu.size()), &len,
              reinterpret_cast<UChar const*>(in.data()), static_cast<int32_t>(n), &ec);
  bool const icuOk = U_SUCCESS(ec);
  std::vector<unsigned char> u8(n * 3 + 1);
  utf::Outcome r = utf::utf16ToUtf8(in.data(), n, u8.data(), u8.size());
  check((r.result == utf::Result::ok) == icuOk);
  check(utf::isValidUtf16(in.data(), n) == icuOk);
  std::vector<uint32_t> u32(n + 1);
  utf::Outcome r32 = utf::utf16ToUtf32(in.data(), n, u32.data(), u32.size());
  check((r32.result == utf::Result::ok) == icuOk);
  if (!icuOk) return;
  check(r.written == static_cast<size_t>(len));
  check(r.written == 0 || std::memcmp(u8.data(), icu.data(), r.written) == 0);
  std::vector<unsigned char> exact(r.written);
  utf::Outcome e = utf::utf16ToUtf8(in.data(), n, exact.data(), exact.size());
  check(e.result == utf::Result::ok && e.written == r.written);
  check(r.written == 0 || std::memcmp(exact.data(), u8.data(), r.written) == 0);
  std::vector<WChar> back(n + 1);
  utf::Outcome b = utf::utf8ToUtf16(u8.data(), r.written, back.data(), back.size());
  check(b.result == utf::Result::ok && b.written == n);
  check(n == 0 || std::memcmp(back.data(), in.data(), n * 2) == 0);
  b = utf::utf32ToUtf16(u32.data(), r32.written, back.data(), back.size());
  check(b.result == utf::Result::ok && b.written == n);
  check(n == 0 || std::memcmp(back.data(), in.data(), n * 2) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  fuzzUtf8(data, size);
  fuzzUtf16(data, size);
  compareIsas(data, size);
  compareIsasOnCjk(data, size);
  return 0;
}
