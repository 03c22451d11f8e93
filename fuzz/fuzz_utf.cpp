// Fuzzes the strict Unicode transforms: the input is read as UTF-8 and, at
// the same time, as UTF-16 units. Well-formed input must round-trip
// unchanged; ill-formed input must fail exactly when ICU's conversion fails;
// every instruction set must give the scalar outcome and output.
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

void compareIsas(uint8_t const* data, size_t size) {
  std::vector<WChar> want(size + 1);
  utf::Outcome const w = utf::utf8ToUtf16(utf::Isa::scalar, data, size, want.data(), size);
  size_t const n = size / 2;
  std::vector<WChar> units(n + 1);
  if (n) std::memcpy(units.data(), data, n * 2);
  std::vector<unsigned char> want8(n * 3 + 1);
  utf::Outcome const w8 = utf::utf16ToUtf8(utf::Isa::scalar, units.data(), n, want8.data(), n * 3);
  for (utf::Isa isa : kIsas) {
    std::vector<WChar> out(size + 1);
    utf::Outcome const r = utf::utf8ToUtf16(isa, data, size, out.data(), size);
    check(sameOutcome(r, w));
    check(r.written == 0 || std::memcmp(out.data(), want.data(), r.written * sizeof(WChar)) == 0);
    std::vector<unsigned char> out8(n * 3 + 1);
    utf::Outcome const r8 = utf::utf16ToUtf8(isa, units.data(), n, out8.data(), n * 3);
    check(sameOutcome(r8, w8));
    check(r8.written == 0 || std::memcmp(out8.data(), want8.data(), r8.written) == 0);
  }
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
  return 0;
}
