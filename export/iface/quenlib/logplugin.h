// logplugin.h: the interface of a logging plug-in.
//
// A logging plug-in is a shared object named "log_xn_<name>.so" placed in
// the directory given by the "loggingPluginDir" option. When the logger
// initializes it loads every such file (dlopen, RTLD_NOW | RTLD_LOCAL):
// "log_xn_system.so" first, the others in order of their names. A plug-in
// exports the seven functions below with C linkage; a file that lacks one
// of them, or whose Initialize fails, is reported and unloaded. Every trace
// line that passes ShouldTrace, and every assertion (level -1), is handed
// to each plug-in's Trace, from the thread that traced, so Trace must be
// thread-safe. A plug-in must not call back into the logger.
//
//   // log_xn_mine.cpp, built with -shared -fPIC
//   #include <quenlib/logplugin.h>
//   extern "C" {
//   LOGPLUGIN_EXPORT int Initialize(char const* cmdLine) { ...; return 0; }
//   LOGPLUGIN_EXPORT void Terminate(void) { ... }
//   LOGPLUGIN_EXPORT void Trace(int level, char const* source, int line,
//                               char const* text) { ... }
//   LOGPLUGIN_EXPORT char* GetParam(char const* name) { return strdup("..."); }
//   LOGPLUGIN_EXPORT char* GetParamList(void) { return strdup("file\n"); }
//   LOGPLUGIN_EXPORT void FreeString(char* s) { free(s); }
//   LOGPLUGIN_EXPORT uint32_t GetDLLVersion(void) { return LOGPLUGIN_VERSION(1, 0); }
//   }
#pragma once

#include <stdint.h>

#define LOGPLUGIN_EXPORT __attribute__((visibility("default")))
// A plug-in version: major in the high 16 bits, minor in the low 16 bits.
#define LOGPLUGIN_VERSION(major, minor) ((uint32_t)(((major) << 16) | ((minor)&0xFFFF)))
// The name of the system plug-in, loaded before the others.
#define LOGPLUGIN_SYSTEM_NAME "log_xn_system"
// File names: LOGPLUGIN_PREFIX <name> LOGPLUGIN_SUFFIX.
#define LOGPLUGIN_PREFIX "log_xn_"
#define LOGPLUGIN_SUFFIX ".so"

#ifdef __cplusplus
extern "C" {
#endif

// Called once after loading with the process's command line (quoted for
// /bin/sh). Returns 0 when the plug-in is ready; any other value unloads it.
typedef int (*LogPluginInitializeFn)(char const* cmdLine);
// Called once before unloading; no Trace call follows.
typedef void (*LogPluginTerminateFn)(void);
// One line: trace level (0..18, or -1 for an assertion), source name
// (without directory or extension), line number, final text (UTF-8).
typedef void (*LogPluginTraceFn)(int level, char const* source, int line, char const* text);
// The value of a named parameter of the plug-in, or NULL when unknown. The
// caller releases a non-null result with FreeString.
typedef char* (*LogPluginGetParamFn)(char const* name);
// The names of the plug-in's parameters, one per line ('\n' after each),
// released with FreeString.
typedef char* (*LogPluginGetParamListFn)(void);
// Releases a string returned by GetParam or GetParamList.
typedef void (*LogPluginFreeStringFn)(char* s);
// The plug-in's version, LOGPLUGIN_VERSION(major, minor).
typedef uint32_t (*LogPluginGetDLLVersionFn)(void);

#ifdef __cplusplus
}
#endif
