// Shared set-up of the network tests: loopback peers run by a thread, a
// child process guard, a trace recorder, free ports and a scratch directory.
// Every wait here has a deadline.
#pragma once

#include <quenlib/csisocket.h>
#include <quenlib/slogger.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "concurrency/concurrency_support.h"
#include "text/text_support.h"

namespace nettest {

using namespace std::chrono_literals;
using conctest::WaitFor;
using quentest::ReadFile;
using quentest::str;
using quentest::WriteFile;
constexpr int kDeadlineMs = 10000;

inline sockaddr_storage loopback(int family, unsigned short port) {
  sockaddr_storage s{};
  QuenLibA500::CSISocket::gethostbyname(family == AF_INET ? "127.0.0.1" : "::1", family, s, port);
  return s;
}

inline socklen_t lengthOf(int family) { return family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6); }

// A listening socket on the loopback address of `family`; port 0 picks one.
inline int listenOn(int family, unsigned short port, unsigned short* chosen = nullptr) {
  int s = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0), one = 1;
  ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (family == AF_INET6) ::setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
  sockaddr_storage a = loopback(family, port);
  socklen_t len = lengthOf(family);
  if (::bind(s, reinterpret_cast<sockaddr*>(&a), len) != 0 || ::listen(s, 16) != 0) return ::close(s), -1;
  ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  if (chosen) *chosen = QuenLibA500::CSISocket::getPort(reinterpret_cast<sockaddr&>(a));
  return s;
}

// A port nobody listens on (bound once, then released).
inline unsigned short closedPort(int family) {
  unsigned short port = 0;
  ::close(listenOn(family, 0, &port));
  return port;
}

// A free port below 32768, for interfaces that take the port as `short`.
inline unsigned short lowFreePort(int family) {
  for (unsigned short p = static_cast<unsigned short>(20000 + ::getpid() % 5000); p < 32000; ++p) {
    int s = listenOn(family, p);
    if (s < 0) continue;
    ::close(s);
    return p;
  }
  return 0;
}

inline bool writeAll(int fd, std::string const& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Waits until the peer closes (or the deadline passes), reading and
// dropping what it sends.
inline void waitForClose(int fd, int millis = kDeadlineMs) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(millis);
  char buf[4096];
  while (std::chrono::steady_clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) > 0 && ::recv(fd, buf, sizeof buf, 0) <= 0) return;
  }
}

// A peer on the loopback address: accepts one connection and runs
// `behaviour` on it, then closes it.
class Peer {
 public:
  Peer(int family, std::function<void(int)> behaviour) : m_family(family) {
    m_listen = listenOn(family, 0, &m_port);
    m_thread = std::thread([this, b = std::move(behaviour)] {
      pollfd p{m_listen, POLLIN, 0};
      if (::poll(&p, 1, kDeadlineMs) <= 0) return;
      int c = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) return;
      int one = 1;
      ::setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      b(c);
      ::close(c);
    });
  }
  ~Peer() {
    m_thread.join();
    ::close(m_listen);
  }
  bool ok() const { return m_listen >= 0; }
  unsigned short port() const { return m_port; }
  std::string host() const { return m_family == AF_INET ? "127.0.0.1" : "::1"; }

 private:
  int m_family;
  int m_listen = -1;
  unsigned short m_port = 0;
  std::thread m_thread;
};

// A child process in its own process group, killed with the group when the
// guard goes.
class Child {
 public:
  Child(std::vector<std::string> const& argv, std::string const& outFile, int stdinFd = -1) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (stdinFd >= 0) posix_spawn_file_actions_adddup2(&fa, stdinFd, 0);
    posix_spawn_file_actions_addopen(&fa, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    posix_spawnattr_t at;
    posix_spawnattr_init(&at);
    posix_spawnattr_setflags(&at, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&at, 0);
    // setpriv (util-linux, on every Debian) gives the server a parent-death
    // signal before it execs, so a test process that dies without running
    // this guard (an ASan abort, a SIGKILL) takes its server with it.
    std::vector<std::string> full;
    if (::access(kSetpriv, X_OK) == 0) full = {kSetpriv, "--pdeathsig", "KILL", "--"};
    full.insert(full.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (auto const& a : full) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    if (posix_spawnp(&m_pid, args[0], &fa, &at, args.data(), environ) != 0) m_pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&at);
  }
  ~Child() {
    if (m_pid <= 0) return;
    ::kill(-m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
  }
  bool started() const { return m_pid > 0; }
  // The exit status once the child ends within `millis`, else -1.
  int wait(int millis = kDeadlineMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(millis);
    while (m_pid > 0 && std::chrono::steady_clock::now() < end) {
      int status = 0;
      if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
  }

 private:
  static constexpr char const* kSetpriv = "/usr/bin/setpriv";
  pid_t m_pid = -1;
};

// Runs the built quen with `args` (and `env` assignments before it), at
// most 30 s: exit status and output, standard error too unless dropped;
// status -2 when quen is not built.
inline std::pair<int, std::string> runQuen(std::string const& args, std::string const& env = "",
                                           bool withStderr = true) {
  if (!std::filesystem::exists(quentest::QuenPath())) return {-2, ""};
  std::string out;
  FILE* p = ::popen((env + " timeout 30 " + quentest::QuenPath() + " " + args +
                     (withStderr ? " 2>&1" : " 2>/dev/null"))
                        .c_str(),
                    "r");
  char buf[4096];
  for (size_t n; p && (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  int const st = p ? ::pclose(p) : -1;
  return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, out};
}

// A self-signed certificate dir/name.crt with its key dir/name.key, made by
// Debian's openssl: true when it was made.
inline bool makeCertificate(std::string const& dir, std::string const& name) {
  Child req({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
             "-days", "1", "-subj", "/CN=quenlib-test", "-keyout", dir + "/" + name + ".key", "-out",
             dir + "/" + name + ".crt"},
            dir + "/req.log");
  return req.wait() == 0;
}

class ScratchDir {
 public:
  ScratchDir() {
    std::string tmpl = std::filesystem::temp_directory_path() / "quenlib-netXXXXXX";
    m_path = ::mkdtemp(tmpl.data()) ? tmpl : std::string();
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
  }
  std::string const& path() const { return m_path; }
  std::string operator/(std::string const& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Runs `body` in a child process that sees `hosts` as /etc/hosts (in a
// private mount namespace; the file-system type, which these mounts ignore,
// is named so that valgrind does not report a null pointer): the child's exit status, 77 when no namespace
// could be made, -1 when the child did not end in time.
inline int withHosts(std::string const& hosts, std::function<int()> const& body) {
  ScratchDir dir;
  std::ofstream(dir / "hosts") << hosts;
  pid_t const child = ::fork();
  if (child == 0) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount((dir / "hosts").c_str(), "/etc/hosts", "none", MS_BIND, nullptr) != 0)
      ::_exit(77);
    ::_exit(body());
  }
  int status = 0;
  if (!WaitFor([&] { return ::waitpid(child, &status, WNOHANG) == child; })) {
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Records trace lines and assertion messages while it lives.
class Recorder {
 public:
  Recorder() {
    QuenLibA500::SetTraceObserver(&onTrace, this);
    QuenLibA500::SetAssertObserver(&onAssert, this);
  }
  ~Recorder() {
    QuenLibA500::SetTraceObserver(nullptr, nullptr);
    QuenLibA500::SetAssertObserver(nullptr, nullptr);
  }
  std::vector<std::string> asserts() { return copy(m_asserts); }
  // How many trace lines hold `text`.
  int countTraced(std::string const& text) {
    int n = 0;
    for (auto const& t : copy(m_traces)) n += t.find(text) != std::string::npos;
    return n;
  }
  bool traced(std::string const& text) { return countTraced(text) > 0; }
  void clear() {
    std::lock_guard<std::mutex> g(m_mutex);
    m_traces.clear(), m_asserts.clear();
  }

 private:
  std::vector<std::string> copy(std::vector<std::string> const& v) {
    std::lock_guard<std::mutex> g(m_mutex);
    return v;
  }
  static void onTrace(void* ctx, int, char const*, int, char const* text) {
    auto* self = static_cast<Recorder*>(ctx);
    std::lock_guard<std::mutex> g(self->m_mutex);
    self->m_traces.emplace_back(text);
  }
  static void onAssert(void* ctx, char const*, int, char const*, char const* msg) {
    auto* self = static_cast<Recorder*>(ctx);
    std::lock_guard<std::mutex> g(self->m_mutex);
    self->m_asserts.emplace_back(msg ? msg : "");
  }
  std::mutex m_mutex;
  std::vector<std::string> m_traces, m_asserts;
};

}  // namespace nettest
