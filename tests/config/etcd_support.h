// Starts real etcd servers for tests and benchmarks: one member or a
// cluster of three on free loopback ports, each with a data directory of
// its own under a scratch directory. Members die with the guard, and with
// the process that started them even when it dies without running its
// destructors. No test framework needed.
//
//   quentest::EtcdCluster etcd(1);
//   if (!etcd.start()) ...;           // etcd.error() says why
//   setenv("QUENLIB_REGISTRY_ETCD", etcd.endpoints().c_str(), 1);
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace quentest {

class EtcdCluster {
 public:
  explicit EtcdCluster(int members = 1) : members_(static_cast<size_t>(members)) {}
  ~EtcdCluster() {
    for (size_t i = 0; i < members_.size(); ++i) kill(i);
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
  }
  EtcdCluster(EtcdCluster const&) = delete;
  EtcdCluster& operator=(EtcdCluster const&) = delete;

  // The etcd program on PATH (or in /usr/bin), or "" when not installed.
  static std::string program() {
    std::string path = std::getenv("PATH") ? std::getenv("PATH") : "";
    path += ":/usr/bin:/usr/sbin";
    for (size_t at = 0; at <= path.size();) {
      size_t end = path.find(':', at);
      if (end == std::string::npos) end = path.size();
      std::string candidate = path.substr(at, end - at) + "/etcd";
      if (end > at && ::access(candidate.c_str(), X_OK) == 0) return candidate;
      at = end + 1;
    }
    return {};
  }

  // Starts every member and waits (with a deadline) until each reports
  // healthy. False with error() set otherwise.
  bool start(std::chrono::seconds deadline = std::chrono::seconds(60)) {
    program_ = program();
    if (program_.empty()) return fail("etcd is not installed");
    char tmpl[] = "/tmp/quentest-etcd-XXXXXX";
    if (!::mkdtemp(tmpl)) return fail("no scratch directory");
    dir_ = tmpl;
    for (size_t i = 0; i < members_.size(); ++i) {
      members_[i].client = freePort();
      members_[i].peer = freePort();
    }
    for (size_t i = 0; i < members_.size(); ++i)
      if (!launch(i)) return false;
    return waitHealthy(deadline);
  }

  // "http://127.0.0.1:P,..." of the running members given (all by default).
  std::string endpoints(std::vector<size_t> which = {}) const {
    if (which.empty())
      for (size_t i = 0; i < members_.size(); ++i) which.push_back(i);
    std::string s;
    for (size_t i : which) s += (s.empty() ? "" : ",") + url(i);
    return s;
  }
  std::string url(size_t i) const {
    return "http://127.0.0.1:" + std::to_string(members_[i].client);
  }
  std::string const& error() const { return error_; }
  size_t size() const { return members_.size(); }

  // Kills member i (its whole process group) and reaps it.
  void kill(size_t i) {
    Member& m = members_[i];
    if (m.pid <= 0) return;
    ::kill(-m.pid, SIGKILL);
    ::waitpid(m.pid, nullptr, 0);
    m.pid = -1;
  }

  // Starts a killed member again on its data; waits until it is healthy.
  bool restart(size_t i, std::chrono::seconds deadline = std::chrono::seconds(60)) {
    kill(i);
    return launch(i) && waitHealthy(deadline, {i});
  }

  // GET /health of member i answers {"health":"true"}.
  bool healthy(size_t i) const {
    std::string reply = httpGet(members_[i].client, "/health");
    return reply.find("\"health\":\"true\"") != std::string::npos;
  }

 private:
  struct Member {
    int client = 0;
    int peer = 0;
    pid_t pid = -1;
  };

  bool fail(std::string why) {
    error_ = std::move(why);
    return false;
  }

  static int freePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
      port = ntohs(a.sin_port);
    ::close(fd);
    return port;
  }

  std::string name(size_t i) const { return "m" + std::to_string(i); }
  std::string peerUrl(size_t i) const {
    return "http://127.0.0.1:" + std::to_string(members_[i].peer);
  }

  std::vector<std::string> arguments(size_t i) const {
    std::string cluster;
    for (size_t j = 0; j < members_.size(); ++j)
      cluster += (j ? "," : "") + name(j) + "=" + peerUrl(j);
    return {program_, "--name=" + name(i), "--data-dir=" + dir_ + "/" + name(i),
            "--listen-client-urls=" + url(i), "--advertise-client-urls=" + url(i),
            "--listen-peer-urls=" + peerUrl(i), "--initial-advertise-peer-urls=" + peerUrl(i),
            "--initial-cluster=" + cluster, "--initial-cluster-state=new",
            "--initial-cluster-token=" + dir_,
            // Quick elections, so that losing a member costs a second, not ten.
            "--heartbeat-interval=50", "--election-timeout=500", "--logger=zap",
            "--log-level=error"};
  }

  bool launch(size_t i) {
    std::vector<std::string> args = arguments(i);
    std::string const log = dir_ + "/" + name(i) + ".log";
    pid_t const parent = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) return fail("fork failed");
    if (pid == 0) {
      ::setpgid(0, 0);
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(127);
      int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      if (fd >= 0) {
        ::dup2(fd, 1);
        ::dup2(fd, 2);
      }
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    ::setpgid(pid, pid);
    members_[i].pid = pid;
    return true;
  }

  bool waitHealthy(std::chrono::seconds deadline, std::vector<size_t> which = {}) {
    if (which.empty())
      for (size_t i = 0; i < members_.size(); ++i) which.push_back(i);
    auto const until = std::chrono::steady_clock::now() + deadline;
    for (size_t i : which) {
      while (!healthy(i)) {
        int status = 0;
        if (::waitpid(members_[i].pid, &status, WNOHANG) == members_[i].pid) {
          members_[i].pid = -1;
          return fail("etcd member " + name(i) + " exited; see " + dir_ + "/" + name(i) + ".log");
        }
        if (std::chrono::steady_clock::now() > until)
          return fail("etcd member " + name(i) + " not healthy in time");
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
    }
    return true;
  }

  // A bare HTTP/1.0 GET on loopback with a one-second limit; "" on failure.
  static std::string httpGet(int port, char const* path) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval tv{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string reply;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
      std::string req = std::string("GET ") + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
      if (::send(fd, req.data(), req.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(req.size())) {
        char buf[1024];
        ssize_t n;
        while ((n = ::recv(fd, buf, sizeof buf, 0)) > 0) reply.append(buf, static_cast<size_t>(n));
      }
    }
    ::close(fd);
    return reply;
  }

  std::vector<Member> members_;
  std::string program_;
  std::string dir_;
  std::string error_;
};

}  // namespace quentest
