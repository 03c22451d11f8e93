// csitcpsocket.h: one client TCP connection, plain or TLS, with CRLF lines.
//
// `CSITcpSocket` connects to a host and port, sends whole buffers with a
// time-out, and reads through an 8,192-byte receive buffer: raw bytes
// (GetBuffer) or CRLF-terminated lines of at most 2,046 characters
// (GetLine). With TLS (OpenSSL) the server's certificate must equal the
// installation's pinned `certificate.crt` (see CertificatePath); nothing
// else about the certificate is checked.
//
//   CSITcpSocket smtp("mail.example.org", 25);
//   if (!smtp.TcpOpen(false)) return;             // resolution failed
//   char line[CSITcpSocket::LINE_BUFFER_SIZE];
//   if (smtp.GetLine(line, 30) && smtp.SendString("QUIT\r\n", 30))
//     smtp.GetLine(line, 30);
//   smtp.AbortSocket();                           // always end with this
//
// Every failure of Send, GetData, GetBuffer and GetLine closes the
// connection (AbortSocket), so a failed exchange never leaves half-read
// data behind. A TcpOpen that resolved the host but could not connect
// still returns true; the first Send or GetData then fails. An object
// belongs to one thread at a time. Diagnostics go to the trace channel
// under the source name "csitcpsocket".
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <cstdint>

struct ssl_st;
struct ssl_ctx_st;

namespace QuenLibA500 {

class QUENLIB_API CSITcpSocket {
 public:
  static constexpr unsigned int RECEIVE_BUFFER_SIZE = 8192;
  // What GetLine's output must hold: 2,046 characters and the zero.
  static constexpr unsigned int LINE_BUFFER_SIZE = 2047;

  CSITcpSocket(SAnsiString const& host, unsigned short port);
  // A copy names the same host and port and starts closed: connections
  // are never shared between objects.
  CSITcpSocket(CSITcpSocket const& other);
  CSITcpSocket& operator=(CSITcpSocket const& other);
  // Releases what is still open, without the drain of AbortSocket.
  ~CSITcpSocket();

  // Resolves the host and connects to its addresses in order (see
  // docs/net.md for the TLS search and the result).
  bool TcpOpen(bool useTls);
  // The port of a TCP service ("smtp"), then TcpOpen(false).
  bool TcpOpen(char const* service);

  bool Send(char const* data, unsigned int length, int timeoutSeconds);
  bool SendString(char const* text, int timeoutSeconds);
  // True when unread bytes are buffered, reading once if none are.
  bool GetData(int timeoutSeconds, bool abortOnTimeout);
  bool GetBuffer(unsigned int length, void* out, int timeoutSeconds);
  // One CRLF-terminated line without its CR LF; `out` holds
  // LINE_BUFFER_SIZE bytes. A longer line aborts the connection.
  bool GetLine(char* out, int timeoutSeconds);
  // Shuts down sending, drains what the peer still sends, closes.
  void AbortSocket();

  // A TLS client context (the caller frees it with SSL_CTX_free).
  ssl_ctx_st* InitCTX();

  SAnsiString GetHost() const { return m_host; }
  unsigned short GetPort() const { return m_port; }
  void SetPortA(unsigned short port) { m_port = port; }
  bool IsOpen() const { return m_socket != static_cast<unsigned int>(-1); }
  bool IsTls() const { return m_tls; }
  unsigned int GetSocket() const { return m_socket; }

  // Directory searched for the pinned certificate: $QUENLIB_CERTIFICATE_DIR,
  // else that of the loaded module whose file name contains
  // "LumarisEnterprise", else that of this library.
  static SAnsiString CertificateDirectory();
  // CertificateDirectory() + "/certificate.crt".
  static SAnsiString CertificatePath();

 private:
  int readSome(int flags);
  int waitAndRead(int timeoutSeconds);
  bool setKernelTimeout(int option, int seconds);
  int writeSome(char const* data, unsigned int length, unsigned int& written, int flags);
  void closeNow();

  SAnsiString m_host;
  unsigned short m_port;
  unsigned int m_socket = static_cast<unsigned int>(-1);
  int32_t m_unread = 0;
  char* m_readPos = nullptr;
  char* m_buffer = nullptr;
  bool m_tls = false;
  ssl_st* m_ssl = nullptr;
  int m_recvTimeout = 0;  // SO_RCVTIMEO in seconds, 0 none
  int m_sendTimeout = 0;  // SO_SNDTIMEO in seconds, 0 none
};

}  // namespace QuenLibA500
