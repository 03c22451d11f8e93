// version.h: the library's version, as compiled in and as loaded.
//
//   std::printf("%s\n", QuenLibA500::LibraryVersion());  // "5.0.0"
#pragma once

#include <quenlib/quenlib_export.h>

#define QUENLIB_VERSION_MAJOR 5
#define QUENLIB_VERSION_MINOR 0
#define QUENLIB_VERSION_PATCH 0

namespace QuenLibA500 {
// The version of the loaded shared library, "major.minor.patch".
QUENLIB_API char const* LibraryVersion();
}  // namespace QuenLibA500
