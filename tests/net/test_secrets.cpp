// Passwords never leak: every client logs in (and fails to) with tracing at
// its most verbose into a file; the trace file, the observed trace lines,
// assertion texts, exception texts, transcripts and temporary files must
// not hold the password. The store that keeps SOCKS passwords is 0600.
#include <quenlib/csiftp.h>
#include <quenlib/csisftp.h>
#include <quenlib/csismtpmail.h>
#include <quenlib/paramlineargs.h>
#include <registrykeys/registrysocksserver.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "ftp_support.h"
#include "hostile_peer.h"

using namespace QuenLibA500;
using namespace hostile;

namespace {

constexpr char kSecret[] = "Zq7-secret-Pw";
// kSecret as the peers see it on the wire: base64, alone (AUTH LOGIN) and
// after "\0user\0" (AUTH PLAIN); a trace of the wire would show these.
constexpr char kLoginForm[] = "WnE3LXNlY3JldC1Qdw==";
constexpr char kPlainForm[] = "AHVzZXIAWnE3LXNlY3JldC1Qdw==";

class Secrets : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TMPDIR", tmp.path().c_str(), 1);
    ::chmod(tmp.path().c_str(), 0755);  // servers started later keep their files here too
    std::string const cmd = "secrets -trace all -logFile " + (logs / "trace.log") + " -notraceini -alwaysclose on";
    ASSERT_TRUE(SLogger::Initialize(CParamLineArgs(cmd.c_str())));
    std::ofstream(logs / "up.bin") << "data\n";
  }
  void TearDown() override {
    SLogger::Terminate();
    ::unsetenv("TMPDIR");
    std::string everything = said;
    for (auto const& a : recorder.asserts()) everything += a + "\n";
    for (auto const& dir : {logs.path(), tmp.path()})
      for (auto const& e : std::filesystem::recursive_directory_iterator(dir))
        if (e.is_regular_file()) everything += ReadFile(e.path());
    for (char const* form : {kSecret, kLoginForm, kPlainForm, ftptest::kPassword}) {
      EXPECT_EQ(everything.find(form), std::string::npos) << form;
      EXPECT_EQ(recorder.countTraced(form), 0) << form;
    }
  }
  // Whether the trace file shows the exchange (else the search would prove nothing).
  bool inTraceFile(std::string const& text) { return ReadFile(logs / "trace.log").find(text) != std::string::npos; }
  // Exception texts and transcripts, collected for the check.
  std::string said;
  ScratchDir tmp, logs;
  Recorder recorder;
};

TEST_F(Secrets, SmtpAuthLoginAndPlainGoodAndRefused) {
  using CL = CSISMTPClient;
  for (auto auth : {CL::AUTH_LOGIN, CL::AUTH_PLAIN})
    for (char const* verdict : {"235 ok\r\n", "535 no\r\n"}) {
      Script script = {Say("220 hi\r\n"), Read(), Say("250-x\r\n250 AUTH LOGIN PLAIN\r\n"), Read()};
      if (auth == CL::AUTH_LOGIN) script.insert(script.end(), {Say("334 VXNlcm5hbWU6\r\n"), Read(), Say("334 UGFzc3dvcmQ6\r\n"), Read()});
      script.insert(script.end(), {Say(verdict), Read(), Say("221 bye\r\n")});
      HostilePeer peer(AF_INET, script);
      CL client("client.test", "127.0.0.1", peer.port());
      std::string transcript;
      client.SetTranscript(&transcript);
      client.SetAuthenticationType(auth);
      client.SetUsername("user");
      client.SetPassword(kSecret);
      try {
        EXPECT_TRUE(client.Connect());
        client.Disconnect();
      } catch (CSISMTPMailException const& e) {
        said += e.toString().getString() + std::string("\n") + e.SMTPErrorCodeString().getString();
      }
      said += transcript;
      EXPECT_NE(transcript.find("***"), std::string::npos);
    }
  EXPECT_TRUE(inTraceFile("SMTP command: ***"));
}

TEST_F(Secrets, FtpLoginGoodAndRefused) {
  for (char const* verdict : {"230 in\r\n", "530 no\r\n"}) {
    HostilePeer peer(AF_INET, {Say("220 hi\r\n"), Read(), Say("331 pw\r\n"), Read(), Say(verdict), Read(),
                               Say("200 I\r\n"), Read(), Say("221 bye\r\n")});
    CSIftp ftp;
    try {
      ftp.Connect("127.0.0.1", peer.port());
      ftp.Login("user", kSecret, "");
      ftp.Disconnect();
    } catch (CSIftpException const& e) {
      said += e.what();
    }
  }
  EXPECT_TRUE(inTraceFile("ftp command: PASS ****"));
}

TEST_F(Secrets, SftpPasswordGoodAndRefused) {
  ftptest::Sshd server;
  if (!server.problem().empty()) GTEST_SKIP() << server.problem();
  // The account's real password must not leak either.
  for (std::string const& password : {std::string(ftptest::kPassword), std::string(kSecret)}) {
    CSIsftp sftp;
    sftp.SetTimeout(10);
    try {
      sftp.Connect("127.0.0.1", "", server.port());
      sftp.PasswordAuthentication(ftptest::kUser, password.c_str(), "");
      sftp.InitializeSftpSession();
      sftp.PutFile((logs / "up.bin").c_str(), "up.bin", true);
      sftp.Disconnect();
    } catch (CSIsftpException const& e) {
      said += e.what();
    }
  }
  EXPECT_TRUE(inTraceFile("transfered"));
}

TEST_F(Secrets, SocksPasswordStoreIsOwnerOnly) {
  ScratchDir store;
  ::setenv("QUENLIB_REGISTRY_DIR", store.path().c_str(), 1);
  ::umask(022);
  Registry_SocksServer s;
  s.m_version = 5, s.m_serverName = "proxy", s.m_usesAuthentication = true;
  s.m_userName = "user", s.m_password = kSecret;
  Registry_SocksServers list;
  list.Add(s);
  EXPECT_TRUE(RegistrySocksServer_Set(SocksServerRegistry("Software\\Example\\Socks"), "P", list));
  ::unsetenv("QUENLIB_REGISTRY_DIR");
  int files = 0;
  for (auto const& e : std::filesystem::recursive_directory_iterator(store.path())) {
    struct stat st {};
    ASSERT_EQ(::stat(e.path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 077, 0u) << e.path();
    files += e.is_regular_file();
  }
  EXPECT_GE(files, 1);
}

}  // namespace
