// A program outside the tree that uses the installed library.
#include <quenlib/quenlib.h>

#include <cstdio>
#include <cstring>

int main() {
  char const* v = QuenLibA500::LibraryVersion();
  if (std::strcmp(v, "5.0.0") != 0) {
    std::fprintf(stderr, "unexpected version %s\n", v);
    return 1;
  }
  std::puts("consumer ok");
  return 0;
}
