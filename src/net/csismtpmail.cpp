// The SMTP client: the message and its MIME form written to a spool file,
// the protocol exchange over CSITcpSocket, base64, address checks and the
// exception.
#include <quenlib/csismtpmail.h>
#include <quenlib/csisocket.h>
#include <quenlib/sdatetime.h>
#include <quenlib/sfile.h>
#include <quenlib/stimezone.h>

#include "text/stdtext.h"
#include "diagnostics/trace.h"
#include "net/replydeadline.h"

#include <arpa/inet.h>
#include <langinfo.h>
#include <locale.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace QuenLibA500 {

namespace {

using stdtext::view;
using stdtext::str;
using stdtext::ansi;

constexpr int kSendTimeout = 120;
constexpr int kReplyTimeout = 60;
constexpr int kDataTimeout = 60;
constexpr unsigned int kDataPiece = 8192;
constexpr size_t kSpoolFlush = 1 << 20;
// Attachments are encoded in pieces of whole base64 lines (72 input bytes).
constexpr size_t kAttachmentPiece = 72 * 3 * 1024;
// A hostile server could send continuation lines without end; the text kept
// of one reply stops growing here (the lines are still read).
constexpr size_t kMaxReplyText = 64 * 1024;

constexpr char const kBoundary[] = "----_=_next_enterprise_message";
constexpr char const kTextPartHeader[] =
    "Content-Type: text/plain;\r\n"
    "              charset=\"UTF-8\"\r\n\r\n";
constexpr char const kDefaultContentType[] = "application/octet-stream";


// ---- base64

constexpr char const kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Two output characters per 12 input bits: one lookup per half group.
struct PairTable {
  std::array<uint16_t, 4096> pairs{};
  PairTable() {
    for (unsigned v = 0; v < 4096; ++v) {
      char const two[2] = {kAlphabet[v >> 6], kAlphabet[v & 63]};
      std::memcpy(&pairs[v], two, 2);
    }
  }
};
PairTable const kPairs;

inline char* encodeGroup(unsigned char const* in, char* out) {
  uint32_t const v = (uint32_t{in[0]} << 16) | (uint32_t{in[1]} << 8) | in[2];
  std::memcpy(out, &kPairs.pairs[v >> 12], 2);
  std::memcpy(out + 2, &kPairs.pairs[v & 0xFFF], 2);
  return out + 4;
}

char* encodeTail(unsigned char const* in, size_t n, char* out) {
  if (n == 0) return out;
  uint32_t const v = (uint32_t{in[0]} << 16) | (n > 1 ? uint32_t{in[1]} << 8 : 0);
  out[0] = kAlphabet[v >> 18];
  out[1] = kAlphabet[(v >> 12) & 63];
  out[2] = n > 1 ? kAlphabet[(v >> 6) & 63] : '=';
  out[3] = '=';
  return out + 4;
}

// Characters of the encoding: 4 per started group, CR LF per full line of
// 72 input bytes and, with `finalBreak`, one more at the end.
size_t encodedLength(size_t n, bool lineBreaks, bool finalBreak) {
  size_t len = (n + 2) / 3 * 4;
  if (lineBreaks) len += n / 72 * 2 + (finalBreak ? 2 : 0);
  return len;
}

// Appends the encoding of n bytes to `out`. The buffer is sized by the
// library's long-standing rule (input * 4 / 3 + (input * 4 / 216) * 2 + 10)
// and doubled while that does not hold the encoding.
void encodeInto(unsigned char const* in, size_t n, bool lineBreaks, bool finalBreak, std::string& out) {
  size_t capacity = n * 4 / 3 + (n * 4 / 216) * 2 + 10;
  while (capacity < encodedLength(n, lineBreaks, finalBreak)) capacity *= 2;
  size_t const start = out.size();
  out.resize(start + capacity);
  char* p = out.data() + start;
  if (lineBreaks) {
    for (; n >= 72; n -= 72, in += 72) {
      for (int g = 0; g < 24; ++g) p = encodeGroup(in + g * 3, p);
      *p++ = '\r';
      *p++ = '\n';
    }
  }
  for (; n >= 3; n -= 3, in += 3) p = encodeGroup(in, p);
  p = encodeTail(in, n, p);
  if (lineBreaks && finalBreak) *p++ = '\r', *p++ = '\n';
  out.resize(static_cast<size_t>(p - out.data()));
}

std::string base64(std::string_view bytes) {
  std::string out;
  encodeInto(reinterpret_cast<unsigned char const*>(bytes.data()), bytes.size(), false, false, out);
  return out;
}

// ---- text

bool localeIsUtf8() {
  char const* codeset = nl_langinfo(CODESET);
  return codeset && (std::strcmp(codeset, "UTF-8") == 0 || std::strcmp(codeset, "utf8") == 0);
}

bool isAscii(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 128; });
}

// The locale text as UTF-8 bytes (unconvertible characters become "?").
std::string toUtf8(SAnsiString const& text) {
  std::string_view const v = view(text);
  if (isAscii(v) || localeIsUtf8()) return std::string(v);
  std::string out(text.getNBytesForUTF8() + 1, '\0');
  unsigned const n = text.toUTF8(reinterpret_cast<unsigned char*>(out.data()), static_cast<unsigned>(out.size()));
  out.resize(n > 0 && n <= out.size() ? n - 1 : 0);
  return out;
}

// Header words: as they stand when plain 7-bit text, else an RFC 2047
// encoded word of their UTF-8 bytes. Control characters (a CR LF would
// start a new header line) and, in quoted parameters, quotes and
// backslashes also ask for the encoded form.
std::string headerWord(SAnsiString const& text, bool quoted) {
  std::string const utf8 = toUtf8(text);
  bool const plain = std::all_of(utf8.begin(), utf8.end(), [quoted](char c) {
    auto const u = static_cast<unsigned char>(c);
    if (u > 127 || (u < 32 && u != '\t') || u == 127) return false;
    return !(quoted && (c == '"' || c == '\\'));
  });
  return plain ? utf8 : "=?UTF-8?B?" + base64(utf8) + "?=";
}

// The body text with CR LF line ends (a bare LF gains its CR) and every
// line that begins with "." sent with ".." (dot-stuffing).
void appendStuffed(std::string_view text, std::string& out) {
  out.reserve(out.size() + text.size() + text.size() / 32 + 16);
  bool lineStart = true;
  char previous = '\0';
  for (char const c : text) {
    if (lineStart && c == '.') out += '.';
    if (c == '\n' && previous != '\r') out += '\r';
    out += c;
    lineStart = c == '\n';
    previous = c;
  }
}

std::string baseName(SAnsiString const& path) {
  std::string const p = str(path);
  size_t const cut = p.find_last_of("/\\");
  return cut == std::string::npos ? p : p.substr(cut + 1);
}

std::string join(SIArray<SAnsiString> const& list, char const* separator) {
  std::string out;
  for (auto const& a : list) {
    if (!out.empty()) out += separator;
    out += view(a);
  }
  return out;
}

// ---- exception texts (the product's language resources carry their own)

char const* resourceText(int id) {
  switch (id) {
    case 41602: return "The connection to the SMTP server %1 failed.";
    case 41603: return "The SMTP server refused the address(es) %1.";
    case 41604: return "The SMTP server refused the message.";
    case 41605: return "The SMTP server does not offer the requested authentication mechanism (%1).";
    case 41606: return "The SMTP server refused the authentication of user %1.";
    case 41607: return "The SMTP server does not offer authentication.";
    default: return "SMTP mail error. %1";
  }
}

struct ReplyMeaning {
  int code;
  char const* text;
};
constexpr ReplyMeaning kReplyMeanings[] = {
    {0, "No SMTP reply"},
    {CSISMTPClient::kSendFailed, "The command could not be sent"},
    {CSISMTPClient::kReadFailed, "No reply could be read"},
    {211, "System status"},
    {214, "Help message"},
    {220, "Service ready"},
    {221, "Service closing transmission channel"},
    {235, "Authentication succeeded"},
    {250, "Requested mail action okay, completed"},
    {251, "User not local; will forward"},
    {252, "Cannot verify the user, but will accept the message"},
    {334, "Authentication challenge"},
    {354, "Start mail input"},
    {421, "Service not available, closing transmission channel"},
    {450, "Requested mail action not taken: mailbox unavailable"},
    {451, "Requested action aborted: local error in processing"},
    {452, "Requested action not taken: insufficient system storage"},
    {454, "Temporary authentication failure"},
    {500, "Syntax error, command unrecognized"},
    {501, "Syntax error in parameters or arguments"},
    {502, "Command not implemented"},
    {503, "Bad sequence of commands"},
    {504, "Command parameter not implemented"},
    {530, "Authentication required"},
    {534, "Authentication mechanism is too weak"},
    {535, "Authentication credentials invalid"},
    {550, "Requested action not taken: mailbox unavailable"},
    {551, "User not local"},
    {552, "Requested mail action aborted: exceeded storage allocation"},
    {553, "Requested action not taken: mailbox name not allowed"},
    {554, "Transaction failed"},
};

// ---- addresses

bool isAtext(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("!#$%&'*+-/=?^_`{|}~", c) != nullptr;
}

bool isDotString(std::string_view s) {
  if (s.empty() || s.front() == '.' || s.back() == '.') return false;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '.' && s[i + 1] == '.') return false;
    if (s[i] != '.' && (!isAtext(s[i]) || static_cast<unsigned char>(s[i]) > 127)) return false;
  }
  return true;
}

bool isQuotedString(std::string_view s) {
  if (s.size() < 2 || s.front() != '"' || s.back() != '"') return false;
  for (size_t i = 1; i + 1 < s.size(); ++i) {
    auto const c = static_cast<unsigned char>(s[i]);
    if (c == '\\') {
      if (i + 2 >= s.size()) return false;  // the escape would take the closing quote
      auto const next = static_cast<unsigned char>(s[++i]);
      if (next < 32 || next > 126) return false;
    } else if (c < 32 || c > 126 || c == '"') {
      return false;
    }
  }
  return true;
}

bool isLabel(std::string_view l) {
  if (l.empty() || l.size() > 63 || l.front() == '-' || l.back() == '-') return false;
  return std::all_of(l.begin(), l.end(), [](char c) {
    return (static_cast<unsigned char>(c) < 128 && std::isalnum(static_cast<unsigned char>(c))) || c == '-';
  });
}

bool isDomain(std::string_view d) {
  if (d.empty() || d.size() > 255) return false;
  size_t start = 0;
  for (;;) {
    size_t const dot = d.find('.', start);
    if (!isLabel(d.substr(start, dot == std::string_view::npos ? dot : dot - start))) return false;
    if (dot == std::string_view::npos) return true;
    start = dot + 1;
  }
}

bool isAddressLiteral(std::string_view d) {
  if (d.size() < 3 || d.front() != '[' || d.back() != ']') return false;
  std::string inner(d.substr(1, d.size() - 2));
  unsigned char buf[16];
  if (inner.rfind("IPv6:", 0) == 0) return inet_pton(AF_INET6, inner.c_str() + 5, buf) == 1;
  return inet_pton(AF_INET, inner.c_str(), buf) == 1;
}

// ---- spool file

// Removes the spool file when the send ends, however it ends.
class SpoolFile {
 public:
  explicit SpoolFile(SAnsiString path) : m_path(std::move(path)) {}
  ~SpoolFile() { SFileSys::remove(m_path); }
  SpoolFile(SpoolFile const&) = delete;
  SpoolFile& operator=(SpoolFile const&) = delete;
  SAnsiString const& path() const { return m_path; }

 private:
  SAnsiString m_path;
};

void flushTo(SFile& file, std::string& out, size_t threshold) {
  if (out.size() < threshold) return;
  file.write(out.data(), out.size());
  out.clear();
}

// The names of the Date header are the protocol's (English), whatever the
// process locale says.
locale_t protocolLocale() {
  static locale_t const c = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  return c;
}

void wipe(std::string& secret) {
  if (!secret.empty()) OPENSSL_cleanse(secret.data(), secret.size());
  secret.clear();
}

}  // namespace

// ======================================================================
// SMTPHelper

void SMTPHelper::Base64Encode(unsigned char const* data, size_t n, bool lineBreaks, std::string& out) {
  encodeInto(data, n, lineBreaks, true, out);
}

bool SMTPHelper::IsValidEmailAddress(SAnsiString const& address) {
  std::string_view const a = view(address);
  size_t const at = a.rfind('@');
  if (at == std::string_view::npos || a.size() > 254) return false;
  std::string_view const local = a.substr(0, at), domain = a.substr(at + 1);
  if (local.empty() || local.size() > 64) return false;
  if (!isDotString(local) && !isQuotedString(local)) return false;
  return isDomain(domain) || isAddressLiteral(domain);
}

// ======================================================================
// CSISMTPMailException

CSISMTPMailException::CSISMTPMailException(ErrorCodes code, SAnsiString const& detail, int smtpCode, int resourceId)
    : m_code(code),
      m_detail(detail),
      m_smtpCode(smtpCode),
      m_resourceId(resourceId == 0 ? kDefaultResource : resourceId) {
  m_text = str(CSISMTPMailException::toString());
}

CSISMTPMailException::~CSISMTPMailException() = default;

SAnsiString CSISMTPMailException::SMTPErrorCodeString() const {
  for (auto const& m : kReplyMeanings)
    if (m.code == m_smtpCode) return m.text;
  return "Unknown SMTP reply code";
}

SAnsiString CSISMTPMailException::toString() const {
  std::string text = resourceText(m_resourceId);
  size_t const mark = text.find("%1");
  if (mark != std::string::npos) text.replace(mark, 2, view(m_detail));
  if (m_smtpCode != 0)
    text += " (SMTP reply " + std::to_string(m_smtpCode) + ": " + str(SMTPErrorCodeString()) + ")";
  return ansi(text);
}

// ======================================================================
// CSISMTPMessage

CSISMTPMessage::CSISMTPMessage(SAnsiString const& sender) : m_sender(sender) {}

namespace {

bool addAddress(SAnsiString const& address, SAnsiString const& separator, SIArray<SAnsiString>& list,
                SAnsiString& header) {
  SAnsiString trimmed = address;
  trimmed.trim();
  if (trimmed.isEmpty()) return false;
  list.Add(trimmed);
  if (!header.isEmpty()) header += separator;
  header += trimmed;
  return true;
}

}  // namespace

bool CSISMTPMessage::AddToAddress(SAnsiString const& a, SAnsiString const& sep) {
  return addAddress(a, sep, m_to, m_toHeader);
}
bool CSISMTPMessage::AddCCAddress(SAnsiString const& a, SAnsiString const& sep) {
  return addAddress(a, sep, m_cc, m_ccHeader);
}
bool CSISMTPMessage::AddBCCAddress(SAnsiString const& a, SAnsiString const& sep) {
  return addAddress(a, sep, m_bcc, m_bccHeader);
}

bool CSISMTPMessage::AddAttachment(SAnsiString const& path, SAnsiString const& contentType, SAnsiString const& name) {
  m_attachments.Add(MimeAttachment{path, contentType, name});
  return true;
}

bool CSISMTPMessage::SetSubject(SAnsiString const& subject) {
  m_subject = subject;
  return true;
}

bool CSISMTPMessage::SetMessage(SAnsiString const& text) {
  m_text = text;
  return true;
}

void CSISMTPMessage::CleanupToAddress() {
  m_to.RemoveAll();
  m_toHeader.empty();
}

bool CSISMTPMessage::CheckAddresses() const {
  if (!SMTPHelper::IsValidEmailAddress(m_sender)) return false;
  if (m_to.IsEmpty() && m_cc.IsEmpty() && m_bcc.IsEmpty()) return false;
  for (auto const* list : {&m_to, &m_cc, &m_bcc})
    for (auto const& a : *list)
      if (!SMTPHelper::IsValidEmailAddress(a)) return false;
  return true;
}

bool CSISMTPMessage::EncodeSMTPMailMessage(SFile& file, bool lineBreaks) const {
  std::string out = CreateSMTPHeader();
  CreateSMTPBody(file, out, lineBreaks);
  flushTo(file, out, 1);
  return true;
}

std::string CSISMTPMessage::GenerateMessageId() const {
  unsigned char random[12] = {};
  if (RAND_bytes(random, sizeof random) != 1) {
    // Without random bytes the clock and the process still set it apart.
    auto const t = std::chrono::steady_clock::now().time_since_epoch().count();
    pid_t const pid = ::getpid();
    std::memcpy(random, &t, sizeof t);
    std::memcpy(random + 8, &pid, sizeof pid);
  }
  char id[64];
  auto const ms = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::system_clock::now().time_since_epoch()).count();
  int len = std::snprintf(id, sizeof id, "%llx.", static_cast<unsigned long long>(ms));
  for (unsigned char const b : random) len += std::snprintf(id + len, sizeof id - static_cast<size_t>(len), "%02x", b);
  // The sender's domain when it is a dotted name, else this host's.
  std::string const sender = str(m_sender);
  size_t const at = sender.rfind('@');
  std::string domain = at == std::string::npos ? std::string() : sender.substr(at + 1);
  if (!isDomain(domain) || domain.find('.') == std::string::npos) {
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    domain = std::strchr(host, '.') && isDomain(host) ? host : "localhost.localdomain";
  }
  return std::string(id, static_cast<size_t>(len)) + "@" + domain;
}

std::string CSISMTPMessage::GenerateDate() {
  SDateTime const now = SDateTime::GetCurrentDateTime();
  STimeZone const& zone = STimeZone::TZ_Local();
  locale_t const previous = uselocale(protocolLocale());
  std::string date = str(now.Format("dd MMM yyyy HH':'mm':'ss", zone));
  uselocale(previous);
  int const east = -zone.UTCOffsetMinutes(now);  // the zone keeps a bias (UTC - local)
  char offset[24];
  std::snprintf(offset, sizeof offset, " %c%02d%02d", east < 0 ? '-' : '+', std::abs(east) / 60, std::abs(east) % 60);
  return date + offset;
}

std::string CSISMTPMessage::CreateSMTPHeader() const {
  std::string h;
  h += "Message-ID: <" + GenerateMessageId() + ">\r\n";
  h += "Date: " + GenerateDate() + "\r\n";
  h += "From: " + toUtf8(m_sender) + "\r\n";
  if (!m_to.IsEmpty()) {
    QL_TRACE(SLogger::tl_L, "TO: addresses in mail header: %1", m_toHeader);
    h += "To: " + toUtf8(m_toHeader) + "\r\n";
  }
  if (!m_cc.IsEmpty()) {
    QL_TRACE(SLogger::tl_L, "CC: addresses in mail header: %1", m_ccHeader);
    h += "Cc: " + toUtf8(m_ccHeader) + "\r\n";
  }
  if (!m_bcc.IsEmpty()) {
    QL_TRACE(SLogger::tl_L, "BCC: addresses in mail header: %1", m_bccHeader);
    h += "Bcc: " + toUtf8(m_bccHeader) + "\r\n";
  }
  h += "Subject: " + headerWord(m_subject, false) + "\r\n";
  h += "Mime-Version: 1.0\r\n";
  return h;
}

void CSISMTPMessage::CreateSMTPBody(SFile& file, std::string& out, bool lineBreaks) const {
  std::string const text = toUtf8(m_text);
  if (m_attachments.IsEmpty()) {
    out += kTextPartHeader;
    appendStuffed(text, out);
    out += "\r\n\r\n";
    return;
  }
  std::string const delimiter = std::string("--") + kBoundary;
  out += "Content-Type: multipart/mixed;\r\n";
  out += std::string(" boundary=\"") + kBoundary + "\"\r\n";
  out += "\r\nThis is a multi-part message in MIME format.\r\n";
  out += delimiter + "\r\n" + kTextPartHeader;
  appendStuffed(text, out);
  for (auto const& a : m_attachments) {
    // The CR LF before a delimiter belongs to it, so the text ends as given.
    out += "\r\n" + delimiter + "\r\n";
    AddFileInBody(file, out, a, lineBreaks);
  }
  out += "\r\n" + delimiter + "--";
  out += "\r\n\r\n";
}

void CSISMTPMessage::AddFileInBody(SFile& file, std::string& out, MimeAttachment const& a, bool lineBreaks) const {
  SAnsiString const shown = ansi(baseName(a.name.isEmpty() ? a.path : a.name));
  std::string const name = headerWord(shown, true);
  std::string const type = a.contentType.isEmpty() ? std::string(kDefaultContentType) : str(a.contentType);
  out += "Content-Type: " + type + "; name=\"" + name + "\"\r\n";
  out += "Content-Transfer-Encoding: base64\r\n";
  out += "Content-Disposition: attachment;";
  out += " filename=\"" + name + "\"\r\n\r\n";
  SFile in(a.path, SFile::modeRead);
  std::vector<unsigned char> piece(kAttachmentPiece);
  for (;;) {
    size_t const n = in.read(piece.data(), piece.size());
    bool const last = n < piece.size();
    encodeInto(piece.data(), n, lineBreaks, last, out);
    flushTo(file, out, kSpoolFlush);
    if (last) break;
  }
}

// ======================================================================
// CSISMTPClient

CSISMTPClient::CSISMTPClient(SAnsiString const& greetingName, SAnsiString const& server, unsigned short port)
    : m_greetingName(greetingName), m_socket(server, port) {}

CSISMTPClient::~CSISMTPClient() = default;

void CSISMTPClient::SetTimeout(int seconds) {
  bool const reset = seconds < 1;
  m_replyTimeout = reset ? kReplyTimeout : seconds;
  m_sendTimeout = reset ? kSendTimeout : seconds;
  m_dataTimeout = reset ? kDataTimeout : seconds;
}

bool CSISMTPClient::SetUsername(SAnsiString const& user) {
  m_user = user;
  return true;
}

bool CSISMTPClient::SetPassword(SAnsiString const& password) {
  m_password = password;
  return true;
}

bool CSISMTPClient::SetAuthenticationType(Authentication type) {
  m_auth = type;
  return true;
}

bool CSISMTPClient::SetSSLEnable(bool tls) {
  m_tls = tls;
  return true;
}

bool CSISMTPClient::Connect() {
  CSISocket::initialize();
  int const code = InitSMTPServer(m_tls);
  if (code == 250) return true;
  throw CSISMTPMailException(CSISMTPMailException::ConnectError,
                             CSISocket::appendPort(m_socket.GetHost(), m_socket.GetPort()), code, 41602);
}

int CSISMTPClient::ReadReply(CSITcpSocket& socket, int timeoutSeconds, SAnsiString* reply) {
  std::string text;
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  int code = 0;
  int result = kReadFailed;
  // The time-out bounds the whole reply: a server that keeps it going with
  // continuation lines or lines without a code cannot hold the client.
  ReplyDeadline const deadline(timeoutSeconds);
  for (;;) {
    if (deadline.passed()) {
      socket.AbortSocket();
      break;
    }
    if (!socket.GetLine(line, deadline.left())) break;
    size_t const len = std::strlen(line);
    if (text.size() < kMaxReplyText) text.append(line, len).append("\r\n");
    if (len >= 4 && line[3] == '-') continue;
    // The code is the number its first three characters form.
    char digits[4] = {};
    std::memcpy(digits, line, std::min<size_t>(len, 3));
    code = std::atoi(digits);
    if (code >= 100) {
      result = code;
      break;
    }
  }
  if (reply) *reply = ansi(text);
  return result;
}

int CSISMTPClient::WaitForReplyFromSMTPServer(int timeoutSeconds, SAnsiString* reply) {
  SAnsiString text;
  int const code = ReadReply(m_socket, timeoutSeconds, &text);
  if (SLogger::ShouldTrace(SLogger::tl_L, __FILE__, __LINE__)) {
    std::string oneLine(view(text));
    for (size_t at; (at = oneLine.find("\r\n")) != std::string::npos;) oneLine.replace(at, 2, " | ");
    QL_TRACE(SLogger::tl_L, "SMTP reply %1: %2", code, oneLine);
  }
  if (m_transcript) {
    std::string_view rest = view(text);
    for (size_t end; (end = rest.find("\r\n")) != std::string_view::npos; rest.remove_prefix(end + 2))
      m_transcript->append("S: ").append(rest.substr(0, end)).append("\n");
    if (code == kReadFailed) m_transcript->append("S: (no reply)\n");
  }
  if (reply) *reply = text;
  return code;
}

bool CSISMTPClient::SendCommand(std::string const& command, char const* shown) {
  std::string_view const visible = shown ? std::string_view(shown) : std::string_view(command).substr(0, command.size() - 2);
  QL_TRACE(SLogger::tl_L, "SMTP command: %1", std::string(visible));
  if (m_transcript) m_transcript->append("C: ").append(visible).append("\n");
  return m_socket.Send(command.data(), static_cast<unsigned>(command.size()), m_sendTimeout);
}

int CSISMTPClient::Command(std::string const& command, char const* shown) {
  if (!SendCommand(command, shown)) return kSendFailed;
  return WaitForReplyFromSMTPServer(m_replyTimeout, nullptr);
}

int CSISMTPClient::InitSMTPServer(bool tls) {
  if (m_socket.GetPort() == 0)
    m_socket.SetPortA(static_cast<unsigned short>(CSISocket::getportbyname("smtp", 25)));
  if (!m_socket.TcpOpen(tls)) {
    QL_TRACE_WARNING("TCP open failed for %1, retrying", m_socket.GetHost());
    if (!m_socket.TcpOpen(tls)) {
      QL_TRACE_ERROR("TCP open still failed for %1, give up", m_socket.GetHost());
      return 0;
    }
  }
  m_connected = true;
  int code = WaitForReplyFromSMTPServer(m_replyTimeout, nullptr);
  if (code == 421) return code;
  bool const wantAuth = m_auth != AUTH_NONE;
  SAnsiString ehloReply;
  std::string const name = str(m_greetingName);
  if (SendCommand("EHLO " + name + "\r\n"))
    code = WaitForReplyFromSMTPServer(m_replyTimeout, wantAuth ? &ehloReply : nullptr);
  else
    code = kSendFailed;
  if (code >= 500 && code < 600) code = Command("HELO " + name + "\r\n");
  if (code == 250 && wantAuth) SecurityCheck(ehloReply);
  return code;
}

void CSISMTPClient::SecurityCheck(SAnsiString const& ehloReply) {
  std::string_view const reply = view(ehloReply);
  size_t const at = reply.find("AUTH");
  if (at == std::string_view::npos) {
    if (m_auth != AUTH_NONE)
      throw CSISMTPMailException(CSISMTPMailException::AuthenticationError, "", 502, 41607);
    return;
  }
  std::string_view const offered = reply.substr(at);
  std::string_view const authLine = offered.substr(0, offered.find("\r\n"));
  char const* const wanted = m_auth == AUTH_PLAIN ? "PLAIN" : m_auth == AUTH_LOGIN ? "LOGIN" : nullptr;
  if (wanted && offered.find(wanted) == std::string_view::npos)
    throw CSISMTPMailException(CSISMTPMailException::AuthenticationError, ansi(authLine), 530, 41605);
  int const result = SecurityCheckHelper(m_auth);
  if (result != 235) throw CSISMTPMailException(CSISMTPMailException::AuthenticationError, m_user, result, 41606);
}

int CSISMTPClient::SecurityCheckHelper(Authentication type) {
  if (type == AUTH_LOGIN) {
    int rc = Command("AUTH LOGIN\r\n");
    if (rc != 334) return rc;
    rc = Command(base64(view(m_user)) + "\r\n", "***");
    if (rc != 334) return rc;
    std::string secret = base64(view(m_password)) + "\r\n";
    rc = Command(secret, "***");
    wipe(secret);
    return rc;
  }
  if (type == AUTH_PLAIN) {
    std::string secret;
    try {
      std::string credentials;
      credentials.reserve(m_user.getLength() + m_password.getLength() + 2);
      credentials.append(1, '\0').append(view(m_user)).append(1, '\0').append(view(m_password));
      secret = "AUTH PLAIN " + base64(credentials) + "\r\n";
      wipe(credentials);
    } catch (std::bad_alloc const&) {
      return 5;
    }
    int const rc = Command(secret, "AUTH PLAIN ***");
    wipe(secret);
    return rc;
  }
  return 530;
}

bool CSISMTPClient::SendSMTPMessage(CSISMTPMessage const& message, bool lineBreaks) {
  try {
    SpoolFile const spool(SFileSys::getUniqueFilename(SFileSys::getTempDirname(), "tmp", "smtp"));
    SFile file(spool.path(), SFile::modeCreateRW);
    message.EncodeSMTPMailMessage(file, lineBreaks);
    SendMailToSMTPServer(message, file);
    return true;
  } catch (CSISMTPMailException const& e) {
    QL_TRACE_ERROR("Exception while sending message to SMTP server: %1", e.toString());
    throw;
  } catch (std::exception const& e) {
    QL_TRACE_ERROR("Exception while sending message to SMTP server: %1", e.what());
    throw;
  }
}

void CSISMTPClient::SendMailToSMTPServer(CSISMTPMessage const& message, SFile& file) {
  auto const accepted = [](int rc) { return rc == 250 || rc == 251; };
  int rc = SendFromAddressToSMTPServer(message.GetSenderAddress());
  if (!accepted(rc))
    throw CSISMTPMailException(CSISMTPMailException::ToAddressError, message.GetSenderAddress(), rc, 41603);
  struct List {
    SIArray<SAnsiString> const& addresses;
    CSISMTPMailException::ErrorCodes code;
  };
  List const lists[] = {{message.GetToAddresses(), CSISMTPMailException::ToAddressError},
                        {message.GetCCAddresses(), CSISMTPMailException::CCAddressError},
                        {message.GetBCCAddresses(), CSISMTPMailException::BCCAddressError}};
  for (auto const& list : lists) {
    rc = SendAddressesToSMTPServer(list.addresses);
    if (!accepted(rc)) throw CSISMTPMailException(list.code, ansi(join(list.addresses, ", ")), rc, 41603);
  }
  rc = SendMailMessageToSMTPServer(file);
  if (!accepted(rc)) throw CSISMTPMailException(CSISMTPMailException::MessageError, "", rc, 41604);
}

int CSISMTPClient::SendFromAddressToSMTPServer(SAnsiString const& sender) {
  return Command("MAIL From:<" + str(sender) + ">\r\n");
}

int CSISMTPClient::SendAddressesToSMTPServer(SIArray<SAnsiString> const& addresses) {
  int rc = 250;
  for (auto const& a : addresses) {
    rc = Command("RCPT To:<" + str(a) + ">\r\n");
    // A refused mailbox does not stop the others; only the list's last
    // reply decides.
    bool const goOn = rc == 250 || rc == 251 || (rc >= 550 && rc <= 553);
    if (!goOn) break;
  }
  return rc;
}

int CSISMTPClient::SendMailMessageToSMTPServer(SFile& file) {
  int const rc = Command("DATA\r\n");
  if (rc != 354) return rc;
  file.seek(0);
  char piece[kDataPiece];
  for (size_t n; (n = file.read(piece, sizeof piece)) > 0;)
    if (!m_socket.Send(piece, static_cast<unsigned>(n), m_dataTimeout)) return kSendFailed;
  return Command("\r\n.\r\n", ".");
}

int CSISMTPClient::SMTPQuit() {
  SendCommand("QUIT\r\n");
  int const rc = WaitForReplyFromSMTPServer(m_replyTimeout, nullptr);
  m_socket.AbortSocket();
  m_connected = false;
  return rc;
}

bool CSISMTPClient::CheckAliveness() {
  if (!m_connected) return false;
  return Command("NOOP\r\n") == 250;
}

bool CSISMTPClient::Disconnect() {
  if (!m_connected) return true;
  SMTPQuit();
  CSISocket::uninitialize();
  return true;
}

// ======================================================================
// CSISMTPMail

CSISMTPMail::CSISMTPMail(SAnsiString const& greetingName, SAnsiString const& server, unsigned short port,
                         SAnsiString const& sender)
    : m_client(greetingName, server, port), m_message(sender) {}

bool CSISMTPMail::SendSMTPMessage(bool lineBreaks) {
  try {
    m_client.Connect();
    m_client.SendSMTPMessage(m_message, lineBreaks);
  } catch (...) {
    m_client.Disconnect();
    throw;
  }
  m_client.Disconnect();
  return true;
}

}  // namespace QuenLibA500
