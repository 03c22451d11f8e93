// version.cpp: the version string of the loaded library.
#include <quenlib/version.h>

namespace QuenLibA500 {

#define QL_STR2(x) #x
#define QL_STR(x) QL_STR2(x)

char const* LibraryVersion() {
  return QL_STR(QUENLIB_VERSION_MAJOR) "." QL_STR(QUENLIB_VERSION_MINOR) "." QL_STR(
      QUENLIB_VERSION_PATCH);
}

}  // namespace QuenLibA500
