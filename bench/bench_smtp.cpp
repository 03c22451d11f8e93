// The SMTP client against libcurl's SMTP upload, in one binary and to the
// same local aiosmtpd (started here, its handler discarding every message):
// one message of 10 KiB of text and a 1 MiB attachment, built into MIME and
// sent on a new connection each time, 200 times. And base64 of 16 MiB
// against OpenSSL's EVP_EncodeBlock.
#include <quenlib/csismtpmail.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <openssl/evp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace QuenLibA500;

namespace {

constexpr int kMessages = 200;

constexpr char const kServer[] = R"PY(
import asyncio, os, sys
from aiosmtpd.smtp import SMTP
class Discard:
    async def handle_DATA(self, server, session, envelope):
        return '250 OK'
async def main():
    server = await asyncio.get_running_loop().create_server(
        lambda: SMTP(Discard(), hostname='bench.test'), '127.0.0.1', 0)
    open(sys.argv[1] + '.tmp', 'w').write(str(server.sockets[0].getsockname()[1]))
    os.rename(sys.argv[1] + '.tmp', sys.argv[1])
    await asyncio.sleep(3600)
asyncio.run(main())
)PY";

std::string randomBytes(size_t n) {
  std::mt19937 gen(42);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(gen());
  return s;
}

// The server and the message files, for the whole run; the server's process
// group is killed at exit.
struct Setup {
  std::string dir, attachment, text;
  std::string crlfText;  // libcurl sends the text as it is given: CR LF lines for SMTP
  pid_t pid = -1;
  unsigned short port = 0;

  Setup() {
    dir = std::filesystem::temp_directory_path() / ("quenlib-bench-smtp-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/server.py") << kServer;
    attachment = dir + "/data.bin";
    std::ofstream(attachment, std::ios::binary) << randomBytes(1 << 20);
    for (int i = 0; text.size() < 10 * 1024; ++i) {
      std::string const line = "Line " + std::to_string(i) + " of the nightly report.";
      text += line + "\n";
      crlfText += line + "\r\n";
    }
    std::string const script = dir + "/server.py", portFile = dir + "/port";
    char const* argv[] = {"/usr/bin/python3", script.c_str(), portFile.c_str(), nullptr};
    posix_spawnattr_t at;
    posix_spawnattr_init(&at);
    posix_spawnattr_setflags(&at, POSIX_SPAWN_SETPGROUP);
    if (posix_spawn(&pid, argv[0], nullptr, &at, const_cast<char* const*>(argv), environ) != 0) pid = -1;
    posix_spawnattr_destroy(&at);
    for (int i = 0; i < 1000 && pid > 0 && !std::filesystem::exists(portFile); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    int number = 0;
    if (std::ifstream(portFile) >> number) port = static_cast<unsigned short>(number);
  }
  ~Setup() {
    if (pid > 0) ::kill(-pid, SIGKILL), ::waitpid(pid, nullptr, 0);
    std::filesystem::remove_all(dir);
  }
};

Setup& setup() {
  static Setup s;
  return s;
}

void BM_Send_Quenlib(benchmark::State& state) {
  Setup& s = setup();
  if (s.port == 0) return state.SkipWithError("aiosmtpd (python3-aiosmtpd) did not start");
  for (auto _ : state) {
    CSISMTPMail mail("bench.client", "127.0.0.1", s.port, "me@example.org");
    mail.AddToAddress("you@example.org", ", ");
    mail.SetSubject("Nightly report");
    mail.SetMessage(s.text.c_str());
    mail.AddAttachment(s.attachment.c_str(), "application/octet-stream", "data.bin");
    if (!mail.SendMessageA()) return state.SkipWithError("send failed");
  }
  state.SetItemsProcessed(state.iterations());
}

size_t discard(char*, size_t size, size_t n, void*) { return size * n; }

void BM_Send_Curl(benchmark::State& state) {
  Setup& s = setup();
  if (s.port == 0) return state.SkipWithError("aiosmtpd (python3-aiosmtpd) did not start");
  std::string const url = "smtp://127.0.0.1:" + std::to_string(s.port) + "/bench.client";
  for (auto _ : state) {
    CURL* curl = curl_easy_init();
    curl_slist* rcpt = curl_slist_append(nullptr, "<you@example.org>");
    curl_slist* headers = curl_slist_append(nullptr, "From: me@example.org");
    headers = curl_slist_append(headers, "To: you@example.org");
    headers = curl_slist_append(headers, "Subject: Nightly report");
    curl_mime* mime = curl_mime_init(curl);
    curl_mimepart* text = curl_mime_addpart(mime);
    curl_mime_data(text, s.crlfText.data(), s.crlfText.size());
    curl_mime_type(text, "text/plain; charset=UTF-8");
    curl_mimepart* file = curl_mime_addpart(mime);
    curl_mime_filedata(file, s.attachment.c_str());
    curl_mime_type(file, "application/octet-stream");
    curl_mime_encoder(file, "base64");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_MAIL_FROM, "<me@example.org>");
    curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, rcpt);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_MIMEPOST, mime);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    CURLcode const rc = curl_easy_perform(curl);
    curl_easy_cleanup(curl);
    curl_mime_free(mime);
    curl_slist_free_all(headers);
    curl_slist_free_all(rcpt);
    if (rc != CURLE_OK) return state.SkipWithError(curl_easy_strerror(rc));
  }
  state.SetItemsProcessed(state.iterations());
}

std::string const& input16() {
  static std::string const in = randomBytes(16 << 20);
  return in;
}

void BM_Base64_Quenlib(benchmark::State& state) {
  auto const* in = reinterpret_cast<unsigned char const*>(input16().data());
  std::string out;
  for (auto _ : state) {
    out.clear();
    SMTPHelper::Base64Encode(in, input16().size(), state.range(0) != 0, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(input16().size()));
}

void BM_Base64_EVP_EncodeBlock(benchmark::State& state) {
  auto const* in = reinterpret_cast<unsigned char const*>(input16().data());
  std::vector<unsigned char> out(input16().size() / 3 * 4 + 8);
  for (auto _ : state) {
    int const n = EVP_EncodeBlock(out.data(), in, static_cast<int>(input16().size()));
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(input16().size()));
}

}  // namespace

BENCHMARK(BM_Send_Quenlib)->Iterations(kMessages)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Send_Curl)->Iterations(kMessages)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Base64_Quenlib)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64_EVP_EncodeBlock)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
