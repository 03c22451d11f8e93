// Helpers of the diagnostics tests: a thread-safe recording observer,
// initialisation from a command-line text, and the shared text helpers.
#pragma once

#include <quenlib/paramlineargs.h>
#include <quenlib/slogger.h>

#include <mutex>

#include "text/text_support.h"

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

using ScratchDir = quentest::TempDir;
using quentest::ReadFile;
using quentest::WriteFile;

// Initializes from a command-line text (program name added), without the
// environment.
inline bool init(std::string const& options) {
  return QuenLibA500::SLogger::Initialize(QuenLibA500::CParamLineArgs(("prog " + options).c_str()), false);
}

}  // namespace tracetest
