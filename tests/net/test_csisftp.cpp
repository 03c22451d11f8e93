// CSIsftp against a real sshd: the host-key pin (right, wrong, none),
// password logins, directories, uploads with truncation and with exclusive
// creation, each checked on disk.
#include <quenlib/csisftp.h>

#include <gtest/gtest.h>

#include "ftp_support.h"

using namespace QuenLibA500;
using namespace ftptest;

namespace {

auto thrown(std::function<void()> const& fn) {
  return ftptest::thrown<CSIsftpException>(fn);
}

// SHA-256 of the public host key's blob, in hexadecimal (computed apart
// from libssh2, with base64 and openssl).
std::string expectedFingerprint(Sshd const& server) {
  Child hash({"/bin/sh", "-c",
              "cut -d' ' -f2 " + server.hostKey() + ".pub | base64 -d | openssl dgst -sha256 -r"},
             server.path("fp.out"));
  return hash.wait() == 0 ? ReadFile(server.path("fp.out")).substr(0, 64) : "";
}

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

class CSIsftpSshd : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!server.problem().empty()) GTEST_SKIP() << server.problem();
    fingerprint = expectedFingerprint(server);
    ASSERT_EQ(fingerprint.size(), 64u);
  }
  void login(CSIsftp& sftp) {
    sftp.SetTimeout(10);
    ASSERT_TRUE(sftp.Connect("127.0.0.1", fingerprint.c_str(), server.port()));
    ASSERT_TRUE(sftp.PasswordAuthentication(kUser, kPassword, ""));
    ASSERT_TRUE(sftp.InitializeSftpSession());
  }
  Sshd server;
  std::string fingerprint;
};

TEST_F(CSIsftpSshd, HostKeyPin) {
  CSIsftp sftp;
  sftp.SetTimeout(10);
  EXPECT_TRUE(
      sftp.Connect("127.0.0.1", upper(fingerprint).c_str(), server.port()));  // case ignored
  EXPECT_EQ(str(sftp.GetServerFingerprint()), fingerprint);
  EXPECT_EQ(thrown([&] { sftp.Connect("127.0.0.1", "", server.port()); }),
            std::make_pair(1, std::string("Already connected to a server, disconnect first.")));
  EXPECT_TRUE(sftp.Disconnect());

  std::string const wrong(64, 'a');
  EXPECT_EQ(
      thrown([&] { sftp.Connect("127.0.0.1", wrong.c_str(), server.port()); }),
      std::make_pair(
          2, wrong + " is admin input.Mis match in fingerprint. i.e hashing server fingerPrint" +
                 fingerprint + " obtained  from server"));
  EXPECT_FALSE(sftp.Connected());
  auto const required = thrown([&] { sftp.Connect("127.0.0.1", "", server.port(), true); });
  EXPECT_EQ(required.second.rfind(" is admin input.Mis match", 0), 0u) << required.second;

  EXPECT_TRUE(sftp.Connect("127.0.0.1", "", server.port()));  // no pin: any server
  EXPECT_TRUE(sftp.Disconnect());
  EXPECT_FALSE(sftp.Disconnect());
  EXPECT_EQ(thrown([&] { sftp.Connect("", "", 1); }),
            std::make_pair(0, std::string("Please specify a sftp server.")));
  EXPECT_EQ(thrown([&] { sftp.Connect("127.0.0.1", "", closedPort(AF_INET)); }).first, 3);
}

TEST_F(CSIsftpSshd, LoginChecks) {
  CSIsftp sftp;
  sftp.SetTimeout(10);
  std::string const noLogon = "Please connect to server first before attempting for logon";
  EXPECT_EQ(thrown([&] { sftp.PasswordAuthentication(kUser, kPassword, ""); }),
            std::make_pair(0, noLogon));
  ASSERT_TRUE(sftp.Connect("127.0.0.1", fingerprint.c_str(), server.port()));
  EXPECT_EQ(thrown([&] { sftp.PasswordAuthentication(kUser, "", ""); }),
            std::make_pair(0, std::string("Please provide both user name and password")));
  EXPECT_EQ(sftp.authenticateUser(1, kUser, kPassword, ""), -1);
  EXPECT_EQ(thrown([&] { sftp.authenticateUser(CSIsftp::AUTH_PASSWORD, kUser, "wrong", ""); }),
            std::make_pair(2, std::string("Passwor authentication failed")));
  EXPECT_EQ(sftp.authenticateUser(CSIsftp::AUTH_PASSWORD, kUser, kPassword, ""), 1);
  EXPECT_FALSE(sftp.CheckAliveness());  // no SFTP session yet
  EXPECT_EQ(thrown([&] { sftp.PutFile("a", "b", true); }),
            std::make_pair(0, std::string("Please connect before send data")));
  EXPECT_TRUE(sftp.InitializeSftpSession());
  EXPECT_TRUE(sftp.CheckAliveness());
}

TEST_F(CSIsftpSshd, DirectoriesAndUploads) {
  CSIsftp sftp;
  login(sftp);
  EXPECT_TRUE(sftp.CreateDirs("a\\b/c", 0750));
  EXPECT_TRUE(sftp.CreateDirs((server.home() + "/abs/x").c_str(), 0));
  EXPECT_TRUE(sftp.CreateDirs("a/b/c", 0750));  // all there: nothing to do
  EXPECT_EQ(std::filesystem::status(server.home() + "/a/b/c").permissions(),
            std::filesystem::perms(0750));
  EXPECT_EQ(std::filesystem::status(server.home() + "/abs/x").permissions(),
            std::filesystem::perms(0700));
  EXPECT_TRUE(sftp.openDir("a/b"));
  EXPECT_FALSE(sftp.openDir("a/missing"));
  EXPECT_EQ(thrown([&] { sftp.CreateDir("a", 0700); }),
            std::make_pair(5, std::string("error in creating directory")));
  EXPECT_EQ(thrown([&] { sftp.CreateDirs("", 0700); }),
            std::make_pair(0, std::string("Please directory name cannot be empty")));

  ScratchDir local;
  std::string const big = pattern(3u << 20), small = "tiny";
  WriteFile(local / "big", big);
  WriteFile(local / "small", small);
  WriteFile(local / "empty", "");
  std::string const target = server.home() + "/a/b/c/";
  EXPECT_TRUE(sftp.PutFile((local / "big").c_str(), "a/b/c/f", true));
  EXPECT_TRUE(ReadFile(target + "f") == big);
  EXPECT_TRUE(sftp.PutFile((local / "small").c_str(), "a/b/c/f", true));  // truncates
  EXPECT_EQ(ReadFile(target + "f"), small);
  EXPECT_EQ(std::filesystem::status(target + "f").permissions(), std::filesystem::perms(0600));
  EXPECT_TRUE(sftp.PutFile((local / "empty").c_str(), "a/b/c/e", false));
  EXPECT_TRUE(std::filesystem::exists(target + "e") && ReadFile(target + "e").empty());
  EXPECT_EQ(
      thrown([&] { sftp.PutFile((local / "big").c_str(), "a/b/c/e", false); }),
      std::make_pair(
          5, std::string("Error in opening file for write.May not have permission to add files. "
                         "Contact Server admin/Retry.")));
  EXPECT_TRUE(ReadFile(target + "e").empty());
  EXPECT_EQ(
      thrown([&] { sftp.PutFile("/no/such/file", "x", true); }),
      std::make_pair(
          4, std::string("Failed to open the file for transfer: /no/such/file: No such file or "
                         "directory")));
  EXPECT_EQ(thrown([&] { sftp.PutFile("", "x", true); }),
            std::make_pair(0, std::string("Please specify both Source and Destination path")));

  SAnsiString out = "old";
  EXPECT_EQ(thrown([&] { sftp.ChangeDir("", out); }),
            std::make_pair(0, std::string("Directory name is null. Nothing Changed")));
  EXPECT_NE(sftp.ChangeDir("a", out), 0);  // the SFTP channel takes no second request
  EXPECT_TRUE(out.isEmpty());
  EXPECT_EQ(sftp.ExecuteChannelCommands("true"), 0);
  EXPECT_TRUE(sftp.Disconnect());
  EXPECT_FALSE(sftp.CheckAliveness());
  EXPECT_EQ(thrown([&] { sftp.CreateDirs("z", 0700); }),
            std::make_pair(
                0, std::string(
                       "A valid control connection does not exist, please connect to a ftp server "
                       "first")));
}

TEST_F(CSIsftpSshd, QuenFingerprintPutMkdirs) {
  auto const fp = runQuen("sftp fingerprint 127.0.0.1:" + std::to_string(server.port()));
  if (fp.first == -2) GTEST_SKIP() << "quen is not built";
  EXPECT_EQ(fp, std::make_pair(0, fingerprint + "\n"));
  ScratchDir local;
  WriteFile(local / "f", "payload");
  std::string const url =
      "sftp://" + std::string(kUser) + "@127.0.0.1:" + std::to_string(server.port());
  std::string const env = "QUEN_SFTP_PASSWORD=" + std::string(kPassword);
  EXPECT_EQ(runQuen("sftp put " + url + "/f " + (local / "f"), env).first, 2);  // no pin
  std::string const pin = " --fingerprint " + upper(fingerprint);
  EXPECT_EQ(runQuen("sftp mkdirs " + url + "/d/e --mode 750" + pin, env).first, 0);
  EXPECT_EQ(std::filesystem::status(server.home() + "/d/e").permissions(),
            std::filesystem::perms(0750));
  EXPECT_EQ(runQuen("sftp put " + url + "/d/e/ " + (local / "f") + pin, env).first, 0);
  EXPECT_EQ(ReadFile(server.home() + "/d/e/f"), "payload");
  EXPECT_EQ(runQuen("sftp put --exclusive " + url + "/d/e/f " + (local / "f") + pin, env).first, 1);
  auto const wrong = runQuen(
      "sftp put " + url + "/g " + (local / "f") + " --fingerprint " + std::string(64, '0'), env);
  EXPECT_EQ(wrong.first, 1);
  EXPECT_NE(wrong.second.find("Mis match in fingerprint"), std::string::npos) << wrong.second;
}

}  // namespace
