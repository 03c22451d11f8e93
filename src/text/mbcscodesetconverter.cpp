// mbcscodesetconverter.cpp: the locale's multibyte text, UTF-16 and the
// explicit code pages (CodesetConverter, MBCSCodesetConverter).
//
// The locale direction goes through the C library's 32-bit wchar_t: a
// whole-string call first, and only if that reports an error, a walk
// character by character that puts "?" where a character fails. The code
// pages go through ICU converters, one set per thread (an ICU converter
// keeps state and must not be shared), opened on first use.
#include <quenlib/codesetconverter.h>

#include "diagnostics/assert.h"
#include "text/localeconv.h"
#include "text/utfcore.h"

#include <quenlib/slogger.h>
#include <unicode/ucnv.h>

#include <langinfo.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <vector>

namespace QuenLibA500 {

static_assert(sizeof(wchar_t) == 4, "the locale conversions assume a 32-bit wchar_t");

namespace localeconv {
namespace {

constexpr size_t kNoLimit = static_cast<size_t>(-1);

size_t boundedLength(WChar const* s, size_t n) {
  size_t i = 0;
  while (i < n && s[i] != 0) ++i;
  return i;
}

void appendUtf16(std::u16string& out, uint32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else if (cp <= 0x10FFFF) {
    out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
  } else {
    out.push_back(u'?');
  }
}

// UTF-16 to the C library's wide characters, zero-terminated. An unpaired
// surrogate becomes a value no locale can encode, so it turns into "?".
std::vector<wchar_t> toWide32(WChar const* in, size_t n) {
  std::vector<wchar_t> w;
  w.reserve(n + 1);
  for (size_t i = 0; i < n; ++i) {
    uint32_t c = in[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < n && in[i + 1] >= 0xDC00 && in[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (in[i + 1] - 0xDC00u);
      ++i;
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFFFFFFu;  // above any range a C library encodes
    }
    w.push_back(static_cast<wchar_t>(c));
  }
  w.push_back(0);
  return w;
}

std::string fromWide32Slow(wchar_t const* w) {
  std::string out;
  std::mbstate_t st{};
  char tmp[MB_LEN_MAX];
  for (; *w; ++w) {
    size_t const k = std::wcrtomb(tmp, *w, &st);
    if (k == static_cast<size_t>(-1)) {
      out.push_back('?');
      st = std::mbstate_t{};
      continue;
    }
    out.append(tmp, k);
  }
  return out;
}

}  // namespace

size_t boundedLength(char const* s, size_t n) {
  if (n == kNoLimit) return std::strlen(s);
  void const* z = std::memchr(s, 0, n);
  return z ? static_cast<size_t>(static_cast<char const*>(z) - s) : n;
}

bool isUtf8Locale() {
  char const* cs = nl_langinfo(CODESET);
  return cs != nullptr && std::strcmp(cs, "UTF-8") == 0;
}

std::u16string toUtf16(char const* in, size_t n) {
  std::u16string out;
  if (in == nullptr) return out;
  n = boundedLength(in, n);
  if (n == 0) return out;
  auto const* bytes = reinterpret_cast<unsigned char const*>(in);
  if (isUtf8Locale()) {
    out.resize(n);
    utf::Outcome const r = utf::utf8ToUtf16(bytes, n, out.data(), n);
    if (r.result == utf::Result::ok) {
      out.resize(r.written);
      return out;
    }
    out.clear();
  }
  std::string const copy(in, n);
  std::vector<wchar_t> w(n + 1);
  size_t const r = std::mbstowcs(w.data(), copy.c_str(), n + 1);
  if (r != static_cast<size_t>(-1)) {
    out.reserve(r);
    for (size_t i = 0; i < r; ++i) appendUtf16(out, static_cast<uint32_t>(w[i]));
    return out;
  }
  // Character by character: an invalid sequence is one "?" for one byte.
  std::mbstate_t st{};
  size_t i = 0;
  while (i < n) {
    wchar_t wc = 0;
    size_t const k = std::mbrtowc(&wc, in + i, std::min<size_t>(n - i, 6), &st);
    if (k == static_cast<size_t>(-1) || k == static_cast<size_t>(-2)) {
      out.push_back(u'?');
      st = std::mbstate_t{};
      ++i;
      continue;
    }
    if (k == 0) break;
    appendUtf16(out, static_cast<uint32_t>(wc));
    i += k;
  }
  return out;
}

std::string fromUtf16(WChar const* in, size_t n) {
  std::string out;
  if (in == nullptr) return out;
  n = boundedLength(in, n);
  if (n == 0) return out;
  if (isUtf8Locale()) {
    out.resize(n * 3);
    utf::Outcome const r = utf::utf16ToUtf8(in, n, reinterpret_cast<unsigned char*>(out.data()),
                                            out.size());
    if (r.result == utf::Result::ok) {
      out.resize(r.written);
      return out;
    }
    out.clear();
  }
  std::vector<wchar_t> const w = toWide32(in, n);
  size_t const len = std::wcstombs(nullptr, w.data(), 0);
  if (len == static_cast<size_t>(-1)) return fromWide32Slow(w.data());
  out.resize(len + 1);
  std::wcstombs(out.data(), w.data(), len + 1);
  out.resize(len);
  return out;
}

}  // namespace localeconv

// ---- CodesetConverter

size_t CodesetConverter::ucs2tombs(char* out, WChar const* in, unsigned size) {
  localeconv::ErrnoGuard keep;
  if (in == nullptr) {
    if (out && size) out[0] = 0;
    return 0;
  }
  std::vector<wchar_t> const w = localeconv::toWide32(in, utf::length(in));
  size_t const r = std::wcstombs(out, w.data(), out ? size : 0);
  if (r != static_cast<size_t>(-1)) return r;
  // One character at a time; unconvertible units become "?".
  size_t used = 0;
  std::mbstate_t st{};
  char tmp[MB_LEN_MAX];
  for (wchar_t const* p = w.data(); *p; ++p) {
    size_t k = std::wcrtomb(tmp, *p, &st);
    if (k == static_cast<size_t>(-1)) {
      tmp[0] = '?';
      k = 1;
      st = std::mbstate_t{};
    }
    if (out == nullptr) {
      used += k;
      continue;
    }
    if (size - used < k) {
      // Full width rather than a character cut in the middle.
      std::memset(out + used, '?', size - used);
      used = size;
      break;
    }
    std::memcpy(out + used, tmp, k);
    used += k;
  }
  if (out && used < size) out[used] = 0;
  return used;
}

size_t CodesetConverter::mbstoucs2(WChar* out, char const* in, unsigned size) {
  localeconv::ErrnoGuard keep;
  std::u16string const u = localeconv::toUtf16(in, static_cast<size_t>(-1));
  if (out == nullptr) return u.size();
  size_t const n = std::min<size_t>(u.size(), size);
  if (n) std::memcpy(out, u.data(), n * sizeof(WChar));
  if (n < size) out[n] = 0;
  return n;
}

size_t CodesetConverter::wcstoucs2(WChar* out, WChar const* in, unsigned n) {
  if (in == nullptr) return 0;
  if (out == nullptr) return utf::length(in);
  size_t i = 0;
  for (; i < n && in[i] != 0; ++i) out[i] = in[i];
  if (i < n) out[i] = 0;
  return i;
}

size_t CodesetConverter::ucs2towcs(WChar* out, WChar const* in, unsigned n) {
  return wcstoucs2(out, in, n);
}

int CodesetConverter::wctoucs2(WChar* out, WChar c) {
  if (out == nullptr) return -1;
  *out = c;
  return 1;
}

int CodesetConverter::ucs2towc(WChar* out, unsigned short c) {
  if (out == nullptr) return -1;
  *out = static_cast<WChar>(c);
  return 1;
}

int CodesetConverter::ucs2tomb(char* out, unsigned size, unsigned short c) {
  localeconv::ErrnoGuard keep;
  if (out == nullptr || (c >= 0xD800 && c < 0xE000)) return -1;
  char tmp[MB_LEN_MAX];
  std::mbstate_t st{};
  size_t const k = std::wcrtomb(tmp, static_cast<wchar_t>(c), &st);
  if (k == static_cast<size_t>(-1) || k > size) return -1;
  std::memcpy(out, tmp, k);
  return static_cast<int>(k);
}

int CodesetConverter::mbtoucs2(WChar* out, char const* in) {
  localeconv::ErrnoGuard keep;
  if (out == nullptr || in == nullptr) return -1;
  wchar_t wc = 0;
  std::mbstate_t st{};
  size_t const k = std::mbrtowc(&wc, in, std::min<size_t>(std::strlen(in) + 1, 6), &st);
  if (k == static_cast<size_t>(-1) || k == static_cast<size_t>(-2)) return -1;
  auto const cp = static_cast<uint32_t>(wc);
  if (cp < 0x10000) {
    out[0] = static_cast<WChar>(cp);
    return 1;
  }
  if (cp > 0x10FFFF) return -1;
  out[0] = static_cast<WChar>(0xD800 + ((cp - 0x10000) >> 10));
  out[1] = static_cast<WChar>(0xDC00 + ((cp - 0x10000) & 0x3FF));
  return 2;
}

// ---- MBCSCodesetConverter

namespace {

constexpr char const* kNoMessage = nullptr;

// The ICU name of each code page, indexed by slotFor().
char const* const kIcuNames[] = {"windows-1252", "windows-31j", "ISO-8859-15"};

int slotFor(MBCSCodesetConverter::ExplicitCodeset cs) {
  switch (cs) {
    case MBCSCodesetConverter::ECS_Windows1252:
    case MBCSCodesetConverter::ECS_Latin1:  // deliberately 1252
      return 0;
    case MBCSCodesetConverter::ECS_ShiftJIS:
      return 1;
    case MBCSCodesetConverter::ECS_Latin9:
      return 2;
    default:
      return -1;
  }
}

// This thread's converters, opened on first use, with "?" as the
// substitute for characters a code page cannot hold.
class ThreadConverters {
 public:
  ~ThreadConverters() {
    for (UConverter* c : cnv_)
      if (c) ucnv_close(c);
  }
  UConverter* get(int slot) {
    if (cnv_[slot] == nullptr) cnv_[slot] = open(kIcuNames[slot]);
    if (cnv_[slot]) ucnv_reset(cnv_[slot]);
    return cnv_[slot];
  }

 private:
  static UConverter* open(char const* name) {
    UErrorCode ec = U_ZERO_ERROR;
    UConverter* c = ucnv_open(name, &ec);
    if (U_FAILURE(ec)) return nullptr;
    ucnv_setSubstChars(c, "?", 1, &ec);
    return c;
  }
  UConverter* cnv_[3] = {nullptr, nullptr, nullptr};
};

UConverter* converterFor(MBCSCodesetConverter::ExplicitCodeset cs) {
  int const slot = slotFor(cs);
  if (slot < 0) return nullptr;
  thread_local ThreadConverters converters;
  return converters.get(slot);
}

// ICU's table for code page 932 swaps three control codes the IBM way
// (byte 1A is U+001C, 1C is U+007F, 7F is U+001A); the code page itself
// maps every byte below 0x80 to the same code point. These undo the swap
// after decoding and before encoding; the three bytes are never trail
// bytes, so a unit of these values always stands for one whole byte.
WChar undoControlSwapDecoded(WChar u) {
  switch (u) {
    case 0x1C: return 0x1A;
    case 0x7F: return 0x1C;
    case 0x1A: return 0x7F;
    default: return u;
  }
}

WChar applyControlSwapForEncoding(WChar u) {
  switch (u) {
    case 0x1A: return 0x1C;
    case 0x1C: return 0x7F;
    case 0x7F: return 0x1A;
    default: return u;
  }
}

bool isSwappedControl(WChar u) { return u == 0x1A || u == 0x1C || u == 0x7F; }

void traceWarning(int line, char const* text) {
  if (SLogger::ShouldTrace(SLogger::tl_Warning, __FILE__, line))
    SLogger::Trace(SLogger::tl_Warning, text, __FILE__, line);
}

bool knownCodeset(MBCSCodesetConverter::ExplicitCodeset cs) {
  return cs >= MBCSCodesetConverter::ECS_Native && cs <= MBCSCodesetConverter::ECS_Latin9;
}

// A code page of one byte per character decodes byte by byte, so its UTF-8
// form is a table look-up: each byte's UTF-8 sequence (1 to 3 bytes, as
// ICU decodes that byte alone) packed into 4 bytes with the length on top.
// The table is built once per code page from the same ICU converter the
// general path uses, so both give the same text.
class SingleByteTable {
 public:
  explicit SingleByteTable(int slot) { usable_ = build(slot); }
  bool usable() const noexcept { return usable_; }

  // Writes the UTF-8 form of in[0..n) to out (room for 3 n bytes plus 13
  // bytes of slack, since ASCII runs are stored 16 bytes at a time);
  // returns the bytes written.
  size_t decode(unsigned char const* in, size_t n, char* out) const noexcept {
    char* const start = out;
    size_t i = blocks(in, n, out);
    while (i < n) {
      size_t const run = asciiRun(in + i, n - i, out);
      i += run;
      out += run;
      if (i == n) break;
      uint32_t const e = entry_[in[i++]];
      std::memcpy(out, &e, 4);
      out += e >> 24;
    }
    return static_cast<size_t>(out - start);
  }

 private:
  // The input 16 bytes at a time while 32 remain (the loads below reach up
  // to 31 bytes past the block start). Each block is stored whole; every
  // byte from 0x80 up is then written from the table and the bytes after
  // it stored again, shifted. The bit mask of such bytes is walked without
  // reloading, so a block's characters do not wait on one another.
  // Returns the input consumed; `out` moves past what was written.
  size_t blocks(unsigned char const* in, size_t n, char*& out) const noexcept {
    size_t i = 0;
#if defined(__SSE2__)
    for (; n - i >= 32; i += 16) {
      __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(in + i));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out), v);
      auto high = static_cast<unsigned>(_mm_movemask_epi8(v));
      unsigned done = 0;  // bytes of the block already placed
      while (high != 0) {
        auto const k = static_cast<unsigned>(__builtin_ctz(high));
        high &= high - 1;
        out += k - done;
        uint32_t const e = entry_[in[i + k]];
        std::memcpy(out, &e, 4);
        out += e >> 24;
        done = k + 1;
        __m128i const rest = _mm_loadu_si128(reinterpret_cast<__m128i const*>(in + i + done));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), rest);
      }
      out += 16 - done;
    }
#endif
    return i;
  }

  // Copies the bytes below 0x80 at the start of in (16 at a time, each
  // block stored whole) and returns how many there were.
  static size_t asciiRun(unsigned char const* in, size_t n, char* out) noexcept {
    size_t i = 0;
#if defined(__SSE2__)
    while (n - i >= 16) {
      __m128i const v = _mm_loadu_si128(reinterpret_cast<__m128i const*>(in + i));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), v);
      auto const high = static_cast<unsigned>(_mm_movemask_epi8(v));
      if (high != 0) return i + static_cast<size_t>(__builtin_ctz(high));
      i += 16;
    }
#endif
    while (i < n && in[i] < 0x80) {
      out[i] = static_cast<char>(in[i]);
      ++i;
    }
    return i;
  }

  bool build(int slot) {
    UErrorCode ec = U_ZERO_ERROR;
    UConverter* c = ucnv_open(kIcuNames[slot], &ec);
    if (U_FAILURE(ec)) return false;
    ucnv_setSubstChars(c, "?", 1, &ec);
    bool ok = ucnv_getMaxCharSize(c) == 1;
    for (int b = 0; ok && b < 256; ++b) ok = addByte(c, b);
    ucnv_close(c);
    return ok;
  }

  bool addByte(UConverter* c, int b) {
    char const byte = static_cast<char>(b);
    UChar u[4];
    UErrorCode ec = U_ZERO_ERROR;
    ucnv_reset(c);
    int32_t const n = ucnv_toUChars(c, u, 4, &byte, 1, &ec);
    if (U_FAILURE(ec) || n != 1 || (u[0] >= 0xD800 && u[0] < 0xE000)) return false;
    if (b < 0x80 && u[0] != b) return false;  // ASCII runs are copied as they stand
    unsigned char seq[4] = {0, 0, 0, 0};
    utf::Outcome const r = utf::utf16ToUtf8(reinterpret_cast<WChar const*>(u), 1, seq, 3);
    if (r.result != utf::Result::ok) return false;
    uint32_t e = 0;
    std::memcpy(&e, seq, 3);
    entry_[b] = e | static_cast<uint32_t>(r.written) << 24;
    return true;
  }

  uint32_t entry_[256] = {};
  bool usable_ = false;
};

// The table for cs when it is a usable single-byte code page, else null.
SingleByteTable const* singleByteTable(MBCSCodesetConverter::ExplicitCodeset cs) {
  int const slot = slotFor(cs);
  if (slot == 0) {
    static SingleByteTable const t(0);
    return t.usable() ? &t : nullptr;
  }
  if (slot == 2) {
    static SingleByteTable const t(2);
    return t.usable() ? &t : nullptr;
  }
  return nullptr;
}

// Where the table path writes: the worst case is three times the input,
// which for large texts would be a fresh, zero-filled mapping on every
// call. A per-thread scratch area keeps its pages between calls (up to
// kKeptScratch bytes); the result is then copied out at its exact size.
constexpr size_t kKeptScratch = size_t{1} << 20;

class Utf8Scratch {
 public:
  char* reserve(size_t bytes) {
    std::string& s = bytes <= kKeptScratch ? kept() : large_;
    if (s.size() < bytes) s.resize(bytes);
    return s.data();
  }

 private:
  static std::string& kept() {
    thread_local std::string s;
    return s;
  }
  std::string large_;
};

// The UTF-8 form of single-byte code page text for a UTF-8 locale, handed
// to sink(pointer, length); false when the code page has no table.
template <class Sink>
bool singleByteToUtf8(MBCSCodesetConverter::ExplicitCodeset cs, char const* bytes, size_t n,
                      Sink const& sink) {
  SingleByteTable const* t = singleByteTable(cs);
  if (t == nullptr || n > SIZE_MAX / 4) return false;
  Utf8Scratch scratch;
  char* out = scratch.reserve(n * 3 + 16);
  size_t const len = t->decode(reinterpret_cast<unsigned char const*>(bytes), n, out);
  sink(out, len);
  return true;
}

}  // namespace

bool MBCSCodesetConverter::CodePageToUTF16(ExplicitCodeset cs, char const* bytes, size_t n,
                                           std::u16string& out) {
  UConverter* const c = converterFor(cs);
  if (c == nullptr || n > INT32_MAX / 2) return false;
  out.resize(n + 1);
  UErrorCode ec = U_ZERO_ERROR;
  int32_t len = ucnv_toUChars(c, reinterpret_cast<UChar*>(out.data()),
                              static_cast<int32_t>(out.size()), bytes, static_cast<int32_t>(n),
                              &ec);
  if (ec == U_BUFFER_OVERFLOW_ERROR) {
    out.resize(static_cast<size_t>(len) + 1);
    ec = U_ZERO_ERROR;
    ucnv_reset(c);
    len = ucnv_toUChars(c, reinterpret_cast<UChar*>(out.data()),
                        static_cast<int32_t>(out.size()), bytes, static_cast<int32_t>(n), &ec);
  }
  if (U_FAILURE(ec)) return false;
  out.resize(static_cast<size_t>(len));
  if (cs == ECS_ShiftJIS)
    for (auto& u : out) u = undoControlSwapDecoded(u);
  return true;
}

bool MBCSCodesetConverter::UTF16ToCodePage(ExplicitCodeset cs, WChar const* text, size_t n,
                                           std::string& out) {
  UConverter* const c = converterFor(cs);
  if (c == nullptr || n > INT32_MAX / 4) return false;
  std::u16string swapped;
  if (cs == ECS_ShiftJIS && std::any_of(text, text + n, isSwappedControl)) {
    swapped.assign(text, n);
    for (auto& u : swapped) u = applyControlSwapForEncoding(u);
    text = swapped.data();
  }
  out.resize(n * 2 + 1);
  UErrorCode ec = U_ZERO_ERROR;
  auto const* src = reinterpret_cast<UChar const*>(text);
  int32_t len = ucnv_fromUChars(c, out.data(), static_cast<int32_t>(out.size()), src,
                                static_cast<int32_t>(n), &ec);
  if (ec == U_BUFFER_OVERFLOW_ERROR) {
    out.resize(static_cast<size_t>(len) + 1);
    ec = U_ZERO_ERROR;
    ucnv_reset(c);
    len = ucnv_fromUChars(c, out.data(), static_cast<int32_t>(out.size()), src,
                          static_cast<int32_t>(n), &ec);
  }
  if (U_FAILURE(ec)) return false;
  out.resize(static_cast<size_t>(len));
  return true;
}

std::string MBCSCodesetConverter::ExplicitCodesetToLocale(char const* bytes, size_t n,
                                                          ExplicitCodeset cs) {
  localeconv::ErrnoGuard keep;
  if (!knownCodeset(cs)) {
    QL_REPORT("0", kNoMessage);
    return std::string();
  }
  if (bytes == nullptr) return std::string();
  n = localeconv::boundedLength(bytes, n);
  if (n == 0) return std::string();
  if (cs == ECS_Native) return std::string(bytes, n);
  std::string direct;
  auto toString = [&direct](char const* p, size_t len) { direct.assign(p, len); };
  if (localeconv::isUtf8Locale() && singleByteToUtf8(cs, bytes, n, toString)) return direct;
  std::u16string wide;
  if (cs == ECS_UTF8) {
    wide.resize(n);
    utf::Outcome const r =
        utf::utf8ToUtf16(reinterpret_cast<unsigned char const*>(bytes), n, wide.data(), n);
    if (r.result != utf::Result::ok) {
      traceWarning(__LINE__, "failed UTF8 -> UCS2 conversion");
      return "?";
    }
    wide.resize(r.written);
  } else if (!CodePageToUTF16(cs, bytes, n, wide)) {
    return "?";
  }
  return localeconv::fromUtf16(wide.data(), wide.size());
}

SSimpleBuffer MBCSCodesetConverter::LocaleToExplicitCodeset(char const* text, size_t n,
                                                            ExplicitCodeset cs) {
  localeconv::ErrnoGuard keep;
  SSimpleBuffer out;
  if (!knownCodeset(cs)) {
    QL_REPORT("0", kNoMessage);
    return out;
  }
  if (text == nullptr) return out;
  n = localeconv::boundedLength(text, n);
  if (n == 0) return out;
  auto const* bytes = reinterpret_cast<unsigned char const*>(text);
  if (cs == ECS_Native) {
    out.append(bytes, static_cast<unsigned>(n), static_cast<unsigned>(-1));
    return out;
  }
  std::u16string const wide = localeconv::toUtf16(text, n);
  if (wide.empty()) return out;
  if (cs == ECS_UTF8) {
    size_t const cap = wide.size() * 3;
    unsigned char* p = out.getBuffer(static_cast<unsigned>(cap));
    if (p == nullptr) return out;
    utf::Outcome const r = utf::utf16ToUtf8(wide.data(), wide.size(), p, cap);
    if (r.result != utf::Result::ok) {
      traceWarning(__LINE__, "failed to convert to UTF-8");
      return SSimpleBuffer();
    }
    out.releaseBuffer(static_cast<unsigned>(r.written));
    return out;
  }
  std::string bytesOut;
  if (!UTF16ToCodePage(cs, wide.data(), wide.size(), bytesOut) || bytesOut.empty()) return out;
  out.append(reinterpret_cast<unsigned char const*>(bytesOut.data()),
             static_cast<unsigned>(bytesOut.size()), static_cast<unsigned>(-1));
  return out;
}

SAnsiString MBCSCodesetConverter::ExplicitCodesetToT(char const* bytes, ExplicitCodeset cs) {
  if (bytes != nullptr && *bytes != 0 && localeconv::isUtf8Locale()) {
    // Straight from the table into the string, without the std::string.
    localeconv::ErrnoGuard keep;
    SAnsiString direct;
    auto toSString = [&direct](char const* p, size_t len) {
      direct = SAnsiString(p, static_cast<unsigned>(len));
    };
    size_t const n = std::strlen(bytes);
    if (n <= UINT32_MAX / 3 && singleByteToUtf8(cs, bytes, n, toSString)) return direct;
  }
  std::string const text =
      ExplicitCodesetToLocale(bytes, bytes ? std::strlen(bytes) : 0, cs);
  return SAnsiString(text.data(), static_cast<unsigned>(text.size()));
}

SSimpleBuffer MBCSCodesetConverter::TToExplicitCodeset(SAnsiString const& text,
                                                       ExplicitCodeset cs) {
  return LocaleToExplicitCodeset(text.getString(), text.getLength(), cs);
}

}  // namespace QuenLibA500
