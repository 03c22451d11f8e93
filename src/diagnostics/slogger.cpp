// slogger.cpp: the SLogger front end.
//
// The front end owns what belongs to the calling thread (context
// variables, the stacks of intercepted calls) and hands everything that
// reaches the output to the bridge (loomtrace_logger.cpp).
#include <quenlib/paramlineargs.h>
#include <quenlib/slogger.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "diagnostics/trace.h"

namespace QuenLibA500 {
namespace {

using tracing::TraceBridge;
using Clock = std::chrono::steady_clock;

constexpr char const* kActionId = "ActionID";
constexpr char const* kCmdLine = "CmdLine";

struct OutgoingCall {
  std::string name;
  Clock::time_point start;
};

struct IncomingCall {
  std::string name;
  bool hadActionId;
  std::string previousActionId;
  bool hasPassport;
  Clock::time_point start;
};

struct ThreadContext {
  std::map<std::string, std::string> vars;
  std::vector<OutgoingCall> outgoing;
  std::vector<IncomingCall> incoming;
};

ThreadContext& context() {
  thread_local ThreadContext ctx;
  return ctx;
}

// A new passport: process id and a process-wide counter, "pid-n".
std::string newPassport() {
  static std::atomic<uint32_t> counter{0};
  return std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1) + 1);
}

long long microsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

char const* logLevelName(SLogger::loglevel level) {
  switch (level) {
    case SLogger::ll_Error: return "error";
    case SLogger::ll_Warning: return "warning";
    case SLogger::ll_Info: return "info";
    case SLogger::ll_Debug: return "debug";
  }
  return "unknown";
}

char const* logCategoryName(SLogger::logcategory category) {
  switch (category) {
    case SLogger::lc_General: return "general";
    case SLogger::lc_Security: return "security";
    case SLogger::lc_Audit: return "audit";
    case SLogger::lc_Performance: return "performance";
    case SLogger::lc_Request: return "request";
  }
  return "unknown";
}

SLogger::tracelevel traceLevelOf(SLogger::loglevel level) {
  switch (level) {
    case SLogger::ll_Error: return SLogger::tl_Error;
    case SLogger::ll_Warning: return SLogger::tl_Warning;
    case SLogger::ll_Info: return SLogger::tl_Info;
    case SLogger::ll_Debug: return SLogger::tl_L;
  }
  return SLogger::tl_Info;
}

}  // namespace

// ---------------------------------------------------------------- observers

void SetAssertObserver(AssertObserverFn fn, void* ctx) { TraceBridge::SetAssertObserver(fn, ctx); }
void SetTraceObserver(TraceObserverFn fn, void* ctx) { TraceBridge::SetTraceObserver(fn, ctx); }

// ----------------------------------------------------------------- lifecycle

bool SLogger::Initialize() { return Initialize(CParamLineArgs::FromCurrentProcess(), true); }
bool SLogger::Initialize(CParamLineArgs const& args) { return Initialize(args, true); }
bool SLogger::Initialize(CParamLineArgs const& args, bool readEnvironment) {
  return TraceBridge::Initialize(args, readEnvironment);
}
void SLogger::Terminate() { TraceBridge::Terminate(); }
bool SLogger::IsInitialized() { return TraceBridge::IsInitialized(); }

SInstrumentationInitialize::SInstrumentationInitialize(CParamLineArgs const& args)
    : ok_(SLogger::Initialize(args)) {}
SInstrumentationInitialize::~SInstrumentationInitialize() { SLogger::Terminate(); }

// ------------------------------------------------------------ trace, assert

bool SLogger::ShouldTraceSlow(int level, char const* file, int line) {
  return TraceBridge::ShouldTraceSlow(level, file, line);
}

bool ShouldTrace_slowpath(SLogger::tracelevel level, char const* file, int line) {
  return TraceBridge::ShouldTraceSlow(level, file, line);
}

void SLogger::SetAssertEnabled(bool enabled) { TraceBridge::SetAssertEnabled(enabled); }

bool ShouldAssert() { return SLogger::ShouldAssert(); }

void SLogger::Trace(tracelevel level, char const* text, char const* file, int line, unsigned int depth) {
  TraceBridge::Trace(level, text ? std::string_view(text) : std::string_view(), file, line, depth);
}

void SLogger::Log(loglevel level, logcategory category, DWORD id, SIArray<std::string> const& args) {
  tracelevel const tl = traceLevelOf(level);
  if (!ShouldTrace(tl, __FILE__, __LINE__)) return;
  std::string text = std::string("Log: level=") + logLevelName(level) + " cat=" + logCategoryName(category) +
                     " msg=" + std::to_string(id);
  for (int i = 0; i < args.GetSize(); ++i) {
    text += i == 0 ? ": " : ", ";
    text += args[i];
  }
  TraceBridge::Trace(tl, text, __FILE__, __LINE__, 0);
}

void SAssert(char const* file, int line, char const* condition) {
  TraceBridge::Assert(file, line, condition, nullptr);
}

void SAssert(char const* file, int line, char const* condition, char const* message) {
  TraceBridge::Assert(file, line, condition, message);
}

void SAssert(char const* file, int line, char const* condition, WChar const* message) {
  std::string const text = tracing::Utf16ToUtf8(message);
  TraceBridge::Assert(file, line, condition, text.c_str());
}

// ------------------------------------------------------------------ context

void SLogger::SetContextVar(char const* name, char const* value) {
  if (name == nullptr) return;
  if (value == nullptr) {
    context().vars.erase(name);
    return;
  }
  context().vars[name] = value;
}

std::string SLogger::ContextVar(char const* name) {
  if (name == nullptr) return std::string();
  auto const& vars = context().vars;
  auto it = vars.find(name);
  if (it != vars.end()) return it->second;
  if (std::string_view(name) == kCmdLine) return TraceBridge::CmdLine();
  return std::string();
}

bool SLogger::HasLogContext() { return !context().vars.empty(); }

bool SLogger::HasPassport() {
  auto const& in = context().incoming;
  return !in.empty() && in.back().hasPassport;
}

std::string SLogger::LogFile() { return TraceBridge::LogFile(); }
DWORD SLogger::GetMajorTick() { return TraceBridge::MajorTick(); }
bool SLogger::CanStackDump() { return TraceBridge::CanStackDump(); }
bool SLogger::IsNativeAssert() { return TraceBridge::IsNativeAssert(); }

std::string SLogger::DescribeState(CParamLineArgs const& args, bool readEnvironment) {
  return TraceBridge::Describe(args, readEnvironment);
}

SIArray<std::string> SLogger::PluginNames() {
  SIArray<std::string> out;
  for (std::string& n : TraceBridge::PluginNames()) out.Add(std::move(n));
  return out;
}

SIArray<std::string> SLogger::PluginParamNames(char const* plugin) {
  SIArray<std::string> out;
  for (std::string& n : TraceBridge::PluginParamNames(plugin ? plugin : "")) out.Add(std::move(n));
  return out;
}

std::string SLogger::PluginParam(char const* plugin, char const* name) {
  return TraceBridge::PluginParam(plugin ? plugin : "", name ? name : "");
}

// ------------------------------------------------------ call interception
//
// The std::string forms below carry the logic; the SAnsiString members of
// SLogger forward to them.

namespace interception {

std::string beforeOutgoing(std::string const& call) {
  ThreadContext& ctx = context();
  auto it = ctx.vars.find(kActionId);
  std::string passport = it != ctx.vars.end() && !it->second.empty() ? it->second : newPassport();
  ctx.outgoing.push_back({call, Clock::now()});
  TraceBridge::TraceIntercept("Outgoing: " + call + " passport=" + passport);
  return passport;
}

void afterOutgoing(std::string const* response) {
  ThreadContext& ctx = context();
  if (ctx.outgoing.empty()) {
    QL_TRACE(SLogger::tl_Warning, "AfterOutgoingCall without BeforeOutgoingCall");
    return;
  }
  OutgoingCall const call = ctx.outgoing.back();
  ctx.outgoing.pop_back();
  std::string text = "Outgoing: " + call.name + " " + (response ? "returned" : "no response") + " after " +
                     std::to_string(microsSince(call.start)) + "us";
  if (response != nullptr && !response->empty()) text += ": " + *response;
  TraceBridge::TraceIntercept(text);
}

void beforeIncoming(std::string const& call, std::string const& passport) {
  ThreadContext& ctx = context();
  auto it = ctx.vars.find(kActionId);
  bool const had = it != ctx.vars.end();
  ctx.incoming.push_back({call, had, had ? it->second : std::string(), !passport.empty(), Clock::now()});
  std::string const action = passport.empty() ? newPassport() : passport;
  ctx.vars[kActionId] = action;
  TraceBridge::TraceIntercept("Incoming: " + call + " passport=" + action);
}

std::string afterIncoming() {
  ThreadContext& ctx = context();
  if (ctx.incoming.empty()) {
    QL_TRACE(SLogger::tl_Warning, "AfterIncomingCall without BeforeIncomingCall");
    return std::string();
  }
  IncomingCall const call = ctx.incoming.back();
  ctx.incoming.pop_back();
  std::string const passport = ctx.vars[kActionId];
  if (call.hadActionId) ctx.vars[kActionId] = call.previousActionId;
  else ctx.vars.erase(kActionId);
  TraceBridge::TraceIntercept("Incoming: " + call.name + " done after " + std::to_string(microsSince(call.start)) +
                              "us");
  return passport;
}

}  // namespace interception

namespace {

SAnsiString ansi(std::string const& s) { return SAnsiString(s.data(), static_cast<unsigned>(s.size())); }
std::string plain(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

}  // namespace

void SLogger::Trace(tracelevel level, SAnsiString const& text, char const* file, int line, unsigned int depth) {
  TraceBridge::Trace(level, std::string_view(text.getString(), text.getLength()), file, line, depth);
}

void SLogger::Log(loglevel level, logcategory category, DWORD id, SIArray<SAnsiString> const& args) {
  if (!ShouldTrace(traceLevelOf(level), __FILE__, __LINE__)) return;
  SIArray<std::string> list;
  for (SAnsiString const& a : args) list.Add(plain(a));
  Log(level, category, id, list);
}

void SLogger::BeforeOutgoingCall(SAnsiString const& call, SAnsiString& passport) {
  passport = ansi(interception::beforeOutgoing(plain(call)));
}

void SLogger::AfterOutgoingCall(SAnsiString const& response) {
  std::string const r = plain(response);
  interception::afterOutgoing(&r);
}

void SLogger::AfterOutgoingCallNoResponse() { interception::afterOutgoing(nullptr); }

void SLogger::BeforeIncomingCall(SAnsiString const& call, SAnsiString const& passport) {
  interception::beforeIncoming(plain(call), plain(passport));
}

void SLogger::AfterIncomingCall(SAnsiString& passport) { passport = ansi(interception::afterIncoming()); }

void SLogger::SetContextVar(char const* name, SAnsiString const& value) {
  SetContextVar(name, plain(value).c_str());
}

SAnsiString SLogger::GetContextVar(char const* name) { return ansi(ContextVar(name)); }
SAnsiString SLogger::GetActionID() { return ansi(ContextVar(kActionId)); }
SAnsiString SLogger::GetCmdLine() { return ansi(ContextVar(kCmdLine)); }
SAnsiString SLogger::GetLogFile() { return ansi(TraceBridge::LogFile()); }

}  // namespace QuenLibA500
