// Shared by the security tests: scratch files, buffers, and running
// Debian's own tools (coreutils digests, Python with its cryptography
// package) as independent checks.
#pragma once

#include <quenlib/simplebuffer.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "text/text_support.h"

namespace securitytest {

namespace fs = std::filesystem;

// Debian's interpreter, whose packages (python3-cryptography) setup installs.
inline constexpr char kPython[] = "/usr/bin/python3";

inline fs::path Scratch(std::string const& name) {
  fs::path dir = fs::temp_directory_path() / ("quenlib-security-" + name + "-" + std::to_string(::getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

inline QuenLibA500::SSimpleBuffer Buffer(std::string const& bytes) {
  QuenLibA500::SSimpleBuffer b;
  b.append(reinterpret_cast<unsigned char const*>(bytes.data()), static_cast<unsigned>(bytes.size()));
  return b;
}

inline std::string Bytes(QuenLibA500::SSimpleBuffer const& b) {
  return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(b)), b.getNBytes());
}

using quentest::ReadFile;
using quentest::WriteFile;

// Runs a shell command and gives its standard output ("" on failure).
inline std::string Shell(std::string const& command, int* status = nullptr) {
  std::string out;
  FILE* p = ::popen(command.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int const rc = ::pclose(p);
  if (status) *status = rc;
  return out;
}

inline bool HavePythonCryptography() {
  int status = -1;
  Shell(std::string(kPython) + " -c 'import cryptography' 2>/dev/null", &status);
  return status == 0;
}

}  // namespace securitytest
