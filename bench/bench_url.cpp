// URL encoding and decoding against curl's escape functions, and LIKE
// matching against SQLite's LIKE matcher, in the same binary.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <quenlib/nvpairs.h>
#include <quenlib/qrysstring.h>
#include <sqlite3.h>

#include <clocale>
#include <random>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

// 1 MiB of mixed text: mostly words and digits, with spaces, punctuation
// and some UTF-8 characters, as query values tend to be.
std::string const& MixedText() {
  static std::string const text = [] {
    std::mt19937 rng(42);
    static char const* const pieces[] = {"report", "2024", " ", "id", "=", "&", "caf\xC3\xA9", "-",
                                         "name", ".", "_", "/", "value", "~", "\xE2\x82\xAC", "x"};
    std::string t;
    while (t.size() < (1u << 20)) t += pieces[rng() % (sizeof pieces / sizeof pieces[0])];
    t.resize(1u << 20);
    // Do not end inside a multibyte character.
    while (!t.empty() && (static_cast<unsigned char>(t.back()) & 0x80)) t.pop_back();
    return t;
  }();
  return text;
}

std::string const& EncodedText() {
  static std::string const enc = [] {
    std::setlocale(LC_ALL, "C.UTF-8");
    SAnsiString e = CNameValuePairs::URLStrEncode(MixedText().c_str());
    return std::string(e.getString(), e.getLength());
  }();
  return enc;
}

CURL* Curl() {
  static CURL* const h = [] {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    return curl_easy_init();
  }();
  return h;
}

void BM_Encode_Ours(benchmark::State& state) {
  std::setlocale(LC_ALL, "C.UTF-8");
  SAnsiString in(MixedText().c_str());
  for (auto _ : state) {
    SAnsiString out = CNameValuePairs::URLStrEncode(in);
    benchmark::DoNotOptimize(out.getString());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.getLength());
}

void BM_Encode_Curl(benchmark::State& state) {
  std::string const& in = MixedText();
  CURL* h = Curl();
  for (auto _ : state) {
    char* out = curl_easy_escape(h, in.data(), static_cast<int>(in.size()));
    benchmark::DoNotOptimize(out);
    curl_free(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.size());
}

void BM_Decode_Ours(benchmark::State& state) {
  std::setlocale(LC_ALL, "C.UTF-8");
  SAnsiString in(EncodedText().c_str());
  for (auto _ : state) {
    SAnsiString out = CNameValuePairs::URLStrDecode(in);
    benchmark::DoNotOptimize(out.getString());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.getLength());
}

void BM_Decode_Curl(benchmark::State& state) {
  std::string const& in = EncodedText();
  CURL* h = Curl();
  for (auto _ : state) {
    int len = 0;
    char* out = curl_easy_unescape(h, in.data(), static_cast<int>(in.size()), &len);
    benchmark::DoNotOptimize(out);
    curl_free(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.size());
}

// Typical patterns of a query front end against short texts.
struct LikeCase {
  char const* pattern;
  char const* text;
};
LikeCase const kLikeCases[] = {
    {"report%", "report_2024_q3_summary.pdf"},
    {"%summary%", "report_2024_q3_summary.pdf"},
    {"%.pdf", "report_2024_q3_summary.pdf"},
    {"rep_rt%2024%", "Report_2024_Q3_Summary.PDF"},
    {"%x%", "report_2024_q3_summary.pdf"},
    {"report_2024_q3_summary.pdf", "REPORT_2024_Q3_SUMMARY.PDF"},
    // Non-ASCII texts (UTF-8): every character is decoded and lowered.
    // The ASCII letters differ in case; the others are given in the case
    // of the text, since SQLite folds ASCII letters only.
    {"%HAUPTSTRA\xC3\x9F" "E%", "Anfahrt: Hauptstra\xC3\x9F" "e 12, 80331 M\xC3\xBC" "nchen"},
    {"%\xC3\xA9l\xC3\xA8VE%", "Liste des \xC3\xA9l\xC3\xA8ves de premi\xC3\xA8re"},
    {"%\xCE\xB1\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1 2024%",
     "\xCE\xA0\xCF\x84\xCE\xAE\xCF\x83\xCE\xB5\xCE\xB9\xCF\x82 \xCE\xB1\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1 2024"},
};

void BM_Like_Ours(benchmark::State& state) {
  std::setlocale(LC_ALL, "C.UTF-8");
  LikeCase const& c = kLikeCases[state.range(0)];
  SQueryString q(c.pattern);
  q.parse();
  SAnsiString text(c.text);
  // Both matchers must give the same answer before either is timed.
  if (q.like(text) != (sqlite3_strlike(c.pattern, c.text, 0) == 0))
    state.SkipWithError("the matchers disagree");
  for (auto _ : state) benchmark::DoNotOptimize(q.like(text));
  state.SetLabel(c.pattern);
}

void BM_Like_SQLite(benchmark::State& state) {
  std::setlocale(LC_ALL, "C.UTF-8");
  LikeCase const& c = kLikeCases[state.range(0)];
  for (auto _ : state) benchmark::DoNotOptimize(sqlite3_strlike(c.pattern, c.text, 0));
  state.SetLabel(c.pattern);
}

// Many "%" against a long text that almost matches ("%a%a...%a%b%" on
// 100 KB of "a"): the sweep stays at pattern x text where backtracking
// would explode.
void BM_Like_ManyPercents_Ours(benchmark::State& state) {
  std::string pattern;
  for (int i = 0; i < 20; ++i) pattern += "%a";
  pattern += "%b%";
  SQueryString q(pattern.c_str());
  q.parse();
  SAnsiString text(std::string(100 * 1024, 'a').c_str());
  for (auto _ : state) benchmark::DoNotOptimize(q.like(text));
}

}  // namespace

BENCHMARK(BM_Encode_Ours)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Encode_Curl)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Decode_Ours)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Decode_Curl)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Like_Ours)->DenseRange(0, 8);
BENCHMARK(BM_Like_SQLite)->DenseRange(0, 8);
BENCHMARK(BM_Like_ManyPercents_Ours)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
