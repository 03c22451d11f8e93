// sstackwalk.h: the calling thread's stack as text.
//
// `SStackWalk::capture()` lists the frames of the calling thread, one a
// line, innermost first, each as its number, the demangled function name
// with the offset into it, and the file of the module that holds it:
//
//   #0 QuenLibA500::Registry::Open(QuenLibA500::SAnsiString const&)+0x4c in libquenlib-5-0.so.5.0
//   #1 main+0x21 in server
//
// Functions the module does not export (static or hidden ones) show their
// address instead of a name; link programs with -rdynamic to name theirs.
// Assertion reports append this text when the trace option "stackdump" is
// on. The walk allocates, so it is not for signal handlers.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class QUENLIB_API SStackWalk {
 public:
  SStackWalk() = delete;
  // At most maxFrames frames, after leaving out the skip innermost ones
  // (capture itself is never listed).
  static SAnsiString capture(unsigned skip = 0, unsigned maxFrames = 64);
};

}  // namespace QuenLibA500
