// slogger.h: the library's one channel for assertions and traces.
//
// Code asks `SLogger::ShouldAssert()` before it builds a message and then
// reports through `SAssert`; execution always continues after an assertion.
// Embedders can watch what the library reports with the observers:
//
//   void onAssert(void* ctx, char const* file, int line,
//                 char const* cond, char const* msg) { ... }
//   QuenLibA500::SetAssertObserver(&onAssert, nullptr);
//   ...
//   QuenLibA500::SetAssertObserver(nullptr, nullptr);  // removes it
//
// `file` given to an observer is the source name without directory or
// extension ("sstring", not "src/sstring.cpp").
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>

namespace QuenLibA500 {

using AssertObserverFn = void (*)(void* ctx, char const* file, int line,
                                  char const* condition, char const* message);
using TraceObserverFn = void (*)(void* ctx, int level, char const* file,
                                 int line, char const* text);

// Installs (or with a null fn, removes) the process-wide assertion observer.
QUENLIB_API void SetAssertObserver(AssertObserverFn fn, void* ctx);
// Installs (or with a null fn, removes) the process-wide trace observer.
QUENLIB_API void SetTraceObserver(TraceObserverFn fn, void* ctx);

class QUENLIB_API SLogger {
 public:
  // True when assertions are reported (the default; "noassert" turns it off).
  // A lock-free read of cached state.
  static bool ShouldAssert();
  // Switches assertion reporting on or off for the whole process.
  static void SetAssertEnabled(bool enabled);
};

QUENLIB_API bool ShouldAssert();

// Reports an assertion: source file (any path; directory and extension are
// dropped), line, the condition's text and an optional message. Returns.
QUENLIB_API void SAssert(char const* file, int line, char const* condition);
QUENLIB_API void SAssert(char const* file, int line, char const* condition,
                         char const* message);
QUENLIB_API void SAssert(char const* file, int line, char const* condition,
                         WChar const* message);

}  // namespace QuenLibA500
