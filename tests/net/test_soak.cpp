// Long runs of each client against its real local server, run by hand or by
// scripts/reliability.sh (disabled in the unit suite):
//   QUENLIB_SOAK_SECONDS=600 test_soak --gtest_also_run_disabled_tests
// One client object per exchange, as a long-lived service would use them.
// Resident memory and open descriptors are sampled every 10 s and printed
// as Markdown rows; after the first minute (the first sample for shorter
// runs) neither may grow by more than 5 %.
#include <quenlib/csiftp.h>
#include <quenlib/csisftp.h>
#include <quenlib/csismtpmail.h>

#include <gtest/gtest.h>

#include <cstdio>

#include "ftp_support.h"
#include "hostile_peer.h"
#include "smtp_support.h"

using namespace QuenLibA500;

namespace {

long residentKiB() {
  std::istringstream status(nettest::ReadFile("/proc/self/status"));
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

// Runs `exchange` until the soak time is spent, sampling as it goes.
void soak(char const* name, std::function<bool()> const& exchange) {
  char const* env = std::getenv("QUENLIB_SOAK_SECONDS");
  int const seconds = env ? std::atoi(env) : 600;
  auto const start = std::chrono::steady_clock::now();
  auto nextSample = start;
  long exchanges = 0, failures = 0, baseRss = -1, maxRss = 0;
  int baseFds = -1, maxFds = 0;
  for (int elapsed = 0; elapsed < seconds; elapsed = static_cast<int>(hostile::secondsSince(start))) {
    ++exchanges;
    failures += !exchange();
    if (std::chrono::steady_clock::now() < nextSample) continue;
    nextSample += std::chrono::seconds(10);
    long const rss = residentKiB();
    int const fds = hostile::openDescriptors();
    if (baseRss < 0 || (elapsed < 60 && seconds >= 120))
      baseRss = maxRss = rss, baseFds = maxFds = fds;  // still warming up
    else
      maxRss = std::max(maxRss, rss), maxFds = std::max(maxFds, fds);
    std::printf("| %s | %d s | %ld | %ld | %ld KiB | %d |\n", name, elapsed, exchanges, failures, rss, fds);
    std::fflush(stdout);
  }
  std::printf("| %s | total %d s | %ld exchanges | %ld failed | RSS %ld -> max %ld KiB | fds %d -> max %d |\n",
              name, seconds, exchanges, failures, baseRss, maxRss, baseFds, maxFds);
  EXPECT_EQ(failures, 0);
  EXPECT_LE(maxRss, baseRss + baseRss / 20);
  EXPECT_LE(maxFds, baseFds);
}

TEST(Soak, DISABLED_SmtpAgainstAiosmtpd) {
  if (!smtptest::haveAiosmtpd()) GTEST_SKIP() << "python3-aiosmtpd is not installed";
  // The test server ends by itself after 600 s unless told to live longer.
  char const* soakSeconds = std::getenv("QUENLIB_SOAK_SECONDS");
  ::setenv("QUENLIB_SMTP_SERVER_SECONDS", std::to_string((soakSeconds ? std::atoi(soakSeconds) : 600) + 300).c_str(), 1);
  smtptest::Server server({"auth"});
  ASSERT_NE(server.port(), 0);
  CSISMTPMessage message("me@example.org");
  message.AddToAddress("you@example.org", ", ");
  message.SetSubject("soak");
  message.SetMessage("hello\n");
  soak("SMTP (aiosmtpd, AUTH LOGIN)", [&] {
    CSISMTPClient client("client.test", "127.0.0.1", server.port());
    client.SetAuthenticationType(CSISMTPClient::AUTH_LOGIN);
    client.SetUsername("user");
    client.SetPassword(smtptest::kPassword);
    try {
      bool const ok = client.Connect() && client.SendSMTPMessage(message, true);
      client.Disconnect();
      return ok;
    } catch (CSISMTPMailException const&) {
      return false;
    }
  });
}

TEST(Soak, DISABLED_FtpAgainstVsftpd) {
  ftptest::Vsftpd server(AF_INET);
  if (!server.problem().empty()) GTEST_SKIP() << server.problem();
  nettest::ScratchDir dir;
  std::ofstream(dir / "up.bin") << ftptest::pattern(100000);
  soak("FTP (vsftpd, 100 kB upload)", [&] {
    CSIftp ftp;
    try {
      bool const ok = ftp.Connect(server.host().c_str(), server.port()) &&
                      ftp.Login(ftptest::kUser, ftptest::kPassword, "") &&
                      ftp.PutFile((dir / "up.bin").c_str(), "up.bin");
      ftp.Disconnect();
      return ok;
    } catch (CSIftpException const&) {
      return false;
    }
  });
}

TEST(Soak, DISABLED_SftpAgainstSshd) {
  ftptest::Sshd server;
  if (!server.problem().empty()) GTEST_SKIP() << server.problem();
  nettest::ScratchDir dir;
  std::ofstream(dir / "up.bin") << ftptest::pattern(100000);
  soak("SFTP (sshd, 100 kB upload)", [&] {
    CSIsftp sftp;
    try {
      bool const ok = sftp.Connect("127.0.0.1", "", server.port()) &&
                      sftp.PasswordAuthentication(ftptest::kUser, ftptest::kPassword, "") &&
                      sftp.InitializeSftpSession() && sftp.PutFile((dir / "up.bin").c_str(), "up.bin", true);
      sftp.Disconnect();
      return ok;
    } catch (CSIsftpException const&) {
      return false;
    }
  });
}

}  // namespace
