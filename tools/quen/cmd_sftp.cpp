// quen sftp: upload a file or create a path over SFTP with the server's
// host key pinned, and print a server's fingerprint for an operator to pin.
//
//   quen sftp put         sftp://USER@HOST[:PORT]/PATH FILE --fingerprint HEX [--exclusive]
//   quen sftp mkdirs      sftp://USER@HOST[:PORT]/PATH --fingerprint HEX [--mode OCTAL]
//   quen sftp fingerprint HOST[:PORT]
#include <quenlib/csisftp.h>
#include <quenlib/csisocket.h>

#include <cstdio>
#include <memory>
#include <string>

#include "command.h"
#include "remoteurl.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
The fingerprint is the SHA-256 hash of the server's host key as 64
hexadecimal digits (letter case ignored); get it with "quen sftp
fingerprint HOST", check it with the server's administrator, then pin it.
put and mkdirs refuse to run without --fingerprint.

The password comes from the first line of --password-file or from the
environment variable QUEN_SFTP_PASSWORD, never from the command line.
PATH is relative to the login directory; sftp://u@host//srv/x names /srv/x.
put replaces an existing file unless --exclusive is given; a PATH ending in
"/" gets FILE's name. New files get mode 0600.

Exit status: 0 done; 1 the server refused or the connection failed (the
library's category and text are printed); 2 bad arguments.

Examples:
  quen sftp fingerprint files.example.org:22
  QUEN_SFTP_PASSWORD=... quen sftp put sftp://upload@files.example.org/in/ report.pdf --fingerprint 3f2a...
  quen sftp mkdirs sftp://upload@files.example.org/in/2024/05 --fingerprint 3f2a... --mode 750
)";

struct Options {
  std::string url, file, passwordFile, fingerprint, mode = "700";
  bool exclusive = false;
  int timeout = CSIsftp::DEFAULT_TIMEOUT;
};

std::string baseName(std::string const& path) {
  auto const slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

template <class Action>
void run(Options const& o, Action const& action) {
  RemoteUrl const url = ParseRemoteUrl(o.url, "sftp");
  if (url.user.empty()) throw QuenExit{2, "the URL names no user: " + o.url};
  if (url.path.empty()) throw QuenExit{2, "the URL names no path"};
  if (o.fingerprint.empty()) throw QuenExit{2, "give --fingerprint (see quen sftp fingerprint)"};
  std::string const password = ReadPassword(o.passwordFile, "QUEN_SFTP_PASSWORD");
  try {
    CSIsftp sftp;
    sftp.SetTimeout(o.timeout);
    sftp.Connect(url.host.c_str(), o.fingerprint.c_str(),
                 url.port > 0 ? url.port : CSIsftp::DEFAULT_PORT, true);
    sftp.PasswordAuthentication(url.user.c_str(), password.c_str(), "");
    sftp.InitializeSftpSession();
    action(sftp, url);
    sftp.Disconnect();
  } catch (CSIsftpException const& e) {
    throw QuenExit{1, "category " + std::to_string(e.getCategory()) + ": " + e.what()};
  }
}

void Fingerprint(Options const& o) {
  SAnsiString host;
  int port = -1;
  if (!CSISocket::splitNamePort(o.url.c_str(), host, port) || host.isEmpty())
    throw QuenExit{2, "not HOST[:PORT]: " + o.url};
  try {
    CSIsftp sftp;
    sftp.SetTimeout(o.timeout);
    sftp.Connect(host, "", port > 0 ? port : CSIsftp::DEFAULT_PORT);
    std::printf("%s\n", sftp.GetServerFingerprint().getString());
    sftp.Disconnect();
  } catch (CSIsftpException const& e) {
    throw QuenExit{1, "category " + std::to_string(e.getCategory()) + ": " + e.what()};
  }
}

long parseMode(std::string const& text) {
  char* end = nullptr;
  long const mode = std::strtol(text.c_str(), &end, 8);
  if (text.empty() || *end != '\0' || mode <= 0 || mode > 07777)
    throw QuenExit{2, "not an octal mode: " + text};
  return mode;
}

void setupSftp(CLI::App& app) {
  auto* sftp =
      app.add_subcommand("sftp", "Upload files and create paths over SFTP, host key pinned");
  sftp->require_subcommand(1);
  sftp->footer(kUsage);
  auto opts = std::make_shared<Options>();
  auto common = [opts](CLI::App* c) {
    c->add_option("url", opts->url, "sftp://USER@HOST[:PORT]/PATH")->required();
    c->add_option("--fingerprint", opts->fingerprint,
                  "the server's SHA-256 host-key fingerprint (64 hex digits)");
    c->add_option("--password-file", opts->passwordFile, "file whose first line is the password");
    c->add_option("--timeout", opts->timeout, "seconds each step may take (default 60)");
  };
  auto* put = sftp->add_subcommand("put", "Store FILE as PATH");
  common(put);
  put->add_option("file", opts->file, "local file")->required();
  put->add_flag("--exclusive", opts->exclusive, "fail when PATH exists instead of replacing it");
  put->callback([opts] {
    run(*opts, [&](CSIsftp& c, RemoteUrl const& url) {
      std::string const remote =
          url.path.back() == '/' ? url.path + baseName(opts->file) : url.path;
      c.PutFile(opts->file.c_str(), remote.c_str(), !opts->exclusive);
    });
  });
  auto* mkdirs = sftp->add_subcommand("mkdirs", "Create every missing directory of PATH");
  common(mkdirs);
  mkdirs->add_option("--mode", opts->mode, "octal mode of new directories (default 700)");
  mkdirs->callback([opts] {
    long const mode = parseMode(opts->mode);
    run(*opts, [mode](CSIsftp& c, RemoteUrl const& url) { c.CreateDirs(url.path.c_str(), mode); });
  });
  auto* fp = sftp->add_subcommand("fingerprint", "Print the server's SHA-256 host-key fingerprint");
  fp->add_option("server", opts->url, "HOST[:PORT] (port 22 when none)")->required();
  fp->add_option("--timeout", opts->timeout, "seconds each step may take (default 60)");
  fp->callback([opts] { Fingerprint(*opts); });
}

}  // namespace

static QuenCommand sftpCommand{"sftp", &setupSftp};
