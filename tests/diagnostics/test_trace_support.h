// Helpers shared by the tracing tests: a recording observer and a
// scratch directory.
#pragma once

#include <quenlib/paramlineargs.h>
#include <quenlib/slogger.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace tracetest {

struct Line {
  int level;
  std::string file;
  int line;
  std::string text;
};

// Records every trace line and assertion while it lives.
class Recorder {
 public:
  Recorder() {
    QuenLibA500::SetTraceObserver(&onTrace, this);
    QuenLibA500::SetAssertObserver(&onAssert, this);
  }
  ~Recorder() {
    QuenLibA500::SetTraceObserver(nullptr, nullptr);
    QuenLibA500::SetAssertObserver(nullptr, nullptr);
  }
  std::vector<Line> lines() {
    std::lock_guard<std::mutex> g(m_);
    return lines_;
  }
  std::vector<std::string> texts() {
    std::vector<std::string> out;
    for (Line const& l : lines()) out.push_back(l.text);
    return out;
  }
  std::vector<std::string> asserts() {
    std::lock_guard<std::mutex> g(m_);
    return asserts_;
  }
  bool sawText(std::string const& text) {
    for (Line const& l : lines())
      if (l.text == text) return true;
    return false;
  }
  void clear() {
    std::lock_guard<std::mutex> g(m_);
    lines_.clear();
    asserts_.clear();
  }

 private:
  static void onTrace(void* ctx, int level, char const* file, int line, char const* text) {
    auto* self = static_cast<Recorder*>(ctx);
    std::lock_guard<std::mutex> g(self->m_);
    self->lines_.push_back({level, file, line, text});
  }
  static void onAssert(void* ctx, char const* file, int line, char const* cond, char const* msg) {
    auto* self = static_cast<Recorder*>(ctx);
    std::lock_guard<std::mutex> g(self->m_);
    self->asserts_.push_back(std::string(file) + ":" + std::to_string(line) + ":" + cond + ":" + msg);
  }
  std::mutex m_;
  std::vector<Line> lines_;
  std::vector<std::string> asserts_;
};

// A fresh directory under $TMPDIR, removed with its contents.
class ScratchDir {
 public:
  ScratchDir() {
    char const* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/quenlib-trace-XXXXXX";
    path_ = ::mkdtemp(templ.data());
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string const& path() const { return path_; }
  std::string file(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string readFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void writeFile(std::string const& path, std::string const& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

// Initializes from a command-line text (program name added), without the
// environment.
inline bool init(std::string const& options) {
  return QuenLibA500::SLogger::Initialize(QuenLibA500::CParamLineArgs(("prog " + options).c_str()), false);
}

}  // namespace tracetest
