// CSITcpSocket over loopback against the plain loops a caller would write,
// in one binary: GetLine reading 100 MB of 80-byte lines against recv +
// memchr with the same 8 KiB buffer, Send of 100 MB against send, and both
// over TLS against SSL_read / SSL_write loops. The peer is a thread of this
// process; the TLS peer uses a certificate made here and pinned for the
// library through QUENLIB_CERTIFICATE_DIR.
#include <quenlib/csitcpsocket.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

using namespace QuenLibA500;

namespace {

constexpr size_t kLine = 80;
constexpr size_t kChunk = kLine * 820;    // 64 KiB of whole lines
constexpr size_t kTotal = kChunk * 1600;  // 100 MB
constexpr size_t kLines = kTotal / kLine;

std::string const& lineBlock() {
  static std::string block = [] {
    std::string b;
    for (size_t i = 0; i < kChunk / kLine; ++i) b += std::string(kLine - 2, 'x') + "\r\n";
    return b;
  }();
  return block;
}

// ---- the TLS peer's identity, pinned for the library

struct Identity {
  EVP_PKEY* key = nullptr;
  X509* cert = nullptr;
  SSL_CTX* server = nullptr;
  SSL_CTX* client = nullptr;
};

Identity const& identity() {
  static Identity id = [] {
    Identity i;
    ::signal(SIGPIPE, SIG_IGN);  // the peers' own SSL_write/SSL_shutdown on a closed connection
    i.key = EVP_EC_gen("P-256");
    i.cert = X509_new();
    X509_set_version(i.cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(i.cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(i.cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(i.cert), 86400);
    X509_set_pubkey(i.cert, i.key);
    X509_NAME* name = X509_get_subject_name(i.cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<unsigned char const*>("bench"), -1, -1, 0);
    X509_set_issuer_name(i.cert, name);
    X509_sign(i.cert, i.key, EVP_sha256());
    std::string const dir = std::filesystem::temp_directory_path() / ("quenlib-bench-net-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    FILE* f = std::fopen((dir + "/certificate.crt").c_str(), "w");
    PEM_write_X509(f, i.cert);
    std::fclose(f);
    ::setenv("QUENLIB_CERTIFICATE_DIR", dir.c_str(), 1);
    i.server = SSL_CTX_new(TLS_server_method());
    SSL_CTX_use_certificate(i.server, i.cert);
    SSL_CTX_use_PrivateKey(i.server, i.key);
    i.client = SSL_CTX_new(TLS_client_method());
    return i;
  }();
  return id;
}

// ---- the peer: one connection, served by a thread

class Peer {
 public:
  // `serve(fd, ssl)` runs on the accepted connection (ssl null for plain).
  Peer(bool tls, std::function<void(int, SSL*)> serve) {
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ::bind(m_listen, reinterpret_cast<sockaddr*>(&a), len);
    ::listen(m_listen, 1);
    ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len);
    m_port = ntohs(a.sin_port);
    m_thread = std::thread([this, tls, serve = std::move(serve)] {
      int c = ::accept(m_listen, nullptr, nullptr);
      SSL* ssl = nullptr;
      if (tls) {
        ssl = SSL_new(identity().server);
        SSL_set_fd(ssl, c);
        if (SSL_accept(ssl) != 1) std::abort();
      }
      serve(c, ssl);
      if (ssl) SSL_shutdown(ssl), SSL_free(ssl);
      ::close(c);
    });
  }
  ~Peer() {
    m_thread.join();
    ::close(m_listen);
  }
  unsigned short port() const { return m_port; }

  // A connected plain socket, or a TLS connection on it.
  int connectPlain() const {
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(m_port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) std::abort();
    return s;
  }

 private:
  int m_listen;
  unsigned short m_port = 0;
  std::thread m_thread;
};

bool writeAll(int fd, SSL* ssl, char const* p, size_t n) {
  while (n > 0) {
    int const w = ssl ? SSL_write(ssl, p, static_cast<int>(n)) : static_cast<int>(::send(fd, p, n, MSG_NOSIGNAL));
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

void sendLines(int fd, SSL* ssl) {
  for (size_t sent = 0; sent < kTotal; sent += kChunk)
    if (!writeAll(fd, ssl, lineBlock().data(), kChunk)) return;
}

void drain(int fd, SSL* ssl) {
  static thread_local char buf[256 * 1024];
  for (size_t got = 0; got < kTotal;) {
    int const n = ssl ? SSL_read(ssl, buf, sizeof buf) : static_cast<int>(::recv(fd, buf, sizeof buf, 0));
    if (n <= 0) return;
    got += static_cast<size_t>(n);
  }
}

// ---- GetLine against recv + memchr

size_t peerReadLines(int fd, SSL* ssl) {
  char buf[CSITcpSocket::RECEIVE_BUFFER_SIZE];
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  size_t lines = 0, have = 0, stored = 0;
  char* pos = buf;
  while (lines < kLines) {
    if (have == 0) {
      int const n = ssl ? SSL_read(ssl, buf, sizeof buf) : static_cast<int>(::recv(fd, buf, sizeof buf, 0));
      if (n <= 0) break;
      have = static_cast<size_t>(n);
      pos = buf;
    }
    auto* lf = static_cast<char*>(std::memchr(pos, '\n', have));
    size_t const take = lf ? static_cast<size_t>(lf - pos) : have;
    std::memcpy(line + stored, pos, take);
    stored += take;
    pos += lf ? take + 1 : take;
    have -= lf ? take + 1 : take;
    if (lf) lines += 1, stored = 0;
  }
  return lines;
}

void GetLinePeer(benchmark::State& state, bool tls) {
  if (tls) identity();  // the pin exists before the first connection
  for (auto _ : state) {
    Peer peer(tls, sendLines);
    int s = peer.connectPlain();
    SSL* ssl = nullptr;
    if (tls) {
      ssl = SSL_new(identity().client);
      SSL_set_fd(ssl, s);
      if (SSL_connect(ssl) != 1) std::abort();
    }
    benchmark::DoNotOptimize(peerReadLines(s, ssl));
    if (ssl) SSL_free(ssl);
    ::close(s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

void GetLineLibrary(benchmark::State& state, bool tls) {
  if (tls) identity();  // the pin exists before the first connection
  for (auto _ : state) {
    Peer peer(tls, sendLines);
    CSITcpSocket s("127.0.0.1", peer.port());
    if (!s.TcpOpen(tls)) std::abort();
    char line[CSITcpSocket::LINE_BUFFER_SIZE];
    size_t lines = 0;
    while (lines < kLines && s.GetLine(line, 10)) ++lines;
    if (lines != kLines) state.SkipWithError("short read");
    s.AbortSocket();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

// ---- Send against send / SSL_write

void SendPeer(benchmark::State& state, bool tls) {
  if (tls) identity();  // the pin exists before the first connection
  std::string const chunk(kChunk, 'y');
  for (auto _ : state) {
    Peer peer(tls, drain);
    int s = peer.connectPlain();
    SSL* ssl = nullptr;
    if (tls) {
      ssl = SSL_new(identity().client);
      SSL_set_fd(ssl, s);
      if (SSL_connect(ssl) != 1) std::abort();
    }
    for (size_t sent = 0; sent < kTotal; sent += kChunk) writeAll(s, ssl, chunk.data(), kChunk);
    if (ssl) SSL_free(ssl);
    ::shutdown(s, SHUT_WR);
    ::close(s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

void SendLibrary(benchmark::State& state, bool tls) {
  if (tls) identity();  // the pin exists before the first connection
  std::string const chunk(kChunk, 'y');
  for (auto _ : state) {
    Peer peer(tls, drain);
    CSITcpSocket s("127.0.0.1", peer.port());
    if (!s.TcpOpen(tls)) std::abort();
    for (size_t sent = 0; sent < kTotal; sent += kChunk)
      if (!s.Send(chunk.data(), kChunk, 10)) state.SkipWithError("send failed");
    s.AbortSocket();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

void BM_GetLine_Plain_Peer(benchmark::State& s) { GetLinePeer(s, false); }
void BM_GetLine_Plain_Library(benchmark::State& s) { GetLineLibrary(s, false); }
void BM_Send_Plain_Peer(benchmark::State& s) { SendPeer(s, false); }
void BM_Send_Plain_Library(benchmark::State& s) { SendLibrary(s, false); }
void BM_GetLine_Tls_Peer(benchmark::State& s) { GetLinePeer(s, true); }
void BM_GetLine_Tls_Library(benchmark::State& s) { GetLineLibrary(s, true); }
void BM_Send_Tls_Peer(benchmark::State& s) { SendPeer(s, true); }
void BM_Send_Tls_Library(benchmark::State& s) { SendLibrary(s, true); }

}  // namespace

BENCHMARK(BM_GetLine_Plain_Peer)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_GetLine_Plain_Library)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Send_Plain_Peer)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_Send_Plain_Library)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_GetLine_Tls_Peer)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_GetLine_Tls_Library)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Send_Tls_Peer)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Send_Tls_Library)->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_MAIN();
