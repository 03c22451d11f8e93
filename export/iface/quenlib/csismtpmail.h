// csismtpmail.h: a small mail-submission client (SMTP, optionally over TLS).
//
// `CSISMTPMail` is the one-object way to send a mail: it owns a
// `CSISMTPClient` (the protocol) and a `CSISMTPMessage` (the message and its
// MIME form), connects, sends and disconnects:
//
//   CSISMTPMail mail("client.example.org", "mail.example.org", 25, "me@example.org");
//   mail.SetAuthenticationType(CSISMTPClient::AUTH_PLAIN);
//   mail.SetUsername("me");
//   mail.SetPassword(password);           // never traced, thrown or spooled
//   mail.AddToAddress("you@example.org", ", ");
//   mail.SetSubject("Report");
//   mail.SetMessage("Hello\nsee attachment");
//   mail.AddAttachment("/var/reports/r.pdf", "application/pdf", "");
//   try {
//     mail.SendMessageA();
//   } catch (CSISMTPMailException const& e) {
//     std::fprintf(stderr, "%s\n", e.what());   // text, detail and SMTP reply
//   }
//
// The message is first written to a spool file in the temporary directory
// ("tmp....smtp") and then streamed to the server in 8,192-byte pieces; the
// spool file is removed on every path. Protocol failures throw
// `CSISMTPMailException`; a missing attachment file throws the file layer's
// `SFileException`. Objects belong to one thread at a time. Diagnostics go to
// the trace channel under the source name "csismtpmail".
#pragma once

#include <quenlib/csitcpsocket.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>

#include <cstddef>
#include <exception>
#include <string>

namespace QuenLibA500 {

class SFile;

namespace SMTPHelper {

// A mailbox as RFC 5321 writes it in MAIL and RCPT: local-part "@" domain,
// where the local part is a dot-string of atext or a quoted string, and the
// domain is a dotted name of letter-digit-hyphen labels (no label begins or
// ends with "-", each at most 63 characters) or an address literal
// "[1.2.3.4]" / "[IPv6:...]". The local part holds at most 64 characters,
// the domain 255, the whole address 254. No angle brackets, no display name.
QUENLIB_API bool IsValidEmailAddress(SAnsiString const& address);

// Base64 (standard alphabet, "=" padding) of n bytes appended to `out`.
// With `lineBreaks`, CR LF follows every 72 input bytes (96 characters) and
// once more at the end.
QUENLIB_API void Base64Encode(unsigned char const* data, size_t n, bool lineBreaks, std::string& out);

}  // namespace SMTPHelper

class QUENLIB_API CSISMTPMailException : public std::exception {
 public:
  enum ErrorCodes {
    ConnectError = 0,         // connection or greeting failed (41602)
    AuthenticationError = 1,  // 41605 no such mechanism, 41606 rejected, 41607 no AUTH
    ToAddressError = 2,       // MAIL From or a To recipient refused (41603)
    CCAddressError = 3,       // a Cc recipient refused (41603)
    BCCAddressError = 4,      // a Bcc recipient refused (41603)
    MessageError = 5,         // the message data refused (41604)
  };
  static constexpr int kDefaultResource = 33000;

  // A resource identifier of 0 stands for kDefaultResource.
  CSISMTPMailException(ErrorCodes code, SAnsiString const& detail, int smtpCode, int resourceId);
  ~CSISMTPMailException() override;
  CSISMTPMailException(CSISMTPMailException const&) = default;
  CSISMTPMailException& operator=(CSISMTPMailException const&) = default;

  ErrorCodes ErrCode() const noexcept { return m_code; }
  SAnsiString GetDetail() const { return m_detail; }
  // The server's reply code; 3 a command could not be sent, 4 no reply could
  // be read, 0 none.
  int SMTPErrorCode() const noexcept { return m_smtpCode; }
  int GetResourceId() const noexcept { return m_resourceId; }
  // What the reply code means ("Requested action not taken: mailbox unavailable").
  SAnsiString SMTPErrorCodeString() const;
  // The message of the resource with the detail, then the reply code and
  // its meaning when there is one.
  virtual SAnsiString toString() const;
  char const* what() const noexcept override { return m_text.c_str(); }

 private:
  ErrorCodes m_code;
  SAnsiString m_detail;
  int m_smtpCode;
  int m_resourceId;
  std::string m_text;
};

class QUENLIB_API CSISMTPMessage {
 public:
  struct MimeAttachment {
    SAnsiString path;         // the file sent
    SAnsiString contentType;  // empty: application/octet-stream
    SAnsiString name;         // shown to the reader; empty: the file's name
  };

  explicit CSISMTPMessage(SAnsiString const& sender);

  // An address that is empty once trimmed gives false; otherwise the trimmed
  // address joins the list and the header text (after `separator` when the
  // text is not empty).
  bool AddToAddress(SAnsiString const& address, SAnsiString const& separator);
  bool AddCCAddress(SAnsiString const& address, SAnsiString const& separator);
  bool AddBCCAddress(SAnsiString const& address, SAnsiString const& separator);
  bool AddAttachment(SAnsiString const& path, SAnsiString const& contentType, SAnsiString const& name);
  bool SetSubject(SAnsiString const& subject);
  bool SetMessage(SAnsiString const& text);
  // Empties the To list and the To header text, so that one message can go
  // to several recipients in turn.
  void CleanupToAddress();
  // True when the sender and every recipient pass IsValidEmailAddress and
  // there is at least one recipient.
  bool CheckAddresses() const;

  SAnsiString GetSenderAddress() const { return m_sender; }
  SIArray<SAnsiString> const& GetToAddresses() const { return m_to; }
  SIArray<SAnsiString> const& GetCCAddresses() const { return m_cc; }
  SIArray<SAnsiString> const& GetBCCAddresses() const { return m_bcc; }
  SAnsiString GetToHeader() const { return m_toHeader; }
  SAnsiString GetCCHeader() const { return m_ccHeader; }
  SAnsiString GetBCCHeader() const { return m_bccHeader; }
  SAnsiString GetSubject() const { return m_subject; }
  SAnsiString GetMessage() const { return m_text; }
  SIArray<MimeAttachment> const& GetAttachments() const { return m_attachments; }

  // Writes the header and the body, ready for DATA (dot-stuffed, CR LF
  // lines). With `lineBreaks` false each attachment is one base64 line.
  // A missing attachment throws SFileException.
  bool EncodeSMTPMailMessage(SFile& file, bool lineBreaks) const;

 private:
  std::string CreateSMTPHeader() const;
  void CreateSMTPBody(SFile& file, std::string& out, bool lineBreaks) const;
  void AddFileInBody(SFile& file, std::string& out, MimeAttachment const& a, bool lineBreaks) const;
  std::string GenerateMessageId() const;
  static std::string GenerateDate();

  SAnsiString m_sender;
  SIArray<SAnsiString> m_to, m_cc, m_bcc;
  SAnsiString m_toHeader, m_ccHeader, m_bccHeader;
  SAnsiString m_subject;
  SAnsiString m_text;
  SIArray<MimeAttachment> m_attachments;
};

class QUENLIB_API CSISMTPClient {
 public:
  enum Authentication { AUTH_NONE = 0, AUTH_PLAIN = 1, AUTH_LOGIN = 2 };
  // Transport results standing in for a reply code.
  static constexpr int kSendFailed = 3;
  static constexpr int kReadFailed = 4;

  // Port 0 means the port of the service "smtp" (25 when unknown).
  CSISMTPClient(SAnsiString const& greetingName, SAnsiString const& server, unsigned short port);
  // Closes a connection still open, without QUIT.
  ~CSISMTPClient();
  CSISMTPClient(CSISMTPClient const&) = delete;
  CSISMTPClient& operator=(CSISMTPClient const&) = delete;

  bool SetUsername(SAnsiString const& user);
  bool SetPassword(SAnsiString const& password);
  bool SetAuthenticationType(Authentication type);
  bool SetSSLEnable(bool tls);
  // Every wait of the exchange (a whole reply, a command's send, a piece of
  // the message) takes at most `seconds`; below 1 restores the defaults
  // (60 s for replies and message pieces, 120 s for commands).
  void SetTimeout(int seconds);

  // Connects and greets (EHLO, else HELO), authenticating when asked; true
  // on 250, otherwise throws (ConnectError, or AuthenticationError).
  bool Connect();
  // MAIL, RCPT for To, Cc and Bcc, DATA with the encoded message.
  bool SendSMTPMessage(CSISMTPMessage const& message, bool lineBreaks);
  // NOOP answered by 250.
  bool CheckAliveness();
  // QUIT when connected; always true.
  bool Disconnect();

  bool IsConnected() const { return m_connected; }
  // Every reply line read, as "S: ..." lines, and every command sent, as
  // "C: ..." lines (credentials shown as "***"), when recording is on.
  void SetTranscript(std::string* transcript) { m_transcript = transcript; }

  // Reads one reply (all its lines, each followed by CR LF in `reply`) from
  // `socket`: its code, or kReadFailed when a line could not be read or the
  // whole reply did not arrive within `timeoutSeconds` (-1: no limit).
  static int ReadReply(CSITcpSocket& socket, int timeoutSeconds, SAnsiString* reply);

 private:
  int InitSMTPServer(bool tls);
  void SecurityCheck(SAnsiString const& ehloReply);
  int SecurityCheckHelper(Authentication type);
  void SendMailToSMTPServer(CSISMTPMessage const& message, SFile& file);
  int SendFromAddressToSMTPServer(SAnsiString const& sender);
  int SendAddressesToSMTPServer(SIArray<SAnsiString> const& addresses);
  int SendMailMessageToSMTPServer(SFile& file);
  int SMTPQuit();
  int WaitForReplyFromSMTPServer(int timeoutSeconds, SAnsiString* reply);
  bool SendCommand(std::string const& command, char const* shown = nullptr);
  int Command(std::string const& command, char const* shown = nullptr);

  SAnsiString m_greetingName;
  CSITcpSocket m_socket;
  SAnsiString m_user;
  SAnsiString m_password;
  Authentication m_auth = AUTH_NONE;
  bool m_tls = false;
  bool m_connected = false;
  std::string* m_transcript = nullptr;
  int m_replyTimeout = 60;
  int m_sendTimeout = 120;
  int m_dataTimeout = 60;
};

class QUENLIB_API CSISMTPMail {
 public:
  CSISMTPMail(SAnsiString const& greetingName, SAnsiString const& server, unsigned short port,
              SAnsiString const& sender);

  bool SetUsername(SAnsiString const& user) { return m_client.SetUsername(user); }
  bool SetPassword(SAnsiString const& password) { return m_client.SetPassword(password); }
  bool SetAuthenticationType(CSISMTPClient::Authentication type) { return m_client.SetAuthenticationType(type); }
  bool SetSSLEnable(bool tls) { return m_client.SetSSLEnable(tls); }
  bool SetSubject(SAnsiString const& subject) { return m_message.SetSubject(subject); }
  bool SetMessage(SAnsiString const& text) { return m_message.SetMessage(text); }
  bool AddToAddress(SAnsiString const& a, SAnsiString const& separator) { return m_message.AddToAddress(a, separator); }
  bool AddCCAddress(SAnsiString const& a, SAnsiString const& separator) { return m_message.AddCCAddress(a, separator); }
  bool AddBCCAddress(SAnsiString const& a, SAnsiString const& separator) { return m_message.AddBCCAddress(a, separator); }
  bool AddAttachment(SAnsiString const& path, SAnsiString const& type, SAnsiString const& name) {
    return m_message.AddAttachment(path, type, name);
  }
  void CleanupToAddress() { m_message.CleanupToAddress(); }

  // Connects, sends the message and disconnects (also when a step throws).
  bool SendSMTPMessage(bool lineBreaks);
  // SendSMTPMessage(true).
  bool SendMessageA() { return SendSMTPMessage(true); }

  CSISMTPClient& Client() { return m_client; }
  CSISMTPMessage& Message() { return m_message; }

 private:
  CSISMTPClient m_client;
  CSISMTPMessage m_message;
};

}  // namespace QuenLibA500
