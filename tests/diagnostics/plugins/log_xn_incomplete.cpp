// log_xn_incomplete: a plug-in that lacks most of the interface; the
// logger must report it and leave it unloaded.
#include <quenlib/logplugin.h>

extern "C" {
LOGPLUGIN_EXPORT int Initialize(char const*) { return 0; }
LOGPLUGIN_EXPORT void Trace(int, char const*, int, char const*) {}
}
