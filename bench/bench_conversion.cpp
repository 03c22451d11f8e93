// The strict UTF transforms against ICU's u_strFromUTF8 / u_strToUTF8, and
// MBCSCodesetConverter::ExplicitCodesetToT for code page 1252 against the
// same work done with ICU alone, on ASCII, mixed European and CJK text.
// The 1 MiB rows go through CUTFConverter (length scan, fresh result
// object) against ICU and a plain scalar loop doing the same work.
#include <quenlib/UTFConverter.h>
#include <quenlib/codesetconverter.h>

#include "text/utfcore.h"

#include <benchmark/benchmark.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <clocale>
#include <memory>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

constexpr size_t kTextBytes = 64 * 1024;

std::string repeatTo(std::string const& piece) {
  std::string out;
  while (out.size() < kTextBytes) out += piece;
  return out;
}

// UTF-8 samples: plain English, a mix of European languages (mostly ASCII
// with accented letters), and Japanese/Chinese.
std::string const& sample(int kind) {
  static std::string const ascii = repeatTo(
      "The quick brown fox jumps over the lazy dog; pack my box with five dozen liquor jugs. ");
  static std::string const european = repeatTo(
      "Fran\xC3\xA7ois a d\xC3\xA9j\xC3\xA0 mang\xC3\xA9 \xC3\xA0 la caf\xC3\xA9t\xC3\xA9ria. "
      "Gr\xC3\xBC\xC3\x9F" "e aus M\xC3\xBCnchen, sch\xC3\xB6ne Stra\xC3\x9F" "e. "
      "Za\xC5\xBC\xC3\xB3\xC5\x82\xC4\x87 g\xC4\x99\xC5\x9Bl\xC4\x85 ja\xC5\xBA\xC5\x84. "
      "El ni\xC3\xB1o comi\xC3\xB3 pi\xC3\xB1" "a. ");
  static std::string const cjk = repeatTo(
      "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE6\x96\x87\xE7\xAB\xA0\xE3\x81\xA7"
      "\xE3\x81\x99\xE3\x80\x82\xE4\xB8\xAD\xE6\x96\x87\xE6\xB5\x8B\xE8\xAF\x95\xE6\x96\x87"
      "\xE6\x9C\xAC\xE3\x80\x82");
  return kind == 0 ? ascii : kind == 1 ? european : cjk;
}

std::u16string toUtf16(std::string const& s) {
  std::u16string out(s.size(), u'\0');
  utf::Outcome r = utf::utf8ToUtf16(reinterpret_cast<unsigned char const*>(s.data()), s.size(),
                                    out.data(), out.size());
  out.resize(r.written);
  return out;
}

void setBytes(benchmark::State& state, size_t perIteration) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * perIteration));
}

void OursUtf8ToUtf16(benchmark::State& state) {
  std::string const& in = sample(static_cast<int>(state.range(0)));
  std::vector<WChar> out(in.size() + 1);
  for (auto _ : state) {
    utf::Outcome r = utf::utf8ToUtf16(reinterpret_cast<unsigned char const*>(in.data()),
                                      in.size(), out.data(), out.size());
    benchmark::DoNotOptimize(r);
    benchmark::ClobberMemory();
  }
  setBytes(state, in.size());
}

void IcuUtf8ToUtf16(benchmark::State& state) {
  std::string const& in = sample(static_cast<int>(state.range(0)));
  std::vector<UChar> out(in.size() + 1);
  for (auto _ : state) {
    int32_t len = 0;
    UErrorCode ec = U_ZERO_ERROR;
    u_strFromUTF8(out.data(), static_cast<int32_t>(out.size()), &len, in.data(),
                  static_cast<int32_t>(in.size()), &ec);
    benchmark::DoNotOptimize(len);
    benchmark::ClobberMemory();
  }
  setBytes(state, in.size());
}

void OursUtf16ToUtf8(benchmark::State& state) {
  std::string const& utf8 = sample(static_cast<int>(state.range(0)));
  std::u16string const in = toUtf16(utf8);
  std::vector<unsigned char> out(in.size() * 3 + 1);
  for (auto _ : state) {
    utf::Outcome r = utf::utf16ToUtf8(in.data(), in.size(), out.data(), out.size());
    benchmark::DoNotOptimize(r);
    benchmark::ClobberMemory();
  }
  setBytes(state, utf8.size());
}

void IcuUtf16ToUtf8(benchmark::State& state) {
  std::string const& utf8 = sample(static_cast<int>(state.range(0)));
  std::u16string const in = toUtf16(utf8);
  std::vector<char> out(in.size() * 3 + 1);
  for (auto _ : state) {
    int32_t len = 0;
    UErrorCode ec = U_ZERO_ERROR;
    u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &len,
                reinterpret_cast<UChar const*>(in.data()), static_cast<int32_t>(in.size()), &ec);
    benchmark::DoNotOptimize(len);
    benchmark::ClobberMemory();
  }
  setBytes(state, utf8.size());
}

// Code page 1252 text: the European sample (or ASCII) encoded once.
std::string cp1252Sample(int kind) {
  std::setlocale(LC_ALL, "C.UTF-8");
  std::string const& utf8 = sample(kind);
  SSimpleBuffer b = MBCSCodesetConverter::LocaleToExplicitCodeset(
      utf8.data(), utf8.size(), MBCSCodesetConverter::ECS_Windows1252);
  return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(b)),
                     b.getNBytes());
}

void OursCp1252ToLocale(benchmark::State& state) {
  std::string const in = cp1252Sample(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    SAnsiString s =
        MBCSCodesetConverter::ExplicitCodesetToT(in.c_str(), MBCSCodesetConverter::ECS_Windows1252);
    benchmark::DoNotOptimize(s.getLength());
  }
  setBytes(state, in.size());
}

// ICU alone: an open 1252 converter, bytes to UTF-16, UTF-16 to UTF-8, and
// the result copied into a string as ours is.
void IcuCp1252ToUtf8(benchmark::State& state) {
  std::string const in = cp1252Sample(static_cast<int>(state.range(0)));
  UErrorCode ec = U_ZERO_ERROR;
  UConverter* cnv = ucnv_open("windows-1252", &ec);
  for (auto _ : state) {
    std::u16string wide(in.size() + 1, u'\0');
    ec = U_ZERO_ERROR;
    ucnv_reset(cnv);
    int32_t n = ucnv_toUChars(cnv, reinterpret_cast<UChar*>(wide.data()),
                              static_cast<int32_t>(wide.size()), in.data(),
                              static_cast<int32_t>(in.size()), &ec);
    std::string utf8(static_cast<size_t>(n) * 3 + 1, '\0');
    int32_t len = 0;
    u_strToUTF8(utf8.data(), static_cast<int32_t>(utf8.size()), &len,
                reinterpret_cast<UChar const*>(wide.data()), n, &ec);
    std::string result(utf8.data(), static_cast<size_t>(len));
    benchmark::DoNotOptimize(result.data());
  }
  ucnv_close(cnv);
  setBytes(state, in.size());
}

// The same transforms on each instruction set (second argument: 0 scalar,
// 1 portable words, 2 SSE2, 3 AVX2), to see what each step gains.
void IsaUtf8ToUtf16(benchmark::State& state) {
  std::string const& in = sample(static_cast<int>(state.range(0)));
  auto const isa = static_cast<utf::Isa>(state.range(1));
  std::vector<WChar> out(in.size() + 1);
  for (auto _ : state) {
    utf::Outcome r = utf::utf8ToUtf16(isa, reinterpret_cast<unsigned char const*>(in.data()),
                                      in.size(), out.data(), out.size());
    benchmark::DoNotOptimize(r);
    benchmark::ClobberMemory();
  }
  setBytes(state, in.size());
}

void IsaUtf16ToUtf8(benchmark::State& state) {
  std::string const& utf8 = sample(static_cast<int>(state.range(0)));
  auto const isa = static_cast<utf::Isa>(state.range(1));
  std::u16string const in = toUtf16(utf8);
  std::vector<unsigned char> out(in.size() * 3 + 1);
  for (auto _ : state) {
    utf::Outcome r = utf::utf16ToUtf8(isa, in.data(), in.size(), out.data(), out.size());
    benchmark::DoNotOptimize(r);
    benchmark::ClobberMemory();
  }
  setBytes(state, utf8.size());
}

// ---- 1 MiB through the public converter

constexpr size_t kLargeBytes = 1024 * 1024;

// 0: English ASCII; 1: about 88% ASCII (English sentences alternating with
// the mixed European ones); 2: the Japanese/Chinese text.
std::string const& largeSample(int kind) {
  static std::string const ascii = [] {
    std::string s;
    while (s.size() < kLargeBytes) s += sample(0).substr(0, 86);
    return s;
  }();
  static std::string const mixed = [] {
    std::string s;
    std::string const piece = sample(0).substr(0, 86) + sample(1).substr(0, 135);
    while (s.size() < kLargeBytes) s += piece;
    return s;
  }();
  static std::string const cjk = [] {
    std::string s;
    while (s.size() < kLargeBytes) s += sample(2);
    return s;
  }();
  return kind == 0 ? ascii : kind == 1 ? mixed : cjk;
}

void OursApiUtf8ToUtf16(benchmark::State& state) {
  std::string const& in = largeSample(static_cast<int>(state.range(0)));
  auto const* p = reinterpret_cast<unsigned char const*>(in.c_str());
  for (auto _ : state) {
    SBrimString out;
    bool const ok = CUTFConverter::UTF8ToUTF16(p, out);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out.getString());
  }
  setBytes(state, in.size());
}

// ICU into a fresh array of the worst-case size (given the length, which
// our side has to find itself).
void IcuLargeUtf8ToUtf16(benchmark::State& state) {
  std::string const& in = largeSample(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::unique_ptr<UChar[]> out(new UChar[in.size() + 1]);
    int32_t len = 0;
    UErrorCode ec = U_ZERO_ERROR;
    u_strFromUTF8(out.get(), static_cast<int32_t>(in.size() + 1), &len, in.data(),
                  static_cast<int32_t>(in.size()), &ec);
    benchmark::DoNotOptimize(len);
    benchmark::DoNotOptimize(out.get());
  }
  setBytes(state, in.size());
}

// A plain loop: one byte (or one sequence) per step, strict checks, into a
// fresh array; the shape of an unvectorised converter.
void ScalarLargeUtf8ToUtf16(benchmark::State& state) {
  std::string const& in = largeSample(static_cast<int>(state.range(0)));
  auto const* s0 = reinterpret_cast<unsigned char const*>(in.data());
  for (auto _ : state) {
    std::unique_ptr<char16_t[]> out(new char16_t[in.size() + 1]);
    size_t o = 0;
    bool ok = true;
    for (size_t i = 0; i < in.size() && ok;) {
      unsigned const c = s0[i];
      if (c < 0x80) {
        out[o++] = static_cast<char16_t>(c);
        ++i;
      } else if (c >= 0xC2 && c < 0xE0 && i + 1 < in.size() && (s0[i + 1] & 0xC0) == 0x80) {
        out[o++] = static_cast<char16_t>(((c & 0x1F) << 6) | (s0[i + 1] & 0x3F));
        i += 2;
      } else {
        ok = false;  // the samples hold nothing longer
      }
    }
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out.get());
  }
  setBytes(state, in.size());
}

void OursApiUtf16ToUtf8(benchmark::State& state) {
  std::string const& utf8 = largeSample(static_cast<int>(state.range(0)));
  std::u16string const wide = toUtf16(utf8);
  SBrimString const in(wide.c_str(), static_cast<unsigned>(wide.size()));
  for (auto _ : state) {
    SSimpleBuffer out;
    bool const ok = CUTFConverter::UTF16ToUTF8(in, out);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out.getNBytes());
  }
  setBytes(state, utf8.size());
}

void OursApiUtf16ToUtf8Counted(benchmark::State& state) {
  std::string const& utf8 = largeSample(static_cast<int>(state.range(0)));
  std::u16string const wide = toUtf16(utf8);
  SBrimString const in(wide.c_str(), static_cast<unsigned>(wide.size()));
  for (auto _ : state) {
    CUTFConverter::ByteBuffer out;
    bool const ok = CUTFConverter::UTF16ToUTF8(in, out);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out.get());
  }
  setBytes(state, utf8.size());
}

void IcuLargeUtf16ToUtf8(benchmark::State& state) {
  std::string const& utf8 = largeSample(static_cast<int>(state.range(0)));
  std::u16string const in = toUtf16(utf8);
  for (auto _ : state) {
    std::unique_ptr<char[]> out(new char[in.size() * 3 + 1]);
    int32_t len = 0;
    UErrorCode ec = U_ZERO_ERROR;
    u_strToUTF8(out.get(), static_cast<int32_t>(in.size() * 3 + 1), &len,
                reinterpret_cast<UChar const*>(in.data()), static_cast<int32_t>(in.size()), &ec);
    benchmark::DoNotOptimize(len);
    benchmark::DoNotOptimize(out.get());
  }
  setBytes(state, utf8.size());
}

void ScalarLargeUtf16ToUtf8(benchmark::State& state) {
  std::string const& utf8 = largeSample(static_cast<int>(state.range(0)));
  std::u16string const in = toUtf16(utf8);
  for (auto _ : state) {
    std::unique_ptr<unsigned char[]> out(new unsigned char[in.size() * 3 + 1]);
    size_t o = 0;
    bool ok = true;
    for (char16_t const u : in) {
      if (u < 0x80) {
        out[o++] = static_cast<unsigned char>(u);
      } else if (u < 0x800) {
        out[o++] = static_cast<unsigned char>(0xC0 | (u >> 6));
        out[o++] = static_cast<unsigned char>(0x80 | (u & 0x3F));
      } else if (u < 0xD800 || u > 0xDFFF) {
        out[o++] = static_cast<unsigned char>(0xE0 | (u >> 12));
        out[o++] = static_cast<unsigned char>(0x80 | ((u >> 6) & 0x3F));
        out[o++] = static_cast<unsigned char>(0x80 | (u & 0x3F));
      } else {
        ok = false;  // the samples hold no surrogates
        break;
      }
    }
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out.get());
  }
  setBytes(state, utf8.size());
}

}  // namespace

// Argument: 0 ASCII, 1 mixed European, 2 CJK.
BENCHMARK(OursUtf8ToUtf16)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(IcuUtf8ToUtf16)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(OursUtf16ToUtf8)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(IcuUtf16ToUtf8)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(IsaUtf8ToUtf16)->ArgsProduct({{0, 1, 2}, {0, 1, 2, 3}});
BENCHMARK(IsaUtf16ToUtf8)->ArgsProduct({{0, 1, 2}, {0, 1, 2, 3}});
BENCHMARK(OursCp1252ToLocale)->Arg(0)->Arg(1);
BENCHMARK(IcuCp1252ToUtf8)->Arg(0)->Arg(1);
// Argument: 0 ASCII, 1 mixed (about 88% ASCII); 1 MiB of UTF-8.
BENCHMARK(OursApiUtf8ToUtf16)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(IcuLargeUtf8ToUtf16)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(ScalarLargeUtf8ToUtf16)->Arg(0)->Arg(1);
BENCHMARK(OursApiUtf16ToUtf8)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(OursApiUtf16ToUtf8Counted)->Arg(0)->Arg(1);
BENCHMARK(IcuLargeUtf16ToUtf8)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(ScalarLargeUtf16ToUtf8)->Arg(0)->Arg(1);

BENCHMARK_MAIN();
