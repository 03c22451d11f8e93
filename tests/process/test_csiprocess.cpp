// Real children: exit codes on both start paths, framed talk with a child
// built with the library, time-outs, kills, descriptor hygiene, zombies,
// captured output and the desktop manager on a system without desktops.
#include <quenlib/csipipe.h>
#include <quenlib/csiprocess.h>
#include <quenlib/windesktopheapmgr.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "concurrency/concurrency_support.h"

using namespace QuenLibA500;

namespace {

char const* const kChild = QUENLIB_PIPE_CHILD;

std::string Str(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

CParamLineArgs Args(std::vector<std::string> words) { return CParamLineArgs(std::move(words)); }

// A child that talks frames, killed at the end of the test whatever happens.
struct TalkingChild {
  CSIPipeServer pipe{5, true, false};
  CSIProcess::Child child;
  std::string childRead = Str(pipe.GetReadPipe());
  std::string childWrite = Str(pipe.GetWritePipe());
  TalkingChild() {
    CParamLineArgs args = Args({childRead, childWrite});
    EXPECT_TRUE(CSIProcess::NewProcessAsyncEx(kChild, args, child, true, nullptr));
    pipe.ClosePipesOnExec();
  }
  ~TalkingChild() { child.kill(); }
  std::string ask(std::string const& request) {
    pipe.WriteString(request.c_str());
    return Str(pipe.ReadString());
  }
};

}  // namespace

TEST(CSIProcess, ExitCodesOnBothStartPaths) {
  struct Case {
    std::string command;
    std::vector<std::string> args;
    bool direct;
    signed char code;
  } const cases[] = {{kChild, {"--exit", "0"}, true, 0},
                     {kChild, {"--exit", "3"}, true, 3},
                     {kChild, {"--exit", "200"}, true, -56},
                     {"sh", {"-c", "exit 9"}, true, 9},  // found in PATH
                     {"/no/such/program", {}, true, 127},
                     {"exit 5", {}, false, 5},
                     {"/no/such/program", {"x"}, false, 127},
                     {"kill -9 $$", {}, false, static_cast<signed char>(128 + 9)}};
  for (auto const& c : cases) {
    CParamLineArgs args = Args(c.args);
    EXPECT_EQ(CSIProcess::NewProcessSync(c.command.c_str(), args, c.direct), c.code) << c.command;
  }
}

TEST(CSIProcess, TalksFramesWithAChild) {
  TalkingChild c;
  EXPECT_EQ(c.ask("echo:hello"), "hello");
  EXPECT_EQ(c.ask("upper:Mixed Case"), "MIXED CASE");
  EXPECT_EQ(c.ask("empty"), "");
  EXPECT_EQ(c.ask("big:10485760"), std::string(10485760, 'b'));
  EXPECT_EQ(c.ask("exit:7"), "bye");
  EXPECT_EQ(c.child.waitfor(), 7);
  EXPECT_FALSE(c.child.exists());
  // The child is gone: writing to it throws instead of killing us.
  EXPECT_THROW(c.pipe.WriteString("still there?"), CSIPipeException);
}

TEST(CSIProcess, ChildSeesOnlyItsOwnPipeEnds) {
  CSIPipeServer unrelated(5, true, false);
  unrelated.ClosePipesOnExec();
  TalkingChild c;
  std::istringstream list(c.ask("fds"));
  std::set<int> fds;
  for (int fd; list >> fd;) fds.insert(fd);
  EXPECT_TRUE(fds.count(std::stoi(c.childRead, nullptr, 16)));
  EXPECT_TRUE(fds.count(std::stoi(c.childWrite, nullptr, 16)));
  for (int own : {c.pipe.theReadPipeHandle(), c.pipe.theWritePipeHandle(), unrelated.theReadPipeHandle(),
                  unrelated.theWritePipeHandle()})
    EXPECT_FALSE(fds.count(own)) << own;
}

TEST(CSIProcess, SilentChildTimesOutAndIsKilled) {
  TalkingChild c;
  c.pipe.setTimeout(1);
  c.pipe.WriteString("silent");
  EXPECT_THROW(c.pipe.ReadString(), CSIPipeException);
  EXPECT_TRUE(c.child.exists());
  EXPECT_TRUE(c.child.kill());
  EXPECT_FALSE(c.child.exists());
  EXPECT_FALSE(c.child.kill());
}

TEST(CSIProcess, KillsEachWay) {
  struct Case {
    bool (*kill)(unsigned long);
    int signal;
  } const cases[] = {{CSIProcess::KillProcess, SIGTERM},
                     {CSIProcess::ForceKillProcess, SIGKILL},
                     {CSIProcess::AbortProcess, SIGABRT}};
  for (auto const& c : cases) {
    CSIProcess::Child child;
    CParamLineArgs args = Args({"--sleep", "30"});
    ASSERT_TRUE(CSIProcess::NewProcessAsyncEx(kChild, args, child, true, nullptr));
    EXPECT_TRUE(c.kill(child.getpid()));
    EXPECT_EQ(child.waitfor(), static_cast<signed char>(128 + c.signal));
  }
  EXPECT_FALSE(CSIProcess::KillProcess(0));
}

TEST(CSIProcess, ExistenceOfProcessesAndZombies) {
  EXPECT_TRUE(CSIProcess::ProcessExists(CSIProcess::GetCurrentProcessID()));
  EXPECT_TRUE(CSIProcess::ProcessExists(1));
  CSIProcess::Child child;
  CParamLineArgs args = Args({"--exit", "4"});
  ASSERT_TRUE(CSIProcess::NewProcessAsyncEx(kChild, args, child, true, nullptr));
  unsigned long const pid = child.getpid();
  // Ended but not yet reaped: a zombie, which does not exist.
  EXPECT_TRUE(conctest::WaitFor([&] { return !CSIProcess::ProcessExists(pid); }));
  signed char code = 0;
  EXPECT_FALSE(child.exists(code));
  EXPECT_EQ(code, 4);
  EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(pid)));
}

TEST(CSIProcess, AbandonedChildrenAreReaped) {
  unsigned long pid = 0;
  CParamLineArgs args = Args({"--sleep", "0"});
  ASSERT_TRUE(CSIProcess::NewProcessAsync(kChild, args, pid, true, nullptr));
  {
    CSIProcess::Child running;
    CParamLineArgs slow = Args({"-c", "sleep 0.3"});
    ASSERT_TRUE(CSIProcess::NewProcessAsyncEx("/bin/sh", slow, running, true, nullptr));
    CSIProcess::Child copy = running;  // copies share the child
    EXPECT_EQ(copy.getpid(), running.getpid());
    pid = running.getpid();
  }
  EXPECT_TRUE(
      conctest::WaitFor([&] { return !std::filesystem::exists("/proc/" + std::to_string(pid)); }));
}

TEST(CSIProcess, CapturesStandardOutputAndRemovesItsFile) {
  auto const dir = std::filesystem::temp_directory_path() / ("nprtest" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  ::setenv("TMPDIR", dir.c_str(), 1);
  SAnsiString out;
  // The redirection follows the command, so a list is grouped to go whole.
  EXPECT_EQ(CSIProcess::NewProcessReturnSTDOUT("{ printf 'a b\\n'; echo second; }", out, true), 0);
  EXPECT_EQ(Str(out), "a b\nsecond\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir));
  EXPECT_EQ(CSIProcess::NewProcessReturnSTDOUT("exit 2", out, true), 2);
  EXPECT_EQ(Str(out), "");
  ::unsetenv("TMPDIR");
  std::filesystem::remove_all(dir);
}

TEST(CSIProcess, DesktopManagerIsUnsupportedAndChildrenStartNormally) {
  CWinDesktopHeapMgr* mgr = CSIProcess::createWinDesktopHeapMgr(2, 4);
  EXPECT_FALSE(mgr->isSupported());
  SAnsiString name;
  unsigned short desktop = 0;
  unsigned short slot = 0;
  EXPECT_FALSE(mgr->getNextAvailableWinDesktop(name, desktop, slot));
  CSIProcess::Child child;
  CParamLineArgs args = Args({"--exit", "1"});
  ASSERT_TRUE(CSIProcess::NewProcessAsyncEx(kChild, args, child, true, mgr));
  EXPECT_EQ(child.waitfor(), 1);
  CSIProcess::freeWinDesktopHeapMgr(mgr);

  SAnsiString station;
  SAnsiString desk;
  EXPECT_EQ(Str(CWinDesktopHeapMgr::makeDesktopName("ws#1", "dk#0")), "ws#1\\dk#0");
  ASSERT_TRUE(CWinDesktopHeapMgr::parseDesktopName("ws#1\\dk#0\\x", station, desk));
  EXPECT_EQ(Str(station), "ws#1");
  EXPECT_EQ(Str(desk), "dk#0\\x");
  EXPECT_FALSE(CWinDesktopHeapMgr::parseDesktopName("nodesk", station, desk));
}

TEST(CSIProcess, MemoryUsageIsTheResidentSize) {
  double const before = CSIProcess::GetMemoryUsage();
  std::string block(64 * 1024 * 1024, 'm');
  double const after = CSIProcess::GetMemoryUsage();
  EXPECT_GT(before, 1024 * 1024);
  EXPECT_GT(after - before, 32.0 * 1024 * 1024);
  EXPECT_EQ(block[12345], 'm');
}
