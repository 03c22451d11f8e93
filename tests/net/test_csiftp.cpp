// CSIftp against a scripted peer (reply quirks, wire forms, refusals) and
// against a real vsftpd over IPv4 and IPv6 (directories, uploads checked
// byte for byte on disk, refusals of the real server).
#include <quenlib/csiftp.h>

#include <gtest/gtest.h>

#include "ftp_support.h"

using namespace QuenLibA500;
using namespace ftptest;

namespace {

auto thrown(std::function<void()> const& fn) {
  return ftptest::thrown<CSIftpException>(fn);
}

void connect(CSIftp& ftp, FakeFtp const& peer) {
  ftp.SetReceiveTimeout(5);
  ASSERT_TRUE(ftp.Connect(peer.host().c_str(), peer.port()));
}

TEST(CSIftpScripted, LoginAcceptsExactlyTheStatedReplies) {
  struct Case {
    std::string user, pass, acct;
    int result;  // 1 true, 0 false, 2 throws category 2
    bool passSent;
  } const cases[] = {
      {"220 at once\r\n", "", "", 1, false},  // deliberately a login
      {"230 in\r\n", "", "", 0, false},       // deliberately a failure
      {"331 pw\r\n", "230 ok\r\n", "", 1, true},
      {"332 pw\r\n", "230 ok\r\n", "", 1, true},
      {"331 pw\r\n", "332 acct\r\n", "202 fine\r\n", 1, true},
      {"331 pw\r\n", "332 acct\r\n", "530 no\r\n", 0, true},
      {"331 pw\r\n", "530 Login incorrect.\r\n", "", 2, true},
      {"331 pw\r\n", "202 odd\r\n", "", 0, true},
      {"530 go away\r\n", "", "", 2, false},
      {"400 exactly\r\n", "", "", 0, false},
  };
  for (auto const& c : cases) {
    FakeFtp peer(AF_INET, {{"USER", c.user},
                           {"PASS", c.pass},
                           {"ACCT", c.acct},
                           {"TYPE I", "200 ok\r\n"},
                           {"QUIT", "221 bye\r\n"}});
    CSIftp ftp;
    connect(ftp, peer);
    int result = 2;
    auto const [category, text] = thrown([&] { result = ftp.Login("u", "p", "acct") ? 1 : 0; });
    if (c.result == 2) {
      EXPECT_EQ(category, 2) << c.user << c.pass;
      EXPECT_EQ(text + "\r\n", c.pass.empty() ? c.user : c.pass);
    }
    EXPECT_EQ(result, c.result) << c.user << c.pass;
    ftp.Disconnect();
    EXPECT_EQ(peer.count("PASS"), c.passSent ? 1 : 0) << c.user;
    EXPECT_EQ(peer.count("TYPE I"), c.result == 1 ? 1 : 0) << c.user << c.pass;
  }
}

TEST(CSIftpScripted, RepliesWorkingDirectoryAndWireForms) {
  FakeFtp peer(AF_INET, {{"PWD", "257 \"/a b\" is \"here\"\r\n"},
                         {"NOOP", "200-first\r\n200-second\r\n  third ends it\r\n"},
                         {"CDUP", "250 up\r\n"},
                         {"MKD /x/y", "257 made\r\n"},
                         {"QUIT", "221 bye\r\n"}});
  CSIftp ftp;
  connect(ftp, peer);
  EXPECT_EQ(str(ftp.GetWorkingDir()), "/a b");
  ftp.SendControlMsg("NOOP");
  SAnsiString reply;
  EXPECT_EQ(ftp.GetReply(reply), 200);
  EXPECT_EQ(str(reply), "200-first\n200-second\n  third ends it");
  EXPECT_TRUE(ftp.ChangeToParentDir());
  EXPECT_TRUE(ftp.CreateDir("\\x\\y"));  // slashes unified
  ftp.Disconnect();
  EXPECT_EQ(peer.commands(), (std::vector<std::string>{"PWD", "NOOP", "CDUP", "MKD /x/y", "QUIT"}));
}

TEST(CSIftpScripted, ServiceClosingClosesTheControlConnection) {
  FakeFtp peer(AF_INET, {{"NOOP", "421 Service closing\r\n"}});
  CSIftp ftp;
  connect(ftp, peer);
  EXPECT_FALSE(ftp.CheckAliveness());
  EXPECT_FALSE(ftp.Connected());
  EXPECT_EQ(
      thrown([&] { ftp.CheckAliveness(); }),
      std::make_pair(
          6, std::string(
                 "A valid control connection do not exist, try to connect to a ftp server first")));
}

TEST(CSIftpScripted, GreetingOtherThan220IsRefused) {
  FakeFtp peer(AF_INET, {}, "120 wait a while\r\n");
  CSIftp ftp;
  EXPECT_EQ(thrown([&] { ftp.Connect(peer.host().c_str(), peer.port()); }),
            std::make_pair(2, std::string("120 wait a while")));
  EXPECT_FALSE(ftp.Connected());
}

// An existing path costs PWD, CWD, CWD back and no MKD; a missing level is
// made and entered, existing ones only entered.
TEST(CSIftpScripted, CreateDirsMakesOnlyTheMissingLevels) {
  struct Case {
    std::string path;
    std::vector<FtpRule> missing;
    std::vector<std::string> sent;
  } const cases[] = {
      {"/a/b/c", {}, {"PWD", "CWD /a/b/c", "CWD /home"}},
      {"a\\b\\",
       {{"CWD a/b", "550 no\r\n"}, {"CWD b", "550 no\r\n", true}},
       {"PWD", "CWD a/b/", "PWD", "CWD a", "CWD b", "MKD b", "CWD b", "CWD /home"}},
  };
  for (auto const& c : cases) {
    std::vector<FtpRule> rules = c.missing;
    rules.insert(rules.end(),
                 {{"PWD", "257 \"/home\"\r\n"}, {"CWD", "250 ok\r\n"}, {"MKD", "257 made\r\n"}});
    FakeFtp peer(AF_INET, rules);
    CSIftp ftp;
    connect(ftp, peer);
    EXPECT_TRUE(ftp.CreateDirs(c.path.c_str()));
    EXPECT_EQ(peer.commands(), c.sent);
  }
}

TEST(CSIftpScripted, ActiveModeAnnouncesPortAndEprtWithoutClosingBar) {
  for (int family : {AF_INET, AF_INET6}) {
    FakeFtp peer(family, {{"PORT", "500 no\r\n"}, {"EPRT", "500 no\r\n"}});
    CSIftp ftp;
    connect(ftp, peer);
    ScratchDir dir;
    WriteFile(dir / "f", "x");
    EXPECT_EQ(thrown([&] { ftp.PutFile((dir / "f").c_str(), "f"); }),
              std::make_pair(2, std::string("500 no")));
    ftp.Disconnect();
    std::string const announced = peer.commands().at(0);
    int hi = -1, lo = -1, port = -1, used = 0;
    if (family == AF_INET)
      std::sscanf(announced.c_str(), "PORT 127,0,0,1,%d,%d%n", &hi, &lo, &used);
    else
      std::sscanf(announced.c_str(), "EPRT |2|::1|%d%n", &port, &used);
    EXPECT_EQ(static_cast<size_t>(used), announced.size()) << announced;  // nothing after the port
    EXPECT_TRUE(family == AF_INET ? hi * 256 + lo > 0 && lo < 256 : port > 0) << announced;
  }
}

TEST(CSIftpScripted, ServerThatNeverConnectsTimesOut) {
  FakeFtp peer(AF_INET, {{"PORT", "200 ok\r\n"}, {"STOR", "150 go\r\n"}});
  CSIftp ftp;
  connect(ftp, peer);
  ftp.SetReceiveTimeout(1);
  ScratchDir dir;
  WriteFile(dir / "f", "x");
  EXPECT_EQ(thrown([&] { ftp.PutFile((dir / "f").c_str(), "f"); }),
            std::make_pair(3, std::string("Timed out reading data from FTP server.")));
  EXPECT_TRUE(ftp.Connected());
}

TEST(CSIftpScripted, ArgumentsAndStateAreChecked) {
  CSIftp ftp;
  std::string const noControl =
      "A valid control connection does not exist, please connect to a ftp server first";
  struct Case {
    std::function<void()> call;
    int category;
    std::string text;
  } const cases[] = {
      {[&] { ftp.Connect(""); }, 0, "Please specify a ftp server."},
      {[&] { ftp.Login("u", "", ""); }, 0, "Please specify user name and password"},
      {[&] { ftp.Login("u", "p", ""); }, 0, noControl},
      {[&] { ftp.SendAcct(""); }, 0, "Please specify account information"},
      {[&] { ftp.ChangeWorkingDir(""); }, 0, "Please specify a directory name"},
      {[&] { ftp.IsDirExist("d"); }, 0, noControl},
      {[&] { ftp.RemoveFile(""); }, 0, "Please specify a file name"},
      {[&] { ftp.PutFile("", "r"); }, 0, "Please specify both source and dest file paths"},
      {[&] { ftp.PutFile("l", "r"); }, 0, noControl},
      {[&] { ftp.CreateDirs(""); }, 0, "Please directory name cannot be empty"},
      {[&] { ftp.ChangeLocalWorkingDir(""); }, 0, "Directory name cannot be empty"},
      {[&] { ftp.ChangeLocalWorkingDir("/no/such/dir/here"); }, 5,
       "Failed to set current working directory on local machine: No such file or directory"},
      {[&] { ftp.RemoveDir("d"); }, 6,
       "A valid control connection do not exist, try to connect to a ftp server first"},
  };
  for (auto const& c : cases) EXPECT_EQ(thrown(c.call), std::make_pair(c.category, c.text));
  EXPECT_FALSE(ftp.Disconnect());
  EXPECT_EQ(str(ftp.GetLocalWorkingDir()), std::filesystem::current_path().string());

  FakeFtp peer(AF_INET, {});
  connect(ftp, peer);
  EXPECT_EQ(thrown([&] { ftp.Connect("x", 1); }),
            std::make_pair(0, std::string("Already connected to a server, disconnect first.")));
  EXPECT_EQ(
      thrown([&] { ftp.PutFile("/no/such/file", "r"); }),
      std::make_pair(
          4,
          std::string(
              "Failed to open the file for transfer: /no/such/file: No such file or directory")));
  EXPECT_TRUE(ftp.Disconnect());
}

// ---- the real server

class CSIftpVsftpd : public ::testing::TestWithParam<int> {};

TEST_P(CSIftpVsftpd, DirectoriesUploadsAndRefusals) {
  Vsftpd server(GetParam());
  if (!server.problem().empty()) GTEST_SKIP() << server.problem();
  CSIftp ftp;
  ftp.SetReceiveTimeout(10);
  ASSERT_TRUE(ftp.Connect(server.host().c_str(), server.port()));
  auto const login = thrown([&] { ASSERT_TRUE(ftp.Login(kUser, kPassword, "")); });
  ASSERT_EQ(login.first, -1) << login.second << "\n" << server.log();
  EXPECT_EQ(str(ftp.GetWorkingDir()), server.home());
  EXPECT_TRUE(ftp.CheckAliveness());

  EXPECT_TRUE(ftp.CreateDirs("one/two/three"));
  EXPECT_TRUE(std::filesystem::is_directory(server.home() + "/one/two/three"));
  EXPECT_TRUE(ftp.IsDirExist("one/two"));
  EXPECT_FALSE(ftp.IsDirExist("one/missing"));
  EXPECT_FALSE(ftp.ChangeWorkingDir("missing"));
  EXPECT_EQ(str(ftp.GetWorkingDir()), server.home());

  ScratchDir local;
  std::vector<std::pair<std::string, std::string>> const files = {
      {"empty", ""}, {"one", "\x7f"}, {"large", pattern(50u << 20)}};
  for (auto const& [name, data] : files) {
    WriteFile(local / name, data);
    ASSERT_TRUE(ftp.PutFile((local / name).c_str(), ("one/two/three/" + name).c_str())) << name;
    EXPECT_TRUE(ReadFile(server.home() + "/one/two/three/" + name) == data) << name;
  }
  for (auto const& f : files) EXPECT_TRUE(ftp.RemoveFile(("one/two/three/" + f.first).c_str()));
  EXPECT_TRUE(ftp.ChangeWorkingDir("one/two"));
  EXPECT_TRUE(ftp.RemoveDir("three"));
  EXPECT_TRUE(ftp.ChangeToParentDir());
  EXPECT_FALSE(std::filesystem::exists(server.home() + "/one/two/three"));

  std::filesystem::create_directory(server.home() + "/locked");
  ::chmod((server.home() + "/locked").c_str(), 0555);
  EXPECT_EQ(thrown([&] { ftp.PutFile((local / "one").c_str(), "locked/f"); }).second.substr(0, 4),
            "553 ");
  EXPECT_TRUE(ftp.Disconnect());
  EXPECT_FALSE(ftp.Connected());

  ASSERT_TRUE(ftp.Connect(server.host().c_str(), server.port()));
  EXPECT_EQ(thrown([&] { ftp.Login(kUser, "wrong", ""); }),
            std::make_pair(2, std::string("530 Login incorrect.")));
}

TEST(QuenFtp, PutMkdirsPwdRm) {
  Vsftpd server(AF_INET6);
  if (!server.problem().empty()) GTEST_SKIP() << server.problem();
  ScratchDir local;
  WriteFile(local / "pw", std::string(kPassword) + "\n");
  WriteFile(local / "f.txt", "payload");
  std::string const url = "ftp://" + std::string(kUser) + "@[::1]:" + std::to_string(server.port());
  std::string const pw = " --password-file " + (local / "pw");
  if (runQuen("ftp pwd" + pw + " " + url).first == -2) GTEST_SKIP() << "quen is not built";
  EXPECT_EQ(runQuen("ftp pwd " + url, "QUEN_FTP_PASSWORD=" + std::string(kPassword)),
            std::make_pair(0, server.home() + "\n"));
  EXPECT_EQ(runQuen("ftp mkdirs" + pw + " " + url + "/in/x").first, 0);
  EXPECT_EQ(runQuen("ftp put" + pw + " " + url + "/in/x/ " + (local / "f.txt")).first, 0);
  EXPECT_EQ(ReadFile(server.home() + "/in/x/f.txt"), "payload");
  EXPECT_EQ(runQuen("ftp rm" + pw + " " + url + "/in/x/f.txt").first, 0);
  EXPECT_FALSE(std::filesystem::exists(server.home() + "/in/x/f.txt"));
  EXPECT_EQ(runQuen("ftp rm" + pw + " " + url + "/in/x/f.txt").first, 1);  // gone: 550
  EXPECT_EQ(runQuen("ftp pwd " + url, "QUEN_FTP_PASSWORD=").first, 2);     // no password
  auto const refused = runQuen("ftp pwd " + url, "QUEN_FTP_PASSWORD=wrong");
  EXPECT_EQ(refused.first, 1);
  EXPECT_NE(refused.second.find("category 2: 530 Login incorrect."), std::string::npos)
      << refused.second;
}

INSTANTIATE_TEST_SUITE_P(Families, CSIftpVsftpd, ::testing::Values(AF_INET, AF_INET6),
                         [](auto const& info) { return info.param == AF_INET ? "IPv4" : "IPv6"; });

}  // namespace
