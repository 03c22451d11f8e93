// timeserver.cpp: one thread serves every client with poll().
#include "timeserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

// The server's settings live under the company key, "TimeServer".
class TimeServerRegistry : public ServerRegistry {
 public:
  TimeServerRegistry() : ServerRegistry("TimeServer", "") {}
};

constexpr size_t kMaxRequest = 1024;
constexpr size_t kMaxClients = 4096;

struct Client {
  int fd;
  std::string in;
  std::string out;
};

void Trace(SLogger::tracelevel level, char const* format, STraceParameter const& a = STraceParameter(),
           STraceParameter const& b = STraceParameter()) {
  STraceObj(__FILE__, __LINE__, level)(format, a, b);
}

int Listen(std::string const& address, int port) {
  int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  int const one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  if (::inet_pton(AF_INET, address.c_str(), &a.sin_addr) != 1 ||
      ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 256) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Moves complete lines of c.in to answers in c.out; false when the client
// sent a line too long to be a zone.
bool AnswerLines(Client& c, std::atomic<long>& answers) {
  size_t eol;
  while ((eol = c.in.find('\n')) != std::string::npos) {
    std::string line = c.in.substr(0, eol);
    c.in.erase(0, eol + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    c.out += TimeServer::Answer(line) + "\r\n";
    ++answers;
  }
  return c.in.size() <= kMaxRequest;
}

// Reads what is there and writes what it can; false when the client is done.
bool Service(Client& c, short revents, std::atomic<long>& answers) {
  if (revents & (POLLERR | POLLNVAL)) return false;
  if (revents & (POLLIN | POLLHUP)) {
    char buf[4096];
    ssize_t const n = ::recv(c.fd, buf, sizeof buf, 0);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return false;
    if (n > 0) c.in.append(buf, static_cast<size_t>(n));
    if (!AnswerLines(c, answers)) return false;
  }
  while (!c.out.empty()) {
    ssize_t const n = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL);
    if (n < 0) return errno == EAGAIN || errno == EINTR;
    c.out.erase(0, static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

TimeServer::TimeServer() = default;
TimeServer::~TimeServer() { stop(); }

std::string TimeServer::Answer(std::string const& request) {
  SDateTime const now = SDateTime::GetCurrentDateTime();
  if (request == "utc" || request == "UTC") {
    return now.Format("yyyy-MM-dd HH:mm:ss.SSS").getString() + std::string(" UTC");
  }
  STimeZone const given{SAnsiString(request.c_str())};
  STimeZone const& zone = request == "local" || request.empty() ? STimeZone::TZ_Local() : given;
  return std::string(now.Format("yyyy-MM-dd HH:mm:ss.SSS", zone).getString()) + " " +
         zone.GetName(now).getString();
}

void TimeServer::initialize() {
  TimeServerRegistry settings;
  SAnsiString const port = settings.ReadValue("Port", DWORD{7070});
  SAnsiString const address = settings.ReadValue("Address", SAnsiString("127.0.0.1"));
  m_configuredPort = std::atoi(port.getString());
  m_address = address.getString();
  Trace(SLogger::tl_S, "timeserver: configured for %1 port %2", m_address, m_configuredPort);
}

int TimeServer::readyToServe(int port) {
  int const use = port > 0 ? port : m_configuredPort;
  m_listener = Listen(m_address, use);
  if (m_listener < 0) {
    Trace(SLogger::tl_Error, "timeserver: cannot listen on port %1: %2", use, std::strerror(errno));
    return 1;
  }
  m_loop = std::make_unique<STerminatingThread>("timeserve", [this](STerminatingThread& self) { serve(self); });
  m_loop->start();
  Trace(SLogger::tl_S, "timeserver: listening on %1:%2", m_address, use);
  SIServerController::instance()->signalServerRunning();
  return 0;
}

void TimeServer::serve(STerminatingThread& self) {
  std::vector<Client> clients;
  std::vector<pollfd> fds;
  while (!self.isStopRequested()) {
    fds.assign(1, pollfd{m_listener, POLLIN, 0});
    for (Client const& c : clients) fds.push_back(pollfd{c.fd, short(POLLIN | (c.out.empty() ? 0 : POLLOUT)), 0});
    if (::poll(fds.data(), fds.size(), 200) <= 0) continue;
    for (size_t i = clients.size(); i-- > 0;) {
      if (!fds[i + 1].revents || Service(clients[i], fds[i + 1].revents, m_answers)) continue;
      ::close(clients[i].fd);
      clients.erase(clients.begin() + static_cast<long>(i));
      --m_open;
    }
    if (!(fds[0].revents & POLLIN)) continue;
    int fd;
    while (clients.size() < kMaxClients &&
           (fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0) {
      clients.push_back(Client{fd, {}, {}});
      ++m_connections;
      ++m_open;
    }
  }
  for (Client const& c : clients) ::close(c.fd);
  m_open = 0;
}

void TimeServer::stop() {
  if (m_loop) {
    m_loop->stop(5000);
    m_loop.reset();
  }
  if (m_listener >= 0) ::close(m_listener);
  m_listener = -1;
}

void TimeServer::uninitialize() {
  Trace(SLogger::tl_S, "timeserver: answered %1 requests on %2 connections", static_cast<long long>(m_answers),
        static_cast<long long>(m_connections));
}

SAnsiString TimeServer::processCommand(SAnsiString const& command) {
  std::string const c = command.getString();
  if (c == "status")
    return ("connections: " + std::to_string(m_connections) + ", open: " + std::to_string(m_open) +
            ", answers: " + std::to_string(m_answers))
        .c_str();
  if (c.rfind("time ", 0) == 0) return Answer(c.substr(5)).c_str();
  if (c == "restart") {
    // The console refuses internal shutdown; the operator's request takes
    // the same path as SIGTERM.
    SIServerController::setServerRestartFlag();
    ::kill(::getpid(), SIGTERM);
    return "restarting";
  }
  return "commands: status, time ZONE, restart, debug, quit";
}
