// csisocket.h: the library's thin layer over POSIX stream sockets.
//
// `CSISocket` has only static members: socket wrappers that make every
// handle close-on-exec, name and address look-ups, host:port texts (IPv4,
// IPv6 with and without brackets), connecting with retries and time-outs,
// readiness tests, and a "ping" that probes several servers at once.
//
//   SAnsiString host;
//   int port = 0;
//   if (CSISocket::splitNamePort("[::1]:8080", host, port)) {   // "::1", 8080
//     unsigned int s = CSISocket::INVALID;
//     unsigned short family = 0;
//     if (CSISocket::connectMulti(host, port, s, family) == 0 && s != CSISocket::INVALID) {
//       CSISocket::send(s, "hello\r\n", 7, 0);
//       CSISocket::close(s);
//     }
//   }
//   SAnsiString text = CSISocket::appendPort("::1", 8080);           // "[::1]:8080"
//
//   std::list<CSISocket::ServerToPing> servers;
//   servers.emplace_back("mail.example.org", 25);
//   CSISocket::ping(servers, 3);                      // waits at most 3 seconds
//   for (auto const& s : servers)
//     if (s.hasPingedAddress()) use(s.getPingedAddress().toString());
//
// Handles are file descriptors held in `unsigned int`; `INVALID` (all ones)
// is no socket. Resolver failures are the `EAI_*` codes of getaddrinfo
// (negative); other failures leave errno set (getLastError). Everything is
// re-entrant and nothing is locked. Diagnostics go to the library's trace
// channel under the source name "csisocket".
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/siarray.h>
#include <quenlib/simap.h>
#include <quenlib/sstring.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <list>

namespace QuenLibA500 {

class QUENLIB_API CSISocket {
 public:
  static constexpr unsigned int INVALID = static_cast<unsigned int>(-1);

  // Result codes of splitNamePortDetailed.
  enum _splitNamePort_RC : int {
    SPLIT_OK = 0,            // host (and port, if any) found
    SPLIT_BAD_PORT = 1,      // the port is not a number from 1 to 65535
    SPLIT_BAD_BRACKETS = 2,  // the brackets of an IPv6 address are unbalanced
  };

  // One candidate address of a server: family (AF_INET or AF_INET6) and its
  // address bytes (4 or 16), without a port.
  class QUENLIB_API Address {
   public:
    Address() = default;
    // From an AF_INET or AF_INET6 socket address; other families give an
    // empty Address (family 0).
    explicit Address(sockaddr const& sa);
    unsigned short getFamily() const { return m_family; }
    bool isEmpty() const { return m_family == 0; }
    // Fills `out` with this address and `port`; the length, or 0 when empty.
    int toSockaddr(unsigned short port, sockaddr_storage& out) const;
    // The numeric text ("127.0.0.1", "::1"); empty when empty.
    SAnsiString toString() const;
    bool operator==(Address const& o) const;
    bool operator!=(Address const& o) const { return !(*this == o); }

   private:
    unsigned short m_family = 0;
    unsigned char m_bytes[16] = {};
  };

  // A server for ping: host, port, candidate addresses and the one that
  // answered. Without addresses, ping resolves the host first.
  struct QUENLIB_API ServerToPing {
    ServerToPing(SAnsiString const& host, int port);
    ServerToPing(SAnsiString const& host, int port, std::list<Address> const& addresses);
    ServerToPing(SAnsiString const& host, int port, Address const& address);
    ServerToPing(ServerToPing const&) = default;
    ServerToPing& operator=(ServerToPing const&) = default;

    SAnsiString getHost() const { return host; }
    SAnsiString getAnsiHost() const { return host; }
    int getPort() const { return port; }
    std::list<Address> const& getAddresses() const { return addresses; }
    void setAddresses(std::list<Address> const& a) { addresses = a; }
    void setPingedAddress(Address const& a) { pingedAddress = a; }
    Address const& getPingedAddress() const { return pingedAddress; }
    bool hasPingedAddress() const { return !pingedAddress.isEmpty(); }

    SAnsiString host;
    int port;
    std::list<Address> addresses;
    Address pingedAddress;
  };

  // ---- the stack and plain wrappers

  // No stack start-up exists here: both keep their contracts and succeed.
  static bool initialize();
  static void uninitialize();

  // A socket (close-on-exec); INVALID on failure.
  static unsigned int socket(int family, int type, int protocol);
  // Accepts (close-on-exec), repeating while interrupted; INVALID on failure.
  static unsigned int accept(unsigned int s, sockaddr* addr, int* length);
  // Connects a blocking socket: 0, or -1 with errno. A signal arriving
  // while it waits does not end the attempt: the call waits for its outcome.
  static int connect(unsigned int s, sockaddr const* addr, int length);
  static int bind(unsigned int s, sockaddr const* addr, int length);
  static int listen(unsigned int s, int backlog);
  static int select(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* exceptFds, timeval* timeout);
  static int recv(unsigned int s, char* buf, int length, int flags);
  static int send(unsigned int s, char const* buf, int length, int flags);
  static int shutdown(unsigned int s, int how);
  static int close(unsigned int s);
  static int getsockname(unsigned int s, sockaddr* addr, int* length);
  // errno of the last failed call on this thread.
  static int getLastError();

  // Receive time-out of `t` seconds; t < 1 changes nothing and returns 0.
  static int setTimeout(unsigned int s, int t);
  static void setAny(sockaddr& addr);
  // 16 for IPv4, 28 for IPv6; other families assert and give 0.
  static int getSize(sockaddr const& addr);
  static void setFamily(sockaddr& addr, unsigned short family);
  static unsigned short getFamily(sockaddr const& addr);
  // Port in host byte order (stored in network byte order).
  static void setPort(sockaddr& addr, unsigned short port);
  static unsigned short getPort(sockaddr const& addr);
  static bool haveStack(unsigned short family);
  // IPv4: exactly 127.0.0.1; IPv6: ::1.
  static bool isLoopback(sockaddr const& addr);

  // ---- names and addresses (int results: 0 or an EAI_* code)

  // Port of a TCP service in host byte order, or `defaultPort`.
  static short getportbyname(char const* service, short defaultPort);
  // Replaces `name` by the numeric text of its first IPv4 address.
  static int gethostbyname(SAnsiString& name);
  // The first address of `family` (only AF_INET fits in 32 bits; network
  // byte order).
  static int gethostbyname(SAnsiString const& name, uint32_t& ipv4, unsigned short family);
  // The first address of `family` with `port` (`addr` must be big enough
  // for the family).
  static int gethostbyname(SAnsiString const& name, unsigned short family, sockaddr& addr, unsigned short port);
  static int gethostbyname(SAnsiString const& name, unsigned short family, sockaddr_storage& addr,
                           unsigned short port);
  // Every IPv4 address (network byte order), appended.
  static int gethostbyname(SAnsiString const& name, SIArray<uint32_t>& ipv4s);
  // Numeric text of the first address (IPv4 preferred).
  static int gethostbyname(SAnsiString const& name, SAnsiString& ip);
  // Every IPv4 and IPv6 address, in the resolver's order, as an array the
  // caller frees with delete[].
  static int gethostsbyname(SAnsiString const& name, sockaddr_storage*& out, unsigned int& count);
  // Reverse lookup of an IPv4 address (network byte order).
  static int gethostbyaddr(uint32_t ipv4, SAnsiString& name);
  static int getipaddresses(SAnsiString const& name, SIArray<SAnsiString>& out);
  static int getipaddresses(SAnsiString const& name, uint32_t family, SIArray<SAnsiString>& out);
  static int getcanonicalname(SAnsiString const& name, SAnsiString& canonical);
  // The name, its canonical name and the reverse names of its addresses.
  static int gethostnames(SAnsiString const& name, SISet<SAnsiString>& names);
  static int gethostnames(SISet<SAnsiString>& names);
  // The n-th (from 0) IPv4 address of the local interfaces.
  static bool getnthipnumeric(unsigned short n, uint32_t& ipv4);
  static bool getnthipstring(unsigned short n, SAnsiString& ip);
  static SAnsiString getipstring(sockaddr const& addr);
  // Same host: equal texts (case ignored), or a common address once both
  // are resolved in `family` (AF_UNSPEC: any). `resolved`, when given,
  // tells whether both names resolved.
  static bool matchhosts(SAnsiString const& a, SAnsiString const& b, int family = AF_UNSPEC,
                         bool* resolved = nullptr);

  // Deliberately loose: a leading digit and no colon.
  static bool isNumericIPv4(SAnsiString const& text);
  // Deliberately loose: at least two colons.
  static bool isNumericIPv6(SAnsiString const& text);
  static bool isNumericAddress(SAnsiString const& text);
  // A valid dotted IPv4 address; the second form also gives it (network
  // byte order).
  static bool isValidIPAddrString(SAnsiString const& text);
  static bool isValidIPAddrString(SAnsiString const& text, uint32_t* ipv4);
  static bool isLoopbackIPv4(SAnsiString const& text);
  static bool isLoopbackIPv6(SAnsiString const& text);

  // "[v6]:port" for a bare IPv6 address, else host + ":" + port.
  static SAnsiString appendPort(SAnsiString const& host, int port);
  static SAnsiString appendPort(SAnsiString const& host, SAnsiString const& port);
  static bool splitNamePort(SAnsiString const& text, SAnsiString& host, int& port);
  static _splitNamePort_RC splitNamePortDetailed(SAnsiString const& text, SAnsiString& host, int& port);

  // Whether a bind to the port fails (IPv4, then IPv6 if asked).
  static bool is_port_in_use(bool alsoIPv6, char const* service, short port);
  static bool is_port_in_use(char const* service, short port);

  // Text of a resolver error (EAI_* or the original numbers).
  static SAnsiString getErrorStr(int code);
  static SAnsiString getLastErrorStr();

  // ---- connecting and readiness

  // Resolves `host` and connects `s`: 0, an EAI_* code, or errno.
  static int connectEx(unsigned int s, SAnsiString const& host, unsigned short port);
  static int connectEx(unsigned int s, SAnsiString const& host, unsigned short port, unsigned short family);
  // Connect, waiting up to timeoutSeconds for a pending connect, retrying
  // once a second on refusal up to `retries` times (-1: without end).
  static bool connectNonBlocking(unsigned int s, sockaddr* addr, int length, short timeoutSeconds,
                                 short retries);
  // Connects to the first address that accepts; see docs/net.md for the
  // result (check `s` as well).
  static int connectMulti(SAnsiString const& host, unsigned short port, unsigned int& s);
  static int connectMulti(SAnsiString const& host, unsigned short port, unsigned int& s,
                          unsigned short& family);
  // 1 ready, 0 time-out, -1 error; seconds -1 waits without limit.
  static int isReadable(unsigned int s, int32_t seconds);
  static int isWriteable(unsigned int s, int32_t seconds, int32_t microseconds);
  static int isWriteableMS(unsigned int s, int32_t milliseconds);

  // Starts a connect to every address of every server and waits for them
  // together, at most `timeout` seconds.
  static void ping(std::list<ServerToPing>& servers, short timeout);
};

}  // namespace QuenLibA500
