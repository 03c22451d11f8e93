// Integer text conversion against std::to_chars / std::from_chars, in the
// same binary, over the same values and texts. Every benchmark reports
// "allocs": heap allocations per conversion, counted by interposing the
// C allocator (the fast paths must show 0).
#include <quenlib/neutralstr.h>
#include <quenlib/stringconv.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <vector>

using namespace QuenLibA500;

// ---------------------------------------------------------------------------
// Allocation counting: every malloc/calloc/realloc of the process (the
// library's string buffers included) passes through here.

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
}

namespace {
std::atomic<uint64_t> g_allocs{0};
}

extern "C" void* malloc(size_t n) {
  g_allocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(n);
}
extern "C" void* calloc(size_t n, size_t m) {
  g_allocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(n, m);
}
extern "C" void* realloc(void* p, size_t n) {
  g_allocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, n);
}

namespace {

constexpr size_t kCount = 1024;

// Values whose digit counts are spread evenly: a random magnitude, then
// random bits below it, so that short numbers are as common as long ones.
template <class T>
std::vector<T> Values() {
  std::mt19937_64 rng(42);
  std::vector<T> v(kCount);
  constexpr unsigned kBits = sizeof(T) * 8 - (std::is_signed_v<T> ? 1 : 0);
  for (T& x : v) {
    unsigned width = 1 + static_cast<unsigned>(rng() % kBits);
    uint64_t bits = rng() & (width >= 64 ? ~0ull : ((1ull << width) - 1));
    x = static_cast<T>(bits);
    if (std::is_signed_v<T> && (rng() & 3) == 0) x = static_cast<T>(-x);
  }
  return v;
}

template <class T>
std::vector<std::string> Texts(int radix) {
  std::vector<std::string> out;
  for (T x : Values<T>()) {
    char buf[80];
    auto r = std::to_chars(buf, buf + sizeof buf, x, radix);
    out.emplace_back(buf, r.ptr);
  }
  return out;
}

void ReportAllocs(benchmark::State& state, uint64_t before) {
  double n = static_cast<double>(state.iterations()) * kCount;
  state.counters["allocs"] = static_cast<double>(g_allocs.load() - before) / n;
  state.SetItemsProcessed(static_cast<int64_t>(n));
}

// ---- value to text

template <class T>
void Ours_ToText(benchmark::State& state) {
  int radix = static_cast<int>(state.range(0));
  std::vector<T> values = Values<T>();
  char buf[kStringConvUnits];
  uint64_t before = g_allocs.load();
  for (auto _ : state) {
    for (T x : values) {
      int32_t n = StringConvFromInteger(buf, x, radix);
      benchmark::DoNotOptimize(n);
      benchmark::DoNotOptimize(buf);
    }
  }
  ReportAllocs(state, before);
}

template <class T>
void Peer_ToChars(benchmark::State& state) {
  int radix = static_cast<int>(state.range(0));
  std::vector<T> values = Values<T>();
  char buf[kStringConvUnits];
  uint64_t before = g_allocs.load();
  for (auto _ : state) {
    for (T x : values) {
      auto r = std::to_chars(buf, buf + sizeof buf, x, radix);
      *r.ptr = 0;  // the same terminated result as ours
      benchmark::DoNotOptimize(r.ptr);
      benchmark::DoNotOptimize(buf);
    }
  }
  ReportAllocs(state, before);
}

// ---- text to value

template <class T>
void Ours_FromString(benchmark::State& state) {
  int radix = static_cast<int>(state.range(0));
  std::vector<SAnsiString> texts;
  for (std::string const& t : Texts<T>(radix)) texts.emplace_back(t.c_str());
  uint64_t before = g_allocs.load();
  for (auto _ : state) {
    for (SAnsiString const& s : texts) {
      T v = 0;
      bool ok = SAnsiStringConv::FromString(s, v, radix);
      benchmark::DoNotOptimize(ok);
      benchmark::DoNotOptimize(v);
    }
  }
  ReportAllocs(state, before);
}

// The template with its limits given inline, as the library's own readers
// call it.
template <class T>
void Ours_Template(benchmark::State& state) {
  int radix = static_cast<int>(state.range(0));
  std::vector<SAnsiString> texts;
  for (std::string const& t : Texts<T>(radix)) texts.emplace_back(t.c_str());
  constexpr T kMax = std::numeric_limits<T>::max();
  T ldr = static_cast<T>(kMax / radix);
  uint64_t before = g_allocs.load();
  for (auto _ : state) {
    for (SAnsiString const& s : texts) {
      T v = 0;
      bool ok = StringConvToInteger(s, v, char(0), kMax, ldr, radix, std::is_signed_v<T>);
      benchmark::DoNotOptimize(ok);
      benchmark::DoNotOptimize(v);
    }
  }
  ReportAllocs(state, before);
}

template <class T>
void Peer_FromChars(benchmark::State& state) {
  int radix = static_cast<int>(state.range(0));
  std::vector<SAnsiString> texts;
  for (std::string const& t : Texts<T>(radix)) texts.emplace_back(t.c_str());
  uint64_t before = g_allocs.load();
  for (auto _ : state) {
    for (SAnsiString const& s : texts) {
      T v = 0;
      char const* p = s.getString();
      auto r = std::from_chars(p, p + s.getLength(), v, radix);
      benchmark::DoNotOptimize(r.ec);
      benchmark::DoNotOptimize(v);
    }
  }
  ReportAllocs(state, before);
}

// ---- value to a string object (allocates one buffer by nature)

void Ours_ToStringObject(benchmark::State& state) {
  std::vector<int32_t> values = Values<int32_t>();
  uint64_t before = g_allocs.load();
  for (auto _ : state)
    for (int32_t x : values) benchmark::DoNotOptimize(SAnsiStringConv::ToString(x, 10));
  ReportAllocs(state, before);
}

void Peer_StdToString(benchmark::State& state) {
  // Values longer than the small-string buffer of std::string would
  // allocate; the decimal int32 texts all fit, so this is the peer's best.
  std::vector<int32_t> values = Values<int32_t>();
  uint64_t before = g_allocs.load();
  for (auto _ : state)
    for (int32_t x : values) benchmark::DoNotOptimize(std::to_string(x));
  ReportAllocs(state, before);
}

}  // namespace

BENCHMARK(Ours_ToText<int32_t>)->Arg(10)->Arg(16);
BENCHMARK(Peer_ToChars<int32_t>)->Arg(10)->Arg(16);
BENCHMARK(Ours_ToText<int64_t>)->Arg(10)->Arg(16);
BENCHMARK(Peer_ToChars<int64_t>)->Arg(10)->Arg(16);
BENCHMARK(Ours_ToText<uint32_t>)->Arg(36);
BENCHMARK(Peer_ToChars<uint32_t>)->Arg(36);

BENCHMARK(Ours_FromString<int32_t>)->Arg(10)->Arg(16);
BENCHMARK(Ours_Template<int32_t>)->Arg(10)->Arg(16);
BENCHMARK(Peer_FromChars<int32_t>)->Arg(10)->Arg(16);
BENCHMARK(Ours_FromString<int64_t>)->Arg(10)->Arg(16);
BENCHMARK(Ours_Template<int64_t>)->Arg(10)->Arg(16);
BENCHMARK(Peer_FromChars<int64_t>)->Arg(10)->Arg(16);

BENCHMARK(Ours_ToStringObject);
BENCHMARK(Peer_StdToString);

BENCHMARK_MAIN();
