// The controller in forked children (one controller per process): phase
// order, stop by signal and from inside the server, console mode, failures,
// the pid file, systemd's notify protocol, and install / uninstall.
#include <quenlib/quenlib.h>

#include <gtest/gtest.h>
#include <sys/un.h>

#include "server_support.h"

using namespace QuenLibA500;
using namespace servertest;

namespace {

enum class Behaviour { serve, shutdownFromInside, failInitialize, refuseToServe };

class TestServer : public SIServer {
 public:
  explicit TestServer(Behaviour b) : m_behaviour(b) {}
  void initialize() override {
    if (m_behaviour == Behaviour::failInitialize)
      throw SIServerException(SIServerException::initializeFailed, "no database", "connection refused");
  }
  int readyToServe(int) override {
    if (m_behaviour == Behaviour::refuseToServe) return 7;
    SIServerController::instance()->signalServerRunning();
    if (m_behaviour == Behaviour::shutdownFromInside)
      m_worker = std::thread([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        SIServerController::shutdown(3, 42, "worker", "disk full");
      });
    return 0;
  }
  void stop() override {
    if (m_worker.joinable()) m_worker.join();
  }
  SAnsiString processCommand(SAnsiString const& c) override { return SAnsiString("echo ") + c; }

 private:
  Behaviour m_behaviour;
  std::thread m_worker;
};

struct ServerRun {
  fs::path dir;
  fs::path log;
  ChildGuard child;
  ServerRun(std::string const& name, Behaviour b, std::vector<std::string> extra)
      : dir(ScratchDir(name)), log(dir / "trace.log"), child(start(b, std::move(extra))) {}

  pid_t start(Behaviour b, std::vector<std::string> extra) {
    std::vector<std::string> words = {"testserver", "-trace", "l", "-logFile", log.string()};
    words.insert(words.end(), extra.begin(), extra.end());
    return Fork(
        [b, words] {
          std::vector<char*> argv;
          for (auto const& w : words) argv.push_back(const_cast<char*>(w.c_str()));
          argv.push_back(nullptr);
          SInstrumentationInitialize tracing(CParamLineArgs(static_cast<int>(words.size()), argv.data()));
          CSmartRefCountPtr<SIServer> server(new TestServer(b));
          SIServerController controller("testserver", "Test server", "", server);
          controller.run(static_cast<int>(words.size()), argv.data());
        },
        dir / "stdout.txt");
  }
  std::string trace() const { return ReadFile(log); }
  bool traced(std::string const& text) const {
    return Eventually([&] { return trace().find(text) != std::string::npos; });
  }
};

std::vector<std::string> const kPhases = {
    "SIServerController::waitingToInitialize", "SIServerController::initialize",
    "SIServerController::waitingToRunService", "SIServerController::runService",
    "siserver is ready to server.",            "SIServerController::waitingToStop",
    "SIServerController::stop",                "SIServerController::waitingToUninitialize",
    "SIServerController::uninitialize",        "After SIServerController::uninitialize"};

}  // namespace

TEST(SIServerController, SignalsStopTheServerThroughEveryPhase) {
  for (int sig : {SIGTERM, SIGINT}) {
    fs::path const pid = ScratchDir("signal-pid") / "server.pid";
    ServerRun run("signal", Behaviour::serve, {"-pidfile", pid.string()});
    ASSERT_TRUE(run.traced("SIServerController::waitingToStop"));
    EXPECT_EQ(ReadFile(pid), std::to_string(run.child.pid()) + "\n");
    ::kill(run.child.pid(), sig);
    int const status = run.child.wait();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    std::string missing;
    EXPECT_TRUE(InOrder(run.trace(), kPhases, &missing)) << "missing or out of order: " << missing;
  }
}

TEST(SIServerController, InternalShutdownAndItsRefusalInConsoleMode) {
  ServerRun run("inside", Behaviour::shutdownFromInside, {});
  EXPECT_TRUE(WIFEXITED(run.child.wait()));
  std::string missing;
  EXPECT_TRUE(InOrder(run.trace(),
                      {"SIServerController::shutdown: Carrying out internal shutdown",
                       "SIServiceStopThread::run have to shutdown internally", "SIServerController::stop",
                       "After SIServerController::uninitialize"},
                      &missing))
      << missing;

  int const port = FreePort();
  ServerRun console("console", Behaviour::shutdownFromInside, {"-serverconsole", "-consoleport", std::to_string(port)});
  EXPECT_TRUE(console.traced("SIServerController::shutdown: Internal shutdown is not supported in console mode"));
  Line line(port);
  ASSERT_TRUE(line.ok());
  std::string const greeting = line.readUntil(" @ your command:");
  for (char const* banner : SIConsole::kBanner) EXPECT_NE(greeting.find(banner), std::string::npos) << banner;
  EXPECT_NE(greeting.find(SIConsole::kCommandWarning), std::string::npos);
  EXPECT_NE(greeting.find("testserver @ your command:"), std::string::npos);
  line.send("hello there\r\n");
  EXPECT_NE(line.readUntil(" @ your command:").find("echo hello there"), std::string::npos);
  line.send("quit\n");
  EXPECT_EQ(line.readUntil("never"), "");  // the console closed the connection
  EXPECT_TRUE(console.traced("command: hello there"));
  ::kill(console.child.pid(), SIGTERM);
  EXPECT_TRUE(WIFEXITED(console.child.wait()));
}

TEST(SIServerController, FailuresEndTheRunThroughUninitialize) {
  ServerRun init("initfail", Behaviour::failInitialize, {});
  EXPECT_TRUE(WIFEXITED(init.child.wait()));
  std::string missing;
  EXPECT_TRUE(InOrder(init.trace(),
                      {"SIServerController:run: Fail to initialize or uninitialize.  Reason is no database: "
                       "connection refused",
                       "SIServerController::uninitialize", "After SIServerController::uninitialize"},
                      &missing))
      << missing;
  EXPECT_EQ(init.trace().find("SIServerController::runService"), std::string::npos);

  ServerRun refuse("refuse", Behaviour::refuseToServe, {});
  EXPECT_TRUE(WIFEXITED(refuse.child.wait()));
  EXPECT_EQ(refuse.trace().find("SIServerController::waitingToStop"), std::string::npos);
  EXPECT_NE(refuse.trace().find("After SIServerController::uninitialize"), std::string::npos);
}

TEST(SIServer, PidFile) {
  fs::path const dir = ScratchDir("pid");
  fs::path const file = dir / "x.pid";
  std::ofstream(file) << "stale contents that are longer\n";
  EXPECT_TRUE(SIServer::writePidToFile(file.c_str(), 4242));
  EXPECT_EQ(ReadFile(file), "4242\n");
  EXPECT_FALSE(SIServer::writePidToFile((dir / "missing" / "x.pid").c_str(), 1));
  fs::create_directories(dir / "busy" / "sub");  // a directory in the way cannot be removed
  EXPECT_FALSE(SIServer::writePidToFile((dir / "busy").c_str(), 1));
}

TEST(SINTService, NotifiesSystemdOverItsSocket) {
  fs::path const dir = ScratchDir("notify");
  std::string const path = (dir / "notify.sock").string();
  int const sock = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  timeval tv{5, 0};
  ::setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  ServerRun run("notified", Behaviour::serve, {});
  ::unsetenv("NOTIFY_SOCKET");
  std::string seen;
  auto receiveUntil = [&](std::string const& text) {
    char buf[512];
    while (seen.find(text) == std::string::npos) {
      ssize_t n = ::recv(sock, buf, sizeof buf, 0);
      if (n <= 0) return false;
      seen.append(buf, static_cast<size_t>(n)).append("|");
    }
    return true;
  };
  EXPECT_TRUE(receiveUntil("READY=1")) << seen;
  ::kill(run.child.pid(), SIGTERM);
  EXPECT_TRUE(receiveUntil("STATUS=SIServerController::uninitialize")) << seen;
  EXPECT_TRUE(WIFEXITED(run.child.wait()));
  ::close(sock);
  std::string missing;
  EXPECT_TRUE(InOrder(seen, {"STATUS=SIServerController::initialize", "READY=1", "STOPPING=1",
                             "STATUS=SIServerController::uninitialize"},
                      &missing))
      << seen;
}

TEST(SINTService, InstallsAndRemovesItsUnit) {
  fs::path const dir = ScratchDir("units");
  ::setenv("QUENLIB_SYSTEMD_UNIT_DIR", dir.c_str(), 1);
  auto control = [&](std::vector<std::string> words, std::string const& name) {
    fs::path const out = dir / (name + ".out");
    ChildGuard child(Fork(
        [words] {
          std::vector<char*> argv;
          for (auto const& w : words) argv.push_back(const_cast<char*>(w.c_str()));
          CSmartRefCountPtr<SIServer> server(new TestServer(Behaviour::serve));
          SIServerController controller("testserver", "Test server", "", server);
          controller.run(static_cast<int>(argv.size()), argv.data());
        },
        out));
    child.wait();
    return ReadFile(out);
  };
  EXPECT_EQ(control({"testserver", "-install", "-port", "7070", "-pidfile", "/run/x 1.pid"}, "install")
                .rfind("testserver: installed.\n", 0),
            0u);
  std::string const unit = ReadFile(dir / "testserver.service");
  EXPECT_NE(unit.find("Type=notify\n"), std::string::npos) << unit;
  EXPECT_NE(unit.find("Restart=on-failure\n"), std::string::npos);
  EXPECT_NE(unit.find(" -port 7070 -pidfile \"/run/x 1.pid\"\n"), std::string::npos) << unit;
  EXPECT_EQ(unit.find("-install"), std::string::npos);
  EXPECT_NE(control({"testserver", "-install"}, "again").find("CreateService Failed: File exists"),
            std::string::npos);
  if (::system("command -v systemd-analyze >/dev/null 2>&1") == 0) {
    std::string const verify = "cd '" + dir.string() + "' && systemd-analyze verify ./testserver.service";
    EXPECT_EQ(::system(verify.c_str()), 0);
  } else {
    std::fprintf(stderr, "systemd-analyze is not installed: the unit file is not verified\n");
  }
  EXPECT_EQ(control({"testserver", "-uninstall"}, "uninstall"),
            "Stopping: testserver\ntestserver: stopped.\ntestserver: removed.\n");
  EXPECT_FALSE(fs::exists(dir / "testserver.service"));
  EXPECT_EQ(control({"testserver", "-uninstall"}, "gone"), "OpenService failed: No such file or directory\n");
  ::unsetenv("QUENLIB_SYSTEMD_UNIT_DIR");
}

TEST(SIServerController, OnePerProcess) {
  ChildGuard child(Fork([] {
    int asserts = 0;
    SetAssertObserver([](void* ctx, char const*, int, char const* cond, char const* msg) {
      if (std::string(cond) == "__gInstance==NULL" && std::string(msg) == "Only one SIServerController per process")
        ++*static_cast<int*>(ctx);
    }, &asserts);
    CSmartRefCountPtr<SIServer> server(new TestServer(Behaviour::serve));
    SIServerController first("a", "A", "", server);
    SIServerController second("b", "B", "", server);
    ::_exit(asserts == 1 && SIServerController::instance() == &first ? 0 : 1);
  }));
  int const status = child.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
