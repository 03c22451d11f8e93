// CSIsftp: SFTP uploads over libssh2, with a pinned SHA-256 host-key
// fingerprint.
#include <quenlib/csisftp.h>
#include <quenlib/csisocket.h>
#include <quenlib/sfile.h>

#include "text/stdtext.h"
#include "diagnostics/trace.h"
#include "net/pathlevels.h"

#include <libssh2.h>
#include <libssh2_sftp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

namespace QuenLibA500 {

namespace {

using stdtext::str;
using stdtext::ansi;



[[noreturn]] void fail(int category, std::string const& text) {
  throw CSIsftpException(category, ansi(text));
}

constexpr char kNoControl[] =
    "A valid control connection does not exist, please connect to a ftp server first";
constexpr unsigned kWindow = 32768;

std::string hex(unsigned char const* bytes, size_t n) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += digits[bytes[i] >> 4];
    out += digits[bytes[i] & 15];
  }
  return out;
}

bool equalNoCase(std::string const& a, std::string const& b) {
  return a.size() == b.size() && ::strncasecmp(a.c_str(), b.c_str(), a.size()) == 0;
}

// libssh2's calls that free (a handle, the SFTP channel, the session)
// first say goodbye to the server; when it stalls they give up at the
// time-out and free nothing. The connection is then shut down, so that the
// second call fails at once and frees. Only a time-out is retried: after
// any other failure (the connection gone, say) the object is already freed
// and a second call would use freed memory.
template <class T>
void freeEvenStalled(int (*release)(T*), T* object, unsigned int socket) {
  if (!object || release(object) != LIBSSH2_ERROR_TIMEOUT) return;
  ::shutdown(static_cast<int>(socket), SHUT_RDWR);
  release(object);
}

}  // namespace

CSIsftpException::CSIsftpException(int category, SAnsiString const& text)
    : m_category(category), m_text(text) {}

CSIsftpException::~CSIsftpException() = default;

CSIsftp::CSIsftp() = default;

CSIsftp::~CSIsftp() {
  try {
    Disconnect();
  } catch (...) {
    // A destructor must not throw; release() below frees what is left.
  }
  release();
}

void CSIsftp::SetTimeout(int seconds) noexcept {
  m_timeout = seconds < 1 ? DEFAULT_TIMEOUT : seconds;
}

// Frees the sessions without talking to the server, closes the socket.
void CSIsftp::release() {
  freeEvenStalled(&libssh2_sftp_shutdown, m_sftp, m_socket);
  freeEvenStalled(&libssh2_session_free, m_session, m_socket);
  if (m_socket != static_cast<unsigned int>(-1)) CSISocket::close(m_socket);
  if (m_libraryStarted) libssh2_exit();
  m_sftp = nullptr;
  m_session = nullptr;
  m_socket = static_cast<unsigned int>(-1);
  m_libraryStarted = false;
  m_connected = false;
  m_authMethods.empty();
}

// ================================================================ connecting

bool CSIsftp::Connect(SAnsiString const& host, SAnsiString const& fingerprint, int port,
                      bool requireFingerprint) {
  if (host.isEmpty()) fail(CSIsftpException::catArgument, "Please specify a sftp server.");
  if (m_connected)
    fail(CSIsftpException::catState, "Already connected to a server, disconnect first.");
  release();
  CSISocket::initialize();
  if (libssh2_init(0) != 0)
    fail(CSIsftpException::catLibrary, "Error while libssh2_init(). Cannot load");
  m_libraryStarted = true;
  try {
    int const usePort = port > 0 ? port : m_port;
    errno = 0;
    int const rc = CSISocket::connectMulti(host, static_cast<unsigned short>(usePort), m_socket);
    int const err = errno ? errno : ECONNREFUSED;
    if (rc != 0) fail(CSIsftpException::catSocket, str(CSISocket::getErrorStr(rc)));
    if (m_socket == static_cast<unsigned int>(-1))
      fail(CSIsftpException::catSocket,
           std::string("Failed to connect to sftp server: ") + std::strerror(err));
    m_session = libssh2_session_init_ex(nullptr, nullptr, nullptr, nullptr);
    if (!m_session) fail(CSIsftpException::catSession, "Error in sftp session creation");
    libssh2_session_set_blocking(m_session, 1);
    libssh2_session_set_timeout(m_session, static_cast<long>(m_timeout) * 1000);
    if (handshake() != 0) fail(CSIsftpException::catSession, "Error in sftp handshake");
    hostKeyCheck(fingerprint, requireFingerprint);
  } catch (...) {
    release();
    throw;
  }
  m_connected = true;
  QL_TRACE(SLogger::tl_L, "sftp: connected to %s, host key %s", host, m_serverFingerprint);
  return true;
}

// A handshake that timed out keeps its half-done key exchange, keys
// included, which freeing the session does not release; run once more on
// the shut connection it fails at once and releases them.
int CSIsftp::handshake() {
  auto const socket = static_cast<libssh2_socket_t>(m_socket);
  int const rc = libssh2_session_handshake(m_session, socket);
  if (rc != LIBSSH2_ERROR_TIMEOUT && rc != LIBSSH2_ERROR_EAGAIN) return rc;
  ::shutdown(socket, SHUT_RDWR);
  libssh2_session_handshake(m_session, socket);
  return rc;
}

void CSIsftp::hostKeyCheck(SAnsiString const& fingerprint, bool requireFingerprint) {
  auto const* hash = reinterpret_cast<unsigned char const*>(
      libssh2_hostkey_hash(m_session, LIBSSH2_HOSTKEY_HASH_SHA256));
  m_serverFingerprint = hash ? ansi(hex(hash, 32)) : SAnsiString();
  if (fingerprint.isEmpty() && !requireFingerprint) return;
  if (!m_serverFingerprint.isEmpty() && equalNoCase(str(fingerprint), str(m_serverFingerprint)))
    return;
  // The wording, the missing blanks and the double blank are the message's own.
  fail(CSIsftpException::catSession,
       str(fingerprint) +
           " is admin input.Mis match in fingerprint. i.e hashing server fingerPrint" +
           str(m_serverFingerprint) + " obtained  from server");
}

int CSIsftp::authenticateUser(int method, SAnsiString const& user, SAnsiString const& password,
                              SAnsiString const& extra) {
  if (method != AUTH_PASSWORD) {
    QL_TRACE_ERROR("sftp: authentication method %d is not supported", method);
    return -1;
  }
  return PasswordAuthentication(user, password, extra) ? 1 : 0;
}

bool CSIsftp::PasswordAuthentication(SAnsiString const& user, SAnsiString const& password,
                                     SAnsiString const&) {
  if (!m_connected)
    fail(CSIsftpException::catArgument,
         "Please connect to server first before attempting for logon");
  if (user.isEmpty() || password.isEmpty())
    fail(CSIsftpException::catArgument, "Please provide both user name and password");
  if (m_authMethods.isEmpty()) {
    char const* methods = libssh2_userauth_list(m_session, user.getString(), user.getLength());
    m_authMethods = methods ? methods : "";
  }
  if (!std::strstr(m_authMethods.getString(), "password"))
    fail(CSIsftpException::catSession, "The password authentication is not supported");
  if (libssh2_userauth_password_ex(m_session, user.getString(), user.getLength(),
                                   password.getString(), password.getLength(), nullptr) != 0)
    fail(CSIsftpException::catSession, "Passwor authentication failed");
  return true;
}

bool CSIsftp::InitializeSftpSession() {
  if (!m_connected)
    fail(CSIsftpException::catArgument,
         "Please connect to server first before attempting for logon");
  if (m_sftp) return true;
  m_sftp = libssh2_sftp_init(m_session);
  if (!m_sftp) {
    char* why = nullptr;
    libssh2_session_last_error(m_session, &why, nullptr, 0);
    QL_TRACE_ERROR("sftp: libssh2_sftp_init failed: %s", why ? why : "");
    fail(CSIsftpException::catSession, "Error in initalization of sftp");
  }
  return true;
}

bool CSIsftp::Disconnect() {
  if (!m_connected) return false;
  freeEvenStalled(&libssh2_sftp_shutdown, m_sftp, m_socket);
  m_sftp = nullptr;
  libssh2_session_disconnect_ex(m_session, SSH_DISCONNECT_BY_APPLICATION, "Disonnecting. Thank YOU",
                                "");
  release();
  return true;
}

// ================================================================ directories

void CSIsftp::requireSftp(char const* message) const {
  if (!m_connected || !m_sftp) fail(CSIsftpException::catArgument, message);
}

SAnsiString CSIsftp::remotePath(SAnsiString const& path) const {
  SSimpleBuffer const bytes =
      MBCSCodesetConverter::TToExplicitCodeset(ansi(UnifyRemoteSlashes(path)), m_serverCodeset);
  return SAnsiString(reinterpret_cast<char const*>(static_cast<unsigned char const*>(bytes)),
                     bytes.getNBytes());
}

SAnsiString CSIsftp::ConcatenteWithParent(SAnsiString const& parent, SAnsiString const& level) {
  std::string const p = str(parent);
  if (p.empty()) return level;
  return ansi(p.back() == '/' ? p + str(level) : p + "/" + str(level));
}

bool CSIsftp::CreateDir(SAnsiString const& path, long mode) {
  requireSftp(kNoControl);
  SAnsiString const remote = remotePath(path);
  if (libssh2_sftp_mkdir_ex(m_sftp, remote.getString(), remote.getLength(),
                            mode > 0 ? mode : DEFAULT_DIR_MODE) != 0)
    fail(CSIsftpException::catRemote, "error in creating directory");
  return true;
}

bool CSIsftp::openDir(SAnsiString const& path) {
  requireSftp(kNoControl);
  SAnsiString const remote = remotePath(path);
  LIBSSH2_SFTP_HANDLE* handle = libssh2_sftp_open_ex(m_sftp, remote.getString(), remote.getLength(),
                                                     0, 0, LIBSSH2_SFTP_OPENDIR);
  if (!handle) return false;
  libssh2_sftp_close_handle(handle);
  return true;
}

bool CSIsftp::CheckDirExist(SAnsiString const& path) {
  return openDir(path);
}

bool CSIsftp::CreateDirs(SAnsiString const& path, long mode) {
  if (path.isEmpty()) fail(CSIsftpException::catArgument, "Please directory name cannot be empty");
  requireSftp(kNoControl);
  if (CheckDirExist(path)) return true;
  PathLevels const levels = SplitPathLevels(path);
  SAnsiString parent = levels.absolute ? "/" : "";
  for (std::string const& level : levels.levels) {
    parent = ConcatenteWithParent(parent, ansi(level));
    if (!CheckDirExist(parent)) CreateDir(parent, mode);
  }
  return true;
}

// ================================================================ upload

long CSIsftp::sendFile(SFile& file, void* handle) {
  auto* remote = static_cast<LIBSSH2_SFTP_HANDLE*>(handle);
  std::unique_ptr<char[]> const buffer(new char[PIECE_SIZE]);
  char* const piece = buffer.get();
  long total = 0;
  for (;;) {
    size_t n = 0;
    try {
      n = file.read(piece, PIECE_SIZE);
    } catch (SFileException const& e) {
      fail(CSIsftpException::catLocalFile,
           std::string("Failed to read the file for transfer: ") + e.what());
    }
    if (n == 0) return total;
    for (size_t done = 0; done < n;) {
      ssize_t const written = libssh2_sftp_write(remote, piece + done, n - done);
      if (written <= 0)
        fail(CSIsftpException::catRemote,
             "Something went wrong while writing data. Please try again");
      done += static_cast<size_t>(written);
    }
    total += static_cast<long>(n);
  }
}

bool CSIsftp::PutFile(SAnsiString const& source, SAnsiString const& destination, bool truncate) {
  if (source.isEmpty() || destination.isEmpty())
    fail(CSIsftpException::catArgument, "Please specify both Source and Destination path");
  requireSftp("Please connect before send data");
  SFile file;
  try {
    file.open(SFileSys::unifyPath(source), SFile::modeRead);
  } catch (SFileException const& e) {
    fail(CSIsftpException::catLocalFile,
         std::string("Failed to open the file for transfer: ") + e.what());
  }
  SAnsiString const remote = remotePath(destination);
  unsigned long const flags =
      LIBSSH2_FXF_WRITE | LIBSSH2_FXF_CREAT | (truncate ? LIBSSH2_FXF_TRUNC : LIBSSH2_FXF_EXCL);
  LIBSSH2_SFTP_HANDLE* handle = libssh2_sftp_open_ex(m_sftp, remote.getString(), remote.getLength(),
                                                     flags, FILE_MODE, LIBSSH2_SFTP_OPENFILE);
  if (!handle) {
    QL_TRACE_ERROR("sftp: open of %s for writing failed, SFTP status %d", remote,
                   static_cast<int>(libssh2_sftp_last_error(m_sftp)));
    fail(CSIsftpException::catRemote,
         "Error in opening file for write.May not have permission to add files. Contact Server "
         "admin/Retry.");
  }
  long total = 0;
  try {
    total = sendFile(file, handle);
  } catch (...) {
    freeEvenStalled(&libssh2_sftp_close_handle, handle, m_socket);
    throw;
  }
  QL_TRACE(SLogger::tl_M, "%s: transfered %ld bytes", source, total);
  freeEvenStalled(&libssh2_sftp_close_handle, handle, m_socket);
  return true;
}

// ================================================================ channels

int CSIsftp::ChangeDir(SAnsiString const& dir, SAnsiString& out) {
  if (dir.isEmpty()) fail(CSIsftpException::catArgument, "Directory name is null. Nothing Changed");
  requireSftp(kNoControl);
  out.empty();
  std::string const command = "cd " + UnifyRemoteSlashes(dir) + "; pwd ";
  LIBSSH2_CHANNEL* channel = libssh2_sftp_get_channel(m_sftp);
  return libssh2_channel_process_startup(channel, "exec", 4, command.c_str(),
                                         static_cast<unsigned>(command.size()));
}

int CSIsftp::ExecuteChannelCommands(SAnsiString const& command) {
  if (!m_connected) fail(CSIsftpException::catArgument, kNoControl);
  LIBSSH2_CHANNEL* channel = libssh2_channel_open_ex(m_session, "session", 7, kWindow,
                                                     LIBSSH2_CHANNEL_PACKET_DEFAULT, nullptr, 0);
  if (!channel) return libssh2_session_last_errno(m_session);
  int const rc =
      libssh2_channel_process_startup(channel, "exec", 4, command.getString(), command.getLength());
  libssh2_channel_close(channel);
  libssh2_channel_free(channel);
  return rc;
}

bool CSIsftp::CheckAliveness() {
  if (!m_connected || !m_sftp) return false;
  LIBSSH2_SFTP_HANDLE* handle = libssh2_sftp_open_ex(m_sftp, ".", 1, 0, 0, LIBSSH2_SFTP_OPENDIR);
  if (!handle) return false;
  libssh2_sftp_close_handle(handle);
  return true;
}

}  // namespace QuenLibA500
