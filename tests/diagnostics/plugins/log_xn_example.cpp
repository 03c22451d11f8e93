// log_xn_example: a logging plug-in that appends every line it receives to
// a file: $LOG_XN_EXAMPLE_FILE, or "log_xn_example.txt" in the current
// directory. Each line is "<level> <source>:<line> <text>".
#include <quenlib/logplugin.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

std::mutex gLock;
FILE* gFile = nullptr;
std::string gPath;
std::string gCmdLine;
unsigned long gLines = 0;

char* copy(std::string const& s) { return ::strdup(s.c_str()); }

}  // namespace

extern "C" {

LOGPLUGIN_EXPORT int Initialize(char const* cmdLine) {
  std::lock_guard<std::mutex> g(gLock);
  char const* env = std::getenv("LOG_XN_EXAMPLE_FILE");
  gPath = env && *env ? env : "log_xn_example.txt";
  gCmdLine = cmdLine ? cmdLine : "";
  gFile = std::fopen(gPath.c_str(), "a");
  return gFile ? 0 : 1;
}

LOGPLUGIN_EXPORT void Terminate(void) {
  std::lock_guard<std::mutex> g(gLock);
  if (gFile) std::fclose(gFile);
  gFile = nullptr;
}

LOGPLUGIN_EXPORT void Trace(int level, char const* source, int line, char const* text) {
  std::lock_guard<std::mutex> g(gLock);
  if (!gFile) return;
  std::fprintf(gFile, "%d %s:%d %s\n", level, source, line, text);
  std::fflush(gFile);
  ++gLines;
}

LOGPLUGIN_EXPORT char* GetParam(char const* name) {
  std::lock_guard<std::mutex> g(gLock);
  if (std::strcmp(name, "file") == 0) return copy(gPath);
  if (std::strcmp(name, "lines") == 0) return copy(std::to_string(gLines));
  if (std::strcmp(name, "cmdline") == 0) return copy(gCmdLine);
  return nullptr;
}

LOGPLUGIN_EXPORT char* GetParamList(void) { return copy("file\nlines\ncmdline\n"); }

LOGPLUGIN_EXPORT void FreeString(char* s) { std::free(s); }

LOGPLUGIN_EXPORT uint32_t GetDLLVersion(void) { return LOGPLUGIN_VERSION(1, 0); }

}  // extern "C"
