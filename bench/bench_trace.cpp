// Tracing against spdlog: the should-trace test for a level that is off,
// and lines per second into a rotating file.
#include <quenlib/paramlineargs.h>
#include <quenlib/slogger.h>

#include <benchmark/benchmark.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using namespace QuenLibA500;

namespace {

constexpr char kText[] = "connection 42 to host.example.com:8443 established in 12 ms";
constexpr size_t kMaxFile = 64u * 1024u * 1024u;

std::string scratchDir() {
  char const* tmp = std::getenv("TMPDIR");
  std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/quenlib-bench-trace";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

void BM_ShouldTrace_Off(benchmark::State& state) {
  SLogger::Initialize(CParamLineArgs("bench -trace w -notracethread"), false);
  for (auto _ : state) benchmark::DoNotOptimize(SLogger::ShouldTrace(SLogger::tl_XL, __FILE__, __LINE__));
  SLogger::Terminate();
}
BENCHMARK(BM_ShouldTrace_Off);

void BM_Spdlog_ShouldLog_Off(benchmark::State& state) {
  auto logger = std::make_shared<spdlog::logger>("peer-off", std::make_shared<spdlog::sinks::null_sink_mt>());
  logger->set_level(spdlog::level::warn);
  for (auto _ : state) benchmark::DoNotOptimize(logger->should_log(spdlog::level::trace));
}
BENCHMARK(BM_Spdlog_ShouldLog_Off);

void BM_Trace_File(benchmark::State& state) {
  if (state.thread_index() == 0) {
    std::string const dir = scratchDir();
    std::string const options = "bench -trace m -notracethread -keep 2 -maxLogFileSize " +
                                std::to_string(kMaxFile) + " -logFile " + dir + "/ours.log";
    SLogger::Initialize(CParamLineArgs(options.c_str()), false);
  }
  for (auto _ : state) {
    if (SLogger::ShouldTrace(SLogger::tl_M, __FILE__, 42)) SLogger::Trace(SLogger::tl_M, kText, __FILE__, 42);
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) SLogger::Terminate();
}
BENCHMARK(BM_Trace_File)->Threads(1)->Threads(4)->UseRealTime();

// The same lines ("M       bench_trace(42): <text>") written by spdlog
// itself, through the same kind of sink and pattern.
std::shared_ptr<spdlog::logger> gPeer;

void BM_Spdlog_File(benchmark::State& state) {
  if (state.thread_index() == 0) {
    std::string const dir = scratchDir();
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(dir + "/peer.log", kMaxFile, 2);
    gPeer = std::make_shared<spdlog::logger>("peer-file", sink);
    gPeer->set_pattern("%Y-%m-%d %H:%M:%S.%e %t %v");
    gPeer->set_level(spdlog::level::trace);
  }
  for (auto _ : state) gPeer->info("{:<7} {}({}): {}", "M", "bench_trace", 42, kText);
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) {
    gPeer->flush();
  }
}
BENCHMARK(BM_Spdlog_File)->Threads(1)->Threads(4)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
