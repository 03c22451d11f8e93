// quen ftp: upload a file, create a path, remove a file or show the login
// directory on an FTP server, with the library's client (active mode).
//
//   quen ftp put    ftp://USER@HOST[:PORT]/PATH FILE
//   quen ftp mkdirs ftp://USER@HOST[:PORT]/PATH
//   quen ftp rm     ftp://USER@HOST[:PORT]/PATH
//   quen ftp pwd    ftp://USER@HOST[:PORT]
#include <quenlib/csiftp.h>

#include <cstdio>
#include <memory>
#include <string>

#include "command.h"
#include "remoteurl.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
The password comes from the first line of --password-file or from the
environment variable QUEN_FTP_PASSWORD, never from the command line.
PATH is relative to the login directory; ftp://u@host//srv/x names /srv/x.
put stores FILE as PATH (a PATH ending in "/" gets FILE's name).

Exit status: 0 done; 1 the server refused or the connection failed (the
library's category and text are printed); 2 bad arguments.

Examples:
  QUEN_FTP_PASSWORD=... quen ftp mkdirs ftp://upload@files.example.org/in/2024/05
  quen ftp put --password-file pw ftp://upload@[::1]:2121/in/ report.pdf
  quen ftp pwd --password-file pw ftp://upload@files.example.org
)";

struct Options {
  std::string url, file, passwordFile, account;
  int timeout = CSIftp::DEFAULT_RECEIVE_TIMEOUT;
};

std::string baseName(std::string const& path) {
  auto const slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

template <class Action>
void run(Options const& o, Action const& action) {
  RemoteUrl const url = ParseRemoteUrl(o.url, "ftp");
  if (url.user.empty()) throw QuenExit{2, "the URL names no user: " + o.url};
  std::string const password = ReadPassword(o.passwordFile, "QUEN_FTP_PASSWORD");
  try {
    CSIftp ftp;
    ftp.SetReceiveTimeout(o.timeout);
    ftp.Connect(url.host.c_str(), url.port > 0 ? url.port : CSIftp::DEFAULT_PORT);
    if (!ftp.Login(url.user.c_str(), password.c_str(), o.account.c_str()))
      throw QuenExit{1, "login refused"};
    bool const ok = action(ftp, url);
    ftp.Disconnect();
    if (!ok) throw QuenExit{1, "the server refused the request"};
  } catch (CSIftpException const& e) {
    throw QuenExit{1, "category " + std::to_string(e.getCategory()) + ": " + e.what()};
  }
}

void requirePath(RemoteUrl const& url) {
  if (url.path.empty()) throw QuenExit{2, "the URL names no path"};
}

void setupFtp(CLI::App& app) {
  auto* ftp =
      app.add_subcommand("ftp", "Upload files and create paths on an FTP server (active mode)");
  ftp->require_subcommand(1);
  ftp->footer(kUsage);
  auto opts = std::make_shared<Options>();
  auto common = [opts](CLI::App* c) {
    c->add_option("url", opts->url, "ftp://USER@HOST[:PORT]/PATH")->required();
    c->add_option("--password-file", opts->passwordFile, "file whose first line is the password");
    c->add_option("--account", opts->account, "account for ACCT, when the server asks");
    c->add_option("--timeout", opts->timeout, "seconds each read may wait (default 60)");
  };
  auto* put = ftp->add_subcommand("put", "Store FILE as PATH");
  common(put);
  put->add_option("file", opts->file, "local file")->required();
  put->callback([opts] {
    run(*opts, [&](CSIftp& c, RemoteUrl const& url) {
      requirePath(url);
      std::string const remote =
          url.path.back() == '/' ? url.path + baseName(opts->file) : url.path;
      return c.PutFile(opts->file.c_str(), remote.c_str());
    });
  });
  auto* mkdirs = ftp->add_subcommand("mkdirs", "Create every missing directory of PATH");
  common(mkdirs);
  mkdirs->callback([opts] {
    run(*opts, [](CSIftp& c, RemoteUrl const& url) {
      return requirePath(url), c.CreateDirs(url.path.c_str());
    });
  });
  auto* rm = ftp->add_subcommand("rm", "Delete the file PATH");
  common(rm);
  rm->callback([opts] {
    run(*opts, [](CSIftp& c, RemoteUrl const& url) {
      return requirePath(url), c.RemoveFile(url.path.c_str());
    });
  });
  auto* pwd = ftp->add_subcommand("pwd", "Print the login directory");
  common(pwd);
  pwd->callback([opts] {
    run(*opts, [](CSIftp& c, RemoteUrl const&) {
      SAnsiString const dir = c.GetWorkingDir();
      std::printf("%s\n", dir.getString());
      return !dir.isEmpty();
    });
  });
}

}  // namespace

static QuenCommand ftpCommand{"ftp", &setupFtp};
