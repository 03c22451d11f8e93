// Shared by the server tests: scratch directories, running a controller in
// a forked child, waiting for children with a deadline, TCP lines.
#pragma once

#include <quenlib/quenlib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "concurrency/concurrency_support.h"
#include "text/text_support.h"

namespace servertest {

namespace fs = std::filesystem;

inline fs::path ScratchDir(std::string const& name) {
  fs::path dir = fs::temp_directory_path() / ("quenlib-server-" + name + "-" + std::to_string(::getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

using quentest::ReadFile;

template <class Fn>
bool Eventually(Fn fn, int seconds = 10) {
  return conctest::WaitFor(fn, std::chrono::seconds(seconds));
}

// A child process killed and reaped when the test ends, whatever happens.
class ChildGuard {
 public:
  explicit ChildGuard(pid_t pid = -1) : m_pid(pid) {}
  ~ChildGuard() {
    if (m_pid <= 0) return;
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
  }
  ChildGuard(ChildGuard const&) = delete;
  ChildGuard& operator=(ChildGuard const&) = delete;
  pid_t pid() const { return m_pid; }
  // The exit status (as waitpid gives it), or -1 when it did not end in time.
  int wait(int seconds = 20) {
    int status = -1;
    bool const ended = Eventually([&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; }, seconds);
    if (!ended) return -1;
    m_pid = -1;
    return status;
  }

 private:
  pid_t m_pid;
};

// Runs fn in a forked child, which then exits 0; stdout goes to outFile
// when one is given.
inline pid_t Fork(std::function<void()> fn, fs::path const& outFile = {}) {
  pid_t const pid = ::fork();
  if (pid != 0) return pid;
  if (!outFile.empty() && !std::freopen(outFile.c_str(), "w", stdout)) ::_exit(3);
  fn();
  std::fflush(stdout);
  ::_exit(0);
}

inline int FreePort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  ::close(fd);
  return ntohs(a.sin_port);
}

// A loopback TCP client with a receive time-out.
class Line {
 public:
  explicit Line(int port) : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    timeval tv{5, 0};
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    m_ok = ::connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~Line() { ::close(m_fd); }
  Line(Line const&) = delete;
  Line& operator=(Line const&) = delete;
  bool ok() const { return m_ok; }
  bool send(std::string const& text) { return ::send(m_fd, text.data(), text.size(), MSG_NOSIGNAL) == (ssize_t)text.size(); }
  // Reads until `until` has arrived (or time-out / end); returns all read.
  std::string readUntil(std::string const& until) {
    while (m_buffer.find(until) == std::string::npos) {
      char buf[4096];
      ssize_t n = ::recv(m_fd, buf, sizeof buf, 0);
      if (n <= 0) break;
      m_buffer.append(buf, static_cast<size_t>(n));
    }
    std::string out;
    out.swap(m_buffer);
    return out;
  }

 private:
  int m_fd;
  bool m_ok = false;
  std::string m_buffer;
};

// Order check: every text appears in `log`, each after the one before.
inline bool InOrder(std::string const& log, std::vector<std::string> const& texts, std::string* missing) {
  size_t at = 0;
  for (auto const& t : texts) {
    size_t const found = log.find(t, at);
    if (found == std::string::npos) {
      *missing = t;
      return false;
    }
    at = found + t.size();
  }
  return true;
}

}  // namespace servertest
