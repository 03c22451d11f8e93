// The sample server as an operator runs it: answers, the restart round trip
// through svrrestart, and a bounded load of 200 concurrent clients.
#include <quenlib/quenlib.h>

#include <gtest/gtest.h>
#include <spawn.h>

#include <atomic>

#include "server_support.h"

using namespace QuenLibA500;
using namespace servertest;

extern char** environ;

namespace {

// A quen-timeserver on free ports with its own registry store; stopped
// through its pid file (it may have been restarted under a new pid).
class TimeServerProcess {
 public:
  explicit TimeServerProcess(std::string const& name)
      : dir(ScratchDir(name)), port(FreePort()), consolePort(FreePort()) {
    ::setenv("QUENLIB_REGISTRY_DIR", (dir / "registry").c_str(), 1);
    CompanyRegistry().WriteValue("CInfoDirectory", QUENLIB_SVRRESTART_DIR);
    // Freed memory goes back at once, so resident size shows real growth.
    ::setenv("ASAN_OPTIONS", "quarantine_size_mb=0:detect_leaks=0", 1);
    std::vector<std::string> words = {QUENLIB_TIMESERVER, "-trace", "s", "-logFile", (dir / "trace.log").string(),
                                      "-pidfile", (dir / "ts.pid").string(), "-port", std::to_string(port),
                                      "-serverconsole", "-consoleport", std::to_string(consolePort)};
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
    ::unsetenv("ASAN_OPTIONS");
    first = std::make_unique<ChildGuard>(pid);
  }
  ~TimeServerProcess() {
    if (pid_t p = currentPid(); p > 0 && p != first->pid()) ::kill(p, SIGKILL);
    first.reset();
    ::unsetenv("QUENLIB_REGISTRY_DIR");
  }

  pid_t currentPid() const { return static_cast<pid_t>(std::atoi(ReadFile(dir / "ts.pid").c_str())); }
  bool answers() const {
    Line line(port);
    return line.ok() && line.send("utc\n") && line.readUntil(" UTC\r\n").find(" UTC\r\n") != std::string::npos;
  }

  fs::path dir;
  int port;
  int consolePort;
  std::unique_ptr<ChildGuard> first;
};

long StatusField(pid_t pid, char const* field) {
  std::istringstream in(ReadFile("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(in, line);)
    if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::strlen(field));
  return -1;
}

long OpenFds(pid_t pid) {
  std::error_code ec;
  long n = 0;
  for (auto it = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec); !ec && it != fs::directory_iterator();
       it.increment(ec))
    ++n;
  return n;
}

}  // namespace

TEST(TimeServer, RestartsItselfUnderANewPid) {
  TimeServerProcess server("restart");
  ASSERT_TRUE(Eventually([&] { return server.answers(); })) << ReadFile(server.dir / "trace.log");
  pid_t const before = server.currentPid();
  EXPECT_EQ(before, server.first->pid());
  {
    Line console(server.consolePort);
    console.readUntil(" @ your command:");
    console.send("restart\n");
    EXPECT_NE(console.readUntil(" @ your command:").find("restarting"), std::string::npos);
  }
  EXPECT_EQ(WEXITSTATUS(server.first->wait()), 0);
  // A restart starts a whole new server: allow a loaded machine its time.
  ASSERT_TRUE(Eventually([&] { return server.currentPid() != before && server.answers(); }, 30))
      << ReadFile(server.dir / "trace.log");
  pid_t const after = server.currentPid();
  ::kill(after, SIGTERM);
  EXPECT_TRUE(Eventually([&] { return !CSIProcess::ProcessExists(static_cast<unsigned long>(after)); }));
  // Both processes wrote to the one log: the restart, then the new start.
  std::string missing;
  EXPECT_TRUE(InOrder(ReadFile(server.dir / "trace.log"),
                      {"SIServiceRestartThread:: have to RESTART RESTART RESTART", "about to restart",
                       "restart quen-timeserver", "SIServerController::initialize",
                       "After SIServerController::uninitialize"},
                      &missing))
      << missing;
}

TEST(TimeServer, TwoHundredClientsForTwentySeconds) {
  TimeServerProcess server("load");
  ASSERT_TRUE(Eventually([&] { return server.answers(); }));
  pid_t const pid = server.first->pid();
  long const fdsBefore = OpenFds(pid);
  std::atomic<long> answered{0};
  std::atomic<long> failed{0};
  auto const start = std::chrono::steady_clock::now();
  auto const end = start + std::chrono::seconds(20);
  std::vector<std::thread> clients;
  for (int i = 0; i < 200; ++i)
    clients.emplace_back([&] {
      Line line(server.port);
      for (int n = 0; n < 100000 && std::chrono::steady_clock::now() < end; ++n) {
        bool const ok = line.ok() && line.send("utc\n") && line.readUntil("\r\n").find(" UTC\r\n") != std::string::npos;
        ++(ok ? answered : failed);
        if (!ok) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
  std::this_thread::sleep_until(start + std::chrono::seconds(5));
  long const rssAt5 = StatusField(pid, "VmRSS:");
  std::this_thread::sleep_until(end);
  long const rssAt20 = StatusField(pid, "VmRSS:");
  for (auto& t : clients) t.join();
  EXPECT_EQ(failed.load(), 0);
  EXPECT_GT(answered.load(), 2000);
  std::printf("answered %ld requests; resident kB %ld at 5 s, %ld at 20 s\n", answered.load(), rssAt5, rssAt20);
  EXPECT_LE(rssAt20, rssAt5 + rssAt5 / 10) << "resident kB at 5 s " << rssAt5 << ", at 20 s " << rssAt20;
  EXPECT_TRUE(Eventually([&] { return OpenFds(pid) <= fdsBefore; })) << OpenFds(pid) << " vs " << fdsBefore;
  ::kill(pid, SIGTERM);
  EXPECT_EQ(WEXITSTATUS(server.first->wait()), 0);
}
