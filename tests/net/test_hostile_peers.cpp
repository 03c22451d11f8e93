// The clients against peers that stall, cut, flood, drip, send bytes that
// are not text or codes outside every table, and never read. Each case
// must end within the client's time-out (1 s here, plus the bounded drain
// of a closing connection), free every descriptor, leave no temporary file,
// and a well-behaved exchange on a new connection must work afterwards.
#include <quenlib/csiftp.h>
#include <quenlib/csisftp.h>
#include <quenlib/csismtpmail.h>
#include <quenlib/csitcpsocket.h>

#include <gtest/gtest.h>

#include "ftp_support.h"
#include "hostile_peer.h"

using namespace QuenLibA500;
using namespace hostile;

namespace {

constexpr double kBound = 6;  // 1 s time-out, 1 s drain, rounding and a loaded machine

// How the scripts below are varied at a step that says something.
enum class Fault { Cut, StallBefore, StallInside, CutInside, OddCode, NotText, Flood, Drip };
constexpr Fault kEveryFault[] = {Fault::Cut,     Fault::StallBefore, Fault::StallInside, Fault::CutInside,
                                 Fault::OddCode, Fault::NotText,     Fault::Flood,       Fault::Drip};

// `happy` up to its step `at` (a Say), which is replaced by `fault`.
Script inject(Script const& happy, size_t at, Fault fault) {
  Script s(happy.begin(), happy.begin() + static_cast<long>(at));
  std::string const half = happy[at].text.substr(0, happy[at].text.size() / 2);
  switch (fault) {
    case Fault::Cut: break;
    case Fault::StallBefore: s.push_back(Stall(4000)); break;
    case Fault::StallInside: s.insert(s.end(), {Say(half), Stall(4000)}); break;
    case Fault::CutInside: s.push_back(Say(happy[at].text.substr(0, 2))); break;
    case Fault::OddCode: s.insert(s.end(), {Say("999 what\r\n"), Read(), Say("000\r\n"), Stall(3000)}); break;
    case Fault::NotText: s.insert(s.end(), {Say(std::string("\0\xff\x80\x1b[2J\r\xfe\n\r\n", 11)), Stall(3000)}); break;
    case Fault::Flood: s.insert(s.end(), {Flood(1 << 20), Stall(1500)}); break;
    case Fault::Drip: s.push_back(Drip(half.substr(0, 3) + "-more\r\n", 40)); break;
  }
  return s;
}

struct Outcome {
  std::string result;
  double seconds;
};

// Runs one exchange against `script`, then checks what every case must hold.
template <class Exchange>
Outcome hostileCase(Script const& script, Exchange const& exchange) {
  auto const start = std::chrono::steady_clock::now();
  std::string result;
  {
    HostilePeer peer(AF_INET, script);
    result = exchange(peer.port());
  }
  return {result, secondsSince(start)};
}

class Hostile : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TMPDIR", tmp.path().c_str(), 1);
    ::chmod(tmp.path().c_str(), 0755);  // servers started later keep their files here too
    std::ofstream(scratch / "small.bin") << "a small file\n";
    std::ofstream(scratch / "big.bin") << ftptest::pattern(16 << 20);
  }
  void TearDown() override { ::unsetenv("TMPDIR"); }
  // Every fault at every Say of `happy`, and `extra` cases; after each, the
  // happy script must work again and nothing may be left behind.
  template <class Exchange>
  void runAll(Script const& happy, std::vector<Script> extra, Exchange const& exchange) {
    ASSERT_EQ(hostileCase(happy, exchange).result, "ok");  // warms up lazily opened descriptors
    int const fds = openDescriptors();
    // A fault in the last reply (to QUIT, or a line nobody checks) may pass.
    // The faults that wait out a time-out go to every other reply only.
    size_t mustFail = extra.size();
    for (size_t at = 0, says = 0; at < happy.size(); ++at) {
      if (happy[at].act != Act::Say) continue;
      for (Fault f : kEveryFault)
        if (says % 2 == 0 || f == Fault::Cut || f == Fault::CutInside || f == Fault::OddCode || f == Fault::NotText)
          extra.push_back(inject(happy, at, f)), mustFail += at + 1 < happy.size();
      ++says;
    }
    for (size_t i = 0; i < extra.size(); ++i) {
      Outcome const bad = hostileCase(extra[i], exchange);
      if (i < mustFail) {
        EXPECT_NE(bad.result, "ok") << "case " << i;
      }
      EXPECT_LT(bad.seconds, kBound) << "case " << i << ": " << bad.result;
      EXPECT_EQ(openDescriptors(), fds) << "case " << i << ": " << bad.result;
      EXPECT_EQ(entriesIn(tmp.path()), 0) << "case " << i;
      EXPECT_EQ(hostileCase(happy, exchange).result, "ok") << "after case " << i;
    }
  }
  ScratchDir tmp, scratch;
  Recorder recorder;  // keeps the expected assertion reports out of the way
};

TEST_F(Hostile, LineSocket) {
  auto exchange = [](unsigned short port) {
    CSITcpSocket s("127.0.0.1", port);
    char line[CSITcpSocket::LINE_BUFFER_SIZE];
    if (!s.TcpOpen(false) || !s.SendString("HELLO\r\n", 1)) return std::string("no connection");
    bool const got = s.GetLine(line, 1) && std::string(line) == "200 hello";
    return got && s.GetLine(line, 1) ? std::string("ok") : "false";
  };
  runAll({Read(), Say("200 hello\r\n"), Say("201 again\r\n")},
         {{Read(), Say("200 hello\r\n"), Flood(1 << 20, "\r")}, {Read(), Say("200 hello\r\n"), Drip("x", 40)}},
         exchange);
}

Script const kHappySmtp = {
    Say("220 hi\r\n"),     Read(), Say("250-smtp\r\n250 AUTH LOGIN\r\n"),
    Read(),                Say("334 VXNlcm5hbWU6\r\n"), Read(), Say("334 UGFzc3dvcmQ6\r\n"),
    Read(),                Say("235 ok\r\n"), Read(), Say("250 ok\r\n"), Read(), Say("250 ok\r\n"),
    Read(),                Say("354 go\r\n"), Read("."), Say("250 queued\r\n"), Read(), Say("221 bye\r\n")};

TEST_F(Hostile, Smtp) {
  CSISMTPMessage small("me@example.org"), big("me@example.org");
  for (CSISMTPMessage* m : {&small, &big}) {
    m->AddToAddress("you@example.org", ", ");
    m->SetMessage("hello\n");
  }
  big.AddAttachment((scratch / "big.bin").c_str(), "", "");
  auto send = [](unsigned short port, CSISMTPMessage const& message) {
    CSISMTPClient client("client.test", "127.0.0.1", port);
    client.SetTimeout(1);
    client.SetAuthenticationType(CSISMTPClient::AUTH_LOGIN);
    client.SetUsername("user");
    client.SetPassword("pw");
    try {
      client.Connect();
      client.SendSMTPMessage(message, true);
      client.Disconnect();
      return std::string("ok");
    } catch (CSISMTPMailException const& e) {
      return "throw " + std::to_string(e.ErrCode());
    }
  };
  Script neverReads(kHappySmtp.begin(), kHappySmtp.begin() + 15);
  neverReads.push_back(Hold(5000));
  runAll(kHappySmtp, {neverReads}, [&](unsigned short port) { return send(port, small); });
  EXPECT_EQ(hostileCase(neverReads, [&](unsigned short port) { return send(port, big); }).result, "throw 5");
}

TEST_F(Hostile, Ftp) {
  auto exchange = [&](unsigned short port) {
    CSIftp ftp;
    ftp.SetReceiveTimeout(1);
    try {
      if (!ftp.Connect("127.0.0.1", port) || !ftp.Login("user", "pw", "")) return std::string("no login");
      std::string const put = ftp.PutFile((scratch / "big.bin").c_str(), "big.bin") ? "ok" : "false";
      ftp.Disconnect();
      return put;
    } catch (CSIftpException const& e) {
      return "throw " + std::to_string(e.getCategory());
    }
  };
  Script const happy = {Say("220 hi\r\n"),   Read(), Say("331 pw\r\n"),   Read(),     Say("230 in\r\n"),
                        Read(),              Say("200 I\r\n"), Read(),    Say("200 port\r\n"), Read(),
                        Say("150 go\r\n"),   Dial(true),      Say("226 done\r\n"), Read(), Say("221 bye\r\n")};
  Script neverReads(happy.begin(), happy.begin() + 11), neverDials(neverReads);
  neverReads.insert(neverReads.end(), {Dial(), Read()});
  neverDials.push_back(Stall(4000));
  runAll(happy, {neverReads, neverDials}, exchange);
}

// SFTP through a proxy that cuts or stalls the stream from a real sshd
// after a share of the bytes a whole exchange takes: in the key exchange,
// the login, the SFTP start, the upload and the goodbye.
TEST_F(Hostile, SftpThroughCuttingProxy) {
  ftptest::Sshd server;
  if (!server.problem().empty()) GTEST_SKIP() << server.problem();
  auto exchange = [&](unsigned short port, int timeout = 1) {
    CSIsftp sftp;
    sftp.SetTimeout(timeout);
    try {
      sftp.Connect("127.0.0.1", "", port);
      sftp.PasswordAuthentication(ftptest::kUser, ftptest::kPassword, "");
      sftp.InitializeSftpSession();
      sftp.PutFile((scratch / "small.bin").c_str(), "up.bin", true);
      sftp.Disconnect();
      return std::string("ok");
    } catch (CSIsftpException const& e) {
      return "throw " + std::to_string(e.getCategory()) + " " + e.what();
    }
  };
  ASSERT_EQ(exchange(server.port(), 10), "ok");
  int const fds = openDescriptors();
  long whole = 0;
  {
    CuttingProxy proxy(server.port(), 1L << 40, false);
    ASSERT_EQ(exchange(proxy.port(), 10), "ok");
    whole = proxy.forwarded();
  }
  for (double share : {0.0, 0.01, 0.1, 0.3, 0.5, 0.7, 0.85, 0.97})
    for (bool stall : {false, true}) {
      auto const start = std::chrono::steady_clock::now();
      std::string result;
      {
        CuttingProxy proxy(server.port(), static_cast<long>(share * static_cast<double>(whole)), stall);
        result = exchange(proxy.port());
      }
      std::string const what = std::to_string(share) + (stall ? " stalled: " : " cut: ") + result;
      if (share < 0.9) {
        EXPECT_NE(result, "ok") << what;
      }
      EXPECT_LT(secondsSince(start), kBound) << what;
      EXPECT_EQ(openDescriptors(), fds) << what;
      EXPECT_EQ(exchange(server.port(), 10), "ok") << "after " << what;
    }
}

}  // namespace
