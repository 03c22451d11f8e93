// trace.h (internal): trace macros for the library's sources, and the
// bridge between the SLogger front end and the output (spdlog, observers,
// logging plug-ins).
//
//   QL_TRACE(SLogger::tl_L, "connect(%1:%2) failed: %3", host, port, err);
//   QL_TRACE(SLogger::tl_M, "read %d bytes", n);
//
// The macros test ShouldTrace first, so no argument is converted and no
// text is built while the level is off.
#pragma once

#include <quenlib/slogger.h>
#include <quenlib/strace.h>

#include <string>
#include <string_view>
#include <vector>

#define QL_TRACE(level, ...)                                                     \
  do {                                                                           \
    if (::QuenLibA500::SLogger::ShouldTrace((level), __FILE__, __LINE__))        \
      ::QuenLibA500::STraceObj(__FILE__, __LINE__, (level))(__VA_ARGS__);        \
  } while (0)

#define QL_TRACE_WARNING(...) QL_TRACE(::QuenLibA500::SLogger::tl_Warning, __VA_ARGS__)
#define QL_TRACE_ERROR(...) QL_TRACE(::QuenLibA500::SLogger::tl_Error, __VA_ARGS__)

namespace QuenLibA500 {

class CParamLineArgs;

namespace tracing {

// Event classes of the output; the level table names them by index.
enum EventClass : int { ec_Warning = 0, ec_S = 1, ec_M = 2, ec_L = 3, ec_XL = 4, ec_Count = 5 };

// Special-handling codes of the level table.
inline constexpr int kSpecialNone = -1;
inline constexpr int kSpecialSdkRequest = 1;  // "SDKREQ\t" lines, needs sdkTrace
inline constexpr int kSpecialRequest = 2;     // "REQUEST\t" lines, needs reqTrace

// One row per trace level: the level, its event class (or -1), its
// special-handling code (or -1), its scope selector (or -1: 0 scope,
// 1 workflow, 2 instrument, 3 developer) and the legacy flag (older
// level names; also set on the terminating row).
struct LevelRow {
  int level;
  int eventClass;
  int special;
  int selector;
  int flag;
};

inline constexpr LevelRow kLevelTable[SLogger::kLevelCount] = {
    {0, 2, -1, -1, 0},  {1, 3, -1, -1, 1},  {2, 2, 1, -1, 0},   {3, 1, -1, -1, 1},
    {4, 0, -1, -1, 0},  {5, 1, -1, -1, 0},  {6, 2, -1, -1, 0},  {7, 3, -1, -1, 0},
    {8, 4, -1, -1, 0},  {9, 3, 2, -1, 0},   {10, 4, 2, -1, 0},  {11, -1, 2, -1, 0},
    {12, 2, -1, -1, 0}, {13, -1, -1, -1, 0}, {14, 0, -1, -1, 0}, {15, -1, -1, 0, 0},
    {16, -1, -1, 1, 0}, {17, -1, -1, 2, 0},  {18, -1, -1, 3, 0}, {19, -1, -1, -1, 1}};

// Checks a level table: every row's level equals its position, and the
// last row is the terminator (tl_Last, no class, no special handling, no
// selector, flagged). Returns one message per fault.
inline std::vector<std::string> ValidateMapping(LevelRow const* rows, int count) {
  std::vector<std::string> faults;
  for (int i = 0; i < count; ++i) {
    if (rows[i].level != i)
      faults.push_back("ValidateMapping: Loomtrace mapping is out of sync index " + std::to_string(i));
  }
  if (count <= 0) return faults;
  LevelRow const& last = rows[count - 1];
  bool const terminated = last.level == SLogger::tl_Last && last.eventClass == -1 &&
                          last.special == -1 && last.selector == -1 && last.flag == 1;
  if (!terminated)
    faults.push_back("ValidateMapping: Loomtrace mapping was incorrectly terminated - found level" +
                     std::to_string(last.level) + " had trace_level" + std::to_string(last.eventClass));
  return faults;
}

// The name of a level as the "trace" grammar and quen show it ("L", ...).
char const* LevelName(int level);
// The label of a level's lines in the log ("M", "Warning", "Scope", ...).
char const* LevelLabel(int level);

// UTF-16 to UTF-8; unpaired surrogates become U+FFFD.
std::string Utf16ToUtf8(WChar const* s);

// "src/text/sstring.cpp" -> "sstring" (no allocation).
std::string_view SourceName(char const* file);

// The bridge: everything below is process-wide and thread-safe.
class TraceBridge {
 public:
  static bool Initialize(CParamLineArgs const& args, bool readEnvironment);
  static void Terminate();
  static bool IsInitialized();

  static bool ShouldTraceSlow(int level, char const* file, int line);
  // Sends a line; the caller has checked ShouldTrace.
  static void Trace(int level, std::string_view text, char const* file, int line, unsigned depth);
  // An intercepted call ("Outgoing:"/"Incoming:"), traced when "request" is on.
  static void TraceIntercept(std::string_view text);
  // A message of the bridge itself (bad options, verbose state): always
  // delivered, as a Warning line (or an "Info" line when `info`).
  static void Diagnostic(std::string const& message, bool info = false);
  static void Assert(char const* file, int line, char const* condition, char const* message);
  // Before Initialize (and after Terminate): straight to stderr and observer.
  static void UnloadedAssert(char const* file, int line, char const* condition, char const* message);

  static void SetAssertEnabled(bool enabled);
  static void SetAssertObserver(AssertObserverFn fn, void* ctx);
  static void SetTraceObserver(TraceObserverFn fn, void* ctx);

  static std::string CmdLine();
  static std::string LogFile();
  static uint32_t MajorTick();
  static bool CanStackDump();
  static bool IsNativeAssert();
  static std::string Describe(CParamLineArgs const& args, bool readEnvironment);
  static std::vector<std::string> PluginNames();
  static std::string PluginParam(char const* plugin, char const* name);
  static std::vector<std::string> PluginParamNames(char const* plugin);
};

}  // namespace tracing
}  // namespace QuenLibA500
