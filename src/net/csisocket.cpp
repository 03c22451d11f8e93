// CSISocket: POSIX stream sockets, name look-ups, host:port texts,
// connecting with retries and a multi-server ping.
#include <quenlib/csisocket.h>
#include <quenlib/sockshelpers.h>

#include "text/stdtext.h"
#include "diagnostics/assert.h"
#include "diagnostics/trace.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace QuenLibA500 {

namespace {

using stdtext::ansi;
using stdtext::errnoText;

std::string_view view(SAnsiString const& s) { return std::string_view(s.getString(), s.getLength()); }


int fd(unsigned int s) { return static_cast<int>(s); }


// getaddrinfo's list, freed on scope exit.
struct AddrInfoDeleter {
  void operator()(addrinfo* a) const {
    if (a) ::freeaddrinfo(a);
  }
};
using AddrInfoList = std::unique_ptr<addrinfo, AddrInfoDeleter>;

int resolve(SAnsiString const& name, int family, int flags, AddrInfoList& out) {
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* list = nullptr;
  int const rc = ::getaddrinfo(name.getString(), nullptr, &hints, &list);
  out.reset(rc == 0 ? list : nullptr);
  return rc;
}

bool isInetFamily(int family) { return family == AF_INET || family == AF_INET6; }

SAnsiString numericText(sockaddr const* sa) {
  char buf[INET6_ADDRSTRLEN] = {};
  void const* bytes = nullptr;
  if (sa->sa_family == AF_INET) bytes = &reinterpret_cast<sockaddr_in const*>(sa)->sin_addr;
  if (sa->sa_family == AF_INET6) bytes = &reinterpret_cast<sockaddr_in6 const*>(sa)->sin6_addr;
  if (!bytes || !::inet_ntop(sa->sa_family, bytes, buf, sizeof buf)) return SAnsiString();
  return SAnsiString(buf);
}

// Port text: decimal digits only, 1 to 65535; -1 otherwise.
int parsePort(std::string_view text) {
  if (text.empty() || text.size() > 5) return -1;
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value >= 1 && value <= 65535 ? value : -1;
}

size_t countOf(std::string_view s, char c) {
  size_t n = 0;
  for (char x : s) n += (x == c);
  return n;
}

// Splits at the colon at `colon`: host before it, port after it.
CSISocket::_splitNamePort_RC splitAt(std::string_view text, size_t colon, std::string_view& host, int& port) {
  host = text.substr(0, colon);
  port = parsePort(text.substr(colon + 1));
  return port == -1 ? CSISocket::SPLIT_BAD_PORT : CSISocket::SPLIT_OK;
}

// Two or more colons: an IPv6 address, perhaps bracketed, perhaps with a port.
CSISocket::_splitNamePort_RC splitIPv6(std::string_view rest, std::string_view& host, int& port) {
  size_t const close = rest.rfind(']');
  if (close == std::string_view::npos) {
    size_t mark = rest.find('%');
    if (mark == std::string_view::npos) mark = rest.find('.');
    size_t const colon = rest.rfind(':');
    if (mark != std::string_view::npos && colon > mark) return splitAt(rest, colon, host, port);
    host = rest;
    return rest.find('[') != std::string_view::npos ? CSISocket::SPLIT_BAD_BRACKETS : CSISocket::SPLIT_OK;
  }
  CSISocket::_splitNamePort_RC rc = CSISocket::SPLIT_OK;
  host = rest;
  if (close + 1 < rest.size() && rest[close + 1] == ':') rc = splitAt(rest, close + 1, host, port);
  bool const opens = !host.empty() && host.front() == '[';
  bool const closes = !host.empty() && host.back() == ']';
  if (opens && closes) {
    host = host.substr(1, host.size() - 2);
    return rc;
  }
  return (opens || closes) ? CSISocket::SPLIT_BAD_BRACKETS : rc;
}

// Milliseconds for poll: -1 seconds waits without limit.
int pollMillis(int32_t seconds, int32_t microseconds) {
  if (seconds == -1) return -1;
  int64_t const ms = static_cast<int64_t>(seconds) * 1000 + microseconds / 1000;
  if (ms < 0) return 0;
  return ms > INT32_MAX ? INT32_MAX : static_cast<int>(ms);
}

int waitFor(unsigned int s, short events, int millis) {
  pollfd p{fd(s), events, 0};
  for (;;) {
    int const rc = ::poll(&p, 1, millis);
    if (rc > 0) return 1;
    if (rc == 0) return 0;
    if (errno != EINTR) return -1;
  }
}

// The socket's pending error (0 when the connect went through).
int pendingError(int s) {
  int err = 0;
  socklen_t len = sizeof err;
  if (::getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return errno;
  return err;
}

bool bindsToAny(int family, short port) {
  int const s = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return true;  // no socket: not in use
  sockaddr_storage addr{};
  addr.ss_family = static_cast<sa_family_t>(family);
  CSISocket::setAny(reinterpret_cast<sockaddr&>(addr));
  CSISocket::setPort(reinterpret_cast<sockaddr&>(addr), static_cast<unsigned short>(port));
  socklen_t const len = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  bool const ok = ::bind(s, reinterpret_cast<sockaddr*>(&addr), len) == 0;
  ::close(s);
  return ok;
}

// One connect started by ping.
struct Probe {
  int fd;
  CSISocket::ServerToPing* server;
  CSISocket::Address address;
};

void startProbes(CSISocket::ServerToPing& server, std::vector<Probe>& probes) {
  for (CSISocket::Address const& a : server.addresses) {
    int const s = ::socket(a.getFamily(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s < 0) {
      QL_TRACE_ERROR("CSISocket::ping - Couldn't create socket for hostname %1 and family %2", server.host,
                     static_cast<int>(a.getFamily()));
      continue;
    }
    sockaddr_storage addr{};
    int const len = a.toSockaddr(static_cast<unsigned short>(server.port), addr);
    if (len == 0) {
      QL_TRACE_ERROR("CSISocket::ping - Couldn't init address for hostname %1 and family %2", server.host,
                     static_cast<int>(a.getFamily()));
      ::close(s);
      continue;
    }
    if (::connect(s, reinterpret_cast<sockaddr*>(&addr), static_cast<socklen_t>(len)) != 0 && errno != EINPROGRESS) {
      ::close(s);
      continue;
    }
    probes.push_back({s, &server, a});
  }
}

bool resolveForPing(CSISocket::ServerToPing& server) {
  if (!server.addresses.empty()) return true;
  sockaddr_storage* addrs = nullptr;
  unsigned int count = 0;
  if (CSISocket::gethostsbyname(server.host, addrs, count) != 0) {
    QL_TRACE_ERROR("CSISocket::ping - Couldn't resolve hostname for %1", server.host);
    return false;
  }
  for (unsigned int i = 0; i < count; ++i)
    server.addresses.emplace_back(reinterpret_cast<sockaddr const&>(addrs[i]));
  delete[] addrs;
  return true;
}

// Waits on every probe until each server has an answer, every probe has
// ended, or the deadline passes. The first address to connect wins.
void waitForProbes(std::vector<Probe>& probes, int millis) {
  using Clock = std::chrono::steady_clock;
  auto const deadline = Clock::now() + std::chrono::milliseconds(millis);
  std::vector<pollfd> fds;
  for (;;) {
    fds.clear();
    for (Probe const& p : probes)
      if (p.fd >= 0 && !p.server->hasPingedAddress()) fds.push_back({p.fd, POLLOUT, 0});
    if (fds.empty()) return;
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return;
    int const rc = ::poll(fds.data(), fds.size(), static_cast<int>(left));
    if (rc < 0 && errno != EINTR) return;
    for (pollfd const& f : fds) {
      if (f.revents == 0) continue;
      for (Probe& p : probes) {
        if (p.fd != f.fd) continue;
        if (pendingError(p.fd) == 0 && !p.server->hasPingedAddress()) p.server->setPingedAddress(p.address);
        ::close(p.fd);
        p.fd = -1;
      }
    }
  }
}

}  // namespace

// ================================================================ Address

CSISocket::Address::Address(sockaddr const& sa) {
  if (sa.sa_family == AF_INET) {
    m_family = AF_INET;
    std::memcpy(m_bytes, &reinterpret_cast<sockaddr_in const&>(sa).sin_addr, 4);
  } else if (sa.sa_family == AF_INET6) {
    m_family = AF_INET6;
    std::memcpy(m_bytes, &reinterpret_cast<sockaddr_in6 const&>(sa).sin6_addr, 16);
  }
}

int CSISocket::Address::toSockaddr(unsigned short port, sockaddr_storage& out) const {
  out = sockaddr_storage{};
  if (m_family == AF_INET) {
    auto& a = reinterpret_cast<sockaddr_in&>(out);
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    std::memcpy(&a.sin_addr, m_bytes, 4);
    return sizeof(sockaddr_in);
  }
  if (m_family == AF_INET6) {
    auto& a = reinterpret_cast<sockaddr_in6&>(out);
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(port);
    std::memcpy(&a.sin6_addr, m_bytes, 16);
    return sizeof(sockaddr_in6);
  }
  return 0;
}

SAnsiString CSISocket::Address::toString() const {
  sockaddr_storage s{};
  if (toSockaddr(0, s) == 0) return SAnsiString();
  return numericText(reinterpret_cast<sockaddr const*>(&s));
}

bool CSISocket::Address::operator==(Address const& o) const {
  return m_family == o.m_family && std::memcmp(m_bytes, o.m_bytes, sizeof m_bytes) == 0;
}

CSISocket::ServerToPing::ServerToPing(SAnsiString const& h, int p) : host(h), port(p) {}
CSISocket::ServerToPing::ServerToPing(SAnsiString const& h, int p, std::list<Address> const& a)
    : host(h), port(p), addresses(a) {}
CSISocket::ServerToPing::ServerToPing(SAnsiString const& h, int p, Address const& a)
    : host(h), port(p), addresses{a} {}

// ================================================================ stack and wrappers

bool CSISocket::initialize() { return true; }

void CSISocket::uninitialize() {}

unsigned int CSISocket::socket(int family, int type, int protocol) {
  int const s = ::socket(family, type | SOCK_CLOEXEC, protocol);
  return s < 0 ? INVALID : static_cast<unsigned int>(s);
}

unsigned int CSISocket::accept(unsigned int s, sockaddr* addr, int* length) {
  socklen_t len = length ? static_cast<socklen_t>(*length) : 0;
  int rc;
  do {
    rc = ::accept4(fd(s), addr, length ? &len : nullptr, SOCK_CLOEXEC);
  } while (rc < 0 && errno == EINTR);
  if (length) *length = static_cast<int>(len);
  return rc < 0 ? INVALID : static_cast<unsigned int>(rc);
}

int CSISocket::connect(unsigned int s, sockaddr const* addr, int length) {
  if (::connect(fd(s), addr, static_cast<socklen_t>(length)) == 0) return 0;
  if (errno != EINTR) return -1;
  // A signal cut the wait short, but the kernel goes on connecting: wait
  // for the outcome instead of calling it a failure, which would leave the
  // peer a connection that nobody uses (and a caller trying a second one).
  if (waitFor(s, POLLOUT, -1) != 1) return -1;
  int const err = pendingError(fd(s));
  if (err == 0) return 0;
  errno = err;
  return -1;
}

int CSISocket::bind(unsigned int s, sockaddr const* addr, int length) {
  return ::bind(fd(s), addr, static_cast<socklen_t>(length));
}

int CSISocket::listen(unsigned int s, int backlog) { return ::listen(fd(s), backlog); }

int CSISocket::select(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* exceptFds, timeval* timeout) {
  return ::select(nfds, readFds, writeFds, exceptFds, timeout);
}

int CSISocket::recv(unsigned int s, char* buf, int length, int flags) {
  return static_cast<int>(::recv(fd(s), buf, static_cast<size_t>(length), flags));
}

int CSISocket::send(unsigned int s, char const* buf, int length, int flags) {
  return static_cast<int>(::send(fd(s), buf, static_cast<size_t>(length), flags | MSG_NOSIGNAL));
}

int CSISocket::shutdown(unsigned int s, int how) { return ::shutdown(fd(s), how); }

int CSISocket::close(unsigned int s) { return ::close(fd(s)); }

int CSISocket::getsockname(unsigned int s, sockaddr* addr, int* length) {
  socklen_t len = static_cast<socklen_t>(*length);
  int const rc = ::getsockname(fd(s), addr, &len);
  *length = static_cast<int>(len);
  return rc;
}

int CSISocket::getLastError() { return errno; }

int CSISocket::setTimeout(unsigned int s, int t) {
  if (t < 1) return 0;
  timeval tv{t, 0};
  return ::setsockopt(fd(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

void CSISocket::setAny(sockaddr& addr) {
  if (addr.sa_family == AF_INET) reinterpret_cast<sockaddr_in&>(addr).sin_addr.s_addr = htonl(INADDR_ANY);
  if (addr.sa_family == AF_INET6) reinterpret_cast<sockaddr_in6&>(addr).sin6_addr = in6addr_any;
}

int CSISocket::getSize(sockaddr const& addr) {
  if (addr.sa_family == AF_INET) return sizeof(sockaddr_in);
  if (addr.sa_family == AF_INET6) return sizeof(sockaddr_in6);
  QL_REPORT("0", "invalid family passed in");
  return 0;
}

void CSISocket::setFamily(sockaddr& addr, unsigned short family) { addr.sa_family = family; }

unsigned short CSISocket::getFamily(sockaddr const& addr) { return addr.sa_family; }

void CSISocket::setPort(sockaddr& addr, unsigned short port) {
  if (addr.sa_family == AF_INET) reinterpret_cast<sockaddr_in&>(addr).sin_port = htons(port);
  if (addr.sa_family == AF_INET6) reinterpret_cast<sockaddr_in6&>(addr).sin6_port = htons(port);
}

unsigned short CSISocket::getPort(sockaddr const& addr) {
  if (addr.sa_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in const&>(addr).sin_port);
  if (addr.sa_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6 const&>(addr).sin6_port);
  return 0;
}

bool CSISocket::haveStack(unsigned short family) {
  int const s = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return false;
  ::close(s);
  return true;
}

bool CSISocket::isLoopback(sockaddr const& addr) {
  if (addr.sa_family == AF_INET)
    return reinterpret_cast<sockaddr_in const&>(addr).sin_addr.s_addr == htonl(INADDR_LOOPBACK);
  if (addr.sa_family == AF_INET6)
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<sockaddr_in6 const&>(addr).sin6_addr);
  return false;
}

// ================================================================ names and addresses

short CSISocket::getportbyname(char const* service, short defaultPort) {
  if (!service || !*service) return defaultPort;
  servent entry{};
  servent* found = nullptr;
  char buf[1024];
  if (::getservbyname_r(service, "tcp", &entry, buf, sizeof buf, &found) != 0 || !found) return defaultPort;
  return static_cast<short>(ntohs(static_cast<uint16_t>(found->s_port)));
}

int CSISocket::gethostbyname(SAnsiString& name) {
  AddrInfoList list;
  int const rc = resolve(name, AF_INET, 0, list);
  if (rc != 0) return rc;
  name = numericText(list->ai_addr);
  return 0;
}

int CSISocket::gethostbyname(SAnsiString const& name, uint32_t& ipv4, unsigned short family) {
  if (family != AF_INET) return EAI_FAMILY;
  AddrInfoList list;
  int const rc = resolve(name, AF_INET, 0, list);
  if (rc != 0) return rc;
  ipv4 = reinterpret_cast<sockaddr_in const*>(list->ai_addr)->sin_addr.s_addr;
  return 0;
}

int CSISocket::gethostbyname(SAnsiString const& name, unsigned short family, sockaddr& addr, unsigned short port) {
  if (!isInetFamily(family)) return EAI_FAMILY;
  AddrInfoList list;
  int const rc = resolve(name, family, 0, list);
  if (rc != 0) return rc;
  std::memcpy(&addr, list->ai_addr, list->ai_addrlen);
  setPort(addr, port);
  return 0;
}

int CSISocket::gethostbyname(SAnsiString const& name, unsigned short family, sockaddr_storage& addr,
                             unsigned short port) {
  addr = sockaddr_storage{};
  return gethostbyname(name, family, reinterpret_cast<sockaddr&>(addr), port);
}

int CSISocket::gethostbyname(SAnsiString const& name, SIArray<uint32_t>& ipv4s) {
  AddrInfoList list;
  int const rc = resolve(name, AF_INET, 0, list);
  if (rc != 0) return rc;
  for (addrinfo const* a = list.get(); a; a = a->ai_next)
    ipv4s.Add(reinterpret_cast<sockaddr_in const*>(a->ai_addr)->sin_addr.s_addr);
  return 0;
}

int CSISocket::gethostbyname(SAnsiString const& name, SAnsiString& ip) {
  AddrInfoList list;
  int rc = resolve(name, AF_INET, 0, list);
  if (rc != 0) rc = resolve(name, AF_UNSPEC, 0, list);
  if (rc != 0) return rc;
  ip = numericText(list->ai_addr);
  return 0;
}

int CSISocket::gethostsbyname(SAnsiString const& name, sockaddr_storage*& out, unsigned int& count) {
  out = nullptr;
  count = 0;
  AddrInfoList list;
  int const rc = resolve(name, AF_UNSPEC, 0, list);
  if (rc != 0) return rc;
  unsigned int n = 0;
  for (addrinfo const* a = list.get(); a; a = a->ai_next) n += isInetFamily(a->ai_family);
  if (n == 0) return EAI_NONAME;
  out = new sockaddr_storage[n]();
  for (addrinfo const* a = list.get(); a; a = a->ai_next)
    if (isInetFamily(a->ai_family)) std::memcpy(&out[count++], a->ai_addr, a->ai_addrlen);
  return 0;
}

int CSISocket::gethostbyaddr(uint32_t ipv4, SAnsiString& name) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = ipv4;
  char host[NI_MAXHOST];
  int const rc = ::getnameinfo(reinterpret_cast<sockaddr*>(&a), sizeof a, host, sizeof host, nullptr, 0, NI_NAMEREQD);
  if (rc != 0) {
    QL_TRACE_ERROR("CSISocket::gethostbyaddr: Cannot gethostbyaddr for %1, error code %2",
                   numericText(reinterpret_cast<sockaddr*>(&a)), rc);
    return rc;
  }
  name = SAnsiString(host);
  return 0;
}

int CSISocket::getipaddresses(SAnsiString const& name, SIArray<SAnsiString>& out) {
  return getipaddresses(name, AF_UNSPEC, out);
}

int CSISocket::getipaddresses(SAnsiString const& name, uint32_t family, SIArray<SAnsiString>& out) {
  AddrInfoList list;
  int const rc = resolve(name, static_cast<int>(family), 0, list);
  if (rc != 0) return rc;
  for (addrinfo const* a = list.get(); a; a = a->ai_next)
    if (isInetFamily(a->ai_family)) out.Add(numericText(a->ai_addr));
  return 0;
}

int CSISocket::getcanonicalname(SAnsiString const& name, SAnsiString& canonical) {
  AddrInfoList list;
  int const rc = resolve(name, AF_UNSPEC, AI_CANONNAME, list);
  if (rc != 0) return rc;
  canonical = SAnsiString(list->ai_canonname ? list->ai_canonname : name.getString());
  return 0;
}

int CSISocket::gethostnames(SAnsiString const& name, SISet<SAnsiString>& names) {
  AddrInfoList list;
  int const rc = resolve(name, AF_UNSPEC, AI_CANONNAME, list);
  if (rc != 0) return rc;
  names.Add(name);
  if (list->ai_canonname) names.Add(SAnsiString(list->ai_canonname));
  for (addrinfo const* a = list.get(); a; a = a->ai_next) {
    char host[NI_MAXHOST];
    if (::getnameinfo(a->ai_addr, a->ai_addrlen, host, sizeof host, nullptr, 0, NI_NAMEREQD) == 0)
      names.Add(SAnsiString(host));
  }
  return 0;
}

int CSISocket::gethostnames(SISet<SAnsiString>& names) {
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) != 0) return EAI_SYSTEM;
  return gethostnames(SAnsiString(host), names);
}

bool CSISocket::getnthipnumeric(unsigned short n, uint32_t& ipv4) {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return false;
  bool found = false;
  unsigned short index = 0;
  for (ifaddrs const* i = list; i && !found; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET) continue;
    if (index++ != n) continue;
    ipv4 = reinterpret_cast<sockaddr_in const*>(i->ifa_addr)->sin_addr.s_addr;
    found = true;
  }
  ::freeifaddrs(list);
  return found;
}

bool CSISocket::getnthipstring(unsigned short n, SAnsiString& ip) {
  uint32_t a = 0;
  if (!getnthipnumeric(n, a)) return false;
  char buf[INET_ADDRSTRLEN];
  ip = SAnsiString(::inet_ntop(AF_INET, &a, buf, sizeof buf));
  return true;
}

SAnsiString CSISocket::getipstring(sockaddr const& addr) { return numericText(&addr); }

bool CSISocket::matchhosts(SAnsiString const& a, SAnsiString const& b, int family, bool* resolved) {
  if (resolved) *resolved = false;
  if (a.compareNoCase(b) == 0) return true;
  AddrInfoList la, lb;
  if (resolve(a, family, 0, la) != 0 || resolve(b, family, 0, lb) != 0) return false;
  if (resolved) *resolved = true;
  for (addrinfo const* x = la.get(); x; x = x->ai_next)
    for (addrinfo const* y = lb.get(); y; y = y->ai_next)
      if (isInetFamily(x->ai_family) && Address(*x->ai_addr) == Address(*y->ai_addr)) return true;
  return false;
}

bool CSISocket::isNumericIPv4(SAnsiString const& text) {
  std::string_view const t = view(text);
  return !t.empty() && t[0] >= '0' && t[0] <= '9' && t.find(':') == std::string_view::npos;
}

bool CSISocket::isNumericIPv6(SAnsiString const& text) {
  std::string_view const t = view(text);
  size_t const first = t.find(':');
  return first != std::string_view::npos && first < t.rfind(':');
}

bool CSISocket::isNumericAddress(SAnsiString const& text) { return isNumericIPv4(text) || isNumericIPv6(text); }

bool CSISocket::isValidIPAddrString(SAnsiString const& text) { return isValidIPAddrString(text, nullptr); }

bool CSISocket::isValidIPAddrString(SAnsiString const& text, uint32_t* ipv4) {
  in_addr a{};
  if (::inet_pton(AF_INET, text.getString(), &a) != 1) return false;
  if (ipv4) *ipv4 = a.s_addr;
  return true;
}

bool CSISocket::isLoopbackIPv4(SAnsiString const& text) {
  in_addr a{};
  return ::inet_pton(AF_INET, text.getString(), &a) == 1 && a.s_addr == htonl(INADDR_LOOPBACK);
}

bool CSISocket::isLoopbackIPv6(SAnsiString const& text) {
  std::string t(view(text));
  if (t.size() >= 2 && t.front() == '[' && t.back() == ']') t = t.substr(1, t.size() - 2);
  in6_addr a{};
  return ::inet_pton(AF_INET6, t.c_str(), &a) == 1 && IN6_IS_ADDR_LOOPBACK(&a);
}

SAnsiString CSISocket::appendPort(SAnsiString const& host, int port) {
  return appendPort(host, SAnsiString(std::to_string(port).c_str()));
}

SAnsiString CSISocket::appendPort(SAnsiString const& host, SAnsiString const& port) {
  if (isNumericIPv6(host) && view(host).substr(0, 1) != "[") return "[" + host + "]:" + port;
  return host + ":" + port;
}

bool CSISocket::splitNamePort(SAnsiString const& text, SAnsiString& host, int& port) {
  return splitNamePortDetailed(text, host, port) == SPLIT_OK;
}

CSISocket::_splitNamePort_RC CSISocket::splitNamePortDetailed(SAnsiString const& text, SAnsiString& host, int& port) {
  SAnsiString socks, target;
  SocksHelpers::SplitURI(text, socks, target);
  std::string_view const rest = view(target);
  std::string_view h = rest;
  port = -1;
  _splitNamePort_RC rc = SPLIT_OK;
  size_t const colons = countOf(rest, ':');
  if (colons == 1) rc = splitAt(rest, rest.find(':'), h, port);
  if (colons >= 2) rc = splitIPv6(rest, h, port);
  host = ansi(h);
  return rc;
}

bool CSISocket::is_port_in_use(bool alsoIPv6, char const* service, short port) {
  if (service) port = getportbyname(service, port);
  if (port < 1) return false;
  if (!bindsToAny(AF_INET, port)) return true;
  return alsoIPv6 && !bindsToAny(AF_INET6, port);
}

bool CSISocket::is_port_in_use(char const* service, short port) { return is_port_in_use(false, service, port); }

SAnsiString CSISocket::getErrorStr(int code) {
  switch (code) {
    case 11001:
    case EAI_NONAME: return "error number EAI_NONAME";
    case 11002:
    case EAI_AGAIN: return "error number EAI_AGAIN";
    case 11003:
    case EAI_FAIL: return "error number EAI_FAIL";
    case 10109:
    case EAI_SERVICE: return "error number EAI_SERVICE";
    case 10044:
    case EAI_SOCKTYPE: return "error number EAI_SOCKTYPE";
    case 8:
    case EAI_MEMORY: return "error number EAI_MEMORY";
    case 10022:
    case EAI_BADFLAGS: return "error number EAI_BADFLAGS";
    case 10047:
    case EAI_FAMILY: return "error number EAI_FAMILY";
    default: return "unknown error!";
  }
}

SAnsiString CSISocket::getLastErrorStr() { return getErrorStr(getLastError()); }

// ================================================================ connecting

int CSISocket::connectEx(unsigned int s, SAnsiString const& host, unsigned short port) {
  return connectEx(s, host, port, AF_INET);
}

int CSISocket::connectEx(unsigned int s, SAnsiString const& host, unsigned short port, unsigned short family) {
  sockaddr_storage addr{};
  int const rc = gethostbyname(host, family, addr, port);
  if (rc != 0) {
    QL_TRACE_ERROR("CSISocket::connectEx: Cannot gethostbyname for %1", host);
    return rc;
  }
  if (connect(s, reinterpret_cast<sockaddr*>(&addr), getSize(reinterpret_cast<sockaddr&>(addr))) != 0) return errno;
  return 0;
}

bool CSISocket::connectNonBlocking(unsigned int s, sockaddr* addr, int length, short timeoutSeconds, short retries) {
  for (int counter = 0;;) {
    if (::connect(fd(s), addr, static_cast<socklen_t>(length)) == 0) return true;
    int err = errno;
    if (err == EWOULDBLOCK || err == EAGAIN || err == EINPROGRESS) {
      // Writable with no pending error is a completed connect; anything
      // else counts as a refusal.
      if (isWriteable(s, timeoutSeconds, 0) == 1 && pendingError(fd(s)) == 0) return true;
      err = ECONNREFUSED;
    }
    if (err != EINTR && err != ECONNREFUSED) {
      QL_TRACE_ERROR("CSISocket::connectNonBlocking failing: %s", errnoText(err));
      return false;
    }
    QL_TRACE_WARNING("CSISocket::connectNonBlocking() connection refused '%s' and doing retry number %d",
                     errnoText(err), counter);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ++counter;
    if (retries != -1 && counter > retries) return false;
  }
}

int CSISocket::connectMulti(SAnsiString const& host, unsigned short port, unsigned int& s) {
  unsigned short family = 0;
  return connectMulti(host, port, s, family);
}

int CSISocket::connectMulti(SAnsiString const& host, unsigned short port, unsigned int& s, unsigned short& family) {
  s = INVALID;
  sockaddr_storage* addrs = nullptr;
  unsigned int count = 0;
  int const rc = gethostsbyname(host, addrs, count);
  if (rc != 0) return rc;
  int result = 0;  // the last socket-creation error; connect errors are not kept
  for (unsigned int i = 0; i < count; ++i) {
    sockaddr& addr = reinterpret_cast<sockaddr&>(addrs[i]);
    setPort(addr, port);
    unsigned int const h = socket(addr.sa_family, SOCK_STREAM, 0);
    if (h == INVALID) {
      result = errno;
      continue;
    }
    family = addr.sa_family;
    if (connect(h, &addr, getSize(addr)) == 0) {
      s = h;
      result = 0;
      break;
    }
    ::close(fd(h));
  }
  delete[] addrs;
  return result;
}

int CSISocket::isReadable(unsigned int s, int32_t seconds) { return waitFor(s, POLLIN, pollMillis(seconds, 0)); }

int CSISocket::isWriteable(unsigned int s, int32_t seconds, int32_t microseconds) {
  return waitFor(s, POLLOUT, pollMillis(seconds, microseconds));
}

int CSISocket::isWriteableMS(unsigned int s, int32_t milliseconds) {
  return isWriteable(s, milliseconds / 1000, (milliseconds % 1000) * 1000);
}

void CSISocket::ping(std::list<ServerToPing>& servers, short timeout) {
  std::vector<Probe> probes;
  for (ServerToPing& server : servers) {
    server.setPingedAddress(Address());
    if (resolveForPing(server)) startProbes(server, probes);
  }
  waitForProbes(probes, static_cast<int>(timeout) * 1000);
  for (Probe const& p : probes)
    if (p.fd >= 0) ::close(p.fd);
}

}  // namespace QuenLibA500
