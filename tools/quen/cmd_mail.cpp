// quen mail: sends one mail through the library's SMTP client, as the
// suite's servers do, so that a mail server's settings can be checked.
//
//   quen mail send --server HOST[:PORT] --from ADDR --to ADDR... [--cc ADDR...]
//                  [--bcc ADDR...] --subject TEXT [--body-file F]
//                  [--attach FILE[:TYPE]]... [--tls]
//                  [--auth plain|login --user U [--password-file F]] [--verbose]
#include <quenlib/csisocket.h>
#include <quenlib/csismtpmail.h>
#include <quenlib/sfile.h>

#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <langinfo.h>
#include <memory>
#include <string>
#include <vector>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
send connects to the server (port 25 when none is given; --tls speaks TLS
from the first byte, with the server certificate pinned to certificate.crt),
greets it, authenticates when --auth is given, and sends one message: the
subject, the text of --body-file (UTF-8 under the C locale) and each
--attach file in base64 (TYPE defaults to application/octet-stream).

The password is read from --password-file (its first line) or from the
environment variable QUEN_SMTP_PASSWORD, never from the command line. It is
never printed: --verbose shows the exchange with the server, credentials as
"***".

Exit status: 0 sent; 1 the server refused or could not be reached (the
library's error code and the SMTP reply are printed); 2 bad arguments.

Examples:
  quen mail send --server mail.example.org --from me@example.org \
    --to you@example.org --subject 'Test' --body-file note.txt
  QUEN_SMTP_PASSWORD=... quen mail send --server mail.example.org:465 --tls \
    --auth plain --user me --from me@example.org --to you@example.org \
    --subject 'Report' --attach report.pdf:application/pdf --verbose
)";

struct Options {
  std::string server, from, subject, bodyFile, auth, user, passwordFile, helo;
  std::vector<std::string> to, cc, bcc, attach;
  bool tls = false;
  bool verbose = false;
};

std::string readWhole(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw QuenExit{2, "cannot read " + path};
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string password(Options const& o) {
  if (!o.passwordFile.empty()) {
    std::string const text = readWhole(o.passwordFile);
    return text.substr(0, text.find_first_of("\r\n"));
  }
  char const* env = std::getenv("QUEN_SMTP_PASSWORD");
  if (env) return env;
  throw QuenExit{2, "no password: give --password-file F or set QUEN_SMTP_PASSWORD"};
}

// The texts given are the locale's; the C locale's ASCII would turn every
// other character into "?", so there they are taken as UTF-8.
void useTextLocale() {
  std::setlocale(LC_ALL, "");
  char const* codeset = nl_langinfo(CODESET);
  if (codeset && std::strcmp(codeset, "ANSI_X3.4-1968") == 0) std::setlocale(LC_ALL, "C.UTF-8");
}

CSISMTPClient::Authentication authType(std::string const& name) {
  if (name.empty()) return CSISMTPClient::AUTH_NONE;
  if (name == "plain") return CSISMTPClient::AUTH_PLAIN;
  if (name == "login") return CSISMTPClient::AUTH_LOGIN;
  throw QuenExit{2, "--auth is plain or login"};
}

void checkAddress(std::string const& a) {
  if (!SMTPHelper::IsValidEmailAddress(a.c_str())) throw QuenExit{2, "not a mail address: " + a};
}

// FILE[:TYPE]: a TYPE holds a "/", so a path with colons stays whole.
void attach(CSISMTPMail& mail, std::string const& given) {
  size_t const colon = given.rfind(':');
  bool const typed = colon != std::string::npos && given.find('/', colon) != std::string::npos;
  std::string const path = typed ? given.substr(0, colon) : given;
  if (::access(path.c_str(), R_OK) != 0) throw QuenExit{2, "cannot read " + path};
  mail.AddAttachment(path.c_str(), typed ? given.substr(colon + 1).c_str() : "", "");
}

std::string greetingName(Options const& o) {
  if (!o.helo.empty()) return o.helo;
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  return host[0] ? host : "localhost";
}

void Send(Options const& o) {
  useTextLocale();
  SAnsiString host;
  int port = -1;
  if (!CSISocket::splitNamePort(o.server.c_str(), host, port) || host.isEmpty())
    throw QuenExit{2, "not HOST[:PORT]: " + o.server};
  checkAddress(o.from);
  for (auto const* list : {&o.to, &o.cc, &o.bcc})
    for (auto const& a : *list) checkAddress(a);
  auto const auth = authType(o.auth);
  if (auth != CSISMTPClient::AUTH_NONE && o.user.empty()) throw QuenExit{2, "--auth needs --user"};

  CSISMTPMail mail(greetingName(o).c_str(), host, static_cast<unsigned short>(port < 0 ? 0 : port), o.from.c_str());
  for (auto const& a : o.to) mail.AddToAddress(a.c_str(), ", ");
  for (auto const& a : o.cc) mail.AddCCAddress(a.c_str(), ", ");
  for (auto const& a : o.bcc) mail.AddBCCAddress(a.c_str(), ", ");
  mail.SetSubject(o.subject.c_str());
  if (!o.bodyFile.empty()) mail.SetMessage(readWhole(o.bodyFile).c_str());
  for (auto const& a : o.attach) attach(mail, a);
  mail.SetSSLEnable(o.tls);
  mail.SetAuthenticationType(auth);
  if (auth != CSISMTPClient::AUTH_NONE) {
    mail.SetUsername(o.user.c_str());
    mail.SetPassword(password(o).c_str());
  }
  std::string transcript;
  if (o.verbose) mail.Client().SetTranscript(&transcript);
  try {
    mail.SendMessageA();
  } catch (CSISMTPMailException const& e) {
    std::fputs(transcript.c_str(), stdout);
    std::printf("failed: %s\nerror code %d, SMTP reply %d\n", e.what(), static_cast<int>(e.ErrCode()),
                e.SMTPErrorCode());
    throw QuenExit{1, ""};
  } catch (SFileException const& e) {
    throw QuenExit{1, e.what()};
  }
  std::fputs(transcript.c_str(), stdout);
  std::printf("sent to %zu recipient(s) with %zu attachment(s)\n", o.to.size() + o.cc.size() + o.bcc.size(),
              o.attach.size());
}

void setupMail(CLI::App& app) {
  auto* mail = app.add_subcommand("mail", "Send a mail through the library's SMTP client");
  mail->require_subcommand(1);
  mail->footer(kUsage);
  auto o = std::make_shared<Options>();
  auto* send = mail->add_subcommand("send", "Send one message");
  send->add_option("--server", o->server, "HOST[:PORT]")->required();
  send->add_option("--from", o->from, "sender address")->required();
  send->add_option("--to", o->to, "recipient addresses")->required();
  send->add_option("--cc", o->cc, "copy addresses");
  send->add_option("--bcc", o->bcc, "blind copy addresses");
  send->add_option("--subject", o->subject, "subject text")->required();
  send->add_option("--body-file", o->bodyFile, "file holding the text");
  send->add_option("--attach", o->attach, "FILE[:TYPE], repeatable");
  send->add_flag("--tls", o->tls, "TLS, with the server certificate pinned to certificate.crt");
  send->add_option("--auth", o->auth, "plain or login");
  send->add_option("--user", o->user, "user name for --auth");
  send->add_option("--password-file", o->passwordFile, "file whose first line is the password");
  send->add_option("--helo", o->helo, "name sent with EHLO/HELO (default: this host's name)");
  send->add_flag("--verbose", o->verbose, "show the commands and the server's replies");
  send->callback([o] { Send(*o); });
}

}  // namespace

static QuenCommand mailCommand{"mail", &setupMail};
