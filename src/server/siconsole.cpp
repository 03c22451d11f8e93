// siconsole.cpp: the diagnostic console, a TCP line service on loopback.
//
// The console listens on the loopback address only: its commands can damage
// data, so it is for an operator on the machine (or through an SSH tunnel),
// never for the network. Every wait polls at most 200 ms, so that a server
// that stops ends its console promptly.
#include <quenlib/siconsole.h>
#include <quenlib/siserver.h>
#include <quenlib/siservice.h>

#include "diagnostics/trace.h"
#include "server/serverstate.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>

namespace QuenLibA500 {

namespace serverstate {
namespace {
std::atomic<bool> gStopConsoles{false};
}
void StopConsoles() { gStopConsoles.store(true); }
void ResumeConsoles() { gStopConsoles.store(false); }
bool ConsolesStopping() { return gStopConsoles.load(); }
}  // namespace serverstate

namespace {

constexpr int kPollMs = 200;
constexpr size_t kMaxLine = 4096;

// Waits until fd is readable or the consoles are asked to stop.
bool WaitReadable(int fd) {
  while (!serverstate::ConsolesStopping()) {
    pollfd p{fd, POLLIN, 0};
    int const r = ::poll(&p, 1, kPollMs);
    if (r > 0) return true;
    if (r < 0 && errno != EINTR) return false;
  }
  return false;
}

int OpenListener(int family, unsigned short port) {
  int const af = family == 6 ? AF_INET6 : AF_INET;
  int const fd = ::socket(af, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int const one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  int rc = -1;
  if (af == AF_INET6) {
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(port);
    a.sin6_addr = in6addr_loopback;
    rc = ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  } else {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    rc = ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  }
  if (rc != 0 || ::listen(fd, 4) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

char const* const SIConsole::kBanner[4] = {
    "  WARNING ... WARNING ... WARNING",
    "  This \"console\" mode should only be used by qualified Tolvane",
    "  employees for diagnostics or on-site repairs.",
    "  Using these commands can cause irreparable data corruption or data loss."};
char const* const SIConsole::kCommandWarning =
    "Warning: Any command entered may cause irreparable data corruption or data loss.";

SIConsole::SIConsole(char const* name, CSmartRefCountPtr<SIServer> server, SAnsiString const& logName, int fd)
    : m_name(name ? name : ""), m_server(std::move(server)), m_logName(logName), m_fd(fd) {}

SIConsole::~SIConsole() = default;

bool SIConsole::writeText(char const* text, size_t length) {
  while (length > 0) {
    ssize_t const n = ::send(m_fd, text, length, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // A descriptor that is not a socket (the process's own terminal).
      ssize_t const w = n < 0 && errno == ENOTSOCK ? ::write(m_fd, text, length) : -1;
      if (w <= 0) return false;
      text += w;
      length -= static_cast<size_t>(w);
      continue;
    }
    text += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

bool SIConsole::writeLine(SAnsiString const& text) {
  return writeText(text.getString(), text.getLength()) && writeText("\r\n", 2);
}

// One line without its CR LF. Telnet negotiation (IAC sequences) is
// skipped, so `telnet` and `nc` both work. False at end of input.
bool SIConsole::readLine(SAnsiString& line) {
  std::string text;
  int iacSkip = 0;
  for (;;) {
    if (!WaitReadable(m_fd)) return false;
    unsigned char c = 0;
    ssize_t const n = ::read(m_fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      QL_TRACE(SLogger::tl_M, "stdin: telnet closed?: %1", n == 0 ? std::string("end of input")
                                                                   : std::system_category().message(errno));
      return false;
    }
    if (iacSkip > 0) {
      --iacSkip;
      if (iacSkip == 1 && (c < 251 || c > 254)) iacSkip = 0;  // a two-byte command
      continue;
    }
    if (c == 255) {
      iacSkip = 2;
      continue;
    }
    if (c == '\n') break;
    if (c != '\r' && c != 0 && text.size() < kMaxLine) text += static_cast<char>(c);
  }
  line = SAnsiString(text.data(), static_cast<unsigned>(text.size()));
  return true;
}

void SIConsole::run() {
  for (char const* banner : kBanner)
    if (!writeLine(banner)) return;
  for (;;) {
    QL_TRACE(SLogger::tl_L, "getting command: %1", m_logName);
    if (!writeLine(kCommandWarning)) return;
    SAnsiString const prompt = m_name + SAnsiString(" @ your command:");
    if (!writeText(prompt.getString(), prompt.getLength())) return;
    SAnsiString command;
    if (!readLine(command)) return;
    QL_TRACE(SLogger::tl_M, "command: %1", command);
    if (command == SAnsiString("quit")) return;
    if (command == SAnsiString("debug")) {
      SINTService* service = SINTService::instance();
      bool const on = service && !service->getDebug();
      if (service) service->setDebug(on);
      if (!writeLine(on ? "debug on" : "debug off")) return;
      continue;
    }
    if (command.isEmpty()) continue;
    SAnsiString const answer = m_server ? m_server->processCommand(command) : SAnsiString("no server");
    if (!writeLine(answer)) return;
  }
}

void SIServerController::telnetd(CSmartRefCountPtr<SIServer>& server, int family, unsigned short port,
                                 SAnsiString const& name) {
  QL_TRACE(SLogger::tl_S, "starting console: %1", static_cast<int>(port));
  int const listener = OpenListener(family, port);
  if (listener < 0) {
    QL_TRACE(SLogger::tl_Error, "could not bind to port %1", static_cast<int>(port));
    return;
  }
  while (WaitReadable(listener)) {
    int const fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      QL_TRACE(SLogger::tl_Error, "accept() failed on port %1", static_cast<int>(port));
      break;
    }
    SIConsole console(name.getString(), server, name, fd);
    console.run();
    QL_TRACE(SLogger::tl_M, "closing connection: %1", static_cast<int>(port));
    ::close(fd);
  }
  ::close(listener);
}

}  // namespace QuenLibA500
