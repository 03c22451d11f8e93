// Set-up of the FTP and SFTP tests: a scripted FTP peer, and the real
// servers (vsftpd, sshd) run in a private mount and PID namespace that sees
// a test account (quentest, password kPassword) in its own passwd and
// shadow files, so that the machine's accounts and services stay untouched.
// Killing the server ends the namespace and every session in it.
#pragma once

#include "net_support.h"

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
    "$6$quenlibtest$e.4aj6ZUxUA0yOY37DnnyMe06yHnvJPED5sGGeiwaI63bGMUnfqX5VmZdcLpqREpqZ0qDQSipiZpT1N035BwP/";

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
      : m_rules(std::move(rules)), m_greeting(std::move(greeting)), m_peer(family, [this](int fd) { serve(fd); }) {}
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

// A server process in its own process group, mount and PID namespace, with
// files bind-mounted over system paths inside it only. Killed (with every
// process of its namespace) when the guard goes.
class NamespacedServer {
 public:
  NamespacedServer(std::vector<std::string> argv, std::vector<std::pair<std::string, std::string>> binds,
                   std::string const& outFile, bool privateRun) {
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid != 0) return;
    ::setpgid(0, 0);
    int out = ::open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ::dup2(out, 1), ::dup2(out, 2);
    if (::unshare(CLONE_NEWNS | CLONE_NEWPID) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      ::_exit(77);
    for (auto const& [from, to] : binds)
      if (::mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) != 0) ::_exit(78);
    if (privateRun && (::mount("tmpfs", "/run", "tmpfs", 0, "mode=755") != 0 || ::mkdir("/run/sshd", 0755) != 0))
      ::_exit(79);
    if (::fork() == 0) reap(args);  // the first process of the new PID namespace
    int status = 0;
    ::wait(&status);
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
  }
  // The namespace's first process adopts orphans, which servers do not
  // expect of themselves: it runs the server as its child and reaps every
  // process until the server ends.
  [[noreturn]] static void reap(std::vector<char*> const& args) {
    pid_t const server = ::fork();
    if (server == 0) {
      ::execv(args[0], args.data());
      ::_exit(127);
    }
    int status = 0;
    for (pid_t p = 0; p != server;) p = ::wait(&status);
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
  }
  ~NamespacedServer() {
    if (m_pid <= 0) return;
    ::kill(-m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
  }
  NamespacedServer(NamespacedServer const&) = delete;
  NamespacedServer& operator=(NamespacedServer const&) = delete;
  // The exit status when the server has already ended, else -1.
  int ended() {
    int status = 0;
    if (m_pid <= 0 || ::waitpid(m_pid, &status, WNOHANG) != m_pid) return -1;
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  }

 private:
  pid_t m_pid = -1;
};

// Accepts a TCP connection on the loopback address of `family`?
inline bool accepting(int family, unsigned short port) {
  int s = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_storage a = loopback(family, port);
  bool const ok = ::connect(s, reinterpret_cast<sockaddr*>(&a), lengthOf(family)) == 0;
  ::close(s);
  return ok;
}

// A scratch directory with the test account: etc/passwd and etc/shadow
// (system accounts the servers need, plus quentest whose home is home/),
// and the empty directory vsftpd's unprivileged process is kept in.
class TestAccount {
 public:
  TestAccount() {
    ::chmod(m_dir.path().c_str(), 0755);
    std::filesystem::create_directories(m_dir / "etc");
    std::filesystem::create_directories(m_dir / "empty");
    std::filesystem::create_directories(home());
    if (::chown(home().c_str(), kUid, kUid) != 0) m_ok = false;
    std::ofstream passwd(m_dir / "etc/passwd"), shadow(m_dir / "etc/shadow");
    for (char const* sys : {"root:x:0:0::/root:/bin/sh", "nobody:x:65534:65534::/nonexistent:/usr/sbin/nologin",
                            "sshd:x:103:65534::/run/sshd:/usr/sbin/nologin"}) {
      passwd << sys << "\n";
      shadow << std::string(sys).substr(0, std::string(sys).find(':')) << ":*:19000:0:99999:7:::\n";
    }
    passwd << kUser << ":x:" << kUid << ":" << kUid << "::" << home() << ":/bin/sh\n";
    shadow << kUser << ":" << kPasswordHash << ":19000:0:99999:7:::\n";
    std::ofstream(m_dir / "etc/pam") << "auth required pam_unix.so\naccount required pam_unix.so\n"
                                        "session required pam_permit.so\n";
  }
  bool ok() const { return m_ok && !m_dir.path().empty(); }
  std::string home() const { return m_dir / "home"; }
  std::string path(std::string const& name) const { return m_dir / name; }
  std::vector<std::pair<std::string, std::string>> accountBinds() const {
    return {{m_dir / "etc/passwd", "/etc/passwd"}, {m_dir / "etc/shadow", "/etc/shadow"}};
  }

 private:
  ScratchDir m_dir;
  bool m_ok = true;
};

// Waits until the server accepts connections; false (with the reason in
// `why`) when it ended or the deadline passed.
inline bool waitListening(NamespacedServer& server, int family, unsigned short port, std::string& why) {
  bool const up = eventually([&] { return server.ended() == -1 ? accepting(family, port) : true; });
  int const status = server.ended();
  if (status == 77) why = "no private mount/PID namespace could be made here";
  else if (status != -1) why = "the server ended with status " + std::to_string(status);
  else if (!up) why = "the server did not listen in time";
  return why.empty() && up;
}

// vsftpd in the foreground on a free port of the loopback address of
// `family`, active mode only, local logins of the test account.
class Vsftpd {
 public:
  explicit Vsftpd(int family) : m_family(family), m_port(closedPort(family)) {
    if (!std::filesystem::exists("/usr/sbin/vsftpd")) {
      m_skip = "vsftpd is not installed (scripts/packages/net.txt)";
      return;
    }
    std::ofstream conf(m_account.path("vsftpd.conf"));
    conf << (family == AF_INET ? "listen=YES\nlisten_address=127.0.0.1\n" : "listen_ipv6=YES\nlisten_address6=::1\n")
         << "listen_port=" << m_port << "\nbackground=NO\nanonymous_enable=NO\nlocal_enable=YES\n"
         << "write_enable=YES\nlocal_umask=022\npam_service_name=vsftpd\nnopriv_user=nobody\n"
         << "secure_chroot_dir=" << m_account.path("empty") << "\nconnect_from_port_20=NO\npasv_enable=NO\n"
         << "seccomp_sandbox=NO\nxferlog_enable=NO\nuse_localtime=NO\n";
    conf.close();
    auto binds = m_account.accountBinds();
    binds.emplace_back(m_account.path("etc/pam"), "/etc/pam.d/vsftpd");
    m_server = std::make_unique<NamespacedServer>(
        std::vector<std::string>{"/usr/sbin/vsftpd", m_account.path("vsftpd.conf")}, binds,
        m_account.path("vsftpd.out"), false);
    waitListening(*m_server, family, m_port, m_skip);
  }
  // Why the server is not there, empty when it is.
  std::string const& problem() const { return m_skip; }
  std::string host() const { return m_family == AF_INET ? "127.0.0.1" : "::1"; }
  unsigned short port() const { return m_port; }
  std::string home() const { return m_account.home(); }
  // What the server wrote, for failure messages.
  std::string log() const { return readFile(m_account.path("vsftpd.out")); }

 private:
  int m_family;
  TestAccount m_account;
  unsigned short m_port;
  std::string m_skip;
  std::unique_ptr<NamespacedServer> m_server;
};

// sshd -D on a free IPv4 loopback port with its own ed25519 host key,
// password logins of the test account and the internal SFTP server.
class Sshd {
 public:
  Sshd() : m_port(closedPort(AF_INET)) {
    if (!std::filesystem::exists("/usr/sbin/sshd") || !std::filesystem::exists("/usr/bin/ssh-keygen")) {
      m_skip = "sshd or ssh-keygen is not installed (scripts/packages/net.txt)";
      return;
    }
    Child keygen({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", hostKey()}, m_account.path("keygen.out"));
    if (keygen.wait() != 0) {
      m_skip = "ssh-keygen failed";
      return;
    }
    std::ofstream(m_account.path("sshd.conf"))
        << "Port " << m_port << "\nListenAddress 127.0.0.1\nHostKey " << hostKey()
        << "\nPasswordAuthentication yes\nKbdInteractiveAuthentication no\nPubkeyAuthentication no\n"
        << "UsePAM no\nPermitRootLogin no\nPidFile none\nStrictModes no\nLogLevel ERROR\n"
        << "Subsystem sftp internal-sftp\n";
    m_server = std::make_unique<NamespacedServer>(
        std::vector<std::string>{"/usr/sbin/sshd", "-D", "-e", "-f", m_account.path("sshd.conf")},
        m_account.accountBinds(), m_account.path("sshd.out"), true);
    waitListening(*m_server, AF_INET, m_port, m_skip);
  }
  std::string const& problem() const { return m_skip; }
  unsigned short port() const { return m_port; }
  std::string home() const { return m_account.home(); }
  std::string hostKey() const { return m_account.path("hostkey"); }
  std::string path(std::string const& name) const { return m_account.path(name); }

 private:
  TestAccount m_account;
  unsigned short m_port;
  std::string m_skip;
  std::unique_ptr<NamespacedServer> m_server;
};

#ifdef QUENLIB_BINARY_DIR
// Runs the built quen with `args` (and `env` assignments before it): exit
// status and standard output; status -2 when quen is not built.
inline std::pair<int, std::string> runQuen(std::string const& args, std::string const& env = "") {
  std::string const quen = std::string(QUENLIB_BINARY_DIR) + "/tools/quen/quen";
  if (!std::filesystem::exists(quen)) return {-2, ""};
  std::string out;
  FILE* p = ::popen((env + " timeout 30 " + quen + " " + args + " 2>&1").c_str(), "r");
  char buf[4096];
  for (size_t n; p && (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  int const st = p ? ::pclose(p) : -1;
  return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, out};
}
#endif

// Bytes 0, 1, ..., 250, 0, 1, ... (a pattern that shows a shifted piece).
inline std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i % 251);
  return s;
}

inline void writeFile(std::string const& path, std::string const& data) {
  std::ofstream(path, std::ios::binary).write(data.data(), static_cast<std::streamsize>(data.size()));
}

}  // namespace ftptest
