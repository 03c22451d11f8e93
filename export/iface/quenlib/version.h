// version.h: the library's version, as compiled in and as loaded, and the
// comparison of dotted version texts.
//
//   std::printf("%s\n", QuenLibA500::LibraryVersion());  // "5.0.0"
//   if (QuenLibA500::CompareVersions(LibraryVersion(), "5.0.1") < 0) ...
//
// CompareVersions splits both texts at "." and compares the parts in order:
// the leading digits of a part as a number ("10" > "9", "007" == "7"), then
// what follows them as text, where a part without such a tail sorts after
// one with a tail ("2.0" > "2.0rc1", a pre-release). A missing part counts as
// "0" ("1.2" == "1.2.0"). Leading and trailing blanks are ignored.
#pragma once

#include <quenlib/quenlib_export.h>

#define QUENLIB_VERSION_MAJOR 5
#define QUENLIB_VERSION_MINOR 0
#define QUENLIB_VERSION_PATCH 0

namespace QuenLibA500 {
// The version of the loaded shared library, "major.minor.patch".
QUENLIB_API char const* LibraryVersion();
// Negative, 0 or positive as a is older than, the same as or newer than b.
// A null text counts as "".
QUENLIB_API int CompareVersions(char const* a, char const* b);
}  // namespace QuenLibA500
