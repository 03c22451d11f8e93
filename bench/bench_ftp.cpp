// Uploads of a 200 MB file to a local vsftpd (active mode) and a local sshd
// (SFTP), CSIftp / CSIsftp against libcurl in the same binary. The servers
// are the tests' own (tests/net/ftp_support.h): started here in a private
// namespace with the test account, stopped at exit.
#include <quenlib/csiftp.h>
#include <quenlib/csisftp.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <cstdio>
#include <memory>
#include <string>

#include "net/ftp_support.h"

using namespace QuenLibA500;
using namespace ftptest;

namespace {

constexpr size_t kSize = 200u << 20;

struct Setup {
  Vsftpd ftp{AF_INET};
  Sshd ssh;
  ScratchDir dir;
  std::string file = dir / "upload.bin";
  Setup() {
    WriteFile(file, pattern(kSize));
    curl_global_init(CURL_GLOBAL_DEFAULT);
  }
  bool ready(benchmark::State& state) const {
    std::string const why = !ftp.problem().empty() ? ftp.problem() : ssh.problem();
    if (!why.empty()) state.SkipWithError(why.c_str());
    return why.empty();
  }
};

Setup& setup() {
  static Setup s;
  return s;
}

void finish(benchmark::State& state, bool ok, std::string const& target) {
  std::error_code ec;
  if (!ok || std::filesystem::file_size(target, ec) != kSize)
    state.SkipWithError("the upload did not arrive whole");
  std::filesystem::remove(target, ec);
}

void BM_FtpPut_Quenlib(benchmark::State& state) {
  Setup& s = setup();
  if (!s.ready(state)) return;
  for (auto _ : state) {
    CSIftp ftp;
    bool ok = ftp.Connect("127.0.0.1", s.ftp.port()) && ftp.Login(kUser, kPassword, "") &&
              ftp.PutFile(s.file.c_str(), "quen.bin");
    ftp.Disconnect();
    finish(state, ok, s.ftp.home() + "/quen.bin");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
}

bool curlPut(std::string const& url, std::string const& file, bool ftp) {
  FILE* in = std::fopen(file.c_str(), "rb");
  CURL* c = curl_easy_init();
  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  curl_easy_setopt(c, CURLOPT_USERPWD, (std::string(kUser) + ":" + kPassword).c_str());
  curl_easy_setopt(c, CURLOPT_UPLOAD, 1L);
  curl_easy_setopt(c, CURLOPT_READDATA, in);
  curl_easy_setopt(c, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(kSize));
  if (ftp) curl_easy_setopt(c, CURLOPT_FTPPORT, "-");  // active mode, as ours
  if (!ftp) curl_easy_setopt(c, CURLOPT_SSH_AUTH_TYPES, static_cast<long>(CURLSSH_AUTH_PASSWORD));
  CURLcode const rc = curl_easy_perform(c);
  curl_easy_cleanup(c);
  std::fclose(in);
  return rc == CURLE_OK;
}

void BM_FtpPut_Curl(benchmark::State& state) {
  Setup& s = setup();
  if (!s.ready(state)) return;
  std::string const url = "ftp://127.0.0.1:" + std::to_string(s.ftp.port()) + "/curl.bin";
  for (auto _ : state) finish(state, curlPut(url, s.file, true), s.ftp.home() + "/curl.bin");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
}

void BM_SftpPut_Quenlib(benchmark::State& state) {
  Setup& s = setup();
  if (!s.ready(state)) return;
  for (auto _ : state) {
    CSIsftp sftp;
    bool ok = sftp.Connect("127.0.0.1", "", s.ssh.port()) &&
              sftp.PasswordAuthentication(kUser, kPassword, "") && sftp.InitializeSftpSession() &&
              sftp.PutFile(s.file.c_str(), "quen.bin", true);
    sftp.Disconnect();
    finish(state, ok, s.ssh.home() + "/quen.bin");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
}

void BM_SftpPut_Curl(benchmark::State& state) {
  Setup& s = setup();
  if (!s.ready(state)) return;
  std::string const url = "sftp://127.0.0.1:" + std::to_string(s.ssh.port()) + "/~/curl.bin";
  for (auto _ : state) finish(state, curlPut(url, s.file, false), s.ssh.home() + "/curl.bin");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
}

BENCHMARK(BM_FtpPut_Quenlib)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FtpPut_Curl)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SftpPut_Quenlib)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SftpPut_Curl)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
