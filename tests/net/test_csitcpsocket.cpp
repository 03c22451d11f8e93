// CSITcpSocket against misbehaving plain peers on 127.0.0.1 and [::1], and
// TLS against Debian's openssl s_server with pinned certificates.
#include <quenlib/csisocket.h>
#include <quenlib/csitcpsocket.h>

#include "net_support.h"

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <link.h>
#include <gtest/gtest.h>

#include <string>

using namespace QuenLibA500;
using namespace nettest;

namespace {

class PlainPeer : public ::testing::TestWithParam<int> {
 protected:
  int family() const { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Families, PlainPeer, ::testing::Values(AF_INET, AF_INET6),
                         [](auto const& info) { return info.param == AF_INET ? "IPv4" : "IPv6"; });

TEST_P(PlainPeer, RefusedConnectStillOpensAndTheFirstIOFails) {
  CSITcpSocket s(family() == AF_INET ? "127.0.0.1" : "::1", closedPort(family()));
  EXPECT_TRUE(s.TcpOpen(false));
  EXPECT_FALSE(s.IsOpen());
  EXPECT_FALSE(s.SendString("x\r\n", 1));
  EXPECT_FALSE(s.GetData(1, true));
}

TEST_P(PlainPeer, SilentPeerEndsGetDataAndGetLineAtTheirTimeOut) {
  Peer peer(family(), [](int c) { waitForClose(c); });
  CSITcpSocket s(peer.host().c_str(), peer.port());
  ASSERT_TRUE(s.TcpOpen(false));
  EXPECT_FALSE(s.GetData(1, false));
  EXPECT_TRUE(s.IsOpen());
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(s.GetLine(line, 1));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_FALSE(s.IsOpen());
}

TEST_P(PlainPeer, LinesOf2046CharactersFitAndOneMoreAborts) {
  std::string const fits(2046, 'a'), tooLong(2047, 'b');
  Peer peer(family(), [&](int c) {
    writeAll(c, fits + "\r\n" + tooLong + "\r\n");
    waitForClose(c);
  });
  CSITcpSocket s(peer.host().c_str(), peer.port());
  ASSERT_TRUE(s.TcpOpen(false));
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  ASSERT_TRUE(s.GetLine(line, 5));
  EXPECT_EQ(std::string(line), fits);
  EXPECT_FALSE(s.GetLine(line, 5));
  EXPECT_FALSE(s.IsOpen());
}

TEST_P(PlainPeer, CrAndLfSplitAcrossWritesEndOneLine) {
  Peer peer(family(), [](int c) {
    writeAll(c, "first\r");
    std::this_thread::sleep_for(100ms);
    writeAll(c, "\nbare\nlf\r\n\r\nlone\rcr\r");
    std::this_thread::sleep_for(100ms);
    writeAll(c, "\n");
    waitForClose(c);
  });
  CSITcpSocket s(peer.host().c_str(), peer.port());
  ASSERT_TRUE(s.TcpOpen(false));
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  for (std::string want : {"first", "bare\nlf", "", "lone\rcr"}) {
    ASSERT_TRUE(s.GetLine(line, 5)) << want;
    EXPECT_EQ(std::string(line), want);
  }
  s.AbortSocket();
}

TEST_P(PlainPeer, CloseMidLineFailsAndCloses) {
  Peer peer(family(), [](int c) { writeAll(c, "whole\r\npart"); });
  CSITcpSocket s(peer.host().c_str(), peer.port());
  ASSERT_TRUE(s.TcpOpen(false));
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  ASSERT_TRUE(s.GetLine(line, 5));
  EXPECT_FALSE(s.GetLine(line, 5));
  EXPECT_FALSE(s.IsOpen());
  EXPECT_FALSE(s.GetData(1, false));
}

TEST_P(PlainPeer, TenMegabytesOfLinesArriveInOrder) {
  constexpr int kLines = 10 * 1024 * 1024 / 80;
  Peer peer(family(), [](int c) {
    std::string block;
    for (int i = 0; i < kLines; ++i) {
      std::string l = "line " + std::to_string(i);
      l.resize(78, '.');
      block += l + "\r\n";
    }
    writeAll(c, block);
    waitForClose(c);
  });
  CSITcpSocket s(peer.host().c_str(), peer.port());
  ASSERT_TRUE(s.TcpOpen(false));
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  int i = 0;
  for (; i < kLines && s.GetLine(line, 5); ++i) {
    std::string want = "line " + std::to_string(i);
    want.resize(78, '.');
    ASSERT_EQ(std::string(line), want);
  }
  EXPECT_EQ(i, kLines);
  s.AbortSocket();
}

TEST_P(PlainPeer, SendAndGetBufferCarryExactBytes) {
  std::string const payload(3 * 1024 * 1024 + 17, 'z');
  std::string got;
  Peer peer(family(), [&](int c) {
    char buf[65536];
    while (got.size() < payload.size()) {
      pollfd p{c, POLLIN, 0};
      if (::poll(&p, 1, kDeadlineMs) <= 0) return;
      ssize_t n = ::recv(c, buf, sizeof buf, 0);
      if (n <= 0) return;
      got.append(buf, static_cast<size_t>(n));
    }
    writeAll(c, std::string("\x01\x02\x00\x03", 4) + "rest");
    waitForClose(c);
  });
  CSITcpSocket s(peer.host().c_str(), peer.port());
  ASSERT_TRUE(s.TcpOpen(false));
  ASSERT_TRUE(s.Send(payload.data(), static_cast<unsigned>(payload.size()), 5));
  EXPECT_TRUE(s.Send("", 0, 5));
  char four[4];
  ASSERT_TRUE(s.GetBuffer(4, four, 5));
  EXPECT_EQ(std::string(four, 4), std::string("\x01\x02\x00\x03", 4));
  s.AbortSocket();
  EXPECT_FALSE(s.IsOpen());
  EXPECT_EQ(got.size(), payload.size());
}

// A signal that arrives while connect waits must not end the attempt. The
// wait is made real with a full accept queue: backlog 0 leaves room for one
// queued connection, the filler takes it, so the client's first SYN is
// dropped and its connect sleeps until the retransmission about 1 s later.
TEST(CSITcpSocket, ASignalDuringConnectDoesNotLoseTheConnection) {
  unsigned short port = 0;
  int const listener = listenOn(AF_INET, 0, &port);
  ASSERT_GE(listener, 0);
  ASSERT_EQ(::listen(listener, 0), 0);
  int const filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_storage to = loopback(AF_INET, port);
  ASSERT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&to), lengthOf(AF_INET)), 0);

  struct sigaction quiet {}, old{};
  quiet.sa_handler = [](int) {};  // no SA_RESTART: the signal interrupts connect
  ::sigaction(SIGUSR1, &quiet, &old);
  pthread_t const client = ::pthread_self();
  std::thread server([&] {
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(100ms);
      ::pthread_kill(client, SIGUSR1);
    }
    ::close(::accept(listener, nullptr, nullptr));  // the filler: room for the client
    pollfd p{listener, POLLIN, 0};
    if (::poll(&p, 1, kDeadlineMs) != 1) return;
    int const c = ::accept(listener, nullptr, nullptr);
    writeAll(c, "hello\r\n");
    waitForClose(c);
    ::close(c);
  });
  CSITcpSocket s("127.0.0.1", port);
  EXPECT_TRUE(s.TcpOpen(false));
  EXPECT_TRUE(s.IsOpen());
  char line[CSITcpSocket::LINE_BUFFER_SIZE] = {};
  EXPECT_TRUE(s.GetLine(line, 10));
  EXPECT_STREQ(line, "hello");
  s.AbortSocket();
  server.join();
  ::sigaction(SIGUSR1, &old, nullptr);
  ::close(filler);
  ::close(listener);
}

TEST(CSITcpSocket, ServiceNamesCopiesAndAccessors) {
  CSITcpSocket s("127.0.0.1", 1);
  EXPECT_FALSE(s.TcpOpen("no-such-service"));
  EXPECT_EQ(s.GetPort(), 1);
  EXPECT_TRUE(s.TcpOpen("smtp"));  // resolves; nobody listens on 25 here or it answers
  EXPECT_EQ(s.GetPort(), 25);
  s.AbortSocket();
  CSITcpSocket other("elsewhere", 9);
  other = s;
  EXPECT_EQ(str(other.GetHost()), "127.0.0.1");
  EXPECT_FALSE(other.IsOpen());
  EXPECT_FALSE(CSITcpSocket("name.invalid", 80).TcpOpen(false));
}

// ---- TLS

class Tls : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access("/usr/bin/openssl", X_OK) != 0) GTEST_SKIP() << "openssl (Debian package openssl) is not installed";
    ASSERT_TRUE(makeCertificate("a"));
    ASSERT_TRUE(makeCertificate("b"));
    ASSERT_EQ(::pipe2(m_input, O_CLOEXEC), 0);
    m_port = closedPort(AF_INET);
    m_server = std::make_unique<Child>(
        std::vector<std::string>{"openssl", "s_server", "-accept", "127.0.0.1:" + std::to_string(m_port), "-cert",
                                 m_dir / "a.crt", "-key", m_dir / "a.key"},
        m_dir / "server.out", m_input[0]);
    ASSERT_TRUE(WaitFor([&] {
      return ReadFile(m_dir / "server.out").find("ACCEPT") != std::string::npos;
    })) << ReadFile(m_dir / "server.out");
    ::setenv("QUENLIB_CERTIFICATE_DIR", (m_dir / "pin").c_str(), 1);
    std::filesystem::create_directory(m_dir / "pin");
  }
  void TearDown() override {
    m_server.reset();
    ::unsetenv("QUENLIB_CERTIFICATE_DIR");
    for (int f : m_input)
      if (f >= 0) ::close(f);
  }
  bool makeCertificate(std::string const& name) { return nettest::makeCertificate(m_dir.path(), name); }
  void pin(std::string const& content) { std::ofstream(m_dir / "pin/certificate.crt") << content; }

  ScratchDir m_dir;
  int m_input[2] = {-1, -1};
  unsigned short m_port = 0;
  std::unique_ptr<Child> m_server;
  Recorder m_rec;
};

TEST_F(Tls, MatchingPinConnectsAndLinesFlowBothWays) {
  pin(ReadFile(m_dir / "a.crt"));
  ASSERT_EQ(::write(m_input[1], "220 ready\r\n", 11), 11);
  CSITcpSocket s("127.0.0.1", m_port);
  ASSERT_TRUE(s.TcpOpen(true));
  EXPECT_TRUE(s.IsTls());
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  ASSERT_TRUE(s.GetLine(line, 10));
  EXPECT_EQ(std::string(line), "220 ready");
  ASSERT_TRUE(s.SendString("HELO quenlib\r\n", 10));
  EXPECT_TRUE(WaitFor(
      [&] { return ReadFile(m_dir / "server.out").find("HELO quenlib") != std::string::npos; }));
  s.AbortSocket();
  EXPECT_FALSE(s.IsOpen());
}

TEST_F(Tls, SilenceTimesOutAndAVanishedServerFailsSendWithoutSigpipe) {
  pin(ReadFile(m_dir / "a.crt"));
  CSITcpSocket s("127.0.0.1", m_port);
  ASSERT_TRUE(s.TcpOpen(true));
  EXPECT_FALSE(s.GetData(1, false));
  EXPECT_TRUE(s.IsOpen());
  m_server.reset();  // kills s_server: the peer is gone
  std::string const block(64 * 1024, 'q');
  bool failed = false;
  for (int i = 0; i < 100 && !failed; ++i) failed = !s.Send(block.data(), static_cast<unsigned>(block.size()), 2);
  EXPECT_TRUE(failed);
  EXPECT_FALSE(s.IsOpen());
}

TEST_F(Tls, EveryOtherPinIsRefused) {
  struct {
    char const* name;
    std::function<void()> prepare;
    char const* message;
  } const rows[] = {
      {"same subject, other key", [&] { pin(ReadFile(m_dir / "b.crt")); },
       "Certificate does not match"},
      {"no file", [&] { std::filesystem::remove(m_dir / "pin/certificate.crt"); },
       "Unable to open file"},
      {"not PEM", [&] { pin("certificate? no.\n"); }, "Unable to parse certificate"},
  };
  for (auto const& r : rows) {
    r.prepare();
    m_rec.clear();
    CSITcpSocket s("127.0.0.1", m_port);
    EXPECT_FALSE(s.TcpOpen(true)) << r.name;
    EXPECT_FALSE(s.IsOpen()) << r.name;
    EXPECT_TRUE(m_rec.traced(r.message)) << r.name;
  }
}

// multi.quenlib.test resolves to ::1, then 127.0.0.1 (withHosts).
TEST_F(Tls, SeveralAddressesKeepTheLastAddresssConnection) {
  pin(ReadFile(m_dir / "a.crt"));
  std::string const hosts = "::1 multi.quenlib.test\n127.0.0.1 multi.quenlib.test\n";
  auto open = [](unsigned short port, bool tls) {
    return [port, tls] {
      CSITcpSocket s("multi.quenlib.test", port);
      return !s.TcpOpen(tls) ? 2 : s.IsOpen() ? 0 : 1;
    };
  };
  int const lastListens = withHosts(hosts, open(m_port, true));  // the server is on 127.0.0.1
  if (lastListens == 77) GTEST_SKIP() << "no private mount namespace for a test hosts file";
  EXPECT_EQ(lastListens, 0);
  unsigned short const port6 = closedPort(AF_INET6);
  Child firstOnly({"openssl", "s_server", "-accept", "[::1]:" + std::to_string(port6), "-cert", m_dir / "a.crt",
                   "-key", m_dir / "a.key"},
                  m_dir / "server6.out");
  ASSERT_TRUE(
      WaitFor([&] { return ReadFile(m_dir / "server6.out").find("ACCEPT") != std::string::npos; }));
  EXPECT_EQ(withHosts(hosts, open(port6, false)), 0);  // plain stops at the first connect
  EXPECT_EQ(withHosts(hosts, open(port6, true)), 1);   // verified, then given up for the refused last address
}

TEST(CSITcpSocketCertificate, FoundBesideTheMarkedModuleElseBesideTheLibrary) {
  ::unsetenv("QUENLIB_CERTIFICATE_DIR");
  Dl_info self{};
  ASSERT_NE(::dladdr(reinterpret_cast<void*>(&CSISocket::initialize), &self), 0);
  std::string const libDir = std::filesystem::path(self.dli_fname).parent_path();
  EXPECT_EQ(str(CSITcpSocket::CertificatePath()), libDir + "/certificate.crt");
  ScratchDir dir;
  std::string zlib;  // any loaded library without side effects will do
  ::dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* ctx) {
        bool const hit = std::string(info->dlpi_name).find("/libz.so") != std::string::npos;
        if (hit) *static_cast<std::string*>(ctx) = info->dlpi_name;
        return hit ? 1 : 0;
      },
      &zlib);
  ASSERT_FALSE(zlib.empty()) << "zlib is linked by the library";
  std::filesystem::copy_file(zlib, dir / "libLumarisEnterpriseTest.so");
  void* h = ::dlopen((dir / "libLumarisEnterpriseTest.so").c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(h, nullptr) << ::dlerror();
  EXPECT_EQ(str(CSITcpSocket::CertificateDirectory()), dir.path());
  ::setenv("QUENLIB_CERTIFICATE_DIR", "/etc/quenlib", 1);
  EXPECT_EQ(str(CSITcpSocket::CertificatePath()), "/etc/quenlib/certificate.crt");
  ::unsetenv("QUENLIB_CERTIFICATE_DIR");
  ::dlclose(h);
}

}  // namespace
