// csiftp.h: a small FTP client for uploading files and managing directories.
//
// `CSIftp` talks to one server over a control connection: log in (USER,
// PASS, ACCT), change, create, test and remove directories, delete files,
// set the transfer type and store a local file (STOR). Data connections are
// active only: the client listens and announces its address with PORT
// (IPv4) or EPRT (IPv6). There is no passive mode, no download and no
// listing. Every failure throws `CSIftpException` (a category and a text).
//
//   try {
//     CSIftp ftp;
//     ftp.Connect("ftp.example.org", 21);
//     if (!ftp.Login("upload", password, "")) return false;  // 530 throws
//     ftp.CreateDirs("/incoming/2024/05");
//     ftp.PutFile("/var/spool/report.pdf", "/incoming/2024/05/report.pdf");
//     ftp.Disconnect();
//   } catch (CSIftpException const& e) {
//     log(e.getCategory(), e.what());
//   }
//
// Replies: an operation returns true when the server gives one of the codes
// it accepts (docs/net.md lists them), false for another code, and throws
// when the server answers 400 or above where the table says so. USER
// answered with 220 logs in at once, and USER answered with 230 fails the
// login: both deliberately, as the client always did.
//
// Every read of the control and data connections waits at most the receive
// time-out (60 seconds unless SetReceiveTimeout changes it). Remote paths
// are sent with "/" as separator and converted to the server's code set
// (by default ECS_Native: the bytes go as they are, as file names are
// bytes here; SetServerCodeset names another). An object belongs to one
// thread at a time. Diagnostics go to the trace channel under the source
// name "csiftp".
#pragma once

#include <quenlib/codesetconverter.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <exception>

namespace QuenLibA500 {

class SFile;

class QUENLIB_API CSIftpException : public std::exception {
 public:
  // The category numbers as thrown; stored by callers, so they never change.
  enum Category {
    catArgument = 0,    // a missing argument or a wrong state at the API
    catReply = 2,       // the server answered with an unexpected code
    catSocket = 3,      // the control or data connection failed or timed out
    catLocalFile = 4,   // the local file cannot be opened
    catLocalDir = 5,    // the local working directory cannot be set or read
    catConnection = 6,  // an operation needs a connection that does not exist
  };

  CSIftpException(int category, SAnsiString const& text);
  ~CSIftpException() override;
  CSIftpException(CSIftpException const&) = default;
  CSIftpException& operator=(CSIftpException const&) = default;

  int getCategory() const noexcept { return m_category; }
  SAnsiString toString() const { return m_text; }
  char const* what() const noexcept override { return m_text.getString(); }

 private:
  int m_category;
  SAnsiString m_text;
};

class ReplyDeadline;  // internal: the time-out of one reply

class QUENLIB_API CSIftp {
 public:
  enum RepresentationType { ASCII = 0, Binary = 1 };

  static constexpr unsigned int INVALID_SOCKET = static_cast<unsigned int>(-1);
  static constexpr int DEFAULT_PORT = 21;
  static constexpr int DEFAULT_RECEIVE_TIMEOUT = 60;  // seconds
  // Size of the pieces a file is read and sent in.
  static constexpr unsigned int PIECE_SIZE = 65536;
  // Room of the control connection's line buffer (a longer line is split).
  static constexpr unsigned int LINE_BUFFER_SIZE = 1024;

  CSIftp();
  // Disconnects (QUIT) when connected; never throws.
  ~CSIftp();
  CSIftp(CSIftp const&) = delete;
  CSIftp& operator=(CSIftp const&) = delete;

  // Connects to the first address of `host` that accepts and reads the
  // greeting, which must be 220. A port below 1 means the one of SetPortA.
  bool Connect(SAnsiString const& host, int port = 0);
  // USER, then PASS when asked (331, 332), then ACCT when asked (332);
  // sets the binary type after a good login.
  bool Login(SAnsiString const& user, SAnsiString const& password, SAnsiString const& account);
  bool SendAcct(SAnsiString const& account);
  // QUIT (any reply) and close; true when a connection was closed.
  bool Disconnect();
  // NOOP answered with 200.
  bool CheckAliveness();

  bool ChangeWorkingDir(SAnsiString const& dir);
  // PWD: the text between the first pair of double quotes of a 257 reply;
  // empty for another reply.
  SAnsiString GetWorkingDir();
  bool ChangeToParentDir();
  bool CreateDir(SAnsiString const& dir);
  bool RemoveDir(SAnsiString const& dir);
  bool RemoveFile(SAnsiString const& file);
  // Whether CWD into `dir` works; the working directory is kept.
  bool IsDirExist(SAnsiString const& dir);
  // Creates every missing level of `path`; the working directory is kept.
  bool CreateDirs(SAnsiString const& path);

  bool SetType(RepresentationType type);
  bool SetBinary() { return SetType(Binary); }
  bool SetASCII() { return SetType(ASCII); }

  // STOR of a local file over an active data connection.
  bool PutFile(SAnsiString const& localPath, SAnsiString const& remotePath);

  // The process's working directory (process-wide!).
  bool ChangeLocalWorkingDir(SAnsiString const& dir);
  SAnsiString GetLocalWorkingDir();

  bool Connected() const noexcept { return m_connected; }
  void SetPortA(int port) noexcept { m_port = port; }
  int GetPort() const noexcept { return m_port; }
  // Seconds every read, and every send that finds no room, waits; below 1
  // means the default.
  void SetReceiveTimeout(int seconds) noexcept;
  int GetReceiveTimeout() const noexcept { return m_receiveTimeout; }
  void SetServerCodeset(MBCSCodesetConverter::ExplicitCodeset cs) noexcept { m_serverCodeset = cs; }
  MBCSCodesetConverter::ExplicitCodeset GetServerCodeset() const noexcept {
    return m_serverCodeset;
  }

  // ---- the protocol layer the operations are built on

  // Sends `command`, a blank and `argument` (when not empty) and CR LF in
  // one send. The argument goes as its bytes are.
  void SendControlMsg(SAnsiString const& command, SAnsiString const& argument = SAnsiString());
  // Reads one reply: its code (the number of the first three characters of
  // its first line) and its lines, joined by "\n" without CR LF. A line
  // whose fourth character is "-" continues the reply. 421 closes the
  // control connection. The whole reply must come within the receive
  // time-out.
  int GetReply(SAnsiString& reply);
  // Takes over an already connected control socket (a tunnel, a test peer)
  // and reads its greeting as Connect does.
  bool AttachControlConnection(unsigned int socket, unsigned short family);

  void CloseControlConnection();
  void CloseDataConnection();
  void CloseListenSocket();

 private:
  bool readGreeting();
  void limitSends(unsigned int socket) const noexcept;
  void requireConnection() const;
  bool simpleCommand(char const* command, SAnsiString const& argument, int ok1, int ok2 = -1);
  bool GetLine(SAnsiString& line, ReplyDeadline const& deadline);
  int fillLineBuffer(ReplyDeadline const& deadline);
  void CheckReceiveTimeout(unsigned int socket, int seconds);
  bool CheckDirExist(SAnsiString const& path, bool stayInside);
  void InitializeListenSocket();
  void announceListenSocket(unsigned short listenPort);
  int AcceptConnection();
  void SendDataMsg(char const* data, unsigned int length);
  bool sendFile(SFile& file, SAnsiString const& localPath);
  SAnsiString remotePath(SAnsiString const& path) const;

  unsigned int m_control = INVALID_SOCKET;
  unsigned int m_data = INVALID_SOCKET;
  unsigned int m_listen = INVALID_SOCKET;
  unsigned short m_family = 0;
  int m_port = DEFAULT_PORT;
  bool m_connected = false;
  int m_receiveTimeout = DEFAULT_RECEIVE_TIMEOUT;
  MBCSCodesetConverter::ExplicitCodeset m_serverCodeset = MBCSCodesetConverter::ECS_Native;
  // Bytes received on the control connection and not yet read as lines.
  char m_pending[LINE_BUFFER_SIZE];
  unsigned int m_pendingStart = 0;
  unsigned int m_pendingEnd = 0;
};

}  // namespace QuenLibA500
