// slogger.h: the library's one channel for traces, logs and assertions.
//
// A process initializes the logger once from its command line and
// terminates it on the way out (SInstrumentationInitialize does both):
//
//   int main(int argc, char** argv) {
//     QuenLibA500::CParamLineArgs args(argc, argv);
//     QuenLibA500::SInstrumentationInitialize tracing(args);  // -trace l -logFile ...
//     ...
//   }
//
// Code asks the cheap should-trace test before it builds any text, then
// hands the text over:
//
//   if (SLogger::ShouldTrace(SLogger::tl_L, __FILE__, __LINE__))
//     SLogger::Trace(SLogger::tl_L, "connected to " + host, __FILE__, __LINE__);
//
// (STraceObj in <quenlib/strace.h> does both with "%1" / "%s" formats.)
// Assertions never stop the program:
//
//   if (SLogger::ShouldAssert()) SAssert(__FILE__, __LINE__, "p != 0", "no peer");
//
// Embedders and tests can observe everything reported without parsing logs:
//
//   void onAssert(void* ctx, char const* file, int line,
//                 char const* cond, char const* msg) { ... }
//   QuenLibA500::SetAssertObserver(&onAssert, nullptr);
//   QuenLibA500::SetAssertObserver(nullptr, nullptr);  // removes it
//
// `file` given to an observer is the source name without directory or
// extension ("sstring", not "src/sstring.cpp"). The trace observer sees
// every line that passes ShouldTrace, with its final text (prefixes such as
// "REQUEST\t" included).
//
// Trace levels, the "trace" option's grammar, the settings file watched by
// the "TraceStateUpdater" thread and the other options are described in
// docs/tracing.md.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace QuenLibA500 {

class CParamLineArgs;

using AssertObserverFn = void (*)(void* ctx, char const* file, int line,
                                  char const* condition, char const* message);
using TraceObserverFn = void (*)(void* ctx, int level, char const* file,
                                 int line, char const* text);

// Installs (or with a null fn, removes) the process-wide assertion observer.
QUENLIB_API void SetAssertObserver(AssertObserverFn fn, void* ctx);
// Installs (or with a null fn, removes) the process-wide trace observer.
QUENLIB_API void SetTraceObserver(TraceObserverFn fn, void* ctx);

namespace detail {
// The cached trace state: bit n is set when level n may trace; the high
// bits are flags below. Written only by the logger, read by every thread.
QUENLIB_API extern std::atomic<uint32_t> gTraceState;
inline constexpr uint32_t kStateSlowPath = 1u << 30;   // a file/line filter is set
inline constexpr uint32_t kStateIntercept = 1u << 29;  // call interception traced
inline constexpr uint32_t kStateAssert = 1u << 28;     // assertions reported
}  // namespace detail

class QUENLIB_API SLogger {
 public:
  // Trace levels, in the order of the level table (docs/tracing.md).
  enum tracelevel : int32_t {
    tl_Default = 0,      // M-class line
    tl_Detail = 1,       // L-class line (older name)
    tl_SdkRequest = 2,   // "SDKREQ\t" line, M class, needs sdkTrace
    tl_Summary = 3,      // S-class line (older name)
    tl_Warning = 4,      // Warning class
    tl_S = 5,
    tl_M = 6,
    tl_L = 7,
    tl_XL = 8,
    tl_RequestL = 9,     // "REQUEST\t" line, L class, needs reqTrace
    tl_RequestXL = 10,   // "REQUEST\t" line, XL class, needs reqTrace
    tl_Request = 11,     // "REQUEST\t" line, needs reqTrace only
    tl_Info = 12,        // M-class line
    tl_Never = 13,       // never traced
    tl_Error = 14,       // Warning class
    tl_Scope = 15,       // scope entry/exit lines
    tl_Workflow = 16,    // workflow scope lines
    tl_Instrument = 17,  // instrumentation scope lines (with timings)
    tl_Developer = 18,   // developer scope lines
    tl_Last = 19         // end of the table; not a level
  };
  static constexpr int kLevelCount = 20;

  enum loglevel : int32_t { ll_Error = 0, ll_Warning = 1, ll_Info = 2, ll_Debug = 3 };
  enum logcategory : int32_t {
    lc_General = 0,
    lc_Security = 1,
    lc_Audit = 2,
    lc_Performance = 3,
    lc_Request = 4
  };

  // Initializes from the process's own command line and the environment.
  static bool Initialize();
  // Initializes from `args`, then applies TQE_LOGGER_ENVIRONMENT.
  static bool Initialize(CParamLineArgs const& args);
  // As above; `readEnvironment` false ignores TQE_LOGGER_ENVIRONMENT.
  // Initializing again replaces the previous state. Returns false when an
  // option was rejected (each rejection is reported as a Warning line).
  static bool Initialize(CParamLineArgs const& args, bool readEnvironment);
  // Flushes and closes the log, stops the updater, unloads plug-ins, and
  // returns to the default state (Warning and Error lines to stderr).
  static void Terminate();
  static bool IsInitialized();

  // The fast should-trace test: one relaxed atomic load when the level is
  // off. `line` 0 means "any line" for the file/line filter.
  static bool ShouldTrace(int level, char const* file) { return ShouldTrace(level, file, 0); }
  static bool ShouldTrace(int level, char const* file, int line) {
    uint32_t const s = detail::gTraceState.load(std::memory_order_relaxed);
    if (static_cast<unsigned>(level) < static_cast<unsigned>(kLevelCount)) {
      // Laid out for the common case, a level that is off.
      if (__builtin_expect((s & (1u << level)) == 0, 1)) return false;
      if ((s & detail::kStateSlowPath) == 0) return true;
    }
    return ShouldTraceSlow(level, file, line);
  }
  // The part of ShouldTrace that is not decided by the cached state.
  static bool ShouldTraceSlow(int level, char const* file, int line);
  // True when assertions are reported (the default; "noassert" turns it off).
  static bool ShouldAssert() {
    return (detail::gTraceState.load(std::memory_order_relaxed) & detail::kStateAssert) != 0;
  }
  // Switches assertion reporting on or off for the whole process.
  static void SetAssertEnabled(bool enabled);

  // Sends one line at `level` (re-checks ShouldTrace). `depth` indents the
  // text by two blanks per step (scope traces pass their nesting depth).
  static void Trace(tracelevel level, SAnsiString const& text, char const* file, int line,
                    unsigned int depth = 0);
  static void Trace(tracelevel level, char const* text, char const* file, int line,
                    unsigned int depth = 0);
  // A structured record: "Log: level=<level> cat=<category> msg=<id>: a, b".
  static void Log(loglevel level, logcategory category, DWORD id, SIArray<SAnsiString> const& args);
  static void Log(loglevel level, logcategory category, DWORD id, SIArray<std::string> const& args);

  // Call interception for request tracing ("request on"). Outgoing: the
  // passport to send along is returned (the thread's ActionID, or a new
  // one). Incoming: the caller's passport becomes the thread's ActionID
  // until AfterIncomingCall, which hands it back.
  static void BeforeOutgoingCall(SAnsiString const& call, SAnsiString& passport);
  static void AfterOutgoingCall(SAnsiString const& response);
  static void AfterOutgoingCallNoResponse();
  static void BeforeIncomingCall(SAnsiString const& call, SAnsiString const& passport);
  static void AfterIncomingCall(SAnsiString& passport);

  // Context variables of the calling thread ("ActionID", ...). "CmdLine"
  // is process-wide: the command line given to Initialize.
  static void SetContextVar(char const* name, SAnsiString const& value);
  static void SetContextVar(char const* name, char const* value);
  static SAnsiString GetContextVar(char const* name);
  static std::string ContextVar(char const* name);
  static SAnsiString GetActionID();
  static bool HasLogContext();
  static bool HasPassport();

  static SAnsiString GetCmdLine();
  // The log file in use; empty while lines go to standard error.
  static SAnsiString GetLogFile();
  static std::string LogFile();
  // Counts changes of the trace state (Initialize, Terminate, every change
  // picked up from the settings file).
  static DWORD GetMajorTick();
  static bool CanStackDump();
  static bool IsNativeAssert();

  // What a process started with `args` would trace, and where, without
  // touching the running state: one "name: value" line per setting, the
  // levels, and any rejection messages.
  static std::string DescribeState(CParamLineArgs const& args, bool readEnvironment = true);
  // Names of the logging plug-ins loaded, and a plug-in parameter.
  static SIArray<std::string> PluginNames();
  static std::string PluginParam(char const* plugin, char const* name);
  // The parameter names a loaded plug-in offers.
  static SIArray<std::string> PluginParamNames(char const* plugin);
};

// Initializes the logger on construction, terminates it on destruction.
class QUENLIB_API SInstrumentationInitialize {
 public:
  explicit SInstrumentationInitialize(CParamLineArgs const& args);
  ~SInstrumentationInitialize();
  SInstrumentationInitialize(SInstrumentationInitialize const&) = delete;
  SInstrumentationInitialize& operator=(SInstrumentationInitialize const&) = delete;
  bool Succeeded() const { return ok_; }

 private:
  bool ok_;
};

QUENLIB_API bool ShouldAssert();
// The slow part of ShouldTrace: the level table, the event classes and the
// file/line filter. Reports invalid levels.
QUENLIB_API bool ShouldTrace_slowpath(SLogger::tracelevel level, char const* file, int line);

// Reports an assertion: source file (any path; directory and extension are
// dropped), line, the condition's text and an optional message. Returns.
QUENLIB_API void SAssert(char const* file, int line, char const* condition);
QUENLIB_API void SAssert(char const* file, int line, char const* condition,
                         char const* message);
QUENLIB_API void SAssert(char const* file, int line, char const* condition,
                         WChar const* message);
// A null message literal: the same as no message.
inline void SAssert(char const* file, int line, char const* condition, std::nullptr_t) {
  SAssert(file, line, condition);
}

// A structured record from loose values: SLog(ll_Info, lc_Audit, 42, "a", "b").
template <class... Args>
void SLog(SLogger::loglevel level, SLogger::logcategory category, DWORD id, Args const&... args) {
  SIArray<std::string> list;
  (list.Add(std::string(args)), ...);
  SLogger::Log(level, category, id, list);
}

}  // namespace QuenLibA500
