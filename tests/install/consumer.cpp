// A program outside the tree that uses the installed library through the
// umbrella header: strings, conversions and the version.
#include <quenlib/quenlib.h>

#include <cstdio>
#include <cstring>

using namespace QuenLibA500;

int main() {
  if (std::strcmp(LibraryVersion(), "5.0.0") != 0) {
    std::fprintf(stderr, "unexpected version %s\n", LibraryVersion());
    return 1;
  }
  SAnsiString a("hello");
  SAnsiString b = a;
  b += ", world";
  if (a != SAnsiString("hello") || b.getNChars() != 12) {
    std::fputs("string sharing broken\n", stderr);
    return 1;
  }
  if (!(SAnsiString("b") < SAnsiString("aa"))) {
    std::fputs("ordering broken\n", stderr);
    return 1;
  }
  std::printf("consumer ok: %s\n", b.getString());
  return 0;
}
