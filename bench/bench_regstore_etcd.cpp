// The registry on etcd against its peers in one binary: a cached read
// against the SQLite store's cached read, an uncached read and a write
// against the same request posted with libcurl to the same etcd, and the
// delay from a write in a child process to its visibility here. The
// benchmark starts its own etcd (tests/config/etcd_support.h) and skips
// when etcd is not installed.
#include <quenlib/regapi.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <openssl/evp.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "config/etcd_support.h"

extern char** environ;

using namespace QuenLibA500;

namespace {

constexpr char kKeyPath[] = "Software\\Bench\\Etcd";
constexpr char kValueName[] = "InstallDir";
std::string const kText = "C:\\Program Files\\Example\\bin";

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string base64(std::string const& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<unsigned char const*>(bytes.data()), static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

// ------------------------------------------------------------ raw peer

// One reused libcurl handle posting JSON to the etcd gateway; the reply
// body is collected, as any client must, and not interpreted.
class RawEtcd {
 public:
  explicit RawEtcd(std::string endpoint) : endpoint_(std::move(endpoint)), h_(curl_easy_init()) {
    headers_ = curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(h_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(h_, CURLOPT_WRITEFUNCTION, &RawEtcd::collect);
    curl_easy_setopt(h_, CURLOPT_WRITEDATA, &reply_);
    curl_easy_setopt(h_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h_, CURLOPT_TCP_NODELAY, 1L);
  }
  ~RawEtcd() {
    curl_easy_cleanup(h_);
    curl_slist_free_all(headers_);
  }
  RawEtcd(RawEtcd const&) = delete;
  RawEtcd& operator=(RawEtcd const&) = delete;

  bool post(char const* api, std::string const& json) {
    reply_.clear();
    curl_easy_setopt(h_, CURLOPT_URL, (endpoint_ + api).c_str());
    curl_easy_setopt(h_, CURLOPT_POSTFIELDS, json.data());
    curl_easy_setopt(h_, CURLOPT_POSTFIELDSIZE, static_cast<long>(json.size()));
    long status = 0;
    if (curl_easy_perform(h_) != CURLE_OK) return false;
    curl_easy_getinfo(h_, CURLINFO_RESPONSE_CODE, &status);
    return status == 200;
  }
  std::string const& reply() const { return reply_; }

 private:
  static size_t collect(char* p, size_t size, size_t n, void* out) {
    static_cast<std::string*>(out)->append(p, size * n);
    return size * n;
  }
  std::string endpoint_;
  CURL* h_;
  curl_slist* headers_ = nullptr;
  std::string reply_;
};

// ------------------------------------------------------------ no watch

// An endpoint listed before the real member that keeps the store's cache
// from going live. The store reads from the cluster while its watch does
// not run, and tries its endpoints in order: this one holds a watch
// request open without answering (the watch never starts), and drops
// every other request unanswered, so the store sends those to the next
// endpoint, the real member, and keeps using it.
class WatchSink {
 public:
  WatchSink() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd_, 16) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
      return;
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~WatchSink() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    for (int fd : held_) ::close(fd);
    ::close(fd_);
  }
  WatchSink(WatchSink const&) = delete;
  WatchSink& operator=(WatchSink const&) = delete;
  int port() const { return port_; }

 private:
  void serve() {
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      int c = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) continue;
      char head[256] = {};
      pollfd q{c, POLLIN, 0};
      ssize_t n = ::poll(&q, 1, 1000) > 0 ? ::recv(c, head, sizeof head - 1, 0) : 0;
      if (n > 0 && std::strstr(head, "/v3/watch")) held_.push_back(c);
      else ::close(c);
    }
  }
  int fd_ = -1, port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::vector<int> held_;
};

// ------------------------------------------------------------ set-up

HKEY openKey(char const* store, char const* path) {
  RegSelectStore(store);
  HKEY k = nullptr;
  if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr) != ERROR_SUCCESS)
    return nullptr;
  return k;
}

bool regPut(HKEY k, char const* name, std::string const& text) {
  return RegSetValueExA(k, name, 0, REG_SZ, reinterpret_cast<BYTE const*>(text.c_str()),
                        static_cast<DWORD>(text.size() + 1)) == ERROR_SUCCESS;
}

bool regGet(HKEY k, char const* name, std::string& out) {
  char buf[16300];
  DWORD size = sizeof buf, type = 0;
  if (RegQueryValueExA(k, name, nullptr, &type, reinterpret_cast<BYTE*>(buf), &size) != ERROR_SUCCESS) return false;
  out.assign(buf, size ? size - 1 : 0);
  return true;
}

// ------------------------------------------------------------ watch delay

// The child's side: writes the sequence number and its start time into one
// value every `gapMs`, and after each write returns reports
// "seq start acknowledged" (steady-clock nanoseconds) on standard output.
int runWriter(char const* location, int count, int gapMs) {
  if (RegSelectStore(location) != ERROR_SUCCESS) return 2;
  HKEY k = nullptr;
  if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Bench\\Watch", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k,
                      nullptr) != ERROR_SUCCESS)
    return 3;
  std::printf("ready\n");
  std::fflush(stdout);
  for (int seq = 1; seq <= count; ++seq) {
    std::this_thread::sleep_for(std::chrono::milliseconds(gapMs));
    int64_t const start = nowNs();
    uint64_t const data = static_cast<uint64_t>(seq);
    if (RegSetValueExA(k, "Seq", 0, REG_QWORD, reinterpret_cast<BYTE const*>(&data), sizeof data) != ERROR_SUCCESS)
      return 4;
    std::printf("%d %lld %lld\n", seq, static_cast<long long>(start), static_cast<long long>(nowNs()));
    std::fflush(stdout);
  }
  RegCloseKey(k);
  return 0;
}

// The writer child, started from this binary, its standard output on a pipe.
class WriterChild {
 public:
  WriterChild(std::string const& location, int count, int gapMs) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t acts;
    posix_spawn_file_actions_init(&acts);
    posix_spawn_file_actions_adddup2(&acts, fds[1], STDOUT_FILENO);
    std::string const n = std::to_string(count), gap = std::to_string(gapMs);
    char const* argv[] = {"bench_regstore_etcd", "--watch-writer", location.c_str(), n.c_str(), gap.c_str(), nullptr};
    if (posix_spawn(&pid_, "/proc/self/exe", &acts, nullptr, const_cast<char**>(argv), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&acts);
    ::close(fds[1]);
    out_ = ::fdopen(fds[0], "r");
  }
  ~WriterChild() {
    if (out_) std::fclose(out_);
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  WriterChild(WriterChild const&) = delete;
  WriterChild& operator=(WriterChild const&) = delete;

  // The next line of the child's report; false at its end.
  bool line(char* buf, int size) { return out_ && std::fgets(buf, size, out_) != nullptr; }

 private:
  pid_t pid_ = -1;
  FILE* out_ = nullptr;
};

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t i = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5));
  return v[i];
}

// Polls the value every 20 us and notes when each sequence number shows.
std::vector<int64_t> watchSequence(HKEY k, int count, int64_t deadline) {
  std::vector<int64_t> seen(static_cast<size_t>(count) + 1, 0);
  uint64_t last = 0;
  while (last < static_cast<uint64_t>(count) && nowNs() < deadline) {
    uint64_t v = 0;
    DWORD size = sizeof v, type = 0;
    if (RegQueryValueExA(k, "Seq", nullptr, &type, reinterpret_cast<BYTE*>(&v), &size) == ERROR_SUCCESS && v > last &&
        v <= static_cast<uint64_t>(count)) {
      seen[v] = nowNs();
      last = v;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(20));
  }
  return seen;
}

// ------------------------------------------------------------ set-up

constexpr char kPrefix[] = "/bench";
constexpr char kMachine[] = "benchhost";

// The etcd key of a registry key or value below HKEY_LOCAL_MACHINE, as the
// store lays them out: the folded path with every component led by byte 01,
// a value's name after byte 00.
std::string etcdKeyOf(std::string const& foldedPath, char const* valueFold = nullptr) {
  std::string key = std::string(kPrefix) + "/m/" + kMachine + "/machine/";
  for (char c : "\\" + foldedPath) key.push_back(c == '\\' ? '\1' : c);
  if (valueFold) key.append(1, '\0').append(valueFold);
  return key;
}

using nlohmann::json;

// Everything the cases share, made on first use: one etcd, a scratch
// directory for the SQLite store, one open key in each store holding the
// same value, and the raw requests the etcd store sends for it.
struct Setup {
  std::unique_ptr<quentest::EtcdCluster> etcd;
  std::string skip;  // why the etcd cases cannot run
  std::string location, endpoint, scratch;
  HKEY sqliteKey = nullptr, etcdKey = nullptr;
  WatchSink sink;
  HKEY uncachedKey = nullptr;  // the same key through a store whose watch never starts
  std::string rangeBody, txnReadBody, putBody;
  // The store's rewrite of a value: a transaction guarded by the key's
  // create revision that puts the value and the key's record.
  std::string txnWriteBody;

  Setup() {
    char tmpl[] = "/tmp/regetcdbenchXXXXXX";
    scratch = ::mkdtemp(tmpl);
    ::setenv("QUENLIB_REGISTRY_DIR", scratch.c_str(), 1);
    ::setenv("QUENLIB_REGISTRY_ETCD_PREFIX", kPrefix, 1);
    ::setenv("QUENLIB_REGISTRY_ETCD_MACHINE", kMachine, 1);
    sqliteKey = openKey("sqlite", kKeyPath);
    regPut(sqliteKey, kValueName, kText);
    etcd = std::make_unique<quentest::EtcdCluster>(1);
    if (!etcd->start()) {
      skip = etcd->error();
      return;
    }
    endpoint = etcd->url(0);
    location = "etcd://" + endpoint.substr(std::strlen("http://"));
    etcdKey = openKey(location.c_str(), kKeyPath);
    if (!etcdKey || !regPut(etcdKey, kValueName, kText)) {
      skip = "cannot write to the etcd store at " + location;
      return;
    }
    std::string const key = etcdKeyOf("software\\bench\\etcd");
    std::string const value = etcdKeyOf("software\\bench\\etcd", "installdir");
    rangeBody = json{{"key", base64(value)}}.dump();
    json reads = json::array({{{"request_range", {{"key", base64(key)}}}}, {{"request_range", {{"key", base64(value)}}}}});
    txnReadBody = json{{"success", reads}}.dump();
    RawEtcd raw(endpoint);
    if (!raw.post("/v3/kv/range", rangeBody) || raw.reply().find("\"kvs\"") == std::string::npos) {
      skip = "the value is not where the store's layout puts it: " + raw.reply();
      return;
    }
    json const valueKv = json::parse(raw.reply())["kvs"][0];
    putBody = json{{"key", base64(value)}, {"value", valueKv["value"]}}.dump();
    raw.post("/v3/kv/range", json{{"key", base64(key)}}.dump());
    json const keyKv = json::parse(raw.reply())["kvs"][0];
    json cmps = json::array(
        {{{"key", base64(key)}, {"result", "EQUAL"}, {"target", "CREATE"}, {"create_revision", keyKv["create_revision"]}}});
    json puts = json::array({{{"request_put", {{"key", base64(value)}, {"value", valueKv["value"]}}}},
                             {{"request_put", {{"key", base64(key)}, {"value", keyKv["value"]}}}}});
    txnWriteBody = json{{"compare", cmps}, {"success", puts}}.dump();
    waitForCache(etcdKey);
    std::string const noWatch = "etcd://127.0.0.1:" + std::to_string(sink.port()) + "," + location.substr(7);
    uncachedKey = openKey(noWatch.c_str(), kKeyPath);
    std::string out;
    if (!uncachedKey || !regGet(uncachedKey, kValueName, out) || out != kText)
      skip = "cannot read through " + noWatch;
  }
  ~Setup() {
    RegCloseKey(uncachedKey);
    RegCloseKey(etcdKey);
    RegCloseKey(sqliteKey);
    etcd.reset();
    std::error_code ec;
    std::filesystem::remove_all(scratch, ec);
  }

  // The first read starts the store's watch; reads are served by the cache
  // once the watch runs. Waits until a read costs what a cached one does.
  static void waitForCache(HKEY k) {
    std::string out;
    int64_t const deadline = nowNs() + 5'000'000'000;
    while (nowNs() < deadline) {
      int64_t const t = nowNs();
      for (int i = 0; i < 100; ++i) regGet(k, kValueName, out);
      if (nowNs() - t < 100 * 20'000) return;  // under 20 us a read: no request made
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
};

Setup* made = nullptr;

Setup& setup() {
  if (!made) made = new Setup;
  return *made;
}

bool skipWithoutEtcd(benchmark::State& state) {
  if (setup().skip.empty()) return false;
  state.SkipWithError(("etcd cases skipped: " + setup().skip).c_str());
  return true;
}

// ------------------------------------------------------------ cases

void BM_CachedRead_SQLiteStore(benchmark::State& state) {
  HKEY k = setup().sqliteKey;
  std::string out;
  for (auto _ : state) {
    if (!regGet(k, kValueName, out)) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_CachedRead_SQLiteStore);

void BM_CachedRead_EtcdStore(benchmark::State& state) {
  if (skipWithoutEtcd(state)) return;
  HKEY k = setup().etcdKey;
  std::string out;
  for (auto _ : state) {
    if (!regGet(k, kValueName, out)) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_CachedRead_EtcdStore);

// A read the cache cannot serve (its watch never starts; see WatchSink):
// the store sends one request per read.
void BM_UncachedRead_EtcdStore(benchmark::State& state) {
  if (skipWithoutEtcd(state)) return;
  HKEY k = setup().uncachedKey;
  std::string out;
  int64_t const start = nowNs();
  for (auto _ : state)
    if (!regGet(k, kValueName, out)) state.SkipWithError("read failed");
  // Served by a cache, a read would cost well under 10 us.
  if (state.iterations() && (nowNs() - start) / static_cast<int64_t>(state.iterations()) < 10'000)
    state.SkipWithError("the reads were served by a cache");
}
BENCHMARK(BM_UncachedRead_EtcdStore)->UseRealTime();

// The peer of an uncached read: the request the store sends for it (one
// transaction of two ranges: the key's record and the value's).
void BM_UncachedRead_RawTxn(benchmark::State& state) {
  if (skipWithoutEtcd(state)) return;
  RawEtcd raw(setup().endpoint);
  for (auto _ : state)
    if (!raw.post("/v3/kv/txn", setup().txnReadBody)) state.SkipWithError("request failed");
}
BENCHMARK(BM_UncachedRead_RawTxn)->UseRealTime();

// The plainest read etcd offers: one range of the value's key.
void BM_UncachedRead_RawRange(benchmark::State& state) {
  if (skipWithoutEtcd(state)) return;
  RawEtcd raw(setup().endpoint);
  for (auto _ : state)
    if (!raw.post("/v3/kv/range", setup().rangeBody)) state.SkipWithError("request failed");
}
BENCHMARK(BM_UncachedRead_RawRange)->UseRealTime();

void BM_Write_EtcdStore(benchmark::State& state) {
  if (skipWithoutEtcd(state)) return;
  HKEY k = setup().etcdKey;
  for (auto _ : state)
    if (!regPut(k, kValueName, kText)) state.SkipWithError("write failed");
}
BENCHMARK(BM_Write_EtcdStore)->UseRealTime();

// The peer of a write: a put of the same record to the same etcd key.
void BM_Write_RawPut(benchmark::State& state) {
  if (skipWithoutEtcd(state)) return;
  RawEtcd raw(setup().endpoint);
  for (auto _ : state)
    if (!raw.post("/v3/kv/put", setup().putBody)) state.SkipWithError("request failed");
}
BENCHMARK(BM_Write_RawPut)->UseRealTime();

// The store's own write request for a rewrite, sent raw.
void BM_Write_RawTxn(benchmark::State& state) {
  if (skipWithoutEtcd(state)) return;
  RawEtcd raw(setup().endpoint);
  for (auto _ : state)
    if (!raw.post("/v3/kv/txn", setup().txnWriteBody) || raw.reply().find("\"succeeded\":true") == std::string::npos) {
      state.SkipWithError("transaction failed");
      break;
    }
}
BENCHMARK(BM_Write_RawTxn)->UseRealTime();

// A write in a child process to its visibility in this one, through the
// store's watch: polls a value every 20 us while the child writes it every
// 10 ms. Reported from the start of the child's write and from the moment
// its write returned (steady clock, shared by both processes).
void BM_WatchDelay(benchmark::State& state) {
  if (skipWithoutEtcd(state)) return;
  constexpr int kWrites = 200, kGapMs = 10;
  HKEY k = openKey(setup().location.c_str(), "Software\\Bench\\Watch");
  uint64_t zero = 0;
  RegSetValueExA(k, "Seq", 0, REG_QWORD, reinterpret_cast<BYTE const*>(&zero), sizeof zero);
  Setup::waitForCache(k);
  std::vector<double> fromStart, fromAck;
  for (auto _ : state) {
    WriterChild child(setup().location, kWrites, kGapMs);
    char line[128];
    if (!child.line(line, sizeof line) || std::strcmp(line, "ready\n") != 0) {
      state.SkipWithError("the writer child did not start");
      break;
    }
    std::vector<int64_t> const seen = watchSequence(k, kWrites, nowNs() + (kWrites * kGapMs + 10'000) * 1'000'000LL);
    while (child.line(line, sizeof line)) {
      int seq = 0;
      long long start = 0, ack = 0;
      if (std::sscanf(line, "%d %lld %lld", &seq, &start, &ack) != 3 || seq < 1 || seq > kWrites || !seen[seq]) continue;
      fromStart.push_back(static_cast<double>(seen[seq] - start) / 1000.0);
      fromAck.push_back(static_cast<double>(seen[seq] - ack) / 1000.0);
    }
  }
  RegCloseKey(k);
  state.counters["writes_seen"] = static_cast<double>(fromStart.size());
  state.counters["median_us"] = percentile(fromStart, 0.5);
  state.counters["p99_us"] = percentile(fromStart, 0.99);
  state.counters["after_ack_median_us"] = percentile(fromAck, 0.5);
  state.counters["after_ack_p99_us"] = percentile(fromAck, 0.99);
}
BENCHMARK(BM_WatchDelay)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "--watch-writer") == 0)
    return runWriter(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  delete made;
  return 0;
}
