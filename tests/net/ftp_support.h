// Set-up of the FTP and SFTP tests: a scripted FTP peer, and the real
// servers (vsftpd, sshd) run in a private mount and PID namespace that sees
// a test account (quentest, password kPassword) in its own passwd and
// shadow files, so that the machine's accounts and services stay untouched.
// Killing the server ends the namespace and every session in it.
#pragma once

#include "net_support.h"

#include <quenlib/sstring.h>

#include <sys/prctl.h>
#include <sys/stat.h>

#include <mutex>
#include <utility>

namespace ftptest {

using namespace nettest;

constexpr char kUser[] = "quentest";
constexpr char kPassword[] = "Secret-4242";
constexpr uid_t kUid = 4242;
// kPassword as SHA-512 crypt.
constexpr char kPasswordHash[] =
    "$6$quenlibtest$e."
    "4aj6ZUxUA0yOY37DnnyMe06yHnvJPED5sGGeiwaI63bGMUnfqX5VmZdcLpqREpqZ0qDQSipiZpT1N035BwP/";

// ---- a scripted FTP peer

struct FtpRule {
  std::string prefix;  // matched against the start of the command line
  std::string reply;   // sent as it is; "CLOSE" closes the connection
  bool once = false;   // used for the first matching command only
};

// Greets, then answers each command with the first rule whose prefix it
// starts with ("500 unknown" when none does), recording every line.
class FakeFtp {
 public:
  FakeFtp(int family, std::vector<FtpRule> rules, std::string greeting = "220 fake ready\r\n")
      : m_rules(std::move(rules)),
        m_greeting(std::move(greeting)),
        m_peer(family, [this](int fd) { serve(fd); }) {}
  unsigned short port() const { return m_peer.port(); }
  std::string host() const { return m_peer.host(); }
  std::vector<std::string> commands() {
    std::lock_guard<std::mutex> g(m_mutex);
    return m_commands;
  }
  int count(std::string const& prefix) {
    int n = 0;
    for (auto const& c : commands()) n += c.rfind(prefix, 0) == 0;
    return n;
  }

 private:
  std::string answer(std::string const& line) {
    for (auto r = m_rules.begin(); r != m_rules.end(); ++r) {
      if (line.rfind(r->prefix, 0) != 0) continue;
      std::string reply = r->reply;
      if (r->once) m_rules.erase(r);
      return reply;
    }
    return "500 unknown\r\n";
  }
  void serve(int fd) {
    writeAll(fd, m_greeting);
    std::string pending;
    char buf[4096];
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
    while (std::chrono::steady_clock::now() < end) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n <= 0) return;
      pending.append(buf, static_cast<size_t>(n));
      for (auto lf = pending.find('\n'); lf != std::string::npos; lf = pending.find('\n')) {
        std::string line = pending.substr(0, lf);
        pending.erase(0, lf + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        {
          std::lock_guard<std::mutex> g(m_mutex);
          m_commands.push_back(line);
        }
        std::string const reply = answer(line);
        if (reply == "CLOSE") return;
        writeAll(fd, reply);
      }
    }
  }
  std::vector<FtpRule> m_rules;
  std::string m_greeting;
  std::mutex m_mutex;
  std::vector<std::string> m_commands;
  Peer m_peer;  // last: its thread uses the members above
};

// ---- real servers in a private namespace

// A server run by `start` in its own process group and mount and PID
// namespaces, in which etc/passwd and etc/shadow of a scratch directory hold
// the test account (home: home/). Its first process reaps the orphans,
// which servers do not expect of themselves. Killing the group when the
// guard goes ends every session process too.
class NamespacedServer {
 public:
  explicit NamespacedServer(int family) : m_family(family), m_port(closedPort(family)) {
    ::chmod(m_dir.path().c_str(), 0755);
    for (char const* d : {"etc", "empty", "home"}) std::filesystem::create_directories(m_dir / d);
    if (::chown(home().c_str(), kUid, kUid) != 0)
      m_problem = "cannot hand the home directory to the test account";
    std::ofstream passwd(m_dir / "etc/passwd"), shadow(m_dir / "etc/shadow");
    passwd << "root:x:0:0::/root:/bin/sh\nnobody:x:65534:65534::/:/bin/false\nsshd:x:103:65534::/"
              "run/sshd:/bin/false\n"
           << kUser << ":x:" << kUid << ":" << kUid << "::" << home() << ":/bin/sh\n";
    shadow << "root:*:19000::::::\nnobody:*:19000::::::\nsshd:*:19000::::::\n"
           << kUser << ":" << kPasswordHash << ":19000::::::\n";
  }
  ~NamespacedServer() {
    if (m_pid <= 0) return;
    ::kill(-m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
  }
  NamespacedServer(NamespacedServer const&) = delete;
  NamespacedServer& operator=(NamespacedServer const&) = delete;
  // Why the server is not there, empty when it is.
  std::string const& problem() const { return m_problem; }
  unsigned short port() const { return m_port; }
  std::string host() const { return m_family == AF_INET ? "127.0.0.1" : "::1"; }
  std::string home() const { return m_dir / "home"; }
  std::string path(std::string const& name) const { return m_dir / name; }
  std::string log() const { return ReadFile(path("server.out")); }

 protected:
  void setProblem(std::string const& why) { m_problem = why; }
  // Starts argv[0] with `binds` (from, to) mounted, and waits until it listens.
  void start(std::vector<std::string> argv, std::vector<std::pair<std::string, std::string>> binds,
             bool privateRun) {
    if (!m_problem.empty()) return;
    if (!std::filesystem::exists(argv[0])) {
      m_problem = argv[0] + " is not installed (scripts/packages/net.txt)";
      return;
    }
    binds.emplace_back(path("etc/passwd"), "/etc/passwd");
    binds.emplace_back(path("etc/shadow"), "/etc/shadow");
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    std::string const out = path("server.out");
    pid_t const test = ::getpid();
    if ((m_pid = ::fork()) == 0) enter(args, binds, out, privateRun, test);
    bool const up = WaitFor([&] { return ended() != -1 || accepting(); });
    int const status = ended();
    if (status == 77)
      m_problem = "no private mount/PID namespace could be made here";
    else if (status != -1)
      m_problem = "the server ended with status " + std::to_string(status) + ": " + log();
    else if (!up)
      m_problem = "the server did not listen in time";
  }

 private:
  [[noreturn]] static void enter(std::vector<char*> const& args,
                                 std::vector<std::pair<std::string, std::string>> const& binds,
                                 std::string const& out, bool privateRun, pid_t test) {
    ::setpgid(0, 0);
    // A test that dies without running its guard (a sanitizer's abort)
    // takes the server with it: this process gets SIGKILL, and so does pid 1
    // of the namespace below, whose end ends every process inside.
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != test) ::_exit(1);
    int const fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ::dup2(fd, 1), ::dup2(fd, 2);
    if (::unshare(CLONE_NEWNS | CLONE_NEWPID) != 0 ||
        ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
      ::_exit(77);
    for (auto const& [from, to] : binds)
      if (::mount(from.c_str(), to.c_str(), "none", MS_BIND, nullptr) != 0) ::_exit(78);
    if (privateRun &&
        (::mount("tmpfs", "/run", "tmpfs", 0, "mode=755") != 0 || ::mkdir("/run/sshd", 0755) != 0))
      ::_exit(79);
    pid_t const first = ::fork();  // pid 1 of the new namespace
    if (first == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      pid_t const server = ::fork();
      if (server == 0) ::execv(args[0], args.data()), ::_exit(127);
      int status = 0;
      for (pid_t p = 0; p != server;) p = ::wait(&status);
      ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
    }
    int status = 0;
    ::waitpid(first, &status, 0);
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
  }
  // The exit status when the server has already ended, else -1.
  int ended() {
    int status = 0;
    if (m_pid <= 0 || ::waitpid(m_pid, &status, WNOHANG) != m_pid) return -1;
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  }
  bool accepting() const {
    int s = ::socket(m_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_storage a = loopback(m_family, m_port);
    bool const ok = ::connect(s, reinterpret_cast<sockaddr*>(&a), lengthOf(m_family)) == 0;
    ::close(s);
    return ok;
  }

  ScratchDir m_dir;
  int m_family;
  unsigned short m_port;
  std::string m_problem;
  pid_t m_pid = -1;
};

// vsftpd in the foreground on a free loopback port of `family`, active
// mode only, local logins of the test account (PAM: pam_unix only).
class Vsftpd : public NamespacedServer {
 public:
  explicit Vsftpd(int family) : NamespacedServer(family) {
    std::ofstream(path("pam")) << "auth required pam_unix.so\naccount required pam_unix.so\n";
    std::ofstream(path("vsftpd.conf"))
        << (family == AF_INET ? "listen=YES\nlisten_address=127.0.0.1\n"
                              : "listen_ipv6=YES\nlisten_address6=::1\n")
        << "listen_port=" << port()
        << "\nbackground=NO\nanonymous_enable=NO\nlocal_enable=YES\nwrite_enable=YES\n"
        << "pam_service_name=vsftpd\nnopriv_user=nobody\nsecure_chroot_dir=" << path("empty")
        << "\nconnect_from_port_20=NO\npasv_enable=NO\nseccomp_sandbox=NO\n";
    start({"/usr/sbin/vsftpd", path("vsftpd.conf")}, {{path("pam"), "/etc/pam.d/vsftpd"}}, false);
  }
};

// sshd -D on a free IPv4 loopback port with its own ed25519 host key,
// password logins of the test account and the internal SFTP server.
class Sshd : public NamespacedServer {
 public:
  Sshd() : NamespacedServer(AF_INET) {
    Child keygen({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", hostKey()},
                 path("keygen.out"));
    if (keygen.wait() != 0) {
      setProblem("ssh-keygen failed: " + ReadFile(path("keygen.out")));
      return;
    }
    std::ofstream(path("sshd.conf"))
        << "Port " << port() << "\nListenAddress 127.0.0.1\nHostKey " << hostKey()
        << "\nPasswordAuthentication yes\nKbdInteractiveAuthentication no\nUsePAM no\n"
        << "PidFile none\nStrictModes no\nSubsystem sftp internal-sftp\n";
    start({"/usr/sbin/sshd", "-D", "-e", "-f", path("sshd.conf")}, {}, true);
  }
  std::string hostKey() const { return path("hostkey"); }
};

// The category and text of the exception `fn` throws; -1 when none.
template <class Exception>
std::pair<int, std::string> thrown(std::function<void()> const& fn) {
  try {
    fn();
  } catch (Exception const& e) {
    return {e.getCategory(), e.what()};
  }
  return {-1, ""};
}

// Bytes 0, 1, ..., 250, 0, 1, ... (a pattern that shows a shifted piece).
inline std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i % 251);
  return s;
}

}  // namespace ftptest
