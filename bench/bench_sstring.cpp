// String core against std::string / std::u16string: copying, copying then
// changing one character, appending one character at a time, substring
// search, case-insensitive comparison and sorting.
#include <quenlib/sstring.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cctype>
#include <clocale>
#include <random>
#include <strings.h>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

std::string RandomText(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> letter('a', 'z');
  std::string s(n, ' ');
  for (char& c : s) c = static_cast<char>(letter(rng));
  return s;
}

std::u16string Widen(std::string const& s) { return std::u16string(s.begin(), s.end()); }

// ---- copying a 1 KiB string (construct the copy, then destroy it)

void BM_Copy1KiB_SAnsiString(benchmark::State& state) {
  SAnsiString src(RandomText(1024, 1).c_str());
  for (auto _ : state) {
    SAnsiString copy(src);
    benchmark::DoNotOptimize(copy.getString());
  }
}
BENCHMARK(BM_Copy1KiB_SAnsiString);

void BM_Copy1KiB_StdString(benchmark::State& state) {
  std::string src = RandomText(1024, 1);
  benchmark::DoNotOptimize(src.data());
  for (auto _ : state) {
    std::string copy(src);
    benchmark::DoNotOptimize(copy.data());
  }
}
BENCHMARK(BM_Copy1KiB_StdString);

void BM_Copy1KiB_SWCharString(benchmark::State& state) {
  SWCharString src(Widen(RandomText(1024, 1)).c_str());
  for (auto _ : state) {
    SWCharString copy(src);
    benchmark::DoNotOptimize(copy.getString());
  }
}
BENCHMARK(BM_Copy1KiB_SWCharString);

void BM_Copy1KiB_StdU16String(benchmark::State& state) {
  std::u16string src = Widen(RandomText(1024, 1));
  benchmark::DoNotOptimize(src.data());
  for (auto _ : state) {
    std::u16string copy(src);
    benchmark::DoNotOptimize(copy.data());
  }
}
BENCHMARK(BM_Copy1KiB_StdU16String);

// ---- copying at 64 B, 1 KiB, 64 KiB and 1 MiB: a shared buffer costs the
// same at every size, a deep copy grows with the text

void BM_CopySized_SAnsiString(benchmark::State& state) {
  SAnsiString src(RandomText(static_cast<size_t>(state.range(0)), 1).c_str());
  for (auto _ : state) {
    SAnsiString copy(src);
    benchmark::DoNotOptimize(copy.getString());
  }
}
BENCHMARK(BM_CopySized_SAnsiString)->Arg(64)->Arg(1024)->Arg(64 << 10)->Arg(1 << 20);

void BM_CopySized_StdString(benchmark::State& state) {
  std::string src = RandomText(static_cast<size_t>(state.range(0)), 1);
  benchmark::DoNotOptimize(src.data());
  for (auto _ : state) {
    std::string copy(src);
    benchmark::DoNotOptimize(copy.data());
  }
}
BENCHMARK(BM_CopySized_StdString)->Arg(64)->Arg(1024)->Arg(64 << 10)->Arg(1 << 20);

// ---- copy a string, then change the character in its middle: the change
// takes a private copy of the shared buffer

void BM_CopyModify_SAnsiString(benchmark::State& state) {
  SAnsiString src(RandomText(static_cast<size_t>(state.range(0)), 1).c_str());
  unsigned const at = src.getLength() / 2;
  for (auto _ : state) {
    SAnsiString copy(src);
    copy.setAt(at, SChar_t<char, 0>('X'));
    benchmark::DoNotOptimize(copy.getString());
  }
}
BENCHMARK(BM_CopyModify_SAnsiString)->Arg(1024)->Arg(64 << 10);

void BM_CopyModify_StdString(benchmark::State& state) {
  std::string src = RandomText(static_cast<size_t>(state.range(0)), 1);
  size_t const at = src.size() / 2;
  benchmark::DoNotOptimize(src.data());
  for (auto _ : state) {
    std::string copy(src);
    copy[at] = 'X';
    benchmark::DoNotOptimize(copy.data());
  }
}
BENCHMARK(BM_CopyModify_StdString)->Arg(1024)->Arg(64 << 10);

// ---- appending one character a million times

constexpr int kAppends = 1000000;

void BM_Append1M_SAnsiString(benchmark::State& state) {
  for (auto _ : state) {
    SAnsiString s;
    for (int i = 0; i < kAppends; ++i) s += 'a';
    benchmark::DoNotOptimize(s.getString());
  }
  state.SetItemsProcessed(state.iterations() * kAppends);
}
BENCHMARK(BM_Append1M_SAnsiString)->Unit(benchmark::kMillisecond);

void BM_Append1M_StdString(benchmark::State& state) {
  for (auto _ : state) {
    std::string s;
    for (int i = 0; i < kAppends; ++i) s += 'a';
    benchmark::DoNotOptimize(s.data());
  }
  state.SetItemsProcessed(state.iterations() * kAppends);
}
BENCHMARK(BM_Append1M_StdString)->Unit(benchmark::kMillisecond);

void BM_Append1M_SWCharString(benchmark::State& state) {
  for (auto _ : state) {
    SWCharString s;
    for (int i = 0; i < kAppends; ++i) s += u'a';
    benchmark::DoNotOptimize(s.getString());
  }
  state.SetItemsProcessed(state.iterations() * kAppends);
}
BENCHMARK(BM_Append1M_SWCharString)->Unit(benchmark::kMillisecond);

void BM_Append1M_StdU16String(benchmark::State& state) {
  for (auto _ : state) {
    std::u16string s;
    for (int i = 0; i < kAppends; ++i) s += u'a';
    benchmark::DoNotOptimize(s.data());
  }
  state.SetItemsProcessed(state.iterations() * kAppends);
}
BENCHMARK(BM_Append1M_StdU16String)->Unit(benchmark::kMillisecond);

// ---- find of a 16-byte needle in 1 MiB (the needle sits at the very end)

constexpr size_t kHay = 1 << 20;

std::string Haystack() {
  std::string h = RandomText(kHay - 16, 2);
  return h + "needle-0123456Z";
}
std::string const kNeedle = "needle-0123456Z";

void BM_Find1MiB_SAnsiString(benchmark::State& state) {
  SAnsiString hay(Haystack().c_str()), needle(kNeedle.c_str());
  for (auto _ : state) benchmark::DoNotOptimize(hay.find(needle));
  state.SetBytesProcessed(state.iterations() * kHay);
}
BENCHMARK(BM_Find1MiB_SAnsiString)->Unit(benchmark::kMicrosecond);

void BM_Find1MiB_SAsciiString(benchmark::State& state) {
  SAsciiString hay(Haystack().c_str()), needle(kNeedle.c_str());
  for (auto _ : state) benchmark::DoNotOptimize(hay.find(needle));
  state.SetBytesProcessed(state.iterations() * kHay);
}
BENCHMARK(BM_Find1MiB_SAsciiString)->Unit(benchmark::kMicrosecond);

void BM_Find1MiB_StdString(benchmark::State& state) {
  std::string hay = Haystack();
  for (auto _ : state) benchmark::DoNotOptimize(hay.find(kNeedle));
  state.SetBytesProcessed(state.iterations() * kHay);
}
BENCHMARK(BM_Find1MiB_StdString)->Unit(benchmark::kMicrosecond);

void BM_Find1MiB_SWCharString(benchmark::State& state) {
  SWCharString hay(Widen(Haystack()).c_str()), needle(Widen(kNeedle).c_str());
  for (auto _ : state) benchmark::DoNotOptimize(hay.find(needle));
  state.SetBytesProcessed(state.iterations() * kHay * 2);
}
BENCHMARK(BM_Find1MiB_SWCharString)->Unit(benchmark::kMicrosecond);

void BM_Find1MiB_StdU16String(benchmark::State& state) {
  std::u16string hay = Widen(Haystack()), needle = Widen(kNeedle);
  for (auto _ : state) benchmark::DoNotOptimize(hay.find(needle));
  state.SetBytesProcessed(state.iterations() * kHay * 2);
}
BENCHMARK(BM_Find1MiB_StdU16String)->Unit(benchmark::kMicrosecond);

// ---- case-insensitive comparison of two 64-byte ASCII texts that differ
// only in case (so every byte is looked at). Argument 0 runs in C.UTF-8,
// whose collation is code-point order; 1 in en_US.UTF-8, which collates by
// the locale's rules (skipped where that locale is not installed).

std::string MixedCase64() {
  std::string s = RandomText(64, 4);
  for (size_t i = 0; i < s.size(); i += 3) s[i] = static_cast<char>(std::toupper(s[i]));
  return s;
}

bool SetCompareLocale(benchmark::State& state) {
  char const* name = state.range(0) == 0 ? "C.UTF-8" : "en_US.UTF-8";
  if (std::setlocale(LC_ALL, name) != nullptr) return true;
  state.SkipWithError("locale not installed");
  return false;
}

std::string Lowered(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

void BM_CompareCI64_SAnsiStringCI(benchmark::State& state) {
  if (!SetCompareLocale(state)) return;
  SAnsiStringCI a(MixedCase64().c_str()), b(Lowered(MixedCase64()).c_str());
  if (a.compareNoCase(b) != 0) state.SkipWithError("texts differ");
  for (auto _ : state) benchmark::DoNotOptimize(a.compareNoCase(b));
  std::setlocale(LC_ALL, "C");
}
BENCHMARK(BM_CompareCI64_SAnsiStringCI)->Arg(0)->Arg(1);

void BM_CompareCI64_SWCharStringCI(benchmark::State& state) {
  if (!SetCompareLocale(state)) return;
  SWCharStringCI a(Widen(MixedCase64()).c_str()), b(Widen(Lowered(MixedCase64())).c_str());
  if (a.compareNoCase(b) != 0) state.SkipWithError("texts differ");
  for (auto _ : state) benchmark::DoNotOptimize(a.compareNoCase(b));
  std::setlocale(LC_ALL, "C");
}
BENCHMARK(BM_CompareCI64_SWCharStringCI)->Arg(0)->Arg(1);

// The C library's ASCII comparison: the in-binary peer of the narrow row.
void BM_CompareCI64_Strcasecmp(benchmark::State& state) {
  std::string a = MixedCase64(), b = Lowered(a);
  benchmark::DoNotOptimize(a.data());
  benchmark::DoNotOptimize(b.data());
  for (auto _ : state) benchmark::DoNotOptimize(strcasecmp(a.c_str(), b.c_str()));
}
BENCHMARK(BM_CompareCI64_Strcasecmp);

// A plain loop folding A-Z of two UTF-16 texts: the peer of the wide row.
int FoldedCompare(std::u16string const& a, std::u16string const& b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    char16_t x = a[i], y = b[i];
    if (x >= u'A' && x <= u'Z') x = static_cast<char16_t>(x + 32);
    if (y >= u'A' && y <= u'Z') y = static_cast<char16_t>(y + 32);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

void BM_CompareCI64_FoldedU16(benchmark::State& state) {
  std::u16string a = Widen(MixedCase64()), b = Widen(Lowered(MixedCase64()));
  benchmark::DoNotOptimize(a.data());
  benchmark::DoNotOptimize(b.data());
  for (auto _ : state) benchmark::DoNotOptimize(FoldedCompare(a, b));
}
BENCHMARK(BM_CompareCI64_FoldedU16);

// ---- sorting 100,000 random strings (5 to 30 letters)

constexpr int kSortCount = 100000;

std::vector<std::string> SortInput() {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> len(5, 30);
  std::vector<std::string> v;
  v.reserve(kSortCount);
  for (int i = 0; i < kSortCount; ++i) v.push_back(RandomText(static_cast<size_t>(len(rng)), rng()));
  return v;
}

void BM_Sort100k_SAnsiString(benchmark::State& state) {
  std::vector<SAnsiString> input;
  for (auto const& s : SortInput()) input.emplace_back(s.c_str());
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<SAnsiString> v = input;  // shares the buffers
    state.ResumeTiming();
    std::sort(v.begin(), v.end());
    benchmark::DoNotOptimize(v.data());
  }
}
BENCHMARK(BM_Sort100k_SAnsiString)->Unit(benchmark::kMillisecond);

void BM_Sort100k_StdString(benchmark::State& state) {
  std::vector<std::string> input = SortInput();
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<std::string> v = input;
    state.ResumeTiming();
    std::sort(v.begin(), v.end());
    benchmark::DoNotOptimize(v.data());
  }
}
BENCHMARK(BM_Sort100k_StdString)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
