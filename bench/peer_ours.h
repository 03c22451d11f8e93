// Our side of the peer benchmarks: the operations of each row, used both by
// the timed loops below and by the peer binaries' output checks. Included
// by exactly one source of each peer binary (it registers benchmarks).
#pragma once

#include "peer_inputs.h"

#include <quenlib/UTFConverter.h>
#include <quenlib/configfilereader.h>
#include <quenlib/nvpairs.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/registry.h>
#include <quenlib/sdatetime.h>
#include <quenlib/slogger.h>
#include <quenlib/sstring.h>
#include <quenlib/stimezone.h>
#include <quenlib/stringconv.h>

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace peer {

using namespace QuenLibA500;

// A scratch directory for files of the configuration and trace rows; the
// registry store goes there too (set before the first registry call).
inline std::string const& ScratchDir() {
  static std::string const dir = [] {
    char tmpl[] = "/tmp/quenlib-peerXXXXXX";
    std::string d = mkdtemp(tmpl);
    setenv("QUENLIB_REGISTRY_DIR", d.c_str(), 1);
    return d;
  }();
  return dir;
}

inline std::string const& IniPath() {
  static std::string const path = [] {
    std::string p = ScratchDir() + "/peer.ini";
    std::ofstream(p) << IniText();
    return p;
  }();
  return path;
}

// Every side works in the same zone and the same locale.
inline void SetUpProcess() {
  setenv("TZ", "America/New_York", 1);
  std::setlocale(LC_ALL, "C.UTF-8");
}

inline SBrimString OursUtf8To16(std::string const& utf8) {
  SBrimString out;
  CUTFConverter::UTF8ToUTF16(reinterpret_cast<unsigned char const*>(utf8.c_str()), out);
  return out;
}

inline std::string OursUtf16To8(SBrimString const& utf16) {
  SSimpleBuffer out;
  CUTFConverter::UTF16ToUTF8(utf16, out);
  return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(out)), out.getNBytes());
}

inline std::string Std(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

inline SAnsiString OursFormat(int64_t ms) {
  return SDateTime::FromUnixMilliseconds(ms).Format("yyyy-MM-dd HH:mm:ss.SSS", STimeZone::TZ_Local());
}

inline ConfigFileReader& OursConfig() {
  static ConfigFileReader* reader = [] {
    auto* r = new ConfigFileReader;
    r->initialize(IniPath().c_str());
    return r;
  }();
  return *reader;
}

inline Registry& OursRegistry() {
  static Registry* reg = [] {
    ScratchDir();
    auto* r = new Registry("Software\\Peer\\Read", SAnsiStringCI(), HKEY_LOCAL_MACHINE);
    r->WriteValue(kIniKey, kIniValue.c_str());
    return r;
  }();
  return *reg;
}

// ---- the timed rows of our side

inline void Ours_Copy(benchmark::State& state) {
  SAnsiString src(RandomText(static_cast<size_t>(state.range(0)), 1).c_str());
  for (auto _ : state) {
    SAnsiString copy(src);
    benchmark::DoNotOptimize(copy.getString());
  }
}
BENCHMARK(Ours_Copy)->Arg(kSmall)->Arg(kLarge);

inline void Ours_CopyModify(benchmark::State& state) {
  SAnsiString src(RandomText(static_cast<size_t>(state.range(0)), 1).c_str());
  for (auto _ : state) {
    SAnsiString copy(src);
    copy.setAt(kModifyAt, 'X');
    benchmark::DoNotOptimize(copy.getString());
  }
}
BENCHMARK(Ours_CopyModify)->Arg(kSmall)->Arg(kLarge);

inline void Ours_Append1M(benchmark::State& state) {
  for (auto _ : state) {
    SAnsiString s;
    for (int i = 0; i < kAppends; ++i) s += 'a';
    benchmark::DoNotOptimize(s.getString());
  }
}
BENCHMARK(Ours_Append1M)->Unit(benchmark::kMillisecond);

inline void Ours_Append1MWide(benchmark::State& state) {
  for (auto _ : state) {
    SWCharString s;
    for (int i = 0; i < kAppends; ++i) s += u'a';
    benchmark::DoNotOptimize(s.getString());
  }
}
BENCHMARK(Ours_Append1MWide)->Unit(benchmark::kMillisecond);

template <class S>
S OursText(std::string const& s) {
  if constexpr (std::is_same_v<typename S::unit_type, char>) {
    return S(s.c_str());
  } else {
    return S(std::u16string(s.begin(), s.end()).c_str());
  }
}

// The unit offset of the needle, -1 when absent.
template <class S>
long Position(S const& hay, S const& needle) {
  typename S::iterator it = hay.find(needle);
  return it ? it - typename S::iterator(hay) : -1;
}

template <class S>
void Ours_Find(benchmark::State& state) {
  S hay = OursText<S>(Haystack()), needle = OursText<S>(kNeedle);
  for (auto _ : state) benchmark::DoNotOptimize(hay.find(needle));
}
BENCHMARK(Ours_Find<SAnsiString>)->Name("Ours_FindAnsi")->Unit(benchmark::kMicrosecond);
BENCHMARK(Ours_Find<SAsciiString>)->Name("Ours_FindAscii")->Unit(benchmark::kMicrosecond);
BENCHMARK(Ours_Find<SWCharString>)->Name("Ours_FindWide")->Unit(benchmark::kMicrosecond);

inline void Ours_UrlEncode(benchmark::State& state) {
  SAnsiString in(UrlText().c_str());
  for (auto _ : state) benchmark::DoNotOptimize(CNameValuePairs::URLStrEncode(in));
}
BENCHMARK(Ours_UrlEncode)->Unit(benchmark::kMicrosecond);

// The decoders' input: every byte but letters and digits as %XX, space too.
inline std::string const& UrlEncoded() {
  static std::string const s = [] {
    std::string e = Std(CNameValuePairs::URLStrEncode(UrlText().c_str()));
    std::string out;
    for (char c : e) c == '+' ? out += "%20" : out += c;
    return out;
  }();
  return s;
}

inline void Ours_UrlDecode(benchmark::State& state) {
  SAnsiString in(UrlEncoded().c_str());
  for (auto _ : state) benchmark::DoNotOptimize(CNameValuePairs::URLStrDecode(in));
}
BENCHMARK(Ours_UrlDecode)->Unit(benchmark::kMicrosecond);

inline void Ours_Utf8To16(benchmark::State& state) {
  std::string const& in = Utf8Sample(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(OursUtf8To16(in));
}
BENCHMARK(Ours_Utf8To16)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

inline void Ours_Utf16To8(benchmark::State& state) {
  SBrimString in = OursUtf8To16(Utf8Sample(static_cast<int>(state.range(0))));
  for (auto _ : state) {
    SSimpleBuffer out;
    CUTFConverter::UTF16ToUTF8(in, out);
    benchmark::DoNotOptimize(static_cast<unsigned char const*>(out));
  }
}
BENCHMARK(Ours_Utf16To8)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

inline void Ours_DateFormat(benchmark::State& state) {
  int64_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(OursFormat(InstantAt(i++)));
}
BENCHMARK(Ours_DateFormat);

inline void Ours_IntToText(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(SAnsiStringConv::ToString(static_cast<long long>(IntegerAt(i++)), 10));
}
BENCHMARK(Ours_IntToText);

inline void Ours_TextToInt(benchmark::State& state) {
  SAnsiString texts[kIntegerCount];
  for (int i = 0; i < kIntegerCount; ++i) texts[i] = SAnsiStringConv::ToString(static_cast<long long>(IntegerAt(i)), 10);
  int i = 0;
  for (auto _ : state) {
    long long v = 0;
    benchmark::DoNotOptimize(SAnsiStringConv::FromString(texts[i++ % kIntegerCount], v, 10));
    benchmark::DoNotOptimize(v);
  }
}
BENCHMARK(Ours_TextToInt);

inline void Ours_ConfigRead(benchmark::State& state) {
  ConfigFileReader& config = OursConfig();
  SAnsiString section(kIniSection), key(kIniKey), none;
  for (auto _ : state) benchmark::DoNotOptimize(config.getValue(section, key, none));
}
BENCHMARK(Ours_ConfigRead);

inline void Ours_RegistryRead(benchmark::State& state) {
  Registry& reg = OursRegistry();
  SAnsiString name(kIniKey);
  for (auto _ : state) benchmark::DoNotOptimize(reg.ReadValue(name));
}
BENCHMARK(Ours_RegistryRead);

inline void Ours_CompareNoCase(benchmark::State& state) {
  SAnsiStringCI a(kCaseA.c_str()), b(kCaseB.c_str());
  for (auto _ : state) benchmark::DoNotOptimize(a.compareNoCase(b) == 0);
}
BENCHMARK(Ours_CompareNoCase);

inline void Ours_CompareNoCaseWide(benchmark::State& state) {
  SWCharStringCI a = OursText<SWCharString>(kCaseA), b = OursText<SWCharString>(kCaseB);
  for (auto _ : state) benchmark::DoNotOptimize(a.compareNoCase(b) == 0);
}
BENCHMARK(Ours_CompareNoCaseWide);

// Lines through the library's file tracing (no thread name, level M).
inline constexpr char kTraceText[] = "connection 42 to host.example.com:8443 established in 12 ms";

inline void Ours_TraceFile(benchmark::State& state) {
  std::string const options = "bench -trace m -notracethread -keep 2 -maxLogFileSize 67108864 -logFile " +
                              ScratchDir() + "/ours.log";
  SLogger::Initialize(CParamLineArgs(options.c_str()), false);
  for (auto _ : state) {
    if (SLogger::ShouldTrace(SLogger::tl_M, __FILE__, 42)) SLogger::Trace(SLogger::tl_M, kTraceText, __FILE__, 42);
  }
  SLogger::Terminate();
}

// Runs the benchmarks, then removes the scratch directory.
inline int RunPeerMain(int argc, char** argv) {
  SetUpProcess();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::filesystem::remove_all(ScratchDir());
  return 0;
}

}  // namespace peer
