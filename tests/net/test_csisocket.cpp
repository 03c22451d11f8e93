// CSISocket: host:port texts, address tests, look-ups, connects with retries
// against refusing ports, connectMulti over a name with two addresses, ping.
#include <quenlib/csisocket.h>

#include "net_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <list>
#include <string>

using namespace QuenLibA500;
using namespace nettest;

namespace {

struct SplitRow {
  char const* text;
  char const* host;
  int port;
  int rc;
};

TEST(CSISocketSplit, HostPortTexts) {
  SplitRow const rows[] = {
      {"server", "server", -1, 0},
      {"server:25", "server", 25, 0},
      {"server:0", "server", -1, 1},
      {"server:65535", "server", 65535, 0},
      {"server:65536", "server", -1, 1},
      {"server:+25", "server", -1, 1},
      {"server:", "server", -1, 1},
      {"[::1]:8080", "::1", 8080, 0},
      {"[::1]", "::1", -1, 0},
      {"[::1]:x", "::1", -1, 1},
      {"::1", "::1", -1, 0},
      {"[::1", "[::1", -1, 2},
      {"::1]:80", "::1]", 80, 2},
      {"fe80::1%eth0:443", "fe80::1%eth0", 443, 0},
      {"::ffff:10.0.0.1:8080", "::ffff:10.0.0.1", 8080, 0},
      {"::ffff:10.0.0.1", "::ffff:10.0.0.1", -1, 0},
      {"socks://5;proxy:1080/target:25", "target", 25, 0},
      {"socks://5;proxy:1080", "", -1, 0},
  };
  for (auto const& r : rows) {
    SAnsiString host;
    int port = 7;
    EXPECT_EQ(CSISocket::splitNamePortDetailed(r.text, host, port), r.rc) << r.text;
    EXPECT_EQ(str(host), r.host) << r.text;
    EXPECT_EQ(port, r.port) << r.text;
    EXPECT_EQ(CSISocket::splitNamePort(r.text, host, port), r.rc == 0) << r.text;
  }
}

TEST(CSISocketSplit, AppendPortJoinsWhatSplitGives) {
  EXPECT_EQ(str(CSISocket::appendPort("::1", 80)), "[::1]:80");
  EXPECT_EQ(str(CSISocket::appendPort("[::1]", 80)), "[::1]:80");
  EXPECT_EQ(str(CSISocket::appendPort("host", SAnsiString("80"))), "host:80");
  for (char const* text : {"[::1]:8080", "host:25", "10.1.2.3:1", "[fe80::1%eth0]:443"}) {
    SAnsiString host;
    int port = 0;
    ASSERT_TRUE(CSISocket::splitNamePort(text, host, port)) << text;
    EXPECT_EQ(str(CSISocket::appendPort(host, port)), text);
  }
}

TEST(CSISocketAddress, DeliberatelyLooseNumericTests) {
  struct {
    char const* text;
    bool v4, v6, valid;
  } const rows[] = {
      {"10.0.0.1", true, false, true},   {"1host", true, false, false}, {"host", false, false, false},
      {"a:b", false, false, false},      {"a:b:c", false, true, false}, {"::1", false, true, false},
      {"10.0.0.256", true, false, false}, {"", false, false, false},
  };
  for (auto const& r : rows) {
    EXPECT_EQ(CSISocket::isNumericIPv4(r.text), r.v4) << r.text;
    EXPECT_EQ(CSISocket::isNumericIPv6(r.text), r.v6) << r.text;
    EXPECT_EQ(CSISocket::isNumericAddress(r.text), r.v4 || r.v6) << r.text;
    EXPECT_EQ(CSISocket::isValidIPAddrString(r.text), r.valid) << r.text;
  }
  uint32_t a = 0;
  ASSERT_TRUE(CSISocket::isValidIPAddrString("10.0.0.1", &a));
  EXPECT_EQ(ntohl(a), 0x0a000001u);
  EXPECT_TRUE(CSISocket::isLoopbackIPv4("127.0.0.1"));
  EXPECT_FALSE(CSISocket::isLoopbackIPv4("127.0.0.2"));
  EXPECT_TRUE(CSISocket::isLoopbackIPv6("::1"));
  EXPECT_TRUE(CSISocket::isLoopbackIPv6("[::1]"));
  EXPECT_FALSE(CSISocket::isLoopbackIPv6("::2"));
}

TEST(CSISocketAddress, SockaddrHelpers) {
  sockaddr_storage v4 = loopback(AF_INET, 1), v6 = loopback(AF_INET6, 1);
  auto& a4 = reinterpret_cast<sockaddr&>(v4);
  auto& a6 = reinterpret_cast<sockaddr&>(v6);
  EXPECT_EQ(CSISocket::getSize(a4), 16);
  EXPECT_EQ(CSISocket::getSize(a6), 28);
  EXPECT_TRUE(CSISocket::isLoopback(a4));
  EXPECT_TRUE(CSISocket::isLoopback(a6));
  CSISocket::setPort(a6, 8080);
  EXPECT_EQ(CSISocket::getPort(a6), 8080);
  EXPECT_EQ(str(CSISocket::getipstring(a6)), "::1");
  CSISocket::setAny(a4);
  EXPECT_FALSE(CSISocket::isLoopback(a4));
  EXPECT_EQ(str(CSISocket::getipstring(a4)), "0.0.0.0");
  Recorder rec;
  sockaddr_storage unix{};
  unix.ss_family = AF_UNIX;
  EXPECT_EQ(CSISocket::getSize(reinterpret_cast<sockaddr&>(unix)), 0);
  EXPECT_EQ(rec.asserts(), std::vector<std::string>{"invalid family passed in"});
}

TEST(CSISocketNames, ErrorTextsForBothNumberings) {
  std::pair<int, int> const codes[] = {{11001, EAI_NONAME},  {11002, EAI_AGAIN},    {11003, EAI_FAIL},
                                       {10109, EAI_SERVICE}, {10044, EAI_SOCKTYPE}, {8, EAI_MEMORY},
                                       {10022, EAI_BADFLAGS}, {10047, EAI_FAMILY}};
  char const* const names[] = {"EAI_NONAME", "EAI_AGAIN",  "EAI_FAIL",     "EAI_SERVICE",
                               "EAI_SOCKTYPE", "EAI_MEMORY", "EAI_BADFLAGS", "EAI_FAMILY"};
  for (size_t i = 0; i < std::size(codes); ++i) {
    EXPECT_EQ(str(CSISocket::getErrorStr(codes[i].first)), std::string("error number ") + names[i]);
    EXPECT_EQ(str(CSISocket::getErrorStr(codes[i].second)), std::string("error number ") + names[i]);
  }
  EXPECT_EQ(str(CSISocket::getErrorStr(0)), "unknown error!");
  EXPECT_EQ(str(CSISocket::getErrorStr(10061)), "unknown error!");
}

TEST(CSISocketNames, LookUps) {
  EXPECT_EQ(CSISocket::getportbyname("smtp", 7), 25);
  EXPECT_EQ(CSISocket::getportbyname("no-such-service", 7), 7);
  SIArray<SAnsiString> ips;
  ASSERT_EQ(CSISocket::getipaddresses("localhost", AF_INET, ips), 0);
  EXPECT_NE(ips.Find("127.0.0.1"), -1);
  SAnsiString name = "localhost";
  ASSERT_EQ(CSISocket::gethostbyname(name), 0);
  EXPECT_EQ(str(name), "127.0.0.1");
  uint32_t v4 = 0;
  ASSERT_EQ(CSISocket::gethostbyname("127.0.0.1", v4, AF_INET), 0);
  EXPECT_EQ(v4, htonl(INADDR_LOOPBACK));
  sockaddr_storage* all = nullptr;
  unsigned int count = 0;
  EXPECT_EQ(CSISocket::gethostsbyname("name.invalid", all, count), EAI_NONAME);
  EXPECT_EQ(count, 0u);
  ASSERT_EQ(CSISocket::gethostsbyname("::1", all, count), 0);
  ASSERT_EQ(count, 1u);
  EXPECT_TRUE(CSISocket::isLoopback(reinterpret_cast<sockaddr&>(all[0])));
  delete[] all;
  bool resolved = false;
  EXPECT_TRUE(CSISocket::matchhosts("LOCALHOST", "localhost"));
  EXPECT_TRUE(CSISocket::matchhosts("localhost", "127.0.0.1", AF_UNSPEC, &resolved));
  EXPECT_TRUE(resolved);
  EXPECT_FALSE(CSISocket::matchhosts("127.0.0.1", "::1"));
  SAnsiString first;
  ASSERT_TRUE(CSISocket::getnthipstring(0, first));
  EXPECT_TRUE(CSISocket::isValidIPAddrString(first));
}

TEST(CSISocketPorts, InUseIsAFailedBind) {
  unsigned short port = lowFreePort(AF_INET);
  sockaddr_storage any = loopback(AF_INET, port);
  CSISocket::setAny(reinterpret_cast<sockaddr&>(any));
  unsigned int s = CSISocket::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(CSISocket::bind(s, reinterpret_cast<sockaddr*>(&any), sizeof(sockaddr_in)), 0);
  ASSERT_EQ(CSISocket::listen(s, 1), 0);
  EXPECT_TRUE(CSISocket::is_port_in_use(nullptr, static_cast<short>(port)));
  CSISocket::close(s);
  EXPECT_FALSE(CSISocket::is_port_in_use(true, nullptr, static_cast<short>(lowFreePort(AF_INET))));
  EXPECT_FALSE(CSISocket::is_port_in_use(nullptr, 0));
  EXPECT_FALSE(CSISocket::is_port_in_use(nullptr, static_cast<short>(40000)));  // negative as short
  unsigned int sock = CSISocket::socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(CSISocket::setTimeout(sock, 0), 0);
  EXPECT_NE(::fcntl(static_cast<int>(sock), F_GETFD) & FD_CLOEXEC, 0);
  CSISocket::close(sock);
}

TEST(CSISocketConnect, RetriesAgainstARefusingPortAreCountedInTraces) {
  Recorder rec;
  sockaddr_storage a = loopback(AF_INET, closedPort(AF_INET));
  unsigned int s = CSISocket::socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_FALSE(CSISocket::connectNonBlocking(s, reinterpret_cast<sockaddr*>(&a), sizeof(sockaddr_in), 1, 2));
  CSISocket::close(s);
  EXPECT_EQ(rec.countTraced("CSISocket::connectNonBlocking() connection refused '"), 3);
  EXPECT_TRUE(rec.traced("and doing retry number 2"));
  EXPECT_FALSE(rec.traced("and doing retry number 3"));
}

TEST(CSISocketConnect, EndlessRetriesSucceedOnceThePortListens) {
  Recorder rec;
  unsigned short port = closedPort(AF_INET6);
  int late = -1;
  std::thread opener([&] {
    std::this_thread::sleep_for(1500ms);
    late = listenOn(AF_INET6, port);
  });
  sockaddr_storage a = loopback(AF_INET6, port);
  unsigned int s = CSISocket::socket(AF_INET6, SOCK_STREAM, 0);
  std::atomic<bool> done{false};
  bool connected = false;
  std::thread caller([&] {
    connected = CSISocket::connectNonBlocking(s, reinterpret_cast<sockaddr*>(&a), sizeof(sockaddr_in6), 1, -1);
    done = true;
  });
  bool const finished = WaitFor([&] { return done.load(); });
  if (!finished) CSISocket::close(s);  // ends the retries with EBADF: fail, do not hang
  opener.join();
  caller.join();
  EXPECT_TRUE(finished);
  EXPECT_TRUE(connected);
  EXPECT_GE(rec.countTraced("connection refused"), 1);
  if (finished) CSISocket::close(s);
  ::close(late);
}

TEST(CSISocketConnect, NonBlockingSocketWaitsForTheConnect) {
  unsigned short port = 0;
  int l = listenOn(AF_INET, 0, &port);
  sockaddr_storage a = loopback(AF_INET, port);
  int s = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  EXPECT_TRUE(CSISocket::connectNonBlocking(static_cast<unsigned>(s), reinterpret_cast<sockaddr*>(&a),
                                            sizeof(sockaddr_in), 2, 0));
  EXPECT_EQ(CSISocket::isWriteableMS(static_cast<unsigned>(s), 1000), 1);
  EXPECT_EQ(CSISocket::isReadable(static_cast<unsigned>(s), 0), 0);
  ::close(s);
  ::close(l);
}

TEST(CSISocketConnect, ConnectMultiReportsOnlySocketErrors) {
  unsigned int s = 0;
  unsigned short family = 0;
  EXPECT_EQ(CSISocket::connectMulti("127.0.0.1", closedPort(AF_INET), s, family), 0);
  EXPECT_EQ(s, CSISocket::INVALID);
  EXPECT_EQ(family, AF_INET);
  EXPECT_EQ(CSISocket::connectMulti("name.invalid", 80, s), EAI_NONAME);
  unsigned int byName = CSISocket::socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(CSISocket::connectEx(byName, "name.invalid", 80), EAI_NONAME);
  EXPECT_EQ(CSISocket::connectEx(byName, "127.0.0.1", closedPort(AF_INET)), ECONNREFUSED);
  CSISocket::close(byName);
}

// A name with two addresses exists only in a private mount namespace; the
// resolver puts ::1 before 127.0.0.1, and only 127.0.0.1 listens.
TEST(CSISocketConnect, ConnectMultiReachesTheLastAddress) {
  unsigned short port = 0;
  int l = listenOn(AF_INET, 0, &port);
  int const rc = withHosts("::1 multi.quenlib.test\n127.0.0.1 multi.quenlib.test\n", [&] {
    unsigned int s = CSISocket::INVALID;
    unsigned short family = 0;
    int const r = CSISocket::connectMulti("multi.quenlib.test", port, s, family);
    return r != 0 ? 1 : s == CSISocket::INVALID ? 2 : family != AF_INET ? 3 : 0;
  });
  ::close(l);
  if (rc == 77) GTEST_SKIP() << "no private mount namespace for a test hosts file";
  EXPECT_EQ(rc, 0) << "1 resolver error, 2 no handle, 3 wrong family";
}

TEST(CSISocketPing, TwoOfThreeServersAnswer) {
  unsigned short p4 = 0, p6 = 0;
  int l4 = listenOn(AF_INET, 0, &p4), l6 = listenOn(AF_INET6, 0, &p6);
  std::list<CSISocket::ServerToPing> servers;
  servers.emplace_back("127.0.0.1", p4);
  sockaddr_storage const any4 = loopback(AF_INET, 0);
  servers.emplace_back("closed", closedPort(AF_INET), CSISocket::Address(reinterpret_cast<sockaddr const&>(any4)));
  servers.emplace_back("::1", p6);
  auto start = std::chrono::steady_clock::now();
  CSISocket::ping(servers, 5);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);  // ends once every server is settled
  auto it = servers.begin();
  EXPECT_EQ(str(it->getPingedAddress().toString()), "127.0.0.1");
  EXPECT_FALSE((++it)->hasPingedAddress());
  EXPECT_EQ(str((++it)->getPingedAddress().toString()), "::1");
  EXPECT_EQ(it->getAddresses().size(), 1u);
  ::close(l4);
  ::close(l6);
}

}  // namespace
