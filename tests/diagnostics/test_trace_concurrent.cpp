// Tracing under concurrency: writers into a rotating file, the settings
// file updater, observers swapped while lines flow.
#include <quenlib/paramlineargs.h>

#include <atomic>
#include <chrono>
#include <cctype>
#include <thread>

#include "diagnostics_support.h"

using namespace QuenLibA500;

namespace {

class TraceConcurrent : public ::testing::Test {
 protected:
  void TearDown() override { SLogger::Terminate(); }
  tracetest::ScratchDir dir;
};

// Waits until pred() holds or `limit` passes.
template <class Pred>
bool waitFor(Pred pred, std::chrono::milliseconds limit) {
  auto const end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return pred();
}

// "2026-11-21 10:41:01.123 4711 M       writer(7): writer 3 line 000042 end"
bool parseLine(std::string const& line, int& writer, int& index) {
  static std::string const time = "dddd-dd-dd dd:dd:dd.ddd ";
  if (line.size() < time.size()) return false;
  for (size_t i = 0; i < time.size(); ++i) {
    bool const digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
    if (time[i] == 'd' ? !digit : line[i] != time[i]) return false;
  }
  size_t p = time.size();
  size_t const tidStart = p;
  while (p < line.size() && std::isdigit(static_cast<unsigned char>(line[p]))) ++p;
  if (p == tidStart) return false;
  std::string const rest = line.substr(p);
  if (std::sscanf(rest.c_str(), " M       writer(7): writer %d line %d", &writer, &index) != 2) return false;
  char expected[96];
  std::snprintf(expected, sizeof expected, " M       writer(7): writer %d line %06d end", writer, index);
  return rest == expected;
}

}  // namespace

TEST_F(TraceConcurrent, FourWritersIntoARotatingFileLoseAndTearNothing) {
  constexpr int kThreads = 4;
  constexpr int kLines = 100000;
  std::string const file = (dir / "rot.log");
  ASSERT_TRUE(tracetest::init("-trace m -notraceini -maxLogFileSize 1048576 -keep 1000 -logFile " + file));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      char text[64];
      for (int i = 0; i < kLines; ++i) {
        std::snprintf(text, sizeof text, "writer %d line %06d end", t, i);
        SLogger::Trace(SLogger::tl_M, text, "src/writer.cpp", 7);
      }
    });
  }
  for (auto& th : threads) th.join();
  SLogger::Terminate();

  std::vector<std::vector<int>> seen(kThreads, std::vector<int>(kLines, 0));
  int files = 0;
  long long total = 0;
  for (auto const& entry : std::filesystem::directory_iterator(dir.path)) {
    ++files;
    EXPECT_LE(entry.file_size(), 1048576u);
    std::ifstream in(entry.path());
    std::string line;
    while (std::getline(in, line)) {
      int writer = -1, index = -1;
      ASSERT_TRUE(parseLine(line, writer, index)) << entry.path() << ": " << line;
      ASSERT_TRUE(writer >= 0 && writer < kThreads && index >= 0 && index < kLines) << line;
      ++seen[writer][index];
      ++total;
    }
  }
  EXPECT_GT(files, 10);
  EXPECT_EQ(total, static_cast<long long>(kThreads) * kLines);
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kLines; ++i) ASSERT_EQ(seen[t][i], 1) << "writer " << t << " line " << i;
}

TEST_F(TraceConcurrent, EditingTheSettingsFileChangesShouldTrace) {
  std::string const ini = (dir / "trace.ini");
  ASSERT_TRUE(tracetest::init("-trace w -logFile " + (dir / "svc.log")));
  EXPECT_FALSE(SLogger::ShouldTrace(SLogger::tl_XL, "x.cpp"));
  DWORD const tick = SLogger::GetMajorTick();

  tracetest::WriteFile(ini, "trace = xl\n");
  EXPECT_TRUE(waitFor([] { return SLogger::ShouldTrace(SLogger::tl_XL, "x.cpp"); }, std::chrono::seconds(3)));
  EXPECT_GT(SLogger::GetMajorTick(), tick);

  tracetest::WriteFile(ini, "trace = s\nfileLogFilter = hot\n");
  EXPECT_TRUE(waitFor([] { return !SLogger::ShouldTrace(SLogger::tl_XL, "hot.cpp"); }, std::chrono::seconds(3)));
  EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_S, "hot.cpp", 1));
  EXPECT_FALSE(SLogger::ShouldTrace(SLogger::tl_S, "cold.cpp", 1));

  // Removing the file returns to the command line's state.
  std::filesystem::remove(ini);
  EXPECT_TRUE(waitFor([] { return SLogger::ShouldTrace(SLogger::tl_S, "cold.cpp", 1) == false &&
                                  SLogger::ShouldTrace(SLogger::tl_Warning, "cold.cpp", 1) &&
                                  !SLogger::ShouldTrace(SLogger::tl_S, "hot.cpp", 1); },
                      std::chrono::seconds(3)));
}

TEST_F(TraceConcurrent, TraceIniPathAndNoTraceThread) {
  std::string const ini = (dir / "custom.ini");
  ASSERT_TRUE(tracetest::init("-trace w -notracethread -traceinipath " + ini));
  tracetest::WriteFile(ini, "trace = l\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_FALSE(SLogger::ShouldTrace(SLogger::tl_L, "x.cpp"));  // nobody watches
  ASSERT_TRUE(tracetest::init("-trace w -traceinipath " + ini));
  EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_L, "x.cpp"));  // read at start
  tracetest::WriteFile(ini, "trace = xl\nrequest = maybe\n");
  tracetest::Recorder rec;
  EXPECT_TRUE(waitFor([] { return SLogger::ShouldTrace(SLogger::tl_XL, "x.cpp"); }, std::chrono::seconds(3)));
  EXPECT_TRUE(waitFor([&] {
    return rec.sawText("TraceStateUpdater: " + ini +
                       ": Invalid argument 'maybe' provided to -request - must be 'on' or 'off'");
  }, std::chrono::seconds(1)));
}

TEST_F(TraceConcurrent, ObserversAndStateChangeWhileTracing) {
  ASSERT_TRUE(tracetest::init("-trace m -notraceini -logFile " + (dir / "busy.log")));
  std::atomic<bool> stop{false};
  std::atomic<long> delivered{0};
  auto observer = [](void* ctx, int, char const*, int, char const*) {
    static_cast<std::atomic<long>*>(ctx)->fetch_add(1);
  };
  std::vector<std::thread> writers;
  for (int t = 0; t < 3; ++t) {
    writers.emplace_back([&] {
      while (!stop.load()) {
        if (SLogger::ShouldTrace(SLogger::tl_M, "w.cpp", 1)) SLogger::Trace(SLogger::tl_M, "x", "w.cpp", 1);
      }
    });
  }
  for (int i = 0; i < 50; ++i) {
    SetTraceObserver(observer, &delivered);
    SLogger::SetAssertEnabled(i % 2 == 0);
    SetTraceObserver(nullptr, nullptr);
  }
  SetTraceObserver(observer, &delivered);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  stop = true;
  for (auto& w : writers) w.join();
  SetTraceObserver(nullptr, nullptr);
  EXPECT_GT(delivered.load(), 0);
}
