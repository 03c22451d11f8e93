// strace.h: building trace texts, and traces of scopes.
//
// STraceObj is a trace call site (file, line, level). Called with a format
// and up to twelve values, it checks ShouldTrace and only then converts the
// values (STraceParameter) and fills the format (STraceHelper):
//
//   STraceObj(__FILE__, __LINE__, SLogger::tl_L)("open %1 as %2", path, mode);
//   STraceObj(__FILE__, __LINE__, SLogger::tl_M)("read %d of %ld bytes", n, total);
//
// Formats use "%1".."%12" for the parameter of that number, and the
// printf-style conversions ("%s", "%d", "%ld", "%u", "%x", "%c", "%f", with
// flags, width and precision) which take the parameters in order. "%%" is
// a percent sign. A placeholder without a parameter stays as written.
// A digit right after '%' always starts a numbered placeholder: "%5s" is
// parameter 5 followed by "s"; give a width after a flag ("%-5s", "%05d").
//
// Scope traces write an entry line when constructed and an exit line,
// with the result or error set meanwhile, when destroyed:
//
//   SScopeTrace scope(__FILE__, __LINE__, "Registry::Open", SLogger::tl_Scope, key);
//   ...
//   scope.SetResult(rc);          // "Exit Registry::Open result=0"
//
// WorkflowScopeTrace also sets the thread's ActionID for its duration;
// InstrumentScopeTrace adds the time spent in the scope ("elapsed=..us").
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/slogger.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace QuenLibA500 {

class SDateTime;

// One trace argument, held as text. Integers also keep their value, so
// that "%x" can show them in hexadecimal. A default-constructed parameter
// is an empty slot (IsEmpty); any given value, even "", is not.
class QUENLIB_API STraceParameter {
 public:
  STraceParameter() = default;
  STraceParameter(SAnsiString const& s);
  STraceParameter(SChar_t<char, 0> const& c);
  // "2024-03-11 08:30:00.005" (UTC), or "(invalid)".
  STraceParameter(SDateTime const& t);
  STraceParameter(std::string s) : text_(std::move(s)), kind_(kText) {}
  STraceParameter(char const* s);
  STraceParameter(WChar const* s);
  STraceParameter(std::nullptr_t) : text_("(null)"), kind_(kText) {}
  STraceParameter(char c) : text_(1, c), kind_(kText) {}
  STraceParameter(bool b) : text_(b ? "true" : "false"), kind_(kText) {}
  STraceParameter(int v) { setSigned(v); }
  STraceParameter(unsigned int v) { setUnsigned(v); }
  STraceParameter(long v) { setSigned(v); }
  STraceParameter(unsigned long v) { setUnsigned(v); }
  STraceParameter(long long v) { setSigned(v); }
  STraceParameter(unsigned long long v) { setUnsigned(v); }
  STraceParameter(double v);
  STraceParameter(void const* p);
  // Any class of the library's string family (SString_t flavours, SChar_t),
  // through its conversion to the locale's multibyte text.
  template <class S, class = std::enable_if_t<std::is_class_v<S>>,
            class = decltype(static_cast<char const*>(std::declval<S const&>()))>
  STraceParameter(S const& s) : STraceParameter(static_cast<char const*>(s)) {}

  bool IsEmpty() const { return kind_ == kEmpty; }
  std::string const& Text() const { return text_; }
  SAnsiString GetString() const;
  bool IsInteger() const { return kind_ == kSigned || kind_ == kUnsigned; }
  // The integer's bits as unsigned (two's complement for negative values).
  uint64_t Bits() const { return bits_; }

 private:
  enum Kind : uint8_t { kEmpty, kText, kSigned, kUnsigned };
  void setSigned(long long v);
  void setUnsigned(unsigned long long v);

  std::string text_;
  uint64_t bits_ = 0;
  Kind kind_ = kEmpty;
};

// Fills a format with parameters (see the top of this header).
class QUENLIB_API STraceHelper {
 public:
  static std::string Format(char const* format, STraceParameter const* params, int count);
  static std::string Format(WChar const* format, STraceParameter const* params, int count);
  static std::string Format(char const* format, std::vector<STraceParameter> const& params) {
    return Format(format, params.data(), static_cast<int>(params.size()));
  }
};

// A trace call site. operator() takes 0 to 12 parameters.
class QUENLIB_API STraceObj {
 public:
  STraceObj(char const* file, int line, SLogger::tracelevel level)
      : file_(file), line_(line), level_(level) {}

  template <class... P>
  void operator()(char const* format, P const&... params) const {
    static_assert(sizeof...(P) <= 12, "a trace takes at most 12 parameters");
    if (!SLogger::ShouldTrace(level_, file_, line_)) return;
    STraceParameter const ps[] = {STraceParameter(params)..., STraceParameter()};
    emit(STraceHelper::Format(format, ps, static_cast<int>(sizeof...(P))));
  }
  template <class... P>
  void operator()(WChar const* format, P const&... params) const {
    static_assert(sizeof...(P) <= 12, "a trace takes at most 12 parameters");
    if (!SLogger::ShouldTrace(level_, file_, line_)) return;
    STraceParameter const ps[] = {STraceParameter(params)..., STraceParameter()};
    emit(STraceHelper::Format(format, ps, static_cast<int>(sizeof...(P))));
  }

 private:
  void emit(std::string const& text) const;

  char const* file_;
  int line_;
  SLogger::tracelevel level_;
};

// Entry and exit lines of a scope, at `level` (tl_Scope by default). The
// decision to trace is taken once, at entry; the exit line follows only an
// entry line. Nested scopes of a thread are indented.
class QUENLIB_API SScopeTrace {
 public:
  SScopeTrace(char const* file, int line, char const* name,
              SLogger::tracelevel level = SLogger::tl_Scope);
  template <class... A>
  SScopeTrace(char const* file, int line, char const* name, SLogger::tracelevel level,
              A const&... args)
      : SScopeTrace(file, line, name, level, Deferred{}) {
    if (!active_) return;
    STraceParameter const ps[] = {STraceParameter(args)...};
    enter(ps, static_cast<int>(sizeof...(A)));
  }
  virtual ~SScopeTrace();
  SScopeTrace(SScopeTrace const&) = delete;
  SScopeTrace& operator=(SScopeTrace const&) = delete;

  void SetResult(STraceParameter const& result);
  void SetError(STraceParameter const& error);
  // A named value shown on the exit line ("name=value").
  void SetVar(char const* name, STraceParameter const& value);
  bool IsActive() const { return active_; }

 protected:
  struct Deferred {};
  // Decides whether to trace; the entry line is left to the caller.
  SScopeTrace(char const* file, int line, char const* name, SLogger::tracelevel level, Deferred);
  void enter(STraceParameter const* args, int count);
  // Text added to the exit line by derived scopes.
  virtual std::string exitExtra() const { return std::string(); }
  void finish();

 private:
  char const* file_;
  int line_;
  std::string name_;
  SLogger::tracelevel level_;
  bool active_ = false;
  bool finished_ = false;
  int uncaught_ = 0;
  unsigned depth_ = 0;
  std::string result_;
  std::string error_;
  std::string vars_;
};

// A workflow step: traced at tl_Workflow; while it lasts the thread's
// "ActionID" context variable is `actionId` (when one is given).
class QUENLIB_API WorkflowScopeTrace : public SScopeTrace {
 public:
  WorkflowScopeTrace(char const* file, int line, char const* name, char const* actionId = nullptr);
  ~WorkflowScopeTrace() override;

 private:
  bool restore_ = false;
  std::string previous_;
};

// A measured scope: traced at tl_Instrument; the exit line carries the
// time spent, "elapsed=<microseconds>us".
class QUENLIB_API InstrumentScopeTrace : public SScopeTrace {
 public:
  InstrumentScopeTrace(char const* file, int line, char const* name);
  ~InstrumentScopeTrace() override;

 protected:
  std::string exitExtra() const override;

 private:
  std::chrono::steady_clock::time_point start_;
};

}  // namespace QuenLibA500
