// Helpers every test program shares: captured assertions and traces, a
// scratch directory that goes away with the test, whole-file reads and
// writes, a locale switched for one scope, and running the built quen.
#pragma once

#include <quenlib/slogger.h>
#include <quenlib/sstring.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace quentest {

inline std::string str(QuenLibA500::SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

// Assertions reported while it lives; `only` keeps those of one source.
struct AssertLog {
  struct Seen {
    std::string file, condition, message;
  };
  explicit AssertLog(std::string only = {}) : only_(std::move(only)) {
    QuenLibA500::SetAssertObserver(&observe, this);
  }
  ~AssertLog() { QuenLibA500::SetAssertObserver(nullptr, nullptr); }
  AssertLog(AssertLog const&) = delete;
  AssertLog& operator=(AssertLog const&) = delete;

  // "file:condition" of each report, in order.
  std::vector<std::string> conditions() const {
    std::vector<std::string> v;
    for (auto const& s : seen) v.push_back(s.file + ":" + s.condition);
    return v;
  }
  std::vector<std::string> messages() const {
    std::vector<std::string> v;
    for (auto const& s : seen) v.push_back(s.message);
    return v;
  }
  std::vector<Seen> seen;

 private:
  static void observe(void* ctx, char const* file, int, char const* cond, char const* msg) {
    auto* self = static_cast<AssertLog*>(ctx);
    if (!self->only_.empty() && self->only_ != file) return;
    self->seen.push_back({file, cond ? cond : "", msg ? msg : ""});
  }
  std::string only_;
};

// Trace lines delivered while it lives, as "file: text" and as bare text.
struct TraceLog {
  TraceLog() { QuenLibA500::SetTraceObserver(&observe, this); }
  ~TraceLog() { QuenLibA500::SetTraceObserver(nullptr, nullptr); }
  TraceLog(TraceLog const&) = delete;
  TraceLog& operator=(TraceLog const&) = delete;
  std::vector<std::string> lines, texts;

 private:
  static void observe(void* ctx, int, char const* file, int, char const* text) {
    static_cast<TraceLog*>(ctx)->lines.push_back(std::string(file) + ": " + text);
    static_cast<TraceLog*>(ctx)->texts.push_back(text);
  }
};

// A fresh directory under /tmp, removed with everything in it.
struct TempDir {
  TempDir() {
    char tmpl[] = "/tmp/quentestXXXXXX";
    if (::mkdtemp(tmpl)) path = tmpl;
    EXPECT_FALSE(path.empty()) << "mkdtemp failed";
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::permissions(path, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(path, ec);
  }
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;
  std::string operator/(std::string const& name) const { return path + "/" + name; }
  std::string path;
};

inline std::string ReadFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void WriteFile(std::string const& path, std::string const& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Switches the process locale for one scope and puts the old one back.
class LocaleScope {
 public:
  explicit LocaleScope(char const* name) : old_(std::setlocale(LC_ALL, nullptr)) {
    ok_ = std::setlocale(LC_ALL, name) != nullptr;
  }
  ~LocaleScope() { std::setlocale(LC_ALL, old_.c_str()); }
  LocaleScope(LocaleScope const&) = delete;
  LocaleScope& operator=(LocaleScope const&) = delete;
  bool ok() const { return ok_; }

 private:
  std::string old_;
  bool ok_;
};

inline std::string QuenPath() { return std::string(QUENLIB_BINARY_DIR) + "/tools/quen/quen"; }

struct QuenRun {
  int status = -1;
  std::string out;
};

// Runs `env quen args` through /bin/sh (args already quoted for it), with
// `input` on standard input. Standard error joins the output unless
// dropped.
inline QuenRun RunQuen(std::string const& args, std::string const& env = "LC_ALL=C.UTF-8",
                       bool withStderr = true, std::string const& input = {}) {
  TempDir scratch;
  std::string const in = scratch / "stdin";
  WriteFile(in, input);
  std::string cmd = env + " '" + QuenPath() + "' " + args + " < '" + in + "'" +
                    (withStderr ? " 2>&1" : " 2>/dev/null");
  QuenRun r;
  FILE* p = ::popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int const st = ::pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

// A test fixture for the end-to-end runs of the built quen.
class QuenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access(QuenPath().c_str(), X_OK) != 0) GTEST_SKIP() << "quen is not built";
  }
};

}  // namespace quentest
