// csisftp.h: a small SFTP client for uploading files and creating
// directories over SSH (libssh2).
//
// `CSIsftp` offers the upload-oriented operations of `CSIftp` over SSH:
// connect with a check of the server's host-key fingerprint, log in with a
// password, create and test directories, and store a local file. Every
// failure throws `CSIsftpException` (a category and a text).
//
//   try {
//     CSIsftp sftp;
//     sftp.SetPortA(22);
//     sftp.Connect("files.example.org", pinnedSha256Hex, 22, false);
//     sftp.PasswordAuthentication("upload", password, "");
//     sftp.InitializeSftpSession();
//     sftp.CreateDirs("incoming/2024/05", 0750);
//     sftp.PutFile("/var/spool/report.pdf", "incoming/2024/05/report.pdf", true);
//     sftp.Disconnect();
//   } catch (CSIsftpException const& e) {
//     log(e.getCategory(), e.what());
//   }
//
// The fingerprint is the SHA-256 hash of the server's host key as 64
// hexadecimal digits, compared ignoring letter case; `quen sftp
// fingerprint HOST` prints it for an operator to pin. An empty fingerprint
// accepts any server unless Connect's last argument asks for a pin.
//
// Calls block; each libssh2 call waits at most the session time-out (60
// seconds unless SetTimeout changes it before Connect). Remote paths use
// "/" and are converted to the server's code set (ECS_Native, bytes as
// they are, unless SetServerCodeset names another). An object belongs to
// one thread at a time. Diagnostics go to the trace channel under the
// source name "csisftp".
#pragma once

#include <quenlib/codesetconverter.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <exception>

struct _LIBSSH2_SESSION;
struct _LIBSSH2_SFTP;

namespace QuenLibA500 {

class SFile;

class QUENLIB_API CSIsftpException : public std::exception {
 public:
  // The category numbers as thrown; stored by callers, so they never change.
  enum Category {
    catArgument = 0,   // a missing argument or a missing connection
    catState = 1,      // already connected
    catSession = 2,    // SSH session, host key, login or SFTP start-up failed
    catSocket = 3,     // the TCP connection could not be made
    catLocalFile = 4,  // the local file cannot be opened or read
    catRemote = 5,     // a remote directory or file operation failed
    catLibrary = 6,    // libssh2 could not be initialised
  };

  CSIsftpException(int category, SAnsiString const& text);
  ~CSIsftpException() override;
  CSIsftpException(CSIsftpException const&) = default;
  CSIsftpException& operator=(CSIsftpException const&) = default;

  int getCategory() const noexcept { return m_category; }
  SAnsiString toString() const { return m_text; }
  char const* what() const noexcept override { return m_text.getString(); }

 private:
  int m_category;
  SAnsiString m_text;
};

class QUENLIB_API CSIsftp {
 public:
  static constexpr int DEFAULT_PORT = 22;
  static constexpr int DEFAULT_TIMEOUT = 60;  // seconds
  // The one authentication method supported by authenticateUser.
  static constexpr int AUTH_PASSWORD = 3;
  // Mode of CreateDir when it is given none (mode <= 0).
  static constexpr long DEFAULT_DIR_MODE = 0700;
  // Mode of the files PutFile creates.
  static constexpr long FILE_MODE = 0600;
  // Size of the pieces a file is read and written in.
  static constexpr unsigned int PIECE_SIZE = 65536;

  CSIsftp();
  // Disconnects when connected; never throws.
  ~CSIsftp();
  CSIsftp(CSIsftp const&) = delete;
  CSIsftp& operator=(CSIsftp const&) = delete;

  // Connects, runs the SSH handshake and checks the host key's SHA-256
  // fingerprint against `fingerprint` (hexadecimal, case ignored). An empty
  // fingerprint accepts the server, unless `requireFingerprint` is set. A
  // port below 1 means the one of SetPortA.
  bool Connect(SAnsiString const& host, SAnsiString const& fingerprint, int port = 0,
               bool requireFingerprint = false);
  // AUTH_PASSWORD runs PasswordAuthentication (1 on success); any other
  // method gives -1. `extra` is passed on.
  int authenticateUser(int method, SAnsiString const& user, SAnsiString const& password,
                       SAnsiString const& extra);
  // Password login; `reserved` is not used.
  bool PasswordAuthentication(SAnsiString const& user, SAnsiString const& password,
                              SAnsiString const& reserved);
  // Starts the SFTP subsystem; needed before the file operations.
  bool InitializeSftpSession();

  // One directory with `mode` (DEFAULT_DIR_MODE when mode <= 0).
  bool CreateDir(SAnsiString const& path, long mode);
  // Every missing level of `path`, each with `mode` as CreateDir.
  bool CreateDirs(SAnsiString const& path, long mode);
  // Whether `path` can be opened as a directory.
  bool openDir(SAnsiString const& path);
  // Writes a local file to `destination` with mode 0600: `truncate` true
  // replaces an existing file, false refuses one (exclusive creation).
  bool PutFile(SAnsiString const& source, SAnsiString const& destination, bool truncate);
  // Runs "cd PATH; pwd " as an exec request on the SFTP channel and gives
  // libssh2's result (servers refuse a second request on that channel, so
  // this changes nothing; SFTP paths are relative to the login directory).
  // `out` is emptied.
  int ChangeDir(SAnsiString const& dir, SAnsiString& out);
  // Opens a session channel (window 32768), starts `command` with "exec"
  // and closes the channel at once: 0 or libssh2's error code.
  int ExecuteChannelCommands(SAnsiString const& command);
  // Opens and closes an SFTP handle (the login directory).
  bool CheckAliveness();
  // Ends the SFTP and SSH sessions ("Disonnecting. Thank YOU", reason 11)
  // and closes the socket; true when a connection was closed.
  bool Disconnect();

  bool Connected() const noexcept { return m_connected; }
  void SetPortA(int port) noexcept { m_port = port; }
  int GetPort() const noexcept { return m_port; }
  // Seconds each blocking libssh2 call may take; below 1 means the default.
  void SetTimeout(int seconds) noexcept;
  int GetTimeout() const noexcept { return m_timeout; }
  void SetServerCodeset(MBCSCodesetConverter::ExplicitCodeset cs) noexcept { m_serverCodeset = cs; }
  // The server's host-key fingerprint as 64 lower-case hexadecimal digits,
  // known once Connect has run the handshake (also when the check failed).
  SAnsiString GetServerFingerprint() const { return m_serverFingerprint; }

  // Joins a parent directory and one level with "/".
  static SAnsiString ConcatenteWithParent(SAnsiString const& parent, SAnsiString const& level);

 private:
  bool CheckDirExist(SAnsiString const& path);
  void requireSftp(char const* message) const;
  int handshake();
  void hostKeyCheck(SAnsiString const& fingerprint, bool requireFingerprint);
  long sendFile(SFile& file, void* handle);
  SAnsiString remotePath(SAnsiString const& path) const;
  void release();

  unsigned int m_socket = static_cast<unsigned int>(-1);
  _LIBSSH2_SESSION* m_session = nullptr;
  _LIBSSH2_SFTP* m_sftp = nullptr;
  int m_port = DEFAULT_PORT;
  int m_timeout = DEFAULT_TIMEOUT;
  bool m_connected = false;
  bool m_libraryStarted = false;
  SAnsiString m_serverFingerprint;
  SAnsiString m_authMethods;  // asked once per session (libssh2 leaks a repeated list)
  MBCSCodesetConverter::ExplicitCodeset m_serverCodeset = MBCSCodesetConverter::ECS_Native;
};

}  // namespace QuenLibA500
