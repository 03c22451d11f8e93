// svrrestart: starts a server again after it has stopped.
//
//   svrrestart restartservice NAME
//       restarts the systemd unit NAME (queued, so that the server being
//       stopped by it may be this program's parent);
//   svrrestart restartserver PID [READPIPE WRITEPIPE]
//       reads the program, arguments, working directory and environment of
//       process PID, says "ready" on the pipe its parent gave it, waits for
//       PID to end and starts the same program again, in a session of its
//       own, with the same arguments, directory and environment.
//
// Exit status: 0 when the restart was made, 1 when it failed, 2 on bad usage.
#include <quenlib/csipipe.h>
#include <quenlib/csiprocess.h>

#include <spawn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

using namespace QuenLibA500;

namespace {

// The NUL-separated words of a /proc file.
std::vector<std::string> ProcWords(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::string const all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::string> words;
  size_t start = 0;
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i] != '\0') continue;
    words.push_back(all.substr(start, i - start));
    start = i + 1;
  }
  if (start < all.size()) words.push_back(all.substr(start));
  return words;
}

struct Snapshot {
  std::string program;
  std::string cwd;
  std::vector<std::string> argv;
  std::vector<std::string> env;
};

bool TakeSnapshot(unsigned long pid, Snapshot& s) {
  std::string const proc = "/proc/" + std::to_string(pid);
  std::error_code ec;
  s.program = std::filesystem::read_symlink(proc + "/exe", ec).string();
  if (ec) return false;
  s.cwd = std::filesystem::read_symlink(proc + "/cwd", ec).string();
  if (ec) return false;
  s.argv = ProcWords(proc + "/cmdline");
  s.env = ProcWords(proc + "/environ");
  return !s.argv.empty();
}

bool WaitForExit(unsigned long pid) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::minutes(5);
  while (CSIProcess::ProcessExists(pid)) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> p;
  for (auto& w : words) p.push_back(w.data());
  p.push_back(nullptr);
  return p;
}

int StartAgain(Snapshot& s) {
  if (::chdir(s.cwd.c_str()) != 0) std::fprintf(stderr, "svrrestart: cannot enter %s\n", s.cwd.c_str());
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
  auto argv = Pointers(s.argv);
  auto env = Pointers(s.env);
  pid_t pid = 0;
  int const rc = posix_spawn(&pid, s.program.c_str(), nullptr, &attr, argv.data(), env.data());
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    std::fprintf(stderr, "svrrestart: cannot start %s: %s\n", s.program.c_str(), std::strerror(rc));
    return 1;
  }
  std::printf("svrrestart: %s started again as %d\n", s.program.c_str(), static_cast<int>(pid));
  return 0;
}

int RestartServer(int argc, char** argv) {
  unsigned long const pid = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : static_cast<unsigned long>(::getppid());
  Snapshot s;
  bool const taken = TakeSnapshot(pid, s);
  if (argc > 4) {
    try {
      CSIPipeClient pipe(argv[3], argv[4], 10, true, false);
      pipe.WriteString(taken ? "ready" : "failed");
    } catch (CSIPipeException const& e) {
      std::fprintf(stderr, "svrrestart: %s\n", e.what());
    }
  }
  if (!taken) {
    std::fprintf(stderr, "svrrestart: cannot read process %lu\n", pid);
    return 1;
  }
  if (!WaitForExit(pid)) {
    std::fprintf(stderr, "svrrestart: process %lu did not end\n", pid);
    return 1;
  }
  return StartAgain(s);
}

int RestartService(char const* name) {
  CParamLineArgs args(std::vector<std::string>{"--no-block", "restart", name});
  return CSIProcess::NewProcessSync("systemctl", args, true) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "restartservice") == 0) return RestartService(argv[2]);
  if (argc >= 2 && std::strcmp(argv[1], "restartserver") == 0) return RestartServer(argc, argv);
  std::fprintf(stderr, "usage: svrrestart restartservice NAME | restartserver [PID [READPIPE WRITEPIPE]]\n");
  return 2;
}
