// The strict UTF transforms against ICU's u_strFromUTF8 / u_strToUTF8, and
// MBCSCodesetConverter::ExplicitCodesetToT for code page 1252 against the
// same work done with ICU alone, on ASCII, mixed European and CJK text.
#include <quenlib/codesetconverter.h>

#include "text/utfcore.h"

#include <benchmark/benchmark.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <clocale>
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

}  // namespace

// Argument: 0 ASCII, 1 mixed European, 2 CJK.
BENCHMARK(OursUtf8ToUtf16)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(IcuUtf8ToUtf16)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(OursUtf16ToUtf8)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(IcuUtf16ToUtf8)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(OursCp1252ToLocale)->Arg(0)->Arg(1);
BENCHMARK(IcuCp1252ToUtf8)->Arg(0)->Arg(1);

BENCHMARK_MAIN();
