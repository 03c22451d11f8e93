// loomtrace_logger.cpp: the trace bridge.
//
// The bridge turns the logger's options into a trace configuration, keeps
// the cached state word (detail::gTraceState) that ShouldTrace reads, and
// delivers lines to the observers, to spdlog (standard error or a
// size-rotated file) and to logging plug-ins.
//
// Invariants:
//  - gTraceState is written only under Bridge::lock (exclusive), and always
//    as a whole word computed from Bridge::active by publish().
//  - Bridge::logger is never null; lines are written under the shared lock,
//    so Terminate (exclusive) never closes a file under a writer.
//  - Diagnostics produced while the exclusive lock is held are collected
//    and delivered after it is released (delivery takes the shared lock).
#include "diagnostics/trace.h"

#include <quenlib/logplugin.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/sstackwalk.h>

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <sys/stat.h>

#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <charconv>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <sstream>
#include <thread>

namespace QuenLibA500 {

namespace detail {
// Before Initialize: Warning and Error lines, assertions reported.
std::atomic<uint32_t> gTraceState{(1u << SLogger::tl_Warning) | (1u << SLogger::tl_Error) |
                                  kStateAssert};
}  // namespace detail

namespace tracing {
namespace {

namespace fs = std::filesystem;

constexpr char const* kInitContext = "TraceBridge::Initialize: ";
constexpr char const* kSettingsFileName = "trace.ini";
constexpr std::chrono::milliseconds kUpdatePeriod{1000};
constexpr uint64_t kDefaultMaxLogFileSize = 10u * 1024u * 1024u;
constexpr int kDefaultKeep = 5;

char const* const kLevelNames[SLogger::kLevelCount] = {
    "default", "detail",   "sdkrequest", "summary",    "warning",   "s",     "m",
    "l",       "xl",       "requestl",   "requestxl",  "request",   "info",  "never",
    "error",   "scope",    "workflow",   "instrument", "developer", "last"};
char const* const kClassLabels[ec_Count] = {"Warning", "S", "M", "L", "XL"};
char const* const kSelectorLabels[4] = {"Scope", "Workflow", "Instrument", "Developer"};
char const* const kSelectorWords[4] = {"scope", "workflow", "instrument", "dev"};

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string trim(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return std::string(s.substr(b, e - b));
}

std::vector<std::string> split(std::string_view s, char const* seps) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t i = 0; i <= s.size(); ++i) {
    if (i == s.size() || std::strchr(seps, s[i]) != nullptr) {
      out.push_back(trim(s.substr(start, i - start)));
      start = i + 1;
    }
  }
  return out;
}

bool parseUnsigned(std::string const& s, uint64_t& out) {
  if (s.empty() || s.size() > 19) return false;
  uint64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  out = v;
  return true;
}

// ---------------------------------------------------------------- config

// One entry of the file/line filter: lines [from, to] of a source name.
struct FileRule {
  std::string name;  // lower case, no directory or extension
  int from = 0;
  int to = INT_MAX;
};

struct TraceConfig {
  int threshold = 0;          // highest size class traced: 0 none, ec_S..ec_XL
  bool warnings = true;       // the Warning class (warnings and errors)
  uint32_t selectors = 0;     // scope selectors, bit per selector
  uint32_t singleLevels = 0;  // levels switched on by number
  bool sdkTrace = false;
  bool reqTrace = false;
  bool intercept = false;  // "request": call interception lines
  bool never = false;
  bool asserts = true;
  std::vector<FileRule> filter;

  std::string logFile;
  uint64_t maxLogFileSize = kDefaultMaxLogFileSize;
  int keep = kDefaultKeep;
  bool alwaysClose = false;
  bool verbose = false;
  bool traceCmpName = false;
  bool traceIni = true;
  bool traceThread = true;
  std::string traceIniPath;
  std::string pluginDir;
  bool nativeAssert = false;
  bool stackDump = false;
};

bool classOn(TraceConfig const& c, int cls) {
  if (cls == ec_Warning) return c.warnings;
  return cls <= c.threshold;
}

bool rowOn(TraceConfig const& c, LevelRow const& row) {
  if (row.eventClass < 0 && row.special < 0 && row.selector < 0) return false;
  if (row.special == kSpecialSdkRequest && !c.sdkTrace) return false;
  if (row.special == kSpecialRequest && !c.reqTrace) return false;
  if (row.selector >= 0 && (c.selectors & (1u << row.selector)) == 0) return false;
  if (row.eventClass >= 0 && !classOn(c, row.eventClass)) return false;
  return true;
}

uint32_t levelMask(TraceConfig const& c) {
  if (c.never) return 0;
  uint32_t mask = c.singleLevels;
  for (LevelRow const& row : kLevelTable) {
    if (rowOn(c, row)) mask |= 1u << row.level;
  }
  return mask & ~((1u << SLogger::tl_Never) | (1u << SLogger::tl_Last));
}

uint32_t stateWord(TraceConfig const& c) {
  uint32_t s = levelMask(c);
  if (!c.filter.empty()) s |= detail::kStateSlowPath;
  if (c.intercept && !c.never) s |= detail::kStateIntercept;
  if (c.asserts) s |= detail::kStateAssert;
  return s;
}

// Reports rejected options; `context` starts every message.
struct Reporter {
  explicit Reporter(std::string c) : context(std::move(c)) {}
  std::string context;
  std::vector<std::string> messages;

  void invalid(std::string const& option, std::string const& value, char const* suffix = "") {
    messages.push_back(context + "Invalid argument '" + value + "' provided to -" + option + suffix);
  }
  void empty(std::string const& option) {
    messages.push_back(context + "Empty argument passed to -" + option);
  }
  void withdrawn(std::string const& option) {
    messages.push_back(context + "-" + option + " argument is no longer accepted.");
  }
  void note(std::string const& text) { messages.push_back(context + text); }
};

// The "trace" grammar (docs/tracing.md): words separated by ',', '+' or
// blanks, applied left to right to an empty state.
bool parseTraceValue(std::string const& value, TraceConfig& c) {
  TraceConfig t = c;
  t.threshold = 0;
  t.warnings = false;
  t.selectors = 0;
  t.singleLevels = 0;
  for (std::string const& raw : split(value, ",+ \t")) {
    std::string const w = lower(raw);
    if (w.empty()) continue;
    if (w == "off" || w == "none") {
      t.threshold = 0;
      t.warnings = false;
      t.selectors = 0;
      t.singleLevels = 0;
    } else if (w == "w" || w == "warning" || w == "warnings") {
      t.warnings = true;
    } else if (w == "s" || w == "m" || w == "l" || w == "xl") {
      int const cls = w == "s" ? ec_S : w == "m" ? ec_M : w == "l" ? ec_L : ec_XL;
      t.threshold = std::max(t.threshold, cls);
      t.warnings = true;
    } else if (w == "all") {
      t.threshold = ec_XL;
      t.warnings = true;
      t.selectors = 0xF;
      t.sdkTrace = t.reqTrace = true;
    } else if (w == "req") {
      t.reqTrace = true;
    } else if (w == "sdk") {
      t.sdkTrace = true;
    } else {
      auto sel = std::find_if(std::begin(kSelectorWords), std::end(kSelectorWords),
                              [&](char const* s) { return w == s; });
      if (sel != std::end(kSelectorWords)) {
        t.selectors |= 1u << (sel - std::begin(kSelectorWords));
        continue;
      }
      uint64_t n = 0;
      if (!parseUnsigned(w, n) || n >= SLogger::tl_Last || n == SLogger::tl_Never) return false;
      t.singleLevels |= 1u << n;
    }
  }
  c = t;
  return true;
}

// "sstring,csisocket:100-200,oburl.cpp:7" -> rules.
bool parseFilter(std::string const& value, std::vector<FileRule>& out) {
  std::vector<FileRule> rules;
  for (std::string const& entry : split(value, ",")) {
    if (entry.empty()) return false;
    FileRule r;
    std::string name = entry;
    size_t const colon = entry.find(':');
    if (colon != std::string::npos) {
      name = trim(entry.substr(0, colon));
      std::string const range = trim(entry.substr(colon + 1));
      size_t const dash = range.find('-');
      uint64_t a = 0, b = 0;
      if (dash == std::string::npos) {
        if (!parseUnsigned(range, a)) return false;
        b = a;
      } else if (!parseUnsigned(trim(range.substr(0, dash)), a) ||
                 !parseUnsigned(trim(range.substr(dash + 1)), b)) {
        return false;
      }
      if (a > INT_MAX || b > INT_MAX || a > b) return false;
      r.from = static_cast<int>(a);
      r.to = static_cast<int>(b);
    }
    r.name = lower(SourceName(name.c_str()));
    if (r.name.empty()) return false;
    rules.push_back(std::move(r));
  }
  out = std::move(rules);
  return true;
}

std::string printFilter(std::vector<FileRule> const& rules) {
  std::string out;
  for (FileRule const& r : rules) {
    if (!out.empty()) out += ',';
    out += r.name;
    if (r.from == 0 && r.to == INT_MAX) continue;
    out += ':' + std::to_string(r.from);
    if (r.to != r.from) out += '-' + std::to_string(r.to);
  }
  return out;
}

bool filterMatches(std::vector<FileRule> const& rules, char const* file, int line) {
  std::string_view const src = SourceName(file);
  for (FileRule const& r : rules) {
    if (r.name.size() != src.size()) continue;
    bool same = true;
    for (size_t i = 0; i < src.size() && same; ++i)
      same = std::tolower(static_cast<unsigned char>(src[i])) == r.name[i];
    if (!same) continue;
    if (line == 0 || (line >= r.from && line <= r.to)) return true;
  }
  return false;
}

bool parseOnOff(std::string const& value, bool& out) {
  std::string const v = lower(value);
  if (v.empty() || v == "on") {
    out = true;
    return true;
  }
  if (v == "off") {
    out = false;
    return true;
  }
  return false;
}

// Applies one option; options the bridge does not know are ignored (they
// belong to the program). `fromFile` limits the names to those the
// settings file may change.
void applyOption(std::string const& rawName, std::string const& value, TraceConfig& c, Reporter& r,
                 bool fromFile) {
  std::string const name = lower(rawName);
  auto needValue = [&]() {
    if (!value.empty()) return true;
    r.empty(rawName);
    return false;
  };
  auto onOff = [&](bool& target) {
    if (!parseOnOff(value, target)) r.invalid(rawName, value, " - must be 'on' or 'off'");
  };
  if (name == "trace") {
    if (needValue() && !parseTraceValue(value, c)) r.invalid(rawName, value);
  } else if (name == "filelogfilter") {
    if (needValue() && !parseFilter(value, c.filter))
      r.invalid(rawName, value, " - comma delimited list of filenames required");
  } else if (name == "sdktrace") {
    onOff(c.sdkTrace);
  } else if (name == "reqtrace") {
    onOff(c.reqTrace);
  } else if (name == "request") {
    onOff(c.intercept);
  } else if (fromFile && name == "assert") {
    onOff(c.asserts);
  } else if (fromFile) {
    r.note("unknown setting '" + rawName + "'");
  } else if (name == "warningtrace") {
    r.note("Deprecated option -warningTrace used: use -trace w instead");
    c.warnings = true;
  } else if (name == "logfile") {
    if (needValue()) c.logFile = value;
  } else if (name == "maxlogfilesize" || name == "keep") {
    uint64_t n = 0;
    if (!needValue()) return;
    if (!parseUnsigned(value, n) || (name == "keep" && n > 100000)) {
      r.invalid(rawName, value, " - must be an integer");
      return;
    }
    if (name == "keep") c.keep = static_cast<int>(n);
    else c.maxLogFileSize = n;
  } else if (name == "verbose") {
    onOff(c.verbose);
  } else if (name == "alwaysclose") {
    onOff(c.alwaysClose);
  } else if (name == "tracecmpname") {
    onOff(c.traceCmpName);
  } else if (name == "noassert") {
    c.asserts = false;
  } else if (name == "notraceini") {
    c.traceIni = false;
  } else if (name == "notracethread") {
    c.traceThread = false;
  } else if (name == "nevertrace") {
    c.never = true;
  } else if (name == "traceinipath") {
    if (needValue()) c.traceIniPath = value;
  } else if (name == "loggingplugindir") {
    if (needValue()) c.pluginDir = value;
  } else if (name == "nativeassert") {
    c.nativeAssert = true;
  } else if (name == "nonativeassert") {
    c.nativeAssert = false;
  } else if (name == "stackdump") {
    c.stackDump = true;
  } else if (name == "tracelevel" || name == "tracefile") {
    r.withdrawn(rawName);
  }
}

CParamLineArgs withEnvironment(CParamLineArgs const& args, bool readEnvironment) {
  CParamLineArgs all = args;
  char const* env = readEnvironment ? std::getenv("TQE_LOGGER_ENVIRONMENT") : nullptr;
  if (env != nullptr && *env != '\0') all.Append(CParamLineArgs(env));
  return all;
}

TraceConfig parseOptions(CParamLineArgs const& args, Reporter& r) {
  TraceConfig c;
  for (auto const& [name, value] : args.Options()) applyOption(name, value, c, r, false);
  return c;
}

std::string programName() {
  return program_invocation_short_name ? program_invocation_short_name : "quenlib";
}

// The log file path: a directory (ending in '/' or existing) gets
// "<program>.log" inside it.
std::string resolveLogFile(std::string const& logFile) {
  if (logFile.empty()) return logFile;
  std::error_code ec;
  if (logFile.back() == '/' || fs::is_directory(logFile, ec))
    return (fs::path(logFile) / (programName() + ".log")).string();
  return logFile;
}

std::string settingsPath(TraceConfig const& c) {
  if (!c.traceIniPath.empty()) {
    std::error_code ec;
    if (fs::is_directory(c.traceIniPath, ec))
      return (fs::path(c.traceIniPath) / kSettingsFileName).string();
    return c.traceIniPath;
  }
  std::string const file = resolveLogFile(c.logFile);
  if (file.empty()) return std::string();
  return (fs::path(file).parent_path() / kSettingsFileName).string();
}

// Reads "key = value" lines; '#' and ';' start comments; [sections] are
// ignored. Returns false when the file cannot be read.
bool readSettingsFile(std::string const& path, std::vector<std::pair<std::string, std::string>>& out,
                      Reporter& r) {
  // Only a regular file of sane size: a device or FIFO named by mistake
  // must not block the updater.
  constexpr off_t kMaxSettingsFile = 1 << 20;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  if (!S_ISREG(st.st_mode) || st.st_size > kMaxSettingsFile) {
    r.note("not a settings file (a regular file of at most 1 MiB is expected)");
    return false;
  }
  if (st.st_size == 0) return true;
  std::ifstream in(path);
  if (!in) return false;
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    std::string const t = trim(line);
    if (t.empty() || t[0] == '#' || t[0] == ';' || t[0] == '[') continue;
    size_t const eq = t.find('=');
    if (eq == std::string::npos) {
      r.note("line " + std::to_string(number) + ": 'name = value' expected");
      continue;
    }
    out.emplace_back(trim(t.substr(0, eq)), trim(t.substr(eq + 1)));
  }
  return true;
}

// ----------------------------------------------------------------- sinks

// Opens, appends and closes the file for every line ("alwaysclose"), so
// that the file can be moved or truncated by others between lines. Rotates
// like spdlog's rotating sink (name.1.ext, name.2.ext, ...).
class CloseEachLineSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  CloseEachLineSink(std::string path, uint64_t maxSize, int keep)
      : path_(std::move(path)), maxSize_(maxSize), keep_(keep) {
    struct stat st;
    if (::stat(path_.c_str(), &st) == 0) size_ = static_cast<uint64_t>(st.st_size);
    FILE* f = std::fopen(path_.c_str(), "ab");
    if (f == nullptr) throw spdlog::spdlog_ex("cannot open " + path_, errno);
    std::fclose(f);
  }

 protected:
  void sink_it_(spdlog::details::log_msg const& msg) override {
    spdlog::memory_buf_t buf;
    formatter_->format(msg, buf);
    if (maxSize_ > 0 && size_ > 0 && size_ + buf.size() > maxSize_) rotate();
    FILE* f = std::fopen(path_.c_str(), "ab");
    if (f == nullptr) throw spdlog::spdlog_ex("cannot open " + path_, errno);
    size_t const written = std::fwrite(buf.data(), 1, buf.size(), f);
    std::fclose(f);
    size_ += written;
  }
  void flush_() override {}

 private:
  void rotate() {
    using RS = spdlog::sinks::rotating_file_sink_mt;
    std::error_code ec;
    if (keep_ == 0) {
      fs::resize_file(path_, 0, ec);
    }
    for (int i = keep_; i > 0; --i) {
      std::string const src = RS::calc_filename(path_, static_cast<size_t>(i - 1));
      if (!fs::exists(src, ec)) continue;
      std::string const dst = RS::calc_filename(path_, static_cast<size_t>(i));
      fs::rename(src, dst, ec);
    }
    size_ = 0;
  }

  std::string path_;
  uint64_t maxSize_;
  int keep_;
  uint64_t size_ = 0;
};

std::string linePattern(bool withComponent) {
  std::string p = "%Y-%m-%d %H:%M:%S.%e %t ";
  if (withComponent) {
    std::string name = programName();
    std::replace(name.begin(), name.end(), '%', '_');
    p += "[" + name + "] ";
  }
  return p + "%v";
}

std::shared_ptr<spdlog::logger> finishLogger(std::shared_ptr<spdlog::sinks::sink> sink, bool cmpName) {
  auto lg = std::make_shared<spdlog::logger>("quenlib", std::move(sink));
  lg->set_pattern(linePattern(cmpName));
  lg->set_level(spdlog::level::trace);
  lg->flush_on(spdlog::level::warn);
  lg->set_error_handler([](std::string const& m) { std::fprintf(stderr, "quenlib logger: %s\n", m.c_str()); });
  return lg;
}

std::shared_ptr<spdlog::logger> stderrLogger(bool cmpName = false) {
  return finishLogger(std::make_shared<spdlog::sinks::stderr_sink_mt>(), cmpName);
}

bool makeLogDirectory(std::string const& file, Reporter& r) {
  fs::path const dir = fs::path(file).parent_path();
  if (dir.empty()) return true;
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (fs::is_directory(dir, ec)) return true;
  r.messages.push_back(
      "The internal logger count not create the required directories\n"
      "The specified path is not accessible or does not exist:" +
      dir.string());
  return false;
}

// The logger for a configuration; falls back to stderr (with a message)
// when the file cannot be used. `file` receives the path in use.
std::shared_ptr<spdlog::logger> makeLogger(TraceConfig const& c, Reporter& r, std::string& file) {
  file = resolveLogFile(c.logFile);
  if (file.empty()) return stderrLogger(c.traceCmpName);
  if (!makeLogDirectory(file, r)) {
    file.clear();
    return stderrLogger(c.traceCmpName);
  }
  try {
    std::shared_ptr<spdlog::sinks::sink> sink;
    if (c.alwaysClose)
      sink = std::make_shared<CloseEachLineSink>(file, c.maxLogFileSize, c.keep);
    else if (c.maxLogFileSize == 0)
      sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(file);
    else
      sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file, c.maxLogFileSize,
                                                                      static_cast<size_t>(c.keep));
    return finishLogger(std::move(sink), c.traceCmpName);
  } catch (std::exception const& e) {
    r.note(std::string("cannot open the log file: ") + e.what());
    file.clear();
    return stderrLogger(c.traceCmpName);
  }
}

// ---------------------------------------------------------------- plug-ins

struct Plugin {
  std::string name;
  void* handle = nullptr;
  LogPluginInitializeFn initialize = nullptr;
  LogPluginTerminateFn terminate = nullptr;
  LogPluginTraceFn trace = nullptr;
  LogPluginGetParamFn getParam = nullptr;
  LogPluginGetParamListFn getParamList = nullptr;
  LogPluginFreeStringFn freeString = nullptr;
  LogPluginGetDLLVersionFn version = nullptr;
};

// Plug-in files of a directory: the system one first, then by name.
std::vector<std::string> pluginFiles(std::string const& dir) {
  std::vector<std::string> files;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::string const name = it->path().filename().string();
    size_t const pre = std::strlen(LOGPLUGIN_PREFIX), suf = std::strlen(LOGPLUGIN_SUFFIX);
    if (name.size() <= pre + suf || name.compare(0, pre, LOGPLUGIN_PREFIX) != 0 ||
        name.compare(name.size() - suf, suf, LOGPLUGIN_SUFFIX) != 0)
      continue;
    files.push_back(it->path().string());
  }
  std::string const system = std::string(LOGPLUGIN_SYSTEM_NAME) + LOGPLUGIN_SUFFIX;
  std::sort(files.begin(), files.end(), [&](std::string const& a, std::string const& b) {
    bool const as = fs::path(a).filename() == system, bs = fs::path(b).filename() == system;
    if (as != bs) return as;
    return a < b;
  });
  return files;
}

template <class Fn>
bool resolve(void* handle, char const* symbol, Fn& fn, std::string const& path, Reporter& r) {
  fn = reinterpret_cast<Fn>(::dlsym(handle, symbol));
  if (fn != nullptr) return true;
  r.messages.push_back("SLogger: logging plug-in " + path + " does not export " + symbol);
  return false;
}

bool loadPlugin(std::string const& path, std::string const& cmdLine, Plugin& p, Reporter& r) {
  p.handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (p.handle == nullptr) {
    char const* err = ::dlerror();
    r.messages.push_back("SLogger: cannot load logging plug-in " + path + ": " + (err ? err : "?"));
    return false;
  }
  p.name = fs::path(path).stem().string();
  bool ok = resolve(p.handle, "Initialize", p.initialize, path, r) &&
            resolve(p.handle, "Terminate", p.terminate, path, r) &&
            resolve(p.handle, "Trace", p.trace, path, r) &&
            resolve(p.handle, "GetParam", p.getParam, path, r) &&
            resolve(p.handle, "GetParamList", p.getParamList, path, r) &&
            resolve(p.handle, "FreeString", p.freeString, path, r) &&
            resolve(p.handle, "GetDLLVersion", p.version, path, r);
  if (ok && (p.version() >> 16) != 1) {
    uint32_t const v = p.version();
    r.messages.push_back("SLogger: logging plug-in " + path + " has interface version " + std::to_string(v >> 16) +
                         "." + std::to_string(v & 0xFFFF) + ", 1.x expected");
    ok = false;
  }
  if (ok && p.initialize(cmdLine.c_str()) != 0) {
    r.messages.push_back("SLogger: logging plug-in " + path + " failed to initialize");
    ok = false;
  }
  if (!ok) ::dlclose(p.handle);
  return ok;
}

std::vector<Plugin> loadPlugins(std::string const& dir, std::string const& cmdLine, Reporter& r) {
  std::vector<Plugin> plugins;
  if (dir.empty()) return plugins;
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) {
    r.messages.push_back("SLogger: loggingPluginDir " + dir + " is not a directory");
    return plugins;
  }
  for (std::string const& file : pluginFiles(dir)) {
    Plugin p;
    if (loadPlugin(file, cmdLine, p, r)) plugins.push_back(p);
  }
  return plugins;
}

void unloadPlugins(std::vector<Plugin>& plugins) {
  for (Plugin& p : plugins) {
    p.terminate();
    ::dlclose(p.handle);
  }
  plugins.clear();
}

// ------------------------------------------------------------------ bridge

class TraceStateUpdaterThread;

struct Bridge {
  std::shared_mutex lock;
  bool initialized = false;
  TraceConfig base;    // from the command line
  TraceConfig active;  // base with the settings file applied
  std::shared_ptr<spdlog::logger> logger = stderrLogger();
  std::vector<Plugin> plugins;
  std::string cmdLine;
  std::string logFile;
  std::string settingsFile;
  std::unique_ptr<TraceStateUpdaterThread> updater;
  std::atomic<uint32_t> tick{0};
  std::atomic<bool> hasPlugins{false};

  std::mutex observerLock;
  AssertObserverFn assertFn = nullptr;
  void* assertCtx = nullptr;
  TraceObserverFn traceFn = nullptr;
  void* traceCtx = nullptr;
  std::atomic<bool> hasTraceObserver{false};
};

// Never destroyed: code may trace from static destructors.
Bridge& bridge() {
  static Bridge* b = new Bridge;
  return *b;
}

// Serializes Initialize and Terminate (the updater is started and stopped
// outside Bridge::lock, which it takes itself).
std::mutex& lifecycleLock() {
  static std::mutex* m = new std::mutex;
  return *m;
}

void publish(Bridge& b) {
  detail::gTraceState.store(stateWord(b.active), std::memory_order_release);
  b.tick.fetch_add(1, std::memory_order_relaxed);
}

spdlog::level::level_enum spdlogLevel(int level) {
  if (level < 0) return spdlog::level::err;
  if (level == SLogger::tl_Error) return spdlog::level::err;
  LevelRow const& row = kLevelTable[level];
  switch (row.eventClass) {
    case ec_Warning: return spdlog::level::warn;
    case ec_S:
    case ec_M: return spdlog::level::info;
    case ec_L: return spdlog::level::debug;
    case ec_XL: return spdlog::level::trace;
    default: return row.special == kSpecialRequest ? spdlog::level::info : spdlog::level::debug;
  }
}

void notifyTrace(Bridge& b, int level, std::string_view source, int line, std::string_view text) {
  if (!b.hasTraceObserver.load(std::memory_order_acquire)) return;
  TraceObserverFn fn;
  void* ctx;
  {
    std::lock_guard<std::mutex> g(b.observerLock);
    fn = b.traceFn;
    ctx = b.traceCtx;
  }
  if (fn == nullptr) return;
  std::string const s(source), t(text);
  fn(ctx, level, s.c_str(), line, t.c_str());
}

void appendText(spdlog::memory_buf_t& buf, std::string_view s) { buf.append(s.data(), s.data() + s.size()); }

// "<label padded to 7> <source>(<line>): <2*depth blanks><text>"
void appendLineBody(spdlog::memory_buf_t& buf, std::string_view label, std::string_view source, int line,
                    unsigned depth, std::string_view text) {
  static constexpr char kBlanks[] = "                                ";
  appendText(buf, label);
  buf.append(kBlanks, kBlanks + (label.size() < 8 ? 8 - label.size() : 1));
  appendText(buf, source);
  buf.push_back('(');
  char digits[16];
  auto res = std::to_chars(digits, digits + sizeof digits, line);
  buf.append(digits, res.ptr);
  appendText(buf, "): ");
  for (size_t pad = static_cast<size_t>(depth) * 2; pad > 0;) {
    size_t const n = std::min(pad, sizeof kBlanks - 1);
    buf.append(kBlanks, kBlanks + n);
    pad -= n;
  }
  appendText(buf, text);
}

// Writes one line to spdlog and the plug-ins (the observer is told first).
void deliver(int level, char const* label, std::string_view source, int line, std::string_view text,
             unsigned depth) {
  Bridge& b = bridge();
  notifyTrace(b, level, source, line, text);
  spdlog::memory_buf_t buf;
  appendLineBody(buf, label, source, line, depth, text);
  std::shared_lock<std::shared_mutex> g(b.lock);
  b.logger->log(spdlogLevel(level), spdlog::string_view_t(buf.data(), buf.size()));
  if (!b.hasPlugins.load(std::memory_order_relaxed)) return;
  std::string const s(source), t(text);
  for (Plugin const& p : b.plugins) p.trace(level, s.c_str(), line, t.c_str());
}

void reportMisuse(char const* file, int line, std::string const& message) {
  if (!SLogger::ShouldAssert()) return;
  TraceBridge::Assert(file, line, "0", message.c_str());
}

std::string location(char const* file, int line) {
  return std::string(file ? file : "?") + ":" + std::to_string(line);
}

// ------------------------------------------------------- settings updater

struct FileStamp {
  bool exists = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  int64_t mtimeNs = 0;
  bool operator==(FileStamp const&) const = default;
};

FileStamp stampOf(std::string const& path) {
  FileStamp s;
  struct stat st;
  if (path.empty() || ::stat(path.c_str(), &st) != 0) return s;
  s.exists = true;
  s.dev = st.st_dev;
  s.ino = st.st_ino;
  s.size = st.st_size;
  s.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  return s;
}

// The configuration for `base` with the settings file applied.
TraceConfig withSettings(TraceConfig const& base, std::string const& path, Reporter& r) {
  TraceConfig c = base;
  std::vector<std::pair<std::string, std::string>> entries;
  if (path.empty() || !readSettingsFile(path, entries, r)) return c;
  for (auto const& [key, value] : entries) applyOption(key, value, c, r, true);
  return c;
}

void emit(std::vector<std::string> const& messages) {
  for (std::string const& m : messages) TraceBridge::Diagnostic(m);
}

// Re-reads the settings file and publishes the state when it changed.
void refreshFromSettings() {
  Bridge& b = bridge();
  Reporter r{"TraceStateUpdater: "};
  {
    std::unique_lock<std::shared_mutex> g(b.lock);
    if (!b.initialized) return;
    r.context += b.settingsFile + ": ";
    TraceConfig const next = withSettings(b.base, b.settingsFile, r);
    bool const changed = stateWord(next) != stateWord(b.active) ||
                         printFilter(next.filter) != printFilter(b.active.filter);
    if (changed) {
      b.active = next;
      publish(b);
    }
  }
  emit(r.messages);
}

void flushLog() {
  Bridge& b = bridge();
  std::shared_lock<std::shared_mutex> g(b.lock);
  b.logger->flush();
}

// Keeps the cached trace state in step with the settings file, and
// flushes the log, once per period.
class TraceStateUpdaterThread {
 public:
  static constexpr char const* kName = "TraceStateUpdater";

  TraceStateUpdaterThread(std::string path, bool watch) : path_(std::move(path)), watch_(watch) {
    last_ = stampOf(path_);
    thread_ = std::thread([this] { run(); });
  }
  ~TraceStateUpdaterThread() {
    {
      std::lock_guard<std::mutex> g(m_);
      stop_ = true;
    }
    cv_.notify_all();
    thread_.join();
  }

 private:
  void run() {
    // The kernel keeps 15 characters of a thread name.
    std::string const shortName = std::string(kName).substr(0, 15);
    ::pthread_setname_np(::pthread_self(), shortName.c_str());
    std::unique_lock<std::mutex> lk(m_);
    while (!cv_.wait_for(lk, kUpdatePeriod, [this] { return stop_; })) {
      lk.unlock();
      poll();
      lk.lock();
    }
  }
  void poll() {
    if (watch_) {
      FileStamp const now = stampOf(path_);
      if (!(now == last_)) {
        last_ = now;
        refreshFromSettings();
      }
    }
    flushLog();
  }

  std::string path_;
  bool watch_;
  FileStamp last_;
  std::mutex m_;
  std::condition_variable cv_;
  bool stop_ = false;
  std::thread thread_;
};

// ------------------------------------------------------------- describing

std::string levelLine(TraceConfig const& c, int level) {
  bool const on = (levelMask(c) & (1u << level)) != 0;
  LevelRow const& row = kLevelTable[level];
  char buf[128];
  std::snprintf(buf, sizeof buf, "  %2d %-11s %-10s %s%s\n", level, kLevelNames[level], LevelLabel(level),
                on ? "on" : "off", row.flag ? " (legacy name)" : "");
  return buf;
}

std::string traceValueText(TraceConfig const& c) {
  if (c.never) return "nevertrace";
  std::string v;
  auto add = [&](std::string const& w) { v += (v.empty() ? "" : ",") + w; };
  if (c.threshold > 0) add(lower(kClassLabels[c.threshold]));
  else if (c.warnings) add("w");
  for (int i = 0; i < 4; ++i)
    if (c.selectors & (1u << i)) add(kSelectorWords[i]);
  if (c.reqTrace) add("req");
  if (c.sdkTrace) add("sdk");
  for (int i = 0; i < SLogger::kLevelCount; ++i)
    if (c.singleLevels & (1u << i)) add(std::to_string(i));
  return v.empty() ? "off" : v;
}

std::string describeConfig(TraceConfig const& c, std::string const& logFile, std::string const& settings) {
  std::ostringstream o;
  o << "trace: " << traceValueText(c) << (c.warnings || c.never ? "" : " (warnings off)") << "\n";
  if (logFile.empty()) {
    o << "output: standard error\n";
  } else {
    o << "output: " << logFile;
    if (c.maxLogFileSize > 0) o << " (rotated at " << c.maxLogFileSize << " bytes, keep " << c.keep << ")";
    else o << " (not rotated)";
    if (c.alwaysClose) o << " (closed after each line)";
    o << "\n";
  }
  o << "component name in lines: " << (c.traceCmpName ? "on" : "off") << "\n";
  o << "settings file: ";
  if (!c.traceIni || settings.empty()) o << "none\n";
  else o << settings << (c.traceThread ? " (watched by TraceStateUpdater)" : " (read at start only)") << "\n";
  o << "fileLogFilter: " << (c.filter.empty() ? "none" : printFilter(c.filter)) << "\n";
  o << "request interception: " << (c.intercept && !c.never ? "on" : "off") << "\n";
  o << "assertions: " << (c.asserts ? "on" : "off") << (c.nativeAssert ? " (native)" : "")
    << (c.stackDump ? " (with stack dump)" : "") << "\n";
  o << "logging plug-ins: ";
  if (c.pluginDir.empty()) {
    o << "none\n";
  } else {
    o << c.pluginDir << "\n";
    for (std::string const& f : pluginFiles(c.pluginDir)) o << "  " << f << "\n";
  }
  o << "levels:\n";
  for (int level = 0; level < SLogger::tl_Last; ++level) o << levelLine(c, level);
  return o.str();
}

void validateOnce() {
  static std::once_flag once;
  std::call_once(once, [] { emit(ValidateMapping(kLevelTable, SLogger::kLevelCount)); });
}

// A process that exits without Terminate still gets its log flushed, its
// plug-ins terminated and the updater stopped before static destruction.
void terminateAtExit();
void registerExitHandler() {
  static std::once_flag once;
  std::call_once(once, [] { std::atexit(terminateAtExit); });
}

}  // namespace

// ------------------------------------------------------------- public side

char const* LevelName(int level) {
  if (level < 0 || level >= SLogger::kLevelCount) return "?";
  return kLevelNames[level];
}

char const* LevelLabel(int level) {
  if (level < 0) return "Assert";
  if (level >= SLogger::kLevelCount) return "?";
  if (level == SLogger::tl_Error) return "Error";
  LevelRow const& row = kLevelTable[level];
  if (row.eventClass >= 0) return kClassLabels[row.eventClass];
  if (row.selector >= 0) return kSelectorLabels[row.selector];
  if (row.special == kSpecialRequest) return "Request";
  return level == SLogger::tl_Never ? "None" : "?";
}

std::string_view SourceName(char const* file) {
  if (file == nullptr) return std::string_view();
  char const* base = std::strrchr(file, '/');
  base = base ? base + 1 : file;
  char const* dot = std::strrchr(base, '.');
  return dot ? std::string_view(base, static_cast<size_t>(dot - base)) : std::string_view(base);
}

namespace {

void terminateNow() {
  Bridge& b = bridge();
  try {
    b.updater.reset();
    std::unique_lock<std::shared_mutex> g(b.lock);
    if (!b.initialized) return;
    b.logger->flush();
    b.hasPlugins.store(false, std::memory_order_relaxed);
    unloadPlugins(b.plugins);
    b.logger = stderrLogger();
    b.base = b.active = TraceConfig();
    b.logFile.clear();
    b.settingsFile.clear();
    b.cmdLine.clear();
    b.initialized = false;
    publish(b);
  } catch (std::exception const& e) {
    std::fprintf(stderr, "TraceBridge::Terminate() caught %s\n", e.what());
  }
}

std::string describeActive() {
  Bridge& b = bridge();
  std::shared_lock<std::shared_mutex> g(b.lock);
  return describeConfig(b.active, b.logFile, b.settingsFile);
}

void terminateAtExit() { TraceBridge::Terminate(); }

}  // namespace

bool TraceBridge::Initialize(CParamLineArgs const& args, bool readEnvironment) {
  std::lock_guard<std::mutex> life(lifecycleLock());
  validateOnce();
  registerExitHandler();
  terminateNow();
  Bridge& b = bridge();
  CParamLineArgs const all = withEnvironment(args, readEnvironment);
  Reporter r{kInitContext};
  TraceConfig const base = parseOptions(all, r);
  if (base.verbose) Diagnostic("Admin before TraceBridge::Initialize:\n" + describeActive(), true);
  std::string file;
  auto logger = makeLogger(base, r, file);
  std::string const settings = base.traceIni ? settingsPath(base) : std::string();
  Reporter fileReport("TraceStateUpdater: " + settings + ": ");
  TraceConfig const active = withSettings(base, settings, fileReport);
  r.messages.insert(r.messages.end(), fileReport.messages.begin(), fileReport.messages.end());
  std::string const cmdLine = args.CmdLine();
  std::vector<Plugin> plugins = loadPlugins(base.pluginDir, cmdLine, r);
  {
    std::unique_lock<std::shared_mutex> g(b.lock);
    b.base = base;
    b.active = active;
    b.logger = std::move(logger);
    b.logFile = file;
    b.settingsFile = settings;
    b.cmdLine = cmdLine;
    b.plugins = std::move(plugins);
    b.hasPlugins.store(!b.plugins.empty(), std::memory_order_relaxed);
    b.initialized = true;
    publish(b);
  }
  if (base.traceThread) b.updater = std::make_unique<TraceStateUpdaterThread>(settings, !settings.empty());
  emit(r.messages);
  if (base.verbose) {
    Diagnostic("Loomtrace state:\n" + describeConfig(active, file, settings), true);
    if (!active.filter.empty()) Diagnostic("Using ByFileLine predicate:\n" + printFilter(active.filter), true);
  }
  return r.messages.empty();
}

void TraceBridge::Terminate() {
  std::lock_guard<std::mutex> life(lifecycleLock());
  terminateNow();
}

bool TraceBridge::IsInitialized() {
  std::shared_lock<std::shared_mutex> g(bridge().lock);
  return bridge().initialized;
}

bool TraceBridge::ShouldTraceSlow(int level, char const* file, int line) {
  if (level < 0 || level >= SLogger::kLevelCount) {
    reportMisuse(file, line, "TraceBridge::ShouldTrace: Invalid trace level specified at " + location(file, line));
    return false;
  }
  LevelRow const& row = kLevelTable[level];
  if (row.special != kSpecialNone && row.special != kSpecialSdkRequest && row.special != kSpecialRequest) {
    reportMisuse(file, line, std::string("TraceBridge::ShouldTrace: unhandled special trace level in ") +
                                 (file ? file : "?"));
    return false;
  }
  uint32_t const s = detail::gTraceState.load(std::memory_order_acquire);
  if ((s & (1u << level)) == 0) return false;
  if ((s & detail::kStateSlowPath) == 0 || row.eventClass == ec_Warning) return true;
  Bridge& b = bridge();
  std::shared_lock<std::shared_mutex> g(b.lock);
  return b.active.filter.empty() || filterMatches(b.active.filter, file, line);
}

void TraceBridge::Trace(int level, std::string_view text, char const* file, int line, unsigned depth) {
  bool const known = level >= 0 && level < SLogger::kLevelCount && level != SLogger::tl_Never &&
                     level != SLogger::tl_Last;
  if (!known) {
    reportMisuse(file, line, "Invalid or unimplemented tracing level at " + location(file, line));
    return;
  }
  if (!SLogger::ShouldTrace(level, file, line)) return;
  int const special = kLevelTable[level].special;
  char const* prefix = special == kSpecialRequest ? "REQUEST\t" : special == kSpecialSdkRequest ? "SDKREQ\t" : "";
  if (*prefix == '\0') {
    deliver(level, LevelLabel(level), SourceName(file), line, text, depth);
    return;
  }
  std::string full(prefix);
  full.append(text);
  deliver(level, LevelLabel(level), SourceName(file), line, full, depth);
}

void TraceBridge::TraceIntercept(std::string_view text) {
  if ((detail::gTraceState.load(std::memory_order_relaxed) & detail::kStateIntercept) == 0) return;
  std::string full("REQUEST\t");
  full.append(text);
  deliver(SLogger::tl_Request, "Request", "slogger", 0, full, 0);
}

void TraceBridge::Diagnostic(std::string const& message, bool info) {
  int const level = info ? SLogger::tl_Info : SLogger::tl_Warning;
  deliver(level, info ? "Info" : "Warning", "loomtrace_logger", 0, message, 0);
}

namespace {

std::string assertText(char const* condition, char const* message) {
  std::string t = "Assertion failed: ";
  t += condition ? condition : "";
  if (message != nullptr && *message != '\0') {
    t += " - ";
    t += message;
  }
  return t;
}

void notifyAssert(std::string const& source, int line, char const* condition, char const* message) {
  Bridge& b = bridge();
  AssertObserverFn fn;
  void* ctx;
  {
    std::lock_guard<std::mutex> g(b.observerLock);
    fn = b.assertFn;
    ctx = b.assertCtx;
  }
  if (fn) fn(ctx, source.c_str(), line, condition ? condition : "", message ? message : "");
}

// The caller's stack below the assertion, one "    at" line a frame.
std::string stackDump() {
  SAnsiString const frames = SStackWalk::capture(2, 48);
  std::string_view rest(frames.getString(), frames.getLength());
  std::string out;
  while (!rest.empty()) {
    size_t const nl = rest.find('\n');
    out.append("\n    at ").append(rest.substr(0, nl));
    rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
  }
  return out;
}

}  // namespace

void TraceBridge::Assert(char const* file, int line, char const* condition, char const* message) {
  Bridge& b = bridge();
  bool native, dump, initialized;
  {
    std::shared_lock<std::shared_mutex> g(b.lock);
    native = b.active.nativeAssert;
    dump = b.active.stackDump;
    initialized = b.initialized;
  }
  if (!initialized) {
    UnloadedAssert(file, line, condition, message);
    return;
  }
  std::string const source(SourceName(file));
  notifyAssert(source, line, condition, message);
  std::string text = assertText(condition, message);
  if (dump) text += stackDump();
  if (native) {
    std::fprintf(stderr, "%s: %s:%d: %s\n", programName().c_str(), source.c_str(), line, text.c_str());
  } else {
    spdlog::memory_buf_t buf;
    appendLineBody(buf, "Assert", source, line, 0, text);
    std::shared_lock<std::shared_mutex> g(b.lock);
    b.logger->log(spdlog::level::err, spdlog::string_view_t(buf.data(), buf.size()));
  }
  std::shared_lock<std::shared_mutex> g(b.lock);
  for (Plugin const& p : b.plugins) p.trace(-1, source.c_str(), line, text.c_str());
}

void TraceBridge::UnloadedAssert(char const* file, int line, char const* condition, char const* message) {
  std::string const source(SourceName(file));
  notifyAssert(source, line, condition, message);
  std::fprintf(stderr, "Assertion failed: %s(%d): %s\n", source.c_str(), line,
               assertText(condition, message).c_str() + std::strlen("Assertion failed: "));
}

void TraceBridge::SetAssertEnabled(bool enabled) {
  Bridge& b = bridge();
  std::unique_lock<std::shared_mutex> g(b.lock);
  b.base.asserts = b.active.asserts = enabled;
  publish(b);
}

void TraceBridge::SetAssertObserver(AssertObserverFn fn, void* ctx) {
  Bridge& b = bridge();
  std::lock_guard<std::mutex> g(b.observerLock);
  b.assertFn = fn;
  b.assertCtx = fn ? ctx : nullptr;
}

void TraceBridge::SetTraceObserver(TraceObserverFn fn, void* ctx) {
  Bridge& b = bridge();
  std::lock_guard<std::mutex> g(b.observerLock);
  b.traceFn = fn;
  b.traceCtx = fn ? ctx : nullptr;
  b.hasTraceObserver.store(fn != nullptr, std::memory_order_release);
}

std::string TraceBridge::CmdLine() {
  std::shared_lock<std::shared_mutex> g(bridge().lock);
  return bridge().cmdLine;
}

std::string TraceBridge::LogFile() {
  std::shared_lock<std::shared_mutex> g(bridge().lock);
  return bridge().logFile;
}

uint32_t TraceBridge::MajorTick() { return bridge().tick.load(std::memory_order_relaxed); }

bool TraceBridge::CanStackDump() {
  std::shared_lock<std::shared_mutex> g(bridge().lock);
  return bridge().active.stackDump;
}

bool TraceBridge::IsNativeAssert() {
  std::shared_lock<std::shared_mutex> g(bridge().lock);
  return bridge().active.nativeAssert;
}

std::string TraceBridge::Describe(CParamLineArgs const& args, bool readEnvironment) {
  Reporter r{kInitContext};
  TraceConfig const base = parseOptions(withEnvironment(args, readEnvironment), r);
  std::string const settings = base.traceIni ? settingsPath(base) : std::string();
  Reporter fileReport("TraceStateUpdater: " + settings + ": ");
  TraceConfig const active = withSettings(base, settings, fileReport);
  r.messages.insert(r.messages.end(), fileReport.messages.begin(), fileReport.messages.end());
  std::string out = describeConfig(active, resolveLogFile(base.logFile), settings);
  for (std::string const& m : r.messages) out += "rejected: " + m + "\n";
  return out;
}

std::vector<std::string> TraceBridge::PluginNames() {
  std::shared_lock<std::shared_mutex> g(bridge().lock);
  std::vector<std::string> names;
  for (Plugin const& p : bridge().plugins) names.push_back(p.name);
  return names;
}

std::string TraceBridge::PluginParam(char const* plugin, char const* name) {
  std::shared_lock<std::shared_mutex> g(bridge().lock);
  for (Plugin const& p : bridge().plugins) {
    if (p.name != plugin) continue;
    char* v = p.getParam(name);
    std::string const out = v ? v : "";
    if (v) p.freeString(v);
    return out;
  }
  return std::string();
}

std::vector<std::string> TraceBridge::PluginParamNames(char const* plugin) {
  std::shared_lock<std::shared_mutex> g(bridge().lock);
  std::vector<std::string> names;
  for (Plugin const& p : bridge().plugins) {
    if (p.name != plugin) continue;
    char* list = p.getParamList();
    if (list == nullptr) return names;
    for (std::string const& n : split(list, "\n"))
      if (!n.empty()) names.push_back(n);
    p.freeString(list);
  }
  return names;
}

}  // namespace tracing
}  // namespace QuenLibA500
