// csiprocess.cpp: child processes on posix_spawn, reaped exactly once.
#include <quenlib/csiprocess.h>
#include <quenlib/sfile.h>
#include <quenlib/windesktopheapmgr.h>

#include "text/stdtext.h"
#include "diagnostics/assert.h"
#include "diagnostics/trace.h"

#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

extern char** environ;

namespace QuenLibA500 {

namespace {

using stdtext::errnoText;

constexpr signed char kCouldNotStart = 127;


signed char ExitCodeOf(int status) {
  if (WIFEXITED(status)) return static_cast<signed char>(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return static_cast<signed char>(128 + WTERMSIG(status));
  return kCouldNotStart;
}

// What one start asks for: the program and its argv, or a shell line.
struct Launch {
  std::string program;
  std::vector<std::string> argv;
  bool searchPath = false;
  bool keepEnvironment = true;

  std::string describe() const {
    std::string line;
    for (auto const& a : argv) line += (line.empty() ? "" : " ") + a;
    return line;
  }
};

Launch MakeLaunch(SAnsiString const& command, std::vector<std::string> const& args, bool direct) {
  Launch l;
  std::string const cmd(command.getString(), command.getLength());
  if (direct) {
    l.program = cmd;
    l.searchPath = cmd.find('/') == std::string::npos;
    l.argv.push_back(cmd);
    l.argv.insert(l.argv.end(), args.begin(), args.end());
    return l;
  }
  std::string line = cmd;
  std::string const quoted = CParamLineArgs(args).CmdLine();
  if (!quoted.empty()) line += " " + quoted;
  l.program = "/bin/sh";
  l.argv = {"sh", "-c", line};
  return l;
}

// Starts the child with default signal handling and an empty signal mask,
// whatever this thread has blocked or ignored. Returns the pid or -errno.
long Spawn(Launch const& l) {
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<char*> argv;
  for (auto const& a : l.argv) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::string pathEntry = std::string("PATH=") + (std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin");
  char* bareEnv[] = {pathEntry.data(), nullptr};
  char** env = l.keepEnvironment ? environ : bareEnv;

  pid_t pid = 0;
  int const rc = l.searchPath ? posix_spawnp(&pid, l.program.c_str(), nullptr, &attr, argv.data(), env)
                              : posix_spawn(&pid, l.program.c_str(), nullptr, &attr, argv.data(), env);
  posix_spawnattr_destroy(&attr);
  return rc == 0 ? static_cast<long>(pid) : -static_cast<long>(rc);
}

bool SendSignal(unsigned long pid, int sig) {
  if (pid == 0 || pid > 0x7FFFFFFFul) return false;
  return ::kill(static_cast<pid_t>(pid), sig) == 0;
}

bool IsZombie(unsigned long pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return false;
  // The name in parentheses may hold spaces; the state follows the last ')'.
  auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'Z';
}

std::vector<std::string> WordsOf(CParamLineArgs const& args) { return args.Words(); }

std::vector<std::string> WordsOf(SIArray<SAnsiString> const& args) {
  std::vector<std::string> words;
  for (int i = 0; i < args.GetSize(); ++i) words.emplace_back(args[i].getString(), args[i].getLength());
  return words;
}

}  // namespace

// ---- Child --------------------------------------------------------------------

// Invariant: once `reaped` is set, `status` holds the wait status and the
// pid may belong to another process, so nothing signals it any more.
struct CSIProcess::Child::State {
  pid_t pid = 0;
  bool reaped = false;
  int status = 0;
  std::mutex lock;

  explicit State(pid_t p) : pid(p) {}
  State(State const&) = delete;
  State& operator=(State const&) = delete;

  // The last handle went while the child may still run: wait for it on a
  // thread of its own, so it never stays a zombie.
  ~State() {
    if (reaped) return;
    pid_t const p = pid;
    if (::waitpid(p, nullptr, WNOHANG) != 0) return;
    std::thread([p] {
      while (::waitpid(p, nullptr, 0) < 0 && errno == EINTR) {
      }
    }).detach();
  }

  // Reaps without waiting; true when the child has ended.
  bool poll() {
    std::lock_guard<std::mutex> g(lock);
    if (reaped) return true;
    int st = 0;
    pid_t const r = ::waitpid(pid, &st, WNOHANG);
    if (r == 0) return false;
    reaped = true;
    status = r == pid ? st : (kCouldNotStart << 8);
    return true;
  }

  int wait() {
    std::lock_guard<std::mutex> g(lock);
    if (!reaped) {
      int st = 0;
      pid_t r;
      while ((r = ::waitpid(pid, &st, 0)) < 0 && errno == EINTR) {
      }
      reaped = true;
      status = r == pid ? st : (kCouldNotStart << 8);
    }
    return status;
  }
};

CSIProcess::Child::Child() = default;
CSIProcess::Child::~Child() = default;
CSIProcess::Child::Child(Child const& other) : m_state(other.m_state) {}
CSIProcess::Child& CSIProcess::Child::operator=(Child const& other) {
  copy(other);
  return *this;
}

void CSIProcess::Child::init(long pid) { m_state = std::make_shared<State>(static_cast<pid_t>(pid)); }
void CSIProcess::Child::del() { m_state.reset(); }
void CSIProcess::Child::copy(Child const& other) { m_state = other.m_state; }
bool CSIProcess::Child::isEmpty() const { return !m_state; }
unsigned long CSIProcess::Child::getpid() const { return m_state ? static_cast<unsigned long>(m_state->pid) : 0; }

bool CSIProcess::Child::exists() const { return m_state && !m_state->poll(); }

bool CSIProcess::Child::exists(signed char& exitCode) const {
  if (!m_state) return false;
  if (!m_state->poll()) return true;
  exitCode = ExitCodeOf(m_state->status);
  return false;
}

signed char CSIProcess::Child::waitfor() const {
  if (!m_state) return kCouldNotStart;
  return ExitCodeOf(m_state->wait());
}

bool CSIProcess::Child::kill() const {
  if (!m_state || m_state->poll()) return false;
  ::kill(m_state->pid, SIGKILL);
  m_state->wait();
  return true;
}

// ---- starting -------------------------------------------------------------------

namespace {

bool StartChild(Launch const& l, CSIProcess::Child& child, CWinDesktopHeapMgr const* desktops) {
  // Children start normally where there are no private desktops.
  unsigned short desktop = 0;
  unsigned short slot = 0;
  SAnsiString desktopName;
  bool const useDesktop = desktops && desktops->isSupported();
  if (useDesktop && !desktops->getNextAvailableWinDesktop(desktopName, desktop, slot)) {
    QL_TRACE(SLogger::tl_Error, "CreateProcess() failed to find an empty win desktop heap slot");
    return false;
  }
  long const pid = Spawn(l);
  if (pid < 0) {
    QL_TRACE(SLogger::tl_Error, "%1", std::string("CreateProcess() failed for commandline [") + l.describe() +
                                          "]. Last error is " + std::to_string(-pid) + " " + errnoText(int(-pid)));
    child.del();
    return false;
  }
  child.init(pid);
  if (useDesktop) desktops->updateAvailableWinDesktop(desktop, slot, child);
  return true;
}

}  // namespace

signed char CSIProcess::NewProcessSync(SAnsiString const& command, CParamLineArgs& args, bool direct) {
  QL_ASSERT(!command.isEmpty());
  Launch const l = MakeLaunch(command, args.Words(), direct);
  long const pid = Spawn(l);
  if (pid < 0) {
    if (direct)
      QL_TRACE(SLogger::tl_Error, "cannot spawn process: errno = %s", errnoText(int(-pid)));
    else
      QL_TRACE(SLogger::tl_Error, "NewProcessSync : Win32 Error %d,%s", int(-pid), errnoText(int(-pid)));
    return kCouldNotStart;
  }
  Child child;
  child.init(pid);
  return child.waitfor();
}

bool CSIProcess::NewProcessAsync(SAnsiString const& command, CParamLineArgs& args, unsigned long& pid, bool direct,
                                 CWinDesktopHeapMgr const* desktops) {
  Child child;
  if (!NewProcessAsyncEx(command, args, child, direct, desktops)) return false;
  pid = child.getpid();
  return true;
}

bool CSIProcess::NewProcessAsyncEx(SAnsiString const& command, SIArray<SAnsiString>& args, Child& child, bool direct,
                                   CWinDesktopHeapMgr const* desktops) {
  QL_ASSERT(!command.isEmpty());
  return StartChild(MakeLaunch(command, WordsOf(args), direct), child, desktops);
}

bool CSIProcess::NewProcessAsyncEx(SAnsiString const& command, CParamLineArgs& args, Child& child, bool direct,
                                   CWinDesktopHeapMgr const* desktops) {
  QL_ASSERT(!command.isEmpty());
  return StartChild(MakeLaunch(command, WordsOf(args), direct), child, desktops);
}

bool CSIProcess::NewProcessAsyncExAsUserFromThreadToken(SAnsiString const& command, CParamLineArgs& args,
                                                        Child& child, bool direct,
                                                        CWinDesktopHeapMgr const* desktops, bool keepEnvironment) {
  QL_ASSERT(!command.isEmpty());
  Launch l = MakeLaunch(command, WordsOf(args), direct);
  l.keepEnvironment = keepEnvironment;
  return StartChild(l, child, desktops);
}

signed char CSIProcess::NewProcessReturnSTDOUT(SAnsiString const& command, SAnsiString& output, bool) {
  SAnsiString tempFileName;
  try {
    tempFileName = SFileSys::getTempFilename("nprstdout");
  } catch (SFileException const& e) {
    QL_TRACE(SLogger::tl_Error, "Exception opening temporary file %s", e.toString());
    return kCouldNotStart;
  }
  SAnsiString const line = command + SAnsiString(" >") + tempFileName;
  CParamLineArgs none;
  signed char const rc = NewProcessSync(line, none, false);
  output = SAnsiString();
  try {
    SFile file(tempFileName, SFile::modeRead);
    std::string bytes;
    char chunk[8192];
    while (size_t n = file.read(chunk, sizeof chunk)) bytes.append(chunk, n);
    output = SAnsiString(bytes.data(), static_cast<unsigned>(bytes.size()));
  } catch (SFileException const&) {
    QL_TRACE(SLogger::tl_Error, "Exception opening temporary file %s", tempFileName);
  }
  SFileSys::remove(tempFileName);
  QL_ASSERT(!SFileSys::exists(tempFileName));
  return rc;
}

// ---- other processes ------------------------------------------------------------

bool CSIProcess::KillProcess(unsigned long pid) { return SendSignal(pid, SIGTERM); }
bool CSIProcess::ForceKillProcess(unsigned long pid) { return SendSignal(pid, SIGKILL); }
bool CSIProcess::AbortProcess(unsigned long pid) { return SendSignal(pid, SIGABRT); }

bool CSIProcess::ProcessExists(unsigned long pid) {
  if (pid == 0 || pid > 0x7FFFFFFFul) return false;
  // EPERM: the process is there but belongs to another user.
  bool const there = ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
  return there && !IsZombie(pid);
}

unsigned long CSIProcess::GetCurrentProcessID() { return static_cast<unsigned long>(::getpid()); }
unsigned long CSIProcess::GetCurrentThreadID() { return static_cast<unsigned long>(::syscall(SYS_gettid)); }
int CSIProcess::AtExit(void (*fn)()) { return std::atexit(fn); }
void CSIProcess::MilliSleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms < 0 ? 0 : ms)); }
void CSIProcess::MilliWait(int ms) { MilliSleep(ms); }
void CSIProcess::SecSleep(int s) { std::this_thread::sleep_for(std::chrono::seconds(s < 0 ? 0 : s)); }
void CSIProcess::Wait(int s) { SecSleep(s); }

double CSIProcess::GetMemoryUsage() {
  std::FILE* f = std::fopen("/proc/self/statm", "re");
  if (!f) {
    QL_TRACE(SLogger::tl_Error, "CSIProcess::GetMemoryUsage: Cannot open process.  Error: %1", errnoText(errno));
    return 0;
  }
  unsigned long size = 0;
  unsigned long resident = 0;
  int const got = std::fscanf(f, "%lu %lu", &size, &resident);
  std::fclose(f);
  if (got != 2) {
    QL_TRACE(SLogger::tl_Error, "CSIProcess::GetMemoryUsage: Cannot get process information.  Error: %1",
             "unreadable /proc/self/statm");
    return 0;
  }
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

CWinDesktopHeapMgr* CSIProcess::createWinDesktopHeapMgr(unsigned short maxDesktops,
                                                        unsigned short maxProcessesPerDesktop) {
  return new CWinDesktopHeapMgr(maxDesktops, maxProcessesPerDesktop);
}

void CSIProcess::freeWinDesktopHeapMgr(CWinDesktopHeapMgr* mgr) { delete mgr; }

}  // namespace QuenLibA500
