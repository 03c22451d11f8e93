// CSITcpSocket: one client connection with a receive buffer, CRLF lines and
// TLS (OpenSSL) pinned to the installation's certificate file.
#include <quenlib/csisocket.h>
#include <quenlib/csitcpsocket.h>

#include "diagnostics/assert.h"
#include "diagnostics/trace.h"
#include "net/replydeadline.h"

#include <dlfcn.h>
#include <link.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace QuenLibA500 {

namespace {

constexpr unsigned int kInvalid = CSISocket::INVALID;
constexpr int kDrainPiece = 256;
constexpr int kWaitAgain = 2;
// The drain stops when the peer has been quiet this long, or after the
// overall limit, so that a peer that never closes cannot hold us.
constexpr int kDrainQuietSeconds = 1;
constexpr auto kDrainLimit = std::chrono::seconds(5);
constexpr char const kModuleMark[] = "LumarisEnterprise";

int fd(unsigned int s) { return static_cast<int>(s); }

std::string directoryOf(char const* path) {
  std::string p(path ? path : "");
  size_t const slash = p.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : p.substr(0, slash);
}

int findMarkedModule(dl_phdr_info* info, size_t, void* ctx) {
  char const* name = info->dlpi_name;
  if (!name || !*name) return 0;
  char const* base = std::strrchr(name, '/');
  if (!std::strstr(base ? base + 1 : name, kModuleMark)) return 0;
  *static_cast<std::string*>(ctx) = directoryOf(name);
  return 1;
}

void anchorOfThisLibrary() {}

// SSL_write and SSL_shutdown write with write(2), which raises SIGPIPE on a
// closed connection. The signal is held back on this thread meanwhile, and
// one it caused is consumed, so the failure is reported as a result.
class SigpipeHold {
 public:
  SigpipeHold() {
    sigemptyset(&m_pipe);
    sigaddset(&m_pipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &m_pipe, &m_old);
  }
  ~SigpipeHold() {
    sigset_t pending;
    sigpending(&pending);
    if (!m_wasPending && sigismember(&pending, SIGPIPE) == 1) {
      timespec const none{0, 0};
      sigtimedwait(&m_pipe, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
  }
  SigpipeHold(SigpipeHold const&) = delete;
  SigpipeHold& operator=(SigpipeHold const&) = delete;

 private:
  sigset_t m_pipe{};
  sigset_t m_old{};
  bool m_wasPending = false;
};

// Compares the server's certificate with the pinned file; traces why not.
bool matchesPinnedCertificate(X509* server) {
  std::string const path(CSITcpSocket::CertificatePath().getString());
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "r"), &std::fclose);
  if (!file) {
    QL_TRACE_ERROR("Unable to open file");
    return false;
  }
  std::unique_ptr<X509, void (*)(X509*)> pinned(PEM_read_X509(file.get(), nullptr, nullptr, nullptr), &X509_free);
  if (!pinned) {
    ERR_clear_error();
    QL_TRACE_ERROR("Unable to parse certificate");
    return false;
  }
  if (X509_cmp(pinned.get(), server) != 0) {
    QL_TRACE_ERROR("Certificate does not match");
    return false;
  }
  return true;
}

bool wouldRetry(SSL* ssl, int rc) {
  int const err = SSL_get_error(ssl, rc);
  if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) return true;
  return err == SSL_ERROR_SYSCALL && errno == EINTR;
}

void closeSocket(unsigned int& s) {
  if (s != kInvalid) ::close(fd(s));
  s = kInvalid;
}

void freeTls(ssl_st*& ssl) {
  if (ssl) SSL_free(ssl);
  ssl = nullptr;
}

}  // namespace

CSITcpSocket::CSITcpSocket(SAnsiString const& host, unsigned short port) : m_host(host), m_port(port) {}

CSITcpSocket::CSITcpSocket(CSITcpSocket const& other) : m_host(other.m_host), m_port(other.m_port) {}

CSITcpSocket& CSITcpSocket::operator=(CSITcpSocket const& other) {
  if (this == &other) return *this;
  closeNow();
  m_host = other.m_host;
  m_port = other.m_port;
  return *this;
}

CSITcpSocket::~CSITcpSocket() { closeNow(); }

void CSITcpSocket::closeNow() {
  m_recvTimeout = m_sendTimeout = 0;
  freeTls(m_ssl);
  closeSocket(m_socket);
  delete[] m_buffer;
  m_buffer = nullptr;
  m_readPos = nullptr;
  m_unread = 0;
}

ssl_ctx_st* CSITcpSocket::InitCTX() {
  QL_TRACE(SLogger::tl_L, "Inside Init CTX");
  SSL_METHOD const* method = TLS_client_method();
  if (!method) {
    QL_TRACE_ERROR("SSLv23_method is NULL");
    return nullptr;
  }
  SSL_CTX* ctx = SSL_CTX_new(method);
  if (!ctx) QL_TRACE_ERROR("Init CTX failed");
  return ctx;
}

namespace {

// Handshake on a connected socket and the certificate check. On failure
// everything is released and the socket closed.
bool openTls(CSITcpSocket& owner, SAnsiString const& host, unsigned int& s, ssl_st*& out) {
  SSL_CTX* ctx = owner.InitCTX();
  if (!ctx) {
    QL_TRACE_ERROR("InitCTX is NULL");
    closeSocket(s);
    return false;
  }
  // Without automatic retry a read that only met a handshake record comes
  // back, so GetData can wait again with its time-out.
  SSL_CTX_clear_mode(ctx, SSL_MODE_AUTO_RETRY);
  SSL* ssl = SSL_new(ctx);
  SSL_CTX_free(ctx);  // the connection holds its own reference
  if (!ssl) {
    QL_TRACE_ERROR("SSL_new is NULL");
    closeSocket(s);
    return false;
  }
  SSL_set_fd(ssl, fd(s));
  if (!CSISocket::isNumericAddress(host)) SSL_set_tlsext_host_name(ssl, host.getString());
  if (SSL_connect(ssl) != 1) {
    ERR_clear_error();
    SSL_free(ssl);
    closeSocket(s);
    QL_TRACE_ERROR("SSL connection not established");
    return false;
  }
  std::unique_ptr<X509, void (*)(X509*)> cert(SSL_get1_peer_certificate(ssl), &X509_free);
  bool const ok = cert ? matchesPinnedCertificate(cert.get()) : false;
  if (!cert) QL_TRACE_ERROR("Server Certificate fail");
  if (!ok) {
    SSL_free(ssl);
    closeSocket(s);
    return false;
  }
  out = ssl;
  return true;
}

}  // namespace

bool CSITcpSocket::TcpOpen(bool useTls) {
  freeTls(m_ssl);
  closeSocket(m_socket);
  if (!m_buffer) m_buffer = new (std::nothrow) char[RECEIVE_BUFFER_SIZE];
  if (!m_buffer) {
    QL_REPORT("0", "out of memory");
    return false;
  }
  sockaddr_storage* addrs = nullptr;
  unsigned int count = 0;
  if (CSISocket::gethostsbyname(m_host, addrs, count) != 0) return false;
  std::unique_ptr<sockaddr_storage[]> owned(addrs);
  m_tls = useTls;
  unsigned int s = kInvalid;
  ssl_st* ssl = nullptr;
  for (unsigned int i = 0; i < count; ++i) {
    // A TLS connection already verified gives way to the next address's.
    freeTls(ssl);
    closeSocket(s);
    sockaddr& addr = reinterpret_cast<sockaddr&>(addrs[i]);
    CSISocket::setPort(addr, m_port);
    s = CSISocket::socket(addr.sa_family, SOCK_STREAM, 0);
    if (s == kInvalid) return false;
    if (CSISocket::connect(s, &addr, CSISocket::getSize(addr)) != 0) {
      closeSocket(s);
      continue;
    }
    if (!useTls) break;
    if (!openTls(*this, m_host, s, ssl)) return false;
  }
  m_socket = s;
  m_ssl = ssl;
  m_recvTimeout = m_sendTimeout = 0;
  m_unread = 0;
  m_readPos = m_buffer;
  return true;
}

bool CSITcpSocket::TcpOpen(char const* service) {
  short const port = CSISocket::getportbyname(service, 0);
  if (port == 0) return false;
  m_port = static_cast<unsigned short>(port);
  return TcpOpen(false);
}

// One write: 1 some bytes written, 0 nothing could be written yet, -1 the
// connection failed.
int CSITcpSocket::writeSome(char const* data, unsigned int length, unsigned int& written, int flags) {
  int const chunk = static_cast<int>(std::min<unsigned int>(length, INT_MAX));
  int n;
  if (m_tls) {
    SigpipeHold hold;
    do {
      ERR_clear_error();
      n = SSL_write(m_ssl, data, chunk);
    } while (n <= 0 && wouldRetry(m_ssl, n));
  } else {
    do {
      n = static_cast<int>(::send(fd(m_socket), data, static_cast<size_t>(chunk), flags | MSG_NOSIGNAL));
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
  }
  if (n <= 0) return -1;
  written = static_cast<unsigned int>(n);
  return 1;
}

// Sets SO_RCVTIMEO or SO_SNDTIMEO unless `seconds` is already set (0: none).
bool CSITcpSocket::setKernelTimeout(int option, int seconds) {
  int& current = option == SO_RCVTIMEO ? m_recvTimeout : m_sendTimeout;
  if (current == seconds) return true;
  timeval const tv{seconds, 0};
  if (::setsockopt(fd(m_socket), SOL_SOCKET, option, &tv, sizeof tv) != 0) return false;
  current = seconds;
  return true;
}

// A time-out in whole seconds on a plain socket is left to the kernel, which
// then waits for room inside the send itself (one call instead of a wait and
// a call); no progress within it is the time-out. Otherwise the socket is
// waited on first.
bool CSITcpSocket::Send(char const* data, unsigned int length, int timeoutSeconds) {
  if (m_socket == kInvalid) return false;
  bool const inKernel = !m_tls && timeoutSeconds > 0;
  if (!m_tls && !setKernelTimeout(SO_SNDTIMEO, inKernel ? timeoutSeconds : 0)) return AbortSocket(), false;
  while (length > 0) {
    unsigned int written = 0;
    int sent = 0;
    if (inKernel) sent = writeSome(data, length, written, 0) == 1 ? 1 : -1;
    else if (CSISocket::isWriteable(m_socket, timeoutSeconds, 0) < 1) sent = -1;
    else sent = writeSome(data, length, written, 0);
    if (sent < 0) {
      AbortSocket();
      return false;
    }
    data += written;
    length -= written;
  }
  return true;
}

bool CSITcpSocket::SendString(char const* text, int timeoutSeconds) {
  return Send(text, static_cast<unsigned int>(std::strlen(text)), timeoutSeconds);
}

// One read into the empty buffer: 1 bytes arrived, 0 none yet, -1 the
// peer closed or the connection failed.
int CSITcpSocket::readSome(int flags) {
  int n;
  if (m_tls) {
    ERR_clear_error();
    n = SSL_read(m_ssl, m_buffer, RECEIVE_BUFFER_SIZE);
    if (n <= 0 && wouldRetry(m_ssl, n)) return 0;
  } else {
    do {
      n = static_cast<int>(::recv(fd(m_socket), m_buffer, RECEIVE_BUFFER_SIZE, flags));
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
  }
  if (n <= 0) return -1;
  m_unread = n;
  m_readPos = m_buffer;
  return 1;
}

// One read after waiting up to the time-out: 1 bytes arrived, 0 nothing in
// time, -1 the connection ended, kWaitAgain the read found nothing for us
// (a TLS record without data). As in Send, the kernel does the waiting on
// a plain socket; for TLS, bytes OpenSSL already holds need no wait.
int CSITcpSocket::waitAndRead(int timeoutSeconds) {
  if (!m_tls) {
    bool const inKernel = timeoutSeconds > 0;
    if (!setKernelTimeout(SO_RCVTIMEO, inKernel ? timeoutSeconds : 0)) return -1;
    if (inKernel) return readSome(0);
  }
  if (!m_tls || SSL_pending(m_ssl) <= 0) {
    int const ready = CSISocket::isReadable(m_socket, timeoutSeconds);
    if (ready <= 0) return ready;
  }
  int const got = readSome(0);
  return got == 0 ? kWaitAgain : got;
}

bool CSITcpSocket::GetData(int timeoutSeconds, bool abortOnTimeout) {
  if (m_socket == kInvalid) return false;
  while (m_unread <= 0) {
    int const got = waitAndRead(timeoutSeconds);
    if (got == kWaitAgain) continue;
    if (got == 0) {
      if (abortOnTimeout) AbortSocket();
      return false;
    }
    if (got < 0) {
      AbortSocket();
      return false;
    }
  }
  return true;
}

bool CSITcpSocket::GetBuffer(unsigned int length, void* out, int timeoutSeconds) {
  char* dst = static_cast<char*>(out);
  while (length > 0) {
    if (!GetData(timeoutSeconds, true)) return false;
    unsigned int const take = std::min(length, static_cast<unsigned int>(m_unread));
    std::memcpy(dst, m_readPos, take);
    dst += take;
    length -= take;
    m_readPos += take;
    m_unread -= static_cast<int32_t>(take);
  }
  return true;
}

bool CSITcpSocket::GetLine(char* out, int timeoutSeconds) {
  // Bytes up to the LF are stored, CR included, in at most
  // LINE_BUFFER_SIZE bytes; the CR then becomes the terminating zero. The
  // time-out bounds the whole line, so a peer dripping bytes cannot hold it.
  ReplyDeadline const deadline(timeoutSeconds);
  size_t stored = 0;
  for (;;) {
    if (m_unread <= 0 && deadline.passed()) {
      AbortSocket();
      return false;
    }
    if (!GetData(m_unread > 0 ? timeoutSeconds : deadline.left(), true)) return false;
    auto const available = static_cast<size_t>(m_unread);
    auto const* lf = static_cast<char const*>(std::memchr(m_readPos, '\n', available));
    size_t const take = lf ? static_cast<size_t>(lf - m_readPos) : available;
    if (stored + take > LINE_BUFFER_SIZE) {
      AbortSocket();
      return false;
    }
    std::memcpy(out + stored, m_readPos, take);
    stored += take;
    size_t const consumed = lf ? take + 1 : take;
    m_readPos += consumed;
    m_unread -= static_cast<int32_t>(consumed);
    if (!lf) continue;
    if (stored > 0 && out[stored - 1] == '\r') {
      out[stored - 1] = '\0';
      return true;
    }
    // An LF without its CR belongs to the line.
    if (stored + 1 > LINE_BUFFER_SIZE) {
      AbortSocket();
      return false;
    }
    out[stored++] = '\n';
  }
}

void CSITcpSocket::AbortSocket() {
  if (m_socket != kInvalid) {
    if (m_ssl) {
      SigpipeHold hold;
      SSL_shutdown(m_ssl);
      ERR_clear_error();
    }
    ::shutdown(fd(m_socket), SHUT_WR);
    auto const deadline = std::chrono::steady_clock::now() + kDrainLimit;
    char piece[kDrainPiece];
    while (std::chrono::steady_clock::now() < deadline) {
      if (CSISocket::isReadable(m_socket, kDrainQuietSeconds) != 1) break;
      ssize_t const n = ::recv(fd(m_socket), piece, sizeof piece, 0);
      if (n == 0) break;
      if (n < 0 && errno != EINTR && errno != EWOULDBLOCK && errno != EAGAIN) break;
    }
  }
  closeNow();
}

SAnsiString CSITcpSocket::CertificateDirectory() {
  char const* env = std::getenv("QUENLIB_CERTIFICATE_DIR");
  if (env && *env) return SAnsiString(env);
  std::string dir;
  if (dl_iterate_phdr(&findMarkedModule, &dir) != 0) return SAnsiString(dir.c_str());
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&anchorOfThisLibrary), &info) != 0 && info.dli_fname)
    return SAnsiString(directoryOf(info.dli_fname).c_str());
  return SAnsiString(".");
}

SAnsiString CSITcpSocket::CertificatePath() { return CertificateDirectory() + "/certificate.crt"; }

}  // namespace QuenLibA500
