// remoteurl.h: the scheme://user@host:port/path texts of quen ftp and quen
// sftp, and the password they read from a file or the environment.
#pragma once

#include <quenlib/csisocket.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "command.h"

struct RemoteUrl {
  std::string user;
  std::string host;
  int port = 0;      // 0: the scheme's default
  std::string path;  // after the "/" that ends host:port; "//x" keeps "/x"
};

// Parses SCHEME://[USER@]HOST[:PORT][/PATH]; exits with status 2 on a bad text.
inline RemoteUrl ParseRemoteUrl(std::string const& text, std::string const& scheme) {
  std::string const prefix = scheme + "://";
  if (text.rfind(prefix, 0) != 0) throw QuenExit{2, "not a " + prefix + " URL: " + text};
  std::string rest = text.substr(prefix.size());
  RemoteUrl url;
  auto const slash = rest.find('/');
  if (slash != std::string::npos) url.path = rest.substr(slash + 1), rest.erase(slash);
  auto const at = rest.rfind('@');
  if (at != std::string::npos) url.user = rest.substr(0, at), rest.erase(0, at + 1);
  QuenLibA500::SAnsiString host;
  int port = -1;
  if (!QuenLibA500::CSISocket::splitNamePort(rest.c_str(), host, port) || host.isEmpty())
    throw QuenExit{2, "bad host or port in " + text};
  url.host.assign(host.getString(), host.getLength());
  url.port = port > 0 ? port : 0;
  return url;
}

// The first line of `file` when given, else the environment variable.
inline std::string ReadPassword(std::string const& file, char const* variable) {
  if (!file.empty()) {
    std::ifstream in(file);
    if (!in) throw QuenExit{2, "cannot read the password file " + file};
    std::string line;
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
  }
  char const* env = std::getenv(variable);
  if (!env || !*env)
    throw QuenExit{2, std::string("no password: give --password-file or set ") + variable};
  return env;
}
