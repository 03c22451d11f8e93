// log_xn_future: a complete plug-in of an interface version the logger
// does not know (2.0); the logger must refuse it.
#include <quenlib/logplugin.h>

#include <cstdlib>

extern "C" {
LOGPLUGIN_EXPORT int Initialize(char const*) { return 0; }
LOGPLUGIN_EXPORT void Terminate(void) {}
LOGPLUGIN_EXPORT void Trace(int, char const*, int, char const*) {}
LOGPLUGIN_EXPORT char* GetParam(char const*) { return nullptr; }
LOGPLUGIN_EXPORT char* GetParamList(void) { return nullptr; }
LOGPLUGIN_EXPORT void FreeString(char* s) { std::free(s); }
LOGPLUGIN_EXPORT uint32_t GetDLLVersion(void) { return LOGPLUGIN_VERSION(2, 0); }
}
