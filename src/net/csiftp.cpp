// CSIftp: an FTP client for uploads and directories, active data
// connections only.
#include <quenlib/csiftp.h>
#include <quenlib/csisocket.h>
#include <quenlib/sfile.h>

#include "text/stdtext.h"
#include "diagnostics/assert.h"
#include "diagnostics/trace.h"
#include "net/pathlevels.h"
#include "net/replydeadline.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace QuenLibA500 {

namespace {

using stdtext::str;
using stdtext::ansi;
using stdtext::errnoText;




std::string lastSocketError() {
  return errnoText(CSISocket::getLastError());
}

[[noreturn]] void fail(int category, std::string const& text) {
  throw CSIftpException(category, ansi(text));
}

constexpr char kNoControl[] =
    "A valid control connection does not exist, please connect to a ftp server first";

}  // namespace

// ================================================================ exception

CSIftpException::CSIftpException(int category, SAnsiString const& text)
    : m_category(category), m_text(text) {}

CSIftpException::~CSIftpException() = default;

// ================================================================ life cycle

CSIftp::CSIftp() {
  CSISocket::initialize();
}

CSIftp::~CSIftp() {
  try {
    if (m_connected) Disconnect();
  } catch (...) {
    // A destructor must not throw; the sockets are closed below anyway.
  }
  CloseDataConnection();
  CloseListenSocket();
  CloseControlConnection();
  CSISocket::uninitialize();
}

void CSIftp::SetReceiveTimeout(int seconds) noexcept {
  m_receiveTimeout = seconds < 1 ? DEFAULT_RECEIVE_TIMEOUT : seconds;
  limitSends(m_control);
  limitSends(m_data);
}

// A server that stops reading makes a send fail after the time-out instead
// of blocking without end.
void CSIftp::limitSends(unsigned int socket) const noexcept {
  if (socket == INVALID_SOCKET) return;
  timeval limit{m_receiveTimeout, 0};
  ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

void CSIftp::CloseControlConnection() {
  if (m_control != INVALID_SOCKET) CSISocket::close(m_control);
  m_control = INVALID_SOCKET;
  m_connected = false;
  m_pendingStart = m_pendingEnd = 0;
}

void CSIftp::CloseDataConnection() {
  if (m_data != INVALID_SOCKET) CSISocket::close(m_data);
  m_data = INVALID_SOCKET;
}

void CSIftp::CloseListenSocket() {
  if (m_listen != INVALID_SOCKET) CSISocket::close(m_listen);
  m_listen = INVALID_SOCKET;
}

// ================================================================ connecting

bool CSIftp::Connect(SAnsiString const& host, int port) {
  if (host.isEmpty()) fail(CSIftpException::catArgument, "Please specify a ftp server.");
  if (m_connected)
    fail(CSIftpException::catArgument, "Already connected to a server, disconnect first.");
  int const usePort = port > 0 ? port : m_port;
  unsigned int s = INVALID_SOCKET;
  unsigned short family = 0;
  errno = 0;
  int const rc = CSISocket::connectMulti(host, static_cast<unsigned short>(usePort), s, family);
  int const err = errno;
  if (rc != 0 || s == INVALID_SOCKET) {
    std::string const why =
        rc != 0 ? str(CSISocket::getErrorStr(rc)) : errnoText(err ? err : ECONNREFUSED);
    fail(CSIftpException::catSocket, "Failed to connect to ftp server: " + why);
  }
  QL_TRACE(SLogger::tl_L, "connected to %s port %d", host, usePort);
  return AttachControlConnection(s, family);
}

bool CSIftp::AttachControlConnection(unsigned int socket, unsigned short family) {
  if (m_connected)
    fail(CSIftpException::catArgument, "Already connected to a server, disconnect first.");
  CloseControlConnection();
  m_control = socket;
  m_family = family;
  limitSends(m_control);
  return readGreeting();
}

bool CSIftp::readGreeting() {
  SAnsiString reply;
  try {
    if (GetReply(reply) != 220) fail(CSIftpException::catReply, str(reply));
  } catch (...) {
    CloseControlConnection();
    throw;
  }
  m_connected = true;
  return true;
}

void CSIftp::requireConnection() const {
  if (!m_connected || m_control == INVALID_SOCKET) fail(CSIftpException::catArgument, kNoControl);
}

bool CSIftp::Login(SAnsiString const& user, SAnsiString const& password,
                   SAnsiString const& account) {
  if (user.isEmpty() || password.isEmpty())
    fail(CSIftpException::catArgument, "Please specify user name and password");
  requireConnection();
  SAnsiString reply;
  SendControlMsg("USER", user);
  int code = GetReply(reply);
  // 220 to USER counts as logged in and 230 does not: kept as callers know it.
  if (code != 220) {
    if (code > 400) fail(CSIftpException::catReply, str(reply));
    if (code != 331 && code != 332) return false;
    SendControlMsg("PASS", password);
    code = GetReply(reply);
    if (code > 400) fail(CSIftpException::catReply, str(reply));
    if (code == 332 && !SendAcct(account)) return false;
    if (code != 230 && code != 332) return false;
  }
  SetBinary();
  return true;
}

bool CSIftp::SendAcct(SAnsiString const& account) {
  if (account.isEmpty()) fail(CSIftpException::catArgument, "Please specify account information");
  return simpleCommand("ACCT", account, 230, 202);
}

bool CSIftp::Disconnect() {
  if (m_control == INVALID_SOCKET) return false;
  try {
    SAnsiString reply;
    SendControlMsg("QUIT");
    GetReply(reply);
  } catch (CSIftpException const&) {
    // Whatever QUIT gets back, the connection ends here.
  }
  CloseDataConnection();
  CloseListenSocket();
  CloseControlConnection();
  return true;
}

bool CSIftp::CheckAliveness() {
  return simpleCommand("NOOP", SAnsiString(), 200);
}

// ================================================================ commands and replies

void CSIftp::SendControlMsg(SAnsiString const& command, SAnsiString const& argument) {
  if (m_control == INVALID_SOCKET)
    fail(CSIftpException::catConnection,
         "A valid control connection do not exist, try to connect to a ftp server first");
  SSimpleBuffer line;
  unsigned const size = command.getLength() + argument.getLength() + 3;
  line.append(reinterpret_cast<unsigned char const*>(command.getString()), command.getLength(),
              size);
  if (!argument.isEmpty()) {
    line.append(static_cast<unsigned char>(' '));
    line.append(reinterpret_cast<unsigned char const*>(argument.getString()), argument.getLength());
  }
  line.append(reinterpret_cast<unsigned char const*>("\r\n"), 2);
  bool const secret = str(command) == "PASS";
  QL_TRACE(SLogger::tl_L, "ftp command: %s %s", command, secret ? SAnsiString("****") : argument);
  int const length = static_cast<int>(line.getNBytes());
  int const sent = CSISocket::send(
      m_control, reinterpret_cast<char const*>(static_cast<unsigned char const*>(line)), length, 0);
  if (sent != length)
    fail(CSIftpException::catSocket,
         "Failed to send command: " + (sent < 0 ? lastSocketError() : "short send"));
}

bool CSIftp::simpleCommand(char const* command, SAnsiString const& argument, int ok1, int ok2) {
  SAnsiString reply;
  SendControlMsg(command, argument);
  int const code = GetReply(reply);
  return code == ok1 || code == ok2;
}

void CSIftp::CheckReceiveTimeout(unsigned int socket, int seconds) {
  int const ready = seconds > 0 ? CSISocket::isReadable(socket, seconds) : 0;
  if (ready == 0) fail(CSIftpException::catSocket, "Timed out reading data from FTP server.");
  if (ready < 0)
    fail(CSIftpException::catSocket,
         "Communication error while reading data from FTP server: " + lastSocketError());
}

// Refills the control connection's buffer: the bytes read, 0 when the
// server closed the connection.
int CSIftp::fillLineBuffer(ReplyDeadline const& deadline) {
  if (m_control == INVALID_SOCKET)
    fail(CSIftpException::catConnection,
         "A valid control connection do not exist, try to connect to a ftp server first");
  try {
    CheckReceiveTimeout(m_control, deadline.left());
  } catch (CSIftpException const&) {
    // The rest of a late reply would be read as the answer to the next command.
    CloseControlConnection();
    throw;
  }
  int n = 0;
  do {
    n = CSISocket::recv(m_control, m_pending, static_cast<int>(sizeof m_pending), 0);
  } while (n < 0 && CSISocket::getLastError() == EINTR);
  if (n < 0)
    fail(CSIftpException::catSocket,
         "Failed to read reply from control connection: " + lastSocketError());
  m_pendingStart = 0;
  m_pendingEnd = static_cast<unsigned>(n);
  return n;
}

// One line up to its LF (CR LF dropped). A line longer than the line
// buffer comes back in pieces, as the 1,024-byte buffer always cut it.
// False when the server closed the connection before any byte.
bool CSIftp::GetLine(SAnsiString& line, ReplyDeadline const& deadline) {
  std::string text;
  size_t const room = LINE_BUFFER_SIZE - 1;
  while (text.size() < room) {
    if (m_pendingStart == m_pendingEnd && fillLineBuffer(deadline) == 0) {
      if (text.empty()) return false;
      break;
    }
    char const* begin = m_pending + m_pendingStart;
    size_t take = std::min<size_t>(m_pendingEnd - m_pendingStart, room - text.size());
    auto const* lf = static_cast<char const*>(std::memchr(begin, '\n', take));
    if (lf) take = static_cast<size_t>(lf - begin) + 1;
    text.append(begin, take);
    m_pendingStart += static_cast<unsigned>(take);
    if (lf) break;
  }
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (!text.empty() && text.back() == '\r') text.pop_back();
  line = ansi(text);
  return true;
}

int CSIftp::GetReply(SAnsiString& reply) {
  // The time-out bounds the whole reply: a server dripping continuation
  // lines or bytes cannot hold the client.
  ReplyDeadline const deadline(m_receiveTimeout);
  SAnsiString line;
  if (!GetLine(line, deadline)) {
    QL_TRACE_ERROR("Failed to get replay from ftp server");
    CloseControlConnection();
    fail(CSIftpException::catSocket,
         "Failed to read reply from control connection: the server closed the connection");
  }
  std::string first = str(line);
  std::string text = first;
  int const code = std::atoi(first.substr(0, 3).c_str());
  while (line.getLength() >= 4 && line.getString()[3] == '-') {
    if (!GetLine(line, deadline)) {
      QL_TRACE_ERROR("Failed to get replay from ftp server");
      CloseControlConnection();
      fail(CSIftpException::catSocket,
           "Failed to read reply from control connection: the server closed the connection");
    }
    text += '\n';
    text += str(line);
  }
  QL_TRACE(SLogger::tl_L, "ftp reply: %s", ansi(text));
  reply = ansi(text);
  if (code == 421) CloseControlConnection();
  return code;
}

// ================================================================ directories

SAnsiString CSIftp::remotePath(SAnsiString const& path) const {
  SSimpleBuffer const bytes =
      MBCSCodesetConverter::TToExplicitCodeset(ansi(UnifyRemoteSlashes(path)), m_serverCodeset);
  return SAnsiString(reinterpret_cast<char const*>(static_cast<unsigned char const*>(bytes)),
                     bytes.getNBytes());
}

bool CSIftp::ChangeWorkingDir(SAnsiString const& dir) {
  if (dir.isEmpty()) fail(CSIftpException::catArgument, "Please specify a directory name");
  return simpleCommand("CWD", remotePath(dir), 250);
}

SAnsiString CSIftp::GetWorkingDir() {
  SAnsiString reply;
  SendControlMsg("PWD");
  if (GetReply(reply) != 257) return SAnsiString();
  std::string const text = str(reply);
  auto const open = text.find('"');
  auto const close = open == std::string::npos ? open : text.find('"', open + 1);
  if (close == std::string::npos) return SAnsiString();
  std::string const bytes = text.substr(open + 1, close - open - 1);
  return MBCSCodesetConverter::ExplicitCodesetToT(bytes.c_str(), m_serverCodeset);
}

bool CSIftp::ChangeToParentDir() {
  return simpleCommand("CDUP", SAnsiString(), 200, 250);
}

bool CSIftp::CreateDir(SAnsiString const& dir) {
  if (dir.isEmpty()) fail(CSIftpException::catArgument, "Please specify a directory name");
  return simpleCommand("MKD", remotePath(dir), 257);
}

bool CSIftp::RemoveDir(SAnsiString const& dir) {
  if (dir.isEmpty()) fail(CSIftpException::catArgument, "Please specify a directory name");
  return simpleCommand("RMD", remotePath(dir), 250);
}

bool CSIftp::RemoveFile(SAnsiString const& file) {
  if (file.isEmpty()) fail(CSIftpException::catArgument, "Please specify a file name");
  return simpleCommand("DELE", remotePath(file), 250);
}

bool CSIftp::SetType(RepresentationType type) {
  return simpleCommand("TYPE", type == Binary ? "I" : "A", 200);
}

bool CSIftp::IsDirExist(SAnsiString const& dir) {
  if (dir.isEmpty()) fail(CSIftpException::catArgument, "Please specify a directory name");
  requireConnection();
  return CheckDirExist(dir, false);
}

// CWD into `path`: 250 exists, 550 does not, anything else throws. With
// `stayInside` the client stays in the directory it entered (CreateDirs
// walks on from there); otherwise the directory it was in is restored.
bool CSIftp::CheckDirExist(SAnsiString const& path, bool stayInside) {
  SAnsiString const previous = stayInside ? SAnsiString() : GetWorkingDir();
  SAnsiString reply;
  SendControlMsg("CWD", remotePath(path));
  int const code = GetReply(reply);
  if (code == 550) return false;
  if (code != 250)
    fail(CSIftpException::catReply, "Unexpected return code from ftp: " + str(reply));
  if (!stayInside && !previous.isEmpty()) ChangeWorkingDir(previous);
  return true;
}

bool CSIftp::CreateDirs(SAnsiString const& path) {
  if (path.isEmpty()) fail(CSIftpException::catArgument, "Please directory name cannot be empty");
  requireConnection();
  if (CheckDirExist(path, false)) return true;
  SAnsiString const previous = GetWorkingDir();
  PathLevels const levels = SplitPathLevels(path);
  bool ok = !levels.absolute || ChangeWorkingDir("/");
  for (std::string const& level : levels.levels) {
    if (!ok) break;
    if (CheckDirExist(ansi(level), true)) continue;
    ok = CreateDir(ansi(level)) && ChangeWorkingDir(ansi(level));
  }
  if (!previous.isEmpty()) ChangeWorkingDir(previous);
  return ok;
}

// ================================================================ local directory

bool CSIftp::ChangeLocalWorkingDir(SAnsiString const& dir) {
  if (dir.isEmpty()) fail(CSIftpException::catArgument, "Directory name cannot be empty");
  if (!SFileSys::setCurrentDirectory(SFileSys::unifyPath(dir)))
    fail(CSIftpException::catLocalDir,
         "Failed to set current working directory on local machine: " + errnoText(errno));
  return true;
}

SAnsiString CSIftp::GetLocalWorkingDir() {
  try {
    return SFileSys::getCurrentDirectory();
  } catch (SFileException const& e) {
    fail(CSIftpException::catLocalDir,
         std::string("Failed to get current working directory on local machine: ") + e.what());
  }
}

// ================================================================ data connection

void CSIftp::InitializeListenSocket() {
  CloseListenSocket();
  m_listen = CSISocket::socket(m_family, SOCK_STREAM, 0);
  if (m_listen == INVALID_SOCKET)
    fail(CSIftpException::catSocket, "Failed to create a listening socket: " + lastSocketError());
  sockaddr_storage local{};
  auto& sa = reinterpret_cast<sockaddr&>(local);
  CSISocket::setFamily(sa, m_family);
  CSISocket::setAny(sa);
  CSISocket::setPort(sa, 0);
  if (CSISocket::bind(m_listen, &sa, CSISocket::getSize(sa)) != 0)
    fail(CSIftpException::catSocket, "Failed to bind the listening socket: " + lastSocketError());
  int length = static_cast<int>(sizeof local);
  if (CSISocket::getsockname(m_listen, &sa, &length) != 0)
    fail(CSIftpException::catSocket,
         "Failed to get the listening socket name: " + lastSocketError());
  announceListenSocket(CSISocket::getPort(sa));
}

// PORT (IPv4) or EPRT (IPv6) with the control connection's local address,
// then listen; the server must answer 200.
void CSIftp::announceListenSocket(unsigned short listenPort) {
  sockaddr_storage control{};
  auto& sa = reinterpret_cast<sockaddr&>(control);
  int length = static_cast<int>(sizeof control);
  if (CSISocket::getsockname(m_control, &sa, &length) != 0)
    fail(CSIftpException::catSocket,
         "Failed to get the name for control connection socket: " + lastSocketError());
  char text[128] = {};
  if (m_family == AF_INET) {
    auto const* b =
        reinterpret_cast<unsigned char const*>(&reinterpret_cast<sockaddr_in&>(control).sin_addr);
    std::snprintf(text, sizeof text, "%d,%d,%d,%d,%d,%d", b[0], b[1], b[2], b[3], listenPort >> 8,
                  listenPort & 0xff);
    SendControlMsg("PORT", text);
  } else if (m_family == AF_INET6) {
    // No closing "|": the form servers have always accepted from us.
    std::snprintf(text, sizeof text, "|2|%s|%d", CSISocket::getipstring(sa).getString(),
                  listenPort);
    SendControlMsg("EPRT", text);
  } else {
    QL_REPORT("0",
              ("Programmer error invalid family passed in: " + std::to_string(m_family)).c_str());
  }
  if (CSISocket::listen(m_listen, 1) != 0)
    fail(CSIftpException::catSocket,
         "Failed while listening for an incoming data connection: " + lastSocketError());
  SAnsiString reply;
  if (GetReply(reply) != 200) fail(CSIftpException::catReply, str(reply));
}

int CSIftp::AcceptConnection() {
  if (m_listen == INVALID_SOCKET)
    fail(CSIftpException::catConnection,
         "No valid data connection exist, try to disconnect and connect again");
  CheckReceiveTimeout(m_listen, m_receiveTimeout);
  m_data = CSISocket::accept(m_listen, nullptr, nullptr);
  if (m_data == INVALID_SOCKET)
    fail(CSIftpException::catSocket,
         "Failed to accept a data connection from the ftp server: " + lastSocketError());
  CloseListenSocket();
  limitSends(m_data);
  return static_cast<int>(m_data);
}

void CSIftp::SendDataMsg(char const* data, unsigned int length) {
  if (m_data == INVALID_SOCKET)
    fail(CSIftpException::catConnection,
         "No valid data connection exist, try to reconnect to a ftp server");
  while (length > 0) {
    int const sent = CSISocket::send(m_data, data, static_cast<int>(length), 0);
    if (sent < 0 && CSISocket::getLastError() == EINTR) continue;
    if (sent <= 0)
      fail(CSIftpException::catSocket,
           "Failed to send file through data connection, " + lastSocketError());
    data += sent;
    length -= static_cast<unsigned>(sent);
  }
}

bool CSIftp::sendFile(SFile& file, SAnsiString const& localPath) {
  std::unique_ptr<char[]> const buffer(new char[PIECE_SIZE]);
  char* const piece = buffer.get();
  long total = 0;
  for (;;) {
    size_t n = 0;
    try {
      n = file.read(piece, PIECE_SIZE);
    } catch (SFileException const& e) {
      fail(CSIftpException::catLocalFile,
           std::string("Failed to read the file for transfer: ") + e.what());
    }
    if (n == 0) break;
    SendDataMsg(piece, static_cast<unsigned>(n));
    total += static_cast<long>(n);
  }
  QL_TRACE(SLogger::tl_M, "%s: transfered %ld bytes", localPath, total);
  CloseDataConnection();
  SAnsiString reply;
  int const code = GetReply(reply);
  return code == 226 || code == 250;
}

bool CSIftp::PutFile(SAnsiString const& localPath, SAnsiString const& remote) {
  if (localPath.isEmpty() || remote.isEmpty())
    fail(CSIftpException::catArgument, "Please specify both source and dest file paths");
  requireConnection();
  SFile file;
  try {
    file.open(SFileSys::unifyPath(localPath), SFile::modeRead);
  } catch (SFileException const& e) {
    fail(CSIftpException::catLocalFile,
         std::string("Failed to open the file for transfer: ") + e.what());
  }
  try {
    InitializeListenSocket();
    SAnsiString reply;
    SendControlMsg("STOR", remotePath(remote));
    int const code = GetReply(reply);
    if (code >= 400) fail(CSIftpException::catReply, str(reply));
    if (code != 125 && code != 150) {
      QL_REPORT("0", ("Unexpected return code from ftp: " + str(reply)).c_str());
      CloseListenSocket();
      return false;
    }
    if (AcceptConnection() <= 0) QL_REPORT("AcceptConnection() > 0", "no data connection");
    return sendFile(file, localPath);
  } catch (...) {
    CloseDataConnection();
    CloseListenSocket();
    throw;
  }
}

}  // namespace QuenLibA500
