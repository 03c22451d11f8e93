// quen net and quen socks end to end: output and exit status of the built
// quen binary, against loopback peers and a temporary registry store.
#include "net_support.h"

#include <gtest/gtest.h>

#include <string>

using namespace nettest;

namespace {

class QuenNet : public quentest::QuenTest {
 protected:
  // Exit status and standard output (standard error is dropped).
  static std::pair<int, std::string> run(std::string const& args) {
    return runQuen(args, "", false);
  }
  ScratchDir m_dir;
};

TEST_F(QuenNet, SplitPrintsTheResultCodeAsExitStatus) {
  EXPECT_EQ(run("net split '[::1]:8080'"), std::make_pair(0, std::string("host   ::1\nport   8080\nresult 0 (ok)\n")));
  EXPECT_EQ(run("net split server:0").first, 1);
  EXPECT_EQ(run("net split '[::1'").first, 2);
}

TEST_F(QuenNet, LineAndPingAgainstLoopbackPeers) {
  std::string heard;
  Peer peer(AF_INET6, [&](int c) {
    char buf[64];
    pollfd p{c, POLLIN, 0};
    if (::poll(&p, 1, kDeadlineMs) > 0) heard.assign(buf, static_cast<size_t>(std::max<ssize_t>(0, ::recv(c, buf, sizeof buf, 0))));
    writeAll(c, "250 hello there\r\n");
    waitForClose(c);
  });
  std::string const target = "'[::1]:" + std::to_string(peer.port()) + "'";
  EXPECT_EQ(run("net line --send 'EHLO me' " + target), std::make_pair(0, std::string("250 hello there\n")));
  EXPECT_EQ(heard, "EHLO me\r\n");
  auto const ping = run("net ping --timeout 2 " + target + " 127.0.0.1:" + std::to_string(closedPort(AF_INET)));
  EXPECT_EQ(ping.first, 1);
  EXPECT_NE(ping.second.find("  [::1]:" + std::to_string(peer.port()) + "  "), std::string::npos) << ping.second;
  EXPECT_NE(ping.second.find("no answer within 2 s"), std::string::npos) << ping.second;
}

TEST_F(QuenNet, SocksListsThroughTheRegistry) {
  EXPECT_EQ(run("socks uri --quote '5;u:pw@proxy:1080' 'socks://4;b:1080'").second,
            "socks://5#u:pw@proxy:1080&4;b:1080\n");
  EXPECT_EQ(run("socks verify '5;proxy:0'").first, 1);
  std::string const key = "'HKCU\\Software\\Example\\Socks' --dir " + m_dir.path();
  EXPECT_EQ(run("socks set " + key + " '5;u:pw@proxy:1080' '4;b:9'").first, 0);
  EXPECT_EQ(run("socks get " + key).second, "SocksServer0  5;u:***@proxy:1080\nSocksServer1  4;b:9\n");
  auto const refused = run("socks set " + key + " '5;proxy:0'");
  EXPECT_EQ(refused.first, 1);
  EXPECT_NE(refused.second.find("SocksServerRegistry::Set Invalid sock server"), std::string::npos);
}

}  // namespace
